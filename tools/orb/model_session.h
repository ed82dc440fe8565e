// From the options of a command to an opened model: environment, plug-in, runtime.
#pragma once

#include <memory>
#include <string>

#include "host/plugin_host.h"
#include "orb/common_options.h"

namespace orb {

// Files of this size and more open only with QWEN35_LARGE_FILES=1.
inline constexpr uint64_t kLargeFileBytes = uint64_t{1} << 31;

// Switches large files on when one of that size is about to be opened, and says so.
void allowLargeFile(const std::string& path);

// Loads the plug-in at `path`, or the one beside the program when it is empty; on failure prints
// the error and returns false. What it reads from the environment must be set before.
bool loadPlugin(PluginHost& host, const std::string& path);

// A plug-in with one opened model.
class ModelSession {
 public:
  // Sets the environment from the options, loads, opens. On failure prints the error and returns
  // the exit code.
  int open(const ModelOptions& options);

  Runtime& runtime() { return *runtime_; }

  // How long the plug-in took to open the model.
  double createSeconds() const { return createSeconds_; }

  // Closes the model; the plug-in stays.
  void closeModel() { runtime_.reset(); }

 private:
  PluginHost host_;
  std::unique_ptr<Runtime> runtime_;
  double createSeconds_ = 0;
};

}  // namespace orb
