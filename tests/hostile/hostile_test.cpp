// Files with one defect each, through the whole chain: probe, create and a generation through the
// tables, and what `orb info --check` finds. Each step has one right answer, takes little time and
// no memory that the file does not account for.
#include <gtest/gtest.h>

#include <array>
#include <ctime>

#include "hostile/counted_new.h"
#include "hostile/hostile_case.h"
#include "model/environment.h"
#include "orb/info_report.h"

namespace orbtest {
namespace {

#if ORB_INSTRUMENTED
constexpr double kSlower = 20;
#else
constexpr double kSlower = 1;
#endif
constexpr double kMostSeconds = 0.5 * kSlower;  // of processor time, for the whole chain

// What a file may cost on the heap. An empty token takes 4 bytes there and about 100 here: a
// string, its places in two indexes, its entry among the specials.
size_t mostBytes(size_t fileBytes) { return 1000000 + 32 * fileBytes; }

const ORBRuntimeV2& table() { return *orb_plugin_runtimes_v2(nullptr); }

void expectProbe(const HostileCase& test, const char* path) {
  ORBRuntimeProbe verdict{};
  EXPECT_EQ(table().probe(path, &verdict), ORB_OK);
  EXPECT_EQ(verdict.score, test.probed ? uint32_t{ORB_PROBE_SCORE_SERVED} : 0u);
}

void expectCreate(const HostileCase& test, const char* path) {
  ORBRuntimeHandle* handle = nullptr;
  std::array<char, 128> message{};
  const int result = table().create(path, nullptr, &handle, message.data(), message.size());
  EXPECT_STREQ(message.data(), test.message.c_str());
  EXPECT_EQ(result, test.message.empty() ? ORB_OK : ORB_FAILED);
  EXPECT_EQ(handle != nullptr, test.message.empty());
  if (handle == nullptr) return;
  std::array<char, 64> text{};
  EXPECT_EQ(table().generate(handle, "aaa", text.data(), text.size()), test.generated);
  EXPECT_EQ(table().generate(handle, "aaa", text.data(), text.size()), test.generated);
  table().destroy(handle);
}

// The reader's message, or the subject of the first failure, or nothing.
std::string firstFinding(const char* path) {
  kiv::ORBLoader loader;
  const kiv::Status status = loader.open(path);
  if (!loader.reader.opened()) return status.message;
  orb::InfoReport report;
  report.context = 8192;
  orb::collectInfo(loader, report);
  orb::checkModel(loader, report);
  EXPECT_FALSE(orb::infoText(report).empty());
  for (const orb::CheckFinding& finding : report.findings) {
    if (finding.failure) return finding.subject;
  }
  return "";
}

void run(const HostileCase& test) {
  SCOPED_TRACE(test.name);
  const EnvironmentVariable fewTokens("QWEN35_MAX_TOKENS", "3");
  const File file = test.file();
  const TempFile onDisk(file);
  const size_t before = allocationCounts().live;
  resetAllocationCounts();
  const std::clock_t start = std::clock();
  expectProbe(test, onDisk.path());
  expectCreate(test, onDisk.path());
  EXPECT_EQ(firstFinding(onDisk.path()), test.finding);
  const double seconds = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
  EXPECT_LT(seconds, kMostSeconds);
  EXPECT_LT(allocationCounts().peak - before, mostBytes(file.size()));
}

void runAll(const std::vector<HostileCase>& cases, size_t atLeast) {
  for (const HostileCase& test : cases) run(test);
  EXPECT_GE(cases.size(), atLeast);
  testing::Test::RecordProperty("cases", static_cast<int>(cases.size()));
}

TEST(HostileFileTest, HeadersAndSectionTables) { runAll(containerCases(), 70); }
TEST(HostileFileTest, Metadata) { runAll(metadataCases(), 30); }
TEST(HostileFileTest, TensorIndexes) { runAll(indexCases(), 16); }
TEST(HostileFileTest, TensorsInTheirRoles) { runAll(roleCases(), 400); }
TEST(HostileFileTest, Tokenizers) { runAll(tokenizerCases(), 49); }
TEST(HostileFileTest, WeightsThatAreNoNumbers) { runAll(weightCases(), 12); }

}  // namespace
}  // namespace orbtest
