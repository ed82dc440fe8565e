#include "host.h"

#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "check.h"

/* A function pointer by name; ISO C has no conversion from an object pointer. */
static void findFunction(void* library, const char* name, void* pointer) {
  void* address = dlsym(library, name);
  if (address == NULL) {
    fprintf(stderr, "no function %s\n", name);
    exit(1);
  }
  memcpy(pointer, &address, sizeof address);
}

void openHost(Host* host) {
  threadCount();
  host->library = dlopen(pluginPath, RTLD_NOW | RTLD_LOCAL);
  if (host->library == NULL) {
    fprintf(stderr, "%s\n", dlerror());
    exit(1);
  }
  findFunction(host->library, "orb_plugin_init", &host->init);
  findFunction(host->library, "orb_plugin_runtimes", &host->runtimes);
  findFunction(host->library, "orb_plugin_runtimes_v2", &host->runtimesV2);
  findFunction(host->library, "orb_plugin_runtimes_v2s", &host->runtimesV2S);
  host->runtime = host->runtimesV2(NULL);
  host->streaming = host->runtimesV2S(NULL);
}

void closeHost(Host* host) { CHECK_INT(dlclose(host->library), 0); }

const char* modelPath(const char* name) {
  static char paths[4][4096];
  static int next = 0;
  char* path = paths[next++ % 4];
  snprintf(path, sizeof paths[0], "%s/%s", modelDirectory, name);
  return path;
}

ORBRuntimeHandle* openModel(const Host* host, const char* name) {
  char message[128] = "";
  ORBRuntimeHandle* handle = NULL;
  CHECK_INT(host->runtime->create(modelPath(name), NULL, &handle, message, sizeof message), ORB_OK);
  CHECK_TEXT(message, "");
  return handle;
}

static void onChunk(const char* bytes, unsigned int length, void* user) {
  Stream* stream = user;
  CHECK(stream->length + length < sizeof stream->text);
  memcpy(stream->text + stream->length, bytes, length);
  stream->length += length;
  stream->text[stream->length] = '\0';
  stream->chunks += 1;
  if (stream->chunks == stream->cancelAfter) stream->cancel = 1;
}

int streamTurn(const Host* host, ORBRuntimeHandle* handle, const char* userText, Stream* stream) {
  return host->streaming->chatTurnStream(handle, userText, onChunk, stream, &stream->cancel);
}

int threadCount(void) {
  static int others = -1;
  const int threads = allThreads();
  if (others < 0) others = threads - 1;
  return threads - others;
}

static double seconds(clockid_t clock) {
  struct timespec now;
  clock_gettime(clock, &now);
  return (double)now.tv_sec + (double)now.tv_nsec * 1e-9;
}

double processorSeconds(void) { return seconds(CLOCK_PROCESS_CPUTIME_ID); }

double wallSeconds(void) { return seconds(CLOCK_MONOTONIC); }

void sleepMilliseconds(int milliseconds) {
  const struct timespec time = {milliseconds / 1000, milliseconds % 1000 * 1000000L};
  nanosleep(&time, NULL);
}
