// Creation, failure messages, defaults and destruction of a handle.
#include "plugin/session.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "plugin/opened_model.h"
#include "system/system.h"

namespace orbtest {
namespace {

// The smallest model, for files that lack or spoil one thing.
struct Plain : ScriptedModel {
  int32_t x = token("x");
};

struct Attempt {
  int result;
  std::string message;
};

Attempt create(const char* path) {
  char message[128] = "untouched";
  auto* handle = reinterpret_cast<ORBRuntimeHandle*>(message);  // must be replaced
  const int result = runtime().create(path, nullptr, &handle, message, sizeof message);
  EXPECT_EQ(handle != nullptr, result == ORB_OK);
  if (result == ORB_OK) runtime().destroy(handle);
  return {result, message};
}

Attempt create(const std::vector<uint8_t>& file) { return create(TempFile(file).path()); }

// Takes one tensor out of a finished file by giving it another name.
std::vector<uint8_t> without(std::vector<uint8_t> file, const std::string& tensor) {
  const std::string field = tensor + std::string(64 - tensor.size(), '\0');
  const auto at = std::search(file.begin(), file.end(), field.begin(), field.end());
  EXPECT_NE(at, file.end()) << tensor;
  // The last letter changes, so that the index stays sorted.
  *(at + static_cast<std::ptrdiff_t>(tensor.size()) - 1) += 1;
  return file;
}

std::vector<uint8_t> withArchitecture(const char* architecture) {
  Plain script;
  script.architecture = architecture;
  return script.build();
}

TEST(Create, OpensAModelAndLeavesTheMessageAlone) {
  const Attempt attempt = create(Plain().build());
  EXPECT_EQ(attempt.result, ORB_OK);
  EXPECT_EQ(attempt.message, "untouched");
}

TEST(Create, ConfigIsIgnored) {
  const TempFile file(Plain().build());
  ORBRuntimeHandle* handle = nullptr;
  EXPECT_EQ(runtime().create(file.path(), "{ not : [anything", &handle, nullptr, 0), ORB_OK);
  runtime().destroy(handle);
}

TEST(Create, NullOutIsInvalidAndWritesNoMessage) {
  char message[16] = "untouched";
  EXPECT_EQ(runtime().create("x.orb", nullptr, nullptr, message, sizeof message), ORB_INVALID);
  EXPECT_STREQ(message, "untouched");
}

// The messages, in the order in which their conditions are looked at.

TEST(Create, FileThatCannotBeOpened) {
  EXPECT_EQ(create("/nonexistent/model.orb").message, "orb open failed");
  EXPECT_EQ(create("").message, "orb open failed");
  EXPECT_EQ(create(static_cast<const char*>(nullptr)).message, "orb open failed");
  EXPECT_EQ(create(std::filesystem::temp_directory_path().string().c_str()).message,
            "orb open failed");
  EXPECT_EQ(create(nullptr).result, ORB_FAILED);
}

TEST(Create, FileThatIsNoContainer) {
  EXPECT_EQ(create(std::vector<uint8_t>{}).message, "orb open failed");
  std::vector<uint8_t> file = Plain().build();
  file[0] = 'X';
  EXPECT_EQ(create(file).message, "orb open failed");
}

TEST(Create, FileWithoutATokenizerSection) {
  ContainerBuilder builder;
  builder.meta("general.architecture", "qwen35moe");
  EXPECT_EQ(create(builder.build()).message, "orb open failed");
}

TEST(Create, MixtureOfExpertsIsNotSupported) {
  const Attempt attempt = create(withArchitecture("qwen35moe"));
  EXPECT_EQ(attempt.result, ORB_FAILED);
  EXPECT_EQ(attempt.message, "qwen35moe not supported yet");
}

TEST(Create, AnyOtherArchitectureIsRefused) {
  for (const char* name :
       {"", "qwen3", "qwen35 ", "qwen35m", "qwen35moex", "Qwen35", "llama", "qwen"}) {
    EXPECT_EQ(create(withArchitecture(name)).message, "not a qwen35-architecture model") << name;
  }
}

TEST(Create, AMissingArchitectureIsRefused) {
  const Plain script;
  ContainerBuilder none;
  none.meta("general.name", "qwen35").tokenizer(script.tokenizer);
  EXPECT_EQ(create(none.build()).message, "not a qwen35-architecture model");
  ContainerBuilder number;
  number.meta("general.architecture", 35u).tokenizer(script.tokenizer);
  EXPECT_EQ(create(number.build()).message, "not a qwen35-architecture model");
}

TEST(Create, TheArchitectureIsLookedAtBeforeTheTokenizer) {
  for (const auto& [name, message] : {std::pair{"qwen35moe", "qwen35moe not supported yet"},
                                      {"other", "not a qwen35-architecture model"}}) {
    ContainerBuilder builder;
    builder.meta("general.architecture", name).tokenizer({});
    EXPECT_EQ(create(builder.build()).message, message);
  }
}

TEST(Create, EmptyTokenListIsRefused) {
  ContainerBuilder builder;
  builder.meta("general.architecture", "qwen35").tokenizer({});
  EXPECT_EQ(create(builder.build()).message, "tokenizer load failed");
}

TEST(Create, MissingBlockTensorIsALayerFailure) {
  const std::vector<uint8_t> file = Plain().build();
  for (const char* tensor : {"blk.0.attn_norm.weight", "blk.31.ffn_down.weight",
                             "blk.7.attn_k_norm.weight", "blk.12.post_attention_norm.weight"}) {
    EXPECT_EQ(create(without(file, tensor)).message, "qwen35 layer bind failed") << tensor;
  }
}

TEST(Create, MissingGlobalTensorIsAModelFailure) {
  const std::vector<uint8_t> file = Plain().build();
  for (const char* tensor : {"token_embd.weight", "output_norm.weight"}) {
    EXPECT_EQ(create(without(file, tensor)).message, "qwen35 model bind failed") << tensor;
  }
}

TEST(Create, LayersAreBoundBeforeTheModel) {
  const auto file = without(without(Plain().build(), "output_norm.weight"), "blk.3.ffn_up.weight");
  EXPECT_EQ(create(file).message, "qwen35 layer bind failed");
}

TEST(Create, AFileOf2GiBAndMoreNeedsTheVariable) {
  const TempFile file(Plain().build());
  file.resize((uint64_t{1} << 31) + 4096);  // a hole
  EXPECT_EQ(create(file.path()).message, "orb open failed");
  const ScopedEnv env("QWEN35_LARGE_FILES", "1");
  EXPECT_EQ(create(file.path()).result, ORB_OK);
}

// The file with the data of its last tensor 4 GiB further on, behind a hole.
class FarTensorFile {
 public:
  FarTensorFile(std::vector<uint8_t> bytes, std::string name) : file_({}) {
    constexpr uint64_t kFurther = uint64_t{1} << 32;
    constexpr uint64_t kOffsetField = 104, kSizeField = 112;  // of an index entry
    name.resize(64);
    const auto at = std::search(bytes.begin(), bytes.end(), name.begin(), name.end());
    const auto entry = static_cast<uint64_t>(at - bytes.begin());
    const auto size = peek<uint64_t>(bytes, entry + kSizeField);
    poke(bytes, entry + kOffsetField, peek<uint64_t>(bytes, entry + kOffsetField) + kFurther);
    const size_t lastSection = peek<uint32_t>(bytes, 12) - 1;
    const uint64_t sectionSize = tableField(lastSection, 16);
    poke(bytes, sectionSize, peek<uint64_t>(bytes, sectionSize) + kFurther);
    reseal(bytes);
    std::fstream file(file_.path(), std::ios::in | std::ios::out | std::ios::binary);
    const auto* data = reinterpret_cast<const char*>(bytes.data());
    const uint64_t front = bytes.size() - size;
    file.write(data, static_cast<std::streamsize>(front)).flush();
    file_.resize(kFurther + bytes.size());
    file.seekp(static_cast<std::streamoff>(kFurther + front));
    file.write(data + front, static_cast<std::streamsize>(size));
  }
  const char* path() const { return file_.path(); }

 private:
  TempFile file_;
};

TEST(Create, ATensorBeyond4GiBIsReadWithTheVariable) {
  ScriptedModel script;
  const int32_t a = script.token("a"), b = script.token("b"), end = script.special("<|im_end|>");
  script.chain({a, b, end});
  script.tokenizer.specialIds[1] = end;
  const FarTensorFile file(script.build(), "blk.31.ffn_down.weight");  // which token follows which
  EXPECT_EQ(create(file.path()).message, "orb open failed");
  const ScopedEnv env("QWEN35_LARGE_FILES", "1");
  OpenedModel model(file.path());
  char out[16] = "";
  ASSERT_EQ(runtime().generate(model.handle(), "a", out, sizeof out), ORB_OK);
  EXPECT_STREQ(out, "b");
}

TEST(Create, MessageIsCutToTheBufferAndTerminated) {
  const std::string whole = "orb open failed";
  for (size_t size = 1; size <= whole.size() + 2; ++size) {
    std::vector<char> message(32, '?');
    ORBRuntimeHandle* handle = nullptr;
    EXPECT_EQ(runtime().create("", nullptr, &handle, message.data(), size), ORB_FAILED);
    EXPECT_EQ(std::string(message.data()), whole.substr(0, size - 1));
    for (size_t i = std::min(size, whole.size() + 1); i < message.size(); ++i) {
      EXPECT_EQ(message[i], '?') << size << " " << i;
    }
  }
}

TEST(Create, WithoutABufferNoMessageIsWritten) {
  ORBRuntimeHandle* handle = nullptr;
  char message[8] = "???????";
  EXPECT_EQ(runtime().create("", nullptr, &handle, nullptr, 100), ORB_FAILED);
  EXPECT_EQ(runtime().create("", nullptr, &handle, message, 0), ORB_FAILED);
  EXPECT_STREQ(message, "???????");
}

TEST(Create, AFreshHandleHasTheDefaults) {
  const TempFile file(Plain().build());
  OpenedModel model(file.path());
  const qwen35::Qwen35Session& session = model.session();
  EXPECT_TRUE(session.modelLoaded);
  EXPECT_EQ(session.modelPath, file.path());
  EXPECT_EQ(session.sampling.temperature, 0.0f);
  EXPECT_EQ(session.sampling.topK, 0);
  EXPECT_EQ(session.sampling.topP, 0.0f);
  EXPECT_EQ(session.position, 0u);
  EXPECT_EQ(session.generatedTokens, 0u);
  EXPECT_EQ(session.totalForwardMs, 0.0);
  EXPECT_EQ(session.lastForwardMs, 0.0);
  EXPECT_FALSE(session.chatActive);
}

TEST(Create, AFreshHandleHasTheArchitectureConstants) {
  const DefaultContext context;
  OpenedModel opened{Plain()};
  const qwen35::Model& model = opened.session().model;
  const uint64_t words[] = {model.attentionHeads,   model.keyValueHeads,    model.attentionHeadSize,
                            model.rotaryDims,       model.linearHeadSize,   model.linearKeyHeads,
                            model.linearValueHeads, model.linearValueWidth, model.convKernel};
  const uint64_t expected[] = {16, 4, 256, 64, 128, 16, 32, 4096, 4};
  for (size_t i = 0; i < 9; ++i) EXPECT_EQ(words[i], expected[i]) << i;
  EXPECT_EQ(model.layerCount, 32u);
  EXPECT_EQ(model.maxContext, 8192u);
  EXPECT_EQ(model.matVecHook, nullptr);
  EXPECT_EQ(model.matVecContext, nullptr);
}

TEST(Create, TheGeneratorIsSeededWith42) {
  OpenedModel model{Plain()};
  std::stringstream text;  // the state words, then the index of the next one
  text << model.session().rng;
  std::vector<uint64_t> words{std::istream_iterator<uint64_t>(text), {}};
  ASSERT_EQ(words.size(), 625u);
  EXPECT_EQ(words[0], 42u);
  EXPECT_EQ(words[1], 0xB93C8A93u);
  EXPECT_EQ(words[2], 0x71014437u);
  EXPECT_EQ(words[624], 624u);
}

TEST(Create, AFreshHandleDecodesGreedilyUntilConfigured) {
  const WithoutMixers quick;
  Plain script;
  script.mayFollow(script.x, script.x);
  script.mayFollow(script.x, script.token("y"));
  OpenedModel model(script);
  EXPECT_EQ(model.generate("x").text, std::string(96, 'x'));
  EXPECT_TRUE(model.session().rng == std::mt19937(42));
  const ORBSessionOptions hot = options(1.0f);
  runtime().configure(model.handle(), &hot);
  EXPECT_NE(model.generate("x").text, std::string(96, 'x'));
}

TEST(Create, AFailureLeavesNothingBehindAndTheNextCallWorks) {
  const std::vector<uint8_t> good = Plain().build();
  const std::vector<std::vector<uint8_t>> bad = {{},
                                                 withArchitecture("qwen35moe"),
                                                 withArchitecture("other"),
                                                 without(good, "blk.5.ffn_up.weight"),
                                                 without(good, "output_norm.weight")};
  const auto before = openFileCount();
  for (int round = 0; round < 3; ++round) {
    for (const auto& file : bad) {
      EXPECT_EQ(create(file).result, ORB_FAILED);
      EXPECT_EQ(openFileCount(), before);
      EXPECT_EQ(isFileMapped("orb_test_"), 0);
    }
    EXPECT_EQ(create(good).result, ORB_OK);
  }
  EXPECT_EQ(openFileCount(), before);
  EXPECT_EQ(isFileMapped("orb_test_"), 0);
}

TEST(Destroy, NullHandleIsIgnored) { runtime().destroy(nullptr); }

TEST(Destroy, HandlesAreIndependent) {
  const WithoutMixers quick;
  Plain script;
  auto first = std::make_unique<OpenedModel>(script);
  auto second = std::make_unique<OpenedModel>(script);
  const ORBSessionOptions hot = options(0.5f, 3, 0.5f, 9);
  runtime().configure(first->handle(), &hot);
  first->generate("xx");
  EXPECT_EQ(second->stats().contextTokens, 0u);
  EXPECT_EQ(second->session().sampling.temperature, 0.0f);
  EXPECT_TRUE(second->session().rng == std::mt19937(42));
  first.reset();
  EXPECT_EQ(second->generate("x").text, std::string(96, 'x'));
}

}  // namespace
}  // namespace orbtest
