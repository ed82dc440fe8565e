#include "model/reference_mixers.h"

#include <algorithm>
#include <cmath>

#include "model/weight_patterns.h"
#include "model/weight_rows.h"

namespace orbtest {
namespace {

constexpr size_t kHead = 256;
constexpr size_t kHeads = 16;
constexpr size_t kGroups = 4;
constexpr size_t kLinearHead = 128;
constexpr size_t kKeyHeads = 16;
constexpr size_t kValueHeads = 32;
constexpr double kEps = 1e-6;

// The product in `width` zeros; rows that the matrix lacks stay zero.
Doubles product(const Matrix& matrix, const Doubles& x, size_t width) {
  Doubles y(width);
  const double* row = matrix.values.data();
  for (size_t r = 0; r < matrix.values.size() / matrix.cols; ++r, row += matrix.cols) {
    for (size_t i = 0; i < matrix.cols; ++i) y[r] += row[i] * x[i];
  }
  return y;
}

void addBias(const kiv::TensorView* bias, Doubles& y) {
  if (bias == nullptr) return;
  const Doubles values = Matrix(*bias).values;
  for (size_t i = 0; i < std::min(values.size(), y.size()); ++i) y[i] += values[i];
}

Doubles rmsNorm(const double* x, const kiv::TensorView& weight, size_t n) {
  double sum = 0;
  for (size_t i = 0; i < n; ++i) sum += x[i] * x[i];
  const auto* w = reinterpret_cast<const float*>(weight.data);
  Doubles out(n);
  for (size_t i = 0; i < n; ++i)
    out[i] = x[i] / std::sqrt(sum / static_cast<double>(n) + kEps) * w[i];
  return out;
}

Doubles l2Norm(const double* x, size_t n) {
  double sum = 0;
  for (size_t i = 0; i < n; ++i) sum += x[i] * x[i];
  Doubles out(n);
  for (size_t i = 0; i < n; ++i) out[i] = x[i] / std::sqrt(sum + kEps);
  return out;
}

double sigmoid(double x) { return 1 / (1 + std::exp(-x)); }

void rotate(Doubles& head, size_t pos) {
  for (size_t j = 0; j < 32; ++j) {
    const double angle =
        static_cast<double>(pos) * std::pow(1e7, -2.0 * static_cast<double>(j) / 64);
    const double a = head[j];
    const double b = head[j + 32];
    head[j] = a * std::cos(angle) - b * std::sin(angle);
    head[j + 32] = a * std::sin(angle) + b * std::cos(angle);
  }
}

Doubles widened(const std::vector<float>& x) { return {x.begin(), x.end()}; }

}  // namespace

Matrix::Matrix(const kiv::TensorView& tensor) : cols(tensor.dims[0]) {
  const auto type = static_cast<kiv::QuantType>(tensor.type);
  const size_t stride = qwen35::rowStride(type, cols);
  for (size_t r = 0; r < qwen35::rowCount(tensor); ++r) {
    const std::vector<float> row = decodeRow(type, tensor.data + r * stride, cols);
    values.insert(values.end(), row.begin(), row.end());
  }
}

FullReference::FullReference(const qwen35::Layer& layer)
    : layer_(layer),
      q_(*layer.attnQ),
      k_(*layer.attnK),
      v_(*layer.attnV),
      output_(*layer.attnOutput) {}

void FullReference::takeCaches(size_t maxContext) {
  keys_.assign(layer_.position, {});
  values_.assign(layer_.position, {});
  for (size_t t = 0; t < layer_.position; ++t) {
    for (size_t g = 0; g < kGroups; ++g) {
      const size_t slot = (g * maxContext + t) * kHead;
      const float* key = layer_.keyCache.data() + slot;
      const float* value = layer_.valueCache.data() + slot;
      keys_[t].insert(keys_[t].end(), key, key + kHead);
      values_[t].insert(values_[t].end(), value, value + kHead);
    }
  }
}

FullReference::Result FullReference::step(const std::vector<float>& x, size_t pos) {
  const Doubles xn = rmsNorm(widened(x).data(), *layer_.attnNorm, x.size());
  Doubles q = product(q_, xn, kHeads * 2 * kHead);
  Doubles k = product(k_, xn, kGroups * kHead);
  Doubles v = product(v_, xn, kGroups * kHead);
  addBias(layer_.attnQBias, q);
  addBias(layer_.attnKBias, k);
  addBias(layer_.attnVBias, v);
  Doubles keys;
  for (size_t g = 0; g < kGroups; ++g) {
    Doubles key = rmsNorm(k.data() + g * kHead, *layer_.attnKNorm, kHead);
    rotate(key, pos);
    keys.insert(keys.end(), key.begin(), key.end());
  }
  keys_.push_back(std::move(keys));
  values_.push_back(std::move(v));

  Result result;
  Doubles outputs(kHeads * kHead);
  for (size_t h = 0; h < kHeads; ++h) {
    Doubles query = rmsNorm(q.data() + h * 2 * kHead, *layer_.attnQNorm, kHead);
    rotate(query, pos);
    const size_t group = h / (kHeads / kGroups) * kHead;
    Doubles scores(keys_.size());
    for (size_t t = 0; t < scores.size(); ++t) {
      for (size_t d = 0; d < kHead; ++d) scores[t] += query[d] * keys_[t][group + d] / 16;
    }
    const double maximum = *std::max_element(scores.begin(), scores.end());
    double sum = 0;
    for (double& score : scores) sum += score = std::exp(score - maximum);
    if (h == 0) {
      result.maximum = maximum;
      result.logSum = maximum + std::log(sum);
    }
    for (size_t d = 0; d < kHead; ++d) {
      double mean = 0;
      for (size_t t = 0; t < scores.size(); ++t) mean += scores[t] / sum * values_[t][group + d];
      outputs[h * kHead + d] = mean * sigmoid(q[h * 2 * kHead + kHead + d]);
    }
  }
  result.out = product(output_, outputs, x.size());
  return result;
}

LinearReference::LinearReference(const qwen35::Layer& layer)
    : layer_(layer),
      qkv_(*layer.attnQkv),
      gate_(*layer.attnGate),
      beta_(*layer.ssmBeta),
      alpha_(*layer.ssmAlpha),
      output_(*layer.ssmOut),
      state_(kValueHeads * kLinearHead * kLinearHead),
      window_(3, Doubles(2 * kKeyHeads * kLinearHead + kValueHeads * kLinearHead)) {}

LinearReference::Result LinearReference::step(const std::vector<float>& x) {
  constexpr size_t kKeyWidth = kKeyHeads * kLinearHead;
  constexpr size_t kValueWidth = kValueHeads * kLinearHead;
  Result r;
  const Doubles xn = rmsNorm(widened(x).data(), *layer_.attnNorm, x.size());
  r.qkv = product(qkv_, xn, 2 * kKeyWidth + kValueWidth);
  r.gate = product(gate_, xn, kValueWidth);
  const Doubles b = product(beta_, xn, kValueHeads);
  const Doubles a = product(alpha_, xn, kValueHeads);
  const auto* dt = reinterpret_cast<const float*>(layer_.ssmDt->data);
  const auto* decay = reinterpret_cast<const float*>(layer_.ssmA->data);
  const auto* taps = reinterpret_cast<const float*>(layer_.ssmConv1d->data);

  for (size_t c = 0; c < r.qkv.size(); ++c) {
    const double y = taps[4 * c] * window_[0][c] + taps[4 * c + 1] * window_[1][c] +
                     taps[4 * c + 2] * window_[2][c] + taps[4 * c + 3] * r.qkv[c];
    r.conv.push_back(y * sigmoid(y));
  }
  window_.erase(window_.begin());
  window_.push_back(r.qkv);

  for (size_t h = 0; h < kValueHeads; ++h) {
    const size_t keyHead = h % kKeyHeads;
    const Doubles q = l2Norm(r.conv.data() + keyHead * kLinearHead, kLinearHead);
    const Doubles k = l2Norm(r.conv.data() + kKeyWidth + keyHead * kLinearHead, kLinearHead);
    const double* first = r.conv.data() + 2 * kKeyWidth + h * kLinearHead;
    Doubles v(first, first + kLinearHead);
    const double g = std::log1p(std::exp(a[h] + dt[h])) * decay[h];
    if (h == 0) {
      r.beta0 = sigmoid(b[0]);
      r.g0 = g;
    }
    deltaReference(state_.data() + h * kLinearHead * kLinearHead, q.data(), k.data(), v.data(),
                   sigmoid(b[h]), kLinearHead, std::exp(g), 1 / std::sqrt(128.0));
    r.heads.insert(r.heads.end(), v.begin(), v.end());
    const Doubles normed = rmsNorm(v.data(), *layer_.ssmNorm, kLinearHead);
    for (size_t j = 0; j < kLinearHead; ++j) {
      const double z = r.gate[h * kLinearHead + j];
      r.gated.push_back(normed[j] * z * sigmoid(z));
    }
  }
  r.out = product(output_, r.gated, x.size());
  return r;
}

Doubles feedForwardReference(const qwen35::Layer& layer, const std::vector<float>& x) {
  const size_t n = qwen35::rowCount(*layer.ffnGate);
  const Doubles wide = widened(x);
  Doubles g = product(Matrix(*layer.ffnGate), wide, n);
  const Doubles u = product(Matrix(*layer.ffnUp), wide, n);
  for (size_t i = 0; i < n; ++i) g[i] = g[i] * sigmoid(g[i]) * u[i];
  return product(Matrix(*layer.ffnDown), g, x.size());
}

void deltaReference(double* state, const double* q, const double* k, double* v, double beta,
                    size_t d, double decay, double scale) {
  for (size_t i = 0; i < d * d; ++i) state[i] *= decay;
  for (size_t j = 0; j < d; ++j) {
    double retrieved = 0;
    for (size_t i = 0; i < d; ++i) retrieved += k[i] * state[i * d + j];
    const double delta = (v[j] - retrieved) * beta;
    double out = 0;
    for (size_t i = 0; i < d; ++i) {
      state[i * d + j] += k[i] * delta;
      out += q[i] * state[i * d + j];
    }
    v[j] = scale * out;
  }
}

}  // namespace orbtest
