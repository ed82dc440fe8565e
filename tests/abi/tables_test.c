/* The four exported functions and the tables they return. */
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "check.h"
#include "host.h"

/* Fields by their offsets, as a host in any language reads them. */
static uint32_t word(const void* record, size_t offset) {
  uint32_t value;
  memcpy(&value, (const char*)record + offset, sizeof value);
  return value;
}

static uint64_t longWord(const void* record, size_t offset) {
  uint64_t value;
  memcpy(&value, (const char*)record + offset, sizeof value);
  return value;
}

static const char* text(const void* record, size_t offset) {
  const char* value;
  memcpy(&value, (const char*)record + offset, sizeof value);
  return value;
}

static void checkDescriptor(const void* descriptor) {
  CHECK_INT(word(descriptor, 0), 1);
  CHECK_INT(word(descriptor, 4), 1);
  CHECK_TEXT(text(descriptor, 8), "runtime-qwen35");
  CHECK_TEXT(text(descriptor, 16), "Real Qwen3.5 hybrid (GDN+full attn) CPU runtime");
  CHECK_INT(longWord(descriptor, 24), 0);
  CHECK_INT(longWord(descriptor, 32), 0);
}

static void checkRuntimes(const void* first, const void* second, const void* streaming) {
  size_t slot;
  CHECK_INT(word(first, 0), 1);
  CHECK_INT(word(first, 4), 0);
  CHECK_TEXT(text(first, 8), "qwen35-cpu");
  CHECK_TEXT(text(first, 16), "Qwen3.5 hybrid CPU runtime (real)");
  CHECK_INT(longWord(first, 24), 225);

  CHECK_INT(word(second, 0), 3);
  CHECK_INT(word(second, 4), 112);
  CHECK_TEXT(text(second, 8), "qwen35-cpu");
  CHECK_TEXT(text(second, 16), "Qwen3.5 hybrid CPU runtime (real, v2 chat)");
  CHECK_INT(longWord(second, 24), 15);
  for (slot = 32; slot < 112; slot += 8) CHECK(longWord(second, slot) != 0);

  CHECK_INT(word(streaming, 0), 1);
  CHECK_INT(word(streaming, 4), 24);
  CHECK_TEXT(text(streaming, 8), "qwen35-cpu");
  CHECK(longWord(streaming, 16) != 0);

  /* The second generation begins with the first; all three carry the very same id. */
  CHECK(memcmp((const char*)first + 32, (const char*)second + 32, 32) == 0);
  CHECK(text(first, 8) == text(second, 8));
  CHECK(text(first, 8) == text(streaming, 8));
}

void testTables(void) {
  Host host;
  uint32_t counts[3] = {7, 7, 7};
  openHost(&host);
  checkDescriptor(host.init());
  checkRuntimes(host.runtimes(NULL), host.runtimesV2(NULL), host.runtimesV2S(NULL));

  CHECK(host.init() == host.init());
  CHECK(host.runtimes(&counts[1]) == host.runtimes(NULL));
  CHECK_INT(counts[1], 1);
  counts[1] = 7;
  CHECK(host.runtimesV2(&counts[1]) == host.runtimesV2(NULL));
  CHECK_INT(counts[1], 1);
  counts[1] = 7;
  CHECK(host.runtimesV2S(&counts[1]) == host.runtimesV2S(NULL));
  CHECK_INT(counts[1], 1);
  CHECK_INT(counts[0], 7);
  CHECK_INT(counts[2], 7);
  closeHost(&host);
}

void testTablesAreConstant(void) {
  Host host;
  openHost(&host);
  CHECK_INT(isWritable(&host), 1);
  CHECK_INT(isWritable(host.init()), 0);
  CHECK_INT(isWritable(host.runtimes(NULL)), 0);
  CHECK_INT(isWritable(host.runtimesV2(NULL)), 0);
  CHECK_INT(isWritable(host.runtimesV2S(NULL)), 0);
  CHECK_INT(isWritable(host.init()->id), 0);
  CHECK_INT(isWritable(host.runtime->id), 0);
  CHECK_INT(isWritable(host.runtime->description), 0);
  closeHost(&host);
}

/* The utility functions are there under their plain names. */
void testUtilityFunctions(void) {
  Host host;
  int (*getDirectory)(char*, int64_t);
  int (*isTerminal)(int);
  void (*sleepFor)(uint64_t);
  void* address;
  char directory[4097] = "";
  openHost(&host);
  address = dlsym(host.library, "orbCompatGetcwd");
  CHECK(address != NULL);
  memcpy(&getDirectory, &address, sizeof address);
  address = dlsym(host.library, "orbCompatIsatty");
  CHECK(address != NULL);
  memcpy(&isTerminal, &address, sizeof address);
  address = dlsym(host.library, "orbCompatSleepMs");
  CHECK(address != NULL);
  memcpy(&sleepFor, &address, sizeof address);
  if (failedChecks != 0) return;

  CHECK_INT(getDirectory(directory, sizeof directory - 1), 0);
  CHECK(directory[0] == '/' || directory[1] == ':');
  CHECK_INT(isTerminal(-1), 0);
  sleepFor(1);
  closeHost(&host);
}
