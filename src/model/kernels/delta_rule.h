// The gated delta rule, shared by the vector tiers.
//
// Included by tier sources only. Everything is in an unnamed namespace: no function compiled here
// may be shared with another translation unit.
#pragma once

#include <cstddef>

#include "model/kernels/kernels.h"

namespace qwen35 {
namespace {

// Rows of some columns of a delta-rule state.
template <typename Number>
struct StateColumns {
  Number* at;
  size_t stride;
};

// Some columns of a state and the tokens that they go through. Each token gathers k.S and q.S of
// the old state, then decays and updates it; its output follows from q.S' = decay q.S + (q.k)
// delta. The update by one token and the gathering of the next are one pass.
template <typename Vector, size_t kRegisters>
class DeltaColumns {
 public:
  static constexpr size_t kColumns = Vector::kWidth * kRegisters;

  DeltaColumns(const DeltaTokens& tokens, size_t d, float scale, const float* qk)
      : tokens_(tokens), d_(d), scale_(scale), qk_(qk) {}

  // Those from column j on.
  void run(const float* from, float* to, size_t j) const {
    // Where the rows lie apart, they share few sets of the nearest cache.
    const StateColumns<float> together = {tokens_.scratch, kColumns};
    StateColumns<const float> state = {from + j, d_};
    Sums sums = gather(state);
    const size_t last = tokens_.count - 1;
    for (size_t t = 0; t < last; ++t) {
      const Update update = finish(t, j, sums);
      sums = Sums();
      pass<true>(state, together, update, t, sums);
      state = {together.at, together.stride};
    }
    const Update update = finish(last, j, sums);
    pass<false>(state, {to + j, d_}, update, last, sums);
  }

 private:
  using Float = typename Vector::Float;

  struct Sums {
    Float k[kRegisters] = {};
    Float q[kRegisters] = {};
  };
  struct Update {
    Float decay;
    Float delta[kRegisters];
  };

  Sums gather(StateColumns<const float> state) const {
    Sums sums;
    for (size_t i = 0; i < d_; ++i) {
      const Float ki = Vector::each(tokens_.k[i]);
      const Float qi = Vector::each(tokens_.q[i]);
      for (size_t c = 0; c < kRegisters; ++c) {
        const Float s = Vector::load(state.at + i * state.stride + Vector::kWidth * c);
        sums.k[c] = Vector::fma(ki, s, sums.k[c]);
        sums.q[c] = Vector::fma(qi, s, sums.q[c]);
      }
    }
    return sums;
  }

  // Writes the output of token t.
  Update finish(size_t t, size_t j, const Sums& sums) const {
    Update update;
    update.decay = Vector::each(tokens_.decay[t]);
    const Float minusDecay = Vector::each(-tokens_.decay[t]);
    for (size_t c = 0; c < kRegisters; ++c) {
      float* v = tokens_.v + t * tokens_.vStride + j + Vector::kWidth * c;
      const Float error = Vector::fma(minusDecay, sums.k[c], Vector::load(v));
      update.delta[c] = Vector::mul(error, Vector::each(tokens_.beta[t]));
      const Float out =
          Vector::fma(Vector::each(qk_[t]), update.delta[c], Vector::mul(update.decay, sums.q[c]));
      Vector::store(v, Vector::mul(Vector::each(scale_), out));
    }
    return update;
  }

  // Updates the state by token t and gathers the sums of the next.
  template <bool kGathers>
  void pass(StateColumns<const float> from, StateColumns<float> to, const Update& update, size_t t,
            Sums& sums) const {
    const float* k = tokens_.k + t * d_;
    const float* q = tokens_.q + t * d_;
    for (size_t i = 0; i < d_; ++i) {
      const Float ki = Vector::each(k[i]);
      for (size_t c = 0; c < kRegisters; ++c) {
        const Float old = Vector::load(from.at + i * from.stride + Vector::kWidth * c);
        const Float s = Vector::fma(ki, update.delta[c], Vector::mul(update.decay, old));
        Vector::store(to.at + i * to.stride + Vector::kWidth * c, s);
        if constexpr (kGathers) {
          sums.k[c] = Vector::fma(Vector::each(k[d_ + i]), s, sums.k[c]);
          sums.q[c] = Vector::fma(Vector::each(q[d_ + i]), s, sums.q[c]);
        }
      }
    }
  }

  const DeltaTokens& tokens_;
  size_t d_;
  float scale_;
  const float* qk_;
};

template <typename Vector, float (*kDot)(const float*, const float*, size_t)>
void deltaRule(const float* from, float* to, const DeltaTokens& tokens, size_t d, float scale) {
  float qk[kDeltaRun];
  for (size_t t = 0; t < tokens.count; ++t) qk[t] = kDot(tokens.q + t * d, tokens.k + t * d, d);
  const DeltaColumns<Vector, 4> four(tokens, d, scale, qk);
  const DeltaColumns<Vector, 1> one(tokens, d, scale, qk);
  size_t j = 0;
  for (; j + four.kColumns <= d; j += four.kColumns) four.run(from, to, j);
  for (; j < d; j += one.kColumns) one.run(from, to, j);
}

}  // namespace
}  // namespace qwen35
