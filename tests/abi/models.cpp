// Writes the model files of the tests in C into a directory.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "plugin/scripted_model.h"
#include "synth/synth.h"

namespace {

using orbtest::ContainerBuilder;
using orbtest::ScriptedModel;

// Answers "abc" to every turn; plain generation goes on from "a" with "bc".
ScriptedModel chat() {
  ScriptedModel script;
  const int32_t a = script.token("a"), b = script.token("b"), c = script.token("c");
  const int32_t newline = script.token("\n"), h = script.token("H"), i = script.token("i");
  script.token("x");
  script.special("<|im_start|>");
  const int32_t end = script.special("<|im_end|>");
  script.tokenizer.specialIds[1] = end;
  script.chain({newline, a, b, c, end});
  script.chain({h, i, end});
  return script;
}

// Three letters that follow one another at random; greedily each repeats itself.
ScriptedModel dice() {
  ScriptedModel script;
  const int32_t letters[] = {script.token("a"), script.token("b"), script.token("c")};
  for (const int32_t from : letters) {
    for (const int32_t next : letters) script.mayFollow(from, next);
  }
  return script;
}

ScriptedModel of(const char* architecture) {
  ScriptedModel script = chat();
  script.architecture = architecture;
  return script;
}

// Gives a tensor another name, so that it is missing; the index stays sorted.
std::vector<uint8_t> without(std::vector<uint8_t> file, std::string tensor) {
  tensor.resize(64);
  const auto at = std::search(file.begin(), file.end(), tensor.begin(), tensor.end());
  const auto length = static_cast<std::ptrdiff_t>(tensor.find('\0'));
  if (at != file.end()) *(at + length - 1) += 1;
  return file;
}

bool writeModels(const std::filesystem::path& directory) {
  bool written = true;
  const auto write = [&](const char* name, const std::vector<uint8_t>& content) {
    std::ofstream file(directory / name, std::ios::binary);
    file.write(reinterpret_cast<const char*>(content.data()),
               static_cast<std::streamsize>(content.size()));
    written = written && file.flush().good();
  };
  std::filesystem::create_directories(directory);
  const std::vector<uint8_t> good = chat().build();
  write("chat.orb", good);
  write("chat.ORB", good);
  write("dice.orb", dice().build());
  write("moe.orb", of("qwen35moe").build());
  write("other.orb", of("other").build());
  write("no_layer.orb", without(good, "blk.17.ffn_up.weight"));
  write("no_norm.orb", without(good, "output_norm.weight"));

  ScriptedModel endless = chat();
  endless.follow(0, 0);
  write("endless.orb", endless.build());

  std::vector<uint8_t> broken = good;
  broken[0] = 'X';
  write("broken.orb", broken);

  ContainerBuilder noTokens;
  noTokens.meta("general.architecture", "qwen35").tokenizer({});
  write("no_tokens.orb", noTokens.build());
  ContainerBuilder noTokenizer;
  noTokenizer.meta("general.architecture", "qwen35");
  write("no_tokenizer.orb", noTokenizer.build());

  orb::SynthOptions options;
  options.hidden = 64;
  options.ffn = 64;
  options.vocabulary = 256;
  options.valueHeads = 4;
  options.pattern = std::string(15, 'f') + "l";
  options.overwrite = true;
  const kiv::Status status = orb::writeSynthModel((directory / "synth.orb").string(), options);
  if (!status.ok()) std::fprintf(stderr, "%s\n", status.message.c_str());
  return written && status.ok();
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) {
    std::fprintf(stderr, "usage: abi_models DIRECTORY\n");
    return 2;
  }
  return writeModels(arguments[1]) ? 0 : 1;
}
