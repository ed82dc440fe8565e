#include "convert/tokenizer_source.h"

#include <optional>

namespace orb {
namespace {

using Json = nlohmann::json;
using kiv::Status;

// Token types of GGUF files that mark text which stands for itself.
constexpr int64_t kControlType = 3;
constexpr int64_t kUserDefined = 4;

Status refuse(const std::string& subject, const std::string& expected, const std::string& found) {
  return Status::invalidFormat(subject + ": expected " + expected + ", found " + found);
}

// "left right"; false without exactly one space between two parts.
bool splitRule(const std::string& rule, TokenizerSource& out) {
  const size_t space = rule.find(' ', 1);
  if (space == std::string::npos || space + 1 == rule.size()) return false;
  out.merges.emplace_back(rule.substr(0, space), rule.substr(space + 1));
  return true;
}

Status checkCount(const std::string& subject, uint64_t count, uint64_t rows) {
  if (count == 0) return refuse(subject, "tokens", "none");
  if (count <= rows) return Status::success();
  return refuse(subject, "at most " + std::to_string(rows) + " tokens, the rows of the embedding",
                std::to_string(count));
}

// The tokens of a tokenizer.json by id.
class JsonTokens {
 public:
  JsonTokens(const std::string& subject, uint64_t rows, TokenizerSource& out)
      : subject_(subject), rows_(rows), out_(out) {}

  Status add(const std::string& text, const Json& id, bool added) {
    if (!id.is_number_unsigned() || id.get<uint64_t>() >= rows_) {
      return refuse(subject_ + ": token \"" + text + "\"",
                    "an id below " + std::to_string(rows_) + ", the rows of the embedding",
                    id.dump());
    }
    const auto index = id.get<uint64_t>();
    if (index >= out_.tokens.size()) {
      out_.tokens.resize(index + 1);
      out_.added.resize(index + 1);
      known_.resize(index + 1);
    }
    // An added token may be in the vocabulary too.
    if (known_[index] && !(added && out_.tokens[index] == text)) {
      return refuse(subject_ + ": token " + std::to_string(index), "one text",
                    "\"" + out_.tokens[index] + "\" and \"" + text + "\"");
    }
    known_[index] = true;
    out_.tokens[index] = text;
    out_.added[index] = added;
    return Status::success();
  }

 private:
  const std::string& subject_;
  uint64_t rows_;
  TokenizerSource& out_;
  std::vector<bool> known_;
};

// Rules are "left right" or [left, right].
Status readJsonMerges(const std::string& subject, const Json& list, TokenizerSource& out) {
  for (const Json& rule : list) {
    bool usable = false;
    if (rule.is_string()) {
      usable = splitRule(rule.get_ref<const std::string&>(), out);
    } else if (rule.is_array() && rule.size() == 2 && rule[0].is_string() && rule[1].is_string()) {
      out.merges.emplace_back(rule[0].get<std::string>(), rule[1].get<std::string>());
      usable = true;
    }
    if (!usable) {
      return refuse(subject + ": merge " + std::to_string(out.merges.size() + 1),
                    "\"left right\" or a pair", rule.dump().substr(0, 100));
    }
  }
  return Status::success();
}

}  // namespace

Status readGgufTokenizer(const GgufReader& reader, uint64_t rows, TokenizerSource& out) {
  const std::string& path = reader.file()->path();
  const std::string* model = reader.string("tokenizer.ggml.model");
  if (model == nullptr || *model != "gpt2") {
    return refuse(path + ": key tokenizer.ggml.model", "\"gpt2\" (byte-level)",
                  model == nullptr ? "none" : "\"" + *model + "\"");
  }
  const GgufStrings* tokens = reader.strings("tokenizer.ggml.tokens");
  const GgufStrings* merges = reader.strings("tokenizer.ggml.merges");
  const GgufNumbers* types = reader.numbers("tokenizer.ggml.token_type");
  if (tokens == nullptr || merges == nullptr) {
    return refuse(path, "the keys tokenizer.ggml.tokens and tokenizer.ggml.merges",
                  "not both of them");
  }
  if (Status status = checkCount(path, tokens->size(), rows); !status.ok()) return status;
  if (types != nullptr && types->size() != tokens->size()) {
    return refuse(path + ": key tokenizer.ggml.token_type",
                  std::to_string(tokens->size()) + " types, one a token",
                  std::to_string(types->size()));
  }
  out.tokens = *tokens;
  out.added.assign(tokens->size(), false);
  for (size_t i = 0; types != nullptr && i < types->size(); ++i) {
    out.added[i] = (*types)[i] == kControlType || (*types)[i] == kUserDefined;
  }
  for (const std::string& rule : *merges) {
    if (splitRule(rule, out)) continue;
    return refuse(path + ": merge " + std::to_string(out.merges.size() + 1), "\"left right\"",
                  "\"" + rule.substr(0, 100) + "\"");
  }
  out.endId = reader.integer("tokenizer.ggml.eos_token_id").value_or(-1);
  out.paddingId = reader.integer("tokenizer.ggml.padding_token_id").value_or(-1);
  return Status::success();
}

Status readJsonTokenizer(const std::string& subject, const Json& document, uint64_t rows,
                         TokenizerSource& out) {
  const Json none;
  const auto member = [&](const Json& object, const char* name) -> const Json& {
    if (!object.is_object()) return none;
    const auto found = object.find(name);
    return found == object.end() ? none : *found;
  };
  const Json& model = member(document, "model");
  const Json& vocabulary = member(model, "vocab");
  const Json& merges = member(model, "merges");
  if (member(model, "type") != "BPE" || !vocabulary.is_object() || !merges.is_array()) {
    return refuse(subject, "a model of type BPE with vocab and merges", "something else");
  }
  JsonTokens tokens(subject, rows, out);
  for (const auto& [text, id] : vocabulary.items()) {
    if (Status status = tokens.add(text, id, /*added=*/false); !status.ok()) return status;
  }
  const Json& added = member(document, "added_tokens");
  for (const Json& token : added.is_array() ? added : Json::array()) {
    const Json& text = member(token, "content");
    if (!text.is_string()) return refuse(subject, "added tokens with content", "one without");
    Status status =
        tokens.add(text.get_ref<const std::string&>(), member(token, "id"), /*added=*/true);
    if (!status.ok()) return status;
  }
  if (Status status = checkCount(subject, out.tokens.size(), rows); !status.ok()) return status;
  return readJsonMerges(subject, merges, out);
}

}  // namespace orb
