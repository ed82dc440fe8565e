// The demo model through the whole runtime against what the reference computed for it (demo.json):
// token ids, hidden states, logits and greedy answers, on every tier with one and two threads.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
#include <vector>

#include "model/forward.h"
#include "model/kernels/kernel_table.h"
#include "model/threads.h"
#include "model/weight_rows.h"
#include "plugin/chat.h"
#include "plugin/generation.h"
#include "plugin/session.h"

namespace {

using nlohmann::json;
using qwen35::KernelTable;
using qwen35::Qwen35Session;

constexpr double kTolerance = 1e-4;  // of the norm

const std::filesystem::path kRoot = ORB_SOURCE_DIR;

const json& golden() {
  static const json data = json::parse(std::ifstream(kRoot / "tests/golden/demo.json"));
  return data;
}

std::filesystem::path modelPath() { return kRoot / golden()["model"].get<std::string>(); }

double relativeDistance(const std::vector<float>& found, const json& expected) {
  const auto reference = expected.get<std::vector<double>>();
  if (found.size() != reference.size()) return INFINITY;
  double difference = 0;
  double size = 0;
  for (size_t i = 0; i < found.size(); ++i) {
    difference += (found[i] - reference[i]) * (found[i] - reference[i]);
    size += reference[i] * reference[i];
  }
  return std::sqrt(difference / size);
}

std::vector<int32_t> encode(const Qwen35Session& session, const std::string& text) {
  std::vector<int32_t> ids;
  EXPECT_TRUE(session.tokenizer->encode(text, ids, true).ok());
  return ids;
}

// The parameters are the tier and the number of threads.
class GoldenTest : public testing::TestWithParam<std::tuple<const KernelTable*, int>> {
 protected:
  void SetUp() override {
    const KernelTable& tier = *std::get<0>(GetParam());
    if (!qwen35::canRun(tier)) GTEST_SKIP() << "this machine can't run " << tier.name;
    session_.limits.kernels = &tier;
    // The scalar tier takes a quarter of a second for a token: the first and the last case will do.
    for (const json& example : golden()["cases"]) cases_.push_back(&example);
    if (&tier == &qwen35::kScalarKernels) cases_ = {cases_.front(), cases_.back()};
    ASSERT_EQ(qwen35::openSession(session_, modelPath().string().c_str()), nullptr);
  }

  // Feeds one token; `hidden` becomes its final hidden state.
  void feed(int32_t token) {
    qwen35::Model& model = session_.model;
    std::vector<float> embedding(model.hiddenSize);
    embedRow(model, static_cast<size_t>(token), embedding.data());
    hidden_.resize(model.hiddenSize);
    forwardTokenHidden(model, embedding.data(), session_.position++, hidden_.data());
  }

  std::vector<float> logits() {
    std::vector<float> result(session_.model.vocabularySize, 0.0f);
    gemvRow(session_.model, session_.model.tokenEmbedding, hidden_.data(), result.data());
    return result;
  }

  // The greedy continuation, up to the token that ends it or the limit of the data.
  std::vector<int32_t> answer() {
    const int32_t stop = session_.tokenizer->tokenToId("<|im_end|>");
    std::vector<int32_t> ids;
    for (;;) {
      const std::vector<float> scores = logits();
      const int32_t token = qwen35::greedyChoice(scores.data(), scores.size());
      if (token == session_.tokenizer->eosId() || token == stop) return ids;
      ids.push_back(token);
      if (ids.size() == golden()["max_new_tokens"]) return ids;
      feed(token);
    }
  }

  void checkTurn(const json& turn) {
    SCOPED_TRACE(turn["text"].get<std::string>());
    for (const int32_t token : turn["prompt_ids"].get<std::vector<int32_t>>()) feed(token);
    EXPECT_LT(relativeDistance(hidden_, turn["shipped"]["hidden"]), kTolerance);
    EXPECT_LT(relativeDistance(logits(), turn["shipped"]["logits"]), kTolerance);
    const std::vector<int32_t> ids = answer();
    EXPECT_EQ(ids, turn["answer_ids"].get<std::vector<int32_t>>());
    std::string text;
    EXPECT_TRUE(session_.tokenizer->decode(ids, text).ok());
    EXPECT_EQ(text, turn["answer"].get<std::string>());
  }

  const orbtest::ThreadCount threads_{std::get<1>(GetParam())};
  Qwen35Session session_;
  std::vector<const json*> cases_;
  std::vector<float> hidden_;
};

// The scalar tier with two threads only, which take the same way as one and more.
std::vector<std::tuple<const KernelTable*, int>> tiersAndThreads() {
  std::vector<std::tuple<const KernelTable*, int>> all{{&qwen35::kScalarKernels, 2}};
  for (const KernelTable* tier : qwen35::allKernels()) {
    if (tier == &qwen35::kScalarKernels) continue;
    all.insert(all.end(), {{tier, 1}, {tier, 2}});
  }
  return all;
}

INSTANTIATE_TEST_SUITE_P(Tiers, GoldenTest, testing::ValuesIn(tiersAndThreads()),
                         [](const auto& instance) {
                           return std::string(std::get<0>(instance.param)->name) + "_" +
                                  std::to_string(std::get<1>(instance.param));
                         });

TEST_P(GoldenTest, HiddenStatesLogitsAndAnswersAreThoseOfTheReference) {
  for (const json* example : cases_) {
    qwen35::clearConversation(session_);
    for (const json& turn : (*example)["turns"]) checkTurn(turn);
  }
}

// The same answers by the session's own loops, which feed a prompt in batches.
TEST_P(GoldenTest, SessionsAnswerWithTheTextOfTheReference) {
  for (const json* example : cases_) {
    qwen35::clearConversation(session_);
    for (const json& turn : (*example)["turns"]) {
      std::string text;
      const qwen35::PieceSink collect = [&](std::string_view piece) {
        text += piece;
        return true;
      };
      if ((*example)["kind"] == "chat") {
        ASSERT_EQ(qwen35::beginChatTurn(session_, turn["text"].get<std::string>().c_str()), 0);
        EXPECT_LT(relativeDistance(session_.logits, turn["shipped"]["logits"]), kTolerance);
        EXPECT_TRUE(qwen35::answerChatTurn(session_, collect));
      } else {
        ASSERT_TRUE(qwen35::prefill(session_, encode(session_, turn["prompt"])));
        EXPECT_TRUE(qwen35::generate(session_, golden()["max_new_tokens"], -1, collect));
      }
      EXPECT_EQ(text, turn["answer"].get<std::string>());
    }
  }
}

TEST(GoldenDataTest, BelongToTheModelInTheRepository) {
  EXPECT_EQ(std::filesystem::file_size(modelPath()), golden()["model_bytes"].get<uint64_t>());
  EXPECT_GE(golden()["cases"].size(), 5u);
}

TEST(GoldenDataTest, PromptsHaveTheTokensOfTheReference) {
  Qwen35Session session;
  ASSERT_EQ(qwen35::openSession(session, modelPath().string().c_str()), nullptr);
  for (const json& example : golden()["cases"]) {
    for (const json& turn : example["turns"]) {
      EXPECT_EQ(encode(session, turn["prompt"]), turn["prompt_ids"].get<std::vector<int32_t>>())
          << turn["prompt"];
      std::string text;
      const auto ids = turn["answer_ids"].get<std::vector<int32_t>>();
      EXPECT_TRUE(session.tokenizer->decode(ids, text).ok());
      EXPECT_EQ(text, turn["answer"].get<std::string>());
    }
  }
}

}  // namespace
