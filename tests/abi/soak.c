/* A long life of the plug-in: two handles in two threads at once, thousands of turns over random
 * texts, with resets, cancellations, other settings and measurements in between.
 *
 *   abi_soak PLUGIN MODEL TURNS [SEED]
 *
 * Turns are played by scripts, each wholly given by its seed, on two handles that live as long as
 * the program. Two scripts run at the same time, a thread and a handle each; then they change
 * places and are played once more. Each script must leave the same bytes both times, and the memory
 * of the process must not grow. */
#include <inttypes.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "check.h"
#include "host.h"

int failedChecks = 0;
const char* pluginPath;
const char* modelDirectory = ".";

enum { kTurnsOfScript = 50, kAllowedGrowthKiB = 8192 };

typedef struct Counts {
  long turns, cancelled, resets, configured, benches, contextsFull;
} Counts;

typedef struct Script {
  const Host* host;
  ORBRuntimeHandle* handle;
  uint64_t seed;
  int turns;
  uint64_t random;
  uint64_t digest; /* of all results, texts and context lengths */
  int failures;
  Counts counts;
} Script;

static uint64_t nextRandom(Script* script) { /* xorshift64* */
  uint64_t x = script->random;
  x ^= x >> 12;
  x ^= x << 25;
  x ^= x >> 27;
  script->random = x;
  return (x * UINT64_C(0x2545F4914F6CDD1D)) >> 16;
}

static int below(Script* script, int limit) { return (int)(nextRandom(script) % (uint64_t)limit); }

static int oneIn(Script* script, int n) { return below(script, n) == 0; }

static void digest(Script* script, const void* bytes, size_t length) { /* FNV-1a */
  size_t i;
  for (i = 0; i < length; ++i) {
    script->digest = (script->digest ^ ((const unsigned char*)bytes)[i]) * UINT64_C(0x100000001B3);
  }
}

static void digestNumber(Script* script, uint64_t number) {
  digest(script, &number, sizeof number);
}

/* Words, the markers of the chat template, and now and then arbitrary bytes. */
static void randomText(Script* script, char* text, size_t size) {
  static const char* const kWords[] = {
      "What",         "is",    "orb",   "how",        "do",           "I",        "quit",
      "reset",        "the",   "model", "\n",         "42",           "\xC3\xA4", "<|im_end|>",
      "<|im_start|>", "state", "?",     "plug-in it", "\xF0\x9F\x99", "a"};
  const int words = below(script, 12);
  size_t length = 0;
  int i;
  for (i = 0; i < words; ++i) {
    if (oneIn(script, 20)) {
      for (; length + 2 < size && !oneIn(script, 10); ++length) {
        text[length] = (char)(1 + below(script, 255));
      }
    } else {
      const char* word = kWords[below(script, (int)(sizeof kWords / sizeof kWords[0]))];
      if (length + strlen(word) + 2 > size) break;
      length += (size_t)snprintf(text + length, size - length, "%s ", word);
    }
  }
  text[length] = '\0';
}

static ORBSessionOptions randomSettings(Script* script) {
  static const float kTemperatures[] = {-1, 0, 0.3f, 0.8f, 1.5f};
  ORBSessionOptions settings;
  memset(&settings, 0xFF, sizeof settings);
  settings.structSize = sizeof settings;
  settings.temperature = kTemperatures[below(script, 5)];
  settings.topK = below(script, 60) - 5;
  settings.topP = (float)below(script, 5) / 4.0f;
  settings.seed = oneIn(script, 2) ? 0 : nextRandom(script);
  return settings;
}

/* Between two turns. */
static void interlude(Script* script, ORBRuntimeHandle* handle) {
  const ORBRuntimeV2* runtime = script->host->runtime;
  if (oneIn(script, 8)) {
    const ORBSessionOptions settings = randomSettings(script);
    script->failures += runtime->configure(handle, &settings) != ORB_OK;
    script->counts.configured += 1;
  }
  if (oneIn(script, 10)) {
    script->failures += runtime->reset(handle) != ORB_OK;
    script->counts.resets += 1;
  }
  if (oneIn(script, 40)) {
    ORBBenchParams params = {sizeof params, 1, 1};
    ORBBenchResult result;
    params.genTokens += below(script, 8);
    script->failures += runtime->bench(handle, &params, &result) != ORB_OK;
    script->failures += result.tokens != params.genTokens;
    script->counts.benches += 1;
  }
}

static int streamedTurn(Script* script, ORBRuntimeHandle* handle, const char* text) {
  Stream stream;
  int result;
  memset(&stream, 0, sizeof stream);
  if (oneIn(script, 2)) {
    stream.cancelAfter = below(script, 6);
    stream.cancel = stream.cancelAfter == 0;
    script->counts.cancelled += 1;
  }
  result = streamTurn(script->host, handle, text, &stream);
  digest(script, stream.text, stream.length);
  digestNumber(script, (uint64_t)stream.chunks);
  if (stream.cancelAfter > 0) script->failures += stream.chunks > stream.cancelAfter;
  return result;
}

static void playTurn(Script* script, ORBRuntimeHandle* handle) {
  const ORBRuntimeV2* runtime = script->host->runtime;
  const int kind = below(script, 10);
  const size_t capacity = 1 + (size_t)below(script, 400);
  char text[256], out[512] = "";
  ORBRuntimeStats stats;
  int result;
  interlude(script, handle);
  randomText(script, text, sizeof text);
  if (kind < 4) {
    result = runtime->chatTurn(handle, text, out, capacity);
  } else if (kind < 8) {
    result = streamedTurn(script, handle, text);
  } else if (kind < 9) {
    result = runtime->generate(handle, text, out, capacity);
  } else {
    const ORBSessionOptions settings = randomSettings(script);
    result = runtime->generateEx(handle, text, &settings, out, capacity);
  }
  script->failures += strlen(out) >= capacity;
  digest(script, out, strlen(out));
  digestNumber(script, (uint64_t)result);
  script->failures += runtime->stats(handle, &stats) != ORB_OK;
  digestNumber(script, stats.contextTokens);
  script->counts.turns += 1;
  if (result == ORB_FAILED) { /* the context is full */
    script->failures += stats.contextTokens == 0 || runtime->reset(handle) != ORB_OK;
    script->counts.contextsFull += 1;
  } else {
    script->failures += result != ORB_OK;
  }
}

/* Undoes what earlier scripts left in the handle. */
static int startAfresh(Script* script) {
  ORBSessionOptions settings;
  memset(&settings, 0, sizeof settings);
  settings.structSize = sizeof settings;
  settings.topK = INT32_MAX;
  settings.topP = 1;
  settings.seed = script->seed;
  return script->host->runtime->reset(script->handle) == ORB_OK &&
         script->host->runtime->configure(script->handle, &settings) == ORB_OK;
}

/* A handle whose context was full once: from then on it takes no more memory. */
static ORBRuntimeHandle* openWarm(const Host* host, const char* model) {
  static const char kText[] = "one word, another word, and one more word";
  ORBRuntimeHandle* handle = NULL;
  int volatile cancel = 1;
  int result;
  CHECK_INT(host->runtime->create(model, NULL, &handle, NULL, 0), ORB_OK);
  do {
    result = host->streaming->chatTurnStream(handle, kText, NULL, NULL, &cancel);
  } while (result == ORB_OK);
  CHECK_INT(result, handle != NULL ? ORB_FAILED : ORB_INVALID);
  return handle;
}

static void* play(void* user) {
  Script* script = user;
  int turn;
  script->failures += !startAfresh(script);
  for (turn = 0; turn < script->turns && script->failures == 0; ++turn) {
    playTurn(script, script->handle);
  }
  return NULL;
}

static void playBoth(Script* first, Script* second) {
  pthread_t threads[2];
  CHECK_INT(pthread_create(&threads[0], NULL, play, first), 0);
  CHECK_INT(pthread_create(&threads[1], NULL, play, second), 0);
  pthread_join(threads[0], NULL);
  pthread_join(threads[1], NULL);
}

static Script makeScript(const Host* host, ORBRuntimeHandle* handle, uint64_t seed, int turns) {
  Script script;
  memset(&script, 0, sizeof script);
  script.host = host;
  script.handle = handle;
  script.seed = seed;
  script.random = (seed + 1) * UINT64_C(0x9E3779B97F4A7C15);
  script.digest = UINT64_C(0xCBF29CE484222325);
  script.turns = turns;
  return script;
}

static void addCounts(Counts* sum, const Counts* counts) {
  sum->turns += counts->turns;
  sum->cancelled += counts->cancelled;
  sum->resets += counts->resets;
  sum->configured += counts->configured;
  sum->benches += counts->benches;
  sum->contextsFull += counts->contextsFull;
}

/* Two scripts, each played on both handles. */
static void playBlock(const Host* host, ORBRuntimeHandle* handles[2], uint64_t seed, int turns,
                      Counts* sum) {
  Script scripts[4];
  int i;
  for (i = 0; i < 4; ++i) {
    scripts[i] = makeScript(host, handles[i == 1 || i == 2], seed + (uint64_t)(i % 2), turns);
  }
  playBoth(&scripts[0], &scripts[1]);
  playBoth(&scripts[2], &scripts[3]);
  for (i = 0; i < 4; ++i) {
    CHECK_INT(scripts[i].failures, 0);
    addCounts(sum, &scripts[i].counts);
  }
  for (i = 0; i < 2; ++i) {
    if (scripts[i].digest == scripts[i + 2].digest) continue;
    failedChecks += 1;
    fprintf(stderr, "seed %" PRIu64 ": not the same bytes the second time\n", scripts[i].seed);
  }
  CHECK(turns < 2 || scripts[0].digest != scripts[1].digest);
}

/* Memory counts as settled when a fifth of the turns is done. */
static void playAll(const Host* host, const char* model, long turns, uint64_t seed) {
  const double start = wallSeconds();
  const int turnsOfScript = turns < 20 * kTurnsOfScript ? (int)(turns / 20) + 1 : kTurnsOfScript;
  const long blocks = (turns + 4 * turnsOfScript - 1) / (4 * turnsOfScript);
  const long before = residentKiB();
  ORBRuntimeHandle* handles[2];
  Counts sum;
  long block, settled = 0, last = 0;
  int i;
  memset(&sum, 0, sizeof sum);
  for (i = 0; i < 2; ++i) {
    handles[i] = openWarm(host, model);
  }
  for (block = 0; block < blocks && failedChecks == 0; ++block) {
    playBlock(host, handles, seed + 2 * (uint64_t)block, turnsOfScript, &sum);
    last = residentKiB();
    if (block <= blocks / 5) settled = last;
    printf("%ld turns after %.0f s: resident %ld KiB\n", sum.turns, wallSeconds() - start, last);
    fflush(stdout);
  }
  for (i = 0; i < 2; ++i) host->runtime->destroy(handles[i]);
  if (!ORB_SANITIZED) CHECK(last - settled < kAllowedGrowthKiB);
  printf("seed %" PRIu64
         ": %ld turns, %ld to be cancelled, %ld resets, %ld reconfigurations, "
         "%ld benches, %ld full contexts; resident %ld KiB before, %ld settled, "
         "%ld at the end, %ld after destroy\n",
         seed, sum.turns, sum.cancelled, sum.resets, sum.configured, sum.benches, sum.contextsFull,
         before, settled, last, residentKiB());
}

int main(int count, char** arguments) {
  Host host;
  if (count < 4 || count > 5 || atol(arguments[3]) < 4) {
    fprintf(stderr, "usage: abi_soak PLUGIN MODEL TURNS [SEED]\n");
    return 2;
  }
  pluginPath = arguments[1];
  openHost(&host);
  playAll(&host, arguments[2], atol(arguments[3]),
          count > 4 ? strtoull(arguments[4], NULL, 10) : 1);
  closeHost(&host);
  if (failedChecks != 0) fprintf(stderr, "%d checks failed\n", failedChecks);
  return failedChecks != 0;
}
