// A host's view of a runtime plug-in: loads the library, checks its tables and wraps each slot in a
// method. Needs nothing but orb_plugin.h and the system's dynamic loading, so that any other host
// can copy this file pair.
//
//   orb::PluginHost host;
//   std::string error;
//   if (!host.load("./liborb_runtime_qwen35.so", error)) ...
//   std::unique_ptr<orb::Runtime> runtime = host.open("model.orb", error);
//   if (runtime == nullptr) ...
//   runtime->chatTurnStream("Hello", [](std::string_view bytes) { ... }, nullptr);
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "orb_plugin.h"

namespace orb {

// Receives the bytes of one token; a multi-byte character may arrive split. Must not throw.
using ChunkHandler = std::function<void(std::string_view bytes)>;

// Session options that change nothing; set what is to be taken.
ORBSessionOptions makeSessionOptions();

// One opened model and its conversation. Used by one thread at a time; must be destroyed before
// the host that opened it. Methods return ORB_OK, ORB_FAILED or ORB_INVALID unless said otherwise.
class Runtime {
 public:
  ~Runtime();
  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;

  // Continues the prompt from an empty context. Text beyond `capacity` bytes is cut.
  int generate(const std::string& prompt, std::string& text, size_t capacity = kTextCapacity);
  int generateEx(const std::string& prompt, const ORBSessionOptions& options, std::string& text,
                 size_t capacity = kTextCapacity);

  // One turn of a conversation; the context keeps the earlier ones.
  int chatTurn(const std::string& userText, std::string& answer, size_t capacity = kTextCapacity);

  // The same, token by token, on the calling thread. A non-zero *cancel (may be null; any thread or
  // a signal handler may set it) ends the turn with ORB_OK; set before the call, only the turn's
  // prompt is taken in. ORB_INVALID when the plug-in has no streaming table.
  int chatTurnStream(const std::string& userText, const ChunkHandler& onChunk,
                     const volatile int* cancel);

  int configure(const ORBSessionOptions& options);
  int bench(const ORBBenchParams& params, ORBBenchResult& result);
  int stats(ORBRuntimeStats& stats);
  int reset();

  static constexpr size_t kTextCapacity = size_t{1} << 20;

 private:
  friend class PluginHost;
  Runtime(const ORBRuntimeV2& table, const ORBRuntimeV2S* streaming, ORBRuntimeHandle* handle)
      : table_(table), streaming_(streaming), handle_(handle) {}

  const ORBRuntimeV2& table_;
  const ORBRuntimeV2S* streaming_;
  ORBRuntimeHandle* handle_;
};

// The loaded library; unloaded by the destructor. Not copied, not moved: runtimes refer to it.
class PluginHost {
 public:
  PluginHost() = default;
  ~PluginHost();
  PluginHost(const PluginHost&) = delete;
  PluginHost& operator=(const PluginHost&) = delete;

  // Loads the library and checks its tables; once per object. On failure `error` says what was
  // expected, what was found and what to do.
  bool load(const std::string& path, std::string& error);

  // Valid after load(). The first runtime that the library offers is the one that is used; its
  // streaming table is null when there is none of the same id.
  const ORBPluginDescriptor& descriptor() const { return *descriptor_; }
  const ORBRuntimeV2& runtimeTable() const { return *runtime_; }
  const ORBRuntimeV2S* streamingTable() const { return streaming_; }

  // Whether the runtime serves the file; the verdict is `score`.
  ORBRuntimeProbe probe(const std::string& modelPath) const;

  // Opens a model; null on failure, with the plug-in's message in `error`.
  std::unique_ptr<Runtime> open(const std::string& modelPath, std::string& error) const;

 private:
  bool findTables(std::string& error);

  void* library_ = nullptr;
  const ORBPluginDescriptor* descriptor_ = nullptr;
  const ORBRuntimeV2* runtime_ = nullptr;
  const ORBRuntimeV2S* streaming_ = nullptr;
};

}  // namespace orb
