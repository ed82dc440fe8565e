// GGUF files up to the weights: reader, model, tokenizer. Input: the file.
#include "convert/conversion_plan.h"
#include "convert/tokenizer_conversion.h"
#include "fuzz.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using orbfuzz::require;
  const orbfuzz::MemoryFile place(std::vector<uint8_t>(data, data + size));
  orb::GgufReader reader;
  const kiv::Status status = reader.open(place.path());
  require(status.ok() == status.message.empty(), "a failure has a message");
  if (!status.ok()) return 0;
  for (const orb::SourceTensor& tensor : reader.tensors()) {
    // Nothing is read of a tensor without elements, wherever it is.
    require(tensor.bytes == 0 || (tensor.offset <= size && tensor.bytes <= size - tensor.offset),
            "tensors lie inside the file");
  }
  orb::TokenizerSource tokenizer;
  constexpr uint64_t kRows = 512;
  if (orb::readGgufTokenizer(reader, kRows, tokenizer).ok()) {
    orb::TokenizerReport report;
    const kiv::TokenizerData converted = orb::convertTokenizer(tokenizer, kRows, report);
    require(converted.tokens.size() == kRows, "every row has a token");
  }
  orb::SourceModel model;
  std::vector<orb::PlannedTensor> plan;
  if (orb::readGgufModel(place.path(), model).ok()) {
    require(orb::planConversion(model, {}, plan).ok(), "a model that is read can be planned");
  }
  return 0;
}
