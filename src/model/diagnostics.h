// What the forward pass tells when a QWEN35_* variable asks for it; silent and free otherwise. Text
// goes to the standard error stream. A variable set to the empty string counts as set.
//
//   QWEN35_DBG       forwardToken at position 0: norms per block and a final comparison
//   QWEN35_DBG2      linear block 0, every position: norms of its stages
//   QWEN35_DBG3      full block 3, every 8th position: softmax of head 0
//   QWEN35_DBG4      linear block 0, every 8th position: norms of its state
//   QWEN35_TIMING    forwardTokenHidden: milliseconds by kind of step
//   QWEN35_HID_DUMP  forwardToken: path of a binary file that records are appended to
//
// A dump record, little-endian: u32 position, u32 name length, name, u64 count, count floats.
// Per block i: "S<i>.attn_mm" (mixer output), "S<i>.attn_res" (after the residual add),
// "S<i>.post_norm", "S<i>.ffn_mm", "S<i>.layer_out"; then "result_norm", the hidden vector before
// the final norm.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdio>
#include <memory>

#include "model/model.h"

namespace qwen35 {

// Whether any variable above, QWEN35_ABLATE or QWEN35_NODECAY is set.
bool diagnosticsRequested();

// Told of each stage of a forward pass; the values are in the model's work arrays. The diagnostics
// look at passes of one token only.
class ForwardObserver {
 public:
  virtual ~ForwardObserver() = default;
  virtual void beginBlock() {}
  virtual void mixed(const Layer&, size_t /*block*/) {}  // work.mixed is ready
  virtual void normed(size_t /*block*/) {}               // work.residual and work.normed are ready
  virtual void endBlock(size_t /*block*/) {}             // work.ffnOut and work.x are ready
  virtual void finished() {}                             // before the final norm
};

// QWEN35_DBG and QWEN35_HID_DUMP.
class TokenDiagnostics final : public ForwardObserver {
 public:
  TokenDiagnostics(const Model& model, const float* embedding, size_t pos);
  void mixed(const Layer& layer, size_t block) override;
  void normed(size_t block) override;
  void endBlock(size_t block) override;
  void finished() override;

 private:
  struct Close {
    void operator()(std::FILE* file) const { std::fclose(file); }
  };

  void dump(size_t block, const char* stage, const TokenRows& values) const;
  void dumpRecord(const char* name, const TokenRows& values) const;

  const Model& model_;
  const float* embedding_;
  size_t pos_;
  bool prints_;
  std::unique_ptr<std::FILE, Close> dump_;
};

// QWEN35_TIMING.
class HiddenTiming final : public ForwardObserver {
 public:
  explicit HiddenTiming(size_t pos);
  void beginBlock() override;
  void mixed(const Layer& layer, size_t block) override;
  void normed(size_t block) override;
  void endBlock(size_t block) override;
  // The line, with the time since construction as the total.
  void print() const;

 private:
  using Clock = std::chrono::steady_clock;
  void addTo(double& milliseconds);

  size_t pos_;
  bool enabled_;
  Clock::time_point start_{};
  Clock::time_point last_{};
  double linear_ = 0;
  double full_ = 0;
  double norm_ = 0;
  double ffn_ = 0;
};

// QWEN35_DBG2 and QWEN35_DBG4, after a linear block's step.
struct LinearStepReport {
  size_t block;
  size_t pos;
  float beta0;  // of value head 0
  float g0;
  const float* out;  // [hidden] mixer output
};
void printLinearAttention(const Model& model, const Layer& layer, const LinearStepReport& report);

// QWEN35_DBG3, for head 0 of a full block: maximum score and sum of exp(score - maximum) over
// `cached` + 1 positions.
void printFullAttention(size_t block, size_t pos, size_t cached, float maximum, float sum);

}  // namespace qwen35
