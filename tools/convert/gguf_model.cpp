// What the keys of a GGUF file say about a model.
#include <cmath>
#include <optional>

#include "convert/gguf_reader.h"
#include "convert/source_model.h"

namespace orb {
namespace {

using kiv::Status;

const std::string kPrefix = "qwen35.";  // NOLINT: no other file has one that could come first

Status refuse(const std::string& path, const std::string& key, const std::string& expected,
              const std::string& found) {
  return Status::invalidFormat(path + ": key " + key + ": expected " + expected + ", found " +
                               found);
}

std::string numberText(double value) {
  const auto whole = static_cast<int64_t>(std::fabs(value) < 1e15 ? value : 0);
  if (static_cast<double>(whole) == value) return std::to_string(whole);
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

Status checkArchitecture(const GgufReader& reader, const std::string& path) {
  const std::string* name = reader.string("general.architecture");
  if (name == nullptr) return refuse(path, "general.architecture", "\"qwen35\"", "none");
  if (*name == "qwen35moe") {
    return refuse(path, "general.architecture", "\"qwen35\", a dense model",
                  "\"qwen35moe\", a mixture of experts");
  }
  if (*name != "qwen35") {
    return refuse(path, "general.architecture", "\"qwen35\"", "\"" + name->substr(0, 100) + "\"");
  }
  const auto parts = reader.integer("split.count");
  if (parts.value_or(1) > 1) {
    return refuse(path, "split.count", "one file; merge its parts first",
                  std::to_string(*parts) + " parts");
  }
  return Status::success();
}

// Values that the runtime has built in; a key that is absent says nothing against it.
Status checkConstants(const GgufReader& reader, const std::string& path) {
  struct Constant {
    const char* key;
    double value;
  };
  constexpr Constant kConstants[] = {
      {"attention.key_length", 256},
      {"attention.value_length", 256},
      {"attention.layer_norm_rms_epsilon", 1e-6},
      {"rope.freq_base", 1e7},
      {"rope.dimension_count", 64},
      {"ssm.conv_kernel", 4},
      {"ssm.state_size", 128},
      {"ssm.group_count", 16},
      {"expert_count", 0},
  };
  for (const auto& [name, value] : kConstants) {
    const std::string key = kPrefix + name;
    if (!reader.has(key)) continue;
    const auto found = reader.number(key);
    if (found && std::fabs(*found - value) <= 1e-5 * value) continue;
    return refuse(path, key, numberText(value), found ? numberText(*found) : "no number");
  }
  return Status::success();
}

// A size that must be there.
Status readSize(const GgufReader& reader, const std::string& path, const char* name,
                uint64_t& out) {
  const std::string key = kPrefix + name;
  const auto value = reader.integer(key);
  if (!value || *value < 0) {
    return refuse(path, key, "a size", value ? std::to_string(*value) : "none");
  }
  out = static_cast<uint64_t>(*value);
  return Status::success();
}

Status readShape(const GgufReader& reader, const std::string& path, ModelShape& shape) {
  struct Field {
    const char* key;
    uint64_t& value;
  };
  uint64_t inner = 0;
  for (const Field& field :
       {Field{"block_count", shape.blocks}, Field{"embedding_length", shape.hidden},
        Field{"feed_forward_length", shape.ffn}, Field{"attention.head_count", shape.queryHeads},
        Field{"attention.head_count_kv", shape.keyValueHeads},
        Field{"ssm.time_step_rank", shape.valueHeads}, Field{"ssm.inner_size", inner}}) {
    if (Status status = readSize(reader, path, field.key, field.value); !status.ok()) {
      return status;
    }
  }
  // Blocks that predict further tokens come last and are left out.
  const int64_t extra = reader.integer(kPrefix + "nextn_predict_layers").value_or(0);
  if (extra < 0 || static_cast<uint64_t>(extra) >= shape.blocks) {
    return refuse(path, kPrefix + "nextn_predict_layers", "fewer than the blocks",
                  std::to_string(extra));
  }
  shape.blocks -= static_cast<uint64_t>(extra);
  const int64_t context = reader.integer(kPrefix + "context_length").value_or(0);
  shape.contextLength = context > 0 ? static_cast<uint64_t>(context) : 0;
  for (const SourceTensor& tensor : reader.tensors()) {
    if (tensor.name == "token_embd.weight" && tensor.dims.size() > 1) {
      shape.vocabulary = tensor.dims[1];
    }
  }
  if (Status status = checkShape(path, shape); !status.ok()) return status;
  if (inner != shape.valueHeads * kLinearHeadSize) {
    return refuse(path, kPrefix + "ssm.inner_size",
                  std::to_string(shape.valueHeads * kLinearHeadSize), std::to_string(inner));
  }
  return Status::success();
}

}  // namespace

Status readGgufModel(const std::string& path, SourceModel& out) {
  GgufReader reader;
  if (Status status = reader.open(path); !status.ok()) return status;
  out = {};
  out.format = "GGUF";
  out.path = path;
  if (Status status = checkArchitecture(reader, path); !status.ok()) return status;
  if (Status status = checkConstants(reader, path); !status.ok()) return status;
  if (Status status = readShape(reader, path, out.shape); !status.ok()) return status;
  if (const std::string* name = reader.string("general.name")) out.name = *name;
  if (const std::string* text = reader.string("tokenizer.chat_template")) out.chatTemplate = *text;
  if (Status status = readGgufTokenizer(reader, out.shape.vocabulary, out.tokenizer);
      !status.ok()) {
    return status;
  }
  out.tensors = reader.tensors();
  return mapTensors(out, "", "output.weight");
}

}  // namespace orb
