// The kernel table: every loop of the forward pass that is worth vector units, as plain function
// pointers. Each tier implements the whole table; the scalar tier is the definition of the results
// (kernels/scalar.cpp), the others may reorder sums and fuse steps within the bound
//   |y - y_ref| <= 2^-14 * sum |w_i x_i|,  y_ref in double.
//
// Every row of a product is computed by itself, in an order that depends on nothing but its length:
// on one tier the result of a row has the same bits whatever the split of the rows into calls.
//
// A weight of Q4_K or Q5_K is a difference, d * sc * code - dmin * m, that the vector tiers sum
// part by part: where it cancels, the bound holds for the magnitudes of the parts.
//
// Tier files are built with -m flags and include nothing but <cstddef>, <cstdint>, the intrinsics
// header, this one and the others of this folder, so that no inline function compiled with wide
// instructions can replace the baseline copy of the program.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qwen35 {

// Puts the inputs of one token into the form that a type's product kernels read: kArrangedBlock
// floats for every 256 inputs or the rest of them. What comes of the first n inputs, n a multiple
// of the type's block, does not depend on those after them.
using ArrangeKernel = void (*)(const float* x, size_t cols, float* out);

inline constexpr size_t kArrangedBlock = 256 + 16 + 64 + 16;

// The same for a group of 1 to kTokenGroup tokens of a batch, token t at x + t * xStride. The form
// mingles them: `out` has room for a whole group, kTokenGroup times what one token takes.
using ArrangeBatchKernel = void (*)(const float* x, size_t xStride, size_t tokens, size_t cols,
                                    float* out);

inline constexpr size_t kTokenGroup = 16;

// y[r] += (row r) . x for r < rowCount; row r starts rowBytes * r bytes after `rows`, any
// alignment. x is in the arranged form where the table has an arrange kernel for the type, else as
// it comes. cols is a multiple of the type's block, except in the scalar tier, which takes any.
using GemvKernel = void (*)(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                            const float* x, float* y);

// The inputs and results of a product over several tokens.
struct Batch {
  const float* x;  // token t at x + t * xStride; a group of arrangeBatch at its first token's
  size_t xStride;
  float* y;  // token t at y + t * yStride, one float a row
  size_t yStride;
  size_t tokens;     // 1 to kMaxBatch
  float* scratch;    // kBatchScratch floats of the calling thread, aligned to 64 bytes
  bool adds = true;  // to what is in y; else as if there were zeros
};

inline constexpr size_t kMaxBatch = 256;
// Decoded weights, or sums of every token, of whichever tier needs most.
inline constexpr size_t kBatchScratch = 144 * 1024;

// As GemvKernel for every token of the batch. What comes of a token has the same bits whatever the
// other tokens and their number. They are those of GemvKernel where the table has no form of its
// own for batches; else the two differ by rounding.
using GemmKernel = void (*)(const uint8_t* rows, size_t rowBytes, size_t rowCount, size_t cols,
                            const Batch& batch);

// Full attention: four query heads of 256 share one key/value head.
inline constexpr size_t kGroupHeads = 4;
inline constexpr size_t kHeadSize = 256;

// Positions of one attention run: its keys and values (256 KiB each) stay in a core's own cache,
// and the split of a context into runs does not depend on the number of threads.
inline constexpr size_t kAttentionRun = 256;

// The queries of one group against one run of cached positions.
struct AttentionRun {
  const float* queries;  // [kGroupHeads][kHeadSize]
  const float* keys;     // [count][kHeadSize]
  const float* values;   // [count][kHeadSize]
  size_t count;          // 1 to kAttentionRun
  float scale;           // of query . key
};

// Softmax of one run, not yet normalised. For query h, with s_t = scale * (q_h . k_t):
struct AttentionPart {
  float maximum[kGroupHeads];              // max s_t
  float sum[kGroupHeads];                  // sum of exp(s_t - maximum)
  float weighted[kGroupHeads][kHeadSize];  // sum of exp(s_t - maximum) * v_t
};

// Tokens that go through the gated delta rule together, while columns of the state stay in a core's
// nearest cache.
inline constexpr size_t kDeltaRun = 64;
inline constexpr size_t kDeltaScratch = 128 * 64;

struct DeltaTokens {
  const float* q;  // [count][d]
  const float* k;  // [count][d]
  float* v;        // token t at v + t * vStride, d floats; its output replaces them
  size_t vStride;
  const float* beta;   // [count]
  const float* decay;  // [count]
  size_t count;        // 1 to kDeltaRun
  float* scratch;      // kDeltaScratch floats of the calling thread; one token needs none
};

struct KernelTable {
  const char* name;           // "scalar", "avx2", "avx512", "amx"
  uint32_t requiredFeatures;  // compat::CpuFeature bits

  // By kiv::QuantType; null for the types that no matrix may have.
  GemvKernel gemv[9];
  GemmKernel gemm[9];
  // The form of gemv's inputs; null as well for types whose kernels take inputs as they come.
  ArrangeKernel arrange[9];
  // The form that gemm's inputs have; where it is null they are as they come.
  ArrangeBatchKernel arrangeBatch[9];

  float (*dot)(const float* a, const float* b, size_t n);

  // out[i] = x[i] / (exp(-x[i]) + 1); out may be x.
  void (*silu)(const float* x, float* out, size_t n);

  // out[i] = 1 / (exp(-x[i]) + 1); out may be x.
  void (*sigmoid)(const float* x, float* out, size_t n);

  void (*attend)(const AttentionRun& run, AttentionPart& part);

  // The gated delta rule from the d x d state at `from` (key index major) to the one at `to`, which
  // may be the same; d is a multiple of 16 and at most 128. Each token makes S' of S: with D =
  // decay * S, m_j = sum k_i D_ij, delta_j = (v_j - m_j) * beta, S'_ij = D_ij + k_i * delta_j, v_j
  // = scale * sum q_i S'_ij. The bits are those of one call for each token.
  void (*deltaRule)(const float* from, float* to, const DeltaTokens& tokens, size_t d, float scale);
};

extern const KernelTable kScalarKernels;
extern const KernelTable kAvx2Kernels;
extern const KernelTable kAvx512Kernels;

// Give a copy of the tier kernels for CPUs that have kCpuAvx2Limbs, or kCpuAvx512Limbs, as well.
void addAvx2LimbKernels(KernelTable& table);
void addAvx512LimbKernels(KernelTable& table);

// Makes a copy of the AVX-512 tier the AMX one (Linux only).
void addTileKernels(KernelTable& table);

}  // namespace qwen35
