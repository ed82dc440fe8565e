#include "validate/plugin.h"

#include <cstring>

#include "validate/platform.h"

namespace orb::validate {
namespace {

template <typename Function>
void find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(findFunction(library, name));
}

bool complete(const ORBRuntimeV2& table) {
  return table.probe != nullptr && table.create != nullptr && table.destroy != nullptr &&
         table.generate != nullptr && table.generateEx != nullptr && table.bench != nullptr &&
         table.configure != nullptr && table.chatTurn != nullptr && table.reset != nullptr &&
         table.stats != nullptr;
}

}  // namespace

Plugin::~Plugin() { unload(); }

bool Plugin::load(const std::string& path, std::string& error) {
  library_ = openLibrary(path, error);
  if (library_ == nullptr) return false;
  find(library_, "orb_plugin_init", init);
  find(library_, "orb_plugin_runtimes", runtimes);
  find(library_, "orb_plugin_runtimes_v2", runtimesV2);
  find(library_, "orb_plugin_runtimes_v2s", runtimesV2S);
  return true;
}

void Plugin::unload() {
  if (library_ != nullptr) closeLibrary(library_);
  library_ = nullptr;
}

bool Plugin::findTables(std::string& error) {
  uint32_t count = 0;
  const ORBRuntimeV2* table = runtimesV2 != nullptr ? runtimesV2(&count) : nullptr;
  if (table == nullptr || count == 0 || table->id == nullptr || !complete(*table)) {
    error = "no complete runtime of the second generation";
    return false;
  }
  runtime = table;
  const ORBRuntimeV2S* extensions = runtimesV2S != nullptr ? runtimesV2S(&count) : nullptr;
  for (uint32_t i = 0; extensions != nullptr && i < count; ++i) {
    if (extensions[i].id != nullptr && std::strcmp(extensions[i].id, runtime->id) == 0 &&
        extensions[i].chatTurnStream != nullptr) {
      streaming = &extensions[i];
    }
  }
  return true;
}

}  // namespace orb::validate
