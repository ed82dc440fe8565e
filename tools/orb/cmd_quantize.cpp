// orb quantize: a model file in other element types, from one that is there.
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "orb/command.h"
#include "orb/common_options.h"
#include "orb/conversion_output.h"
#include "orb/evaluation.h"
#include "orb/exit_codes.h"
#include "orb/table.h"

namespace orb {
namespace {

struct QuantizeOptions {
  std::string input;
  std::string output;
  std::string type = "q4_k";
  std::string compare;  // a text
  bool force = false;
  std::optional<int> threads;
};

void printErrors(const ConversionReport& report) {
  Table table({{"TENSOR"},
               {"FROM"},
               {"TO"},
               {"BYTES", Table::Align::Right},
               {"RELATIVE ERROR", Table::Align::Right}});
  TensorFindings all;
  for (const TensorRecord& tensor : report.tensors) {
    if (!tensor.lossy) continue;
    table.addRow({tensor.name, tensor.sourceType, kiv::quantTypeName(tensor.type),
                  std::to_string(tensor.bytes), format("%.5f", tensor.relativeError())});
    all.squaredErrors += tensor.findings.squaredErrors;
    all.squaredValues += tensor.findings.squaredValues;
  }
  TensorRecord whole;
  whole.findings = all;
  std::printf("%serror of all of them: %.5f of their root mean square\n", table.text().c_str(),
              whole.relativeError());
}

int runQuantize(const QuantizeOptions& options) {
  ConversionOptions conversion;
  conversion.types.type = matrixTypes().at(options.type);
  conversion.overwrite = options.force;
  conversion.threads = conversionThreads(options.threads);
  conversion.converter = converterName();
  ConversionReport report;
  const auto start = std::chrono::steady_clock::now();
  const kiv::Status status = withProgress([&](const ConversionProgress& progress) {
    return requantizeModel(options.input, options.output, conversion, progress, report);
  });
  if (!status.ok()) return fail(options.input, status.message);
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  printErrors(report);
  warnOfValues(report);
  if (const int code = checkResult(options.output, elapsed.count()); code != kOk) return code;
  if (options.compare.empty()) return kOk;
  EvaluationOptions evaluation;
  evaluation.model = options.output;
  evaluation.against = options.input;
  evaluation.textFile = options.compare;
  evaluation.threads = options.threads;
  return runEvaluation(evaluation);
}

}  // namespace

void addQuantizeCommand(CLI::App& app, int& exitCode) {
  CLI::App* command = app.add_subcommand("quantize", "Store a model file in other element types");
  auto options = std::make_shared<QuantizeOptions>();
  command->add_option("IN", options->input, "Model file (.orb)")->required()->type_name("");
  command->add_option("OUT", options->output, "File to write (.orb)")->required()->type_name("");
  command->add_option("--type", options->type, "Type of the matrices [q4_k]")
      ->check(CLI::IsMember(matrixTypes()))
      ->type_name("TYPE");
  command
      ->add_option("--compare", options->compare,
                   "Then run both models over this text and compare what they expect")
      ->type_name("TEXTFILE");
  command->add_flag("--force", options->force, "Replace OUT when it exists");
  command->add_option("--threads", options->threads, "Worker threads [all processors]")
      ->check(CLI::Range(1, 256))
      ->type_name("N");
  addExamples(*command,
              "  orb quantize model-bf16.orb model.orb --type q5_k\n"
              "  orb quantize model-q8.orb small.orb --type q4_k --compare text.txt\n"
              "The error of a tensor is the root mean square of what its values change by, over\n"
              "that of the values. With q4_k, q5_k and q6_k the matrices that matter most take a\n"
              "little more.");
  command->callback([options, &exitCode] { exitCode = runQuantize(*options); });
}

}  // namespace orb
