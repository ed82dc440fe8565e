// Loading and the four exported functions.
#include <chrono>
#include <thread>

#include "validate/handle.h"
#include "validate/platform.h"
#include "validate/test.h"

namespace orb::validate {
namespace {

bool load(Test& test, Plugin& plugin) {
  std::string error;
  return test.expect(plugin.load(test.subject.plugin, error), "the library does not load: %s",
                     error.c_str());
}

void libraryLoads(Test& test) { load(test, test.plugin); }

void entryPointsAreExported(Test& test) {
  Plugin& plugin = test.plugin;
  if (!load(test, plugin)) return;
  test.expect(plugin.init != nullptr, "no function orb_plugin_init");
  test.expect(plugin.runtimes != nullptr, "no function orb_plugin_runtimes");
  test.expect(plugin.runtimesV2 != nullptr, "no function orb_plugin_runtimes_v2");
  test.expect(plugin.runtimesV2S != nullptr, "no function orb_plugin_runtimes_v2s");
}

// Bounds of processor time: the wall clock of a busy machine says little.
void loadingDoesNoWork(Test& test) {
  constexpr double kMost = 0.020;
  const int threads = threadCount();
  const double before = processorSeconds();
  if (!load(test, test.plugin)) return;
  const double taken = processorSeconds() - before;
  test.expect(taken < kMost, "loading took %.1f ms of processor time, expected less than %.0f",
              taken * 1000, kMost * 1000);
  test.expectEqual("threads after loading", threadCount(), threads);
  test.note("loading took %.2f ms of processor time", taken * 1000);
  std::string error;
  if (!test.plugin.findTables(error)) return;
  test.expectEqual("threads after the tables were read", threadCount(), threads);
}

void loadingLeavesTheProcessAlone(Test& test) {
  const auto before = surroundings();
  const std::vector<std::string> files = openFiles();
  const int64_t written = bytesWritten();
  if (!load(test, test.plugin)) return;
  std::string error;
  test.plugin.findTables(error);
  std::fflush(nullptr);
  if (written >= 0) test.expectEqual("bytes written while loading", bytesWritten(), written);
  const auto after = surroundings();
  for (size_t i = 0; i < before.size(); ++i) {
    test.expectText(before[i].first.c_str(), after[i].second, before[i].second);
  }
  test.expect(openFiles() == files, "loading left a file open");
}

void unloadsAndLoadsAgain(Test& test) {
  constexpr int kRounds = 20;
  for (int round = 0; round < kRounds; ++round) {
    Plugin plugin;
    if (!load(test, plugin)) return;
    std::string error;
    if (!test.expect(plugin.findTables(error), "round %d: %s", round, error.c_str())) return;
    plugin.runtime->destroy(nullptr);
  }
}

void unloadsAfterUse(Test& test) {
  constexpr int kRounds = 3;
  for (int round = 0; round < kRounds; ++round) {
    Handle handle(test);
    if (!handle.ok()) return;
    handle.chat("Hello");
  }
  test.plugin.unload();
  sleepMilliseconds(50);  // for what may still run in there
}

}  // namespace

std::vector<TestCase> loadTests() {
  return {{"load.library_loads", Need::File, libraryLoads},
          {"load.entry_points_are_exported", Need::File, entryPointsAreExported},
          {"load.loading_does_no_work", Need::File, loadingDoesNoWork},
          {"load.loading_leaves_the_process_alone", Need::File, loadingLeavesTheProcessAlone},
          {"load.unloads_and_loads_again", Need::Tables, unloadsAndLoadsAgain},
          {"load.unloads_after_use", Need::Model, unloadsAfterUse}};
}

}  // namespace orb::validate
