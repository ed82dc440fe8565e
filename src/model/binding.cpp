#include <algorithm>
#include <string>

#include "model/kernels/kernel_table.h"
#include "model/model.h"
#include "model/validation.h"
#include "model/weight_rows.h"

namespace qwen35 {
namespace {

using kiv::ORBLoader;
using kiv::TensorView;

// Finds the tensors of one block; remembers whether a required one was missing.
class BlockTensors {
 public:
  BlockTensors(const ORBLoader& loader, size_t index)
      : loader_(loader), prefix_("blk." + std::to_string(index) + ".") {}

  const TensorView* optional(const char* suffix) const {
    return loader_.findTensor(prefix_ + suffix);
  }
  bool require(const TensorView*& field, const char* suffix) const {
    field = optional(suffix);
    return field != nullptr;
  }

 private:
  const ORBLoader& loader_;
  std::string prefix_;
};

bool bindLinear(const BlockTensors& tensors, Layer& layer) {
  return tensors.require(layer.attnQkv, "attn_qkv.weight") &&
         tensors.require(layer.attnGate, "attn_gate.weight") &&
         tensors.require(layer.ssmBeta, "ssm_beta.weight") &&
         tensors.require(layer.ssmAlpha, "ssm_alpha.weight") &&
         tensors.require(layer.ssmDt, "ssm_dt.bias") && tensors.require(layer.ssmA, "ssm_a") &&
         tensors.require(layer.ssmConv1d, "ssm_conv1d.weight") &&
         tensors.require(layer.ssmNorm, "ssm_norm.weight") &&
         tensors.require(layer.ssmOut, "ssm_out.weight");
}

bool bindFull(const BlockTensors& tensors, Layer& layer) {
  layer.attnQBias = tensors.optional("attn_q.bias");
  layer.attnKBias = tensors.optional("attn_k.bias");
  layer.attnVBias = tensors.optional("attn_v.bias");
  return tensors.require(layer.attnQ, "attn_q.weight") &&
         tensors.require(layer.attnK, "attn_k.weight") &&
         tensors.require(layer.attnV, "attn_v.weight") &&
         tensors.require(layer.attnOutput, "attn_output.weight") &&
         tensors.require(layer.attnQNorm, "attn_q_norm.weight") &&
         tensors.require(layer.attnKNorm, "attn_k_norm.weight");
}

bool bindTensors(const BlockTensors& tensors, Layer& layer) {
  if (!tensors.require(layer.attnNorm, "attn_norm.weight") ||
      !tensors.require(layer.postAttentionNorm, "post_attention_norm.weight") ||
      !tensors.require(layer.ffnGate, "ffn_gate.weight") ||
      !tensors.require(layer.ffnUp, "ffn_up.weight") ||
      !tensors.require(layer.ffnDown, "ffn_down.weight")) {
    return false;
  }
  layer.isLinear = tensors.optional("ssm_out.weight") != nullptr;
  return layer.isLinear ? bindLinear(tensors, layer) : bindFull(tensors, layer);
}

void sizeState(const Model& model, Layer& layer) {
  if (layer.isLinear) {
    layer.recurrentState.resize(model.linearHeadSize * model.linearHeadSize *
                                model.linearValueHeads);
    layer.convState.resize((model.convKernel - 1) * model.convChannels());
    layer.nextRecurrent.resize(layer.recurrentState.size());
    layer.nextConv.resize(layer.convState.size());
  } else {
    const size_t cache = model.keyValueHeads * model.attentionHeadSize * model.maxContext;
    layer.keyCache.resize(cache);
    layer.valueCache.resize(cache);
  }
}

bool isZero(const TensorView* vector, uint64_t n) {
  const auto* values = reinterpret_cast<const float*>(vector->data);
  return std::all_of(values, values + n, [](float value) { return value == 0.0f; });
}

// A bias would make keys and values of nothing.
bool hasBias(const Layer& layer) {
  return layer.attnQBias != nullptr || layer.attnKBias != nullptr || layer.attnVBias != nullptr;
}

void sizeWorkspace(Model& model) {
  uint64_t ffn = 0;
  for (const Layer& layer : model.layers) ffn = std::max(ffn, rowCount(*layer.ffnGate));
  Workspace& w = model.work;
  for (TokenRows* rows : {&w.x, &w.normed, &w.mixed, &w.residual, &w.ffnOut}) {
    rows->resizeRows(model.hiddenSize);
  }
  const uint64_t headWidth = model.attentionHeads * model.attentionHeadSize;
  w.qkv.resizeRows(std::max(2 * headWidth, model.convChannels()));
  w.conv.resizeRows(model.convChannels());
  w.key.resizeRows(model.keyValueHeads * model.attentionHeadSize);
  w.value.resizeRows(model.keyValueHeads * model.attentionHeadSize);
  w.gate.resizeRows(model.linearValueWidth);
  w.beta.resizeRows(model.linearValueHeads);
  w.alpha.resizeRows(model.linearValueHeads);
  w.heads.resizeRows(std::max(headWidth, model.linearValueWidth));
  w.gated.resizeRows(std::max(headWidth, model.linearValueWidth));
  w.ffnGate.resizeRows(ffn);
  w.ffnUp.resizeRows(ffn);
  const uint64_t longest = std::max({model.hiddenSize, ffn, w.heads.width(), w.gated.width()});
  for (size_t type = 0; type < w.arranged.size(); ++type) {
    if (model.kernels->arrange[type] != nullptr || model.kernels->arrangeBatch[type] != nullptr) {
      w.arranged[type].resizeRows(arrangedWidth(longest));
    }
  }
  w.batchScratch.resize(Team::kMaxThreads * kBatchScratch);
}

}  // namespace

bool initLayers(ORBLoader& loader, Model& model, size_t maxContext) {
  model.maxContext = maxContext;
  model.layers.clear();
  model.layers.resize(kLayerCount);
  for (size_t i = 0; i < kLayerCount; ++i) {
    Layer& layer = model.layers[i];
    if (!bindTensors(BlockTensors(loader, i), layer)) return false;
    if (!findBlockDefects(loader, i).empty()) return false;
    sizeState(model, layer);
  }
  model.layerCount = model.layers.size();
  return true;
}

bool bindModel(ORBLoader& loader, Model& model, size_t maxContext) {
  model.tokenEmbedding = loader.findTensor("token_embd.weight");
  model.outputNorm = loader.findTensor("output_norm.weight");
  if (!findGlobalDefects(loader).empty()) return false;
  model.hiddenSize = model.tokenEmbedding->dims[0];
  model.vocabularySize = rowCount(*model.tokenEmbedding);
  model.maxContext = maxContext;
  model.layerCount = model.layers.size();
  if (model.kernels == nullptr) model.kernels = &selectKernels(nullptr);
  for (Layer& layer : model.layers) {
    layer.isIdentity = isZero(layer.attnNorm, model.hiddenSize) &&
                       isZero(layer.postAttentionNorm, model.hiddenSize) && !hasBias(layer);
  }
  sizeWorkspace(model);
  return true;
}

void resetModel(Model& model) {
  for (Layer& layer : model.layers) {
    if (layer.isLinear) {
      layer.recurrentState.clear();
      layer.convState.clear();
    } else {
      // Only the slots that were written: the rest of a cache has never been touched.
      clearCaches(model, layer, 0, layer.position);
    }
    layer.position = 0;
  }
}

void clearCaches(const Model& model, Layer& layer, size_t first, size_t count) {
  const size_t width = model.attentionHeadSize;
  for (size_t g = 0; g < model.keyValueHeads; ++g) {
    const size_t at = (g * model.maxContext + first) * width;
    layer.keyCache.clear(at, count * width);
    layer.valueCache.clear(at, count * width);
  }
}

void embedRow(Model& model, size_t token, float* out) {
  if (model.embeddingScratch.size() < model.hiddenSize) {
    model.embeddingScratch.assign(model.hiddenSize, 0.0f);
  }
  rowToF32(model.tokenEmbedding, token, model.hiddenSize, model.embeddingScratch.data());
  std::copy_n(model.embeddingScratch.data(), model.hiddenSize, out);
}

}  // namespace qwen35
