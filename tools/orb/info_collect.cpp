#include <algorithm>
#include <array>
#include <cstring>

#include "model/kernels/kernel_table.h"
#include "orb/info_report.h"
#include "orb/text.h"
#include "tokenizer/tokenizer.h"

namespace orb {
namespace {

using kiv::ORB2Reader;
using kiv::ORBLoader;
using kiv::orb2::MetaType;
using kiv::orb2::SectionEntry;
using kiv::orb2::SectionType;

constexpr uint64_t kTableOffset = sizeof(kiv::orb2::FileHeader);
constexpr size_t kShownElements = 8;

std::string sectionName(uint32_t type) {
  switch (static_cast<SectionType>(type)) {
    case SectionType::Meta:
      return "metadata";
    case SectionType::Tokenizer:
      return "tokenizer";
    case SectionType::Text:
      return "text";
    case SectionType::TensorIndex:
      return "tensor index";
    case SectionType::WeightData:
      return "weights";
    case SectionType::QuantInfo:
      return "quantization info";
  }
  return "unknown";
}

std::vector<SectionFacts> listSections(const ORB2Reader& reader) {
  std::vector<SectionFacts> list;
  for (uint32_t i = 0; i < reader.header().sectionCount; ++i) {
    SectionEntry entry;
    std::memcpy(&entry, reader.mapping() + kTableOffset + i * sizeof entry, sizeof entry);
    list.push_back({sectionName(entry.type), entry.type, entry.offset, entry.size});
  }
  return list;
}

MetaFacts describeArray(MetaFacts facts, const std::vector<uint32_t>& values) {
  facts.type = "u32[" + std::to_string(values.size()) + "]";
  facts.value = values;
  for (size_t i = 0; i < std::min(values.size(), kShownElements); ++i) {
    facts.text += (i > 0 ? ", " : "") + std::to_string(values[i]);
  }
  if (values.size() > kShownElements) facts.text += ", ...";
  return facts;
}

MetaFacts describe(const ORB2Reader::MetaEntryView& entry) {
  MetaFacts facts;
  facts.key = entry.key;
  switch (static_cast<MetaType>(entry.type)) {
    case MetaType::U32:
      return {entry.key, "u32", std::to_string(entry.u32), entry.u32};
    case MetaType::I32:
      return {entry.key, "i32", std::to_string(entry.i32), entry.i32};
    case MetaType::F32:
      return {entry.key, "f32", format("%g", static_cast<double>(entry.f32)), entry.f32};
    case MetaType::U64:
      return {entry.key, "u64", std::to_string(entry.u64), entry.u64};
    case MetaType::String:
      return {entry.key, "string", entry.str, entry.str};
    case MetaType::U32Array:
      return describeArray(std::move(facts), entry.u32Array);
  }
  return facts;
}

std::vector<MetaFacts> listMetadata(const ORB2Reader& reader) {
  std::vector<MetaFacts> list;
  ORB2Reader::MetaEntryView entry;
  for (uint64_t i = 0; reader.metaAt(i, entry); ++i) list.push_back(describe(entry));
  return list;
}

TokenizerFacts describeTokenizer(const ORBLoader& loader) {
  TokenizerFacts facts;
  kiv::Tokenizer tokenizer;
  facts.readable = loader.opened && tokenizer.load(loader.tokenizer).ok();
  if (!facts.readable) return facts;
  facts.model = tokenizer.model();
  facts.byteLevel = tokenizer.byteLevel();
  facts.tokens = tokenizer.tokenCount();
  facts.special = tokenizer.specialCount();
  facts.merges = tokenizer.mergeCount();
  facts.ids = {{"beginning of sequence", tokenizer.bosId()},
               {"end of sequence", tokenizer.eosId()},
               {"unknown", tokenizer.unknownId()},
               {"padding", tokenizer.paddingId()}};
  return facts;
}

}  // namespace

bool InfoReport::failed() const {
  return std::any_of(findings.begin(), findings.end(), [](const auto& f) { return f.failure; });
}

void collectInfo(const ORBLoader& loader, InfoReport& report) {
  report.header = loader.reader.header();
  report.textBytes = loader.reader.sectionSize(SectionType::Text);
  report.tier = qwen35::selectKernels(std::getenv("QWEN35_ISA")).name;
  report.sections = listSections(loader.reader);
  report.metadata = listMetadata(loader.reader);
  report.tokenizer = describeTokenizer(loader);
  report.model = collectModelFacts(loader);
}

}  // namespace orb
