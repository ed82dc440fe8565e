#include "orb/tool.h"

int main(int argc, char** argv) { return orb::runTool(argc, argv); }
