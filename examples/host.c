/* A host in plain C: loads the plug-in, asks whether it serves the model, and holds a conversation
 * that is streamed to the terminal. Ctrl-C stops an answer; a second one ends the program.
 *
 *   example_host PLUGIN MODEL                 questions from the standard input, one a line
 *   example_host PLUGIN MODEL QUESTION...     these questions
 *   example_host --stop-after N PLUGIN MODEL QUESTION...   stops each answer after N tokens
 *
 * Builds on Linux with `cc -I../include host.c -ldl`, on Windows with any C11 compiler. */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "orb_plugin.h"

/* ---- What differs between systems: text, and the three calls of dynamic loading ---- */

#if defined(_WIN32)
#include <windows.h>
/* After it, which it needs. */
#include <shellapi.h>

/* The arguments as UTF-8, which every text of the interface is. */
static char** textArguments(int* count, char** given) {
  wchar_t** wide = CommandLineToArgvW(GetCommandLineW(), count);
  char** texts = wide != NULL ? calloc((size_t)*count + 1, sizeof *texts) : NULL;
  int i;
  if (texts == NULL) return given;
  for (i = 0; i < *count; ++i) {
    const int size = WideCharToMultiByte(CP_UTF8, 0, wide[i], -1, NULL, 0, NULL, NULL);
    texts[i] = calloc((size_t)size + 1, 1);
    if (texts[i] == NULL) return given;
    WideCharToMultiByte(CP_UTF8, 0, wide[i], -1, texts[i], size, NULL, NULL);
  }
  SetConsoleCP(CP_UTF8);
  SetConsoleOutputCP(CP_UTF8);
  return texts; /* kept to the end of the program */
}

static void* openLibrary(const char* path) {
  wchar_t wide[4096]; /* paths are UTF-8 */
  if (MultiByteToWideChar(CP_UTF8, 0, path, -1, wide, 4096) == 0) return NULL;
  return (void*)LoadLibraryW(wide);
}

static void* findFunction(void* library, const char* name) {
  FARPROC function = GetProcAddress((HMODULE)library, name);
  void* address;
  memcpy(&address, &function, sizeof address);
  return address;
}

static void closeLibrary(void* library) { FreeLibrary((HMODULE)library); }
#else
#include <dlfcn.h>

static char** textArguments(int* count, char** given) {
  (void)count;
  return given;
}

static void* openLibrary(const char* path) { return dlopen(path, RTLD_NOW | RTLD_LOCAL); }
static void* findFunction(void* library, const char* name) { return dlsym(library, name); }
static void closeLibrary(void* library) { dlclose(library); }
#endif

/* ---- Loading ---- */

typedef struct Plugin {
  void* library;
  const ORBPluginDescriptor* descriptor;
  const ORBRuntimeV2* runtime;
  const ORBRuntimeV2S* streaming;
} Plugin;

/* ISO C converts no object pointer to a function pointer. */
#define FIND(library, name, function)                      \
  do {                                                     \
    void* findAddress = findFunction(library, name);       \
    memcpy(&(function), &findAddress, sizeof findAddress); \
  } while (0)

/* What is wrong with the plug-in, or null. */
static const char* loadPlugin(const char* path, Plugin* plugin) {
  ORBPluginInitFn init;
  ORBPluginRuntimesV2Fn runtimes;
  ORBPluginRuntimesV2SFn extensions;
  uint32_t runtimeCount = 0, extensionCount = 0, i;
  const ORBRuntimeV2S* extension;

  plugin->library = openLibrary(path);
  if (plugin->library == NULL) return "it does not load";
  FIND(plugin->library, "orb_plugin_init", init);
  FIND(plugin->library, "orb_plugin_runtimes_v2", runtimes);
  FIND(plugin->library, "orb_plugin_runtimes_v2s", extensions);
  if (init == NULL || runtimes == NULL || extensions == NULL) return "it is no plug-in";

  /* Check the versions before anything else is read. */
  plugin->descriptor = init();
  if (plugin->descriptor == NULL || plugin->descriptor->version != 1)
    return "its version is unknown";
  plugin->runtime = runtimes(&runtimeCount);
  if (plugin->runtime == NULL || runtimeCount == 0) return "it offers no runtime";
  if (plugin->runtime->version != 3 || plugin->runtime->size < sizeof(ORBRuntimeV2)) {
    return "its runtime is of an unknown version";
  }

  /* The streaming extension of a runtime is the one with the same id. */
  plugin->streaming = NULL;
  extension = extensions(&extensionCount);
  for (i = 0; extension != NULL && i < extensionCount; ++i) {
    if (extension[i].version == 1 && strcmp(extension[i].id, plugin->runtime->id) == 0) {
      plugin->streaming = &extension[i];
    }
  }
  return plugin->streaming != NULL ? NULL : "its runtime does not stream";
}

/* ---- A streamed turn ---- */

/* Read by the runtime after each token; any thread or a signal handler may set it. */
static int volatile cancelFlag = 0;

static void onInterrupt(int number) {
  signal(number, SIG_DFL); /* until the next turn */
  cancelFlag = 1;
}

typedef struct Turn {
  int tokens;
  int stopAfter; /* 0: never */
} Turn;

/* One token at a time, on the thread that made the call. The bytes are no string: they end without
 * a zero, and a character of several bytes may come in pieces. */
static void onChunk(const char* bytes, unsigned int length, void* user) {
  Turn* turn = user;
  fwrite(bytes, 1, length, stdout);
  fflush(stdout);
  turn->tokens += 1;
  if (turn->tokens == turn->stopAfter) cancelFlag = 1;
}

/* False when the conversation cannot go on. */
static int ask(const Plugin* plugin, ORBRuntimeHandle* handle, const char* question,
               int stopAfter) {
  Turn turn = {0, stopAfter};
  int result;
  cancelFlag = 0;
  signal(SIGINT, onInterrupt);
  result = plugin->streaming->chatTurnStream(handle, question, onChunk, &turn, &cancelFlag);
  if (result == ORB_FAILED) { /* most likely the context is full: forget and ask again */
    fprintf(stderr, "(starting a new conversation)\n");
    plugin->runtime->reset(handle);
    result = plugin->streaming->chatTurnStream(handle, question, onChunk, &turn, &cancelFlag);
  }
  printf("%s\n", result == ORB_OK && cancelFlag != 0 ? " [stopped]" : "");
  return result == ORB_OK;
}

static int converse(const Plugin* plugin, ORBRuntimeHandle* handle, char** questions, int count,
                    int stopAfter) {
  char line[4096];
  int i;
  for (i = 0; i < count; ++i) {
    if (!ask(plugin, handle, questions[i], stopAfter)) return 0;
  }
  while (count == 0 && fgets(line, sizeof line, stdin) != NULL) {
    line[strcspn(line, "\r\n")] = '\0';
    if (!ask(plugin, handle, line, stopAfter)) return 0;
  }
  return 1;
}

static void printStatistics(const Plugin* plugin, ORBRuntimeHandle* handle) {
  ORBRuntimeStats stats;
  if (plugin->runtime->stats(handle, &stats) != ORB_OK || stats.contextTokens == 0) return;
  fprintf(stderr, "%llu tokens in the context, %.2f ms a token\n",
          (unsigned long long)stats.contextTokens,
          stats.totalForwardMs / (double)stats.contextTokens);
}

/* ---- The program ---- */

static int chatWith(const Plugin* plugin, const char* model, char** questions, int count,
                    int stopAfter) {
  ORBRuntimeProbe probe;
  ORBRuntimeHandle* handle = NULL;
  ORBSessionOptions options;
  char message[256] = "";
  int done;

  plugin->runtime->probe(model, &probe);
  if (probe.score == 0) {
    fprintf(stderr, "%s: not a model of %s\n", model, plugin->runtime->id);
    return 0;
  }
  if (plugin->runtime->create(model, NULL, &handle, message, sizeof message) != ORB_OK) {
    fprintf(stderr, "%s: %s\n", model, message);
    return 0;
  }

  memset(&options, 0, sizeof options);
  options.structSize = sizeof options;
  options.temperature = 0; /* always the likeliest token; what is 0 elsewhere is left as it is */
  plugin->runtime->configure(handle, &options);

  done = converse(plugin, handle, questions, count, stopAfter);
  printStatistics(plugin, handle);
  plugin->runtime->destroy(handle);
  return done;
}

int main(int count, char** arguments) {
  Plugin plugin;
  const char* problem;
  int stopAfter = 0, done;
  arguments = textArguments(&count, arguments);
  if (count > 2 && strcmp(arguments[1], "--stop-after") == 0) {
    stopAfter = atoi(arguments[2]);
    arguments += 2;
    count -= 2;
  }
  if (count < 3) {
    fprintf(stderr, "usage: example_host [--stop-after N] PLUGIN MODEL [QUESTION...]\n");
    return 2;
  }
  problem = loadPlugin(arguments[1], &plugin);
  if (problem != NULL) {
    fprintf(stderr, "%s: %s\n", arguments[1], problem);
    return 1;
  }
  done = chatWith(&plugin, arguments[2], arguments + 3, count - 3, stopAfter);
  closeLibrary(plugin.library);
  return done ? 0 : 1;
}
