#include "model/validation.h"

#include <algorithm>
#include <limits>
#include <optional>

#include "model/model.h"
#include "model/weight_rows.h"

namespace qwen35 {
namespace {

using kiv::ORBLoader;
using kiv::QuantType;
using kiv::TensorView;

constexpr uint64_t kUnlimited = std::numeric_limits<uint64_t>::max();

// One tensor under examination. Each check adds at most one defect and says whether it passed.
class TensorCheck {
 public:
  TensorCheck(const ORBLoader& loader, std::string name, std::vector<BindingDefect>& defects)
      : loader_(loader),
        name_(std::move(name)),
        view_(loader.findTensor(name_)),
        defects_(defects) {}

  const TensorView* view() const { return view_; }

  // A matrix of a product: at most maxRows rows of at most maxCols elements.
  void matrix(uint64_t maxRows, uint64_t maxCols) const {
    if (!present() || !shape() || !weightType() || !bytes()) return;
    if (view_->dims[0] > maxCols) {
      add("rows of at most " + count(maxCols, "element"), count(view_->dims[0], "element"));
    } else if (*rows() > maxRows) {
      add("at most " + count(maxRows, "row"), count(*rows(), "row"));
    }
  }

  // A vector that is read in place as at least minElements floats.
  void floats(uint64_t minElements) const {
    if (!present() || !shape() || !floatType() || !bytes()) return;
    const uint64_t elements = view_->dims[0] * *rows();  // fits: its bytes are in the file
    if (elements < minElements) {
      add("at least " + count(minElements, "element"), count(elements, "element"));
    } else if (reinterpret_cast<uintptr_t>(view_->data) % alignof(float) != 0) {
      add("data at a multiple of 4 bytes", "offset " + std::to_string(offset()));
    }
  }

  // A bias, converted before use; absent is fine.
  void bias() const {
    if (view_ == nullptr || !shape() || !weightType()) return;
    (void)bytes();
  }

  // The convolution: rows of exactly the kernel size.
  void convolution(uint64_t kernel, uint64_t channels) const {
    const size_t before = defects_.size();
    floats(kernel * channels);
    if (defects_.size() == before && view_->dims[0] != kernel) {
      add("rows of " + count(kernel, "element"), count(view_->dims[0], "element"));
    }
  }

 private:
  static std::string count(uint64_t n, const char* noun) {
    return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
  }

  void add(std::string expected, std::string found) const {
    defects_.push_back({name_, std::move(expected), std::move(found)});
  }

  // As stored, for what the view does not tell. Somebody may have rewritten the file since it was
  // opened: what the forward pass will use is checked on the view.
  const kiv::orb2::TensorIndexEntry* entry() const {
    const auto* index = reinterpret_cast<const kiv::orb2::TensorIndexEntry*>(
        loader_.reader.sectionData(kiv::orb2::SectionType::TensorIndex));
    return index + (view_ - loader_.tensors.data());
  }

  // Where the data begin in the weight section; wraps for what lies before it.
  uint64_t offset() const {
    const uint8_t* weights = loader_.reader.sectionData(kiv::orb2::SectionType::WeightData);
    return reinterpret_cast<uintptr_t>(view_->data) - reinterpret_cast<uintptr_t>(weights);
  }

  // Product of the dimensions after the first; empty when it does not fit 64 bits.
  std::optional<uint64_t> rows() const {
    uint64_t product = 1;
    for (size_t i = 1; i < view_->ndims; ++i) {
      if (__builtin_mul_overflow(product, view_->dims[i], &product)) return std::nullopt;
    }
    return product;
  }

  bool present() const {
    if (view_ == nullptr) add("the tensor to be present", "none of that name");
    return view_ != nullptr;
  }

  bool shape() const {
    constexpr unsigned kMost = 4;  // in a view that was cut as well
    const unsigned dimensions = view_->ndims < kMost ? view_->ndims : entry()->ndims;
    if (dimensions < 1 || dimensions > kMost) {
      add("1 to 4 dimensions", count(dimensions, "dimension"));
      return false;
    }
    if (std::count(view_->dims, view_->dims + view_->ndims, 0u) != 0) {
      add("dimensions of at least 1", "a dimension of 0");
      return false;
    }
    if (!rows()) {
      add("a row count of 64 bits", "dimensions whose product is larger");
      return false;
    }
    return true;
  }

  bool weightType() const {
    const auto type = static_cast<QuantType>(view_->type);
    const uint64_t block = kiv::quant::blockElements(type);
    if (block == 0 || rowStride(type, block) == 0) {
      add("type F32, BF16, Q8_0, Q4_K, Q5_K or Q6_K", typeName());
      return false;
    }
    if (view_->dims[0] % block != 0) {
      add("rows of whole blocks of " + count(block, "element"), count(view_->dims[0], "element"));
      return false;
    }
    return true;
  }

  bool floatType() const {
    if (view_->type == static_cast<uint16_t>(QuantType::F32)) return true;
    add("type F32", typeName());
    return false;
  }

  std::string typeName() const {
    return std::string("type ") + kiv::quantTypeName(static_cast<QuantType>(view_->type)) + " (" +
           std::to_string(entry()->type) + ")";
  }

  // The bytes that the shape needs lie inside the tensor, the tensor inside the weight section.
  bool bytes() const {
    const auto type = static_cast<QuantType>(view_->type);
    const uint64_t blocks = view_->dims[0] / kiv::quant::blockElements(type);
    const uint64_t blockBytes = kiv::quant::quantizedBytes(type, kiv::quant::blockElements(type));
    uint64_t needed = 0;
    if (__builtin_mul_overflow(blocks, blockBytes, &needed) ||
        __builtin_mul_overflow(needed, *rows(), &needed) || needed > view_->size) {
      add("data for its shape", count(view_->size, "byte"));
      return false;
    }
    const uint64_t section = loader_.reader.sectionSize(kiv::orb2::SectionType::WeightData);
    if (offset() > section || view_->size > section - offset()) {
      add("data within the weight section of " + count(section, "byte"),
          count(view_->size, "byte") + " at offset " + std::to_string(offset()));
      return false;
    }
    return true;
  }

  const ORBLoader& loader_;
  std::string name_;
  const TensorView* view_;
  std::vector<BindingDefect>& defects_;
};

// The checks of one block; `hidden` is unlimited when there is no usable embedding.
class BlockCheck {
 public:
  BlockCheck(const ORBLoader& loader, size_t index, std::vector<BindingDefect>& defects)
      : loader_(loader), prefix_("blk." + std::to_string(index) + "."), defects_(defects) {
    const TensorView* embedding = loader.findTensor("token_embd.weight");
    if (embedding != nullptr && embedding->dims[0] != 0) hidden_ = embedding->dims[0];
  }

  void run() const {
    const uint64_t normed = hidden_ == kUnlimited ? 1 : hidden_;
    tensor("attn_norm.weight").floats(normed);
    tensor("post_attention_norm.weight").floats(normed);
    feedForward();
    if (tensor("ssm_out.weight").view() != nullptr) {
      linearAttention();
    } else {
      fullAttention();
    }
  }

 private:
  TensorCheck tensor(const char* suffix) const {
    return TensorCheck(loader_, prefix_ + suffix, defects_);
  }

  void feedForward() const {
    const TensorCheck gate = tensor("ffn_gate.weight");
    gate.matrix(kUnlimited, hidden_);
    const uint64_t ffn = gate.view() == nullptr ? kUnlimited : rowCount(*gate.view());
    tensor("ffn_up.weight").matrix(ffn, hidden_);
    tensor("ffn_down.weight").matrix(hidden_, ffn);
  }

  void linearAttention() const {
    tensor("attn_qkv.weight").matrix(sizes_.convChannels(), hidden_);
    tensor("attn_gate.weight").matrix(sizes_.linearValueWidth, hidden_);
    tensor("ssm_beta.weight").matrix(sizes_.linearValueHeads, hidden_);
    tensor("ssm_alpha.weight").matrix(sizes_.linearValueHeads, hidden_);
    tensor("ssm_dt.bias").floats(sizes_.linearValueHeads);
    tensor("ssm_a").floats(sizes_.linearValueHeads);
    tensor("ssm_conv1d.weight").convolution(sizes_.convKernel, sizes_.convChannels());
    tensor("ssm_norm.weight").floats(sizes_.linearHeadSize);
    tensor("ssm_out.weight").matrix(hidden_, sizes_.linearValueWidth);
  }

  void fullAttention() const {
    const uint64_t heads = sizes_.attentionHeads * sizes_.attentionHeadSize;
    const uint64_t keyValues = sizes_.keyValueHeads * sizes_.attentionHeadSize;
    tensor("attn_q.weight").matrix(2 * heads, hidden_);
    tensor("attn_k.weight").matrix(keyValues, hidden_);
    tensor("attn_v.weight").matrix(keyValues, hidden_);
    tensor("attn_q.bias").bias();
    tensor("attn_k.bias").bias();
    tensor("attn_v.bias").bias();
    tensor("attn_output.weight").matrix(hidden_, heads);
    tensor("attn_q_norm.weight").floats(sizes_.attentionHeadSize);
    tensor("attn_k_norm.weight").floats(sizes_.attentionHeadSize);
  }

  const ORBLoader& loader_;
  std::string prefix_;
  std::vector<BindingDefect>& defects_;
  uint64_t hidden_ = kUnlimited;
  const Model sizes_;
};

}  // namespace

std::vector<BindingDefect> findBlockDefects(const ORBLoader& loader, size_t index) {
  std::vector<BindingDefect> defects;
  BlockCheck(loader, index, defects).run();
  return defects;
}

std::vector<BindingDefect> findGlobalDefects(const ORBLoader& loader) {
  std::vector<BindingDefect> defects;
  const TensorCheck embedding(loader, "token_embd.weight", defects);
  embedding.matrix(std::numeric_limits<int32_t>::max(), kUnlimited);
  const TensorCheck norm(loader, "output_norm.weight", defects);
  norm.floats(embedding.view() == nullptr ? 1 : embedding.view()->dims[0]);
  return defects;
}

}  // namespace qwen35
