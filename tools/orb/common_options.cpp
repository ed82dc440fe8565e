#include "orb/common_options.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <thread>

#include "host/plugin_host.h"
#include "model/kernels/kernel_table.h"
#include "model/team.h"

namespace orb {
namespace {

constexpr uint64_t kDefaultMaxTokens = 96;
constexpr uint64_t kDefaultContext = 8192;
constexpr int kMaxThreads = static_cast<int>(qwen35::Team::kMaxThreads);

// A decimal number from the environment, or the fallback when there is no sane one.
uint64_t environmentNumber(const char* name, uint64_t highest, uint64_t fallback) {
  const char* text = std::getenv(name);
  if (text == nullptr || *text < '0' || *text > '9') return fallback;
  errno = 0;
  char* end = nullptr;
  const unsigned long long value = std::strtoull(text, &end, 10);
  return errno == 0 && *end == '\0' && value >= 1 && value <= highest ? value : fallback;
}

// Refuses what the library would silently replace by another tier.
std::string checkTier(const std::string& name) {
  for (const qwen35::KernelTable* tier : qwen35::allKernels()) {
    if (name == tier->name) {
      return qwen35::canRun(*tier)
                 ? ""
                 : "this machine cannot run tier " + name + "; it runs " + runnableTiers();
    }
  }
  return "there is no tier " + name + "; this machine runs " + runnableTiers();
}

}  // namespace

std::string runnableTiers() {
  std::string names;
  for (const qwen35::KernelTable* tier : qwen35::allKernels()) {
    if (qwen35::canRun(*tier)) names += (names.empty() ? "" : ", ") + std::string(tier->name);
  }
  return names;
}

void addPluginOption(CLI::App& command, std::string& plugin) {
  command.add_option("--plugin", plugin, "Runtime plug-in to load [the one beside this program]")
      ->type_name("PATH");
}

void addModelOptions(CLI::App& command, ModelOptions& options) {
  command.add_option("MODEL", options.model, "Model file (.orb)")->required()->type_name("");
  command.add_option("--threads", options.threads, "Worker threads [all processors]")
      ->check(CLI::Range(1, kMaxThreads))
      ->type_name("N");
  command.add_option("--isa", options.isa, "Kernel tier [best]; here: " + runnableTiers())
      ->check(CLI::Validator(checkTier, ""))
      ->type_name("NAME");
  addPluginOption(command, options.plugin);
}

void addLengthOptions(CLI::App& command, ModelOptions& options) {
  command.add_option("--max-tokens", options.maxTokens, "New tokens per answer [96]")
      ->check(CLI::Range(uint64_t{1}, kHighestMaxTokens))
      ->type_name("N");
  command.add_option("--context", options.context, "Tokens that the context holds [8192]")
      ->check(CLI::Range(uint64_t{1}, kHighestContext))
      ->type_name("N");
}

void addSamplingOptions(CLI::App& command, SamplingOptions& options) {
  command
      .add_option("--temperature", options.temperature,
                  "Sampling temperature; 0 always takes the likeliest token [0]")
      ->check(CLI::Range(0.0, 100.0))
      ->type_name("T");
  command.add_option("--top-k", options.topK, "Sample among the K likeliest tokens [all]")
      ->check(CLI::Range(1, 1 << 30))
      ->type_name("K");
  command
      .add_option("--top-p", options.topP,
                  "Nucleus; 1 samples among all kept tokens, less keeps the likeliest only [1]")
      ->check(CLI::Range(0.0001, 1.0))
      ->type_name("P");
  command.add_option("--seed", options.seed, "Seed of the sampler, not 0 [42]")
      ->check(CLI::Range(uint64_t{1}, uint64_t{UINT32_MAX}))
      ->type_name("N");
}

void addExamples(CLI::App& command, const std::string& examples) {
  command.footer("Examples:\n" + examples);
}

ORBSessionOptions toSessionOptions(const SamplingOptions& options) {
  ORBSessionOptions record = makeSessionOptions();
  if (options.temperature) record.temperature = *options.temperature;
  if (options.topK) record.topK = *options.topK;
  if (options.topP) record.topP = *options.topP;
  if (options.seed) record.seed = *options.seed;
  return record;
}

uint64_t maxTokensInUse(const ModelOptions& options) {
  if (options.maxTokens) return *options.maxTokens;
  return environmentNumber("QWEN35_MAX_TOKENS", kHighestMaxTokens, kDefaultMaxTokens);
}

uint64_t contextInUse(const ModelOptions& options) {
  if (options.context) return *options.context;
  return environmentNumber("QWEN35_MAX_CONTEXT", kHighestContext, kDefaultContext);
}

int threadsInUse(const ModelOptions& options) {
  if (options.threads) return *options.threads;
  const unsigned processors = std::max(1u, std::thread::hardware_concurrency());
  const uint64_t threads = environmentNumber("OMP_NUM_THREADS", UINT32_MAX, processors);
  return static_cast<int>(std::min<uint64_t>(threads, kMaxThreads));
}

std::string tierInUse(const ModelOptions& options) {
  const char* name = options.isa ? options.isa->c_str() : std::getenv("QWEN35_ISA");
  return qwen35::selectKernels(name).name;
}

}  // namespace orb
