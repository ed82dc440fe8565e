// Speed of what surrounds the forward pass, at the size of a real vocabulary: choosing a token from
// the logits by every kind of setting, and the tokenizer: reading a vocabulary, encoding, decoding.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "format/loader.h"
#include "format/orb2_writer.h"
#include "plugin/sampler.h"
#include "tokenizer/tokenizer.h"

namespace {

using benchmark::Counter;

constexpr size_t kVocabulary = 248320;
constexpr size_t kTextBytes = size_t{1} << 20;
constexpr size_t kLearned = 4000;  // merge rules that the measured texts use

// Logits as a model gives them, a wide bell, and shapes that a choice could find hard: all nearly
// alike, all alike.
std::vector<float> logits(float deviation) {
  std::mt19937 random(1);
  std::normal_distribution<float> normal(2, deviation);
  std::vector<float> list(kVocabulary);
  if (deviation == 0) return list;
  for (float& logit : list) logit = normal(random);
  return list;
}

void sample(benchmark::State& state, float deviation, qwen35::SamplingSettings settings) {
  const std::vector<float> list = logits(deviation);
  qwen35::Sampler sampler;
  std::mt19937 generator(42);
  for (auto _ : state) {
    benchmark::DoNotOptimize(sampler.sampleNext(list.data(), list.size(), settings, generator));
  }
}

// The project's own files: documents for prose, sources for code, up to the size of a text.
std::string readAll(std::initializer_list<const char*> files) {
  std::string all;
  for (const char* file : files) {
    std::ifstream stream(std::string(ORB_SOURCE_FOLDER "/") + file, std::ios::binary);
    all.append(std::istreambuf_iterator<char>(stream), {});
  }
  return all;
}

std::string repeated(const std::string& text) {
  std::string all;
  while (all.size() < kTextBytes) all += text;
  all.resize(kTextBytes);
  return all;
}

const std::string& prose() {
  static const std::string text = readAll({"README.md", "docs/architecture.md", "docs/format.md"});
  return text;
}

const std::string& code() {
  static const std::string text =
      readAll({"src/tokenizer/bpe.cpp", "src/format/orb2_reader.cpp", "src/model/forward.cpp"});
  return text;
}

// Adds rules to the data, most frequent pair of a text first, as vocabularies are made.
class Learner {
 public:
  explicit Learner(kiv::TokenizerData& data) : data_(data) {
    known_.insert(data.tokens.begin(), data.tokens.end());
  }

  void learn(const std::string& text, size_t rules) {
    std::vector<std::vector<std::string>> words = split(text);
    for (size_t rule = 0; rule < rules; ++rule) {
      std::map<std::pair<std::string, std::string>, int> counts;
      for (const auto& word : words) {
        for (size_t i = 0; i + 1 < word.size(); ++i) ++counts[{word[i], word[i + 1]}];
      }
      if (counts.empty()) return;
      const auto best =
          std::max_element(counts.begin(), counts.end(), [](const auto& a, const auto& b) {
            return a.second < b.second;
          })->first;
      add(best.first, best.second);
      for (auto& word : words) apply(best, word);
    }
  }

  // Rules that join random tokens, until the vocabulary is full.
  void fill() {
    std::mt19937 random(3);
    while (data_.tokens.size() < kVocabulary) {
      const std::string& left = data_.tokens[random() % data_.tokens.size()];
      const std::string& right = data_.tokens[random() % data_.tokens.size()];
      if (left.size() + right.size() <= 24) add(std::string(left), std::string(right));
    }
  }

 private:
  // Distinct words, the marker of the space before them included.
  static std::vector<std::vector<std::string>> split(const std::string& text) {
    std::unordered_set<std::string> seen;
    std::vector<std::vector<std::string>> words;
    std::string word;
    for (const char c : text) {
      if ((c == ' ' || c == '\n') && seen.insert(word).second) {
        words.emplace_back(1, "\u0120");
        for (const char letter : word) words.back().emplace_back(1, letter);
      }
      if (c == ' ' || c == '\n') word.clear();
      if (c > ' ') word += c;
    }
    return words;
  }

  static void apply(const std::pair<std::string, std::string>& pair,
                    std::vector<std::string>& word) {
    for (size_t i = 0; i + 1 < word.size(); ++i) {
      if (word[i] != pair.first || word[i + 1] != pair.second) continue;
      word[i] += word[i + 1];
      word.erase(word.begin() + static_cast<std::ptrdiff_t>(i) + 1);
    }
  }

  void add(const std::string& left, const std::string& right) {
    if (!known_.insert(left + right).second) return;
    data_.merges.push_back(left + ' ' + right);
    data_.tokens.push_back(left + right);
  }

  kiv::TokenizerData& data_;
  std::unordered_set<std::string> known_;
};

// A byte-level vocabulary of the full size, with nearly as many rules.
const kiv::TokenizerData& vocabulary() {
  static const kiv::TokenizerData data = [] {
    kiv::TokenizerData made;
    made.specialIds = {-1, 1, -1, -1};
    made.tokens = {"<|im_start|>", "<|im_end|>", "\n", "\u0120"};
    for (char c = '!'; c <= '~'; ++c) made.tokens.emplace_back(1, c);
    Learner learner(made);
    learner.learn(prose(), kLearned / 2);
    learner.learn(code(), kLearned / 2);
    learner.fill();
    made.types.assign(kVocabulary, 1);
    made.types[0] = made.types[1] = 3;
    return made;
  }();
  return data;
}

const kiv::Tokenizer& tokenizer() {
  static const auto loaded = [] {
    auto made = std::make_unique<kiv::Tokenizer>();
    if (!made->load(vocabulary()).ok()) std::abort();
    return made;
  }();
  return *loaded;
}

// What opening a model does with its vocabulary: reads the section, builds the indexes.
void loadVocabulary(benchmark::State& state) {
  const std::filesystem::path folder = std::filesystem::temp_directory_path();
  const std::string file =
      (folder / ("vocabulary" + std::to_string(std::random_device()()) + ".orb")).string();
  kiv::ORB2Writer writer;
  if (!writer.open(file, /*overwrite=*/true).ok()) std::abort();
  writer.setTokenizer(vocabulary());
  if (!writer.finish().ok()) std::abort();
  for (auto _ : state) {
    auto loader = std::make_unique<kiv::ORBLoader>();
    auto loaded = std::make_unique<kiv::Tokenizer>();
    if (!loader->open(file.c_str()).ok() || !loaded->load(std::move(loader->tokenizer)).ok()) {
      state.SkipWithError("the vocabulary does not load");
    }
    state.PauseTiming();
    loaded.reset();
    loader.reset();
    state.ResumeTiming();
  }
  std::filesystem::remove(file);
  state.counters["tokens"] = static_cast<double>(vocabulary().tokens.size());
  state.counters["merges"] = static_cast<double>(vocabulary().merges.size());
}

void encode(benchmark::State& state, const std::string& text) {
  std::vector<int32_t> ids;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tokenizer().encode(text, ids, false).ok());
  }
  state.counters["B/s"] =
      Counter(static_cast<double>(text.size()), Counter::kIsIterationInvariantRate);
  state.counters["B/token"] =
      static_cast<double>(text.size()) / static_cast<double>(std::max<size_t>(ids.size(), 1));
}

// One token at a time, as generation does.
void decode(benchmark::State& state) {
  std::vector<int32_t> ids;
  if (!tokenizer().encode(repeated(prose()), ids, false).ok()) std::abort();
  std::string piece;
  for (auto _ : state) {
    for (const int32_t id : ids) {
      benchmark::DoNotOptimize(tokenizer().decode({id}, piece).ok());
    }
  }
  state.counters["tokens/s"] =
      Counter(static_cast<double>(ids.size()), Counter::kIsIterationInvariantRate);
}

void registerSampler() {
  const std::pair<const char*, float> shapes[] = {
      {"bell", 3.0f}, {"narrow", 0.001f}, {"equal", 0.0f}};
  const std::pair<const char*, qwen35::SamplingSettings> settings[] = {
      {"greedy", {0, 0, 0}},
      {"temperature_0.8", {0.8f, 0, 0}},
      {"temperature_0.8/top_k_40", {0.8f, 40, 0}},
      {"temperature_0.8/top_k_100000", {0.8f, 100000, 0}},
      {"temperature_0.8/top_p_0.95", {0.8f, 0, 0.95f}},
      {"temperature_0.8/top_k_40/top_p_0.95", {0.8f, 40, 0.95f}},
      {"temperature_100", {100.0f, 0, 0}}};
  for (const auto& [shape, deviation] : shapes) {
    for (const auto& [name, setting] : settings) {
      const std::string label = std::string("sampler/") + shape + "/" + name;
      benchmark::RegisterBenchmark(label.c_str(), sample, deviation, setting)
          ->Unit(benchmark::kMicrosecond);
    }
  }
}

void registerTokenizer() {
  benchmark::RegisterBenchmark("tokenizer/load", loadVocabulary)->Unit(benchmark::kMillisecond);
  const std::pair<const char*, std::string> texts[] = {{"prose", repeated(prose())},
                                                       {"code", repeated(code())},
                                                       {"one_line_of_a", repeated("a")},
                                                       {"one_line_of_spaces", repeated(" ")},
                                                       {"one_line_of_digits", repeated("7")}};
  for (const auto& [name, text] : texts) {
    benchmark::RegisterBenchmark((std::string("tokenizer/encode/") + name).c_str(), encode, text)
        ->Unit(benchmark::kMillisecond);
  }
  benchmark::RegisterBenchmark("tokenizer/decode", decode)->Unit(benchmark::kMillisecond);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  registerSampler();
  registerTokenizer();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
