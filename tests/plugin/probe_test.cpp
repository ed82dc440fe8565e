// The question whether a file is served, before anything is created.
#include <gtest/gtest.h>
#if defined(__linux__)
#include <sys/inotify.h>
#endif
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "plugin/opened_model.h"
#include "system/system.h"

namespace orbtest {
namespace {

constexpr char kDetail[] = "qwen35 hybrid (GDN+attn) architecture metadata";

std::vector<uint8_t> container(const char* architecture) {
  ScriptedModel script;
  script.token("x");
  script.architecture = architecture;
  return script.build();
}

ORBRuntimeProbe probe(const char* path) {
  ORBRuntimeProbe out;
  std::memset(&out, 0xFF, sizeof out);
  EXPECT_EQ(runtime().probe(path, &out), 0);
  return out;
}

void expectServed(const char* path, const char* architecture) {
  const ORBRuntimeProbe out = probe(path);
  EXPECT_EQ(out.score, 92u);
  EXPECT_STREQ(out.arch, architecture);
  EXPECT_STREQ(out.device, "cpu");
  EXPECT_STREQ(out.detail, kDetail);
}

void expectNotServed(const char* path) {
  const ORBRuntimeProbe out = probe(path);
  EXPECT_EQ(out.score, 0u);
  EXPECT_STREQ(out.arch, "");
  EXPECT_STREQ(out.device, "cpu");
  EXPECT_STREQ(out.detail, "");
}

#if defined(__linux__)
// Whether the file is opened in the course of the scope.
class OpenWatch {
 public:
  explicit OpenWatch(const char* path) : queue_(inotify_init1(IN_NONBLOCK)) {
    EXPECT_GE(inotify_add_watch(queue_, path, IN_OPEN), 0);
  }
  ~OpenWatch() { close(queue_); }
  OpenWatch(const OpenWatch&) = delete;
  OpenWatch& operator=(const OpenWatch&) = delete;

  bool opened() const {
    alignas(inotify_event) char events[4096];
    return read(queue_, events, sizeof events) > 0;
  }

 private:
  int queue_;
};
#endif

TEST(Probe, ServesBothArchitectures) {
  expectServed(TempFile(container("qwen35")).path(), "qwen35");
  expectServed(TempFile(container("qwen35moe")).path(), "qwen35moe");
}

TEST(Probe, AnyOtherArchitectureIsNotServed) {
  for (const char* name : {"", "qwen3", "qwen35m", "qwen35mo", "qwen35moex", "qwen35x", "QWEN35",
                           " qwen35", "llama"}) {
    expectNotServed(TempFile(container(name)).path());
  }
}

TEST(Probe, ANulInTheArchitectureIsPartOfIt) {
  ContainerBuilder builder;
  builder.meta("general.architecture", std::string_view("qwen35\0moe", 10)).tokenizer({});
  expectNotServed(TempFile(builder.build()).path());
}

TEST(Probe, AContainerWithoutTheKeyIsNotServed) {
  ContainerBuilder none;
  none.meta("general.name", "qwen35").tokenizer({});
  expectNotServed(TempFile(none.build()).path());
  ContainerBuilder number;
  number.meta("general.architecture", 35u).tokenizer({});
  expectNotServed(TempFile(number.build()).path());
}

TEST(Probe, NeedsNoTensorsAndNoUsableTokenizer) {
  ContainerBuilder builder;
  builder.meta("general.architecture", "qwen35").tokenizer({});
  expectServed(TempFile(builder.build()).path(), "qwen35");
}

TEST(Probe, NullAndShortPathsAreNotServed) {
  for (const char* path : {static_cast<const char*>(nullptr), "", "o", "orb", "rb."}) {
    expectNotServed(path);
  }
}

TEST(Probe, MissingFilesAndOtherContentsAreNotServed) {
  expectNotServed("/nonexistent/model.orb");
  expectNotServed(TempFile({}).path());
  expectNotServed(TempFile(std::vector<uint8_t>(1000, 'x')).path());
  std::vector<uint8_t> broken = container("qwen35");
  broken[20] ^= 1;
  expectNotServed(TempFile(broken).path());
}

TEST(Probe, AContainerWithoutATokenizerIsNotServed) {
  ContainerBuilder builder;
  builder.meta("general.architecture", "qwen35");
  expectNotServed(TempFile(builder.build()).path());
}

TEST(Probe, ADirectoryIsNotServed) {
  const std::string path =
      std::filesystem::temp_directory_path().string() + "/orb_test_directory.orb";
  std::filesystem::create_directory(path);
  expectNotServed(path.c_str());
  std::filesystem::remove(path);
}

TEST(Probe, APathThatIsNothingButTheExtensionPasses) {
  const auto before = std::filesystem::current_path();
  const auto directory = before / ("orb_test_" + std::to_string(getpid()));
  std::filesystem::create_directory(directory);
  const TempFile file(container("qwen35"));
  std::filesystem::copy_file(file.path(), directory / ".orb");
  std::filesystem::current_path(directory);
  expectServed(".orb", "qwen35");
  std::filesystem::current_path(before);
  std::filesystem::remove_all(directory);
}

TEST(Probe, OtherExtensionsAreRefused) {
  for (const char* extension : {".ORB", ".Orb", ".orb2", ".or", "orb"}) {
    expectNotServed(TempFile(container("qwen35"), extension).path());
  }
}

#if defined(__linux__)
TEST(Probe, OtherExtensionsAreRefusedWithoutOpeningTheFile) {
  for (const char* extension : {".ORB", ".Orb", ".orb2", ".or", "orb", ".orb "}) {
    const TempFile file(container("qwen35"), extension);
    const OpenWatch watch(file.path());
    expectNotServed(file.path());
    EXPECT_FALSE(watch.opened()) << extension;
  }
}

TEST(Probe, WithoutARecordTheFileIsOpenedAndClosedAllTheSame) {
  const TempFile file(container("qwen35"));
  const OpenWatch watch(file.path());
  EXPECT_EQ(runtime().probe(file.path(), nullptr), 0);
  EXPECT_TRUE(watch.opened());
  EXPECT_EQ(runtime().probe(nullptr, nullptr), 0);
  EXPECT_EQ(runtime().probe("x", nullptr), 0);
}
#endif

TEST(Probe, KeepsNothingOpen) {
  const TempFile good(container("qwen35")), bad(std::vector<uint8_t>(1000, 'x'));
  const auto before = openFileCount();
  for (int i = 0; i < 20; ++i) {
    probe(good.path());
    probe(bad.path());
  }
  EXPECT_EQ(openFileCount(), before);
}

TEST(Probe, AFileOf2GiBAndMoreNeedsTheVariable) {
  const TempFile file(container("qwen35"));
  file.resize((uint64_t{1} << 31) + 4096);
  expectNotServed(file.path());
  const ScopedEnv env("QWEN35_LARGE_FILES", "1");
  expectServed(file.path(), "qwen35");
}

}  // namespace
}  // namespace orbtest
