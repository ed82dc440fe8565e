#pragma once

namespace orb {

// The program: 0 done, 1 failed, 2 wrong usage.
int runTool(int argc, char** argv);

}  // namespace orb
