// Writes the inputs that the fuzz targets start from: fuzz_seeds DIRECTORY makes one folder a
// target.
#include <cstdio>
#include <filesystem>

#include "format/container_builder.h"

namespace {

using kiv::orb2::MetaType;
using orbtest::Bytes;
using orbtest::ContainerBuilder;
using orbtest::QuantType;
using orbtest::SectionType;
using orbtest::tokenizerSection;

class Folder {
 public:
  Folder(const std::filesystem::path& parent, const char* name) : path_(parent / name) {
    std::filesystem::create_directories(path_);
  }
  void add(const std::string& name, const Bytes& content) const {
    std::ofstream file(path_ / name, std::ios::binary);
    const std::vector<uint8_t>& bytes = content.get();
    file.write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    if (!file.flush()) std::fprintf(stderr, "%s was not written\n", name.c_str());
  }

 private:
  std::filesystem::path path_;
};

kiv::TokenizerData vocabulary() {
  kiv::TokenizerData data;
  data.model = "bpe";
  data.tokens = {"a", "b", "ab", "\xE2\x96\x81", "<|im_end|>"};
  data.scores = {1, 2, 3, 4, 5};
  data.types = {1, 1, 1, 1, 3};
  data.merges = {"a b", "\xE2\x96\x81 a"};
  data.specialIds = {-1, 4, -1, -1};
  return data;
}

Bytes metadata() {
  return Bytes()
      .u32(7)
      .raw(Bytes().metaKey("general.architecture", MetaType::String).text("qwen35"))
      .raw(Bytes().metaKey("a", MetaType::U32).u32(1))
      .raw(Bytes().metaKey("b", MetaType::I32).i32(-1))
      .raw(Bytes().metaKey("c", MetaType::F32).f32(0.5f))
      .raw(Bytes().metaKey("d", MetaType::U64).u64(1))
      .raw(Bytes().metaKey("e", MetaType::String).text("text"))
      .raw(Bytes().metaKey("f", MetaType::U32Array).u32(2).u32(1).u32(2));
}

ContainerBuilder smallContainer() {
  ContainerBuilder builder;
  builder.tensor("token_embd.weight", QuantType::F32, {2, 2}, Bytes().zeros(16))
      .tensor("output_norm.weight", QuantType::F32, {2}, Bytes().zeros(8))
      .section(SectionType::Meta, metadata())
      .section(SectionType::QuantInfo, Bytes().zeros(64))
      .text("text")
      .tokenizer(vocabulary());
  return builder;
}

void containerSeeds(const Folder& folder) {
  folder.add("raw", Bytes().u8(2).raw(Bytes(smallContainer().build())));
  folder.add("raw_unsealed", Bytes().u8(0).raw(Bytes(smallContainer().build())));
  folder.add("raw_empty", Bytes().u8(2).raw(Bytes(ContainerBuilder().build())));
  for (const uint8_t tier : {0, 16, 32}) {
    folder.add("model_" + std::to_string(tier), Bytes().u8(3 | tier));
    folder.add("model_linear_" + std::to_string(tier), Bytes().u8(3 | 8 | tier));
  }
  // Each field of an index entry, and each of the other kinds of change.
  for (uint8_t field = 0; field < 12; ++field) {
    folder.add("field_" + std::to_string(field),
               Bytes().u8(3).u8(0).u16(353).u8(field).u64(UINT64_MAX));
  }
  // The embedding in every type and of a whole block.
  for (const uint16_t type : {0, 2, 3, 5, 7, 8, 9}) {
    folder.add("type_" + std::to_string(type),
               Bytes().u8(3).u8(0).u16(353).u8(4).u16(type).u8(0).u16(353).u8(6).u64(256));
  }
  folder.add("weights", Bytes().u8(3).u8(1).u16(0).u8(8).f32(1e30f).u32(0x7FC00000));
  folder.add("table", Bytes().u8(3).u8(2).u16(72).u64(128));
  folder.add("text", Bytes().u8(3).u8(3).u16(8).u8(4).u32(UINT32_MAX));
  folder.add("cut", Bytes().u8(3).u8(4).u32(40000));
}

void sectionSeeds(const Folder& folder) {
  const auto seed = [&](const char* name, const Bytes& meta, const Bytes& tokenizer) {
    folder.add(name, Bytes().u16(static_cast<uint16_t>(meta.size())).raw(meta).raw(tokenizer));
  };
  kiv::TokenizerData byteLevel = vocabulary();
  byteLevel.tokens.push_back("\xC4\xA0");
  byteLevel.merges = {"\xC4\xA0 a"};
  seed("plain", metadata(), tokenizerSection(vocabulary()));
  seed("byte_level", metadata(), tokenizerSection(byteLevel));
  seed("no_tokens", Bytes().u32(0), tokenizerSection({}));
  seed("empty", Bytes(), Bytes());
}

void textSeeds(const Folder& folder) {
  const std::string text = "Hi <|im_start|>user\nit's 12345 words, aaa\xE2\x96\x81<0x41>\xFF\n\n";
  for (uint8_t mode : {0, 1, 2, 4, 5, 6}) {
    folder.add("text_" + std::to_string(mode), Bytes().u8(mode).raw(text));
  }
  const auto rule = [](uint8_t left, std::string_view sides) {
    return Bytes().u8(left).raw(sides).u8(0);
  };
  folder.add("merge", Bytes()
                          .u8(3)
                          .u16(4)
                          .raw(rule(1, "ab"))
                          .raw(rule(2, "abc"))
                          .raw(rule(1, "bc"))
                          .raw(rule(1, "aa"))
                          .raw("abcaabcbcabaaaa"));
  folder.add("merge_spaces",
             Bytes().u8(3).u16(2).raw(rule(1, "  ")).raw(rule(2, "a a")).raw("a a  a a"));
}

void callSeeds(const Folder& folder) {
  const Bytes prompt = Bytes().u8(0).raw("a").u8(0);
  const auto options = Bytes().u8(6).f32(0.8f).i32(3).f32(0.9f).u64(7);
  folder.add("generate", Bytes().u8(3).raw(prompt).u8(30));
  folder.add("generate_ex", Bytes().u8(4).raw(options).raw(prompt).u8(30).u8(1));
  folder.add("chat", Bytes().u8(5).raw(prompt).u8(30).u8(5).raw(prompt).u8(3).u8(9).u8(25));
  folder.add("stream", Bytes().u8(6).raw(prompt).u8(2).u8(1).u8(1).u8(1).u8(9));
  folder.add("bench", Bytes().u8(8).u8(1).i32(3).i32(1).u8(7).raw(options).u8(8).u8(0));
  folder.add("create", Bytes().u8(130).u8(30).u8(0).u8(0).u8(133).raw(prompt).u8(30).u8(131));
  for (uint8_t path = 0; path < 6; ++path) {
    folder.add("path_" + std::to_string(path), Bytes().u8(2).u8(1).u8(path).u8(0).u8(40).u8(path));
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) {
    std::fprintf(stderr, "usage: fuzz_seeds DIRECTORY\n");
    return 2;
  }
  containerSeeds(Folder(arguments[1], "container"));
  sectionSeeds(Folder(arguments[1], "sections"));
  textSeeds(Folder(arguments[1], "text"));
  callSeeds(Folder(arguments[1], "calls"));
  return 0;
}
