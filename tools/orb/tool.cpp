#include "orb/tool.h"

#include <cstdio>
#include <exception>
#include <new>
#include <string>

#include "orb/command.h"
#include "orb/exit_codes.h"

namespace orb {
namespace {

// Wrong usage names the help page of the subcommand that was meant.
int usageError(const CLI::App& app, const CLI::ParseError& error) {
  const auto chosen = app.get_subcommands();
  const std::string name = chosen.empty() ? "orb" : "orb " + chosen.front()->get_name();
  return fail("", std::string(error.what()) + "; " + name + " --help shows what there is", kUsage);
}

// Output that did not reach its destination is a failure, whatever the command says.
int finish(int exitCode) {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return exitCode;
  return fail("", "the output could not be written; is the disk full?");
}

}  // namespace

int runTool(int argc, char** argv) {
  CLI::App app("Runs Qwen3.5 hybrid models (.orb) on the CPU, through the runtime plug-in.", "orb");
  app.set_version_flag("--version", "orb " ORB_VERSION);
  // A slash begins a path everywhere.
  app.allow_windows_style_options(false);
  app.require_subcommand(1);
  app.footer(
      "orb COMMAND --help shows the options and examples of a command.\n"
      "Exit codes: 0 done, 1 failed, 2 wrong usage.");
  int exitCode = kOk;
  addChatCommand(app, exitCode);
  addRunCommand(app, exitCode);
  addBenchCommand(app, exitCode);
  addInfoCommand(app, exitCode);
  addProbeCommand(app, exitCode);
  addConvertCommand(app, exitCode);
  addQuantizeCommand(app, exitCode);
  addEvalCommand(app, exitCode);
  addSynthCommand(app, exitCode);
  addValidateCommand(app, exitCode);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return finish(app.exit(error));
    return usageError(app, error);
  } catch (const std::bad_alloc&) {
    return fail("", "not enough memory; a shorter --context takes less");
  } catch (const std::exception& error) {
    return fail("", std::string("unexpected: ") + error.what());
  }
  return finish(exitCode);
}

}  // namespace orb
