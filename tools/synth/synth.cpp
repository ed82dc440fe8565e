#include "synth/synth.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "format/orb2_writer.h"
#include "synth/random_blocks.h"

namespace orb {
namespace {

using kiv::ORB2Writer;
using kiv::QuantType;
using kiv::Status;

constexpr uint64_t kBlocks = 32;
constexpr uint64_t kLinearHead = 128;
constexpr uint64_t kLinearKeyWidth = 2048;  // 16 key heads
constexpr uint64_t kMaxValueHeads = 32;
constexpr uint64_t kConvChannels = 2 * kLinearKeyWidth + kMaxValueHeads * kLinearHead;
constexpr uint64_t kConvTaps = 4;
constexpr uint64_t kHead = 256;
constexpr uint64_t kMaxQueryHeads = 16;
constexpr uint64_t kQueryHeadsPerKeyHead = 4;
constexpr uint64_t kMaxHidden = 65536;
constexpr uint64_t kMaxFfn = 1u << 20;
constexpr uint64_t kMaxVocabulary = 1u << 22;
constexpr uint64_t kChunkBytes = 1u << 20;

// What the blocks add to the residual stream is scaled down so that 64 additions end near one.
constexpr float kResidualGain = 0.2f;

struct PlannedTensor {
  std::string name;
  QuantType type;
  std::vector<uint64_t> dims;
  float mean;
  float deviation;
  std::string aliasOf;  // when set, an index entry for the bytes of that tensor
};

// The list of tensors of a model, in the order of writing.
class Plan {
 public:
  explicit Plan(const SynthOptions& options) : options_(options) {
    addMatrix("token_embd.weight", options.embeddingType, options.hidden, options.vocabulary, 1);
    addVector("output_norm.weight", options.hidden, 1, 0.1f);
    for (uint64_t block = 0; block < kBlocks; ++block) addBlock(block);
  }

  const std::vector<PlannedTensor>& tensors() const { return tensors_; }

  uint64_t weightBytes() const {
    uint64_t sum = 0;
    for (const PlannedTensor& tensor : tensors_) {
      if (tensor.aliasOf.empty()) sum += ORB2Writer::tensorBytes(tensor.type, tensor.dims);
    }
    return sum;
  }

 private:
  void addMatrix(std::string name, QuantType type, uint64_t columns, uint64_t rows, float gain) {
    const float deviation = gain / std::sqrt(static_cast<float>(columns));
    tensors_.push_back({std::move(name), type, {columns, rows}, 0, deviation, {}});
  }

  void addVector(std::string name, uint64_t size, float mean, float deviation,
                 QuantType type = QuantType::F32) {
    tensors_.push_back({std::move(name), type, {size}, mean, deviation, {}});
  }

  void addBlock(uint64_t index) {
    const char kind = options_.pattern[index % options_.pattern.size()];
    const size_t begin = tensors_.size();
    const std::string prefix = "blk." + std::to_string(index) + ".";
    addCommon(prefix);
    if (kind == 'l') {
      addLinear(prefix);
    } else {
      addFull(prefix);
    }
    const uint64_t original = options_.pattern.find(kind);
    if (!options_.shared || original == index) return;
    const std::string originalPrefix = "blk." + std::to_string(original) + ".";
    for (size_t i = begin; i < tensors_.size(); ++i) {
      tensors_[i].aliasOf = originalPrefix + tensors_[i].name.substr(prefix.size());
    }
  }

  void addCommon(const std::string& prefix) {
    const SynthOptions& o = options_;
    addVector(prefix + "attn_norm.weight", o.hidden, 1, 0.1f);
    addVector(prefix + "post_attention_norm.weight", o.hidden, 1, 0.1f);
    addMatrix(prefix + "ffn_gate.weight", o.ffnType, o.hidden, o.ffn, 1);
    addMatrix(prefix + "ffn_up.weight", o.ffnType, o.hidden, o.ffn, 1);
    addMatrix(prefix + "ffn_down.weight", o.ffnType, o.ffn, o.hidden, kResidualGain);
  }

  void addLinear(const std::string& prefix) {
    const SynthOptions& o = options_;
    const uint64_t values = o.valueHeads * kLinearHead;
    addMatrix(prefix + "attn_qkv.weight", o.linearType, o.hidden, 2 * kLinearKeyWidth + values, 1);
    addMatrix(prefix + "attn_gate.weight", o.linearType, o.hidden, values, 1);
    addMatrix(prefix + "ssm_beta.weight", o.smallType, o.hidden, o.valueHeads, 1);
    addMatrix(prefix + "ssm_alpha.weight", o.smallType, o.hidden, o.valueHeads, 1);
    // The decay of a step is softplus(alpha + dt) * a: dt near softplus^-1(0.02), a always
    // negative.
    addVector(prefix + "ssm_dt.bias", kMaxValueHeads, -4, 0.7f);
    addVector(prefix + "ssm_a", kMaxValueHeads, -4, 1);
    tensors_.push_back(
        {prefix + "ssm_conv1d.weight", QuantType::F32, {kConvTaps, kConvChannels}, 0, 0.5f, {}});
    addVector(prefix + "ssm_norm.weight", kLinearHead, 1, 0.1f);
    addMatrix(prefix + "ssm_out.weight", o.linearType, values, o.hidden, kResidualGain);
  }

  void addFull(const std::string& prefix) {
    const SynthOptions& o = options_;
    const uint64_t queries = o.queryHeads * kHead;
    const uint64_t keyHeads = (o.queryHeads + kQueryHeadsPerKeyHead - 1) / kQueryHeadsPerKeyHead;
    const uint64_t keys = keyHeads * kHead;
    addMatrix(prefix + "attn_q.weight", o.attentionType, o.hidden, 2 * queries, 1);  // with gates
    addMatrix(prefix + "attn_k.weight", o.attentionType, o.hidden, keys, 1);
    addMatrix(prefix + "attn_v.weight", o.attentionType, o.hidden, keys, 1);
    if (o.biases) {
      addVector(prefix + "attn_q.bias", 2 * queries, 0, 0.2f, o.smallType);
      addVector(prefix + "attn_k.bias", keys, 0, 0.2f, o.smallType);
      addVector(prefix + "attn_v.bias", keys, 0, 0.2f, o.smallType);
    }
    addVector(prefix + "attn_q_norm.weight", kHead, 1, 0.1f);
    addVector(prefix + "attn_k_norm.weight", kHead, 1, 0.1f);
    addMatrix(prefix + "attn_output.weight", o.attentionType, queries, o.hidden, kResidualGain);
  }

  const SynthOptions& options_;
  std::vector<PlannedTensor> tensors_;
};

Status badOption(const std::string& option, const std::string& expected, const std::string& found) {
  return Status::invalidFormat("synth: " + option + ": expected " + expected + ", found " + found);
}

Status checkRange(const char* option, uint64_t value, uint64_t low, uint64_t high) {
  if (value >= low && value <= high) return Status::success();
  return badOption(option, std::to_string(low) + " to " + std::to_string(high),
                   std::to_string(value));
}

// Types must be writable and rows must be whole blocks.
Status checkTensors(const Plan& plan) {
  for (const PlannedTensor& tensor : plan.tensors()) {
    if (randomBlockBytes(tensor.type) == 0) {
      return badOption("type of " + tensor.name, "F32, BF16, Q8_0, Q4_K, Q5_K or Q6_K",
                       kiv::quantTypeName(tensor.type));
    }
    const uint64_t block = kiv::quant::blockElements(tensor.type);
    if (tensor.dims[0] % block != 0) {
      return badOption(
          "row length of " + tensor.name,
          "a multiple of " + std::to_string(block) + " for " + kiv::quantTypeName(tensor.type),
          std::to_string(tensor.dims[0]));
    }
  }
  return Status::success();
}

// Reports progress and notices a request to stop.
class Meter {
 public:
  Meter(const SynthProgress& progress, uint64_t total) : progress_(progress), total_(total) {}

  Status advance(uint64_t bytes) {
    done_ += bytes;
    if (!progress_ || progress_(done_, total_)) return Status::success();
    return Status::ioError("synth: stopped");
  }

 private:
  const SynthProgress& progress_;
  uint64_t total_;
  uint64_t done_ = 0;
};

Status writeTensor(ORB2Writer& writer, const PlannedTensor& tensor, uint64_t seed,
                   std::vector<uint8_t>& buffer, Meter& meter) {
  if (Status status = writer.beginTensor(tensor.name, tensor.type, tensor.dims); !status.ok()) {
    return status;
  }
  Random random(seed, tensor.name);
  const uint64_t blockBytes = randomBlockBytes(tensor.type);
  uint64_t blocks = ORB2Writer::tensorBytes(tensor.type, tensor.dims) / blockBytes;
  while (blocks > 0) {
    const uint64_t part = std::min<uint64_t>(blocks, kChunkBytes / blockBytes);
    fillRandomBlocks(tensor.type, random, tensor.mean, tensor.deviation, buffer.data(), part);
    if (Status status = writer.append(buffer.data(), part * blockBytes); !status.ok()) {
      return status;
    }
    if (Status status = meter.advance(part * blockBytes); !status.ok()) return status;
    blocks -= part;
  }
  return writer.endTensor();
}

Status writeTensors(ORB2Writer& writer, const Plan& plan, uint64_t seed, Meter& meter) {
  std::vector<uint8_t> buffer(kChunkBytes);
  for (const PlannedTensor& tensor : plan.tensors()) {
    Status status = tensor.aliasOf.empty() ? writeTensor(writer, tensor, seed, buffer, meter)
                                           : writer.addAlias(tensor.name, tensor.aliasOf);
    if (!status.ok()) return status;
  }
  return Status::success();
}

}  // namespace

Status checkSynthOptions(const SynthOptions& options) {
  for (const Status& status :
       {checkRange("hidden size", options.hidden, 1, kMaxHidden),
        checkRange("ffn size", options.ffn, 1, kMaxFfn),
        checkRange("vocabulary", options.vocabulary, kSynthMinVocabulary, kMaxVocabulary),
        checkRange("query heads", options.queryHeads, 1, kMaxQueryHeads),
        checkRange("value heads", options.valueHeads, 1, kMaxValueHeads)}) {
    if (!status.ok()) return status;
  }
  if (options.pattern.empty() || options.pattern.size() > kBlocks ||
      options.pattern.find_first_not_of("lf") != std::string::npos) {
    return badOption("block pattern", "1 to 32 letters 'l' (linear) and 'f' (full)",
                     "\"" + options.pattern + "\"");
  }
  return checkTensors(Plan(options));
}

Status writeSynthModel(const std::string& path, const SynthOptions& options,
                       const SynthProgress& progress) {
  if (Status status = checkSynthOptions(options); !status.ok()) return status;
  ORB2Writer writer;
  if (Status status = writer.open(path, options.overwrite); !status.ok()) return status;
  const Plan plan(options);
  Meter meter(progress, plan.weightBytes());
  if (Status status = writeTensors(writer, plan, options.seed, meter); !status.ok()) return status;
  writer.setMeta("general.architecture", options.architecture);
  writer.setMeta("general.name", "synthetic");
  writer.setMeta("synth.seed", options.seed);
  writer.setMeta("synth.pattern", options.pattern);
  writer.setTokenizer(makeSynthTokenizer(options.vocabulary, options.tokenizer));
  return writer.finish();
}

}  // namespace orb
