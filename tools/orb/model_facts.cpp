#include "orb/model_facts.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <utility>

#include "format/orb2_reader.h"
#include "model/model.h"
#include "quant/quant_type.h"

namespace orb {
namespace {

using kiv::ORBLoader;
using kiv::TensorView;
using kiv::orb2::SectionType;
using kiv::orb2::TensorIndexEntry;

TensorIndexEntry indexEntry(const ORBLoader& loader, size_t index) {
  TensorIndexEntry entry;
  std::memcpy(&entry, loader.reader.sectionData(SectionType::TensorIndex) + index * sizeof entry,
              sizeof entry);
  return entry;
}

std::string typeName(uint16_t stored) {
  const bool known = stored < kiv::kQuantTypeCount;
  return known ? kiv::quantTypeName(static_cast<kiv::QuantType>(stored)) : std::to_string(stored);
}

// A product that stays at the largest number when it would pass it: shapes come from the file.
uint64_t product(uint64_t a, uint64_t b) {
  uint64_t result;
  return __builtin_mul_overflow(a, b, &result) ? UINT64_MAX : result;
}

uint64_t sum(uint64_t a, uint64_t b) {
  uint64_t result;
  return __builtin_add_overflow(a, b, &result) ? UINT64_MAX : result;
}

uint64_t elements(const std::vector<uint64_t>& dims) {
  uint64_t count = 1;
  for (const uint64_t dim : dims) count = product(count, dim);
  return count;
}

std::vector<TensorFacts> listTensors(const ORBLoader& loader) {
  std::vector<TensorFacts> list;
  std::map<std::pair<uint64_t, uint64_t>, std::string> firstByBytes;
  for (size_t i = 0; i < loader.tensors.size(); ++i) {
    const TensorView& view = loader.tensors[i];
    const TensorIndexEntry entry = indexEntry(loader, i);
    TensorFacts facts;
    facts.name = view.name;
    facts.type = typeName(entry.type);
    facts.dims.assign(view.dims, view.dims + view.ndims);
    facts.offset = entry.offset;
    facts.size = entry.size;
    const auto [first, isNew] =
        firstByBytes.try_emplace(std::pair(entry.offset, entry.size), view.name);
    if (!isNew && entry.size > 0) facts.sharedWith = first->second;
    list.push_back(std::move(facts));
  }
  return list;
}

// The tensors by name, whatever state the loader is in.
class TensorsByName {
 public:
  explicit TensorsByName(const std::vector<TensorFacts>& tensors) {
    for (const TensorFacts& tensor : tensors) byName_.emplace(tensor.name, &tensor);
  }

  const TensorFacts* find(const std::string& name) const {
    const auto found = byName_.find(name);
    return found == byName_.end() ? nullptr : found->second;
  }

  uint64_t bytes(const std::string& name) const {
    const TensorFacts* tensor = find(name);
    return tensor == nullptr ? 0 : tensor->size;
  }

 private:
  std::map<std::string, const TensorFacts*> byName_;
};

constexpr const char* kCommonTensors[] = {"attn_norm.weight", "post_attention_norm.weight",
                                          "ffn_gate.weight", "ffn_up.weight", "ffn_down.weight"};
constexpr const char* kLinearTensors[] = {
    "attn_qkv.weight", "attn_gate.weight",  "ssm_beta.weight", "ssm_alpha.weight", "ssm_dt.bias",
    "ssm_a",           "ssm_conv1d.weight", "ssm_norm.weight", "ssm_out.weight"};
constexpr const char* kFullTensors[] = {
    "attn_q.weight", "attn_k.weight",      "attn_v.weight",      "attn_q.bias",       "attn_k.bias",
    "attn_v.bias",   "attn_output.weight", "attn_q_norm.weight", "attn_k_norm.weight"};

template <size_t kCount>
uint64_t bytesOf(const TensorsByName& tensors, const std::string& prefix,
                 const char* const (&names)[kCount]) {
  uint64_t bytes = 0;
  for (const char* name : names) bytes = sum(bytes, tensors.bytes(prefix + name));
  return bytes;
}

void addBlocks(const TensorsByName& tensors, ModelFacts& facts) {
  for (size_t i = 0; i < qwen35::kLayerCount; ++i) {
    const std::string prefix = "blk." + std::to_string(i) + ".";
    uint64_t bytes = bytesOf(tensors, prefix, kCommonTensors);
    if (tensors.find(prefix + "ssm_out.weight") != nullptr) {
      facts.blocks += 'l';
      ++facts.linearBlocks;
      bytes = sum(bytes, bytesOf(tensors, prefix, kLinearTensors));
    } else if (tensors.find(prefix + "attn_q.weight") != nullptr) {
      facts.blocks += 'f';
      ++facts.fullBlocks;
      bytes = sum(bytes, bytesOf(tensors, prefix, kFullTensors));
    } else {
      facts.blocks += '-';
    }
    facts.readPerToken = sum(facts.readPerToken, bytes);
  }
}

// The strings and one index entry each.
uint64_t tokenizerBytes(const kiv::TokenizerData& data) {
  constexpr uint64_t kEntryBytes = sizeof(std::string) + 16;
  constexpr size_t kInline = 15;  // characters that a string holds without an allocation
  uint64_t bytes = 0;
  for (const auto* list : {&data.tokens, &data.merges}) {
    for (const std::string& text : *list) {
      bytes += kEntryBytes + (text.size() > kInline ? text.size() + kInline : 0);
    }
  }
  return bytes;
}

MemoryFacts memoryOf(const ORBLoader& loader, const ModelFacts& facts, uint64_t ffn) {
  const qwen35::Model sizes;  // the constants of the architecture
  const uint64_t stateFloats =
      sizes.linearHeadSize * sizes.linearHeadSize * sizes.linearValueHeads +
      (sizes.convKernel - 1) * sizes.convChannels();
  // Hidden-size vectors, projections of the mixers and feed-forward, for every token of a batch.
  const uint64_t tokenFloats =
      sum(sum(product(5, facts.hidden), 5 * sizes.convChannels()), product(2, ffn));
  MemoryFacts memory;
  memory.mapping = loader.reader.mappingSize();
  memory.cachePerPosition =
      facts.fullBlocks * 2 * sizes.keyValueHeads * sizes.attentionHeadSize * sizeof(float);
  memory.states = 2 * facts.linearBlocks * stateFloats * sizeof(float);
  memory.workspace =
      sum(product(tokenFloats, qwen35::kMaxBatch * sizeof(float)),
          product(facts.vocabulary, sizeof(float) + sizeof(uint64_t) + sizeof(int16_t)));
  memory.tokenizer = tokenizerBytes(loader.tokenizer);
  return memory;
}

}  // namespace

ModelFacts collectModelFacts(const ORBLoader& loader) {
  ModelFacts facts;
  facts.tensors = listTensors(loader);
  for (const TensorFacts& tensor : facts.tensors) {
    if (tensor.sharedWith.empty()) facts.parameters = sum(facts.parameters, elements(tensor.dims));
  }
  const TensorsByName tensors(facts.tensors);
  if (const TensorFacts* embedding = tensors.find("token_embd.weight"); embedding != nullptr) {
    if (!embedding->dims.empty()) facts.hidden = embedding->dims[0];
    if (embedding->dims.size() > 1) facts.vocabulary = embedding->dims[1];
    facts.readPerToken = embedding->size;
  }
  facts.readPerToken = sum(facts.readPerToken, tensors.bytes("output_norm.weight"));
  addBlocks(tensors, facts);
  const TensorFacts* gate = tensors.find("blk.0.ffn_gate.weight");
  const uint64_t ffn = gate != nullptr && gate->dims.size() > 1 ? gate->dims[1] : 0;
  facts.memory = memoryOf(loader, facts, ffn);
  return facts;
}

}  // namespace orb
