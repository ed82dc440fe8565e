// The exported entry points, their constant tables, and the functions behind the slots. Everything
// here runs on the host's thread.
#include <omp.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "orb_plugin.h"
#include "plugin/bench.h"
#include "plugin/chat.h"
#include "plugin/generation.h"
#include "plugin/session.h"

namespace {

using qwen35::Qwen35Session;

constexpr const char kRuntimeId[] = "qwen35-cpu";
constexpr const char kProbeDetail[] = "qwen35 hybrid (GDN+attn) architecture metadata";
constexpr uint32_t kOptionsSize = 56;
constexpr size_t kMostTextBytes = size_t{1} << 30;
constexpr size_t kTextMargin = 64;

// Ends the worker threads of the OpenMP runtime when a call that used them returns: between calls
// the plug-in takes no processor time, and nothing of it is running when the host unloads it.
struct WorkerRelease {
  ~WorkerRelease() { omp_pause_resource_all(omp_pause_soft); }
};

// A bounded "%s" print: up to the first NUL byte, cut to size - 1 bytes, always terminated.
void copyText(std::string_view text, char* out, size_t size) {
  const size_t length = std::min(text.substr(0, text.find('\0')).size(), size - 1);
  std::memcpy(out, text.data(), length);
  out[length] = '\0';
}

// Collects the pieces of an answer for the buffer forms.
struct TextSink {
  std::string text;

  bool operator()(std::string_view piece) {
    text += piece;
    return text.size() + kTextMargin <= kMostTextBytes;
  }
};

bool isReady(const ORBRuntimeHandle* handle) {
  return handle != nullptr && handle->session.modelLoaded;
}

bool isReadyFor(const ORBRuntimeHandle* handle, const char* out, size_t outLen) {
  return isReady(handle) && out != nullptr && outLen != 0;
}

int qwen35Probe(const char* modelPath, ORBRuntimeProbe* out) {
  ORBRuntimeProbe verdict = {.score = 0, .arch = "", .device = "cpu", .detail = ""};
  if (out != nullptr) *out = verdict;
  if (modelPath == nullptr) return ORB_OK;
  if (!std::string_view(modelPath).ends_with(".orb")) return ORB_OK;

  kiv::ORBLoader loader;
  if (!loader.open(modelPath, qwen35::limitsFromEnvironment().largeFiles).ok()) return ORB_OK;
  std::string architecture;
  loader.reader.getMetaStr("general.architecture", architecture);
  for (const char* served : {"qwen35", "qwen35moe"}) {
    if (architecture != served) continue;
    verdict = {ORB_PROBE_SCORE_SERVED, served, "cpu", kProbeDetail};
  }
  if (out != nullptr) *out = verdict;
  return ORB_OK;
}

int qwen35Create(const char* modelPath, const char* /*config*/, ORBRuntimeHandle** out, char* err,
                 size_t errLen) {
  if (out == nullptr) return ORB_INVALID;
  *out = nullptr;
  auto handle = std::make_unique<ORBRuntimeHandle>();
  Qwen35Session& session = handle->session;
  session.limits = qwen35::limitsFromEnvironment();
  if (modelPath != nullptr) session.modelPath = modelPath;
  if (const char* message = qwen35::openSession(session, session.modelPath.c_str())) {
    if (err != nullptr && errLen != 0) copyText(message, err, errLen);
    return ORB_FAILED;
  }
  *out = handle.release();
  return ORB_OK;
}

void qwen35Destroy(ORBRuntimeHandle* handle) { delete handle; }

int qwen35GenerateN(ORBRuntimeHandle* handle, const char* prompt, char* out, size_t outLen,
                    size_t maxNewTokens) {
  if (!isReadyFor(handle, out, outLen)) return ORB_INVALID;
  out[0] = '\0';
  const WorkerRelease release;
  Qwen35Session& session = handle->session;
  std::vector<int32_t> tokens;
  if (!session.tokenizer->encode(prompt != nullptr ? prompt : "", tokens, true).ok()) {
    return ORB_FAILED;
  }
  qwen35::clearConversation(session);
  if (!qwen35::prefill(session, tokens)) return ORB_FAILED;
  TextSink sink;
  const int32_t stopId = session.tokenizer->eosId();
  if (!qwen35::generate(session, maxNewTokens, stopId, std::ref(sink))) return ORB_FAILED;
  copyText(sink.text, out, outLen);
  return ORB_OK;
}

int qwen35Generate(ORBRuntimeHandle* handle, const char* prompt, char* out, size_t outLen) {
  const size_t maxNewTokens = handle != nullptr ? handle->session.limits.maxNewTokens : 0;
  return qwen35GenerateN(handle, prompt, out, outLen, maxNewTokens);
}

bool isValid(const ORBSessionOptions* options) {
  return options != nullptr && options->structSize >= kOptionsSize;
}

void apply(const ORBSessionOptions& options, Qwen35Session& session) {
  if (options.temperature >= 0.0f) session.sampling.temperature = options.temperature;
  if (options.topK > 0) session.sampling.topK = options.topK;
  if (options.topP > 0.0f) session.sampling.topP = options.topP;
  if (options.seed != 0) session.rng.seed(static_cast<uint32_t>(options.seed));
}

int qwen35V2GenerateEx(ORBRuntimeHandle* handle, const char* prompt,
                       const ORBSessionOptions* options, char* out, size_t outLen) {
  if (!isReadyFor(handle, out, outLen)) return ORB_INVALID;
  // The settings come back however the call ends; the seed stays.
  struct Restore {
    qwen35::SamplingSettings& settings;
    const qwen35::SamplingSettings saved = settings;
    ~Restore() { settings = saved; }
  } const restore{handle->session.sampling};
  if (isValid(options)) apply(*options, handle->session);
  return qwen35Generate(handle, prompt, out, outLen);
}

int qwen35V2Configure(ORBRuntimeHandle* handle, const ORBSessionOptions* options) {
  if (handle == nullptr || !isValid(options)) return ORB_INVALID;
  apply(*options, handle->session);
  return ORB_OK;
}

int qwen35V2Bench(ORBRuntimeHandle* handle, const ORBBenchParams* params, ORBBenchResult* out) {
  if (!isReady(handle) || out == nullptr) return ORB_INVALID;
  const WorkerRelease release;
  return qwen35::runBench(handle->session, params, *out);
}

int qwen35V2ChatTurn(ORBRuntimeHandle* handle, const char* userText, char* out, size_t outLen) {
  if (!isReadyFor(handle, out, outLen)) return ORB_INVALID;
  out[0] = '\0';
  const WorkerRelease release;
  Qwen35Session& session = handle->session;
  if (const int result = qwen35::beginChatTurn(session, userText); result != ORB_OK) return result;
  TextSink sink;
  if (!qwen35::answerChatTurn(session, std::ref(sink))) return ORB_FAILED;
  copyText(sink.text, out, outLen);
  return ORB_OK;
}

int qwen35StreamChatTurnImpl(Qwen35Session& session, const char* userText, ORBChunkFn onChunk,
                             void* user, int volatile* cancel) {
  if (!session.modelLoaded) return ORB_INVALID;
  const WorkerRelease release;
  if (const int result = qwen35::beginChatTurn(session, userText); result != ORB_OK) return result;
  const auto cancelled = [cancel] { return cancel != nullptr && *cancel != 0; };
  if (cancelled()) return ORB_OK;
  const bool finite = qwen35::answerChatTurn(session, [&](std::string_view piece) {
    if (onChunk != nullptr) onChunk(piece.data(), static_cast<unsigned>(piece.size()), user);
    return !cancelled();
  });
  return finite ? ORB_OK : ORB_FAILED;
}

int qwen35V2ChatTurnStream(ORBRuntimeHandle* handle, const char* userText, ORBChunkFn onChunk,
                           void* user, int volatile* cancel) {
  if (handle == nullptr) return ORB_INVALID;
  return qwen35StreamChatTurnImpl(handle->session, userText, onChunk, user, cancel);
}

int qwen35V2Reset(ORBRuntimeHandle* handle) {
  if (handle == nullptr) return ORB_INVALID;
  qwen35::clearConversation(handle->session);
  handle->session.lastForwardMs = 0.0;
  return ORB_OK;
}

int qwen35V2Stats(ORBRuntimeHandle* handle, ORBRuntimeStats* out) {
  if (handle == nullptr || out == nullptr) return ORB_INVALID;
  const Qwen35Session& session = handle->session;
  *out = {.structSize = sizeof(ORBRuntimeStats),
          .contextTokens = session.position,
          .totalForwardMs = session.totalForwardMs,
          .lastForwardMs = session.lastForwardMs};
  return ORB_OK;
}

const ORBPluginDescriptor kDescriptor = {
    .version = 1,
    .secondVersion = 1,
    .id = "runtime-qwen35",
    .description = "Real Qwen3.5 hybrid (GDN+full attn) CPU runtime",
    .reserved0 = nullptr,
    .reserved1 = nullptr,
};

const ORBRuntime kRuntime = {
    .version = 1,
    .size = 0,
    .id = kRuntimeId,
    .description = "Qwen3.5 hybrid CPU runtime (real)",
    .flags = 225,
    .probe = qwen35Probe,
    .create = qwen35Create,
    .destroy = qwen35Destroy,
    .generate = qwen35Generate,
};

const ORBRuntimeV2 kRuntimeV2 = {
    .version = 3,
    .size = sizeof(ORBRuntimeV2),
    .id = kRuntimeId,
    .description = "Qwen3.5 hybrid CPU runtime (real, v2 chat)",
    .flags = 15,
    .probe = qwen35Probe,
    .create = qwen35Create,
    .destroy = qwen35Destroy,
    .generate = qwen35Generate,
    .generateEx = qwen35V2GenerateEx,
    .bench = qwen35V2Bench,
    .configure = qwen35V2Configure,
    .chatTurn = qwen35V2ChatTurn,
    .reset = qwen35V2Reset,
    .stats = qwen35V2Stats,
};

const ORBRuntimeV2S kRuntimeV2S = {
    .version = 1,
    .size = sizeof(ORBRuntimeV2S),
    .id = kRuntimeId,
    .chatTurnStream = qwen35V2ChatTurnStream,
};

void setCount(uint32_t* count) {
  if (count != nullptr) *count = 1;
}

}  // namespace

const ORBPluginDescriptor* orb_plugin_init(void) { return &kDescriptor; }

const ORBRuntime* orb_plugin_runtimes(uint32_t* count) {
  setCount(count);
  return &kRuntime;
}

const ORBRuntimeV2* orb_plugin_runtimes_v2(uint32_t* count) {
  setCount(count);
  return &kRuntimeV2;
}

const ORBRuntimeV2S* orb_plugin_runtimes_v2s(uint32_t* count) {
  setCount(count);
  return &kRuntimeV2S;
}
