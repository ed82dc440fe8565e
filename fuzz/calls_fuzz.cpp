// Calls through the tables in any order with any arguments that the interface allows, on two
// handles. Input: a byte for each call and what its arguments take.
#include <omp.h>

#include <array>

#include "fuzz.h"
#include "input.h"
#include "orb_plugin.h"
#include "plugin/scripted_model.h"

namespace {

using orbfuzz::Input;
using orbfuzz::MemoryFile;
using orbfuzz::require;
using orbtest::ScriptedModel;

constexpr size_t kMostCalls = 48;  // a limit of time, not of meaning

// Says "abc" to a turn; other letters go on for ever. One token makes every output infinite.
std::vector<uint8_t> chattyModel(const char* architecture) {
  ScriptedModel script;
  const int32_t newline = script.token("\n"), a = script.token("a"), b = script.token("b");
  const int32_t c = script.token("c"), spoilt = script.token("z");
  script.token("H");
  script.special("<|im_start|>");
  const int32_t end = script.special("<|im_end|>");
  script.token("i");
  script.tokenizer.specialIds[1] = end;
  script.chain({newline, a, b, c, end});
  script.spoil(spoilt);
  script.architecture = architecture;
  return script.build();
}

std::vector<uint8_t> truncated(std::vector<uint8_t> file) {
  file.resize(file.size() / 2);
  return file;
}

const char* modelPath(size_t number) {
  static const MemoryFile kGood(chattyModel("qwen35")), kMixture(chattyModel("qwen35moe")),
      kCut(truncated(chattyModel("qwen35")));
  const std::array<const char*, 6> paths = {kGood.path(), kGood.path(),         kMixture.path(),
                                            kCut.path(),  "/nowhere/model.orb", nullptr};
  return paths[number % paths.size()];
}

const ORBRuntimeV2& table() { return *orb_plugin_runtimes_v2(nullptr); }

// A buffer of an arbitrary length, possibly null, with bytes behind it that must stay.
class Output {
 public:
  explicit Output(Input& input) : size_(input.byte() % 40), absent_(size_ == 39) {
    bytes_.fill('\x5A');
  }
  char* data() { return absent_ ? nullptr : bytes_.data(); }
  size_t size() const { return size_; }

  void check(int result, bool ready) const {
    const bool usable = !absent_ && size_ != 0;
    require((result == ORB_INVALID) == !(ready && usable), "2 for wrong arguments only");
    require(result >= ORB_OK && result <= ORB_INVALID, "a known result");
    for (size_t i = usable ? size_ : 0; i < bytes_.size(); ++i) {
      require(bytes_[i] == '\x5A' || (usable && !ready), "nothing behind the buffer is written");
    }
    if (ready && usable) {
      const auto end = bytes_.begin() + static_cast<std::ptrdiff_t>(size_);
      require(std::find(bytes_.begin(), end, '\0') != end, "text is terminated");
    }
  }

 private:
  std::array<char, 64> bytes_{};
  size_t size_;
  bool absent_;
};

// Prompts end at a NUL byte; the first byte may make it null.
class Prompt {
 public:
  explicit Prompt(Input& input) : absent_(input.byte() == 0xFF), text_(input.line()) {}
  const char* get() const { return absent_ ? nullptr : text_.c_str(); }

 private:
  bool absent_;
  std::string text_;
};

ORBSessionOptions optionsFrom(Input& input) {
  ORBSessionOptions options{};
  options.structSize = 50 + input.byte() % 16;
  options.temperature = input.number<float>();
  options.topK = input.number<int32_t>();
  options.topP = input.number<float>();
  options.seed = input.number<uint64_t>();
  return options;
}

void create(ORBRuntimeHandle*& handle, Input& input) {
  table().destroy(handle);
  handle = nullptr;
  std::array<char, 64> message{};
  const size_t length = input.byte() % message.size();
  const char* path = modelPath(input.byte());
  const int result = table().create(path, input.byte() % 2 == 0 ? nullptr : "{}", &handle,
                                    length == 1 ? nullptr : message.data(), length);
  require((result == ORB_OK) == (handle != nullptr), "a handle or a failure");
  require(table().create(path, nullptr, nullptr, nullptr, 0) == ORB_INVALID, "nowhere to put it");
}

void probe(Input& input) {
  ORBRuntimeProbe verdict{};
  const bool wanted = input.byte() % 4 != 0;
  require(table().probe(modelPath(input.byte()), wanted ? &verdict : nullptr) == ORB_OK, "probe");
  if (wanted) require(verdict.arch != nullptr && verdict.detail != nullptr, "strings are there");
}

struct Listener {
  int left = 0;
  volatile int cancel = 0;
};

void listen(const char* bytes, unsigned length, void* user) {
  auto& listener = *static_cast<Listener*>(user);
  require(bytes != nullptr || length == 0, "a chunk has bytes");
  if (--listener.left < 0) listener.cancel = 1;
}

void stream(ORBRuntimeHandle* handle, Input& input) {
  const Prompt prompt(input);
  Listener listener;
  listener.left = input.byte() % 8;
  listener.cancel = static_cast<int>(input.byte() % 8 == 0);
  const bool heard = input.byte() % 4 != 0;
  const int result = orb_plugin_runtimes_v2s(nullptr)->chatTurnStream(
      handle, prompt.get(), heard ? listen : nullptr, &listener,
      input.byte() % 4 != 0 ? &listener.cancel : nullptr);
  require((result == ORB_INVALID) == (handle == nullptr), "2 without a handle only");
}

void measure(ORBRuntimeHandle* handle, Input& input) {
  const bool given = input.byte() % 4 != 0;
  ORBBenchParams params{};
  params.genTokens = input.number<int32_t>();
  params.extraTokens = input.number<int32_t>();
  ORBBenchResult figures{};
  const int result = table().bench(handle, given ? &params : nullptr, &figures);
  require((result == ORB_INVALID) == (handle == nullptr), "2 without a handle only");
  require(table().bench(handle, nullptr, nullptr) == ORB_INVALID, "2 without a record");
}

void state(ORBRuntimeHandle* handle, bool forget) {
  ORBRuntimeStats stats{};
  if (forget) (void)table().reset(handle);
  const int result = table().stats(handle, &stats);
  require((result == ORB_INVALID) == (handle == nullptr), "2 without a handle only");
  require(!forget || stats.contextTokens == 0, "nothing is left after a reset");
  require(table().stats(handle, nullptr) == ORB_INVALID, "2 without a record");
}

void call(std::array<ORBRuntimeHandle*, 2>& handles, Input& input) {
  const uint8_t which = input.byte();
  ORBRuntimeHandle*& handle = handles[which >> 7];
  switch (which % 10) {
    case 0:
      return create(handle, input);
    case 1:
      table().destroy(handle);
      handle = nullptr;
      return;
    case 2:
      return probe(input);
    case 3: {
      const Prompt prompt(input);
      Output out(input);
      out.check(table().generate(handle, prompt.get(), out.data(), out.size()), handle != nullptr);
      return;
    }
    case 4: {
      const ORBSessionOptions options = optionsFrom(input);
      const Prompt prompt(input);
      Output out(input);
      const bool given = input.byte() % 4 != 0;
      out.check(table().generateEx(handle, prompt.get(), given ? &options : nullptr, out.data(),
                                   out.size()),
                handle != nullptr);
      return;
    }
    case 5: {
      const Prompt prompt(input);
      Output out(input);
      out.check(table().chatTurn(handle, prompt.get(), out.data(), out.size()), handle != nullptr);
      return;
    }
    case 6:
      return stream(handle, input);
    case 7: {
      const ORBSessionOptions options = optionsFrom(input);
      const bool valid = handle != nullptr && options.structSize >= 56;
      require((table().configure(handle, &options) == ORB_OK) == valid, "configure");
      return;
    }
    case 8:
      return measure(handle, input);
    default:
      return state(handle, (which & 16) != 0);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  omp_set_num_threads(1);
  setenv("QWEN35_MAX_CONTEXT", "24", 1);
  setenv("QWEN35_MAX_TOKENS", "8", 1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Input input(data, size);
  std::array<ORBRuntimeHandle*, 2> handles{};
  // One handle is there to begin with, so that short inputs have something to call.
  require(table().create(modelPath(0), nullptr, handles.data(), nullptr, 0) == ORB_OK, "create");
  for (size_t i = 0; i < kMostCalls && !input.empty(); ++i) call(handles, input);
  for (ORBRuntimeHandle* handle : handles) table().destroy(handle);
  return 0;
}
