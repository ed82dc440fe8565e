#include "orb/container_errors.h"

#include <array>
#include <string_view>

namespace orb {
namespace {

struct Explanation {
  std::string_view message;
  std::string_view text;
};

constexpr std::string_view kNoModel = "; this is no .orb model";
constexpr std::string_view kDamaged = "; the file is damaged or was cut short";

constexpr std::array<Explanation, 25> kExplanations{{
    {"ORB2: cannot open file", "expected a readable file, found none; check path and permissions"},
    {"ORB2: cannot stat file",
     "expected a file with content of less than 2 GiB, found an empty or larger one"},
    {"ORB2: mmap failed", "expected address space for the whole file, found too little"},
    {"ORB2: file too small", "expected a header of 64 bytes, found a shorter file"},
    {"ORB2: bad magic", "expected \"ORB2\" at the start, found something else"},
    {"ORB2: unsupported version", "expected format version 2, found another one"},
    {"ORB2: big-endian files unsupported", "expected little-endian numbers, found others"},
    {"ORB2: truncated section table", "expected a section table after the header, found the end"},
    {"ORB2: too many sections", "expected at most 16 sections, found more"},
    {"ORB2: CRC mismatch", "expected a header with its checksum, found another checksum"},
    {"ORB2: missing tensor index", "expected a tensor index of 128 bytes a tensor, found none"},
    {"ORB2: bad section bounds",
     "expected sections at multiples of 64 inside the file, found one elsewhere"},
    {"ORB2: bad quant info", "expected 32 bytes of quantization info a tensor, found fewer"},
    {"ORB2: missing weight data", "expected a section of weights, found none"},
    {"ORB2: missing meta section", "expected a metadata section, found none"},
    {"ORB2: bad meta key", "expected a metadata key, found the end of the section"},
    {"ORB2: bad meta type", "expected the type of a metadata value, found the end of the section"},
    {"ORB2: unknown meta type", "expected a metadata type of 0 to 5, found another number"},
    {"ORB2: bad meta u32", "expected a u32 metadata value, found the end of the section"},
    {"ORB2: bad meta i32", "expected an i32 metadata value, found the end of the section"},
    {"ORB2: bad meta f32", "expected an f32 metadata value, found the end of the section"},
    {"ORB2: bad meta u64", "expected a u64 metadata value, found the end of the section"},
    {"ORB2: bad meta str", "expected a metadata string, found the end of the section"},
    {"ORB2: bad meta array", "expected a metadata array, found the end of the section"},
    {"ORBLoader: no tokenizer section", "expected a tokenizer section that decodes, found none"},
}};

// Failures of the first kind say what the file is not; the others what happened to it.
std::string_view adviceFor(std::string_view message) {
  if (message == "ORB2: bad magic" || message == "ORB2: file too small" ||
      message == "ORB2: unsupported version" || message == "ORB2: big-endian files unsupported") {
    return kNoModel;
  }
  if (message == "ORB2: cannot open file" || message == "ORB2: cannot stat file" ||
      message == "ORB2: mmap failed") {
    return "";
  }
  return kDamaged;
}

}  // namespace

std::string explainContainerError(const std::string& message) {
  for (const Explanation& entry : kExplanations) {
    if (entry.message != message) continue;
    return std::string(entry.text) + " (" + message + ")" + std::string(adviceFor(message));
  }
  return message;
}

}  // namespace orb
