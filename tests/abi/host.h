/* The least that a host does: loads the plug-in and finds its tables. And what the tests look at
 * from outside: threads, memory and processor time of the process. */
#ifndef ORB_TESTS_ABI_HOST_H
#define ORB_TESTS_ABI_HOST_H

#include <stddef.h>

#include "orb_plugin.h"
#include "system/system.h"

typedef struct Host {
  void* library;
  ORBPluginInitFn init;
  ORBPluginRuntimesFn runtimes;
  ORBPluginRuntimesV2Fn runtimesV2;
  ORBPluginRuntimesV2SFn runtimesV2S;
  const ORBRuntimeV2* runtime;
  const ORBRuntimeV2S* streaming;
} Host;

/* Of the command line. */
extern const char* pluginPath;
extern const char* modelDirectory;

/* Both end the program when something is missing. */
void openHost(Host* host);
void closeHost(Host* host);

/* "<model directory>/<name>", one of four buffers in turn. */
const char* modelPath(const char* name);

/* Null, with a failed check, when the model cannot be opened. */
ORBRuntimeHandle* openModel(const Host* host, const char* name);

/* Text that a streamed turn gave, whole and by chunks. */
typedef struct Stream {
  char text[4096];
  size_t length;
  int chunks;
  int cancelAfter;     /* chunks after which the flag is set; 0 for never */
  volatile int cancel; /* handed over as the flag */
} Stream;

int streamTurn(const Host* host, ORBRuntimeHandle* handle, const char* userText, Stream* stream);

int threadCount(void);         /* but for those that were there before the plug-in */
double processorSeconds(void); /* of all threads */
double wallSeconds(void);
void sleepMilliseconds(int milliseconds);

/* Whether a sanitizer is built in: its allocator keeps freed memory, and its runtime takes time and
 * may have a thread of its own. */
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORB_SANITIZED_ADDRESS 1
#elif __has_feature(thread_sanitizer)
#define ORB_SANITIZED_THREAD 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(ORB_SANITIZED_ADDRESS)
#define ORB_SANITIZED 1
#elif defined(__SANITIZE_THREAD__) || defined(ORB_SANITIZED_THREAD)
#define ORB_SANITIZED 1
#define ORB_RACES_DETECTED 1
#else
#define ORB_SANITIZED 0
#endif

/* One case of a file each; main.c lists them. */
void testTables(void);
void testTablesAreConstant(void);
void testUtilityFunctions(void);
void testProbe(void);
void testCreateFailures(void);
void testArgumentErrors(void);
void testGenerate(void);
void testGenerateWithOptions(void);
void testChat(void);
void testStream(void);
void testCancelFromAnotherThread(void);
void testConfigure(void);
void testBench(void);
void testStatsAndReset(void);
void testLoadingDoesNoWork(void);
void testIdleBetweenCalls(void);
void testUnloadRounds(void);
void testFreshHandleIsSmall(void);
void testProcessIsLeftAlone(void);
void testNothingIsPrinted(void);
void testNoFileIsWrittenNoNetworkUsed(void);
void testNamesElsewhereDoNotReachIn(void);
void testTwoHandlesInTwoThreads(void);

#endif
