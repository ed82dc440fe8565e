// orb info: what is in a model file, and with --check whether the runtime takes it.
#include <cstdio>
#include <memory>
#include <string>

#include "orb/command.h"
#include "orb/common_options.h"
#include "orb/container_errors.h"
#include "orb/exit_codes.h"
#include "orb/info_report.h"
#include "orb/model_session.h"
#include "orb/platform.h"

namespace orb {
namespace {

struct InfoOptions {
  ModelOptions model;
  bool check = false;
  bool json = false;
};

// A container that does not open has nothing to tell but why.
int reportUnreadable(const InfoOptions& options, const std::string& message) {
  const std::string text = explainContainerError(message);
  if (options.json) printJson({{"file", options.model.model}, {"error", text}});
  return fail(options.model.model, text);
}

int runInfo(const InfoOptions& options) {
  const std::string& file = options.model.model;
  InfoReport report;
  report.file = file;
  if (!fileSize(file, report.fileBytes)) {
    return reportUnreadable(options, "expected a model file (.orb), found no file; check the path");
  }
  allowLargeFile(file);
  kiv::ORBLoader loader;
  const kiv::Status status = loader.open(file.c_str(), report.fileBytes >= kLargeFileBytes);
  if (!loader.reader.opened()) return reportUnreadable(options, status.message);
  report.context = contextInUse(options.model);
  collectInfo(loader, report);
  if (options.check) checkModel(loader, report);
  if (options.json) {
    printJson(infoJson(report));
  } else {
    std::fputs(infoText(report).c_str(), stdout);
  }
  return options.check && report.failed() ? kFailure : kOk;
}

}  // namespace

void addInfoCommand(CLI::App& app, int& exitCode) {
  CLI::App* command = app.add_subcommand("info", "Show and check what is in a model file");
  auto options = std::make_shared<InfoOptions>();
  command->add_option("MODEL", options->model.model, "Model file (.orb)")
      ->required()
      ->type_name("");
  command->add_flag("--check", options->check, "Run every check that the runtime makes, and more");
  command->add_flag("--json", options->json, "JSON instead of tables");
  command->add_option("--context", options->model.context, "Positions to reckon memory for [8192]")
      ->check(CLI::Range(uint64_t{1}, kHighestContext))
      ->type_name("N");
  addExamples(*command,
              "  orb info models/demo.orb\n"
              "  orb info model.orb --check\n"
              "  orb info model.orb --json | jq .model.memory\n"
              "With --check the exit code is 1 when the runtime would refuse the file.");
  command->callback([options, &exitCode] { exitCode = runInfo(*options); });
}

}  // namespace orb
