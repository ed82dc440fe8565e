// The library under validation, looked at without trust: what is missing is null.
#pragma once

#include <cstdint>
#include <string>

#include "orb_plugin.h"

namespace orb::validate {

class Plugin {
 public:
  Plugin() = default;
  ~Plugin();
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  // Loads the library and looks its four functions up, calling none. False with the reason in
  // `error` when it does not load.
  bool load(const std::string& path, std::string& error);
  void unload();

  // Calls the functions and takes the first runtime and its streaming extension. False with the
  // reason in `error` when there is no runtime of the second generation that can be used.
  bool findTables(std::string& error);

  ORBPluginInitFn init = nullptr;
  ORBPluginRuntimesFn runtimes = nullptr;
  ORBPluginRuntimesV2Fn runtimesV2 = nullptr;
  ORBPluginRuntimesV2SFn runtimesV2S = nullptr;

  const ORBRuntimeV2* runtime = nullptr;
  const ORBRuntimeV2S* streaming = nullptr;  // null when there is none of the same id

 private:
  void* library_ = nullptr;
};

}  // namespace orb::validate
