// Small synthetic models, bound and ready to run, and tensors to put in place of theirs.
#pragma once

#include <string>
#include <vector>

#include "format/loader.h"
#include "model/model.h"
#include "synth/synth.h"

namespace orbtest {

// Hidden size and feed-forward width are this, everything is F32: a token costs little on every
// tier.
constexpr size_t kSmallHidden = 16;
orb::SynthOptions smallOptions();

// Writes the model to a temporary file, opens and binds it. A failure ends the test program.
class SmallModel {
 public:
  explicit SmallModel(const orb::SynthOptions& options = smallOptions(),
                      const qwen35::KernelTable* tier = nullptr, size_t maxContext = 64);
  ~SmallModel();
  SmallModel(const SmallModel&) = delete;
  SmallModel& operator=(const SmallModel&) = delete;

  kiv::ORBLoader loader;
  qwen35::Model model;

 private:
  std::string path_;
};

// An F32 copy of a tensor of a model, to be changed and bound instead of it.
struct OwnTensor {
  explicit OwnTensor(const kiv::TensorView& original);
  OwnTensor(const OwnTensor&) = delete;
  OwnTensor& operator=(const OwnTensor&) = delete;

  float* row(size_t r) { return values.data() + r * view.dims[0]; }

  std::vector<float> values;
  kiv::TensorView view;
};

// Puts keys and values of order one into the first `count` slots of every full block, as if so many
// tokens had been fed.
void fillCaches(qwen35::Model& model, size_t count);

std::vector<float> normalVector(size_t n, unsigned seed);
double norm(const float* x, size_t n);
// |a - b| / |b|
double relativeDistance(const std::vector<float>& a, const std::vector<double>& b);
double relativeDistance(const std::vector<float>& a, const std::vector<float>& b);

}  // namespace orbtest
