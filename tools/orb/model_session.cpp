#include "orb/model_session.h"

#include <chrono>
#include <cstdlib>

#include "orb/exit_codes.h"
#include "orb/platform.h"
#include "orb/text.h"

namespace orb {
namespace {

void setLimit(const char* name, const std::optional<uint64_t>& value) {
  if (value) setEnvironment(name, std::to_string(*value));
}

}  // namespace

void allowLargeFile(const std::string& path) {
  constexpr const char* kVariable = "QWEN35_LARGE_FILES";
  uint64_t size = 0;
  if (!fileSize(path, size) || size < kLargeFileBytes) return;
  const char* value = std::getenv(kVariable);
  if (value != nullptr && std::string(value) == "1") return;
  setEnvironment(kVariable, "1");
  printError(path, formatBytes(size) + ", opened with QWEN35_LARGE_FILES=1");
}

bool loadPlugin(PluginHost& host, const std::string& path) {
  const std::string file = path.empty() ? executableFolder() + '/' + pluginFileName() : path;
  std::string error;
  if (host.load(file, error)) return true;
  printError(file, error);
  return false;
}

int ModelSession::open(const ModelOptions& options) {
  uint64_t size = 0;
  if (!fileSize(options.model, size)) {
    return fail(options.model, "expected a model file (.orb), found no file; check the path");
  }
  // The plug-in brings the threading library, which reads its variable when it is loaded.
  if (options.threads) setEnvironment("OMP_NUM_THREADS", std::to_string(*options.threads));
  if (options.isa) setEnvironment("QWEN35_ISA", *options.isa);
  setLimit("QWEN35_MAX_TOKENS", options.maxTokens);
  setLimit("QWEN35_MAX_CONTEXT", options.context);
  allowLargeFile(options.model);
  if (!loadPlugin(host_, options.plugin)) return kFailure;
  std::string error;
  const auto start = std::chrono::steady_clock::now();
  runtime_ = host_.open(options.model, error);
  createSeconds_ = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (runtime_ != nullptr) return kOk;
  return fail(options.model, "expected a model that the runtime opens, found \"" + error +
                                 "\"; orb info --check says what is wrong with it");
}

}  // namespace orb
