#include "model/small_model.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <random>

#include "model/weight_patterns.h"
#include "model/weight_rows.h"

namespace orbtest {
namespace {

void require(bool condition, const std::string& what) {
  if (condition) return;
  std::fprintf(stderr, "small model: %s\n", what.c_str());
  std::exit(1);
}

}  // namespace

orb::SynthOptions smallOptions() {
  orb::SynthOptions options;
  options.hidden = kSmallHidden;
  options.ffn = kSmallHidden;
  options.vocabulary = orb::kSynthMinVocabulary;
  return options;
}

SmallModel::SmallModel(const orb::SynthOptions& options, const qwen35::KernelTable* tier,
                       size_t maxContext) {
  static std::atomic<int> counter{0};
  path_ = testing::TempDir() + "orb_small_" + std::to_string(getpid()) + "_" +
          std::to_string(counter++) + ".orb";
  kiv::Status status = orb::writeSynthModel(path_, options);
  require(status.ok(), status.message);
  status = loader.open(path_.c_str());
  require(status.ok(), status.message);
  model.kernels = tier;
  require(initLayers(loader, model, maxContext), "layers");
  require(bindModel(loader, model, maxContext), "model");
}

SmallModel::~SmallModel() { std::remove(path_.c_str()); }

OwnTensor::OwnTensor(const kiv::TensorView& original) : view(original) {
  const auto type = static_cast<kiv::QuantType>(original.type);
  const size_t rows = qwen35::rowCount(original);
  for (size_t r = 0; r < rows; ++r) {
    const uint8_t* at = original.data + r * qwen35::rowStride(type, original.dims[0]);
    const std::vector<float> row = decodeRow(type, at, original.dims[0]);
    values.insert(values.end(), row.begin(), row.end());
  }
  view.type = static_cast<uint16_t>(kiv::QuantType::F32);
  view.data = reinterpret_cast<const uint8_t*>(values.data());
  view.size = values.size() * sizeof(float);
}

void fillCaches(qwen35::Model& model, size_t count) {
  const size_t slots = count * model.attentionHeadSize;
  const std::vector<float> values = normalVector(2 * model.keyValueHeads * slots, 99);
  for (qwen35::Layer& layer : model.layers) {
    layer.position = count;
    if (layer.isLinear) continue;
    const float* next = values.data();
    for (size_t g = 0; g < model.keyValueHeads; ++g) {
      const size_t first = g * model.maxContext * model.attentionHeadSize;
      for (qwen35::ZeroedArray* cache : {&layer.keyCache, &layer.valueCache}) {
        std::copy_n(next, slots, cache->data() + first);
        next += slots;
      }
    }
  }
}

std::vector<float> normalVector(size_t n, unsigned seed) {
  std::mt19937 random(seed);
  std::normal_distribution<float> normal;
  std::vector<float> values(n);
  for (float& value : values) value = normal(random);
  return values;
}

double norm(const float* x, size_t n) {
  double sum = 0;
  for (size_t i = 0; i < n; ++i) sum += static_cast<double>(x[i]) * static_cast<double>(x[i]);
  return std::sqrt(sum);
}

double relativeDistance(const std::vector<float>& a, const std::vector<double>& b) {
  double difference = 0;
  double size = 0;
  for (size_t i = 0; i < b.size(); ++i) {
    difference += (a[i] - b[i]) * (a[i] - b[i]);
    size += b[i] * b[i];
  }
  return difference == 0 ? 0 : std::sqrt(difference / size);
}

double relativeDistance(const std::vector<float>& a, const std::vector<float>& b) {
  return relativeDistance(a, std::vector<double>(b.begin(), b.end()));
}

}  // namespace orbtest
