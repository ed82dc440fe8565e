#include "plugin/scripted_model.h"

#include <algorithm>

namespace orbtest {
namespace {

constexpr int kBlocks = 32;
constexpr size_t kHeadSize = 256;
constexpr float kSharpness = 32;  // of the final norm: sets likely and unlikely tokens apart

Bytes floats(const std::vector<float>& values) {
  Bytes out;
  for (const float value : values) out.f32(value);
  return out;
}

Bytes constant(size_t count, float value) { return floats(std::vector<float>(count, value)); }

// Mixer and feed-forward step of one element each, all zero.
void addIdleBlock(ContainerBuilder& builder, const std::string& prefix, size_t hidden,
                  bool idleFeedForward) {
  const auto vector = [&](const char* name, size_t size) {
    builder.tensor(prefix + name, QuantType::F32, {size}, Bytes().zeros(4 * size));
  };
  const auto element = [&](const char* name) {
    builder.tensor(prefix + name, QuantType::F32, {1, 1}, Bytes().zeros(4));
  };
  vector("attn_norm.weight", hidden);
  for (const char* name : {"attn_q.weight", "attn_k.weight", "attn_v.weight", "attn_output.weight"})
    element(name);
  vector("attn_q_norm.weight", kHeadSize);
  vector("attn_k_norm.weight", kHeadSize);
  if (!idleFeedForward) return;
  vector("post_attention_norm.weight", hidden);
  for (const char* name : {"ffn_gate.weight", "ffn_up.weight", "ffn_down.weight"}) element(name);
}

}  // namespace

int32_t ScriptedModel::add(const std::string& text, int32_t type) {
  tokenizer.tokens.push_back(text);
  tokenizer.types.push_back(type);
  return static_cast<int32_t>(tokenizer.tokens.size()) - 1;
}

void ScriptedModel::follow(int32_t token, int32_t next) { next_[token] = {next}; }

void ScriptedModel::mayFollow(int32_t token, int32_t next) { next_[token].push_back(next); }

size_t ScriptedModel::hiddenSize() const {
  size_t size = std::max(hidden, tokenizer.tokens.size());
  for (const auto& [token, followers] : next_) {
    for (const int32_t next : followers) size = std::max(size, static_cast<size_t>(next) + 1);
  }
  return size;
}

ContainerBuilder ScriptedModel::container() const {
  const size_t size = hiddenSize();
  const size_t rowCount = rows != 0 ? rows : tokenizer.tokens.size();
  std::vector<float> embedding(rowCount * size);
  for (size_t i = 0; i < std::min(rowCount, size); ++i) embedding[i * size + i] = 1;
  for (const auto& [place, value] : spoiled_) {
    embedding[static_cast<size_t>(place.first) * size + place.second] = value;
  }
  std::vector<float> identity(size * size);
  for (size_t i = 0; i < size; ++i) identity[i * size + i] = 1;
  std::vector<float> followers(size * size);
  for (const auto& [token, list] : next_) {
    for (const int32_t next : list) {
      // The gated activation of a token's element is near `size`: its own embedding counts little.
      followers[static_cast<size_t>(next) * size + static_cast<size_t>(token)] = 1000;
    }
  }

  ContainerBuilder builder;
  builder.meta("general.architecture", architecture).tokenizer(tokenizer);
  builder.tensor("token_embd.weight", QuantType::F32, {size, rowCount}, floats(embedding));
  builder.tensor("output_norm.weight", QuantType::F32, {size}, constant(size, kSharpness));
  for (int i = 0; i < kBlocks; ++i) {
    const std::string prefix = "blk." + std::to_string(i) + ".";
    const bool last = i == kBlocks - 1;
    addIdleBlock(builder, prefix, size, !last);
    if (!last) continue;
    builder.tensor(prefix + "post_attention_norm.weight", QuantType::F32, {size},
                   constant(size, 1));
    for (const char* name : {"ffn_gate.weight", "ffn_up.weight"}) {
      builder.tensor(prefix + name, QuantType::F32, {size, size}, floats(identity));
    }
    builder.tensor(prefix + "ffn_down.weight", QuantType::F32, {size, size}, floats(followers));
  }
  return builder;
}

std::vector<uint8_t> ScriptedModel::build() const { return container().build(); }

}  // namespace orbtest
