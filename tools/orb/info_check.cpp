#include <algorithm>
#include <string_view>
#include <unordered_set>

#include "model/model.h"
#include "model/validation.h"
#include "orb/info_report.h"
#include "orb/text.h"

namespace orb {
namespace {

using kiv::ORBLoader;
using kiv::TokenizerData;

class Checker {
 public:
  Checker(const ORBLoader& loader, InfoReport& report) : loader_(loader), report_(report) {}

  void run() {
    architecture();
    indexOrder();
    if (report_.tokenizer.readable) {
      tokenTypes();
      specialIds();
      tokenCount();
      merges();
    } else {
      refuse("tokenizer", "a tokenizer section with at least one token", "none that can be read");
    }
    if (loader_.opened) binding();  // without a tokenizer no tensor is found by name
  }

 private:
  void refuse(std::string subject, std::string expected, std::string found) {
    report_.findings.push_back({true, std::move(subject), std::move(expected), std::move(found)});
  }

  void remark(std::string subject, std::string expected, std::string found) {
    report_.findings.push_back({false, std::move(subject), std::move(expected), std::move(found)});
  }

  void architecture() {
    std::string name;
    const bool present = loader_.reader.getMetaStr("general.architecture", name);
    if (name == "qwen35") return;
    refuse("general.architecture", "qwen35", present ? "\"" + name + "\"" : "no such metadata");
  }

  // Tensors are found by binary search.
  void indexOrder() {
    for (size_t i = 1; i < loader_.tensors.size(); ++i) {
      const std::string& before = loader_.tensors[i - 1].name;
      const std::string& name = loader_.tensors[i].name;
      if (before < name) continue;
      refuse("tensor index", "names in ascending order, each once",
             "\"" + name + "\" after \"" + before + "\"");
      return;
    }
  }

  void tokenTypes() {
    const TokenizerData& data = loader_.tokenizer;
    if (data.types.size() != data.tokens.size()) {
      remark("token types", std::to_string(data.tokens.size()) + ", one a token",
             std::to_string(data.types.size()) + ", so that no token is special");
      return;
    }
    for (const char* name : {"<|im_start|>", "<|im_end|>"}) {
      const auto found = std::find(data.tokens.begin(), data.tokens.end(), name);
      if (found == data.tokens.end()) {
        remark(name, "a special token for chat turns", "none");
        continue;
      }
      const int32_t type = data.types[static_cast<size_t>(found - data.tokens.begin())];
      if (type != 2 && type != 3) {
        remark(name, "type 2 or 3 (special)", "type " + std::to_string(type));
      }
    }
  }

  void specialIds() {
    const auto count = static_cast<int64_t>(loader_.tokenizer.tokens.size());
    for (const auto& [name, id] : report_.tokenizer.ids) {
      if (id < count) continue;
      remark("id of " + name, "below " + std::to_string(count) + " or -1", std::to_string(id));
    }
  }

  void tokenCount() {
    const uint64_t tokens = report_.tokenizer.tokens;
    if (tokens == report_.model.vocabulary) return;
    remark("tokens", std::to_string(report_.model.vocabulary) + ", the rows of token_embd.weight",
           std::to_string(tokens));
  }

  // A rule whose product is no token only loses text.
  void merges() {
    std::unordered_set<std::string_view> tokens(loader_.tokenizer.tokens.begin(),
                                                loader_.tokenizer.tokens.end());
    uint64_t useless = 0;
    for (const std::string& rule : loader_.tokenizer.merges) {
      const size_t space = rule.find(' ');
      const std::string product =
          space == std::string::npos ? "" : rule.substr(0, space) + rule.substr(space + 1);
      if (product.empty() || tokens.count(product) == 0) ++useless;
    }
    if (useless > 0) {
      remark("merge rules", "rules \"left right\" whose product is a token",
             std::to_string(useless) + " others");
    }
  }

  void binding() {
    add(qwen35::findGlobalDefects(loader_));
    for (size_t i = 0; i < qwen35::kLayerCount; ++i) add(qwen35::findBlockDefects(loader_, i));
  }

  void add(const std::vector<qwen35::BindingDefect>& defects) {
    for (const qwen35::BindingDefect& defect : defects) {
      refuse(defect.tensor, defect.expected, defect.found);
    }
  }

  const ORBLoader& loader_;
  InfoReport& report_;
};

}  // namespace

void checkModel(const ORBLoader& loader, InfoReport& report) {
  report.checked = true;
  Checker(loader, report).run();
}

}  // namespace orb
