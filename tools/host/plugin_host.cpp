#include "host/plugin_host.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <dlfcn.h>
#endif

#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace orb {
namespace {

constexpr uint32_t kDescriptorVersion = 1;
constexpr uint32_t kRuntimeTableVersion = 3;
constexpr uint32_t kStreamingTableVersion = 1;
constexpr size_t kErrorCapacity = 512;

// The three calls of the system's dynamic loading.
#if defined(_WIN32)

std::string systemMessage(DWORD code) {
  wchar_t wide[256];
  char text[3 * 256];
  DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                code, 0, wide, 256, nullptr);
  while (length > 0 && wide[length - 1] <= L' ') --length;
  if (length > 0 && wide[length - 1] == L'.') --length;
  const int bytes = WideCharToMultiByte(CP_UTF8, 0, wide, static_cast<int>(length), text,
                                        sizeof text, nullptr, nullptr);
  if (bytes <= 0) return "error " + std::to_string(code);
  return std::string(text, static_cast<size_t>(bytes));
}

// Looks for what the library needs in its own folder and the system's, not in the current one.
void* openLibrary(const std::string& path, std::string& error) {
  wchar_t wide[4096], full[4096];
  if (MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path.c_str(), -1, wide, 4096) == 0 ||
      GetFullPathNameW(wide, 4096, full, nullptr) - 1 >= 4095) {
    error = "no usable file name";
    return nullptr;
  }
  void* library = LoadLibraryExW(
      full, nullptr, LOAD_LIBRARY_SEARCH_DEFAULT_DIRS | LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR);
  if (library == nullptr) error = path + ": " + systemMessage(GetLastError());
  return library;
}

void* findFunction(void* library, const char* name) {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(library), name));
}

void closeLibrary(void* library) { FreeLibrary(static_cast<HMODULE>(library)); }

#else

void* openLibrary(const std::string& path, std::string& error) {
  // Local: the plug-in's symbols never replace the host's or another plug-in's.
  void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* message = dlerror();
    error = message != nullptr ? message : "unknown error";
  }
  return library;
}

void* findFunction(void* library, const char* name) { return dlsym(library, name); }

void closeLibrary(void* library) { dlclose(library); }

#endif

template <typename Function>
bool find(void* library, const char* name, Function& function, std::string& error) {
  function = reinterpret_cast<Function>(findFunction(library, name));
  if (function != nullptr) return true;
  error = std::string("expected the plug-in function ") + name +
          ", found none; this library is no runtime plug-in";
  return false;
}

std::string versionText(const char* table, uint32_t expected, uint32_t found) {
  return std::string("expected ") + table + " of version " + std::to_string(expected) +
         ", found version " + std::to_string(found) +
         "; use a plug-in of the same release as this program";
}

// Calls a slot that fills a text buffer and takes the text over.
template <typename Call>
int collectText(std::string& text, size_t capacity, const Call& call) {
  std::vector<char> buffer(capacity + 1);
  const int result = call(buffer.data(), buffer.size());
  text.assign(buffer.data(), result == ORB_OK ? std::strlen(buffer.data()) : 0);
  return result;
}

void forwardChunk(const char* bytes, unsigned int length, void* user) {
  (*static_cast<const ChunkHandler*>(user))(std::string_view(bytes, length));
}

}  // namespace

ORBSessionOptions makeSessionOptions() {
  ORBSessionOptions options{};
  options.structSize = sizeof options;
  options.temperature = -1;  // 0 would be taken: it means greedy
  return options;
}

Runtime::~Runtime() { table_.destroy(handle_); }

int Runtime::generate(const std::string& prompt, std::string& text, size_t capacity) {
  return collectText(text, capacity, [&](char* out, size_t size) {
    return table_.generate(handle_, prompt.c_str(), out, size);
  });
}

int Runtime::generateEx(const std::string& prompt, const ORBSessionOptions& options,
                        std::string& text, size_t capacity) {
  return collectText(text, capacity, [&](char* out, size_t size) {
    return table_.generateEx(handle_, prompt.c_str(), &options, out, size);
  });
}

int Runtime::chatTurn(const std::string& userText, std::string& answer, size_t capacity) {
  return collectText(answer, capacity, [&](char* out, size_t size) {
    return table_.chatTurn(handle_, userText.c_str(), out, size);
  });
}

int Runtime::chatTurnStream(const std::string& userText, const ChunkHandler& onChunk,
                            const volatile int* cancel) {
  if (streaming_ == nullptr) return ORB_INVALID;
  ORBChunkFn callback = onChunk ? forwardChunk : nullptr;
  // The slot only reads the flag and only hands the pointer back.
  return streaming_->chatTurnStream(handle_, userText.c_str(), callback,
                                    const_cast<ChunkHandler*>(&onChunk),
                                    const_cast<volatile int*>(cancel));
}

int Runtime::configure(const ORBSessionOptions& options) {
  return table_.configure(handle_, &options);
}

int Runtime::bench(const ORBBenchParams& params, ORBBenchResult& result) {
  return table_.bench(handle_, &params, &result);
}

int Runtime::stats(ORBRuntimeStats& stats) { return table_.stats(handle_, &stats); }

int Runtime::reset() { return table_.reset(handle_); }

PluginHost::~PluginHost() {
  if (library_ != nullptr) closeLibrary(library_);
}

bool PluginHost::load(const std::string& path, std::string& error) {
  library_ = openLibrary(path, error);
  if (library_ == nullptr) {
    error = "expected the runtime plug-in, found none that loads (" + error +
            "); put it beside this program or name it with --plugin";
    return false;
  }
  return findTables(error);
}

bool PluginHost::findTables(std::string& error) {
  ORBPluginInitFn init = nullptr;
  ORBPluginRuntimesV2Fn runtimes = nullptr;
  if (!find(library_, "orb_plugin_init", init, error)) return false;
  if (!find(library_, "orb_plugin_runtimes_v2", runtimes, error)) return false;

  const ORBPluginDescriptor* descriptor = init();
  if (descriptor == nullptr || descriptor->version != kDescriptorVersion) {
    error = versionText("a plug-in descriptor", kDescriptorVersion,
                        descriptor == nullptr ? 0 : descriptor->version);
    return false;
  }
  uint32_t count = 0;
  const ORBRuntimeV2* runtime = runtimes(&count);
  if (runtime == nullptr || count == 0 || runtime->version != kRuntimeTableVersion ||
      runtime->size < sizeof(ORBRuntimeV2)) {
    error = versionText("a runtime table", kRuntimeTableVersion,
                        runtime == nullptr || count == 0 ? 0 : runtime->version);
    return false;
  }
  descriptor_ = descriptor;
  runtime_ = runtime;

  std::string ignored;  // the streaming table is an extension
  ORBPluginRuntimesV2SFn extensions = nullptr;
  if (!find(library_, "orb_plugin_runtimes_v2s", extensions, ignored)) return true;
  const ORBRuntimeV2S* extension = extensions(&count);
  for (uint32_t i = 0; extension != nullptr && i < count; ++i) {
    if (extension[i].version == kStreamingTableVersion &&
        extension[i].size >= sizeof(ORBRuntimeV2S) &&
        std::strcmp(extension[i].id, runtime->id) == 0) {
      streaming_ = &extension[i];
    }
  }
  return true;
}

ORBRuntimeProbe PluginHost::probe(const std::string& modelPath) const {
  ORBRuntimeProbe result{};
  runtime_->probe(modelPath.c_str(), &result);
  return result;
}

std::unique_ptr<Runtime> PluginHost::open(const std::string& modelPath, std::string& error) const {
  char message[kErrorCapacity] = "";
  ORBRuntimeHandle* handle = nullptr;
  const int result = runtime_->create(modelPath.c_str(), nullptr, &handle, message, sizeof message);
  if (result != ORB_OK || handle == nullptr) {
    error = message[0] != '\0' ? message : "unknown error";
    return nullptr;
  }
  return std::unique_ptr<Runtime>(new Runtime(*runtime_, streaming_, handle));
}

}  // namespace orb
