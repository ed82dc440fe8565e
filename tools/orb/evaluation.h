// Runs the evaluation of a model, or of two, and prints its figures.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace orb {

struct EvaluationOptions {
  std::string model;
  std::string against;  // empty: no comparison
  std::string textFile;
  uint64_t window = 512;
  uint64_t maxTokens = 4096;
  std::optional<int> threads;
};

// Prints the figures, or the error; returns the exit code.
int runEvaluation(const EvaluationOptions& options);

}  // namespace orb
