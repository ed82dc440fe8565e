// orb run: one generation from a prompt to the standard output.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>

#include "orb/command.h"
#include "orb/exit_codes.h"
#include "orb/model_session.h"
#include "orb/platform.h"
#include "orb/utf8_assembler.h"

namespace orb {
namespace {

// An upper bound of the bytes of one decoded token, for the size of the text buffer.
constexpr size_t kTokenBytes = 256;

struct RunOptions {
  ModelOptions model;
  SamplingOptions sampling;
  std::optional<std::string> prompt;
  std::optional<std::string> file;
};

std::string readAll(std::istream& stream) {
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// The prompt from where the options say; prints the error and returns false when there is none.
bool readPrompt(const RunOptions& options, std::string& prompt) {
  if (options.prompt) {
    prompt = *options.prompt;
  } else if (options.file) {
    std::ifstream stream(pathOf(*options.file), std::ios::binary);
    if (stream) prompt = readAll(stream);
    if (!stream) {
      printError(*options.file, "expected a readable file with the prompt, found none");
      return false;
    }
  } else {
    prompt = readAll(std::cin);
  }
  if (const size_t at = prompt.find('\0'); at != std::string::npos) {
    printError(options.file.value_or(""), "expected a prompt of text, found a NUL byte at offset " +
                                              std::to_string(at) + "; leave it out");
    return false;
  }
  return true;
}

int explainFailure(Runtime& runtime, const RunOptions& options) {
  ORBRuntimeStats stats{};
  runtime.stats(stats);
  const uint64_t context = contextInUse(options.model);
  if (stats.contextTokens >= context) {
    return fail(options.model.model, "expected a prompt that fits the context of " +
                                         std::to_string(context) +
                                         " tokens, found a longer one; --context makes room");
  }
  return fail(options.model.model,
              "expected text, found that the generation failed; orb info --check looks at the "
              "model");
}

// As the model made it; at a terminal made fit for it and ended by a newline.
void printText(const std::string& text) {
  std::string shown = text;
  if (isTerminal(Stream::Output)) {
    Utf8Assembler assembler;
    shown = assembler.push(text);
    shown = withoutControls(shown + assembler.finish()) + '\n';
  }
  std::fwrite(shown.data(), 1, shown.size(), stdout);
}

int runGeneration(const RunOptions& options) {
  std::string prompt;
  if (!readPrompt(options, prompt)) return kFailure;
  ModelSession session;
  if (const int code = session.open(options.model); code != kOk) return code;
  session.runtime().configure(toSessionOptions(options.sampling));
  const size_t capacity =
      std::max<size_t>(Runtime::kTextCapacity, maxTokensInUse(options.model) * kTokenBytes);
  std::string text;
  if (session.runtime().generate(prompt, text, capacity) != ORB_OK) {
    return explainFailure(session.runtime(), options);
  }
  printText(text);
  return kOk;
}

}  // namespace

void addRunCommand(CLI::App& app, int& exitCode) {
  CLI::App* command = app.add_subcommand("run", "Continue a text");
  auto options = std::make_shared<RunOptions>();
  addModelOptions(*command, options->model);
  CLI::Option* prompt =
      command->add_option("-p,--prompt", options->prompt, "The text")->type_name("TEXT");
  command->add_option("-f,--file", options->file, "File that holds the text")
      ->type_name("FILE")
      ->excludes(prompt);
  addLengthOptions(*command, options->model);
  addSamplingOptions(*command, options->sampling);
  addExamples(*command,
              "  orb run model.orb -p \"Once upon a time\"\n"
              "  orb run model.orb -f prompt.txt --max-tokens 400 > continued.txt\n"
              "  echo -n \"1, 2, 3,\" | orb run model.orb\n"
              "The prompt is taken as it is, without chat turns. The text appears when it is\n"
              "complete; the bytes are the model's own unless the output is a terminal.");
  command->callback([options, &exitCode] { exitCode = runGeneration(*options); });
}

}  // namespace orb
