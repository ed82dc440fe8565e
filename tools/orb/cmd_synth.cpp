// orb synth: writes a synthetic model, for tests and benchmarks.
#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "orb/command.h"
#include "orb/exit_codes.h"
#include "orb/model_session.h"
#include "orb/platform.h"
#include "orb/progress_bar.h"
#include "orb/text.h"
#include "synth/synth.h"

namespace orb {
namespace {

using kiv::QuantType;

struct Shape {
  const char* name;
  uint64_t hidden;
  uint64_t ffn;
  uint64_t vocabulary;
  bool shared;
};

// "tiny" is a few megabytes; the others have the sizes of real models.
constexpr std::array<Shape, 3> kShapes{{
    {"tiny", 256, 512, 512, true},
    {"1b", 1024, 3584, 248320, false},
    {"4b", 2560, 9216, 248320, false},
}};

const std::map<std::string, QuantType> kTypes{{"f32", QuantType::F32},   {"bf16", QuantType::BF16},
                                              {"q8_0", QuantType::Q8_0}, {"q4_k", QuantType::Q4_K},
                                              {"q5_k", QuantType::Q5_K}, {"q6_k", QuantType::Q6_K}};

struct SynthCommandOptions {
  std::string output;
  std::string shape = "tiny";
  std::optional<uint64_t> hidden, ffn, vocabulary;
  std::string type = "q4_k";
  std::optional<std::string> embedding, attention, linear, feedForward, small;
  bool shared = false;
  bool unshared = false;
  std::string tokenizer = "marker";
  SynthOptions model;
};

QuantType typeOf(const std::optional<std::string>& name, QuantType fallback) {
  return name ? kTypes.at(*name) : fallback;
}

// The preset, then what the options change in it.
SynthOptions resolve(const SynthCommandOptions& options) {
  SynthOptions model = options.model;
  for (const Shape& shape : kShapes) {
    if (options.shape != shape.name) continue;
    model.hidden = options.hidden.value_or(shape.hidden);
    model.ffn = options.ffn.value_or(shape.ffn);
    model.vocabulary = options.vocabulary.value_or(shape.vocabulary);
    model.shared = options.shared || (shape.shared && !options.unshared);
  }
  const QuantType type = kTypes.at(options.type);
  const bool compact = type == QuantType::Q4_K || type == QuantType::Q5_K;
  model.embeddingType = typeOf(options.embedding, compact ? QuantType::Q6_K : type);
  model.attentionType = typeOf(options.attention, type);
  model.linearType = typeOf(options.linear, type);
  model.ffnType = typeOf(options.feedForward, type);
  model.smallType = typeOf(options.small, compact ? QuantType::Q8_0 : type);
  model.tokenizer =
      options.tokenizer == "marker" ? TokenizerForm::SpaceMarker : TokenizerForm::ByteLevel;
  return model;
}

int runSynth(const SynthCommandOptions& options) {
  const SynthOptions model = resolve(options);
  if (const kiv::Status status = checkSynthOptions(model); !status.ok()) {
    return fail("", status.message, kUsage);
  }
  std::error_code error;
  if (!model.overwrite && std::filesystem::exists(pathOf(options.output), error)) {
    return fail(options.output, "expected a new file, found that it exists; --force replaces it");
  }
  const auto start = std::chrono::steady_clock::now();
  kiv::Status status;
  {
    const InterruptFlag interrupts(InterruptFlag::Scope::Work);
    ProgressBar bar;
    status = writeSynthModel(options.output, model, [&](uint64_t done, uint64_t total) {
      bar.update(done, total);
      return !interrupts.isSet();
    });
    if (!status.ok() && interrupts.isSet()) {
      status.message = "stopped; nothing was written";
    }
  }
  if (!status.ok()) return fail(options.output, status.message);
  uint64_t size = 0;
  if (!fileSize(options.output, size)) return fail(options.output, "the file is not there");
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  std::printf("%s: %s in %s\n", printable(options.output).c_str(), formatBytes(size).c_str(),
              formatDuration(elapsed.count()).c_str());
  return kOk;
}

void addTypeOptions(CLI::App& command, SynthCommandOptions& options) {
  const CLI::IsMember known(kTypes);
  command.add_option("--type", options.type, "Type of the matrices [q4_k]")
      ->check(known)
      ->type_name("TYPE");
  const auto family = [&](const char* name, std::optional<std::string>& type, const char* text) {
    command.add_option(name, type, text)->check(known)->type_name("TYPE");
  };
  family("--embedding-type", options.embedding, "... embedding [q6_k for q4_k and q5_k]");
  family("--attention-type", options.attention, "... full attention");
  family("--linear-type", options.linear, "... linear attention");
  family("--ffn-type", options.feedForward, "... feed-forward");
  family("--small-type", options.small, "... alpha, beta, biases [q8_0 for q4_k and q5_k]");
}

void addShapeOptions(CLI::App& command, SynthCommandOptions& options) {
  command.add_option("--shape", options.shape, "Sizes to start from: tiny, 1b or 4b [tiny]")
      ->check(CLI::IsMember({"tiny", "1b", "4b"}))
      ->type_name("NAME");
  command.add_option("--hidden", options.hidden, "Hidden size")->type_name("N");
  command.add_option("--ffn", options.ffn, "Feed-forward size")->type_name("N");
  command.add_option("--vocab", options.vocabulary, "Tokens")->type_name("N");
  command
      .add_option("--pattern", options.model.pattern,
                  "Kinds of blocks, l linear and f full, repeated over the 32 [lllf]")
      ->type_name("LETTERS");
  command.add_option("--query-heads", options.model.queryHeads, "Query heads of full blocks [16]")
      ->type_name("N");
  command
      .add_option("--value-heads", options.model.valueHeads, "Value heads of linear blocks [32]")
      ->type_name("N");
  command.add_flag("--biases", options.model.biases, "Give the full blocks q/k/v biases");
  CLI::Option* shared = command.add_flag("--shared", options.shared,
                                         "One set of weights for all blocks of a kind [tiny]");
  command.add_flag("--unshared", options.unshared, "Weights of its own for every block [1b, 4b]")
      ->excludes(shared);
}

}  // namespace

void addSynthCommand(CLI::App& app, int& exitCode) {
  CLI::App* command = app.add_subcommand("synth", "Write a synthetic model for tests");
  auto options = std::make_shared<SynthCommandOptions>();
  command->add_option("OUT", options->output, "File to write")->required()->type_name("");
  addShapeOptions(*command, *options);
  addTypeOptions(*command, *options);
  command
      ->add_option("--tokenizer", options->tokenizer,
                   "Space marker U+2581 (marker) or U+0120 (byte-level) [marker]")
      ->check(CLI::IsMember({"marker", "byte-level"}))
      ->type_name("FORM");
  command->add_option("--seed", options->model.seed, "Seed of the weights [1]")->type_name("N");
  command->add_flag("--force", options->model.overwrite, "Replace OUT when it exists");
  addExamples(*command,
              "  orb synth tiny.orb\n"
              "  orb synth 4b.orb --shape 4b --type q4_k\n"
              "  orb synth odd.orb --hidden 512 --type f32 --pattern lf --biases --unshared\n"
              "The weights are random: such a model runs as fast as a real one of its sizes and\n"
              "talks nonsense. The same options give the same bytes everywhere.");
  command->callback([options, &exitCode] { exitCode = runSynth(*options); });
}

}  // namespace orb
