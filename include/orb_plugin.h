/* The C ABI of liborb_runtime_qwen35: all that a host compiles against. Valid C11 and C++17.
 *
 * A host loads the library, finds the four orb_plugin_* functions by name, and from then on calls
 * the runtime only through the function pointers of the tables they return.
 *
 * Layout: little-endian, natural alignment of a 64-bit platform. Offsets are part of the interface.
 * Strings in tables are NUL-terminated, static, and live as long as the library.
 * Results: ORB_OK, ORB_FAILED (operation failed), ORB_INVALID (invalid argument or state).
 * Threads: tables may be read from any thread. A handle is used by one thread at a time; distinct
 * handles are independent and may run at the same time.
 * Errors: when memory runs out, the C++ exception of the standard library leaves the call. */
#ifndef ORB_PLUGIN_H
#define ORB_PLUGIN_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#define ORB_STATIC_ASSERT(condition) static_assert(condition, #condition)
#else
#define ORB_STATIC_ASSERT(condition) _Static_assert(condition, #condition)
#endif

#if defined(ORB_PLUGIN_BUILD)
#if defined(_WIN32)
#define ORB_PLUGIN_EXPORT __declspec(dllexport)
#else
#define ORB_PLUGIN_EXPORT __attribute__((visibility("default")))
#endif
#else
#define ORB_PLUGIN_EXPORT
#endif

enum { ORB_OK = 0, ORB_FAILED = 1, ORB_INVALID = 2 };

/* Score of a file that the runtime serves; 0 means that it does not. */
enum { ORB_PROBE_SCORE_SERVED = 92 };

/* An opened model with its conversation. Made by create, freed by destroy. */
typedef struct ORBRuntimeHandle ORBRuntimeHandle;

/* Returned by orb_plugin_init. */
typedef struct ORBPluginDescriptor {
  uint32_t version;       /* 1 */
  uint32_t secondVersion; /* 1 */
  const char* id;         /* "runtime-qwen35" */
  const char* description;
  const void* reserved0; /* null */
  const void* reserved1; /* null */
} ORBPluginDescriptor;

/* Filled by probe. */
typedef struct ORBRuntimeProbe {
  uint32_t score;     /* 0 = not served, 92 = served */
  const char* arch;   /* "qwen35" or "qwen35moe" on a match, else "" */
  const char* device; /* "cpu" */
  const char* detail; /* one line on a match, else "" */
} ORBRuntimeProbe;

/* Read by configure and by generate-with-options. */
typedef struct ORBSessionOptions {
  uint32_t structSize;     /* size of the record as the host knows it; below 56 it is invalid */
  float temperature;       /* taken when >= 0; 0 decodes greedily */
  int32_t topK;            /* taken when > 0 */
  float topP;              /* taken when > 0 */
  uint64_t seed;           /* when not 0, re-seeds the generator with its low 32 bits */
  uint8_t hostDefined[32]; /* not read */
} ORBSessionOptions;

/* Read by bench; the pointer may be null. */
typedef struct ORBBenchParams {
  uint32_t structSize; /* not checked */
  int32_t genTokens;   /* decode steps that the time is divided by; below 1 means 64 */
  int32_t extraTokens; /* added to genTokens to bound the loop; below 1 means 8 */
} ORBBenchParams;

/* Written by bench. */
typedef struct ORBBenchResult {
  uint32_t structSize;    /* 32 */
  double msPerToken;      /* decode wall time in milliseconds / genTokens */
  double tokensPerSecond; /* 1000 / msPerToken */
  int64_t tokens;         /* genTokens as used */
} ORBBenchResult;

/* Written by statistics. */
typedef struct ORBRuntimeStats {
  uint32_t structSize;    /* 32 */
  uint64_t contextTokens; /* tokens held in the model's caches */
  double totalForwardMs;  /* time of all forward passes since the last reset, milliseconds */
  double lastForwardMs;   /* time of the most recent forward pass, milliseconds */
} ORBRuntimeStats;

/* One decoded token of a streamed answer. `bytes` is not NUL-terminated and is valid only during
 * the call; a multi-byte character may arrive split; `length` may be 0. Runs on the thread that
 * called the chat turn. */
typedef void (*ORBChunkFn)(const char* bytes, unsigned int length, void* user);

/* Whether the file at modelPath (UTF-8; may be null) is served, without creating anything. `out`
 * may be null. Always ORB_OK: the verdict is `score`. */
typedef int (*ORBProbeFn)(const char* modelPath, ORBRuntimeProbe* out);

/* Opens a model. `config` is ignored. On success *out is a handle for destroy. On failure *out is
 * null and err (when not null and errLen > 0) holds a message cut to errLen - 1 bytes. ORB_INVALID
 * when out is null. */
typedef int (*ORBCreateFn)(const char* modelPath, const char* config, ORBRuntimeHandle** out,
                           char* err, size_t errLen);

/* Frees the handle and all that it holds; a null handle is ignored. */
typedef void (*ORBDestroyFn)(ORBRuntimeHandle* handle);

/* Continues `prompt` from an empty context (null = empty prompt) and writes the text to out, cut to
 * outLen - 1 bytes, always terminated. */
typedef int (*ORBGenerateFn)(ORBRuntimeHandle* handle, const char* prompt, char* out,
                             size_t outLen);

/* As generate, with settings for this call only (null or a short record: none); a seed stays. */
typedef int (*ORBGenerateExFn)(ORBRuntimeHandle* handle, const char* prompt,
                               const ORBSessionOptions* options, char* out, size_t outLen);

/* Measures greedy decoding from a fixed prompt; leaves the context empty. */
typedef int (*ORBBenchFn)(ORBRuntimeHandle* handle, const ORBBenchParams* params,
                          ORBBenchResult* out);

/* Changes the sampling settings for all later calls. */
typedef int (*ORBConfigureFn)(ORBRuntimeHandle* handle, const ORBSessionOptions* options);

/* One turn of a conversation: the context keeps the earlier turns. The answer goes to out, cut to
 * outLen - 1 bytes, always terminated. */
typedef int (*ORBChatTurnFn)(ORBRuntimeHandle* handle, const char* userText, char* out,
                             size_t outLen);

/* Forgets the conversation; settings and generator stay. */
typedef int (*ORBResetFn)(ORBRuntimeHandle* handle);

typedef int (*ORBStatsFn)(ORBRuntimeHandle* handle, ORBRuntimeStats* out);

/* As chat turn, each token handed to onChunk (may be null) as it is made. A non-zero *cancel (the
 * pointer may be null; another thread may set it) ends the turn with ORB_OK. */
typedef int (*ORBChatTurnStreamFn)(ORBRuntimeHandle* handle, const char* userText,
                                   ORBChunkFn onChunk, void* user, int volatile* cancel);

/* First generation. The second generation begins with the same eight fields. */
typedef struct ORBRuntime {
  uint32_t version; /* 1 */
  uint32_t size;    /* 0: this generation carries no size */
  const char* id;   /* "qwen35-cpu" in every table */
  const char* description;
  uint64_t flags;
  ORBProbeFn probe;
  ORBCreateFn create;
  ORBDestroyFn destroy;
  ORBGenerateFn generate;
} ORBRuntime;

typedef struct ORBRuntimeV2 {
  uint32_t version; /* 3 */
  uint32_t size;    /* 112 */
  const char* id;
  const char* description;
  uint64_t flags;
  ORBProbeFn probe;
  ORBCreateFn create;
  ORBDestroyFn destroy;
  ORBGenerateFn generate;
  ORBGenerateExFn generateEx;
  ORBBenchFn bench;
  ORBConfigureFn configure;
  ORBChatTurnFn chatTurn;
  ORBResetFn reset;
  ORBStatsFn stats;
} ORBRuntimeV2;

/* Streaming extension, matched to its runtime by the id. */
typedef struct ORBRuntimeV2S {
  uint32_t version; /* 1 */
  uint32_t size;    /* 24 */
  const char* id;
  ORBChatTurnStreamFn chatTurnStream;
} ORBRuntimeV2S;

/* Each runtimes function writes the number of tables to *count (may be null) and returns the first
 * of that many. None of the four allocates, locks or fails. */
ORB_PLUGIN_EXPORT const ORBPluginDescriptor* orb_plugin_init(void);
ORB_PLUGIN_EXPORT const ORBRuntime* orb_plugin_runtimes(uint32_t* count);
ORB_PLUGIN_EXPORT const ORBRuntimeV2* orb_plugin_runtimes_v2(uint32_t* count);
ORB_PLUGIN_EXPORT const ORBRuntimeV2S* orb_plugin_runtimes_v2s(uint32_t* count);

/* Types of the four, for a host that looks them up by name. */
typedef const ORBPluginDescriptor* (*ORBPluginInitFn)(void);
typedef const ORBRuntime* (*ORBPluginRuntimesFn)(uint32_t* count);
typedef const ORBRuntimeV2* (*ORBPluginRuntimesV2Fn)(uint32_t* count);
typedef const ORBRuntimeV2S* (*ORBPluginRuntimesV2SFn)(uint32_t* count);

#define ORB_ASSERT_FIELD(type, field, at) ORB_STATIC_ASSERT(offsetof(type, field) == (at))

ORB_STATIC_ASSERT(sizeof(void*) == 8);
ORB_STATIC_ASSERT(sizeof(int) == 4);

ORB_STATIC_ASSERT(sizeof(ORBPluginDescriptor) == 40);
ORB_ASSERT_FIELD(ORBPluginDescriptor, version, 0);
ORB_ASSERT_FIELD(ORBPluginDescriptor, secondVersion, 4);
ORB_ASSERT_FIELD(ORBPluginDescriptor, id, 8);
ORB_ASSERT_FIELD(ORBPluginDescriptor, description, 16);
ORB_ASSERT_FIELD(ORBPluginDescriptor, reserved0, 24);
ORB_ASSERT_FIELD(ORBPluginDescriptor, reserved1, 32);

ORB_STATIC_ASSERT(sizeof(ORBRuntimeProbe) == 32);
ORB_ASSERT_FIELD(ORBRuntimeProbe, score, 0);
ORB_ASSERT_FIELD(ORBRuntimeProbe, arch, 8);
ORB_ASSERT_FIELD(ORBRuntimeProbe, device, 16);
ORB_ASSERT_FIELD(ORBRuntimeProbe, detail, 24);

ORB_STATIC_ASSERT(sizeof(ORBSessionOptions) == 56);
ORB_ASSERT_FIELD(ORBSessionOptions, structSize, 0);
ORB_ASSERT_FIELD(ORBSessionOptions, temperature, 4);
ORB_ASSERT_FIELD(ORBSessionOptions, topK, 8);
ORB_ASSERT_FIELD(ORBSessionOptions, topP, 12);
ORB_ASSERT_FIELD(ORBSessionOptions, seed, 16);
ORB_ASSERT_FIELD(ORBSessionOptions, hostDefined, 24);

ORB_STATIC_ASSERT(sizeof(ORBBenchParams) == 12);
ORB_ASSERT_FIELD(ORBBenchParams, structSize, 0);
ORB_ASSERT_FIELD(ORBBenchParams, genTokens, 4);
ORB_ASSERT_FIELD(ORBBenchParams, extraTokens, 8);

ORB_STATIC_ASSERT(sizeof(ORBBenchResult) == 32);
ORB_ASSERT_FIELD(ORBBenchResult, structSize, 0);
ORB_ASSERT_FIELD(ORBBenchResult, msPerToken, 8);
ORB_ASSERT_FIELD(ORBBenchResult, tokensPerSecond, 16);
ORB_ASSERT_FIELD(ORBBenchResult, tokens, 24);

ORB_STATIC_ASSERT(sizeof(ORBRuntimeStats) == 32);
ORB_ASSERT_FIELD(ORBRuntimeStats, structSize, 0);
ORB_ASSERT_FIELD(ORBRuntimeStats, contextTokens, 8);
ORB_ASSERT_FIELD(ORBRuntimeStats, totalForwardMs, 16);
ORB_ASSERT_FIELD(ORBRuntimeStats, lastForwardMs, 24);

ORB_STATIC_ASSERT(sizeof(ORBRuntime) == 64);
ORB_ASSERT_FIELD(ORBRuntime, version, 0);
ORB_ASSERT_FIELD(ORBRuntime, size, 4);
ORB_ASSERT_FIELD(ORBRuntime, id, 8);
ORB_ASSERT_FIELD(ORBRuntime, description, 16);
ORB_ASSERT_FIELD(ORBRuntime, flags, 24);
ORB_ASSERT_FIELD(ORBRuntime, probe, 32);
ORB_ASSERT_FIELD(ORBRuntime, create, 40);
ORB_ASSERT_FIELD(ORBRuntime, destroy, 48);
ORB_ASSERT_FIELD(ORBRuntime, generate, 56);

ORB_STATIC_ASSERT(sizeof(ORBRuntimeV2) == 112);
ORB_ASSERT_FIELD(ORBRuntimeV2, version, 0);
ORB_ASSERT_FIELD(ORBRuntimeV2, size, 4);
ORB_ASSERT_FIELD(ORBRuntimeV2, id, 8);
ORB_ASSERT_FIELD(ORBRuntimeV2, description, 16);
ORB_ASSERT_FIELD(ORBRuntimeV2, flags, 24);
ORB_ASSERT_FIELD(ORBRuntimeV2, probe, 32);
ORB_ASSERT_FIELD(ORBRuntimeV2, create, 40);
ORB_ASSERT_FIELD(ORBRuntimeV2, destroy, 48);
ORB_ASSERT_FIELD(ORBRuntimeV2, generate, 56);
ORB_ASSERT_FIELD(ORBRuntimeV2, generateEx, 64);
ORB_ASSERT_FIELD(ORBRuntimeV2, bench, 72);
ORB_ASSERT_FIELD(ORBRuntimeV2, configure, 80);
ORB_ASSERT_FIELD(ORBRuntimeV2, chatTurn, 88);
ORB_ASSERT_FIELD(ORBRuntimeV2, reset, 96);
ORB_ASSERT_FIELD(ORBRuntimeV2, stats, 104);

ORB_STATIC_ASSERT(sizeof(ORBRuntimeV2S) == 24);
ORB_ASSERT_FIELD(ORBRuntimeV2S, version, 0);
ORB_ASSERT_FIELD(ORBRuntimeV2S, size, 4);
ORB_ASSERT_FIELD(ORBRuntimeV2S, id, 8);
ORB_ASSERT_FIELD(ORBRuntimeV2S, chatTurnStream, 16);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ORB_PLUGIN_H */
