// Every array of every kernel between forbidden pages, first at one and then at the other, on every
// tier, for every type and for awkward sizes: what comes out has the bits that free memory gives,
// and whoever reads or writes a byte too far ends the test program.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <memory>
#include <new>
#include <random>

#include "model/guarded_buffer.h"
#include "model/kernel_tiers.h"
#include "model/numeric_kernels.h"
#include "model/weight_patterns.h"
#include "model/weight_rows.h"

namespace orbtest {
namespace {

using kiv::QuantType;
using qwen35::AttentionPart;

constexpr std::array<Side, 2> kSides = {Side::Begin, Side::End};

std::vector<float> normals(size_t count, unsigned seed) {
  std::mt19937 random(seed);
  std::normal_distribution<float> normal;
  std::vector<float> values(count);
  for (float& value : values) value = normal(random);
  return values;
}

std::vector<float> read(GuardedBuffer& buffer, size_t count) {
  return std::vector<float>(buffer.floats(), buffer.floats() + count);
}

// The same bits, whatever they mean.
void expectSame(const std::vector<float>& actual, const std::vector<float>& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  if (actual.empty()) return;
  EXPECT_EQ(std::memcmp(actual.data(), expected.data(), actual.size() * sizeof(float)), 0);
}

// Row lengths that end inside and at the end of registers and blocks.
std::vector<size_t> rowLengths(QuantType type) {
  const size_t block = kiv::quant::blockElements(type);
  if (block > 1) return {block, 3 * block, 512, 768, 1280};
  return {1, 2, 7, 8, 9, 15, 16, 17, 31, 33, 63, 65, 511, 513, 1027};
}

// ---------------------------------------------------------------------------------- products

struct Weights {
  QuantType type;
  size_t rows, cols, rowBytes;
  std::vector<uint8_t> bytes;

  Weights(QuantType t, Pattern pattern, size_t rowCount, size_t colCount)
      : type(t), rows(rowCount), cols(colCount) {
    std::mt19937 random(static_cast<unsigned>(rows * 4099 + cols));
    for (size_t r = 0; r < rows; ++r) {
      const std::vector<uint8_t> row = makeRow(type, pattern, cols, random);
      bytes.insert(bytes.end(), row.begin(), row.end());
    }
    rowBytes = bytes.size() / rows;
  }
};

class ProductGuardsTest : public TierTest {
 protected:
  // Inputs in the form that the type's kernels take, made with guards on either side.
  std::vector<float> guardedInputs(QuantType type, Kernels which, const std::vector<float>& x,
                                   size_t cols, size_t stride, Side side) const {
    const size_t tokens = x.size() / cols;
    const std::vector<float> room = roomForInputs(kernels(), type, which, cols, tokens, stride);
    GuardedBuffer in(x, side);
    GuardedBuffer out(room, side);
    arrange(kernels(), type, which, in.floats(), cols, cols, tokens, out.floats(), stride);
    return read(out, room.size());
  }

  // One token after the other in free memory.
  std::vector<float> single(const Weights& w, const std::vector<float>& x, size_t tokens,
                            Kernels which = Kernels::OneToken) const {
    std::vector<float> y(w.rows * tokens, 0.5f);
    for (size_t t = 0; t < tokens; ++t) {
      addProduct(kernels(), w.type, w.bytes.data(), w.rowBytes, w.rows, w.cols,
                 x.data() + t * w.cols, y.data() + t * w.rows, which);
    }
    return y;
  }

  // All tokens in one call; the strides leave gaps of which the last token has none.
  std::vector<float> batched(const Weights& w, const std::vector<float>& x, size_t tokens,
                             size_t gap, Side side) const {
    const size_t xStride = arrangedWidth(kernels(), w.type, w.cols) + gap;
    const size_t yStride = w.rows + gap;
    GuardedBuffer rows(w.bytes, side);
    GuardedBuffer in(guardedInputs(w.type, Kernels::Batch, x, w.cols, xStride, side), side);
    GuardedBuffer out(std::vector<float>(tokens * yStride - gap, 0.5f), side);
    GuardedBuffer scratch(qwen35::kBatchScratch * sizeof(float), side);
    kernels().gemm[static_cast<size_t>(w.type)](
        rows.bytes(), w.rowBytes, w.rows, w.cols,
        {in.floats(), xStride, out.floats(), yStride, tokens, scratch.floats()});
    std::vector<float> y;
    for (size_t t = 0; t < tokens; ++t) {
      const float* token = out.floats() + t * yStride;
      y.insert(y.end(), token, token + w.rows);
      for (size_t i = 0; t + 1 < tokens && i < gap; ++i) EXPECT_EQ(token[w.rows + i], 0.5f);
    }
    return y;
  }

  void check(const Weights& w, size_t tokens, size_t gap) const {
    SCOPED_TRACE(std::string(kiv::quantTypeName(w.type)) + ", " + std::to_string(w.rows) +
                 " rows of " + std::to_string(w.cols) + ", " + std::to_string(tokens) + " tokens");
    const std::vector<float> x = normals(tokens * w.cols, 3);
    const std::vector<float> expected = single(w, x, tokens, batchReference(kernels(), w.type));
    for (const Side side : kSides) expectSame(batched(w, x, tokens, gap, side), expected);
  }
};
ORB_INSTANTIATE_TIERS(ProductGuardsTest);

TEST_P(ProductGuardsTest, ArrangedInputsHaveTheBitsOfFreeMemory) {
  for (const QuantType type : kMatrixTypes) {
    for (const Kernels which : {Kernels::OneToken, Kernels::Batch}) {
      for (const size_t cols : {256, 512, 2560}) {
        const std::vector<float> x = normals(3 * cols, 1);
        const size_t tokens = which == Kernels::Batch ? 3 : 1;
        const std::vector<float> inputs(x.begin(),
                                        x.begin() + static_cast<ptrdiff_t>(tokens * cols));
        const size_t width = arrangedWidth(kernels(), type, cols);
        const std::vector<float> expected =
            arranged(kernels(), type, which, x.data(), cols, tokens, width);
        for (const Side side : kSides) {
          expectSame(guardedInputs(type, which, inputs, cols, width, side), expected);
        }
      }
    }
  }
}

TEST_P(ProductGuardsTest, OneTokenOfEveryLengthAndPattern) {
  for (const QuantType type : kMatrixTypes) {
    for (const size_t cols : rowLengths(type)) {
      for (const Pattern pattern : kAllPatterns) {
        const Weights w(type, pattern, 3, cols);
        const std::vector<float> x = normals(cols, 2);
        const std::vector<float> expected = single(w, x, 1);
        for (const Side side : kSides) {
          GuardedBuffer rows(w.bytes, side);
          const size_t width = arrangedWidth(kernels(), type, cols);
          GuardedBuffer in(guardedInputs(type, Kernels::OneToken, x, cols, width, side), side);
          GuardedBuffer out(std::vector<float>(w.rows, 0.5f), side);
          kernels().gemv[static_cast<size_t>(type)](rows.bytes(), w.rowBytes, w.rows, cols,
                                                    in.floats(), out.floats());
          expectSame(read(out, w.rows), expected);
        }
      }
    }
  }
}

TEST_P(ProductGuardsTest, BatchesOfEveryRowLength) {
  for (const QuantType type : kMatrixTypes) {
    for (const size_t cols : rowLengths(type)) check(Weights(type, Pattern::Random, 9, cols), 3, 5);
  }
}

TEST_P(ProductGuardsTest, BatchesOfEveryNumberOfRows) {
  for (const QuantType type : kMatrixTypes) {
    const size_t cols = kiv::quant::blockElements(type) == 1 ? 19 : 256;
    for (size_t rows = 1; rows <= 17; ++rows) {
      check(Weights(type, Pattern::Random, rows, cols), 2, 0);
    }
  }
}

TEST_P(ProductGuardsTest, BatchesOfEveryNumberOfTokens) {
  for (const QuantType type : kMatrixTypes) {
    const Weights w(type, Pattern::Random, 3, 256);
    for (size_t tokens = 1; tokens <= qwen35::kMaxBatch; tokens += tokens < 9 ? 1 : 11) {
      check(w, tokens, tokens % 3);
    }
  }
}

TEST_P(ProductGuardsTest, BatchesOfRowsThatACarelessKernelGetsWrong) {
  for (const QuantType type : kMatrixTypes) {
    for (const Pattern pattern : kAllPatterns) check(Weights(type, pattern, 9, 768), 5, 1);
  }
}

// ------------------------------------------------------------------------- attention and state

class MixerGuardsTest : public TierTest {};
ORB_INSTANTIATE_TIERS(MixerGuardsTest);

TEST_P(MixerGuardsTest, AttentionWritesItsPartAndNothingElse) {
  constexpr size_t kHead = qwen35::kHeadSize;
  const std::vector<float> queries = normals(qwen35::kGroupHeads * kHead, 1);
  for (const size_t count : {1, 2, 7, 8, 9, 17, 255, 256}) {
    const std::vector<float> keys = normals(count * kHead, 2), values = normals(count * kHead, 3);
    auto expected = std::make_unique<AttentionPart>();
    kernels().attend({queries.data(), keys.data(), values.data(), count, 0.0625f}, *expected);
    for (const Side side : kSides) {
      GuardedBuffer q(queries, side), k(keys, side), v(values, side);
      GuardedBuffer memory(sizeof(AttentionPart), side);
      auto* part = new (memory.bytes()) AttentionPart;
      kernels().attend({q.floats(), k.floats(), v.floats(), count, 0.0625f}, *part);
      EXPECT_EQ(std::memcmp(part, expected.get(), sizeof *part), 0) << count << " positions";
    }
  }
}

TEST_P(MixerGuardsTest, TheStateIsUpdatedInPlaceAndIntoAnother) {
  for (size_t d = 16; d <= 128; d += 16) {
    const std::vector<float> from = normals(d * d, 1), q = normals(d, 2), k = normals(d, 3);
    const std::vector<float> v = normals(d, 4);
    std::vector<float> state = from, out = v;
    deltaStep(kernels(), state.data(), state.data(), q.data(), k.data(), out.data(), 0.5f, d, 0.75f,
              0.125f);
    for (const Side side : kSides) {
      GuardedBuffer source(from, side), target(d * d * sizeof(float), side);
      GuardedBuffer query(q, side), key(k, side), first(v, side), second(v, side);
      deltaStep(kernels(), source.floats(), target.floats(), query.floats(), key.floats(),
                first.floats(), 0.5f, d, 0.75f, 0.125f);
      expectSame(read(source, d * d), from);
      deltaStep(kernels(), source.floats(), source.floats(), query.floats(), key.floats(),
                second.floats(), 0.5f, d, 0.75f, 0.125f);
      for (GuardedBuffer* updated : {&source, &target}) expectSame(read(*updated, d * d), state);
      for (GuardedBuffer* result : {&first, &second}) expectSame(read(*result, d), out);
    }
  }
}

TEST_P(MixerGuardsTest, SeveralTokensUpdateTheState) {
  constexpr size_t kTokens = 3;
  const std::vector<float> beta = {0.5f, 0.25f, 1.0f}, decay = {0.75f, 1.0f, 0.5f};
  for (size_t d = 16; d <= 128; d += 16) {
    const std::vector<float> from = normals(d * d, 1), v = normals(kTokens * d, 4);
    const std::vector<float> q = normals(kTokens * d, 2), k = normals(kTokens * d, 3);
    std::vector<float> state = from, out = v;
    for (size_t t = 0; t < kTokens; ++t) {
      deltaStep(kernels(), state.data(), state.data(), &q[t * d], &k[t * d], &out[t * d], beta[t],
                d, decay[t], 0.125f);
    }
    for (const Side side : kSides) {
      GuardedBuffer source(from, side), target(d * d * sizeof(float), side);
      GuardedBuffer query(q, side), key(k, side), values(v, side);
      GuardedBuffer betas(beta, side), decays(decay, side);
      GuardedBuffer scratch(qwen35::kDeltaScratch * sizeof(float), side);
      kernels().deltaRule(source.floats(), target.floats(),
                          {query.floats(), key.floats(), values.floats(), d, betas.floats(),
                           decays.floats(), kTokens, scratch.floats()},
                          d, 0.125f);
      expectSame(read(source, d * d), from);
      expectSame(read(target, d * d), state);
      expectSame(read(values, kTokens * d), out);
    }
  }
}

TEST_P(MixerGuardsTest, ActivationsIntoAnotherArray) {
  for (size_t n = 0; n < 70; ++n) {
    const std::vector<float> x = normals(n, 5);
    for (const auto function : {kernels().silu, kernels().sigmoid}) {
      std::vector<float> expected = x;
      function(expected.data(), expected.data(), n);
      for (const Side side : kSides) {
        GuardedBuffer in(x, side), out(n * sizeof(float), side);
        function(in.floats(), out.floats(), n);
        expectSame(read(out, n), expected);
        expectSame(read(in, n), x);
      }
    }
  }
}

// ------------------------------------------------------------------------------------- rows

// Converts the first n elements of the matrix's last row, which a page ends.
std::vector<float> converted(const Weights& w, size_t n, Side side) {
  GuardedBuffer bytes(w.bytes, side), out(n * sizeof(float), side);
  kiv::TensorView view;
  view.data = bytes.bytes();
  view.size = w.bytes.size();
  view.type = static_cast<uint16_t>(w.type);
  view.ndims = 2;
  view.dims[0] = w.cols;
  view.dims[1] = w.rows;
  qwen35::rowToF32(&view, w.rows - 1, n, out.floats());
  return read(out, n);
}

TEST(RowGuardsTest, ARowIsConvertedFromItsBlocksIntoItsElements) {
  for (const QuantType type : kMatrixTypes) {
    for (const size_t cols : rowLengths(type)) {
      for (const size_t rows : {1, 3}) {
        const Weights w(type, Pattern::Random, rows, cols);
        const uint8_t* last = w.bytes.data() + (rows - 1) * w.rowBytes;
        const std::vector<float> expected = decodeRow(type, last, cols);
        for (const Side side : kSides) expectSame(converted(w, cols, side), expected);
      }
    }
  }
}

TEST(RowGuardsTest, ARowMayBeCutInsideItsLastBlock) {
  for (const QuantType type : kMatrixTypes) {
    const size_t cols = 3 * kiv::quant::blockElements(type);
    const Weights w(type, Pattern::Random, 1, cols);
    std::vector<float> expected = decodeRow(type, w.bytes.data(), cols);
    expected.pop_back();
    for (const Side side : kSides) expectSame(converted(w, cols - 1, side), expected);
  }
}

TEST(RowGuardsTest, NormsReadAndWriteTheirElementsOnly) {
  for (size_t n = 1; n < 40; ++n) {
    const std::vector<float> x = normals(4 * n, 7), weight = normals(4 * n, 8);
    std::vector<float> norm(4 * n), blocks(4 * n);
    qwen35::rmsNorm(x.data(), weight.data(), norm.data(), 4 * n, 1e-6f);
    qwen35::l2NormBlocks(x.data(), blocks.data(), 4, n, 1e-6f);
    for (const Side side : kSides) {
      GuardedBuffer in(x, side), factors(weight, side), out(4 * n * sizeof(float), side);
      qwen35::rmsNorm(in.floats(), factors.floats(), out.floats(), 4 * n, 1e-6f);
      expectSame(read(out, 4 * n), norm);
      qwen35::l2NormBlocks(in.floats(), out.floats(), 4, n, 1e-6f);
      expectSame(read(out, 4 * n), blocks);
      qwen35::softplus(in.floats(), out.floats(), 4 * n);
      qwen35::rmsNorm(in.floats(), factors.floats(), in.floats(), 4 * n, 1e-6f);
      expectSame(read(in, 4 * n), norm);
    }
  }
}

TEST(RowGuardsTest, PlainMatricesReadAndWriteTheirElementsOnly) {
  for (const size_t rows : {1, 2, 33}) {
    for (const size_t cols : {1, 7, 16, 65}) {
      const std::vector<float> matrix = normals(rows * cols, 9), x = normals(cols, 10);
      std::vector<uint16_t> halves(matrix.size());
      for (size_t i = 0; i < halves.size(); ++i) halves[i] = qwen35::f32ToBf16(matrix[i]);
      std::vector<float> y(rows, 0.0f), z(rows, 0.0f);
      qwen35::matvecF32Add(matrix.data(), x.data(), y.data(), rows, cols);
      qwen35::matvecBf16Add(halves.data(), x.data(), z.data(), rows, cols);
      for (const Side side : kSides) {
        GuardedBuffer wide(matrix, side), narrow(halves, side), in(x, side);
        GuardedBuffer a(std::vector<float>(rows, 0.0f), side);
        GuardedBuffer b(std::vector<float>(rows, 0.0f), side);
        qwen35::matvecF32Add(wide.floats(), in.floats(), a.floats(), rows, cols);
        qwen35::matvecBf16Add(reinterpret_cast<const uint16_t*>(narrow.bytes()), in.floats(),
                              b.floats(), rows, cols);
        expectSame(read(a, rows), y);
        expectSame(read(b, rows), z);
      }
    }
  }
}

}  // namespace
}  // namespace orbtest
