/* Every slot of the tables, called as a host calls it. */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "check.h"
#include "host.h"

static ORBSessionOptions options(float temperature, uint64_t seed) {
  ORBSessionOptions record;
  memset(&record, 0xFF, sizeof record);
  record.structSize = 56;
  record.temperature = temperature;
  record.topK = 0;
  record.topP = 0;
  record.seed = seed;
  return record;
}

/* A record between bytes that must stay as they are. */
#define GUARDED(type)        \
  struct {                   \
    unsigned char before[8]; \
    type record;             \
    unsigned char after[8];  \
  }

#define CHECK_GUARDS(guarded)                     \
  do {                                            \
    size_t checkAt;                               \
    for (checkAt = 0; checkAt < 8; ++checkAt) {   \
      CHECK_INT((guarded).before[checkAt], 0xA5); \
      CHECK_INT((guarded).after[checkAt], 0xA5);  \
    }                                             \
  } while (0)

void testProbe(void) {
  static const struct {
    const char* name;
    unsigned score;
    const char* arch;
  } kFiles[] = {{"chat.orb", 92, "qwen35"}, {"moe.orb", 92, "qwen35moe"},   {"other.orb", 0, ""},
                {"broken.orb", 0, ""},      {"no_tokenizer.orb", 0, ""},    {"missing.orb", 0, ""},
                {"chat.ORB", 0, ""},        {"no_tokens.orb", 92, "qwen35"}};
  Host host;
  size_t i;
  openHost(&host);
  for (i = 0; i < sizeof kFiles / sizeof kFiles[0]; ++i) {
    GUARDED(ORBRuntimeProbe) guarded;
    memset(&guarded, 0xA5, sizeof guarded);
    CHECK_INT(host.runtime->probe(modelPath(kFiles[i].name), &guarded.record), 0);
    CHECK_INT(guarded.record.score, kFiles[i].score);
    CHECK_TEXT(guarded.record.arch, kFiles[i].arch);
    CHECK_TEXT(guarded.record.device, "cpu");
    CHECK_TEXT(guarded.record.detail,
               kFiles[i].score ? "qwen35 hybrid (GDN+attn) architecture metadata" : "");
    CHECK_GUARDS(guarded);
    CHECK_INT(host.runtime->probe(modelPath(kFiles[i].name), NULL), 0);
  }
  CHECK_INT(host.runtime->probe(NULL, NULL), 0);
  closeHost(&host);
}

void testCreateFailures(void) {
  static const char* const kFiles[][2] = {
      {"missing.orb", "orb open failed"},
      {"broken.orb", "orb open failed"},
      {"no_tokenizer.orb", "orb open failed"},
      {"moe.orb", "qwen35moe not supported yet"},
      {"other.orb", "not a qwen35-architecture model"},
      {"no_tokens.orb", "tokenizer load failed"},
      {"no_layer.orb", "qwen35 layer bind failed"},
      {"no_norm.orb", "qwen35 model bind failed"},
  };
  Host host;
  size_t i, size, at;
  openHost(&host);
  for (i = 0; i < sizeof kFiles / sizeof kFiles[0]; ++i) {
    const char* path = modelPath(kFiles[i][0]);
    const char* message = kFiles[i][1];
    const size_t length = strlen(message);
    for (size = 0; size <= length + 3; ++size) {
      char buffer[64];
      ORBRuntimeHandle* handle = (ORBRuntimeHandle*)(void*)buffer;
      memset(buffer, '?', sizeof buffer);
      CHECK_INT(host.runtime->create(path, "config", &handle, buffer, size), ORB_FAILED);
      CHECK(handle == NULL);
      if (size > 0) {
        const size_t kept = length < size - 1 ? length : size - 1;
        CHECK(memcmp(buffer, message, kept) == 0);
        CHECK_INT(buffer[kept], 0);
      }
      for (at = size < length + 1 ? size : length + 1; at < sizeof buffer; ++at) {
        CHECK_INT(buffer[at], '?');
      }
    }
    CHECK_INT(host.runtime->create(path, NULL, NULL, NULL, 0), ORB_INVALID);
    {
      ORBRuntimeHandle* handle = NULL;
      CHECK_INT(host.runtime->create(path, NULL, &handle, NULL, 64), ORB_FAILED);
    }
  }
  {
    ORBRuntimeHandle* handle = NULL;
    char buffer[32] = "";
    CHECK_INT(host.runtime->create(NULL, NULL, &handle, buffer, sizeof buffer), ORB_FAILED);
    CHECK_TEXT(buffer, "orb open failed");
  }
  host.runtime->destroy(NULL);
  closeHost(&host);
}

static int generateCode(const Host* host, ORBRuntimeHandle* handle, char* out, size_t size) {
  const ORBSessionOptions seeded = options(1, 99);
  const int plain = host->runtime->generate(handle, "a", out, size);
  CHECK_INT(host->runtimes(NULL)->generate(handle, "a", out, size), plain);
  CHECK_INT(host->runtime->generateEx(handle, "a", &seeded, out, size), plain);
  CHECK_INT(host->runtime->generateEx(handle, NULL, NULL, out, size), plain);
  CHECK_INT(host->runtime->chatTurn(handle, "a", out, size), plain);
  CHECK_INT(host->runtime->chatTurn(handle, NULL, out, size), plain);
  return plain;
}

void testArgumentErrors(void) {
  Host host;
  ORBRuntimeHandle* handle;
  ORBSessionOptions record = options(1, 0);
  ORBRuntimeStats stats;
  ORBBenchResult result;
  char out[8] = "???????";
  openHost(&host);
  handle = openModel(&host, "chat.orb");

  CHECK_INT(generateCode(&host, NULL, out, sizeof out), ORB_INVALID);
  CHECK_INT(generateCode(&host, NULL, NULL, sizeof out), ORB_INVALID);
  CHECK_INT(generateCode(&host, NULL, NULL, 0), ORB_INVALID);
  CHECK_INT(generateCode(&host, NULL, out, 0), ORB_INVALID);
  CHECK_INT(generateCode(&host, handle, NULL, sizeof out), ORB_INVALID);
  CHECK_INT(generateCode(&host, handle, NULL, 0), ORB_INVALID);
  CHECK_INT(generateCode(&host, handle, out, 0), ORB_INVALID);
  CHECK_TEXT(out, "???????");

  CHECK_INT(host.runtime->configure(NULL, &record), ORB_INVALID);
  CHECK_INT(host.runtime->configure(handle, NULL), ORB_INVALID);
  record.structSize = 55;
  CHECK_INT(host.runtime->configure(handle, &record), ORB_INVALID);
  record.structSize = 56;
  CHECK_INT(host.runtime->configure(handle, &record), ORB_OK);

  CHECK_INT(host.runtime->bench(NULL, NULL, &result), ORB_INVALID);
  CHECK_INT(host.runtime->bench(handle, NULL, NULL), ORB_INVALID);
  CHECK_INT(host.runtime->bench(NULL, NULL, NULL), ORB_INVALID);
  CHECK_INT(host.runtime->stats(NULL, &stats), ORB_INVALID);
  CHECK_INT(host.runtime->stats(handle, NULL), ORB_INVALID);
  CHECK_INT(host.runtime->reset(NULL), ORB_INVALID);
  CHECK_INT(host.streaming->chatTurnStream(NULL, "a", NULL, NULL, NULL), ORB_INVALID);

  host.runtime->destroy(handle);
  closeHost(&host);
}

void testGenerate(void) {
  Host host;
  ORBRuntimeHandle* handle;
  char out[16];
  size_t size, at;
  const char* const whole = "bc";
  openHost(&host);
  handle = openModel(&host, "chat.orb");
  for (size = 1; size <= 5; ++size) {
    memset(out, '?', sizeof out);
    CHECK_INT(host.runtime->generate(handle, "xa", out, size), ORB_OK);
    CHECK_INT(strlen(out), size - 1 < 2 ? size - 1 : 2);
    CHECK(memcmp(out, whole, strlen(out)) == 0);
    for (at = size < 3 ? size : 3; at < sizeof out; ++at) CHECK_INT(out[at], '?');
  }
  CHECK_INT(host.runtimes(NULL)->generate(handle, "a", out, sizeof out), ORB_OK);
  CHECK_TEXT(out, "bc");
  host.runtime->destroy(handle);
  closeHost(&host);
}

void testGenerateWithOptions(void) {
  Host host;
  ORBRuntimeHandle* handle;
  char greedy[256], first[256], second[256], again[256];
  ORBSessionOptions hot = options(1, 0);
  ORBSessionOptions seeded = options(1, 42);
  openHost(&host);
  handle = openModel(&host, "dice.orb");
  CHECK_INT(host.runtime->generate(handle, "a", greedy, sizeof greedy), ORB_OK);
  CHECK_INT(host.runtime->generateEx(handle, "a", &hot, first, sizeof first), ORB_OK);
  CHECK_INT(host.runtime->generateEx(handle, "a", &hot, second, sizeof second), ORB_OK);
  CHECK(strcmp(first, greedy) != 0);
  CHECK(strcmp(first, second) != 0);
  CHECK_INT(host.runtime->generateEx(handle, "a", &seeded, again, sizeof again), ORB_OK);
  CHECK_TEXT(again, first); /* 42 is what a handle starts with */
  CHECK_INT(host.runtime->generateEx(handle, "a", &hot, again, sizeof again), ORB_OK);
  CHECK_TEXT(again, second);
  CHECK_INT(host.runtime->generate(handle, "a", again, sizeof again), ORB_OK);
  CHECK_TEXT(again, greedy);
  host.runtime->destroy(handle);
  closeHost(&host);
}

void testChat(void) {
  Host host;
  ORBRuntimeHandle* handle;
  ORBRuntimeStats first, second;
  char out[16];
  openHost(&host);
  handle = openModel(&host, "chat.orb");
  memset(out, '?', sizeof out);
  CHECK_INT(host.runtime->chatTurn(handle, "x", out, 4), ORB_OK);
  CHECK_TEXT(out, "abc");
  CHECK_INT(out[4], '?');
  CHECK_INT(host.runtime->stats(handle, &first), ORB_OK);
  CHECK_INT(host.runtime->chatTurn(handle, "x", out, 3), ORB_OK);
  CHECK_TEXT(out, "ab");
  CHECK_INT(host.runtime->stats(handle, &second), ORB_OK);
  CHECK_INT(second.contextTokens, 2 * first.contextTokens);
  host.runtime->destroy(handle);
  closeHost(&host);
}

void testStream(void) {
  Host host;
  ORBRuntimeHandle* handle;
  ORBRuntimeStats whole, cut;
  Stream stream;
  openHost(&host);
  handle = openModel(&host, "chat.orb");
  memset(&stream, 0, sizeof stream);
  CHECK_INT(streamTurn(&host, handle, "x", &stream), ORB_OK);
  CHECK_TEXT(stream.text, "abc");
  CHECK_INT(stream.chunks, 3);
  CHECK_INT(host.runtime->stats(handle, &whole), ORB_OK);
  CHECK_INT(host.runtime->reset(handle), ORB_OK);

  memset(&stream, 0, sizeof stream);
  stream.cancelAfter = 2;
  CHECK_INT(streamTurn(&host, handle, "x", &stream), ORB_OK);
  CHECK_TEXT(stream.text, "ab");
  CHECK_INT(host.runtime->stats(handle, &cut), ORB_OK);
  CHECK_INT(cut.contextTokens, whole.contextTokens - 2);
  CHECK_INT(host.runtime->reset(handle), ORB_OK);

  memset(&stream, 0, sizeof stream);
  stream.cancel = 1;
  CHECK_INT(streamTurn(&host, handle, "x", &stream), ORB_OK);
  CHECK_INT(stream.chunks, 0);
  CHECK_INT(host.runtime->stats(handle, &cut), ORB_OK);
  CHECK_INT(cut.contextTokens, whole.contextTokens - 3);
  CHECK_INT(host.runtime->reset(handle), ORB_OK);

  CHECK_INT(host.streaming->chatTurnStream(handle, NULL, NULL, NULL, NULL), ORB_OK);
  host.runtime->destroy(handle);
  closeHost(&host);
}

/* The flag is a plain volatile int, which a race detector rightly does not take for atomic. */
#if defined(ORB_RACES_DETECTED)
void testCancelFromAnotherThread(void) {}
#else
typedef struct Canceller {
  volatile int* flag;
  volatile int started;
} Canceller;

static void startCanceller(const char* bytes, unsigned int length, void* user) {
  (void)bytes;
  (void)length;
  ((Canceller*)user)->started += 1;
}

static void* cancelLater(void* user) {
  Canceller* canceller = user;
  while (canceller->started == 0) sleepMilliseconds(1);
  *canceller->flag = 1;
  return NULL;
}

void testCancelFromAnotherThread(void) {
  Host host;
  ORBRuntimeHandle* handle;
  volatile int flag = 0;
  Canceller canceller = {NULL, 0};
  pthread_t thread;
  canceller.flag = &flag;
  openHost(&host);
  handle = openModel(&host, "endless.orb"); /* with QWEN35_MAX_TOKENS=1000000 it would take long */
  CHECK_INT(pthread_create(&thread, NULL, cancelLater, &canceller), 0);
  CHECK_INT(host.streaming->chatTurnStream(handle, "x", startCanceller, &canceller, &flag), ORB_OK);
  pthread_join(thread, NULL);
  CHECK(canceller.started >= 1);
  CHECK(canceller.started < 8000);
  host.runtime->destroy(handle);
  closeHost(&host);
}
#endif

void testConfigure(void) {
  Host host;
  ORBRuntimeHandle *first, *second;
  char one[256], two[256];
  ORBSessionOptions low = options(1, 5);
  ORBSessionOptions high = options(1, (UINT64_C(1) << 32) + 5);
  ORBSessionOptions keep = options(-1, 0);
  ORBSessionOptions greedy = options(0, 0);
  openHost(&host);
  first = openModel(&host, "dice.orb");
  second = openModel(&host, "dice.orb");
  CHECK_INT(host.runtime->configure(first, &low), ORB_OK);
  CHECK_INT(host.runtime->configure(second, &high), ORB_OK);
  CHECK_INT(host.runtime->generate(first, "a", one, sizeof one), ORB_OK);
  CHECK_INT(host.runtime->generate(second, "a", two, sizeof two), ORB_OK);
  CHECK_TEXT(two, one);
  CHECK_INT(host.runtime->configure(first, &keep), ORB_OK);
  CHECK_INT(host.runtime->configure(second, &greedy), ORB_OK);
  CHECK_INT(host.runtime->generate(first, "a", one, sizeof one), ORB_OK);
  CHECK_INT(host.runtime->generate(second, "a", two, sizeof two), ORB_OK);
  CHECK(strcmp(one, two) != 0);
  CHECK_INT(strspn(two, "a"), strlen(two));
  host.runtime->destroy(first);
  host.runtime->destroy(second);
  closeHost(&host);
}

void testBench(void) {
  Host host;
  ORBRuntimeHandle* handle;
  ORBBenchParams params;
  GUARDED(ORBBenchResult) guarded;
  openHost(&host);
  handle = openModel(&host, "synth.orb");
  memset(&guarded, 0xA5, sizeof guarded);
  params.structSize = 12;
  params.genTokens = 4;
  params.extraTokens = 1;
  CHECK_INT(host.runtime->bench(handle, &params, &guarded.record), ORB_OK);
  CHECK_INT(guarded.record.structSize, 32);
  CHECK_INT(guarded.record.tokens, 4);
  CHECK(guarded.record.msPerToken > 0);
  CHECK(guarded.record.tokensPerSecond == 1000.0 / guarded.record.msPerToken);
  CHECK_GUARDS(guarded);
  host.runtime->destroy(handle);

  handle = openModel(&host, "chat.orb"); /* whose bench ends at once */
  memset(&guarded, 0xA5, sizeof guarded);
  CHECK_INT(host.runtime->bench(handle, NULL, &guarded.record), ORB_OK);
  CHECK_INT(guarded.record.tokens, 64);
  CHECK_GUARDS(guarded);
  host.runtime->destroy(handle);
  closeHost(&host);
}

void testStatsAndReset(void) {
  Host host;
  ORBRuntimeHandle* handle;
  GUARDED(ORBRuntimeStats) guarded;
  char out[64];
  openHost(&host);
  handle = openModel(&host, "chat.orb");
  memset(&guarded, 0xA5, sizeof guarded);
  CHECK_INT(host.runtime->stats(handle, &guarded.record), ORB_OK);
  CHECK_INT(guarded.record.structSize, 32);
  CHECK_INT(guarded.record.contextTokens, 0);
  CHECK(guarded.record.totalForwardMs == 0);
  CHECK(guarded.record.lastForwardMs == 0);
  CHECK_GUARDS(guarded);

  CHECK_INT(host.runtime->generate(handle, "xa", out, sizeof out), ORB_OK);
  CHECK_INT(host.runtime->stats(handle, &guarded.record), ORB_OK);
  CHECK_INT(guarded.record.contextTokens, 4);
  CHECK(guarded.record.lastForwardMs > 0);
  CHECK(guarded.record.totalForwardMs > guarded.record.lastForwardMs);

  CHECK_INT(host.runtime->reset(handle), ORB_OK);
  CHECK_INT(host.runtime->stats(handle, &guarded.record), ORB_OK);
  CHECK_INT(guarded.record.contextTokens, 0);
  CHECK(guarded.record.totalForwardMs == 0);
  CHECK(guarded.record.lastForwardMs == 0);
  host.runtime->destroy(handle);
  closeHost(&host);
}
