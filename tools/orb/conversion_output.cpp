#include "orb/conversion_output.h"

#include <algorithm>
#include <cstdio>
#include <thread>
#include <utility>

#include "orb/exit_codes.h"
#include "orb/info_report.h"
#include "orb/model_session.h"
#include "orb/platform.h"
#include "orb/progress_bar.h"
#include "orb/table.h"

namespace orb {

using kiv::QuantType;
using kiv::Status;

const std::map<std::string, QuantType>& matrixTypes() {
  static const std::map<std::string, QuantType> kTypes{
      {"f32", QuantType::F32},   {"bf16", QuantType::BF16}, {"q8_0", QuantType::Q8_0},
      {"q4_k", QuantType::Q4_K}, {"q5_k", QuantType::Q5_K}, {"q6_k", QuantType::Q6_K}};
  return kTypes;
}

unsigned conversionThreads(const std::optional<int>& given) {
  if (given) return static_cast<unsigned>(*given);
  return std::max(1u, std::thread::hardware_concurrency());
}

std::string converterName() { return "orb " ORB_VERSION; }

Status withProgress(const std::function<Status(const ConversionProgress&)>& work) {
  const InterruptFlag interrupts(InterruptFlag::Scope::Work);
  ProgressBar bar;
  Status status = work([&](uint64_t done, uint64_t total) {
    bar.update(done, total);
    return !interrupts.isSet();
  });
  if (!status.ok() && interrupts.isSet()) status.message = "stopped; nothing was written";
  return status;
}

void printTypes(const ConversionReport& report) {
  struct Sum {
    uint64_t tensors = 0;
    uint64_t bytes = 0;
  };
  std::map<std::pair<std::string, std::string>, Sum> sums;
  for (const TensorRecord& tensor : report.tensors) {
    Sum& sum = sums[{tensor.sourceType, kiv::quantTypeName(tensor.type)}];
    ++sum.tensors;
    sum.bytes += tensor.bytes;
  }
  const char* title = "types      ";
  for (const auto& [types, sum] : sums) {
    const std::string change =
        types.first == types.second ? types.first : types.first + " to " + types.second;
    std::printf("%s%s: %u tensors, %s\n", std::exchange(title, "           "), change.c_str(),
                static_cast<unsigned>(sum.tensors), formatBytes(sum.bytes).c_str());
  }
}

void warnOfValues(const ConversionReport& report) {
  for (const TensorRecord& tensor : report.tensors) {
    if (tensor.findings.notFinite > 0) {
      printError("warning", tensor.name + ": " + std::to_string(tensor.findings.notFinite) +
                                " values are infinite or not numbers");
    } else if (tensor.suspicious()) {
      printError("warning", tensor.name + ": values of up to " +
                                format("%g", static_cast<double>(tensor.findings.largest)) +
                                ", which no trained model has");
    }
  }
}

int checkResult(const std::string& path, double seconds) {
  InfoReport report;
  kiv::ORBLoader loader;
  if (!fileSize(path, report.fileBytes)) return fail(path, "the file is not there");
  const bool large = report.fileBytes >= kLargeFileBytes;
  Status status = loader.open(path.c_str(), large);
  if (!status.ok()) return fail(path, "written, but does not open: " + status.message);
  collectInfo(loader, report);
  checkModel(loader, report);
  for (const CheckFinding& finding : report.findings) {
    if (!finding.failure) continue;
    return fail(path, "written, but the runtime refuses it: " + finding.subject + ": expected " +
                          finding.expected + ", found " + finding.found);
  }
  if (large) {
    std::printf(
        "size       2 GiB or more: other hosts than orb open it with QWEN35_LARGE_FILES=1\n");
  }
  std::printf("%s: %s in %s, checked; talk to it: orb chat %s\n", printable(path).c_str(),
              formatBytes(report.fileBytes).c_str(), formatDuration(seconds).c_str(),
              printable(path).c_str());
  return kOk;
}

}  // namespace orb
