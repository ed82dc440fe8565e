// The subcommands. Each add function declares one on the application; when it is chosen, its work
// runs inside the parse and leaves its exit code in `exitCode`.
#pragma once

#include <CLI/CLI.hpp>

namespace orb {

void addBenchCommand(CLI::App& app, int& exitCode);
void addChatCommand(CLI::App& app, int& exitCode);
void addConvertCommand(CLI::App& app, int& exitCode);
void addEvalCommand(CLI::App& app, int& exitCode);
void addInfoCommand(CLI::App& app, int& exitCode);
void addProbeCommand(CLI::App& app, int& exitCode);
void addQuantizeCommand(CLI::App& app, int& exitCode);
void addRunCommand(CLI::App& app, int& exitCode);
void addSynthCommand(CLI::App& app, int& exitCode);
void addValidateCommand(CLI::App& app, int& exitCode);

}  // namespace orb
