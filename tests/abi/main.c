/* The plug-in from the side of a host in C that knows nothing but the public header.
 *
 *   abi_test CASE PLUGIN MODELS    runs one case
 *   abi_test CASE PLUGIN MODELS is how CTest calls it; MODELS is what abi_models wrote */
#include <stdio.h>
#include <string.h>

#include "check.h"
#include "host.h"

int failedChecks = 0;
const char* pluginPath;
const char* modelDirectory;

static const struct {
  const char* name;
  void (*run)(void);
} kCases[] = {
    {"tables", testTables},
    {"tables_are_constant", testTablesAreConstant},
    {"utility_functions", testUtilityFunctions},
    {"probe", testProbe},
    {"create_failures", testCreateFailures},
    {"argument_errors", testArgumentErrors},
    {"generate", testGenerate},
    {"generate_with_options", testGenerateWithOptions},
    {"chat", testChat},
    {"stream", testStream},
    {"cancel_from_another_thread", testCancelFromAnotherThread},
    {"configure", testConfigure},
    {"bench", testBench},
    {"stats_and_reset", testStatsAndReset},
    {"loading_does_no_work", testLoadingDoesNoWork},
    {"idle_between_calls", testIdleBetweenCalls},
    {"unload_rounds", testUnloadRounds},
    {"fresh_handle_is_small", testFreshHandleIsSmall},
#if !defined(_WIN32)
    {"process_is_left_alone", testProcessIsLeftAlone},
    {"nothing_is_printed", testNothingIsPrinted},
    {"no_file_is_written_no_network_used", testNoFileIsWrittenNoNetworkUsed},
    {"names_elsewhere_do_not_reach_in", testNamesElsewhereDoNotReachIn},
#endif
    {"two_handles_in_two_threads", testTwoHandlesInTwoThreads},
};

int main(int count, char** arguments) {
  size_t i;
  if (count != 4) {
    fprintf(stderr, "usage: abi_test CASE PLUGIN MODELS\n");
    return 2;
  }
  pluginPath = arguments[2];
  modelDirectory = arguments[3];
  for (i = 0; i < sizeof kCases / sizeof kCases[0]; ++i) {
    if (strcmp(kCases[i].name, arguments[1]) != 0) continue;
    kCases[i].run();
    if (failedChecks != 0) fprintf(stderr, "%d checks failed\n", failedChecks);
    return failedChecks != 0;
  }
  fprintf(stderr, "no case %s\n", arguments[1]);
  return 2;
}
