// orb bench: how fast a model runs, and how much of the machine's memory bandwidth that takes.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "orb/command.h"
#include "orb/exit_codes.h"
#include "orb/json_output.h"
#include "orb/model_facts.h"
#include "orb/model_session.h"
#include "orb/platform.h"
#include "orb/read_probe.h"
#include "orb/table.h"
#include "orb/text.h"
#include "tokenizer/tokenizer.h"

namespace orb {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kProbeBytes = size_t{1} << 30;  // well beyond any cache
constexpr int kProbePasses = 6;
constexpr int kMaxAnswers = 16;

struct BenchOptions {
  ModelOptions model;
  uint64_t promptTokens = 64;
  uint64_t genTokens = 64;
  bool json = false;
};

// Some tokens and the time that their forward passes took.
struct Speed {
  uint64_t tokens = 0;
  double seconds = 0;

  double tokensPerSecond() const { return seconds > 0 ? static_cast<double>(tokens) / seconds : 0; }
};

struct BenchReport {
  Speed prompt;
  Speed generation;
  ORBBenchResult slot{};
  uint64_t readPerToken = 0;
  uint64_t fileBytes = 0;
  uint64_t peakMemory = 0;
  double readSpeed = 0;  // bytes per second of the pure-read probe
  std::string tier;
  int threads = 0;

  double bytesPerSecond(double tokensPerSecond) const {
    return tokensPerSecond * static_cast<double>(readPerToken);
  }
  double share(double tokensPerSecond) const {
    return readSpeed > 0 ? bytesPerSecond(tokensPerSecond) / readSpeed : 0;
  }
};

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// A question of about that many tokens.
std::string makePrompt(kiv::TokenizerData data, uint64_t tokens) {
  constexpr std::string_view kWords[] = {"the ",  "river ", "runs ",  "past ",  "old ",
                                         "mill ", "and ",   "under ", "seven ", "bridges "};
  kiv::Tokenizer tokenizer;
  std::string text;
  std::vector<int32_t> ids;
  if (!tokenizer.load(std::move(data)).ok()) return text;
  // Doubling first, so that a long prompt is not encoded once a word.
  for (size_t words = 0; ids.size() < tokens && words < 16 * tokens;) {
    const size_t step = std::max<size_t>(1, (tokens - ids.size()) / 4);
    for (size_t i = 0; i < step; ++i) text += kWords[words++ % std::size(kWords)];
    if (!tokenizer.encode(text, ids, /*addBos=*/false).ok()) break;
  }
  return text;
}

// What the index says about the work of one token. False when the file does not open; the plug-in
// then says why.
bool examine(const BenchOptions& options, BenchReport& report, std::string& prompt) {
  const std::string& file = options.model.model;
  if (!fileSize(file, report.fileBytes)) return false;
  kiv::ORBLoader loader;
  if (!loader.open(file.c_str(), report.fileBytes >= kLargeFileBytes).ok()) return false;
  report.readPerToken = collectModelFacts(loader).readPerToken;
  prompt = makePrompt(std::move(loader.tokenizer), options.promptTokens);
  return true;
}

// Takes the text in without answering it: the flag is set before the turn begins.
int takeIn(Runtime& runtime, const std::string& text, Speed& speed) {
  const volatile int stop = 1;
  runtime.reset();
  const Clock::time_point start = Clock::now();
  const int result = runtime.chatTurnStream(text, {}, &stop);
  speed.seconds = secondsSince(start);
  ORBRuntimeStats stats{};
  runtime.stats(stats);
  speed.tokens = stats.contextTokens;
  return result;
}

// Answers questions until that many forward passes are timed; an answer may end early.
int generate(Runtime& runtime, uint64_t tokens, Speed& speed) {
  for (int i = 0; i < kMaxAnswers && speed.tokens < tokens; ++i) {
    uint64_t count = 0;
    Clock::time_point first;
    Clock::time_point last;
    int enough = 0;
    runtime.reset();
    const int result = runtime.chatTurnStream(
        "Question " + std::to_string(i + 1) + ": what do you know?",
        [&](std::string_view) {
          last = Clock::now();
          if (count++ == 0) first = last;
          if (speed.tokens + count > tokens) enough = 1;
        },
        &enough);
    if (result != ORB_OK) return result;
    if (count > 1) {
      speed.tokens += count - 1;
      speed.seconds += std::chrono::duration<double>(last - first).count();
    }
  }
  return ORB_OK;
}

int measureModel(const BenchOptions& options, const std::string& prompt, BenchReport& report) {
  ModelOptions model = options.model;
  model.maxTokens = options.genTokens + 1;
  ModelSession session;
  if (const int code = session.open(model); code != kOk) return code;
  Runtime& runtime = session.runtime();
  const auto check = [&](int result, const char* what) {
    if (result == ORB_OK) return kOk;
    return static_cast<ExitCode>(fail(model.model, std::string("expected ") + what +
                                                       " to run, found that it failed (code " +
                                                       std::to_string(result) + ")"));
  };
  Speed warmUp;
  if (check(takeIn(runtime, "Hi", warmUp), "a short prompt") != kOk) return kFailure;
  if (check(takeIn(runtime, prompt, report.prompt), "the prompt") != kOk) return kFailure;
  if (check(generate(runtime, options.genTokens, report.generation), "an answer") != kOk) {
    return kFailure;
  }
  ORBBenchParams params{};
  params.structSize = sizeof params;
  params.genTokens = static_cast<int32_t>(options.genTokens);
  params.extraTokens = 1;  // as many forward passes as the time is divided by
  if (check(runtime.bench(params, report.slot), "the benchmark") != kOk) return kFailure;
  report.peakMemory = peakMemoryBytes();
  return kOk;
}

// Reads the model's own pages when there are enough of them, else a buffer.
void measureMachine(const BenchOptions& options, BenchReport& report) {
  kiv::ORB2Reader reader;
  if (report.fileBytes >= kProbeBytes &&
      reader.open(options.model.model.c_str(), /*largeFiles=*/true).ok()) {
    report.readSpeed =
        measureReadSpeed(reader.mapping(), reader.mappingSize(), report.threads, kProbePasses);
    return;
  }
  const std::vector<uint8_t> buffer(kProbeBytes, 1);
  report.readSpeed = measureReadSpeed(buffer.data(), buffer.size(), report.threads, kProbePasses);
}

void addSpeedRow(const BenchReport& report, const char* name, const Speed& speed, bool reads,
                 Table& table) {
  const double rate = speed.tokensPerSecond();
  std::vector<std::string> row{name, std::to_string(speed.tokens), formatDuration(speed.seconds),
                               formatThreeDigits(rate),
                               rate > 0 ? formatThreeDigits(1000 / rate) : "-"};
  if (reads) {
    row.push_back(formatBytes(report.readPerToken));
    row.push_back(formatThreeDigits(report.bytesPerSecond(rate) / 1e9));
    row.push_back(format("%.0f %%", report.share(rate) * 100));
  }
  table.addRow(std::move(row));
}

Speed slotSpeed(const BenchReport& report) {
  const auto tokens = static_cast<uint64_t>(std::max<int64_t>(0, report.slot.tokens));
  return {tokens, report.slot.msPerToken / 1000 * static_cast<double>(tokens)};
}

std::string benchText(const BenchReport& report) {
  constexpr Table::Align kRight = Table::Align::Right;
  Table table({{""},
               {"TOKENS", kRight},
               {"TIME", kRight},
               {"TOKENS/S", kRight},
               {"MS/TOKEN", kRight},
               {"READ/TOKEN", kRight},
               {"GB/S", kRight},
               {"OF PURE READ", kRight}});
  addSpeedRow(report, "prompt", report.prompt, false, table);
  addSpeedRow(report, "generation", report.generation, true, table);
  addSpeedRow(report, "bench slot", slotSpeed(report), true, table);
  return table.text() + format(
                            "\npure read %s GB/s with %d thread%s; tier %s; peak memory %s, "
                            "of which the file is %s\n",
                            formatThreeDigits(report.readSpeed / 1e9).c_str(), report.threads,
                            report.threads == 1 ? "" : "s", report.tier.c_str(),
                            formatBytes(report.peakMemory).c_str(),
                            formatBytes(report.fileBytes).c_str());
}

Json speedJson(const BenchReport& report, const Speed& speed, bool reads) {
  const double rate = speed.tokensPerSecond();
  Json json{{"tokens", speed.tokens}, {"seconds", speed.seconds}, {"tokensPerSecond", rate}};
  if (reads) {
    json["bytesPerSecond"] = report.bytesPerSecond(rate);
    json["shareOfPureRead"] = report.share(rate);
  }
  return json;
}

Json benchJson(const BenchOptions& options, const BenchReport& report) {
  return {{"file", options.model.model},
          {"tier", report.tier},
          {"threads", report.threads},
          {"fileBytes", report.fileBytes},
          {"readBytesPerToken", report.readPerToken},
          {"pureReadBytesPerSecond", report.readSpeed},
          {"peakMemoryBytes", report.peakMemory},
          {"prompt", speedJson(report, report.prompt, false)},
          {"generation", speedJson(report, report.generation, true)},
          {"benchSlot", speedJson(report, slotSpeed(report), true)}};
}

int runBench(const BenchOptions& options) {
  BenchReport report;
  report.tier = tierInUse(options.model);
  report.threads = threadsInUse(options.model);
  std::string prompt;
  const bool readable = examine(options, report, prompt);
  if (const int code = measureModel(options, prompt, report); code != kOk) return code;
  if (!readable) return fail(options.model.model, "expected a model file, found that it changed");
  measureMachine(options, report);
  if (options.json) {
    printJson(benchJson(options, report));
  } else {
    std::fputs(benchText(report).c_str(), stdout);
  }
  return kOk;
}

}  // namespace

void addBenchCommand(CLI::App& app, int& exitCode) {
  CLI::App* command = app.add_subcommand("bench", "Measure how fast a model runs");
  auto options = std::make_shared<BenchOptions>();
  addModelOptions(*command, options->model);
  command->add_option("--prompt-tokens", options->promptTokens, "Tokens of the prompt, about [64]")
      ->check(CLI::Range(uint64_t{1}, uint64_t{100000}))
      ->type_name("N");
  command->add_option("--gen-tokens", options->genTokens, "Tokens to generate [64]")
      ->check(CLI::Range(uint64_t{1}, uint64_t{4000}))
      ->type_name("N");
  command->add_option("--context", options->model.context, "Tokens that the context holds [8192]")
      ->check(CLI::Range(uint64_t{1}, kHighestContext))
      ->type_name("N");
  command->add_flag("--json", options->json, "JSON instead of a table");
  addExamples(*command,
              "  orb bench models/demo.orb\n"
              "  orb bench model.orb --threads 1 --isa avx2 --json\n"
              "Generation reads every weight once a token, so its speed is compared with a pure\n"
              "read of memory by as many threads. The bench slot is the plug-in's own measure;\n"
              "it reads too fast when the model ends its text early.");
  command->callback([options, &exitCode] { exitCode = runBench(*options); });
}

}  // namespace orb
