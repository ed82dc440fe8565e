// How well a model expects a text. A module of its own, loaded when it is needed: it brings the
// threading library, which reads OMP_NUM_THREADS when it is loaded.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct OrbEvalRequest {
  const char* model;
  const char* against;  // second model to compare with, or null
  const char* text;
  uint64_t textBytes;
  uint64_t window;     // tokens that a forecast may look back on, 2 or more
  uint64_t maxTokens;  // of the text
  // Called after every token; 0 stops the work. May be null.
  int (*progress)(void* context, uint64_t doneTokens, uint64_t totalTokens);
  void* context;
} OrbEvalRequest;

typedef struct OrbEvalResult {
  uint64_t tokens;     // fed
  uint64_t forecasts;  // of the next token, as many as the figures below are means over
  double seconds;      // of forward passes of the first model
  double logLoss;      // mean of -ln p(next token)
  // With a second model: its log loss, the mean of KL(second || first) in nats, and how often both
  // expect the same token most.
  double againstLogLoss;
  double divergence;
  uint64_t agreements;
  char error[512];  // when the call fails
} OrbEvalResult;

// 0 on success.
int orbEvaluate(const OrbEvalRequest* request, OrbEvalResult* result);

typedef int (*OrbEvaluateFunction)(const OrbEvalRequest* request, OrbEvalResult* result);

#ifdef __cplusplus
}
#endif
