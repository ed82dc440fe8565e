// The smallest model file that binds, as bytes and as a builder that tests spoil: hidden size 1,
// two tokens, every matrix of one element, all tensors in the same kilobyte of weights. About 47
// KB, nearly all of it index; one linear block adds the 128 KiB that a convolution must have.
#pragma once

#include <string>

#include "model/model_file.h"

namespace orbtest {

// All blocks full, but for the first `linear` ones; with fewer than 32 it opens, but does not bind.
// Tokens "a" and "b"; each is followed by itself.
inline ModelFile smallestModel(size_t linear = 0, size_t blocks = 32) {
  const TensorSpec vector = TensorSpec::floats({256}, 1);
  const auto shaped = [](const TensorSpec& spec, std::vector<uint64_t> dims) {
    TensorSpec other = spec;
    other.dims = std::move(dims);
    return other;
  };
  const TensorSpec element = shaped(vector, {1, 1});
  ModelFile file(0);
  file["token_embd.weight"] = shaped(vector, {1, 2});
  file["output_norm.weight"] = shaped(vector, {1});
  const auto add = [&](size_t block, const TensorSpec& spec,
                       std::initializer_list<const char*> names) {
    for (const char* name : names) file["blk." + std::to_string(block) + "." + name] = spec;
  };
  const TensorSpec taps = linear == 0 ? TensorSpec() : TensorSpec::floats({4, 8192}, 1);
  for (size_t i = 0; i < blocks; ++i) {
    add(i, shaped(vector, {1}), {"attn_norm.weight", "post_attention_norm.weight"});
    add(i, element, {"ffn_gate.weight", "ffn_up.weight", "ffn_down.weight"});
    if (i < linear) {
      add(i, element,
          {"attn_qkv.weight", "attn_gate.weight", "ssm_beta.weight", "ssm_alpha.weight",
           "ssm_out.weight"});
      add(i, vector, {"ssm_dt.bias", "ssm_a", "ssm_norm.weight"});
      add(i, taps, {"ssm_conv1d.weight"});
    } else {
      add(i, element, {"attn_q.weight", "attn_k.weight", "attn_v.weight", "attn_output.weight"});
      add(i, vector, {"attn_q_norm.weight", "attn_k_norm.weight"});
    }
  }
  return file;
}

}  // namespace orbtest
