/* Two handles, each used by a thread of its own at the same time. */
#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include "check.h"
#include "host.h"

enum { kTexts = 4 };

typedef struct Conversation {
  const Host* host;
  ORBRuntimeHandle* handle;
  uint64_t seed;
  char texts[kTexts][512];
  uint64_t positions[kTexts];
  int failures;
} Conversation;

static void* converse(void* user) {
  Conversation* self = user;
  const ORBRuntimeV2* runtime = self->host->runtime;
  ORBSessionOptions record;
  ORBBenchParams params = {12, 2, 1};
  ORBBenchResult result;
  int i;
  memset(&record, 0, sizeof record);
  record.structSize = sizeof record;
  record.temperature = 0.9f;
  record.seed = self->seed;
  self->failures += runtime->configure(self->handle, &record) != ORB_OK;
  for (i = 0; i < kTexts; ++i) {
    ORBRuntimeStats stats;
    char* out = self->texts[i];
    if (i % 4 == 1) {
      Stream stream;
      memset(&stream, 0, sizeof stream);
      self->failures += streamTurn(self->host, self->handle, "and you", &stream) != ORB_OK;
      snprintf(out, sizeof self->texts[i], "%.511s", stream.text);
    } else if (i % 4 == 3) {
      self->failures +=
          runtime->generate(self->handle, "once upon", out, sizeof self->texts[i]) != ORB_OK;
    } else {
      self->failures +=
          runtime->chatTurn(self->handle, "hello", out, sizeof self->texts[i]) != ORB_OK;
    }
    self->failures += runtime->stats(self->handle, &stats) != ORB_OK;
    self->positions[i] = stats.contextTokens;
  }
  self->failures += runtime->bench(self->handle, &params, &result) != ORB_OK;
  return NULL;
}

static void begin(Conversation* conversation, const Host* host, uint64_t seed) {
  memset(conversation, 0, sizeof *conversation);
  conversation->host = host;
  conversation->seed = seed;
  conversation->handle = openModel(host, "synth.orb");
}

void testTwoHandlesInTwoThreads(void) {
  static Conversation alone[2], together[2];
  pthread_t threads[2];
  Host host;
  int i, text;
  openHost(&host);
  for (i = 0; i < 2; ++i) {
    begin(&alone[i], &host, (uint64_t)i + 1);
    converse(&alone[i]);
    host.runtime->destroy(alone[i].handle);
  }
  for (i = 0; i < 2; ++i) begin(&together[i], &host, (uint64_t)i + 1);
  for (i = 0; i < 2; ++i) {
    CHECK_INT(pthread_create(&threads[i], NULL, converse, &together[i]), 0);
  }
  for (i = 0; i < 2; ++i) {
    pthread_join(threads[i], NULL);
    host.runtime->destroy(together[i].handle);
    CHECK_INT(alone[i].failures, 0);
    CHECK_INT(together[i].failures, 0);
    for (text = 0; text < kTexts; ++text) {
      CHECK(alone[i].texts[text][0] != '\0');
      CHECK_TEXT(together[i].texts[text], alone[i].texts[text]);
      CHECK_INT(together[i].positions[text], alone[i].positions[text]);
    }
  }
  CHECK(strcmp(alone[0].texts[0], alone[1].texts[0]) != 0); /* the seeds differ */
  closeHost(&host);
#if !(ORB_SANITIZED && defined(__clang__)) /* another OpenMP runtime, which keeps its workers */
  CHECK_INT(threadCount(), 1);
#endif
}
