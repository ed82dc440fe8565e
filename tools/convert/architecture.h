// The tensors of the served architecture: what they are called in an .orb or GGUF file and in a
// safetensors folder, their shapes, and what the latter's values go through.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "quant/status.h"

namespace orb {

inline constexpr uint64_t kMaxBlocks = 32;
inline constexpr uint64_t kHeadSize = 256;
inline constexpr uint64_t kLinearHeadSize = 128;
inline constexpr uint64_t kLinearKeyHeads = 16;
inline constexpr uint64_t kMaxLinearValueHeads = 32;
inline constexpr uint64_t kConvTaps = 4;
inline constexpr uint64_t kLinearKeyChannels = 2 * kLinearKeyHeads * kLinearHeadSize;
inline constexpr uint64_t kMaxConvChannels =
    kLinearKeyChannels + kMaxLinearValueHeads * kLinearHeadSize;

// The sizes that models differ in.
struct ModelShape {
  uint64_t hidden = 0;
  uint64_t ffn = 0;
  uint64_t blocks = 0;
  uint64_t queryHeads = 0;
  uint64_t keyValueHeads = 0;
  uint64_t valueHeads = 0;     // of linear blocks
  uint64_t vocabulary = 0;     // rows of the embedding
  uint64_t contextLength = 0;  // that the model was made for; 0 when the source does not say
};

// Whether the runtime has room for it; `subject` begins the message.
kiv::Status checkShape(const std::string& subject, const ModelShape& shape);

enum class Size {
  One,
  Hidden,
  Ffn,
  Vocabulary,
  QueriesAndGates,
  Queries,
  Keys,
  Head,
  Channels,
  Values,
  ValueHeads,
  LinearHead,
  Taps
};
uint64_t sizeOf(Size size, const ModelShape& shape);

enum class ValueChange { None, PlusOne, NegativeExponential };

// The order of the value heads: grouped by key head in the original, tiled over the key heads here.
enum class HeadOrder { Same, Rows, Columns };

struct TensorRule {
  const char* name;      // behind "blk.N."
  const char* original;  // behind "layers.N."
  Size columns;
  Size rows;
  bool vector = false;  // becomes F32; read in place by the runtime
  bool optional = false;
  ValueChange change = ValueChange::None;
  HeadOrder order = HeadOrder::Same;
  uint64_t firstRow = 0;  // of the value heads
  uint64_t headRows = 1;  // rows, or columns, of one head
};

std::span<const TensorRule> globalTensors();  // names without a block
std::span<const TensorRule> commonTensors();
std::span<const TensorRule> linearTensors();
std::span<const TensorRule> fullTensors();

// The source head of new value head `head`.
uint64_t groupedHead(uint64_t head, uint64_t valueHeads);

}  // namespace orb
