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
constexpr uint64_t kContextMargin = 2048;  // for the answers at the longest context

struct BenchOptions {
  ModelOptions model;
  std::vector<uint64_t> promptTokens{64};
  std::vector<uint64_t> contexts{16};
  uint64_t genTokens = 64;
  bool json = false;
};

// Some tokens and the time that their forward passes took.
struct Speed {
  uint64_t tokens = 0;
  double seconds = 0;

  double tokensPerSecond() const { return seconds > 0 ? static_cast<double>(tokens) / seconds : 0; }
};

// Generation that began when the context held so many tokens.
struct Generation {
  uint64_t context = 0;
  Speed speed;
};

struct BenchReport {
  double createSeconds = 0;
  std::vector<Speed> prompts;
  std::vector<Generation> generations;
  ORBBenchResult slot{};
  uint64_t readPerToken = 0;      // weights
  uint64_t cachePerPosition = 0;  // keys and values, read for each position of the context
  uint64_t fileBytes = 0;
  uint64_t peakMemory = 0;
  double readSpeed = 0;  // bytes per second of the pure-read probe
  std::string tier;
  int threads = 0;

  uint64_t readAt(uint64_t context) const { return readPerToken + cachePerPosition * context; }
  double share(double bytesPerSecond) const {
    return readSpeed > 0 ? bytesPerSecond / readSpeed : 0;
  }
};

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Texts of about a given number of tokens.
class TextMaker {
 public:
  bool load(kiv::TokenizerData data) { return tokenizer_.load(std::move(data)).ok(); }

  std::string make(uint64_t tokens) const {
    constexpr std::string_view kWords[] = {"the ",  "river ", "runs ",  "past ",  "old ",
                                           "mill ", "and ",   "under ", "seven ", "bridges "};
    std::string text;
    std::vector<int32_t> ids;
    // In large steps first, so that a long text is not encoded once a word.
    for (size_t words = 0; ids.size() < tokens && words < 16 * tokens;) {
      const size_t step = std::max<size_t>(1, (tokens - ids.size()) / 4);
      for (size_t i = 0; i < step; ++i) text += kWords[words++ % std::size(kWords)];
      if (!tokenizer_.encode(text, ids, /*addBos=*/false).ok()) break;
    }
    return text;
  }

 private:
  kiv::Tokenizer tokenizer_;
};

// What the index says about the work of one token. False when the file does not open; the plug-in
// then says why.
bool examine(const BenchOptions& options, BenchReport& report, TextMaker& texts) {
  const std::string& file = options.model.model;
  if (!fileSize(file, report.fileBytes)) return false;
  kiv::ORBLoader loader;
  if (!loader.open(file.c_str(), report.fileBytes >= kLargeFileBytes).ok()) return false;
  const ModelFacts facts = collectModelFacts(loader);
  report.readPerToken = facts.readPerToken;
  report.cachePerPosition = facts.memory.cachePerPosition;
  return texts.load(std::move(loader.tokenizer));
}

uint64_t contextTokens(Runtime& runtime) {
  ORBRuntimeStats stats{};
  runtime.stats(stats);
  return stats.contextTokens;
}

// Takes the text in without answering it: the flag is set before the turn begins.
int takeIn(Runtime& runtime, const std::string& text, Speed& speed) {
  const volatile int stop = 1;
  const uint64_t before = contextTokens(runtime);
  const Clock::time_point start = Clock::now();
  const int result = runtime.chatTurnStream(text, {}, &stop);
  speed.seconds = secondsSince(start);
  speed.tokens = contextTokens(runtime) - before;
  return result;
}

// Asks questions until that many forward passes are timed; an answer may end early.
int generate(Runtime& runtime, uint64_t tokens, Generation& generation) {
  Speed& speed = generation.speed;
  for (int i = 0; i < kMaxAnswers && speed.tokens < tokens; ++i) {
    uint64_t count = 0;
    Clock::time_point first;
    Clock::time_point last;
    int enough = 0;
    const int result = runtime.chatTurnStream(
        "Question " + std::to_string(i + 1) + ": what do you know?",
        [&](std::string_view) {
          last = Clock::now();
          if (count++ == 0) first = last;
          if (speed.tokens + count > tokens) enough = 1;
        },
        &enough);
    if (result != ORB_OK) return result;
    if (i == 0) generation.context = contextTokens(runtime) - std::min(count, tokens);
    if (count > 1) {
      speed.tokens += count - 1;
      speed.seconds += std::chrono::duration<double>(last - first).count();
    }
  }
  return ORB_OK;
}

// Calls into a runtime until one fails.
class Measurement {
 public:
  Measurement(const BenchOptions& options, const TextMaker& texts, Runtime& runtime)
      : options_(options), texts_(texts), runtime_(runtime) {}

  // Also finds out how many tokens a turn has beyond its text.
  bool warmUp() {
    Speed shortest;
    if (!check(takeIn(runtime_, "", shortest), "a short prompt")) return false;
    turnTokens_ = shortest.tokens;
    return true;
  }

  bool prompts(std::vector<Speed>& speeds) {
    for (const uint64_t tokens : options_.promptTokens) {
      runtime_.reset();
      if (!takeInTokens(tokens, speeds.emplace_back())) return false;
    }
    return true;
  }

  // The conversation grows from context to context; one that it has passed begins a new one.
  bool generations(std::vector<Generation>& generations) {
    for (const uint64_t context : options_.contexts) {
      if (contextTokens(runtime_) > context + context / 10) runtime_.reset();
      const uint64_t held = contextTokens(runtime_);
      const uint64_t missing = context - std::min(context, held);
      // The question is a turn by itself.
      Speed unused;
      if (missing > 2 * turnTokens_ && !takeInTokens(missing - 2 * turnTokens_, unused)) {
        return false;
      }
      Generation& generation = generations.emplace_back();
      if (!check(generate(runtime_, options_.genTokens, generation), "an answer")) return false;
    }
    return true;
  }

  bool slot(ORBBenchResult& result) {
    ORBBenchParams params{};
    params.structSize = sizeof params;
    params.genTokens = static_cast<int32_t>(options_.genTokens);
    params.extraTokens = 1;  // as many forward passes as the time is divided by
    return check(runtime_.bench(params, result), "the benchmark");
  }

 private:
  bool takeInTokens(uint64_t tokens, Speed& speed) {
    const std::string text = texts_.make(tokens - std::min(tokens, turnTokens_));
    return check(takeIn(runtime_, text, speed), "the prompt");
  }

  bool check(int result, const char* what) const {
    if (result == ORB_OK) return true;
    fail(options_.model.model,
         format("expected %s to run, found that it failed (code %d)", what, result));
    return false;
  }

  const BenchOptions& options_;
  const TextMaker& texts_;
  Runtime& runtime_;
  uint64_t turnTokens_ = 0;
};

// The options with room for what is measured.
ModelOptions withRoom(const BenchOptions& options) {
  ModelOptions model = options.model;
  model.maxTokens = options.genTokens + 1;
  const uint64_t longest =
      std::max(*std::max_element(options.contexts.begin(), options.contexts.end()),
               *std::max_element(options.promptTokens.begin(), options.promptTokens.end()));
  if (!model.context) {
    model.context = std::max(contextInUse(model), longest + options.genTokens + kContextMargin);
  }
  return model;
}

int measureModel(const BenchOptions& options, const TextMaker& texts, BenchReport& report) {
  ModelSession session;
  if (const int code = session.open(withRoom(options)); code != kOk) return code;
  report.createSeconds = session.createSeconds();
  Measurement measurement(options, texts, session.runtime());
  const bool done = measurement.warmUp() && measurement.prompts(report.prompts) &&
                    measurement.generations(report.generations) && measurement.slot(report.slot);
  report.peakMemory = peakMemoryBytes();
  return done ? kOk : kFailure;
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

// `read` is what a token reads; 0 where that says nothing about the speed.
void addSpeedRow(const BenchReport& report, const std::string& name, const Speed& speed,
                 uint64_t read, Table& table) {
  const double rate = speed.tokensPerSecond();
  std::vector<std::string> row{name, std::to_string(speed.tokens), formatDuration(speed.seconds),
                               formatThreeDigits(rate),
                               rate > 0 ? formatThreeDigits(1000 / rate) : "-"};
  if (read != 0) {
    const double bytesPerSecond = rate * static_cast<double>(read);
    row.push_back(formatBytes(read));
    row.push_back(formatThreeDigits(bytesPerSecond / 1e9));
    row.push_back(format("%.0f %%", report.share(bytesPerSecond) * 100));
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
  for (const Speed& prompt : report.prompts) addSpeedRow(report, "prompt", prompt, 0, table);
  for (const Generation& generation : report.generations) {
    addSpeedRow(report, "generation at " + std::to_string(generation.context), generation.speed,
                report.readAt(generation.context), table);
  }
  addSpeedRow(report, "bench slot", slotSpeed(report), report.readPerToken, table);
  return table.text() +
         format(
             "\ncreate %s; pure read %s GB/s with %d thread%s; tier %s; peak memory %s, "
             "of which the file is %s\n",
             formatDuration(report.createSeconds).c_str(),
             formatThreeDigits(report.readSpeed / 1e9).c_str(), report.threads,
             report.threads == 1 ? "" : "s", report.tier.c_str(),
             formatBytes(report.peakMemory).c_str(), formatBytes(report.fileBytes).c_str());
}

Json speedJson(const Speed& speed) {
  return {{"tokens", speed.tokens},
          {"seconds", speed.seconds},
          {"tokensPerSecond", speed.tokensPerSecond()}};
}

Json generationJson(const BenchReport& report, const Speed& speed, uint64_t read) {
  Json json = speedJson(speed);
  const double bytesPerSecond = speed.tokensPerSecond() * static_cast<double>(read);
  json["readBytesPerToken"] = read;
  json["bytesPerSecond"] = bytesPerSecond;
  json["shareOfPureRead"] = report.share(bytesPerSecond);
  return json;
}

Json benchJson(const BenchOptions& options, const BenchReport& report) {
  Json prompts = Json::array();
  for (const Speed& prompt : report.prompts) prompts.push_back(speedJson(prompt));
  Json generations = Json::array();
  for (const auto& [context, speed] : report.generations) {
    generations.push_back(generationJson(report, speed, report.readAt(context)));
    generations.back()["context"] = context;
  }
  return {{"file", options.model.model},
          {"tier", report.tier},
          {"threads", report.threads},
          {"fileBytes", report.fileBytes},
          {"readBytesPerToken", report.readPerToken},
          {"pureReadBytesPerSecond", report.readSpeed},
          {"peakMemoryBytes", report.peakMemory},
          {"createSeconds", report.createSeconds},
          {"prompts", prompts},
          {"generations", generations},
          {"benchSlot", generationJson(report, slotSpeed(report), report.readPerToken)}};
}

int runBench(const BenchOptions& options) {
  BenchReport report;
  report.tier = tierInUse(options.model);
  report.threads = threadsInUse(options.model);
  TextMaker texts;
  const bool readable = examine(options, report, texts);
  if (const int code = measureModel(options, texts, report); code != kOk) return code;
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
  constexpr uint64_t kLongest = 100000;
  CLI::App* command = app.add_subcommand("bench", "Measure how fast a model runs");
  auto options = std::make_shared<BenchOptions>();
  addModelOptions(*command, options->model);
  command->add_option("--prompt-tokens", options->promptTokens, "Tokens of each prompt, about [64]")
      ->check(CLI::Range(uint64_t{1}, kLongest))
      ->delimiter(',')
      ->allow_extra_args(false)
      ->type_name("N,...");
  command
      ->add_option("--contexts", options->contexts,
                   "Tokens, about, that the context holds where generation begins [16]")
      ->check(CLI::Range(uint64_t{1}, kLongest))
      ->delimiter(',')
      ->allow_extra_args(false)
      ->type_name("N,...");
  command->add_option("--gen-tokens", options->genTokens, "Tokens to generate at each context [64]")
      ->check(CLI::Range(uint64_t{1}, uint64_t{4000}))
      ->type_name("N");
  command->add_option("--context", options->model.context, "Tokens that the context holds [8192]")
      ->check(CLI::Range(uint64_t{1}, kHighestContext))
      ->type_name("N");
  command->add_flag("--json", options->json, "JSON instead of a table");
  addExamples(
      *command,
      "  orb bench models/demo.orb\n"
      "  orb bench model.orb --threads 1 --isa avx2 --json\n"
      "  orb bench model.orb --prompt-tokens 16,512 --contexts 16,2000,8000 --gen-tokens 16\n"
      "Generation reads every weight once a token, so its speed is compared with a pure\n"
      "read of memory by as many threads. The bench slot is the plug-in's own measure;\n"
      "it reads too fast when the model ends its text early.");
  command->callback([options, &exitCode] { exitCode = runBench(*options); });
}

}  // namespace orb
