#include "model/model_file.h"

#include <cstring>

namespace orbtest {

using kiv::QuantType;

namespace {

// The tensors of one block, by suffix.
std::map<std::string, TensorSpec> makeBlock(bool linear) {
  constexpr uint64_t kHidden = ModelFile::kHidden;
  constexpr uint64_t kFfn = ModelFile::kFfn;
  std::map<std::string, TensorSpec> block;
  const auto add = [&](const char* suffix, std::vector<uint64_t> dims, float value) {
    block[suffix] = TensorSpec::floats(std::move(dims), value);
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
  return block;
}

}  // namespace

TensorSpec TensorSpec::of(QuantType type, std::vector<uint64_t> dims, std::vector<uint8_t> bytes) {
  TensorSpec spec;
  spec.type = static_cast<uint16_t>(type);
  spec.dims = std::move(dims);
  spec.data = std::make_shared<const std::vector<uint8_t>>(std::move(bytes));
  return spec;
}

TensorSpec TensorSpec::zeros(QuantType type, std::vector<uint64_t> dims) {
  uint64_t bytes = kiv::quant::quantizedBytes(type, dims.empty() ? 0 : dims[0]);
  for (size_t i = 1; i < dims.size(); ++i) bytes *= dims[i];
  return of(type, std::move(dims), std::vector<uint8_t>(bytes));
}

TensorSpec TensorSpec::floats(std::vector<uint64_t> dims, float value) {
  uint64_t count = 1;
  for (const uint64_t dim : dims) count *= dim;
  const std::vector<float> values(count, value);
  std::vector<uint8_t> bytes(count * sizeof value);
  if (count != 0) std::memcpy(bytes.data(), values.data(), bytes.size());
  return of(QuantType::F32, std::move(dims), std::move(bytes));
}

ModelFile::ModelFile(size_t blocks) {
  tensors_["token_embd.weight"] = TensorSpec::floats({kHidden, kVocabulary}, 1);
  tensors_["output_norm.weight"] = TensorSpec::floats({kHidden}, 1);
  for (size_t i = 0; i < blocks; ++i) addBlock(i, i % 4 != 3);
}

void ModelFile::addBlock(size_t index, bool linear) {
  static const std::map<std::string, TensorSpec> kinds[] = {makeBlock(false), makeBlock(true)};
  for (const auto& [suffix, spec] : kinds[linear ? 1 : 0]) {
    tensors_["blk." + std::to_string(index) + "." + suffix] = spec;
  }
}

ContainerBuilder ModelFile::container() const {
  ContainerBuilder builder;
  std::map<const void*, uint64_t> offsets;
  Bytes weights;
  for (const auto& [name, spec] : tensors_) {
    const auto [place, isNew] = offsets.emplace(spec.data.get(), (weights.size() + 63) / 64 * 64);
    if (isNew) {
      weights.zeros(place->second - weights.size());
      weights.raw(Bytes(*spec.data));
    }
    std::vector<uint8_t> entry =
        indexEntry(name, spec.type, spec.dims,
                   place->second + static_cast<uint64_t>(spec.offsetChange),
                   spec.data->size() + static_cast<uint64_t>(spec.sizeChange))
            .get();
    if (spec.ndims) poke(entry, 68, *spec.ndims);
    builder.rawTensor(entry);
  }
  builder.section(kiv::orb2::SectionType::WeightData, weights);
  return builder;
}

std::vector<uint8_t> ModelFile::build() const {
  kiv::TokenizerData tokenizer;
  tokenizer.tokens = {"a", "b"};
  return container().meta("general.architecture", "qwen35").tokenizer(tokenizer).build();
}

}  // namespace orbtest
