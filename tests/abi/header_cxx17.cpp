// The public header as a C++17 host sees it. Nothing here runs: that it compiles is the test.
#include "orb_plugin.h"

static_assert(ORB_INVALID == 2);

const char* runtimeId(ORBPluginRuntimesV2Fn runtimes);
const char* runtimeId(ORBPluginRuntimesV2Fn runtimes) { return runtimes(nullptr)->id; }
