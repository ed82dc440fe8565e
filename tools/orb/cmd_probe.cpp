// orb probe: asks the plug-in which files it serves.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "orb/command.h"
#include "orb/common_options.h"
#include "orb/exit_codes.h"
#include "orb/json_output.h"
#include "orb/model_session.h"
#include "orb/table.h"
#include "orb/text.h"

namespace orb {
namespace {

struct ProbeOptions {
  std::vector<std::string> files;
  std::string plugin;
  bool json = false;
};

int runProbe(const ProbeOptions& options) {
  for (const std::string& file : options.files) allowLargeFile(file);
  PluginHost host;
  if (!loadPlugin(host, options.plugin)) return kFailure;
  Table table({{"FILE"}, {"SCORE", Table::Align::Right}, {"ARCHITECTURE"}, {"DEVICE"}, {"DETAIL"}});
  Json list = Json::array();
  bool allServed = true;
  for (const std::string& file : options.files) {
    const ORBRuntimeProbe probe = host.probe(file);
    allServed = allServed && probe.score > 0;
    list.push_back({{"file", file},
                    {"score", probe.score},
                    {"architecture", probe.arch},
                    {"device", probe.device},
                    {"detail", probe.detail}});
    table.addRow({printable(file), std::to_string(probe.score), probe.arch, probe.device,
                  probe.score > 0 ? probe.detail : "not served"});
  }
  if (options.json) {
    printJson(list);
  } else {
    std::fputs(table.text().c_str(), stdout);
  }
  return allServed ? kOk : kFailure;
}

}  // namespace

void addProbeCommand(CLI::App& app, int& exitCode) {
  CLI::App* command = app.add_subcommand("probe", "Ask the runtime which files it serves");
  auto options = std::make_shared<ProbeOptions>();
  command->add_option("FILE", options->files, "Files to ask about")->required()->type_name("");
  command->add_flag("--json", options->json, "JSON instead of a table");
  addPluginOption(*command, options->plugin);
  addExamples(*command,
              "  orb probe models/demo.orb\n"
              "  orb probe *.orb --json\n"
              "Exit code 0 when every file is served (score above 0), 1 otherwise.");
  command->callback([options, &exitCode] { exitCode = runProbe(*options); });
}

}  // namespace orb
