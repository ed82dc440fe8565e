// Writes the synthetic models of the comparison with the reference, and runs a model for it.
//
//   model_runner synth f32|mixed OUT
//   model_runner run MODEL TOKENS DUMP COUNT TIER THREADS
//
// `run` feeds the token ids (separated by commas) with QWEN35_HID_DUMP set to DUMP, then continues
// greedily and prints COUNT more ids. A tier that this machine can't run ends it with "cannot run".
#include <omp.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "format/loader.h"
#include "model/forward.h"
#include "model/kernels/kernel_table.h"
#include "model/model.h"
#include "synth/synth.h"

namespace {

using kiv::QuantType;

constexpr size_t kContext = 64;

int fail(const std::string& message) {
  std::fprintf(stderr, "model_runner: %s\n", message.c_str());
  return 1;
}

// All blocks have weights of their own, so that a block that reads another's would show.
orb::SynthOptions modelOptions(bool mixed) {
  orb::SynthOptions options;
  options.seed = 7;
  options.hidden = 256;
  options.ffn = 256;
  options.vocabulary = 512;
  options.shared = false;
  options.biases = true;
  options.overwrite = true;
  if (mixed) {
    options.embeddingType = QuantType::Q8_0;
    options.attentionType = QuantType::Q5_K;
    options.linearType = QuantType::Q4_K;
    options.smallType = QuantType::BF16;
    options.ffnType = QuantType::Q6_K;
  }
  return options;
}

int writeModel(const char* kind, const char* path) {
  const kiv::Status status =
      orb::writeSynthModel(path, modelOptions(std::strcmp(kind, "f32") != 0));
  return status.ok() ? 0 : fail(status.message);
}

std::vector<size_t> parseIds(const char* text) {
  std::vector<size_t> ids;
  std::istringstream stream(text);
  for (std::string id; std::getline(stream, id, ',');) ids.push_back(std::stoul(id));
  return ids;
}

int runModel(char** arguments) {
  const auto [path, tokens, dump, count, tier, threads] =
      std::tie(arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
  const qwen35::KernelTable& kernels = qwen35::selectKernels(tier);
  if (std::strcmp(kernels.name, tier) != 0) return fail(std::string("cannot run ") + tier);
  omp_set_num_threads(std::atoi(threads));

  kiv::ORBLoader loader;
  if (const kiv::Status status = loader.open(path); !status.ok()) return fail(status.message);
  qwen35::Model model;
  model.kernels = &kernels;
  if (!initLayers(loader, model, kContext) || !bindModel(loader, model, kContext)) {
    return fail("the model does not bind");
  }
  std::remove(dump);
  setenv("QWEN35_HID_DUMP", dump, 1);
  std::vector<float> embedding(model.hiddenSize), logits(model.vocabularySize);
  size_t position = 0;
  const auto feed = [&](size_t token) {
    embedRow(model, token, embedding.data());
    forwardToken(model, embedding.data(), position++, logits.data());
  };
  for (const size_t token : parseIds(tokens)) feed(token);
  unsetenv("QWEN35_HID_DUMP");
  for (int i = 0; i < std::atoi(count); ++i) {
    const auto best =
        static_cast<size_t>(std::max_element(logits.begin(), logits.end()) - logits.begin());
    std::printf("%zu\n", best);
    feed(best);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "synth") == 0) return writeModel(argv[2], argv[3]);
  if (argc == 8 && std::strcmp(argv[1], "run") == 0) return runModel(argv + 2);
  return fail("expected: synth f32|mixed OUT, or: run MODEL TOKENS DUMP COUNT TIER THREADS");
}
