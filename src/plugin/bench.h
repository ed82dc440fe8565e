// The plug-in's own measurement of decode speed.
#pragma once

#include "orb_plugin.h"
#include "plugin/session.h"

namespace qwen35 {

// Greedy decoding from a fixed prompt; leaves the session as after a reset. When the prompt pass
// fails: ORB_FAILED, with the greedy settings in force and the counters as they are.
int runBench(Qwen35Session& session, const ORBBenchParams* params, ORBBenchResult& out);

}  // namespace qwen35
