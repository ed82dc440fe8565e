// orb chat: a conversation. At a terminal with line editing, streamed answers and Ctrl-C to stop
// one; with piped input one question a line, and a transcript on the standard output.
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <string_view>

#include "orb/command.h"
#include "orb/exit_codes.h"
#include "orb/line_editor.h"
#include "orb/model_session.h"
#include "orb/platform.h"
#include "orb/table.h"
#include "orb/text.h"
#include "orb/utf8_assembler.h"

namespace orb {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kPrompt = "> ";

// Around the key that ends the input.
constexpr const char* kHelpBegin =
    "/reset   forget the conversation\n"
    "/stats   context, answers and times\n"
    "/help    this list\n"
    "/quit    leave (also ";
constexpr const char* kHelpEnd =
    ")\n"
    "Ctrl-C stops an answer; twice, it ends the program. A question that begins with a slash goes\n"
    "through with a space in front.\n";

struct ChatOptions {
  ModelOptions model;
  SamplingOptions sampling;
};

// What answers took.
struct AnswerMeter {
  uint64_t tokens = 0;
  uint64_t passes = 0;  // between two tokens of an answer: one forward pass each
  double seconds = 0;   // of those

  void add(const AnswerMeter& answer) {
    tokens += answer.tokens;
    passes += answer.passes;
    seconds += answer.seconds;
  }

  std::string text() const {
    std::string text = std::to_string(tokens) + " tokens";
    if (passes > 0 && seconds > 0) {
      text += ", " + formatThreeDigits(static_cast<double>(passes) / seconds) + " tokens/s";
    }
    return text;
  }
};

// Meters one answer, token by token.
class AnswerClock {
 public:
  void count() {
    const Clock::time_point now = Clock::now();
    if (meter_.tokens++ == 0) first_ = now;
    meter_.passes = meter_.tokens - 1;
    meter_.seconds = std::chrono::duration<double>(now - first_).count();
  }
  const AnswerMeter& meter() const { return meter_; }

 private:
  AnswerMeter meter_;
  Clock::time_point first_;
};

class Chat {
 public:
  Chat(Runtime& runtime, const ChatOptions& options)
      : runtime_(runtime),
        options_(options),
        context_(contextInUse(options.model)),
        maxTokens_(maxTokensInUse(options.model)) {
    if (isTerminal(Stream::Input)) {
      editor_ = std::make_unique<LineEditor>();
      interrupts_ = std::make_unique<InterruptFlag>(InterruptFlag::Scope::Conversation);
    }
  }

  int run() {
    greet();
    std::string line;
    while (!leaving_ && readLine(line)) {
      if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
      if (!editor_) std::printf("%s%s\n", kPrompt, line.c_str());
      if (line[0] == '/') {
        runCommand(line);
      } else {
        ask(line);
      }
      if (!editor_) std::putchar('\n');
      std::fflush(stdout);
    }
    // Who sits at the terminal has seen what failed; a script asks the exit code.
    return editor_ ? kOk : exitCode_;
  }

 private:
  // An aside to the person at the terminal.
  void note(const std::string& text) const {
    if (isTerminal(Stream::Output)) std::printf("\x1b[2m%s\x1b[0m\n", text.c_str());
  }

  void greet() const {
    if (!editor_) return;
    const int threads = threadsInUse(options_.model);
    note(printable(options_.model.model) + ", context " + std::to_string(context_) +
         " tokens, tier " + tierInUse(options_.model) + ", " + std::to_string(threads) +
         (threads == 1 ? " thread" : " threads") + "; /help lists the commands");
  }

  // False at the end of the input.
  bool readLine(std::string& line) {
    if (!editor_) {
      if (!std::getline(std::cin, line)) return false;
      if (!line.empty() && line.back() == '\r') line.pop_back();
      return true;
    }
    for (;;) {
      interrupts_->clear();
      const LineEditor::Result result = editor_->read(kPrompt, line);
      if (result == LineEditor::Result::Line) return true;
      if (result == LineEditor::Result::Interrupted) continue;
      std::putchar('\n');
      return false;
    }
  }

  void runCommand(const std::string& line) {
    const std::string name = line.substr(0, line.find_last_not_of(" \t") + 1);
    if (name == "/quit") {
      leaving_ = true;
    } else if (name == "/help") {
      std::printf("%s%s%s", kHelpBegin, LineEditor::endKey(), kHelpEnd);
    } else if (name == "/stats") {
      printStats();
    } else if (name == "/reset") {
      runtime_.reset();
      std::puts("The conversation is forgotten.");
    } else {
      printError("", "expected /reset, /stats, /help or /quit, found " + name);
      exitCode_ = kFailure;
    }
  }

  void printStats() {
    ORBRuntimeStats stats{};
    runtime_.stats(stats);
    Table table({{""}, {""}});
    table.addRow({"context", std::to_string(stats.contextTokens) + " of " +
                                 std::to_string(context_) + " tokens"});
    table.addRow({"answers", std::to_string(answers_) + ", " + all_.text()});
    table.addRow({"forward passes", formatDuration(stats.totalForwardMs / 1000) +
                                        ", the last one " +
                                        formatDuration(stats.lastForwardMs / 1000)});
    std::fputs(table.text().c_str(), stdout);
  }

  void print(const std::string& text) {
    if (text.empty()) return;
    const std::string shown = isTerminal(Stream::Output) ? withoutControls(text) : text;
    std::fwrite(shown.data(), 1, shown.size(), stdout);
    std::fflush(stdout);
    endedLine_ = shown.back() == '\n';
  }

  void ask(const std::string& question) {
    if (question.find('\0') != std::string::npos) {
      printError("", "expected a question in text, found a NUL byte in it; leave it out");
      exitCode_ = kFailure;
      return;
    }
    AnswerClock clock;
    Utf8Assembler assembler;
    endedLine_ = true;
    const int result = runtime_.chatTurnStream(
        question,
        [&](std::string_view bytes) {
          clock.count();
          print(assembler.push(bytes));
        },
        interrupts_ ? interrupts_->flag() : nullptr);
    print(assembler.finish());
    const AnswerMeter& meter = clock.meter();
    if (!endedLine_ || meter.tokens == 0) std::putchar('\n');
    ++answers_;
    all_.add(meter);
    report(result, meter);
  }

  void report(int result, const AnswerMeter& meter) {
    ORBRuntimeStats stats{};
    runtime_.stats(stats);
    const bool full = stats.contextTokens >= context_;
    if (result != ORB_OK || full) {
      const std::string limit = std::to_string(context_);
      exitCode_ = result != ORB_OK ? kFailure : exitCode_;
      printError("", full ? "the context of " + limit +
                                " tokens is full; /reset begins a new conversation, --context "
                                "makes room for longer ones"
                          : "expected an answer, found the turn failed (code " +
                                std::to_string(result) + "); /reset begins a new conversation");
      return;
    }
    std::string text = meter.text();
    if (interrupts_ && interrupts_->isSet()) {
      text += ", stopped";
    } else if (meter.tokens >= maxTokens_) {
      text += ", cut at the limit (--max-tokens)";
    }
    note(text);
  }

  Runtime& runtime_;
  const ChatOptions& options_;
  uint64_t context_;
  uint64_t maxTokens_;
  std::unique_ptr<LineEditor> editor_;         // at a terminal only
  std::unique_ptr<InterruptFlag> interrupts_;  // likewise
  bool leaving_ = false;
  bool endedLine_ = true;
  uint64_t answers_ = 0;
  AnswerMeter all_;
  int exitCode_ = kOk;
};

int runChat(const ChatOptions& options) {
  ModelSession session;
  if (const int code = session.open(options.model); code != kOk) return code;
  session.runtime().configure(toSessionOptions(options.sampling));
  return Chat(session.runtime(), options).run();
}

}  // namespace

void addChatCommand(CLI::App& app, int& exitCode) {
  CLI::App* command = app.add_subcommand("chat", "Talk with a model");
  auto options = std::make_shared<ChatOptions>();
  addModelOptions(*command, options->model);
  addLengthOptions(*command, options->model);
  addSamplingOptions(*command, options->sampling);
  addExamples(*command,
              "  orb chat models/demo.orb\n"
              "  orb chat model.orb --temperature 0.7 --top-k 20 --max-tokens 500\n"
              "  printf 'Hello\\nWhat can you do?\\n' | orb chat model.orb > transcript.txt\n"
              "Piped input is one question (or /command) a line; the output then shows each one\n"
              "after \"> \", its answer, and an empty line. Bytes of an answer that are no UTF-8\n"
              "appear as U+FFFD.");
  command->callback([options, &exitCode] { exitCode = runChat(*options); });
}

}  // namespace orb
