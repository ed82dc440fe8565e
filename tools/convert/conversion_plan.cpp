#include "convert/conversion_plan.h"

#include "convert/source_types.h"
#include "format/orb2_writer.h"

namespace orb {
namespace {

using kiv::QuantType;
using kiv::Status;

bool isBlockType(QuantType type) { return kiv::quant::blockElements(type) > 1; }
bool isKType(QuantType type) { return kiv::quant::blockElements(type) == 256; }

// The type, or the nearest one that takes rows of that length.
QuantType fitting(QuantType type, uint64_t rowLength) {
  if (rowLength % kiv::quant::blockElements(type) == 0) return type;
  return rowLength % 32 == 0 ? QuantType::Q8_0 : QuantType::BF16;
}

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// Whether every value of the source type has its equal in the type.
bool holdsAll(QuantType type, const SourceTypeInfo& source) {
  if (type == QuantType::F32) return true;
  return source.exact && type == source.target;
}

class Planner {
 public:
  Planner(const SourceModel& model, const TypeChoice& choice) : model_(model), choice_(choice) {}

  Status run(std::vector<PlannedTensor>& plan) {
    for (const MappedTensor& mapped : model_.mapped) {
      PlannedTensor tensor = describe(mapped);
      Status status = mapped.rule->vector ? planVector(tensor) : planMatrix(tensor);
      if (!status.ok()) return status;
      plan.push_back(std::move(tensor));
    }
    for (uint64_t block = model_.shape.blocks; block < kMaxBlocks; ++block) {
      addIdentityBlock(block, plan);
    }
    return Status::success();
  }

 private:
  PlannedTensor describe(const MappedTensor& mapped) const {
    const TensorRule& rule = *mapped.rule;
    PlannedTensor tensor;
    tensor.name = mapped.name;
    tensor.source = mapped.source;
    tensor.rowLength = sizeOf(rule.columns, model_.shape);
    tensor.rows = tensor.sourceRows = sizeOf(rule.rows, model_.shape);
    tensor.dims = {tensor.rowLength};
    if (rule.rows != Size::One) tensor.dims.push_back(tensor.rows);
    // A list of single values is rows of one.
    if (rule.vector && rule.rows == Size::One) {
      tensor.rows = tensor.sourceRows = tensor.rowLength;
      tensor.rowLength = 1;
    }
    if (model_.original) {
      tensor.change = rule.change;
      if (model_.shape.valueHeads > kLinearKeyHeads) tensor.order = rule.order;
      tensor.firstRow = rule.firstRow;
      tensor.headRows = rule.headRows;
      tensor.valueHeads = model_.shape.valueHeads;
    }
    return tensor;
  }

  // The runtime reads these in place and in full length, whatever the number of heads.
  Status planVector(PlannedTensor& tensor) const {
    if (endsWith(tensor.name, ".ssm_conv1d.weight")) tensor.rows = kMaxConvChannels;
    if (endsWith(tensor.name, ".ssm_dt.bias") || endsWith(tensor.name, ".ssm_a")) {
      tensor.rows = kMaxLinearValueHeads;
    }
    tensor.dims.back() = tensor.rows;
    tensor.type = QuantType::F32;
    tensor.passage = Passage::Floats;
    return Status::success();
  }

  Status planMatrix(PlannedTensor& tensor) const {
    const SourceTypeInfo& source = *findSourceType(tensor.source->type);
    tensor.type = targetOf(tensor, source);
    tensor.lossy = !holdsAll(tensor.type, source);
    if (tensor.lossy && choice_.strict && !choice_.type && source.handling != Handling::Float) {
      return Status::invalidFormat(tensor.source->file->path() + ": tensor " + tensor.source->name +
                                   ": expected a type that converts without loss, found " +
                                   source.name + "; without --strict it becomes " +
                                   kiv::quantTypeName(tensor.type));
    }
    const bool plain = tensor.change == ValueChange::None && tensor.order != HeadOrder::Columns;
    if (plain && tensor.type == source.target && source.handling == Handling::Copy) {
      tensor.passage = Passage::Copy;
    } else if (plain && tensor.type == source.target && source.handling == Handling::Reencode &&
               !choice_.type) {
      tensor.passage = Passage::Reencode;
    } else {
      tensor.passage = Passage::Floats;
    }
    return Status::success();
  }

  QuantType targetOf(const PlannedTensor& tensor, const SourceTypeInfo& source) const {
    if (choice_.type) return mixedType(tensor.name, *choice_.type, tensor.rowLength);
    if (source.handling == Handling::Float) return choice_.halves;
    return fitting(source.target, tensor.rowLength);
  }

  // Norms of zero make mixer and feed-forward add nothing. A linear block, since its state does not
  // grow; the bytes of the first such block serve all.
  void addIdentityBlock(uint64_t block, std::vector<PlannedTensor>& plan) const {
    const std::string prefix = "blk." + std::to_string(block) + ".";
    const std::string first = "blk." + std::to_string(model_.shape.blocks) + ".";
    const uint64_t hidden = model_.shape.hidden;
    const auto add = [&](const char* name, std::vector<uint64_t> dims) {
      PlannedTensor tensor;
      tensor.name = prefix + name;
      tensor.dims = std::move(dims);
      for (const uint64_t dim : tensor.dims) tensor.rows *= dim;
      tensor.passage = prefix == first ? Passage::Zeros : Passage::Alias;
      if (prefix != first) tensor.aliasOf = first + name;
      plan.push_back(std::move(tensor));
    };
    add("attn_norm.weight", {hidden});
    add("post_attention_norm.weight", {hidden});
    for (const char* name : {"ffn_gate.weight", "ffn_up.weight", "attn_qkv.weight",
                             "attn_gate.weight", "ssm_beta.weight", "ssm_alpha.weight"}) {
      add(name, {hidden, 1});
    }
    add("ffn_down.weight", {1, hidden});
    add("ssm_out.weight", {1, hidden});
    add("ssm_dt.bias", {kMaxLinearValueHeads});
    add("ssm_a", {kMaxLinearValueHeads});
    add("ssm_conv1d.weight", {kConvTaps, kMaxConvChannels});
    add("ssm_norm.weight", {kLinearHeadSize});
  }

  const SourceModel& model_;
  const TypeChoice& choice_;
};

}  // namespace

QuantType mixedType(const std::string& name, QuantType type, uint64_t rowLength) {
  if (isKType(type)) {
    const bool low = type == QuantType::Q4_K || type == QuantType::Q5_K;
    if (name == "token_embd.weight" || endsWith(name, ".attn_v.weight") ||
        endsWith(name, ".ffn_down.weight")) {
      type = QuantType::Q6_K;
    } else if (low && endsWith(name, ".attn_qkv.weight")) {
      type = type == QuantType::Q4_K ? QuantType::Q5_K : QuantType::Q6_K;
    } else if (endsWith(name, ".ssm_alpha.weight") || endsWith(name, ".ssm_beta.weight")) {
      type = QuantType::Q8_0;
    }
  }
  return isBlockType(type) ? fitting(type, rowLength) : type;
}

Status planConversion(const SourceModel& model, const TypeChoice& choice,
                      std::vector<PlannedTensor>& plan) {
  plan.clear();
  return Planner(model, choice).run(plan);
}

uint64_t plannedBytes(const std::vector<PlannedTensor>& plan) {
  uint64_t sum = 0;
  for (const PlannedTensor& tensor : plan) {
    if (tensor.passage != Passage::Alias) {
      sum += kiv::ORB2Writer::tensorBytes(tensor.type, tensor.dims);
    }
  }
  return sum;
}

}  // namespace orb
