// The files of a safetensors folder. Input: a byte that says which, then the file.
//
//   even   the weights: header and tensors
//   odd    tokenizer.json, and the conversion of what it holds
#include "convert/guarded_json.h"
#include "convert/safetensors_reader.h"
#include "convert/tokenizer_conversion.h"
#include "fuzz.h"

namespace {

using orbfuzz::require;

void readWeights(const uint8_t* data, size_t size) {
  const orbfuzz::MemoryFile place(std::vector<uint8_t>(data, data + size));
  std::vector<orb::SourceTensor> tensors;
  const kiv::Status status = orb::readSafetensors(place.path(), tensors);
  require(status.ok() == status.message.empty(), "a failure has a message");
  if (!status.ok()) return;
  for (const orb::SourceTensor& tensor : tensors) {
    require(tensor.offset <= size && tensor.bytes <= size - tensor.offset,
            "tensors lie inside the file");
  }
}

void readTokenizer(const uint8_t* data, size_t size) {
  constexpr uint64_t kRows = 512;
  nlohmann::json document;
  orb::TokenizerSource tokenizer;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (!orb::parseGuardedJson("input", text, document).ok()) return;
  if (!orb::readJsonTokenizer("input", document, kRows, tokenizer).ok()) return;
  orb::TokenizerReport report;
  const kiv::TokenizerData converted = orb::convertTokenizer(tokenizer, kRows, report);
  require(converted.tokens.size() == kRows, "every row has a token");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  if (data[0] % 2 == 0) {
    readWeights(data + 1, size - 1);
  } else {
    readTokenizer(data + 1, size - 1);
  }
  return 0;
}
