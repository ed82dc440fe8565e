// Small model files with all the tensors of the architecture, to be spoiled one by one.
//
//   ModelFile file;                                   // linear blocks, every fourth is full
//   file["blk.3.attn_q.weight"] = TensorSpec::floats({256, 8193});
//   file.erase("blk.0.ssm_a");
//   TempFile onDisk(file.build());
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "format/container_builder.h"
#include "quant/quant_type.h"

namespace orbtest {

// An index entry and the bytes that it points to, which several may share. Fields of the entry that
// differ from what the bytes suggest are set afterwards.
struct TensorSpec {
  uint16_t type = 0;
  std::vector<uint64_t> dims;
  std::shared_ptr<const std::vector<uint8_t>> data = std::make_shared<std::vector<uint8_t>>();
  int64_t sizeChange = 0;         // added to the entry's size
  int64_t offsetChange = 0;       // added to the entry's offset
  std::optional<uint16_t> ndims;  // stored instead of the number of dims

  // The given bytes.
  static TensorSpec of(kiv::QuantType type, std::vector<uint64_t> dims, std::vector<uint8_t> bytes);
  // Zeros of the type and shape, in whole blocks.
  static TensorSpec zeros(kiv::QuantType type, std::vector<uint64_t> dims);
  // F32, every element of the given value.
  static TensorSpec floats(std::vector<uint64_t> dims, float value = 0);
};

class ModelFile {
 public:
  static constexpr uint64_t kHidden = 256;
  static constexpr uint64_t kFfn = 64;
  static constexpr uint64_t kVocabulary = 10;

  // All projections have two rows or so, which is allowed; vectors and the convolution have the
  // sizes that they must have. Blocks i with i % 4 == 3 are full, the others linear.
  explicit ModelFile(size_t blocks = 32);

  TensorSpec& operator[](const std::string& name) { return tensors_[name]; }
  void erase(const std::string& name) { tensors_.erase(name); }
  void addBlock(size_t index, bool linear);

  // Weights and tensor index, for tests that bring their own metadata or tokenizer. Tensors that
  // share their bytes here do so in the file.
  ContainerBuilder container() const;
  std::vector<uint8_t> build() const;

 private:
  std::map<std::string, TensorSpec> tensors_;
};

}  // namespace orbtest
