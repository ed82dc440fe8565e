// Options that several subcommands share, and what they mean for the plug-in.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "orb_plugin.h"

namespace orb {

// Highest values that the limits of generation and context take.
inline constexpr uint64_t kHighestMaxTokens = 1000000;
inline constexpr uint64_t kHighestContext = 1048576;

// Which model, through which plug-in, on which part of the machine.
struct ModelOptions {
  std::string model;
  std::string plugin;                 // empty: the one beside the program
  std::optional<int> threads;         // OMP_NUM_THREADS
  std::optional<std::string> isa;     // QWEN35_ISA
  std::optional<uint64_t> maxTokens;  // QWEN35_MAX_TOKENS
  std::optional<uint64_t> context;    // QWEN35_MAX_CONTEXT
};

struct SamplingOptions {
  std::optional<float> temperature;
  std::optional<int> topK;
  std::optional<float> topP;
  std::optional<uint64_t> seed;
};

void addPluginOption(CLI::App& command, std::string& plugin);
void addModelOptions(CLI::App& command, ModelOptions& options);
void addLengthOptions(CLI::App& command, ModelOptions& options);  // --max-tokens, --context
void addSamplingOptions(CLI::App& command, SamplingOptions& options);

// Examples under the help text of a subcommand.
void addExamples(CLI::App& command, const std::string& examples);

// The record that asks the plug-in for these settings; what was not given stays as it is.
ORBSessionOptions toSessionOptions(const SamplingOptions& options);

// The settings that the options and the environment amount to.
uint64_t maxTokensInUse(const ModelOptions& options);
uint64_t contextInUse(const ModelOptions& options);
int threadsInUse(const ModelOptions& options);
std::string tierInUse(const ModelOptions& options);

// "scalar, avx2": the tiers of this build that this machine can run, best last.
std::string runnableTiers();

}  // namespace orb
