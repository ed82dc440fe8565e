// A checkpoint that the runtime can run, whatever it came as: its sizes, which of its tensors
// becomes which of ours, and its tokenizer. Reading one looks at everything but the weights and
// refuses in words what cannot be run, so that nothing is written for it.
#pragma once

#include <string>
#include <vector>

#include "convert/architecture.h"
#include "convert/source_tensor.h"
#include "convert/tokenizer_source.h"

namespace orb {

// One tensor of the result. `source` points into SourceModel::tensors.
struct MappedTensor {
  std::string name;  // ours, complete
  const TensorRule* rule = nullptr;
  const SourceTensor* source = nullptr;
};

struct SourceModel {
  std::string format;  // "GGUF" or "safetensors"
  std::string path;
  std::string name;       // of the model; may be empty
  bool original = false;  // values and value heads as in training: the rules' changes apply
  ModelShape shape;
  std::vector<SourceTensor> tensors;
  std::vector<MappedTensor> mapped;  // in the order of writing
  TokenizerSource tokenizer;
  std::string chatTemplate;

  uint64_t sourceBytes() const;            // of all files together
  std::vector<std::string> files() const;  // that are read
  size_t unusedTensors() const { return tensors.size() - mapped.size(); }
};

// A GGUF file or a safetensors folder, told apart by looking.
kiv::Status readSourceModel(const std::string& path, SourceModel& out);

kiv::Status readGgufModel(const std::string& path, SourceModel& out);
kiv::Status readSafetensorsModel(const std::string& folder, SourceModel& out);

// Fills `mapped` from `tensors` and `shape`, checks types and shapes, and that a separate output
// matrix, `outputName`, holds the same bytes as the embedding. For originals `prefix` stands before
// their names. Reads no weights but for that comparison.
kiv::Status mapTensors(SourceModel& model, const std::string& prefix,
                       const std::string& outputName);

}  // namespace orb
