// The streaming writer, read back through the loader.
#include <gtest/gtest.h>
#include <signal.h>
#if !defined(_WIN32)
#include <sys/mman.h>
#include <sys/resource.h>
#endif

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "format/container_builder.h"
#include "format/loader.h"
#include "format/orb2_writer.h"

namespace kiv {
namespace {

namespace fs = std::filesystem;
using orbtest::peek;

// What a caller does not look at: finish() must report it.
void drop(const Status&) {}

// A writer on a path in a directory of its own.
class WriterTest : public testing::Test {
 protected:
  WriterTest() {
    static int counter = 0;
    directory_ = fs::temp_directory_path() /
                 ("orb_writer_" + std::to_string(getpid()) + "_" + std::to_string(counter++));
    fs::create_directory(directory_);
    path_ = (directory_ / "model.orb").string();
  }
  ~WriterTest() override { fs::remove_all(directory_); }

  void openWriter() { ASSERT_EQ(writer_.open(path_, false).message, ""); }

  Status addFloats(const std::string& name, const std::vector<float>& values) {
    Status status = writer_.beginTensor(name, QuantType::F32, {values.size()});
    if (status.ok()) status = writer_.append(values.data(), values.size() * sizeof(float));
    return status.ok() ? writer_.endTensor() : status;
  }

  std::vector<std::string> filesLeft() const {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory_)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  std::string contentOf(const std::string& path) const {
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), {});
  }

  using Names = std::vector<std::string>;

  fs::path directory_;
  std::string path_;
  ORB2Writer writer_;
};

TEST_F(WriterTest, WhatIsWrittenIsReadBack) {
  TokenizerData tokenizer;
  tokenizer.tokens = {"x", "", std::string("a\0b", 3)};
  tokenizer.scores = {1, 2};
  tokenizer.types = {1, 3, -1};
  tokenizer.merges = {"x x"};
  tokenizer.specialIds = {0, 1, -1, 5};
  tokenizer.flag = true;
  tokenizer.model = "bpe";
  const float values[4] = {1, 2, 3, 4};

  openWriter();
  ASSERT_TRUE(writer_.beginTensor("b", QuantType::F32, {2, 2}).ok());
  ASSERT_TRUE(writer_.append(values, 12).ok());
  ASSERT_TRUE(writer_.append(nullptr, 0).ok());
  ASSERT_TRUE(writer_.append(values + 3, 4).ok());
  ASSERT_TRUE(writer_.endTensor().ok());
  writer_.setMeta("general.architecture", "qwen35");
  writer_.setMeta("u32", uint32_t{7});
  writer_.setMeta("u64", uint64_t{1} << 40);
  writer_.setMeta("f32", 0.5f);
  writer_.setMeta("i32", int32_t{-7});
  writer_.setMeta("list", std::vector<uint32_t>{1, 2, 4000000000});
  writer_.setHeaderWords(1, 2, 3);
  writer_.setTokenizer(tokenizer);
  writer_.setText("free");
  const Status finished = writer_.finish();
  ASSERT_TRUE(finished.ok()) << finished.message;

  ORBLoader loader;
  const Status status = loader.open(path_.c_str());
  ASSERT_TRUE(status.ok()) << status.message;
  EXPECT_EQ(loader.headerWordA, 1u);
  EXPECT_EQ(loader.headerWordB, 2u);
  EXPECT_EQ(loader.headerWordC, 3u);
  EXPECT_EQ(loader.text, "free");
  EXPECT_EQ(loader.tokenizer.tokens, tokenizer.tokens);
  EXPECT_EQ(loader.tokenizer.scores, tokenizer.scores);
  EXPECT_EQ(loader.tokenizer.types, tokenizer.types);
  EXPECT_EQ(loader.tokenizer.merges, tokenizer.merges);
  EXPECT_EQ(loader.tokenizer.specialIds, tokenizer.specialIds);
  EXPECT_TRUE(loader.tokenizer.flag);
  EXPECT_EQ(loader.tokenizerModel, "bpe");

  std::string architecture;
  uint32_t u32 = 0;
  uint64_t u64 = 0;
  float f32 = 0;
  int32_t i32 = 0;
  const uint32_t* list = nullptr;
  uint64_t length = 0;
  EXPECT_TRUE(loader.reader.getMetaStr("general.architecture", architecture));
  EXPECT_TRUE(loader.reader.getMetaU32("u32", u32));
  EXPECT_TRUE(loader.reader.getMetaU64("u64", u64));
  EXPECT_TRUE(loader.reader.getMetaF32("f32", f32));
  EXPECT_TRUE(loader.reader.getMetaI32("i32", i32));
  ASSERT_TRUE(loader.reader.getMetaU32Array("list", list, length));
  EXPECT_EQ(architecture, "qwen35");
  EXPECT_EQ(u32, 7u);
  EXPECT_EQ(u64, uint64_t{1} << 40);
  EXPECT_EQ(f32, 0.5f);
  EXPECT_EQ(i32, -7);
  EXPECT_EQ(std::vector<uint32_t>(list, list + length), (std::vector<uint32_t>{1, 2, 4000000000}));

  const TensorView* b = loader.findTensor("b");
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->type, 0);
  EXPECT_EQ(b->ndims, 2);
  EXPECT_EQ(b->dims[0], 2u);
  EXPECT_EQ(b->dims[1], 2u);
  EXPECT_EQ(b->size, 16u);
  EXPECT_EQ(std::memcmp(b->data, values, sizeof values), 0);
}

TEST_F(WriterTest, AModelOfNothingOpens) {
  openWriter();
  ASSERT_TRUE(writer_.finish().ok());
  ORB2Reader reader;
  EXPECT_EQ(reader.open(path_.c_str()).message, "");
  EXPECT_EQ(reader.header().tensorCount, 0u);
  EXPECT_EQ(reader.section(orb2::SectionType::Tokenizer), nullptr);
  EXPECT_EQ(reader.section(orb2::SectionType::Text), nullptr);
  EXPECT_EQ(reader.section(orb2::SectionType::QuantInfo), nullptr);
}

TEST_F(WriterTest, TheIndexIsSortedAndEveryTensorAligned) {
  openWriter();
  Names names;
  for (int i = 0; i < 200; ++i) {
    names.push_back("blk." + std::to_string(i * 7 % 200) + (i % 2 == 0 ? ".a" : ".b"));
    ASSERT_TRUE(
        addFloats(names.back(), std::vector<float>(1 + i % 40, static_cast<float>(i))).ok());
  }
  names.push_back(std::string(64, 'n'));
  ASSERT_TRUE(addFloats(names.back(), {200}).ok());
  writer_.setTokenizer({});
  ASSERT_TRUE(writer_.finish().ok());

  ORBLoader loader;
  ASSERT_EQ(loader.open(path_.c_str()).message, "");
  for (size_t i = 0; i < names.size(); ++i) {
    const TensorView* tensor = loader.findTensor(names[i]);
    ASSERT_NE(tensor, nullptr) << names[i];
    EXPECT_NE(loader.reader.findTensor(names[i].c_str()), nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(tensor->data) % 64, 0u);
    float first = 0;
    std::memcpy(&first, tensor->data, sizeof first);
    EXPECT_EQ(first, static_cast<float>(i));
  }
}

TEST_F(WriterTest, AliasesShareTheBytes) {
  openWriter();
  ASSERT_TRUE(addFloats("z.with.a.long.name", {1, 2}).ok());
  ASSERT_TRUE(addFloats("y", {3}).ok());
  const uint64_t before = writer_.bytesWritten();
  ASSERT_TRUE(writer_.addAlias("a", "z.with.a.long.name").ok());
  ASSERT_TRUE(writer_.addAlias("b", "a").ok());
  EXPECT_EQ(writer_.bytesWritten(), before);
  writer_.setTokenizer({});
  ASSERT_TRUE(writer_.finish().ok());

  ORBLoader loader;
  ASSERT_EQ(loader.open(path_.c_str()).message, "");
  EXPECT_EQ(loader.tensorCount, 4u);
  const TensorView* z = loader.findTensor("z.with.a.long.name");
  for (const char* alias : {"a", "b"}) {
    const TensorView* view = loader.findTensor(alias);
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view->data, z->data);
    EXPECT_EQ(view->size, 8u);
    EXPECT_EQ(view->dims[0], 2u);
    EXPECT_EQ(view->name, alias);
    EXPECT_NE(loader.reader.findTensor(alias), nullptr);
  }
}

TEST_F(WriterTest, ThePathHoldsNothingBeforeTheEnd) {
  openWriter();
  ASSERT_TRUE(addFloats("a", std::vector<float>(1 << 20)).ok());
  EXPECT_EQ(filesLeft(), Names{"model.orb.part"});
  ASSERT_TRUE(writer_.finish().ok());
  EXPECT_EQ(filesLeft(), Names{"model.orb"});
}

TEST_F(WriterTest, AnAbandonedModelLeavesNothing) {
  openWriter();
  ASSERT_TRUE(addFloats("a", {1}).ok());
  writer_.abandon();
  EXPECT_EQ(filesLeft(), Names{});
  writer_.abandon();
  {
    ORB2Writer destroyed;
    ASSERT_TRUE(destroyed.open(path_, false).ok());
  }
  EXPECT_EQ(filesLeft(), Names{});
}

TEST_F(WriterTest, ATensorThatWasAbandonedDoesNotStayOpen) {
  openWriter();
  ASSERT_TRUE(writer_.beginTensor("a", QuantType::F32, {1}).ok());
  openWriter();
  EXPECT_EQ(writer_.finish().message, "");
}

TEST_F(WriterTest, OneWriterWritesOneModelAfterTheOther) {
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(writer_.open(path_ + std::to_string(round), false).message, "");
    ASSERT_TRUE(addFloats("a", {1, 2, 3}).ok());
    writer_.setMeta("k", "v");
    writer_.setText("t");
    if (round != 1) {
      ASSERT_EQ(writer_.finish().message, "");
    }
  }
  EXPECT_EQ(filesLeft(), (Names{"model.orb0", "model.orb2"})) << "the second was abandoned";
  EXPECT_EQ(contentOf(path_ + "0"), contentOf(path_ + "2")) << "nothing is carried over";
}

TEST_F(WriterTest, AnExistingFileIsRefusedUnlessItMayBeOverwritten) {
  std::ofstream(path_) << "precious";
  const Status status = writer_.open(path_, false);
  EXPECT_EQ(status.code, StatusCode::IOError);
  EXPECT_EQ(status.message, "ORB2Writer: " + path_ + ": already exists");
  EXPECT_FALSE(writer_.finish().ok());
  EXPECT_EQ(filesLeft(), Names{"model.orb"});

  ASSERT_TRUE(writer_.open(path_, true).ok());
  EXPECT_EQ(contentOf(path_), "precious") << "until the end";
  ASSERT_TRUE(writer_.finish().ok());
  EXPECT_EQ(contentOf(path_).substr(0, 4), "ORB2");
  EXPECT_EQ(filesLeft(), Names{"model.orb"});
}

TEST_F(WriterTest, AFileThatAppearsMeanwhileIsKept) {
  openWriter();
  std::ofstream(path_) << "precious";
  EXPECT_EQ(writer_.finish().message, "ORB2Writer: " + path_ + ": already exists");
  EXPECT_EQ(contentOf(path_), "precious");
  EXPECT_EQ(filesLeft(), Names{"model.orb"});
}

TEST_F(WriterTest, OnlyRegularFilesAreOverwritten) {
  fs::create_directory(path_);
  EXPECT_EQ(writer_.open(path_, true).message, "ORB2Writer: " + path_ + ": not a regular file");
#if !defined(_WIN32)
  EXPECT_EQ(writer_.open("/dev/null", true).message, "ORB2Writer: /dev/null: not a regular file");
#endif
}

TEST_F(WriterTest, AMissingDirectoryIsReportedWithPathAndReason) {
  const std::string path = (directory_ / "none" / "model.orb").string();
  const Status status = writer_.open(path, false);
  EXPECT_EQ(status.code, StatusCode::IOError);
  EXPECT_EQ(status.message,
            "ORB2Writer: " + path + ": cannot create a file beside it: No such file or directory");
}

#if !defined(_WIN32)
// A limit on file sizes stands in for a full disk.
class FullDiskTest : public WriterTest {
 protected:
  FullDiskTest() {
    old_ = signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &limit_);
    rlimit small = limit_;
    small.rlim_cur = 100'000;
    setrlimit(RLIMIT_FSIZE, &small);
  }
  void setSpace(uint64_t bytes) const {
    rlimit space = limit_;
    space.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &space);
  }
  ~FullDiskTest() override {
    setrlimit(RLIMIT_FSIZE, &limit_);
    signal(SIGXFSZ, old_);
  }

  void expectFull(const Status& status) const {
    EXPECT_EQ(status.code, StatusCode::IOError);
    EXPECT_EQ(status.message, "ORB2Writer: " + path_ + ": cannot write: File too large");
  }

 private:
  void (*old_)(int) = nullptr;
  rlimit limit_{};
};

TEST_F(FullDiskTest, ALargeAppendFailsAtOnceAndEverythingAfterIt) {
  openWriter();
  expectFull(addFloats("a", std::vector<float>(1 << 20)));
  EXPECT_EQ(filesLeft(), Names{}) << "the space is given back";
  expectFull(addFloats("b", {1}));
  expectFull(writer_.addAlias("c", "a"));
  expectFull(writer_.finish());
  expectFull(writer_.finish());
  EXPECT_EQ(filesLeft(), Names{});
}

TEST_F(FullDiskTest, WhatIsStillBufferedFailsAtTheEnd) {
  openWriter();
  Status status;
  for (int i = 0; status.ok() && i < 1000; ++i) {
    status = addFloats(std::to_string(i), std::vector<float>(100));
  }
  const Status finished = writer_.finish();
  expectFull(finished);
  EXPECT_EQ(filesLeft(), Names{});
}

// Parts longer than what is buffered, so that each of them is where the disk may be full.
TEST_F(FullDiskTest, WhereverTheSpaceEndsTheModelIsWholeOrNotThere) {
  TokenizerData tokenizer;
  tokenizer.model = std::string(9000, 'm');
  const std::vector<float> values(1001);
  uint64_t whole = 0;
  for (uint64_t space = 0; whole == 0; space += 500) {
    setSpace(space);
    drop(writer_.open(path_, false));
    drop(addFloats("a", values));
    drop(addFloats("b", values));
    writer_.setMeta("long", std::string(9000, 'v'));
    writer_.setTokenizer(tokenizer);
    writer_.setText(std::string(9000, 't'));
    for (int i = 0; i < 100; ++i) drop(writer_.addAlias("alias" + std::to_string(i), "a"));
    const Status finished = writer_.finish();
    if (finished.ok()) {
      whole = fs::file_size(path_);
      EXPECT_GT(whole + 500, space);
      EXPECT_LE(whole, space);
    } else {
      expectFull(finished);
      EXPECT_EQ(filesLeft(), Names{}) << space;
    }
  }
  ORBLoader loader;
  EXPECT_EQ(loader.open(path_.c_str()).message, "");
}

TEST_F(WriterTest, ADiskThatLosesTheDataIsReported) {
  fs::create_symlink("/dev/null", path_ + ".part");  // takes everything, brings nothing to a disk
  openWriter();
  EXPECT_EQ(writer_.finish().message, "ORB2Writer: " + path_ + ": cannot write: Invalid argument");
  EXPECT_EQ(filesLeft(), Names{});
}

TEST_F(WriterTest, APartThatSomebodyRemovesIsReported) {
  openWriter();
  fs::remove(path_ + ".part");
  EXPECT_EQ(writer_.finish().message,
            "ORB2Writer: " + path_ + ": cannot rename onto it: No such file or directory");
  EXPECT_EQ(filesLeft(), Names{});
}

// A text that is all length: the system reserves the addresses only.
TEST_F(WriterTest, TextsOf4GiBAreRefused) {
  constexpr size_t kSize = size_t{1} << 32;
  void* addresses = mmap(nullptr, kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(addresses, MAP_FAILED);
  openWriter();
  writer_.setMeta("k", std::string_view(static_cast<const char*>(addresses), kSize));
  EXPECT_EQ(writer_.finish().message, "ORB2Writer: " + path_ + ": metadata k is too long");
  munmap(addresses, kSize);
}
#endif

TEST_F(WriterTest, TokenizerListsLongerThanTheFormatAllowsAreRefused) {
  TokenizerData tokenizer;
  tokenizer.types.resize(orb2::kMaxTokenizerCount + size_t{1});
  openWriter();
  writer_.setTokenizer(tokenizer);
  EXPECT_EQ(writer_.finish().message, "ORB2Writer: " + path_ + ": the tokenizer is too large");
  EXPECT_EQ(filesLeft(), Names{});
}

struct Misuse {
  const char* name;
  const char* message;  // behind prefix and path
  std::function<void(ORB2Writer&)> use;
};

void PrintTo(const Misuse& test, std::ostream* out) { *out << test.name; }

void addOne(ORB2Writer& writer, std::string_view name) {
  const float one = 1;
  drop(writer.beginTensor(name, QuantType::F32, {1}));
  drop(writer.append(&one, sizeof one));
  drop(writer.endTensor());
}

const std::vector<Misuse> kMisuses = {
    {"SecondTensorOfOneName", "second tensor a",
     [](ORB2Writer& w) {
       addOne(w, "a");
       addOne(w, "a");
     }},
    {"AliasOfAnExistingName", "second tensor a",
     [](ORB2Writer& w) {
       addOne(w, "a");
       drop(w.addAlias("a", "a"));
     }},
    {"AliasOfNothing", "no tensor b to share",
     [](ORB2Writer& w) {
       addOne(w, "a");
       drop(w.addAlias("c", "b"));
     }},
    {"EmptyName", "bad tensor name ", [](ORB2Writer& w) { addOne(w, ""); }},
    {"NameOf65Bytes",
     "bad tensor name nnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnnn",
     [](ORB2Writer& w) { addOne(w, std::string(65, 'n')); }},
    {"NameWithANul", "bad tensor name a",
     [](ORB2Writer& w) { addOne(w, std::string_view("a\0", 2)); }},
    {"DataOutsideOfATensor", "data outside of a tensor",
     [](ORB2Writer& w) { drop(w.append("x", 1)); }},
    {"TooMuchData", "more data than the tensor's shape",
     [](ORB2Writer& w) {
       drop(w.beginTensor("a", QuantType::F32, {1}));
       drop(w.append("12345", 5));
     }},
    {"TooLittleData", "less data than the tensor's shape",
     [](ORB2Writer& w) {
       drop(w.beginTensor("a", QuantType::F32, {1}));
       drop(w.append("123", 3));
       drop(w.endTensor());
     }},
    {"TensorInATensor", "a tensor is not ended",
     [](ORB2Writer& w) {
       drop(w.beginTensor("a", QuantType::F32, {1}));
       drop(w.beginTensor("b", QuantType::F32, {1}));
     }},
    {"AliasInATensor", "a tensor is not ended",
     [](ORB2Writer& w) {
       addOne(w, "a");
       drop(w.beginTensor("b", QuantType::F32, {1}));
       drop(w.addAlias("c", "a"));
     }},
    {"EndWithoutBegin", "no tensor to end", [](ORB2Writer& w) { drop(w.endTensor()); }},
    {"TensorNotEnded", "a tensor is not ended",
     [](ORB2Writer& w) { drop(w.beginTensor("a", QuantType::F32, {1})); }},
    {"PartialBlocks", "tensor a has no valid shape",
     [](ORB2Writer& w) {
       drop(w.beginTensor("a", QuantType::Q4_K, {255, 2}));
     }},
    {"NoDimensions", "tensor a has no valid shape",
     [](ORB2Writer& w) { drop(w.beginTensor("a", QuantType::F32, {})); }},
    {"RepeatedKey", "bad or repeated metadata key k",
     [](ORB2Writer& w) {
       w.setMeta("k", "v");
       w.setMeta("k", uint32_t{1});
     }},
};

class MisuseTest : public WriterTest, public testing::WithParamInterface<Misuse> {};

TEST_P(MisuseTest, ComesOutAtTheEndAndLeavesNothing) {
  openWriter();
  GetParam().use(writer_);
  const Status status = writer_.finish();
  EXPECT_EQ(status.code, StatusCode::InvalidFormat);
  EXPECT_EQ(status.message.substr(0, status.message.find('\0')),
            "ORB2Writer: " + path_ + ": " + GetParam().message);
  EXPECT_FALSE(writer_.finish().ok());
  EXPECT_EQ(filesLeft(), Names{});
}

INSTANTIATE_TEST_SUITE_P(Writer, MisuseTest, testing::ValuesIn(kMisuses),
                         [](const auto& test) { return std::string(test.param.name); });

TEST_F(WriterTest, KeysAreLimitedTo65535Bytes) {
  openWriter();
  writer_.setMeta(std::string(65535, 'k'), "v");
  EXPECT_TRUE(writer_.finish().ok());
  ASSERT_TRUE(writer_.open(path_, true).ok());
  writer_.setMeta(std::string(65536, 'k'), "v");
  EXPECT_FALSE(writer_.finish().ok());
}

TEST_F(WriterTest, NothingIsWrittenWithoutOpen) {
  EXPECT_FALSE(addFloats("a", {1}).ok());
  EXPECT_FALSE(writer_.finish().ok());
  openWriter();
  EXPECT_TRUE(addFloats("a", {1}).ok());
  EXPECT_TRUE(writer_.finish().ok());
  EXPECT_FALSE(addFloats("b", {1}).ok()) << "finished";
  EXPECT_FALSE(writer_.finish().ok());
  EXPECT_EQ(filesLeft(), Names{"model.orb"});
}

TEST(TensorBytesTest, AreWholeBlockRowsTimesTheirNumber) {
  EXPECT_EQ(ORB2Writer::tensorBytes(QuantType::F32, {3}), 12u);
  EXPECT_EQ(ORB2Writer::tensorBytes(QuantType::BF16, {3, 5}), 30u);
  EXPECT_EQ(ORB2Writer::tensorBytes(QuantType::Q8_0, {64, 2, 3}), 68u * 6);
  EXPECT_EQ(ORB2Writer::tensorBytes(QuantType::Q6_K, {256, 2, 2, 2}), 210u * 8);
  EXPECT_EQ(ORB2Writer::tensorBytes(QuantType::Q4_K, {2560, 248320}), 144u * 10 * 248320);
}

TEST(TensorBytesTest, AreZeroForNoTensor) {
  const uint64_t huge = uint64_t{1} << 32;
  EXPECT_EQ(ORB2Writer::tensorBytes(static_cast<QuantType>(9), {256}), 0u);
  EXPECT_EQ(ORB2Writer::tensorBytes(QuantType::F32, {}), 0u);
  EXPECT_EQ(ORB2Writer::tensorBytes(QuantType::F32, {1, 1, 1, 1, 1}), 0u);
  EXPECT_EQ(ORB2Writer::tensorBytes(QuantType::F32, {0}), 0u);
  EXPECT_EQ(ORB2Writer::tensorBytes(QuantType::F32, {4, 0}), 0u);
  EXPECT_EQ(ORB2Writer::tensorBytes(QuantType::Q8_0, {33}), 0u);
  EXPECT_EQ(ORB2Writer::tensorBytes(QuantType::Q6_K, {128}), 0u);
  EXPECT_EQ(ORB2Writer::tensorBytes(QuantType::F32, {huge, huge}), 0u);
  EXPECT_EQ(ORB2Writer::tensorBytes(QuantType::F32, {~uint64_t{0}}), 0u);
  EXPECT_EQ(ORB2Writer::tensorBytes(QuantType::F32, {2, ~uint64_t{0}, 0}), 0u);
}

}  // namespace
}  // namespace kiv
