// Everything `orb info` says about a file, gathered before any of it is printed.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "format/loader.h"
#include "orb/json_output.h"
#include "orb/model_facts.h"

namespace orb {

struct SectionFacts {
  std::string name;
  uint32_t type = 0;
  uint64_t offset = 0;
  uint64_t size = 0;
};

struct MetaFacts {
  std::string key;
  std::string type;
  std::string text;  // as printed
  Json value;
};

struct TokenizerFacts {
  bool readable = false;
  std::string model;
  bool byteLevel = false;
  uint64_t tokens = 0;
  uint64_t special = 0;
  uint64_t merges = 0;
  std::vector<std::pair<std::string, int32_t>> ids;  // "beginning of sequence" and so on
};

// One finding of the checks. A failure means that the runtime refuses the file.
struct CheckFinding {
  bool failure = false;
  std::string subject;  // tensor, section or setting
  std::string expected;
  std::string found;
};

struct InfoReport {
  std::string file;
  uint64_t fileBytes = 0;
  kiv::orb2::FileHeader header{};
  uint64_t textBytes = 0;
  uint64_t context = 0;  // positions that the caches are reckoned for
  std::string tier;
  std::vector<SectionFacts> sections;
  std::vector<MetaFacts> metadata;
  TokenizerFacts tokenizer;
  ModelFacts model;
  bool checked = false;
  std::vector<CheckFinding> findings;

  bool failed() const;
};

// Fills sections, metadata, tokenizer, tensors and memory from a loader whose reader is open.
void collectInfo(const kiv::ORBLoader& loader, InfoReport& report);

// Runs every check and adds what it finds: the runtime's own checks of architecture, tokenizer and
// binding as failures, and what makes a model less useful as remarks.
void checkModel(const kiv::ORBLoader& loader, InfoReport& report);

std::string infoText(const InfoReport& report);
Json infoJson(const InfoReport& report);

}  // namespace orb
