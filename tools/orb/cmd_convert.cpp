// orb convert: an .orb file from a checkpoint.
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "convert/converter.h"
#include "orb/command.h"
#include "orb/common_options.h"
#include "orb/conversion_output.h"
#include "orb/exit_codes.h"

namespace orb {
namespace {

struct ConvertOptions {
  std::string input;
  std::string output;
  std::string type;  // empty: as close to the source as can be
  std::string halves = "f32";
  bool strict = false;
  bool force = false;
  std::optional<int> threads;
};

void printSource(const SourceModel& model) {
  const ModelShape& shape = model.shape;
  std::printf("source     %s, %s; %u blocks, hidden %u, feed-forward %u, vocabulary %u\n",
              model.format.c_str(), formatBytes(model.sourceBytes()).c_str(),
              static_cast<unsigned>(shape.blocks), static_cast<unsigned>(shape.hidden),
              static_cast<unsigned>(shape.ffn), static_cast<unsigned>(shape.vocabulary));
  if (const size_t unused = model.unusedTensors(); unused > 0) {
    std::printf("           %u tensors that the runtime has no use for are left out\n",
                static_cast<unsigned>(unused));
  }
}

void printTokenizer(const TokenizerReport& report) {
  std::printf("tokenizer  %s tokens, %s special; merges: %s kept, %s derived again, %s dropped\n",
              std::to_string(report.tokens).c_str(), std::to_string(report.special).c_str(),
              std::to_string(report.mergesKept).c_str(),
              std::to_string(report.mergesRederived).c_str(),
              std::to_string(report.mergesDropped).c_str());
  if (report.lostCharacters.empty()) return;
  constexpr size_t kShown = 20;
  std::string shown;
  for (size_t i = 0; i < report.lostCharacters.size() && i < kShown; ++i) {
    shown += (i == 0 ? "" : " ") + printable(report.lostCharacters[i]);
  }
  std::printf("           %u characters have no token of their own: %s%s\n",
              static_cast<unsigned>(report.lostCharacters.size()), shown.c_str(),
              report.lostCharacters.size() > kShown ? " ..." : "");
}

int runConvert(const ConvertOptions& options) {
  SourceModel model;
  if (const kiv::Status status = readSourceModel(options.input, model); !status.ok()) {
    return fail("", status.message);
  }
  ConversionOptions conversion;
  if (!options.type.empty()) conversion.types.type = matrixTypes().at(options.type);
  // Checkpoints as trained are too large to be of use.
  if (model.original && options.type.empty()) conversion.types.type = kiv::QuantType::Q4_K;
  conversion.types.halves = matrixTypes().at(options.halves);
  conversion.types.strict = options.strict;
  conversion.overwrite = options.force;
  conversion.threads = conversionThreads(options.threads);
  conversion.converter = converterName();

  ConversionReport report;
  const auto start = std::chrono::steady_clock::now();
  const kiv::Status status = withProgress([&](const ConversionProgress& progress) {
    return convertModel(model, options.output, conversion, progress, report);
  });
  if (!status.ok()) return fail("", status.message);
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  printSource(model);
  printTypes(report);
  printTokenizer(report.tokenizer);
  if (report.identityBlocks > 0) {
    std::printf("blocks     %u that do nothing fill the model up to 32\n",
                static_cast<unsigned>(report.identityBlocks));
  }
  warnOfValues(report);
  return checkResult(options.output, elapsed.count());
}

}  // namespace

void addConvertCommand(CLI::App& app, int& exitCode) {
  CLI::App* command = app.add_subcommand("convert", "Make a model file from a checkpoint");
  auto options = std::make_shared<ConvertOptions>();
  command
      ->add_option("IN", options->input,
                   "GGUF file, or folder with config.json, *.safetensors and tokenizer.json")
      ->required()
      ->type_name("");
  command->add_option("OUT", options->output, "File to write (.orb)")->required()->type_name("");
  command
      ->add_option("--type", options->type,
                   "Type of the matrices [GGUF: as they are; safetensors: q4_k]")
      ->check(CLI::IsMember(matrixTypes()))
      ->type_name("TYPE");
  command
      ->add_option("--f16", options->halves, "What F16 becomes without --type: f32 or bf16 [f32]")
      ->check(CLI::IsMember({"f32", "bf16"}))
      ->type_name("TYPE");
  command->add_flag("--strict", options->strict,
                    "Refuse a GGUF file with types that lose precision on the way");
  command->add_flag("--force", options->force, "Replace OUT when it exists");
  command->add_option("--threads", options->threads, "Worker threads [all processors]")
      ->check(CLI::Range(1, 256))
      ->type_name("N");
  addExamples(*command,
              "  orb convert model-q4_k_m.gguf model.orb\n"
              "  orb convert checkpoint-folder/ model.orb --type q5_k\n"
              "  orb convert model.gguf small.orb --type q4_k --force\n"
              "Dense models of up to 32 blocks whose output matrix is the embedding can be\n"
              "converted. With --type q4_k, q5_k and q6_k the matrices that matter most take a\n"
              "little more.");
  command->callback([options, &exitCode] { exitCode = runConvert(*options); });
}

}  // namespace orb
