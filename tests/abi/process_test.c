/* What the plug-in does to the process around it: as little as possible. */
#include <dlfcn.h>
#include <fcntl.h>
#include <fenv.h>
#include <locale.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xmmintrin.h>

#include "check.h"
#include "host.h"

extern char** environ;

/* A little of everything on one model. */
static void useModel(const Host* host, const char* name) {
  ORBRuntimeHandle* handle = openModel(host, name);
  ORBRuntimeProbe probe;
  ORBRuntimeStats stats;
  Stream stream;
  char out[512];
  CHECK_INT(host->runtime->probe(modelPath(name), &probe), 0);
  CHECK_INT(host->runtime->generate(handle, "a", out, sizeof out), ORB_OK);
  CHECK_INT(host->runtime->chatTurn(handle, "x", out, sizeof out), ORB_OK);
  memset(&stream, 0, sizeof stream);
  CHECK_INT(streamTurn(host, handle, "x", &stream), ORB_OK);
  CHECK_INT(host->runtime->stats(handle, &stats), ORB_OK);
  CHECK_INT(host->runtime->reset(handle), ORB_OK);
  host->runtime->destroy(handle);
}

void testLoadingDoesNoWork(void) {
  Host host;
  ORBRuntimeHandle* handle;
  const double before = processorSeconds();
  openHost(&host);
  CHECK(processorSeconds() - before < (ORB_SANITIZED ? 1.0 : 0.05));
  CHECK_INT(threadCount(), 1);
  host.init();
  host.runtimes(NULL);
  handle = openModel(&host, "chat.orb");
  CHECK_INT(threadCount(), 1); /* none before the first product */
  host.runtime->destroy(handle);
  CHECK_INT(threadCount(), 1);
  closeHost(&host);
}

static void countThreads(const char* bytes, unsigned int length, void* user) {
  const int now = threadCount();
  (void)bytes;
  (void)length;
  if (now > *(int*)user) *(int*)user = now;
}

static double timeAsleep(void) {
  const double before = processorSeconds();
  sleepMilliseconds(100);
  return processorSeconds() - before;
}

#define CHECK_IDLE()                                      \
  do {                                                    \
    CHECK_INT(threadCount(), 1);                          \
    CHECK(timeAsleep() < (ORB_SANITIZED ? 0.05 : 0.005)); \
  } while (0)

void testIdleBetweenCalls(void) {
  Host host;
  ORBRuntimeHandle* handle;
  ORBBenchParams params = {12, 2, 1};
  ORBBenchResult result;
  char out[512];
  int most = 0;
  openHost(&host);
  handle = openModel(&host, "synth.orb");
  CHECK_INT(host.runtime->generate(handle, "a", out, sizeof out), ORB_OK);
  CHECK_IDLE();
  CHECK_INT(host.runtime->chatTurn(handle, "x", out, sizeof out), ORB_OK);
  CHECK_IDLE();
  CHECK_INT(host.streaming->chatTurnStream(handle, "x", countThreads, &most, NULL), ORB_OK);
  CHECK(most > 1); /* so there was something to end */
  CHECK_IDLE();
  CHECK_INT(host.runtime->bench(handle, &params, &result), ORB_OK);
  CHECK_IDLE();
  CHECK_INT(host.runtime->reset(handle), ORB_OK);
  host.runtime->destroy(handle);
  CHECK_IDLE();
  closeHost(&host);
  CHECK_IDLE();
}

void testUnloadRounds(void) {
  enum { kRounds = 100, kWarmUp = 20 };
  long settled = 0, last = 0;
  const int files = openFileCount();
  const double start = wallSeconds();
  int round;
  for (round = 0; round < kRounds; ++round) {
    Host host;
    ORBRuntimeHandle* handle;
    char out[16];
    openHost(&host);
    handle = openModel(&host, "chat.orb");
    CHECK_INT(host.runtime->generate(handle, "b", out, sizeof out), ORB_OK);
    CHECK_TEXT(out, "c");
    host.runtime->destroy(handle);
    closeHost(&host);
    CHECK_INT(threadCount(), 1);
    CHECK_INT(openFileCount(), files);
    last = residentKiB();
    if (round == kWarmUp) settled = last;
  }
  printf("%d rounds in %.1f s, resident %ld KiB after round %d, %ld KiB after the last\n", kRounds,
         wallSeconds() - start, settled, kWarmUp, last);
  if (!ORB_SANITIZED) CHECK(last - settled < 512);
  CHECK(timeAsleep() < (ORB_SANITIZED ? 0.05 : 0.005));
}

/* The caches of the default context would take 2 GiB in this model of full attention blocks. */
void testFreshHandleIsSmall(void) {
  Host host;
  ORBRuntimeHandle* handle;
  char out[64];
  long before;
  openHost(&host);
  before = residentKiB();
  handle = openModel(&host, "chat.orb");
  if (!ORB_SANITIZED) CHECK(residentKiB() - before < 8 * 1024);
  CHECK_INT(host.runtime->reset(handle), ORB_OK);
  CHECK_INT(host.runtime->generate(handle, "a", out, sizeof out), ORB_OK);
  if (!ORB_SANITIZED) CHECK(residentKiB() - before < 16 * 1024);
  host.runtime->destroy(handle);
  closeHost(&host);
}

typedef struct ProcessState {
  struct sigaction actions[32];
  sigset_t blocked;
  char directory[4096];
  char* locale;
  char** variables;
  int roundingMode;
  unsigned vectorMode; /* rounding, flush-to-zero and masks; not the sticky flags */
  mode_t mask;
} ProcessState;

static void readState(ProcessState* state) {
  int signal;
  memset(state, 0, sizeof *state);
  for (signal = 1; signal < 32; ++signal) sigaction(signal, NULL, &state->actions[signal]);
  pthread_sigmask(SIG_BLOCK, NULL, &state->blocked);
  CHECK(getcwd(state->directory, sizeof state->directory) != NULL);
  state->locale = setlocale(LC_ALL, NULL);
  state->variables = environ;
  state->roundingMode = fegetround();
  state->vectorMode = _mm_getcsr() & ~0x3Fu;
  state->mask = umask(0);
  umask(state->mask);
}

static void checkSameState(const ProcessState* before, const ProcessState* after) {
  int signal;
  for (signal = 1; signal < 32; ++signal) {
    CHECK(before->actions[signal].sa_handler == after->actions[signal].sa_handler);
    CHECK_INT(after->actions[signal].sa_flags, before->actions[signal].sa_flags);
    CHECK_INT(sigismember(&after->blocked, signal), sigismember(&before->blocked, signal));
  }
  CHECK_TEXT(after->directory, before->directory);
  CHECK_TEXT(after->locale, before->locale);
  CHECK(after->variables == before->variables);
  CHECK_INT(after->roundingMode, before->roundingMode);
  CHECK_INT(after->vectorMode, before->vectorMode);
  CHECK_INT(after->mask, before->mask);
}

/* Bytes that reached the standard streams while `name` was used. */
static long bytesPrintedBy(const Host* host, const char* name) {
  const int output = dup(1), error = dup(2);
  char path[] = "/tmp/orb_abi_XXXXXX";
  const int file = mkstemp(path);
  struct stat status;
  unlink(path);
  dup2(file, 1);
  dup2(file, 2);
  useModel(host, name);
  fflush(stdout);
  dup2(output, 1);
  dup2(error, 2);
  CHECK_INT(fstat(file, &status), 0);
  close(file);
  close(output);
  close(error);
  return (long)status.st_size;
}

void testProcessIsLeftAlone(void) {
  Host host;
  ProcessState before, after;
  ORBRuntimeHandle* handle = NULL;
  char* variables[512];
  int files, count = 0;
  openHost(&host);
  readState(&before);
  for (; environ[count] != NULL && count < 511; ++count) variables[count] = environ[count];
  files = openFileCount();

  CHECK_INT(bytesPrintedBy(&host, "chat.orb"), 0);
  CHECK_INT(host.runtime->create(modelPath("broken.orb"), NULL, &handle, NULL, 0), ORB_FAILED);
  CHECK_INT(host.runtime->create(modelPath("moe.orb"), NULL, &handle, NULL, 0), ORB_FAILED);

  readState(&after);
  checkSameState(&before, &after);
  CHECK_INT(openFileCount(), files);
  for (; count > 0; --count) CHECK(environ[count - 1] == variables[count - 1]);
  closeHost(&host);
}

/* Another library that is in the process for everybody has functions of the same names; none of
 * the plug-in's own calls may end up there. It lies beside the plug-in. */
void testNamesElsewhereDoNotReachIn(void) {
  Host host;
  char path[4096];
  const char* slash = strrchr(pluginPath, '/');
  void* other;
  void* address;
  int* calls;
  snprintf(path, sizeof path, "%.*s/libabi_namesake.so",
           slash != NULL ? (int)(slash - pluginPath) : 1, slash != NULL ? pluginPath : ".");
  other = dlopen(path, RTLD_NOW | RTLD_GLOBAL);
  CHECK(other != NULL);
  if (other == NULL) return;
  address = dlsym(other, "namesakeCalls");
  CHECK(address != NULL);
  calls = address;
  openHost(&host);
  useModel(&host, "chat.orb");
  CHECK_INT(*calls, 0);
  closeHost(&host);
}
