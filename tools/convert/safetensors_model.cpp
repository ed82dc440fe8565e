// What config.json and tokenizer.json of a safetensors folder say about a model.
#include <algorithm>
#include <cmath>
#include <filesystem>

#include "convert/guarded_json.h"
#include "convert/safetensors_reader.h"
#include "convert/source_model.h"

namespace orb {
namespace {

using Json = nlohmann::json;
using kiv::Status;

constexpr uint64_t kMaxConfigBytes = uint64_t{1} << 20;
constexpr uint64_t kMaxTokenizerBytes = uint64_t{64} << 20;  // real ones: 10 to 25 MB

// The text model's settings, nested in text_config or at the top.
class Config {
 public:
  Status read(const std::string& path) {
    path_ = path;
    if (Status status = readGuardedJson(path, kMaxConfigBytes, top_); !status.ok()) return status;
    if (!top_.is_object()) return Status::invalidFormat(path + ": expected a JSON object");
    const auto nested = top_.find("text_config");
    text_ = nested != top_.end() && nested->is_object() ? &*nested : &top_;
    return Status::success();
  }

  // The setting, nested first; null when absent.
  const Json* find(const char* key) const {
    for (const Json* level : {text_, static_cast<const Json*>(&top_)}) {
      const auto found = level->find(key);
      if (found != level->end() && !found->is_null()) return &*found;
    }
    return nullptr;
  }

  Status refuse(const std::string& key, const std::string& expected, const Json* found) const {
    return Status::invalidFormat(
        path_ + ": " + key + ": expected " + expected + ", found " +
        (found == nullptr
             ? "none"
             : found->dump(-1, ' ', true, Json::error_handler_t::replace).substr(0, 100)));
  }

  Status size(const char* key, uint64_t& out) const {
    const Json* value = find(key);
    if (value == nullptr || !value->is_number_unsigned()) return refuse(key, "a size", value);
    out = value->get<uint64_t>();
    return Status::success();
  }

 private:
  std::string path_;
  Json top_;
  const Json* text_ = nullptr;
};

Status checkArchitecture(const Config& config) {
  for (const char* key : {"num_experts", "num_local_experts", "num_routed_experts"}) {
    const Json* experts = config.find(key);
    if (experts != nullptr && *experts != 0) {
      return config.refuse(key, "a dense model, no mixture of experts", experts);
    }
  }
  const Json* type = config.find("model_type");
  const std::string name = type != nullptr && type->is_string() ? type->get<std::string>() : "";
  if (name.find("moe") != std::string::npos) {
    return config.refuse("model_type", "a dense model, no mixture of experts", type);
  }
  // Such as "qwen3_5" and, for the text model alone, "qwen3_5_text".
  if (name.find("qwen3_5") == std::string::npos && name.find("qwen35") == std::string::npos) {
    return config.refuse("model_type", "\"qwen3_5\"", type);
  }
  return Status::success();
}

// Rope settings stand in a record of their own, or beside the others.
const Json* findRope(const Config& config, const char* key) {
  for (const char* record : {"rope_parameters", "rope_scaling"}) {
    const Json* rope = config.find(record);
    if (rope == nullptr || !rope->is_object()) continue;
    const auto found = rope->find(key);
    if (found != rope->end()) return &*found;
  }
  return config.find(key);
}

// Values that the runtime has built in; one that is absent says nothing against it.
Status checkConstants(const Config& config) {
  struct Constant {
    const char* key;
    double value;
  };
  constexpr Constant kConstants[] = {
      {"head_dim", 256},
      {"linear_key_head_dim", 128},
      {"linear_value_head_dim", 128},
      {"linear_num_key_heads", 16},
      {"linear_conv_kernel_dim", 4},
      {"rms_norm_eps", 1e-6},
      {"rope_theta", 1e7},
      {"partial_rotary_factor", 0.25},
  };
  for (const auto& [key, value] : kConstants) {
    const Json* found = findRope(config, key);
    if (found == nullptr) continue;
    if (found->is_number() && std::fabs(found->get<double>() - value) <= 1e-5 * value) continue;
    return config.refuse(key, Json(value).dump(), found);
  }
  const Json* bias = config.find("attention_bias");
  if (bias != nullptr && *bias != false) return config.refuse("attention_bias", "false", bias);
  return Status::success();
}

Status readShape(const Config& config, const std::string& folder, ModelShape& shape) {
  struct Field {
    const char* key;
    uint64_t& value;
  };
  for (const Field& field :
       {Field{"num_hidden_layers", shape.blocks}, Field{"hidden_size", shape.hidden},
        Field{"intermediate_size", shape.ffn}, Field{"num_attention_heads", shape.queryHeads},
        Field{"num_key_value_heads", shape.keyValueHeads},
        Field{"linear_num_value_heads", shape.valueHeads}, Field{"vocab_size", shape.vocabulary}}) {
    if (Status status = config.size(field.key, field.value); !status.ok()) return status;
  }
  const Json* context = config.find("max_position_embeddings");
  if (context != nullptr && context->is_number_unsigned()) {
    shape.contextLength = context->get<uint64_t>();
  }
  return checkShape(folder, shape);
}

// The ids that generation ends and is padded with: a number, or a list whose first one counts.
int64_t readId(const Config& config, const char* key) {
  const Json* value = config.find(key);
  if (value != nullptr && value->is_array() && !value->empty()) value = &value->front();
  const bool usable = value != nullptr && value->is_number_unsigned() && *value <= INT32_MAX;
  return usable ? value->get<int64_t>() : -1;
}

// chat_template.jinja, or the text of that name in tokenizer_config.json. Optional: a template that
// cannot be read is left out.
std::string readChatTemplate(const std::string& folder) {
  std::string text;
  if (readTextFile(folder + "/chat_template.jinja", kMaxConfigBytes, text).ok()) return text;
  Json config;
  if (!readGuardedJson(folder + "/tokenizer_config.json", kMaxConfigBytes, config).ok()) return "";
  if (!config.is_object()) return "";
  const auto found = config.find("chat_template");
  return found != config.end() && found->is_string() ? found->get<std::string>() : "";
}

std::string nameOf(const Config& config, const std::string& folder) {
  const Json* given = config.find("_name_or_path");
  if (given != nullptr && given->is_string() && !given->get_ref<const std::string&>().empty()) {
    return given->get<std::string>();
  }
  std::error_code error;
  return utf8FromPath(std::filesystem::absolute(pathFromUtf8(folder + "/."), error)
                          .lexically_normal()
                          .parent_path()
                          .filename());
}

// Multimodal models keep the text model one level deeper.
std::string findPrefix(const std::vector<SourceTensor>& tensors) {
  std::string deeper = "model.language_model.";
  for (const SourceTensor& tensor : tensors) {
    if (tensor.name.compare(0, deeper.size(), deeper) == 0) return deeper;
  }
  return "model.";
}

}  // namespace

Status readSafetensorsModel(const std::string& folder, SourceModel& out) {
  out = {};
  out.format = "safetensors";
  out.path = folder;
  out.original = true;
  Config config;
  if (Status status = config.read(folder + "/config.json"); !status.ok()) return status;
  if (Status status = checkArchitecture(config); !status.ok()) return status;
  if (Status status = checkConstants(config); !status.ok()) return status;
  if (Status status = readShape(config, folder, out.shape); !status.ok()) return status;
  out.name = nameOf(config, folder);

  const std::string tokenizerPath = folder + "/tokenizer.json";
  Json tokenizer;
  if (Status status = readGuardedJson(tokenizerPath, kMaxTokenizerBytes, tokenizer); !status.ok()) {
    return status;
  }
  if (Status status =
          readJsonTokenizer(tokenizerPath, tokenizer, out.shape.vocabulary, out.tokenizer);
      !status.ok()) {
    return status;
  }
  out.tokenizer.endId = readId(config, "eos_token_id");
  out.tokenizer.paddingId = readId(config, "pad_token_id");
  out.chatTemplate = readChatTemplate(folder);

  if (Status status = readSafetensorsFolder(folder, out.tensors); !status.ok()) return status;
  const Json* tied = config.find("tie_word_embeddings");
  const bool hasOutput =
      std::any_of(out.tensors.begin(), out.tensors.end(),
                  [](const SourceTensor& tensor) { return tensor.name == "lm_head.weight"; });
  if (tied != nullptr && *tied == false && !hasOutput) {
    return config.refuse("tie_word_embeddings", "true, or an lm_head.weight", tied);
  }
  return mapTensors(out, findPrefix(out.tensors), "lm_head.weight");
}

}  // namespace orb
