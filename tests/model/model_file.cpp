#include "model/model_file.h"

#include <bit>

namespace orbtest {

using kiv::QuantType;

TensorSpec TensorSpec::zeros(QuantType type, std::vector<uint64_t> dims) {
  TensorSpec spec;
  spec.type = static_cast<uint16_t>(type);
  uint64_t bytes = kiv::quant::quantizedBytes(type, dims.empty() ? 0 : dims[0]);
  for (size_t i = 1; i < dims.size(); ++i) bytes *= dims[i];
  spec.dims = std::move(dims);
  spec.data.resize(bytes);
  return spec;
}

TensorSpec TensorSpec::floats(std::vector<uint64_t> dims, float value) {
  TensorSpec spec = zeros(QuantType::F32, std::move(dims));
  for (size_t at = 0; at < spec.data.size(); at += 4) {
    poke(spec.data, at, std::bit_cast<uint32_t>(value));
  }
  return spec;
}

ModelFile::ModelFile(size_t blocks) {
  tensors_["token_embd.weight"] = TensorSpec::floats({kHidden, kVocabulary}, 1);
  tensors_["output_norm.weight"] = TensorSpec::floats({kHidden}, 1);
  for (size_t i = 0; i < blocks; ++i) addBlock(i, i % 4 != 3);
}

void ModelFile::addBlock(size_t index, bool linear) {
  const auto add = [&](const char* suffix, std::vector<uint64_t> dims, float value) {
    tensors_["blk." + std::to_string(index) + "." + suffix] =
        TensorSpec::floats(std::move(dims), value);
  };
  add("attn_norm.weight", {kHidden}, 1);
  add("post_attention_norm.weight", {kHidden}, 1);
  add("ffn_gate.weight", {kHidden, kFfn}, 0);
  add("ffn_up.weight", {kHidden, kFfn}, 0);
  add("ffn_down.weight", {kFfn, 2}, 0);
  if (linear) {
    add("attn_qkv.weight", {kHidden, 2}, 0);
    add("attn_gate.weight", {kHidden, 2}, 0);
    add("ssm_beta.weight", {kHidden, 2}, 0);
    add("ssm_alpha.weight", {kHidden, 2}, 0);
    add("ssm_dt.bias", {32}, 0);
    add("ssm_a", {32}, -1);
    add("ssm_conv1d.weight", {4, 8192}, 1);
    add("ssm_norm.weight", {128}, 1);
    add("ssm_out.weight", {256, 2}, 0);
  } else {
    add("attn_q.weight", {kHidden, 2}, 0);
    add("attn_k.weight", {kHidden, 2}, 0);
    add("attn_v.weight", {kHidden, 2}, 0);
    add("attn_output.weight", {256, 2}, 0);
    add("attn_q_norm.weight", {256}, 1);
    add("attn_k_norm.weight", {256}, 1);
  }
}

std::vector<uint8_t> ModelFile::build() const {
  ContainerBuilder builder;
  builder.meta("general.architecture", "qwen35");
  kiv::TokenizerData tokenizer;
  tokenizer.tokens = {"a", "b"};
  builder.tokenizer(tokenizer);
  std::map<std::string, uint64_t> offsets;
  Bytes weights;
  for (const auto& [name, spec] : tensors_) {
    const std::string bytes(spec.data.begin(), spec.data.end());
    const auto [place, isNew] = offsets.emplace(bytes, (weights.size() + 63) / 64 * 64);
    if (isNew) {
      weights.zeros(place->second - weights.size());
      weights.raw(Bytes(spec.data));
    }
    std::vector<uint8_t> entry =
        indexEntry(name, spec.type, spec.dims,
                   place->second + static_cast<uint64_t>(spec.offsetChange),
                   spec.data.size() + static_cast<uint64_t>(spec.sizeChange))
            .get();
    if (spec.ndims) poke(entry, 68, *spec.ndims);
    builder.rawTensor(entry);
  }
  return builder.section(kiv::orb2::SectionType::WeightData, weights).build();
}

}  // namespace orbtest
