// One file with one defect, and what each step of the chain makes of it.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "hostile/smallest_model.h"
#include "orb_plugin.h"

namespace orbtest {

using File = std::vector<uint8_t>;

inline constexpr const char* kOpenFailed = "orb open failed";
inline constexpr const char* kNoTokens = "tokenizer load failed";
inline constexpr const char* kBlockFailed = "qwen35 layer bind failed";
inline constexpr const char* kModelFailed = "qwen35 model bind failed";
inline constexpr const char* kCreated = "";

struct HostileCase {
  std::string name;
  std::function<File()> file;
  bool probed;          // whether the probe says that the runtime serves it
  std::string message;  // of create, kCreated when there is none
  std::string finding;  // of `orb info --check`: the reader's message, or the subject of the first
                        // failure; empty for a file that passes
  int generated = ORB_OK;  // result of a generation, where create succeeds
};

// Table entries of smallestModel().build(), in file order.
inline constexpr size_t kWeightSection = 0, kTokenizerSection = 1, kMetaSection = 2,
                        kIndexSection = 3;
inline constexpr size_t kSections = 4;

// The valid file, built once.
inline const File& validFile() {
  static const File file = smallestModel().build();
  return file;
}

inline uint64_t sectionOffset(size_t section, const File& file = validFile()) {
  return peek<uint64_t>(file, tableField(section, 8));
}
inline uint64_t sectionSize(size_t section, const File& file = validFile()) {
  return peek<uint64_t>(file, tableField(section, 16));
}

// The cases of each source.
std::vector<HostileCase> containerCases();
std::vector<HostileCase> metadataCases();
std::vector<HostileCase> indexCases();
std::vector<HostileCase> roleCases();
std::vector<HostileCase> tokenizerCases();
std::vector<HostileCase> weightCases();

}  // namespace orbtest
