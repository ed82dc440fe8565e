#include "model/diagnostics.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace qwen35 {
namespace {

bool isSet(const char* variable) { return std::getenv(variable) != nullptr; }

double dotDouble(const float* a, const float* b, size_t n) {
  double sum = 0;
  for (size_t i = 0; i < n; ++i) sum += static_cast<double>(a[i]) * static_cast<double>(b[i]);
  return sum;
}

double norm(const float* x, size_t n) { return std::sqrt(dotDouble(x, x, n)); }
double norm(const TokenRows& x) { return norm(x.data(), x.width()); }

}  // namespace

bool diagnosticsRequested() {
  constexpr const char* kVariables[] = {"QWEN35_ABLATE", "QWEN35_DBG",    "QWEN35_DBG2",
                                        "QWEN35_DBG3",   "QWEN35_DBG4",   "QWEN35_HID_DUMP",
                                        "QWEN35_TIMING", "QWEN35_NODECAY"};
  return std::any_of(std::begin(kVariables), std::end(kVariables), isSet);
}

TokenDiagnostics::TokenDiagnostics(const Model& model, const float* embedding, size_t pos)
    : model_(model), embedding_(embedding), pos_(pos), prints_(pos == 0 && isSet("QWEN35_DBG")) {
  if (const char* path = std::getenv("QWEN35_HID_DUMP")) dump_.reset(std::fopen(path, "ab"));
}

void TokenDiagnostics::mixed(const Layer& layer, size_t block) {
  const Workspace& w = model_.work;
  if (prints_) {
    // The third value is the residual array before it is formed: always 0.
    std::fprintf(stderr, "  L%02zu %s |x|=%7.3f |attn|=%.3e |xnorm|=%7.3f\n", block,
                 layer.isLinear ? "lin" : "ful", norm(w.x), norm(w.mixed), 0.0);
  }
  dump(block, "attn_mm", w.mixed);
}

void TokenDiagnostics::normed(size_t block) {
  dump(block, "attn_res", model_.work.residual);
  dump(block, "post_norm", model_.work.normed);
}

void TokenDiagnostics::endBlock(size_t block) {
  const Workspace& w = model_.work;
  dump(block, "ffn_mm", w.ffnOut);
  dump(block, "layer_out", w.x);
  if (prints_) std::fprintf(stderr, "        |ffn|=%.3e\n", norm(w.ffnOut));
}

void TokenDiagnostics::finished() {
  const TokenRows& x = model_.work.x;
  if (dump_ != nullptr) dumpRecord("result_norm", x);
  if (!prints_) return;
  const double original = norm(embedding_, x.width());
  const double current = norm(x);
  const double cosine = dotDouble(embedding_, x.data(), x.width()) / (original * current);
  std::fprintf(stderr, "  final |orig|=%.3f |cur|=%.3f cos(orig,cur)=%.4f\n", original, current,
               cosine);
}

void TokenDiagnostics::dump(size_t block, const char* stage, const TokenRows& values) const {
  if (dump_ == nullptr) return;
  char name[48];
  std::snprintf(name, sizeof name, "S%zu.%s", block, stage);
  dumpRecord(name, values);
}

void TokenDiagnostics::dumpRecord(const char* name, const TokenRows& values) const {
  const auto position = static_cast<uint32_t>(pos_);
  const auto length = static_cast<uint32_t>(std::strlen(name));
  const uint64_t count = values.width();
  std::fwrite(&position, sizeof position, 1, dump_.get());
  std::fwrite(&length, sizeof length, 1, dump_.get());
  std::fwrite(name, 1, length, dump_.get());
  std::fwrite(&count, sizeof count, 1, dump_.get());
  std::fwrite(values.data(), sizeof(float), count, dump_.get());
}

HiddenTiming::HiddenTiming(size_t pos) : pos_(pos), enabled_(isSet("QWEN35_TIMING")) {
  if (enabled_) start_ = Clock::now();
}

void HiddenTiming::addTo(double& milliseconds) {
  if (!enabled_) return;
  const Clock::time_point now = Clock::now();
  milliseconds += std::chrono::duration<double, std::milli>(now - last_).count();
  last_ = now;
}

void HiddenTiming::beginBlock() {
  if (enabled_) last_ = Clock::now();
}

void HiddenTiming::mixed(const Layer& layer, size_t) { addTo(layer.isLinear ? linear_ : full_); }
void HiddenTiming::normed(size_t) { addTo(norm_); }
void HiddenTiming::endBlock(size_t) { addTo(ffn_); }

void HiddenTiming::print() const {
  if (!enabled_) return;
  const double total = std::chrono::duration<double, std::milli>(Clock::now() - start_).count();
  std::fprintf(stderr,
               "[timing] hidden fwd pos=%zu %.0f ms (lin %.0f full %.0f norm %.0f ffn %.0f)\n",
               pos_, total, linear_, full_, norm_, ffn_);
}

void printLinearAttention(const Model& model, const Layer& layer, const LinearStepReport& report) {
  if (report.block != 0) return;
  const Workspace& w = model.work;
  const auto beta0 = static_cast<double>(report.beta0);
  const auto g0 = static_cast<double>(report.g0);
  if (isSet("QWEN35_DBG2")) {
    const kiv::TensorView& conv = *layer.ssmConv1d;
    const size_t channels = conv.ndims < 2 ? 1 : conv.dims[1];
    std::fprintf(stderr,
                 "    lin: |qkv|=%.3e |z|=%.3e |conv|=%.3e bv0=%.4f av0=%.4f |oTpre|=%.3e "
                 "|oT|=%.3e |out|=%.3e conv1d dtype=%u ndim=%u cc=%zu kk=%zu\n",
                 norm(w.qkv), norm(w.gate), norm(w.conv), beta0, g0, norm(w.heads), norm(w.gated),
                 norm(report.out, model.hiddenSize), unsigned{conv.type}, unsigned{conv.ndims},
                 channels, static_cast<size_t>(conv.dims[0]));
    const auto* rows = reinterpret_cast<const float*>(conv.data);
    for (size_t r = 0; r < 4; ++r) {
      const float* tap = rows + 4 * r;
      std::fprintf(stderr, "      wr[%zu][0..3] = %.6e %.6e %.6e %.6e\n", r,
                   static_cast<double>(tap[0]), static_cast<double>(tap[1]),
                   static_cast<double>(tap[2]), static_cast<double>(tap[3]));
    }
  }
  if (report.pos % 8 == 0 && isSet("QWEN35_DBG4")) {
    const size_t head = model.linearHeadSize * model.linearHeadSize;
    std::fprintf(stderr, "LIN S-pos=%zu |S|tot %.4e head0 %.4e |oT| %.3e av0 %.4f bv0 %.4f\n",
                 report.pos, norm(layer.recurrentState.data(), layer.recurrentState.size()),
                 norm(layer.recurrentState.data(), head), norm(w.gated), g0, beta0);
  }
}

void printFullAttention(size_t block, size_t pos, size_t cached, float maximum, float sum) {
  if (block != 3 || pos % 8 != 0 || !isSet("QWEN35_DBG3")) return;
  const double m = maximum;
  std::fprintf(stderr, "FULL kvLen=%zu qh0: max %.3f ent %.4f nTok %zu\n", cached, m,
               std::log(static_cast<double>(sum)) + m + 1e-9, cached + 1);
}

}  // namespace qwen35
