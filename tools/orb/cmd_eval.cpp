// orb eval: how well a model expects a text, and how far another one's expectations are from it.
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>

#include "convert/input_file.h"
#include "eval/eval_module.h"
#include "orb/command.h"
#include "orb/common_options.h"
#include "orb/evaluation.h"
#include "orb/exit_codes.h"
#include "orb/platform.h"
#include "orb/text.h"

namespace orb {
namespace {

constexpr uint64_t kMaxTextBytes = uint64_t{64} << 20;

void printFigures(const OrbEvalResult& result, bool compared) {
  const auto count = static_cast<double>(result.forecasts);
  std::printf("tokens      %llu, %s a second\n", static_cast<unsigned long long>(result.tokens),
              formatThreeDigits(result.seconds > 0 ? count / result.seconds : 0).c_str());
  std::printf("perplexity  %.4f (%.5f nats a token)\n", std::exp(result.logLoss), result.logLoss);
  if (!compared) return;
  std::printf(
      "against     perplexity %.4f, mean KL divergence %.6f nats, same first choice %.2f %%\n",
      std::exp(result.againstLogLoss), result.divergence,
      100 * static_cast<double>(result.agreements) / count);
}

}  // namespace

int runEvaluation(const EvaluationOptions& options) {
  std::string text;
  const kiv::Status status = readTextFile(options.textFile, kMaxTextBytes, text);
  if (!status.ok()) return fail("", status.message);
  if (options.threads) setEnvironment("OMP_NUM_THREADS", std::to_string(*options.threads));
  const std::string module = executableFolder() + '/' + evalModuleFileName();
  const auto evaluate = reinterpret_cast<OrbEvaluateFunction>(findInLibrary(module, "orbEvaluate"));
  if (evaluate == nullptr)
    return fail(module, "expected the evaluation module, found none that loads");

  struct Watch {
    InterruptFlag interrupts{InterruptFlag::Scope::Work};
  };
  OrbEvalRequest request{};
  OrbEvalResult result{};
  bool stopped = false;
  {
    Watch watch;
    request.model = options.model.c_str();
    request.against = options.against.empty() ? nullptr : options.against.c_str();
    request.text = text.data();
    request.textBytes = text.size();
    request.window = options.window;
    request.maxTokens = options.maxTokens;
    request.context = &watch;
    request.progress = [](void* context, uint64_t, uint64_t) {
      return static_cast<Watch*>(context)->interrupts.isSet() ? 0 : 1;
    };
    if (evaluate(&request, &result) == 0) {
      printFigures(result, !options.against.empty());
      return kOk;
    }
    stopped = watch.interrupts.isSet();
  }
  return fail("", stopped ? "stopped" : result.error);
}

void addEvalCommand(CLI::App& app, int& exitCode) {
  CLI::App* command = app.add_subcommand("eval", "Measure how well a model expects a text");
  auto options = std::make_shared<EvaluationOptions>();
  command->add_option("MODEL", options->model, "Model file (.orb)")->required()->type_name("");
  command->add_option("TEXTFILE", options->textFile, "Any text")->required()->type_name("");
  command->add_option("--against", options->against, "Second model, to compare with")
      ->type_name("MODEL2");
  command->add_option("--window", options->window, "Tokens of context that are seen at most [512]")
      ->check(CLI::Range(uint64_t{2}, kHighestContext))
      ->type_name("N");
  command->add_option("--tokens", options->maxTokens, "Tokens of the text to take [4096]")
      ->check(CLI::Range(uint64_t{2}, uint64_t{1} << 32))
      ->type_name("N");
  command->add_option("--threads", options->threads, "Worker threads [all processors]")
      ->check(CLI::Range(1, 64))
      ->type_name("N");
  addExamples(
      *command,
      "  orb eval model.orb text.txt\n"
      "  orb eval small.orb text.txt --against model.orb\n"
      "Perplexity is the exponential of the mean of -ln p over the text's tokens: lower is\n"
      "better, and comparable between models of one tokenizer on one text only. The KL\n"
      "divergence says how far MODEL's expectations are from MODEL2's; 0 is none.");
  command->callback([options, &exitCode] { exitCode = runEvaluation(*options); });
}

}  // namespace orb
