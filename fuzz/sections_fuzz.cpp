// Metadata and tokenizer section: arbitrary bytes in a sound container, then the vocabulary at
// work.
//
// Input: u16 length of the metadata section, that section, and the tokenizer section as the rest.
#include "format/container_builder.h"
#include "format/loader.h"
#include "fuzz.h"
#include "input.h"
#include "tokenizer/tokenizer.h"

namespace {

using kiv::ORB2Reader;
using orbfuzz::require;
using orbtest::Bytes;
using orbtest::SectionType;

void readMetadata(const ORB2Reader& reader) {
  ORB2Reader::MetaEntryView entry;
  uint64_t count = 0;
  for (; reader.metaAt(count, entry); ++count) {
    const char* key = entry.key.c_str();
    uint32_t u32 = 0;
    int32_t i32 = 0;
    float f32 = 0;
    uint64_t u64 = 0;
    std::string text;
    const uint32_t* array = nullptr;
    uint64_t length = 0;
    const int found = static_cast<int>(reader.getMetaU32(key, u32)) + reader.getMetaI32(key, i32) +
                      reader.getMetaF32(key, f32) + reader.getMetaU64(key, u64) +
                      reader.getMetaStr(key, text) + reader.getMetaU32Array(key, array, length);
    require(found >= 1 || entry.key.find('\0') != std::string::npos,
            "an entry is found by its key");
    for (uint64_t i = 0; i < length; ++i) u32 ^= array[i];
  }
  require(!reader.metaAt(count, entry), "no entry after the last");
}

void useVocabulary(kiv::TokenizerData data) {
  std::string text = "Hi <|im_start|>user\nit's 1234 \xC4\xA0 \xE2\x96\x81!\n\n";
  for (size_t i = 0; i < std::min<size_t>(data.tokens.size(), 16); ++i) {
    text += data.tokens[i].substr(0, 64);
    if (i < data.merges.size()) text += data.merges[i].substr(0, 64);
  }
  kiv::Tokenizer tokenizer;
  const bool loaded = tokenizer.load(std::move(data)).ok();
  require(loaded == (tokenizer.tokenCount() > 0), "a vocabulary with tokens loads");
  std::vector<int32_t> ids;
  require(tokenizer.encode(text, ids, true).ok() == loaded, "a loaded vocabulary encodes");
  std::string decoded;
  for (const int32_t id : ids) {
    const bool inside = id >= 0 && static_cast<size_t>(id) < tokenizer.tokenCount();
    require(inside || id == tokenizer.bosId() || id == tokenizer.unknownId(), "ids are tokens");
    require(!loaded || tokenizer.decode({id}, decoded).ok() == inside, "tokens decode");
  }
  for (const auto& [special, id] : tokenizer.specials()) {
    require(special.empty() || tokenizer.tokenToId(special) >= 0, "specials are tokens");
    require(static_cast<size_t>(id) < tokenizer.tokenCount(), "specials have ids");
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orbfuzz::Input input(data, size);
  const auto length = input.number<uint16_t>();
  orbtest::ContainerBuilder builder;
  builder.section(SectionType::Meta, input.take(length))
      .section(SectionType::Tokenizer, input.rest());
  const orbfuzz::MemoryFile place(builder.build());
  kiv::ORBLoader loader;
  const kiv::Status status = loader.open(place.path());
  require(status.ok() == loader.opened, "the loader says whether it is open");
  require(status.ok() == status.message.empty(), "a failure has a message");
  if (loader.reader.opened()) readMetadata(loader.reader);
  if (loader.opened) useVocabulary(std::move(loader.tokenizer));
  return 0;
}
