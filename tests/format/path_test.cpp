// Paths are UTF-8 on every system, of any length that the system can hold.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>

#include "format/container_builder.h"
#include "format/loader.h"
#include "format/orb2_writer.h"
#include "format/platform_file.h"
#if defined(_WIN32)
#include <windows.h>

#include "compat/utf16.h"
#endif

namespace kiv {
namespace {

namespace fs = std::filesystem;
using orbtest::ContainerBuilder;

// For the calls of this test; not limited in length.
fs::path systemPath(const std::string& text) {
#if defined(_WIN32)
  std::wstring wide;
  EXPECT_TRUE(compat::toWidePath(text, wide));
  return wide;
#else
  return text;
#endif
}

bool makeFolder(const std::string& path) {
#if defined(_WIN32)
  return CreateDirectoryW(systemPath(path).c_str(), nullptr) != 0;
#else
  return fs::create_directory(path);
#endif
}

void removeFolder(const std::string& path) {
#if defined(_WIN32)
  RemoveDirectoryW(systemPath(path).c_str());
#else
  fs::remove(path);
#endif
}

class PathTest : public testing::Test {
 protected:
  PathTest() {
    static int counter = 0;
    root_ = fs::temp_directory_path().string() + "/orb_path_" + std::to_string(getpid()) + "_" +
            std::to_string(counter++);
    EXPECT_TRUE(makeFolder(root_));
  }
  ~PathTest() override {
    for (const std::string& file : files_) platform::removeFile(file);
    for (auto folder = folders_.rbegin(); folder != folders_.rend(); ++folder) {
      removeFolder(*folder);
    }
    removeFolder(root_);
  }

  // A folder below the one made before.
  std::string folder(const std::string& name) {
    folders_.push_back((folders_.empty() ? root_ : folders_.back()) + "/" + name);
    EXPECT_TRUE(makeFolder(folders_.back())) << folders_.back();
    return folders_.back();
  }

  void write(const std::string& path) {
    files_.push_back(path);
    const std::vector<uint8_t> content = ContainerBuilder().tokenizer({}).build();
    std::FILE* file = platform::createFile(path);
    ASSERT_NE(file, nullptr) << path;
    EXPECT_EQ(std::fwrite(content.data(), 1, content.size(), file), content.size());
    std::fclose(file);
  }

  static std::string open(const std::string& path) {
    ORBLoader loader;
    return loader.open(path.c_str()).message;
  }

  void expectOpens(const std::string& path) {
    write(path);
    EXPECT_EQ(open(path), "") << path;
    EXPECT_EQ(platform::pathKind(path), platform::PathKind::RegularFile);
  }

  std::string root_;
  std::vector<std::string> folders_;
  std::vector<std::string> files_;
};

TEST_F(PathTest, SpacesAreNothingSpecial) { expectOpens(folder("a b  c") + "/my model .orb"); }

TEST_F(PathTest, CyrillicFoldersOpen) { expectOpens(folder("Модели") + "/модель.orb"); }

TEST_F(PathTest, EmojiFoldersOpen) { expectOpens(folder("😀🚀") + "/模型 😀.orb"); }

TEST_F(PathTest, APathOfMoreThan260CharactersOpens) {
  std::string path;
  while (path.size() < 300) path = folder(std::string(70, 'd') + "_папка");
  expectOpens(path + "/model.orb");
}

TEST_F(PathTest, AFileNameThatMakesThePathTooLongForOldCallsOpens) {
  const std::string path = folder("x");
  expectOpens(path + "/" + std::string(240, 'n') + ".orb");
}

TEST_F(PathTest, AReadOnlyFileOpens) {
  const std::string path = folder("read-only") + "/model.orb";
  write(path);
  fs::permissions(systemPath(path), fs::perms::owner_read);
  EXPECT_EQ(open(path), "");
  fs::permissions(systemPath(path), fs::perms::owner_all);
}

TEST_F(PathTest, AFileThatAnotherHandleReadsOpens) {
  const std::string path = folder("held") + "/model.orb";
  write(path);
  ORBLoader first, second;
  EXPECT_EQ(first.open(path.c_str()).message, "");
  EXPECT_EQ(second.open(path.c_str()).message, "");
}

TEST_F(PathTest, TheWriterWritesAndReplacesBehindAnyPath) {
  std::string path;
  while (path.size() < 270) path = folder(std::string(50, 'd') + " Модели 😀");
  path += "/модель.orb";
  write(path);
  ORB2Writer writer;
  EXPECT_EQ(writer.open(path, false).ok(), false) << "there is a file already";
  ASSERT_EQ(writer.open(path, true).message, "");
  writer.setMeta("general.architecture", std::string("qwen35"));
  const float weights[] = {1, 2, 3, 4};
  ASSERT_EQ(writer.beginTensor("a", QuantType::F32, {4}).message, "");
  ASSERT_EQ(writer.append(weights, sizeof weights).message, "");
  ASSERT_EQ(writer.endTensor().message, "");
  writer.setTokenizer({});
  ASSERT_EQ(writer.finish().message, "");
  ORBLoader loader;
  ASSERT_EQ(loader.open(path.c_str()).message, "");
  EXPECT_NE(loader.findTensor("a"), nullptr);
  EXPECT_EQ(platform::pathKind(path + ".part"), platform::PathKind::Missing);
}

TEST_F(PathTest, FilesAreRemovedAndWhatIsMissingSaysSo) {
  const std::string path = folder("Ж") + "/x.orb";
  write(path);
  EXPECT_TRUE(platform::removeFile(path));
  EXPECT_EQ(platform::pathKind(path), platform::PathKind::Missing);
  EXPECT_FALSE(platform::removeFile(path));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(platform::replaceFile(path, path + "2"));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(platform::createFile(root_ + "/нет/x.orb"), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(open(path), "ORB2: cannot open file");
  EXPECT_EQ(platform::pathKind(root_), platform::PathKind::Other);
}

#if defined(_WIN32)

TEST_F(PathTest, AFileThatAnotherHandleKeepsToItselfCannotBeOpened) {
  const std::string path = folder("held") + "/model.orb";
  write(path);
  const HANDLE handle = CreateFileW(systemPath(path).c_str(), GENERIC_READ, 0, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(handle, INVALID_HANDLE_VALUE);
  EXPECT_EQ(open(path), "ORB2: cannot open file");
  CloseHandle(handle);
  EXPECT_EQ(open(path), "");
}

TEST_F(PathTest, BytesThatAreNoUtf8AreTakenAsGiven) {
  const std::string path = folder("ansi") + "/caf\xE9.orb";
  const std::vector<uint8_t> content = ContainerBuilder().tokenizer({}).build();
  std::FILE* file = std::fopen(path.c_str(), "wb");
  ASSERT_NE(file, nullptr);
  std::fwrite(content.data(), 1, content.size(), file);
  std::fclose(file);
  EXPECT_EQ(open(path), "");
}

TEST(WidePathTest, LongOnesAreMadeAbsoluteAndPrefixed) {
  std::wstring wide;
  ASSERT_TRUE(compat::toWidePath("short/x.orb", wide));
  EXPECT_EQ(wide, L"short/x.orb");
  const std::string name(250, 'n');
  ASSERT_TRUE(compat::toWidePath("C:/a/../" + name, wide));
  EXPECT_EQ(wide, L"\\\\?\\C:\\" + std::wstring(250, L'n'));
  ASSERT_TRUE(compat::toWidePath("//server/share/" + name, wide));
  EXPECT_EQ(wide, L"\\\\?\\UNC\\server\\share\\" + std::wstring(250, L'n'));
  ASSERT_TRUE(compat::toWidePath("\\\\?\\C:\\" + name, wide));
  EXPECT_EQ(wide, L"\\\\?\\C:\\" + std::wstring(250, L'n'));
  EXPECT_FALSE(compat::toWidePath("\xFF", wide));
}

#else

TEST_F(PathTest, BytesThatAreNoUtf8AreTakenAsGiven) {
  expectOpens(folder("caf\xE9") + "/caf\xE9.orb");
}

#endif

}  // namespace
}  // namespace kiv
