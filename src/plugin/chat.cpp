#include "plugin/chat.h"

#include <string>
#include <vector>

namespace qwen35 {

int beginChatTurn(Qwen35Session& session, const char* userText) {
  if (!session.chatActive) clearConversation(session);
  std::string turn = "<|im_start|>user\n";
  if (userText != nullptr) turn += userText;
  turn += "<|im_end|>\n<|im_start|>assistant\n";
  std::vector<int32_t> tokens;
  if (!session.tokenizer->encode(turn, tokens, true).ok()) return ORB_FAILED;
  if (!prefill(session, tokens)) return ORB_FAILED;
  session.chatActive = true;
  return ORB_OK;
}

bool answerChatTurn(Qwen35Session& session, const PieceSink& sink) {
  const int32_t stopId = session.tokenizer->tokenToId("<|im_end|>");
  return generate(session, session.limits.maxNewTokens, stopId, sink);
}

}  // namespace qwen35
