// The token mixers and the feed-forward step as plain loops in double precision, one token at a
// time: what the fast ones are compared with.
#pragma once

#include <cstddef>
#include <vector>

#include "model/model.h"

namespace orbtest {

using Doubles = std::vector<double>;

// How far the output of a mixer may be from these, of its norm.
constexpr double kMixerTolerance = 2e-5;

// The elements of a tensor, row after row.
struct Matrix {
  explicit Matrix(const kiv::TensorView& tensor);

  size_t cols;
  Doubles values;
};

// One full-attention block, as it is bound at construction; keeps the keys and values of all
// tokens.
class FullReference {
 public:
  explicit FullReference(const qwen35::Layer& layer);

  struct Result {
    Doubles out;         // [hidden]
    double maximum = 0;  // largest score of head 0
    double logSum = 0;   // log-sum-exp of the scores of head 0
  };
  Result step(const std::vector<float>& x, size_t pos);

  // Starts from the positions that the layer's own caches hold.
  void takeCaches(size_t maxContext);

 private:
  const qwen35::Layer& layer_;
  Matrix q_, k_, v_, output_;
  std::vector<Doubles> keys_, values_;  // [token][4 * 256]
};

// One linear-attention block with its states.
class LinearReference {
 public:
  explicit LinearReference(const qwen35::Layer& layer);

  struct Result {
    Doubles out;    // [hidden]
    Doubles qkv;    // [8192]
    Doubles gate;   // [4096]
    Doubles conv;   // [8192]
    Doubles heads;  // [4096] before the gated norm
    Doubles gated;  // [4096]
    double beta0 = 0, g0 = 0;
  };
  Result step(const std::vector<float>& x);

  const Doubles& state() const { return state_; }  // [32][128][128]

 private:
  const qwen35::Layer& layer_;
  Matrix qkv_, gate_, beta_, alpha_, output_;
  Doubles state_;
  std::vector<Doubles> window_;  // the last three inputs of the convolution
};

Doubles feedForwardReference(const qwen35::Layer& layer, const std::vector<float>& x);

// What a layer's update of one state matrix does; see qwen35::gdnStep().
void deltaReference(double* state, const double* q, const double* k, double* v, double beta,
                    size_t d, double decay, double scale);

}  // namespace orbtest
