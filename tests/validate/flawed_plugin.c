/* A plug-in that breaks the one rule that the environment variable ORB_FLAW names, and none without
 * it: the mock of the examples with a slot replaced. Shows that the validator's tests can fail. */
#define orb_plugin_init mockInit
#define orb_plugin_runtimes mockRuntimes
#define orb_plugin_runtimes_v2 mockRuntimesV2
#define orb_plugin_runtimes_v2s mockRuntimesV2S
#include "../../examples/mock_plugin.c"
#undef orb_plugin_init
#undef orb_plugin_runtimes
#undef orb_plugin_runtimes_v2
#undef orb_plugin_runtimes_v2s

#include <locale.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

static ORBRuntimeV2 table;
static ORBRuntimeV2S streaming;

#if defined(_WIN32)
#define ANOTHER_LOCALE ".1252"
static void crash(void) { RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, 0, NULL); }
static void hang(void) { Sleep(INFINITE); }
/* clock() is the time on the wall there. */
static double processorMilliseconds(void) {
  FILETIME created, ended, kernel, user;
  GetProcessTimes(GetCurrentProcess(), &created, &ended, &kernel, &user);
  return ((double)kernel.dwLowDateTime + (double)user.dwLowDateTime) * 1e-4;
}
#else
#define ANOTHER_LOCALE "C.UTF-8"
static void crash(void) { raise(SIGSEGV); }
static void hang(void) { pause(); }
static double processorMilliseconds(void) { return (double)clock() * 1e3 / CLOCKS_PER_SEC; }
#endif

static int has(const char* flaw) {
  const char* chosen = getenv("ORB_FLAW");
  return chosen != NULL && strcmp(chosen, flaw) == 0;
}

static void work(double forMilliseconds) {
  const double start = processorMilliseconds();
  while (processorMilliseconds() - start < forMilliseconds) {
  }
}

__attribute__((constructor)) static void loaded(void) {
  if (has("works_when_loaded")) work(60);
}

static void* workOn(void* unused) {
  (void)unused;
  for (;;) work(1000);
  return NULL;
}

static int probe(const char* path, ORBRuntimeProbe* out) {
  const int result = mockProbe(path, out);
  if (has("probe_fails") && !serves(path)) return ORB_FAILED;
  if (has("probe_serves_all") && out != NULL) out->score = ORB_PROBE_SCORE_SERVED;
  return result;
}

static int create(const char* path, const char* config, ORBRuntimeHandle** out, char* err,
                  size_t errLen) {
  ORBRuntimeHandle* const before = out != NULL ? *out : NULL;
  const int result = mockCreate(path, config, out, err, errLen);
  if (result == ORB_FAILED) {
    if (has("message_too_long") && errLen > 0) memset(err, 'x', errLen + 1);
    if (has("handle_after_failure")) *out = before;
  } else if (result == ORB_OK) {
    if (has("leaks_a_file")) (void)!dup(0);
    if (has("leaks_memory")) memset(malloc(1 << 20), 1, 1 << 20);
    if (has("works_between_calls")) {
      pthread_t thread;
      pthread_create(&thread, NULL, workOn, NULL);
      pthread_detach(thread);
    }
  }
  return result;
}

static int generate(ORBRuntimeHandle* handle, const char* prompt, char* out, size_t outLen) {
  const uint64_t before = handle != NULL ? handle->contextTokens : 0;
  int result;
  if (has("seed_does_not_count") && handle != NULL)
    handle->random += (uint32_t)(uintptr_t)handle >> 4;
  result = mockGenerate(handle, prompt, out, outLen);
  if (result != ORB_OK) return result;
  if (has("unterminated")) memset(out, 'x', outLen);
  if (has("keeps_the_context")) handle->contextTokens += before;
  if (has("writes_a_file")) {
    FILE* file = tmpfile();
    fputs("text", file);
    fclose(file);
  }
  return result;
}

static int generateEx(ORBRuntimeHandle* handle, const char* prompt,
                      const ORBSessionOptions* options, char* out, size_t outLen) {
  const int result = mockGenerateEx(handle, prompt, options, out, outLen);
  if (result == ORB_OK && has("options_stay") && options != NULL) apply(handle, options);
  return result;
}

static int configure(ORBRuntimeHandle* handle, const ORBSessionOptions* options) {
  if (has("reads_past_short_records") && handle != NULL && options != NULL) {
    handle->random ^= (uint32_t)options->seed & 0;
  }
  if (has("takes_short_records") && handle != NULL && options != NULL) return ORB_OK;
  return mockConfigure(handle, options);
}

static int bench(ORBRuntimeHandle* handle, const ORBBenchParams* params, ORBBenchResult* out) {
  const int result = mockBench(handle, params, out);
  if (result != ORB_OK) return result;
  if (has("bench_claims_too_much")) out->msPerToken = 1000, out->tokensPerSecond = 1;
  if (has("bench_contradicts_itself")) out->tokensPerSecond *= 2;
  if (has("bench_leaves_tokens")) handle->contextTokens = 3;
  return result;
}

static int chatTurn(ORBRuntimeHandle* handle, const char* userText, char* out, size_t outLen) {
  static uint32_t shared = 1;
  if (handle != NULL) {
    if (has("crashes")) crash();
    if (has("exits")) exit(0);
    if (has("hangs")) hang();
    if (has("prints")) puts("working");
    if (has("sets_the_locale")) setlocale(LC_ALL, ANOTHER_LOCALE);
    if (has("changes_the_folder")) (void)!chdir("/");
    if (has("ignores_a_signal")) signal(SIGTERM, SIG_IGN);
    if (has("sets_a_variable")) setenv("ORB_FLAW_LEFT", "1", 1);
    if (has("changes_its_table")) table.flags += 1;
  }
  if (has("handles_share_a_generator") && handle != NULL) {
    const uint32_t own = handle->random;
    int result;
    handle->random = shared;
    result = mockChatTurn(handle, userText, out, outLen);
    shared = handle->random;
    handle->random = own;
    return result;
  }
  return mockChatTurn(handle, userText, out, outLen);
}

static int reset(ORBRuntimeHandle* handle) {
  if (has("null_is_fine") && handle == NULL) return ORB_OK;
  if (has("reset_forgets_nothing")) return ORB_OK;
  if (has("reset_forgets_settings") && handle != NULL) handle->temperature = 0;
  return mockReset(handle);
}

static int stats(ORBRuntimeHandle* handle, ORBRuntimeStats* out) {
  const int result = mockStats(handle, out);
  if (result == ORB_OK && has("counts_no_tokens")) out->contextTokens = 0;
  if (result == ORB_OK && has("stats_without_size")) out->structSize = 0;
  return result;
}

typedef struct Call {
  ORBRuntimeHandle* handle;
  const char* text;
  ORBChunkFn onChunk;
  void* user;
  int volatile* cancel;
  int result;
} Call;

static void* callElsewhere(void* user) {
  Call* call = user;
  call->result =
      mockChatTurnStream(call->handle, call->text, call->onChunk, call->user, call->cancel);
  return NULL;
}

static int chatTurnStream(ORBRuntimeHandle* handle, const char* text, ORBChunkFn onChunk,
                          void* user, int volatile* cancel) {
  int result;
  if (has("streams_on_another_thread")) {
    Call call = {handle, text, onChunk, user, cancel, ORB_FAILED};
    pthread_t thread;
    pthread_create(&thread, NULL, callElsewhere, &call);
    pthread_join(thread, NULL);
    return call.result;
  }
  if (has("never_cancelled")) cancel = NULL;
  result = mockChatTurnStream(handle, text, onChunk, user, cancel);
  if (has("one_chunk_too_many") && onChunk != NULL) onChunk("x", 1, user);
  if (has("never_full") && result == ORB_FAILED) return ORB_OK;
  if (has("cancelled_is_failed") && cancel != NULL && *cancel != 0) return ORB_FAILED;
  return result;
}

ORB_PLUGIN_EXPORT const ORBPluginDescriptor* orb_plugin_init(void) {
  static const ORBPluginDescriptor kOther = {1, 2, "runtime-mock", MOCK_DESCRIPTION, NULL, NULL};
  return has("second_version") ? &kOther : mockInit();
}

ORB_PLUGIN_EXPORT const ORBRuntime* orb_plugin_runtimes(uint32_t* count) {
  return mockRuntimes(count);
}

ORB_PLUGIN_EXPORT const ORBRuntimeV2* orb_plugin_runtimes_v2(uint32_t* count) {
  const ORBRuntimeV2 flawed = {3,           has("wrong_size") ? 111 : sizeof flawed,
                               MOCK_ID,     has("no_description") ? "" : MOCK_DESCRIPTION,
                               table.flags, probe,
                               create,      mockDestroy,
                               generate,    generateEx,
                               bench,       configure,
                               chatTurn,    reset,
                               stats};
  table = flawed;
  if (count != NULL) *count = has("no_runtime") ? 0 : 1;
  return &table;
}

ORB_PLUGIN_EXPORT const ORBRuntimeV2S* orb_plugin_runtimes_v2s(uint32_t* count) {
  const ORBRuntimeV2S flawed = {1, sizeof flawed, has("other_id") ? "other" : MOCK_ID,
                                chatTurnStream};
  streaming = flawed;
  if (count != NULL) *count = 1;
  return &streaming;
}
