#include "orb/info_report.h"
#include "orb/table.h"
#include "orb/text.h"

namespace orb {
namespace {

constexpr size_t kMaxTextBytes = 160;  // of a metadata string in the table
constexpr const char* kIndent = "  ";

std::string shape(const std::vector<uint64_t>& dims) {
  std::string text;
  for (const uint64_t dim : dims) text += (text.empty() ? "" : " x ") + std::to_string(dim);
  return text.empty() ? "-" : text;
}

std::string headerText(const InfoReport& report) {
  const kiv::orb2::FileHeader& h = report.header;
  return printable(report.file) + ": " + formatBytes(report.fileBytes) + ", ORB2 version " +
         std::to_string(h.version) + "\nheader  " + std::to_string(h.sectionCount) + " sections, " +
         std::to_string(h.tensorCount) + " tensors, words " + std::to_string(h.wordA) + ' ' +
         std::to_string(h.wordB) + ' ' + std::to_string(h.wordC) + '\n';
}

std::string sectionsText(const InfoReport& report) {
  Table table({{"SECTION"},
               {"TYPE", Table::Align::Right},
               {"OFFSET", Table::Align::Right},
               {"BYTES", Table::Align::Right}});
  for (const SectionFacts& section : report.sections) {
    table.addRow({section.name, std::to_string(section.type), std::to_string(section.offset),
                  std::to_string(section.size)});
  }
  return '\n' + table.text(kIndent);
}

std::string metadataText(const InfoReport& report) {
  Table table({{"METADATA"}, {"TYPE"}, {"VALUE"}});
  for (const MetaFacts& meta : report.metadata) {
    table.addRow({printable(meta.key), meta.type, printable(meta.text, kMaxTextBytes)});
  }
  return '\n' + table.text(kIndent);
}

std::string tokenizerText(const InfoReport& report) {
  const TokenizerFacts& t = report.tokenizer;
  if (!t.readable) return "\ntokenizer  none that can be read\n";
  std::string text = "\ntokenizer  \"" + printable(t.model, kMaxTextBytes) + "\", " +
                     std::to_string(t.tokens) + " tokens (" + std::to_string(t.special) +
                     " special), " + std::to_string(t.merges) + " merge rules, space marker " +
                     (t.byteLevel ? "U+0120 (byte-level)" : "U+2581") + "\n  ids:";
  const char* separator = " ";
  for (const auto& [name, id] : t.ids) {
    text += separator + name + ' ' + std::to_string(id);
    separator = ", ";
  }
  return text + '\n';
}

std::string blocksText(const ModelFacts& model) {
  std::string text = "\nmodel  hidden " + std::to_string(model.hidden) + ", vocabulary " +
                     std::to_string(model.vocabulary) + ", " + formatCount(model.parameters) +
                     " parameters stored\n  " + std::to_string(model.linearBlocks) +
                     " linear and " + std::to_string(model.fullBlocks) + " full blocks: ";
  for (size_t i = 0; i < model.blocks.size(); ++i) {
    if (i > 0 && i % 4 == 0) text += ' ';
    text += model.blocks[i];
  }
  return text + "  (l linear, f full, - missing)\n";
}

std::string tensorsText(const ModelFacts& model) {
  Table table({{"TENSOR"}, {"TYPE"}, {"SHAPE"}, {"BYTES", Table::Align::Right}, {"SAME BYTES AS"}});
  for (const TensorFacts& tensor : model.tensors) {
    table.addRow({printable(tensor.name), tensor.type, shape(tensor.dims),
                  std::to_string(tensor.size), printable(tensor.sharedWith)});
  }
  return '\n' + table.text(kIndent);
}

std::string memoryText(const InfoReport& report) {
  const MemoryFacts& m = report.model.memory;
  const std::string context = std::to_string(report.context);
  Table table({{"MEMORY"}, {"", Table::Align::Right}, {""}});
  table.addRow({"mapped file", formatBytes(m.mapping), "resident as far as it is read"});
  table.addRow({"states", formatBytes(m.states),
                "of the linear blocks, half of it while prompts are taken in"});
  table.addRow({"key/value caches", formatBytes(m.cachePerPosition),
                "a position; " + formatBytes(m.cachePerPosition * report.context) + " at " +
                    context + ", taken as they fill"});
  table.addRow({"workspace", formatBytes(m.workspace), "about, while prompts are taken in"});
  table.addRow({"tokenizer", formatBytes(m.tokenizer), "about"});
  return '\n' + table.text(kIndent) +
         format("\none token reads %s of weights; kernel tier %s\n",
                formatBytes(report.model.readPerToken).c_str(), report.tier.c_str());
}

std::string checkText(const InfoReport& report) {
  if (!report.checked) return "";
  std::string text = "\ncheck\n";
  for (const CheckFinding& finding : report.findings) {
    text += format("  %s  %s: expected %s, found %s\n", finding.failure ? "FAILED" : "remark",
                   printable(finding.subject).c_str(), printable(finding.expected).c_str(),
                   printable(finding.found).c_str());
  }
  return text + (report.failed() ? "  the runtime refuses this file\n"
                                 : "  the runtime takes this file\n");
}

Json tensorJson(const TensorFacts& tensor) {
  Json json{{"name", tensor.name},
            {"type", tensor.type},
            {"shape", tensor.dims},
            {"offset", tensor.offset},
            {"bytes", tensor.size}};
  if (!tensor.sharedWith.empty()) json["sameBytesAs"] = tensor.sharedWith;
  return json;
}

Json tokenizerJson(const TokenizerFacts& t) {
  if (!t.readable) return nullptr;
  Json ids = Json::object();
  for (const auto& [name, id] : t.ids) ids[name] = id;
  return {{"model", t.model},   {"tokens", t.tokens},       {"special", t.special},
          {"merges", t.merges}, {"byteLevel", t.byteLevel}, {"ids", ids}};
}

Json modelJson(const InfoReport& report) {
  const ModelFacts& model = report.model;
  Json tensors = Json::array();
  for (const TensorFacts& tensor : model.tensors) tensors.push_back(tensorJson(tensor));
  return {{"hidden", model.hidden},
          {"vocabulary", model.vocabulary},
          {"parameters", model.parameters},
          {"blocks", model.blocks},
          {"linearBlocks", model.linearBlocks},
          {"fullBlocks", model.fullBlocks},
          {"readBytesPerToken", model.readPerToken},
          {"memory",
           {{"mapping", model.memory.mapping},
            {"states", model.memory.states},
            {"cachePerPosition", model.memory.cachePerPosition},
            {"context", report.context},
            {"workspace", model.memory.workspace},
            {"tokenizer", model.memory.tokenizer}}},
          {"tensors", std::move(tensors)}};
}

}  // namespace

std::string infoText(const InfoReport& report) {
  return headerText(report) + sectionsText(report) + metadataText(report) + tokenizerText(report) +
         blocksText(report.model) + tensorsText(report.model) + memoryText(report) +
         checkText(report);
}

Json infoJson(const InfoReport& report) {
  Json sections = Json::array();
  for (const SectionFacts& s : report.sections) {
    sections.push_back(
        {{"name", s.name}, {"type", s.type}, {"offset", s.offset}, {"bytes", s.size}});
  }
  Json metadata = Json::array();
  for (const MetaFacts& m : report.metadata) {
    metadata.push_back({{"key", m.key}, {"type", m.type}, {"value", m.value}});
  }
  const kiv::orb2::FileHeader& h = report.header;
  Json json{{"file", report.file},
            {"bytes", report.fileBytes},
            {"version", h.version},
            {"words", {h.wordA, h.wordB, h.wordC}},
            {"tier", report.tier},
            {"sections", std::move(sections)},
            {"metadata", std::move(metadata)},
            {"textBytes", report.textBytes},
            {"tokenizer", tokenizerJson(report.tokenizer)},
            {"model", modelJson(report)}};
  if (!report.checked) return json;
  Json findings = Json::array();
  for (const CheckFinding& f : report.findings) {
    findings.push_back({{"failure", f.failure},
                        {"subject", f.subject},
                        {"expected", f.expected},
                        {"found", f.found}});
  }
  json["check"] = {{"passed", !report.failed()}, {"findings", std::move(findings)}};
  return json;
}

}  // namespace orb
