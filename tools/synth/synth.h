// Synthetic models: seeded random weights in the shapes of the served architecture, with a small
// made-up tokenizer. They say nothing sensible, but they run: activations stay of order one through
// all blocks, every tensor influences the result, and greedy text varies from token to token.
//
//   orb::SynthOptions options;
//   options.attentionType = options.linearType = options.ffnType = kiv::QuantType::Q4_K;
//   kiv::Status status = orb::writeSynthModel("synthetic.orb", options);
//
// One seed and one set of options give the same bytes on every platform.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "format/tokenizer_data.h"
#include "quant/quant_type.h"
#include "quant/status.h"

namespace orb {

// How the vocabulary marks a space: U+2581 (space marker) or U+0120 (byte-level).
enum class TokenizerForm { SpaceMarker, ByteLevel };

struct SynthOptions {
  uint64_t seed = 1;
  uint64_t hidden = 256;
  uint64_t ffn = 512;
  uint64_t vocabulary = 512;     // embedding rows = tokens, at least kSynthMinVocabulary
  std::string pattern = "lllf";  // 'l' linear, 'f' full; repeated over the 32 blocks
  // One set of weights for all linear blocks and one for all full blocks: the index entries of the
  // later blocks point to the bytes of the first, and the file is 16 times smaller.
  bool shared = true;
  bool biases = false;       // q/k/v biases in the full blocks
  uint32_t queryHeads = 16;  // 1 to 16; fewer mean fewer rows in q/k/v (four share one k/v head)
  uint32_t valueHeads = 32;  // 1 to 32; fewer mean fewer rows in the linear blocks' projections
  TokenizerForm tokenizer = TokenizerForm::SpaceMarker;
  std::string architecture = "qwen35";

  // Element types by family: F32, BF16, Q8_0, Q4_K, Q5_K or Q6_K. A block type needs rows of whole
  // blocks. Norms, convolution, decay and time-step tensors are always F32.
  kiv::QuantType embeddingType = kiv::QuantType::F32;
  kiv::QuantType attentionType = kiv::QuantType::F32;  // attn_q, attn_k, attn_v, attn_output
  kiv::QuantType linearType = kiv::QuantType::F32;     // attn_qkv, attn_gate, ssm_out
  kiv::QuantType smallType = kiv::QuantType::F32;      // ssm_alpha, ssm_beta, biases
  kiv::QuantType ffnType = kiv::QuantType::F32;        // ffn_gate, ffn_up, ffn_down

  bool overwrite = false;  // an existing file is refused without it
};

inline constexpr uint64_t kSynthMinVocabulary = 128;

// Called between chunks of about one megabyte with the bytes of weights written and those in all;
// false stops the work, which leaves no file behind.
using SynthProgress = std::function<bool(uint64_t doneBytes, uint64_t totalBytes)>;

// Whether the options describe a model that can be written and bound. The message says which option
// is wrong, what it may be and what it is.
kiv::Status checkSynthOptions(const SynthOptions& options);

// Writes the model beside `path` and renames it when it is complete; memory stays under a few
// megabytes plus the tokenizer. Fails with the message of checkSynthOptions() or of the writer.
kiv::Status writeSynthModel(const std::string& path, const SynthOptions& options,
                            const SynthProgress& progress = {});

// The tokenizer of the model: special tokens <|endoftext|>, <|im_start|>, <|im_end|> (type 3), the
// character U+FFFD for unknown text, "\n", the space marker, printable ASCII, a few merges, then
// distinct made-up words. Special ids: no beginning of sequence, end of sequence <|im_end|>.
kiv::TokenizerData makeSynthTokenizer(uint64_t vocabulary, TokenizerForm form);

}  // namespace orb
