#include "eval/eval_module.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "compat/export.h"
#include "format/loader.h"
#include "model/forward.h"
#include "model/model.h"
#include "tokenizer/tokenizer.h"

namespace {

// A model with the state of one window.
class Forecaster {
 public:
  std::string open(const char* path, size_t window) {
    const kiv::Status status = loader_.open(path, /*largeFiles=*/true);
    if (!status.ok()) return std::string(path) + ": " + status.message;
    if (!initLayers(loader_, model_, window) || !bindModel(loader_, model_, window)) {
      return std::string(path) +
             ": expected a model that the runtime takes; orb info --check "
             "says what is wrong with it";
    }
    embedding_.resize(model_.hiddenSize);
    logits_.resize(model_.vocabularySize);
    return {};
  }

  size_t vocabulary() const { return logits_.size(); }
  kiv::TokenizerData& tokenizer() { return loader_.tokenizer; }

  // What follows the token: the logits become logarithms of probabilities.
  void step(size_t token, size_t position) {
    if (position == 0) resetModel(model_);
    embedRow(model_, token, embedding_.data());
    forwardToken(model_, embedding_.data(), position, logits_.data());
    const float highest = *std::max_element(logits_.begin(), logits_.end());
    double sum = 0;
    for (const float logit : logits_) sum += std::exp(static_cast<double>(logit - highest));
    normalizer_ = static_cast<double>(highest) + std::log(sum);
  }

  double logProbability(size_t token) const {
    return static_cast<double>(logits_[token]) - normalizer_;
  }
  size_t likeliest() const {
    return static_cast<size_t>(std::max_element(logits_.begin(), logits_.end()) - logits_.begin());
  }

 private:
  kiv::ORBLoader loader_;
  qwen35::Model model_;
  std::vector<float> embedding_;
  std::vector<float> logits_;
  double normalizer_ = 0;
};

double divergence(const Forecaster& p, const Forecaster& q) {
  double sum = 0;
  for (size_t token = 0; token < p.vocabulary(); ++token) {
    const double logP = p.logProbability(token);
    sum += std::exp(logP) * (logP - q.logProbability(token));
  }
  return sum;
}

std::string encode(const OrbEvalRequest& request, Forecaster& model, std::vector<int32_t>& ids) {
  kiv::Tokenizer tokenizer;
  kiv::Status status = tokenizer.load(std::move(model.tokenizer()));
  if (status.ok()) {
    status = tokenizer.encode({request.text, request.textBytes}, ids, /*addBos=*/false);
  }
  if (!status.ok()) return std::string(request.model) + ": " + status.message;
  ids.resize(std::min<size_t>(ids.size(), request.maxTokens));
  if (ids.size() < 2) return "expected a text of at least two tokens";
  for (const int32_t id : ids) {
    if (static_cast<size_t>(id) >= model.vocabulary()) return "a token has no embedding row";
  }
  return {};
}

std::string evaluate(const OrbEvalRequest& request, OrbEvalResult& result) {
  using Clock = std::chrono::steady_clock;
  Forecaster model;
  std::unique_ptr<Forecaster> against;
  std::vector<int32_t> ids;
  if (std::string error = model.open(request.model, request.window); !error.empty()) return error;
  if (std::string error = encode(request, model, ids); !error.empty()) return error;
  if (request.against != nullptr) {
    against = std::make_unique<Forecaster>();
    std::string error = against->open(request.against, request.window);
    if (!error.empty()) return error;
    if (against->vocabulary() != model.vocabulary()) {
      return "expected two models of one vocabulary, found " + std::to_string(model.vocabulary()) +
             " and " + std::to_string(against->vocabulary()) + " tokens";
    }
  }
  // The last token of a window is forecast but not fed; the next window begins with it.
  const size_t window = request.window;
  for (size_t i = 0; i + 1 < ids.size(); ++i) {
    const size_t position = i % (window - 1);
    const auto token = static_cast<size_t>(ids[i]);
    const auto next = static_cast<size_t>(ids[i + 1]);
    const Clock::time_point start = Clock::now();
    model.step(token, position);
    result.seconds += std::chrono::duration<double>(Clock::now() - start).count();
    result.logLoss -= model.logProbability(next);
    if (against != nullptr) {
      against->step(token, position);
      result.againstLogLoss -= against->logProbability(next);
      result.divergence += divergence(*against, model);
      result.agreements += model.likeliest() == against->likeliest() ? 1 : 0;
    }
    ++result.forecasts;
    if (request.progress != nullptr &&
        request.progress(request.context, i + 1, ids.size() - 1) == 0) {
      return "stopped";
    }
  }
  result.tokens = result.forecasts;
  const auto count = static_cast<double>(result.forecasts);
  result.logLoss /= count;
  result.againstLogLoss /= count;
  result.divergence /= count;
  return {};
}

}  // namespace

ORB_API int orbEvaluate(const OrbEvalRequest* request, OrbEvalResult* result) {
  *result = {};
  std::string error;
  try {
    error = evaluate(*request, *result);
  } catch (const std::exception& exception) {
    error = exception.what();
  }
  if (error.empty()) return 0;
  std::snprintf(result->error, sizeof result->error, "%s", error.c_str());
  return 1;
}
