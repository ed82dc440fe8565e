#include "plugin/session.h"

namespace qwen35 {

const char* openSession(Qwen35Session& session, const char* path) {
  session.loader = std::make_unique<kiv::ORBLoader>();
  kiv::ORBLoader& loader = *session.loader;
  if (!loader.open(path, session.limits.largeFiles).ok()) return "orb open failed";

  std::string architecture;
  loader.reader.getMetaStr("general.architecture", architecture);
  if (architecture == "qwen35moe") return "qwen35moe not supported yet";
  if (architecture != "qwen35") return "not a qwen35-architecture model";

  session.tokenizer = std::make_unique<kiv::Tokenizer>();
  if (!session.tokenizer->load(std::move(loader.tokenizer)).ok()) return "tokenizer load failed";
  session.model.kernels = session.limits.kernels;
  if (!initLayers(loader, session.model, session.limits.maxContext)) {
    return "qwen35 layer bind failed";
  }
  if (!bindModel(loader, session.model, session.limits.maxContext)) {
    return "qwen35 model bind failed";
  }
  session.hidden.resize(session.model.hiddenSize);
  session.logits.resize(session.model.vocabularySize);
  session.modelLoaded = true;
  return nullptr;
}

void clearConversation(Qwen35Session& session) {
  resetModel(session.model);
  session.position = 0;
  session.generatedTokens = 0;
  session.totalForwardMs = 0.0;
  session.chatActive = false;
}

}  // namespace qwen35
