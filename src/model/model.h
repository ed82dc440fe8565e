// The model as the forward pass sees it: fixed architecture sizes, weights bound in place in the
// mapped file, and the state of one conversation.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "compat/export.h"
#include "format/loader.h"
#include "format/tensor_view.h"
#include "model/kernels/kernels.h"
#include "model/team.h"
#include "model/zeroed_array.h"

namespace qwen35 {

inline constexpr size_t kLayerCount = 32;
inline constexpr size_t kDefaultMaxContext = 8192;
inline constexpr float kEpsilon = 1e-6f;

// One decoder block. Tensor pointers belong to the loader and are null where the block's kind has
// no such tensor; the state belongs to the block.
struct Layer {
  bool isLinear = false;
  // Both norms are zero, so that mixer and feed-forward add nothing: the block is passed over.
  // Models of fewer blocks are filled up with such.
  bool isIdentity = false;
  const kiv::TensorView* attnNorm = nullptr;           // attn_norm.weight [hidden]
  const kiv::TensorView* postAttentionNorm = nullptr;  // post_attention_norm.weight [hidden]

  // Full attention. The biases are optional.
  const kiv::TensorView* attnQ = nullptr;       // [8192 x hidden]: per head 256 query, 256 gate
  const kiv::TensorView* attnK = nullptr;       // [1024 x hidden]
  const kiv::TensorView* attnV = nullptr;       // [1024 x hidden]
  const kiv::TensorView* attnOutput = nullptr;  // [hidden x 4096]
  const kiv::TensorView* attnQNorm = nullptr;   // [256]
  const kiv::TensorView* attnKNorm = nullptr;   // [256]
  const kiv::TensorView* attnQBias = nullptr;   // [8192]
  const kiv::TensorView* attnKBias = nullptr;   // [1024]
  const kiv::TensorView* attnVBias = nullptr;   // [1024]

  // Linear attention.
  const kiv::TensorView* attnQkv = nullptr;    // [8192 x hidden]: 2048 query, 2048 key, 4096 value
  const kiv::TensorView* attnGate = nullptr;   // [4096 x hidden]
  const kiv::TensorView* ssmBeta = nullptr;    // [32 x hidden]
  const kiv::TensorView* ssmAlpha = nullptr;   // [32 x hidden]
  const kiv::TensorView* ssmDt = nullptr;      // ssm_dt.bias [32]
  const kiv::TensorView* ssmA = nullptr;       // ssm_a [32]
  const kiv::TensorView* ssmConv1d = nullptr;  // [8192 x 4]
  const kiv::TensorView* ssmNorm = nullptr;    // [128]
  const kiv::TensorView* ssmOut = nullptr;     // [hidden x 4096]

  const kiv::TensorView* ffnGate = nullptr;  // [ffn x hidden]
  const kiv::TensorView* ffnUp = nullptr;    // [ffn x hidden]
  const kiv::TensorView* ffnDown = nullptr;  // [hidden x ffn]

  ZeroedArray recurrentState;  // linear: [value head][key dim 128][value dim 128]
  ZeroedArray convState;       // linear: [channel][3], oldest input first
  ZeroedArray nextRecurrent;   // linear: the states after a batch, until it is accepted
  ZeroedArray nextConv;
  ZeroedArray keyCache;    // full: [key/value head][maxContext][256]
  ZeroedArray valueCache;  // full: [key/value head][maxContext][256]
  uint64_t position = 0;   // tokens consumed since the last reset
};

// One row of floats for each token of a batch.
class TokenRows : public ZeroedArray {
 public:
  void resizeRows(size_t width) {
    width_ = width;
    resize(width * kMaxBatch);
  }
  size_t width() const { return width_; }
  float* row(size_t token) { return data() + token * width_; }
  const float* row(size_t token) const { return data() + token * width_; }
  void clearRows(size_t tokens) { clear(0, tokens * width_); }

 private:
  size_t width_ = 0;
};

// Work arrays of one forward pass, a row for each token of a batch; sized by bindModel, reused by
// every pass. Rows that no batch reaches cost no memory.
struct Workspace {
  TokenRows x;         // [hidden] running hidden vector
  TokenRows normed;    // [hidden]
  TokenRows mixed;     // [hidden] mixer output
  TokenRows residual;  // [hidden]
  TokenRows ffnOut;    // [hidden]
  TokenRows qkv;       // [8192] projection of either mixer: q + gate, or q, k and v channels
  TokenRows conv;      // [8192] convolved channels
  TokenRows key;       // [1024]
  TokenRows value;     // [1024]
  TokenRows gate;      // [4096]
  TokenRows beta;      // [32]
  TokenRows alpha;     // [32]
  TokenRows heads;     // [4096] queries, or head outputs before the gated norm
  TokenRows gated;     // [4096] head outputs as projected
  TokenRows ffnGate;   // [largest ffn]
  TokenRows ffnUp;     // [largest ffn]
  std::array<TokenRows, 9> arranged;  // by quant type: the input of the current products
  bool isBatch = false;               // the pass feeds a batch: kernels of batches, states kept
  ZeroedArray batchScratch;           // [thread][kBatchScratch]
  std::vector<AttentionPart> parts;   // [token][key/value head][run of positions]
};

// What a mixer does with its results: those of the forward pass find nothing there.
enum class Output { Set, Add };

// Optional accelerated product for Q4_K, Q5_K and Q6_K weights: adds W x into `output` and returns
// true, or returns false and leaves it alone.
using MatVecHook = bool (*)(void* context, const kiv::TensorView* weights, const float* input,
                            float* output);

// One conversation at a time and one thread at a time; distinct models are independent.
struct Model {
  const kiv::TensorView* tokenEmbedding = nullptr;  // [vocabulary x hidden]; also the output matrix
  const kiv::TensorView* outputNorm = nullptr;      // [hidden]
  uint64_t hiddenSize = 0;
  uint64_t vocabularySize = 0;

  // Constants of the architecture; not read from the file.
  uint64_t attentionHeads = 16;
  uint64_t keyValueHeads = 4;
  uint64_t attentionHeadSize = 256;
  uint64_t rotaryDims = 64;
  uint64_t linearHeadSize = 128;
  uint64_t linearKeyHeads = 16;
  uint64_t linearValueHeads = 32;
  uint64_t linearValueWidth = 4096;
  uint64_t convKernel = 4;

  uint64_t layerCount = 0;
  std::vector<Layer> layers;
  uint64_t maxContext = 0;
  std::vector<float> embeddingScratch;
  void* matVecContext = nullptr;
  MatVecHook matVecHook = nullptr;

  const KernelTable* kernels = nullptr;  // null until bindModel: the best tier
  Workspace work;
  Team team;

  uint64_t linearKeyWidth() const { return linearHeadSize * linearKeyHeads; }
  uint64_t convChannels() const { return linearValueWidth + 2 * linearKeyWidth(); }
};

// Builds the 32 blocks and their empty state. False at the first block with a missing or unusable
// tensor (model/validation.h says which); the caller then discards the model.
ORB_API bool initLayers(kiv::ORBLoader& loader, Model& model,
                        size_t maxContext = kDefaultMaxContext);

// Binds the embedding and the output norm and sizes the work arrays; after initLayers, with the
// same maxContext. False when either is missing or unusable.
ORB_API bool bindModel(kiv::ORBLoader& loader, Model& model,
                       size_t maxContext = kDefaultMaxContext);

// Forgets the conversation: every position 0, every state and cache element 0, sizes kept.
ORB_API void resetModel(Model& model);

// Zeroes `count` slots of every key/value head of a full block, from `first` on.
void clearCaches(const Model& model, Layer& layer, size_t first, size_t count);

// Writes the embedding of `token` (below the vocabulary size) to out[hidden].
ORB_API void embedRow(Model& model, size_t token, float* out);

}  // namespace qwen35
