// Chat turns: the caches keep the conversation, each turn adds one user message and an answer.
#pragma once

#include "orb_plugin.h"
#include "plugin/generation.h"
#include "plugin/session.h"

namespace qwen35 {

// Encodes the user's text as a ChatML turn and feeds it, after a reset when no conversation is
// going on. ORB_OK, or ORB_FAILED when encoding or the prompt pass fails.
int beginChatTurn(Qwen35Session& session, const char* userText);

// Generates the answer of the turn that was begun, up to "<|im_end|>"; as generate().
bool answerChatTurn(Qwen35Session& session, const PieceSink& sink);

}  // namespace qwen35
