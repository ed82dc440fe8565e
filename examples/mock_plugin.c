/* The smallest plug-in that keeps every rule of the C interface: no model, it says back what it is
 * told. For hosts that want something quick and predictable to test against, and as the skeleton of
 * a new runtime. `orb validate libmock_plugin.so FILE.echo` passes; any file of that ending serves.
 *
 * A token is a byte. With a temperature above 0 letters come in upper or lower case by chance. */
#define ORB_PLUGIN_BUILD
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#if defined(_WIN32)
#include <windows.h>
#endif

#include "orb_plugin.h"

enum { kContext = 8192, kMaxTokens = 96, kTurnMarkers = 2, kDefaultSeed = 42 };

struct ORBRuntimeHandle {
  float temperature;
  int32_t topK;
  float topP;
  uint32_t random;
  uint64_t contextTokens;
  double totalForwardMs, lastForwardMs;
  int chatActive;
};

static double milliseconds(void) {
#if defined(_WIN32)
  LARGE_INTEGER now, perSecond;
  QueryPerformanceCounter(&now);
  QueryPerformanceFrequency(&perSecond);
  return (double)now.QuadPart * 1e3 / (double)perSecond.QuadPart;
#else
  struct timespec now;
  timespec_get(&now, TIME_UTC);
  return (double)now.tv_sec * 1e3 + (double)now.tv_nsec * 1e-6;
#endif
}

/* Takes one token into the context. */
static void forward(ORBRuntimeHandle* handle, double start) {
  const double taken = milliseconds() - start;
  handle->contextTokens += 1;
  handle->lastForwardMs = taken > 0 ? taken : 0; /* the clock may be set back */
  handle->totalForwardMs += handle->lastForwardMs;
}

static void clear(ORBRuntimeHandle* handle) {
  handle->contextTokens = 0;
  handle->totalForwardMs = 0;
  handle->chatActive = 0;
}

static void apply(ORBRuntimeHandle* handle, const ORBSessionOptions* options) {
  if (options->temperature >= 0) handle->temperature = options->temperature;
  if (options->topK > 0) handle->topK = options->topK;
  if (options->topP > 0) handle->topP = options->topP;
  if (options->seed != 0) handle->random = (uint32_t)options->seed;
}

static char sample(ORBRuntimeHandle* handle, char byte) {
  if (handle->temperature <= 0 || handle->topK == 1) return byte;
  handle->random = handle->random * 1664525u + 1013904223u;
  return (char)(handle->random >> 31 ? toupper((unsigned char)byte) : tolower((unsigned char)byte));
}

/* Takes `text` in and its answer, token by token; `out` (may be null) gets what fits. */
static int answer(ORBRuntimeHandle* handle, const char* text, size_t markers, char* out,
                  size_t outLen, ORBChunkFn onChunk, void* user, int volatile* cancel) {
  const size_t taken = strlen(text) + markers;
  size_t i, length = 0;
  for (i = 0; i < taken; ++i) {
    if (handle->contextTokens >= kContext) return ORB_FAILED;
    forward(handle, milliseconds());
  }
  handle->chatActive = markers > 0;
  if (cancel != NULL && *cancel != 0) return ORB_OK;
  for (i = 0; i < kMaxTokens && text[i] != '\0'; ++i) {
    const double start = milliseconds();
    const char byte = sample(handle, text[i]);
    if (onChunk != NULL) onChunk(&byte, 1, user);
    if (out != NULL && length + 1 < outLen) {
      out[length++] = byte;
      out[length] = '\0';
    }
    if (cancel != NULL && *cancel != 0) break;
    if (handle->contextTokens >= kContext) break;
    forward(handle, start);
  }
  return ORB_OK;
}

/* Whether the path ends in ".echo" and there is such a file. */
static int serves(const char* path) {
  static const char kEnding[] = ".echo";
  const size_t ending = sizeof kEnding - 1, length = path != NULL ? strlen(path) : 0;
  FILE* file;
  if (length < ending || strcmp(path + length - ending, kEnding) != 0) return 0;
  file = fopen(path, "rb");
  if (file != NULL) fclose(file);
  return file != NULL;
}

static int mockProbe(const char* path, ORBRuntimeProbe* out) {
  const int served = serves(path);
  if (out == NULL) return ORB_OK;
  out->score = served ? ORB_PROBE_SCORE_SERVED : 0;
  out->arch = served ? "echo" : "";
  out->device = "cpu";
  out->detail = served ? "says back what it is told" : "";
  return ORB_OK;
}

static int mockCreate(const char* path, const char* config, ORBRuntimeHandle** out, char* err,
                      size_t errLen) {
  ORBRuntimeHandle* handle;
  (void)config;
  if (out == NULL) return ORB_INVALID;
  *out = NULL;
  handle = serves(path) ? calloc(1, sizeof *handle) : NULL;
  if (handle == NULL) {
    if (err != NULL && errLen > 0) snprintf(err, errLen, "expected a file that ends in .echo");
    return ORB_FAILED;
  }
  handle->random = kDefaultSeed;
  *out = handle;
  return ORB_OK;
}

static void mockDestroy(ORBRuntimeHandle* handle) { free(handle); }

static int mockGenerate(ORBRuntimeHandle* handle, const char* prompt, char* out, size_t outLen) {
  if (handle == NULL || out == NULL || outLen == 0) return ORB_INVALID;
  out[0] = '\0';
  clear(handle);
  return answer(handle, prompt != NULL ? prompt : "", 0, out, outLen, NULL, NULL, NULL);
}

static int mockGenerateEx(ORBRuntimeHandle* handle, const char* prompt,
                          const ORBSessionOptions* options, char* out, size_t outLen) {
  ORBRuntimeHandle before;
  int result;
  if (handle == NULL || out == NULL || outLen == 0) return ORB_INVALID;
  before = *handle;
  if (options != NULL && options->structSize >= sizeof *options) apply(handle, options);
  result = mockGenerate(handle, prompt, out, outLen);
  handle->temperature = before.temperature;
  handle->topK = before.topK;
  handle->topP = before.topP;
  return result;
}

static int mockBench(ORBRuntimeHandle* handle, const ORBBenchParams* params, ORBBenchResult* out) {
  int32_t tokens = 64, extra = 8, i;
  double start, taken;
  if (handle == NULL || out == NULL) return ORB_INVALID;
  if (params != NULL && params->genTokens > 0) tokens = params->genTokens;
  if (params != NULL && params->extraTokens > 0) extra = params->extraTokens;
  clear(handle);
  start = milliseconds();
  for (i = 0; i < kContext && i - extra < tokens; ++i) forward(handle, milliseconds());
  taken = milliseconds() - start;
  out->structSize = sizeof *out;
  out->msPerToken = (taken > 1e-4 ? taken : 1e-4) / tokens;
  out->tokensPerSecond = 1000.0 / out->msPerToken;
  out->tokens = tokens;
  clear(handle);
  return ORB_OK;
}

static int mockConfigure(ORBRuntimeHandle* handle, const ORBSessionOptions* options) {
  if (handle == NULL || options == NULL) return ORB_INVALID;
  if (options->structSize < sizeof *options) return ORB_INVALID;
  apply(handle, options);
  return ORB_OK;
}

static int mockChatTurn(ORBRuntimeHandle* handle, const char* userText, char* out, size_t outLen) {
  if (handle == NULL || out == NULL || outLen == 0) return ORB_INVALID;
  out[0] = '\0';
  if (!handle->chatActive) clear(handle);
  return answer(handle, userText != NULL ? userText : "", kTurnMarkers, out, outLen, NULL, NULL,
                NULL);
}

static int mockReset(ORBRuntimeHandle* handle) {
  if (handle == NULL) return ORB_INVALID;
  clear(handle);
  handle->lastForwardMs = 0;
  return ORB_OK;
}

static int mockStats(ORBRuntimeHandle* handle, ORBRuntimeStats* out) {
  if (handle == NULL || out == NULL) return ORB_INVALID;
  out->structSize = sizeof *out;
  out->contextTokens = handle->contextTokens;
  out->totalForwardMs = handle->totalForwardMs;
  out->lastForwardMs = handle->lastForwardMs;
  return ORB_OK;
}

static int mockChatTurnStream(ORBRuntimeHandle* handle, const char* userText, ORBChunkFn onChunk,
                              void* user, int volatile* cancel) {
  if (handle == NULL) return ORB_INVALID;
  if (!handle->chatActive) clear(handle);
  return answer(handle, userText != NULL ? userText : "", kTurnMarkers, NULL, 0, onChunk, user,
                cancel);
}

#define MOCK_ID "mock-echo"
#define MOCK_DESCRIPTION "Says back what it is told"

static const ORBPluginDescriptor kDescriptor = {1, 1, "runtime-mock", MOCK_DESCRIPTION, NULL, NULL};

static const ORBRuntime kRuntime = {1,         0,          MOCK_ID,     MOCK_DESCRIPTION, 0,
                                    mockProbe, mockCreate, mockDestroy, mockGenerate};

static const ORBRuntimeV2 kRuntimeV2 = {
    3,         sizeof(ORBRuntimeV2), MOCK_ID,      MOCK_DESCRIPTION, 0,
    mockProbe, mockCreate,           mockDestroy,  mockGenerate,     mockGenerateEx,
    mockBench, mockConfigure,        mockChatTurn, mockReset,        mockStats};

static const ORBRuntimeV2S kRuntimeV2S = {1, sizeof(ORBRuntimeV2S), MOCK_ID, mockChatTurnStream};

const ORBPluginDescriptor* orb_plugin_init(void) { return &kDescriptor; }

const ORBRuntime* orb_plugin_runtimes(uint32_t* count) {
  if (count != NULL) *count = 1;
  return &kRuntime;
}

const ORBRuntimeV2* orb_plugin_runtimes_v2(uint32_t* count) {
  if (count != NULL) *count = 1;
  return &kRuntimeV2;
}

const ORBRuntimeV2S* orb_plugin_runtimes_v2s(uint32_t* count) {
  if (count != NULL) *count = 1;
  return &kRuntimeV2S;
}
