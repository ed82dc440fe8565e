#include "orb/command.h"

int main(int argc, char** argv) { return orb::runTool(argc, argv); }
