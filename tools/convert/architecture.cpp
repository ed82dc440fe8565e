#include "convert/architecture.h"

namespace orb {
namespace {

constexpr auto kPlusOne = ValueChange::PlusOne;
constexpr auto kNone = ValueChange::None;
constexpr auto kRows = HeadOrder::Rows;
constexpr auto kSame = HeadOrder::Same;

constexpr TensorRule kGlobal[] = {
    {"token_embd.weight", "embed_tokens.weight", Size::Hidden, Size::Vocabulary},
    {"output_norm.weight", "norm.weight", Size::Hidden, Size::One, true, false, kPlusOne},
};

constexpr TensorRule kCommon[] = {
    {"attn_norm.weight", "input_layernorm.weight", Size::Hidden, Size::One, true, false, kPlusOne},
    {"post_attention_norm.weight", "post_attention_layernorm.weight", Size::Hidden, Size::One, true,
     false, kPlusOne},
    {"ffn_gate.weight", "mlp.gate_proj.weight", Size::Hidden, Size::Ffn},
    {"ffn_up.weight", "mlp.up_proj.weight", Size::Hidden, Size::Ffn},
    {"ffn_down.weight", "mlp.down_proj.weight", Size::Ffn, Size::Hidden},
};

constexpr TensorRule kLinear[] = {
    {"attn_qkv.weight", "linear_attn.in_proj_qkv.weight", Size::Hidden, Size::Channels, false,
     false, kNone, kRows, kLinearKeyChannels, kLinearHeadSize},
    {"attn_gate.weight", "linear_attn.in_proj_z.weight", Size::Hidden, Size::Values, false, false,
     kNone, kRows, 0, kLinearHeadSize},
    {"ssm_beta.weight", "linear_attn.in_proj_b.weight", Size::Hidden, Size::ValueHeads, false,
     false, kNone, kRows},
    {"ssm_alpha.weight", "linear_attn.in_proj_a.weight", Size::Hidden, Size::ValueHeads, false,
     false, kNone, kRows},
    {"ssm_dt.bias", "linear_attn.dt_bias", Size::ValueHeads, Size::One, true, false, kNone, kRows},
    {"ssm_a", "linear_attn.A_log", Size::ValueHeads, Size::One, true, false,
     ValueChange::NegativeExponential, kRows},
    {"ssm_conv1d.weight", "linear_attn.conv1d.weight", Size::Taps, Size::Channels, true, false,
     kNone, kRows, kLinearKeyChannels, kLinearHeadSize},
    {"ssm_norm.weight", "linear_attn.norm.weight", Size::LinearHead, Size::One, true},
    {"ssm_out.weight", "linear_attn.out_proj.weight", Size::Values, Size::Hidden, false, false,
     kNone, HeadOrder::Columns, 0, kLinearHeadSize},
};

constexpr TensorRule kFull[] = {
    {"attn_q.weight", "self_attn.q_proj.weight", Size::Hidden, Size::QueriesAndGates},
    {"attn_k.weight", "self_attn.k_proj.weight", Size::Hidden, Size::Keys},
    {"attn_v.weight", "self_attn.v_proj.weight", Size::Hidden, Size::Keys},
    {"attn_output.weight", "self_attn.o_proj.weight", Size::Queries, Size::Hidden},
    {"attn_q_norm.weight", "self_attn.q_norm.weight", Size::Head, Size::One, true, false, kPlusOne},
    {"attn_k_norm.weight", "self_attn.k_norm.weight", Size::Head, Size::One, true, false, kPlusOne},
    {"attn_q.bias", "self_attn.q_proj.bias", Size::QueriesAndGates, Size::One, true, true, kNone,
     kSame},
    {"attn_k.bias", "self_attn.k_proj.bias", Size::Keys, Size::One, true, true, kNone, kSame},
    {"attn_v.bias", "self_attn.v_proj.bias", Size::Keys, Size::One, true, true, kNone, kSame},
};

kiv::Status refuse(const std::string& subject, const std::string& what, const std::string& expected,
                   uint64_t found) {
  return kiv::Status::invalidFormat(subject + ": " + what + ": expected " + expected + ", found " +
                                    std::to_string(found));
}

}  // namespace

kiv::Status checkShape(const std::string& subject, const ModelShape& shape) {
  constexpr uint64_t kMaxHidden = 65536;
  constexpr uint64_t kMaxFfn = 1u << 20;
  constexpr uint64_t kMaxVocabulary = 1u << 22;
  constexpr uint64_t kMaxKeyValueHeads = 4;
  constexpr uint64_t kQueriesPerKey = 4;
  if (shape.blocks < 1 || shape.blocks > kMaxBlocks) {
    return refuse(subject, "blocks", "1 to 32, as many as the runtime has", shape.blocks);
  }
  if (shape.hidden < 1 || shape.hidden > kMaxHidden) {
    return refuse(subject, "hidden size", "1 to 65536", shape.hidden);
  }
  if (shape.ffn < 1 || shape.ffn > kMaxFfn) {
    return refuse(subject, "feed-forward size", "1 to 1048576", shape.ffn);
  }
  if (shape.vocabulary < 1 || shape.vocabulary > kMaxVocabulary) {
    return refuse(subject, "vocabulary", "1 to 4194304", shape.vocabulary);
  }
  if (shape.keyValueHeads < 1 || shape.keyValueHeads > kMaxKeyValueHeads) {
    return refuse(subject, "key/value heads", "1 to 4", shape.keyValueHeads);
  }
  if (shape.queryHeads != kQueriesPerKey * shape.keyValueHeads) {
    return refuse(subject, "query heads", "4 for each key/value head", shape.queryHeads);
  }
  if (shape.valueHeads != kLinearKeyHeads && shape.valueHeads != kMaxLinearValueHeads) {
    return refuse(subject, "linear value heads", "16 or 32", shape.valueHeads);
  }
  return kiv::Status::success();
}

uint64_t sizeOf(Size size, const ModelShape& shape) {
  switch (size) {
    case Size::One:
      return 1;
    case Size::Hidden:
      return shape.hidden;
    case Size::Ffn:
      return shape.ffn;
    case Size::Vocabulary:
      return shape.vocabulary;
    case Size::QueriesAndGates:
      return 2 * shape.queryHeads * kHeadSize;
    case Size::Queries:
      return shape.queryHeads * kHeadSize;
    case Size::Keys:
      return shape.keyValueHeads * kHeadSize;
    case Size::Head:
      return kHeadSize;
    case Size::Channels:
      return kLinearKeyChannels + shape.valueHeads * kLinearHeadSize;
    case Size::Values:
      return shape.valueHeads * kLinearHeadSize;
    case Size::ValueHeads:
      return shape.valueHeads;
    case Size::LinearHead:
      return kLinearHeadSize;
    case Size::Taps:
      return kConvTaps;
  }
  return 0;
}

std::span<const TensorRule> globalTensors() { return kGlobal; }
std::span<const TensorRule> commonTensors() { return kCommon; }
std::span<const TensorRule> linearTensors() { return kLinear; }
std::span<const TensorRule> fullTensors() { return kFull; }

uint64_t groupedHead(uint64_t head, uint64_t valueHeads) {
  const uint64_t perKeyHead = valueHeads / kLinearKeyHeads;
  return head % kLinearKeyHeads * perKeyHead + head / kLinearKeyHeads;
}

}  // namespace orb
