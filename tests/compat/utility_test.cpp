// The exported utility functions.
#include <fcntl.h>
#include <gtest/gtest.h>

#include "compat/compat.h"
#if !defined(_WIN32)
#include <sys/time.h>
#endif
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "compat/native.h"

namespace {

double millisecondsOf(uint64_t argument) {
  const auto start = std::chrono::steady_clock::now();
  orbCompatSleepMs(argument);
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

std::string currentDirectory() { return orbtest::textOf(std::filesystem::current_path()); }

TEST(CompatGetcwd, WritesTheCurrentDirectory) {
  char buffer[4097];
  EXPECT_EQ(orbCompatGetcwd(buffer, sizeof buffer - 1), 0);
  EXPECT_EQ(std::string(buffer), currentDirectory());
}

TEST(CompatGetcwd, ADirectoryOfExactlySizeBytesFitsAndIsTerminatedBehindThem) {
  const std::string expected = currentDirectory();
  std::vector<char> buffer(expected.size() + 3, '?');
  EXPECT_EQ(orbCompatGetcwd(buffer.data(), static_cast<int64_t>(expected.size())), 0);
  EXPECT_EQ(std::string(buffer.data()), expected);
  EXPECT_EQ(buffer[expected.size() + 1], '?');
}

TEST(CompatGetcwd, ADirectoryThatDoesNotFitFails) {
  const std::string directory = currentDirectory();
  ASSERT_GT(directory.size(), 1u);
  std::vector<char> buffer(directory.size() + 1, '?');
  EXPECT_EQ(orbCompatGetcwd(buffer.data(), static_cast<int64_t>(directory.size()) - 1), -1);
  EXPECT_EQ(buffer.back(), '?');
}

TEST(CompatGetcwd, SizesWithoutRoomAndANullBufferFail) {
  char buffer[64];
  EXPECT_EQ(orbCompatGetcwd(buffer, 0), -1);
  EXPECT_EQ(orbCompatGetcwd(buffer, -1), -1);
  EXPECT_EQ(orbCompatGetcwd(buffer, std::numeric_limits<int64_t>::min()), -1);
  EXPECT_EQ(orbCompatGetcwd(nullptr, 64), -1);
}

TEST(CompatGetcwd, ADirectoryBeyondAsciiIsUtf8) {
  const auto before = std::filesystem::current_path();
  const auto directory = std::filesystem::temp_directory_path() /
                         orbtest::pathOf("orb_папка_😀_" + std::to_string(getpid()));
  std::filesystem::create_directory(directory);
  std::filesystem::current_path(directory);
  const std::string expected = currentDirectory();
  std::vector<char> buffer(expected.size() + 2, '?');
  EXPECT_EQ(orbCompatGetcwd(buffer.data(), static_cast<int64_t>(expected.size())), 0);
  EXPECT_EQ(std::string(buffer.data()), expected);
  EXPECT_NE(expected.find("orb_папка_😀_"), std::string::npos);
  EXPECT_EQ(buffer.back(), '?');
  EXPECT_EQ(orbCompatGetcwd(buffer.data(), static_cast<int64_t>(expected.size()) - 1), -1);
  std::filesystem::current_path(before);
  std::filesystem::remove(directory);
}

#if !defined(_WIN32)  // where a current directory cannot be removed
TEST(CompatGetcwd, ADirectoryThatIsGoneFails) {
  const auto before = std::filesystem::current_path();
  const auto directory =
      std::filesystem::temp_directory_path() / ("orb_test_gone_" + std::to_string(getpid()));
  std::filesystem::create_directory(directory);
  std::filesystem::current_path(directory);
  std::filesystem::remove(directory);
  char buffer[4097];
  EXPECT_EQ(orbCompatGetcwd(buffer, sizeof buffer - 1), -1);
  std::filesystem::current_path(before);
}
#endif

#if defined(_WIN32)
TEST(CompatIsatty, IsTheRuntimeLibrarysAnswer) {
  const int device = open("NUL", O_RDWR);
  ASSERT_GE(device, 0);
  EXPECT_EQ(orbCompatIsatty(device), _isatty(device));
  close(device);
  int ends[2];
  ASSERT_EQ(_pipe(ends, 16, O_BINARY), 0);
  EXPECT_EQ(orbCompatIsatty(ends[0]), 0);
  EXPECT_EQ(orbCompatIsatty(ends[1]), 0);
  close(ends[0]);
  close(ends[1]);
}
#else
TEST(CompatIsatty, TellsTerminalsFromOtherDescriptors) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_GE(terminal, 0);
  EXPECT_NE(orbCompatIsatty(terminal), 0);
  close(terminal);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(orbCompatIsatty(ends[0]), 0);
  EXPECT_EQ(orbCompatIsatty(ends[1]), 0);
  close(ends[0]);
  close(ends[1]);
}
#endif

TEST(CompatIsatty, ADescriptorThatIsNotOpenIsNoTerminal) {
  EXPECT_EQ(orbCompatIsatty(-1), 0);
  EXPECT_EQ(orbCompatIsatty(1 << 20), 0);
}

TEST(CompatSleepMs, SleepsAtLeastAsLongAsAsked) {
  EXPECT_GE(millisecondsOf(30), 30.0);
  EXPECT_LT(millisecondsOf(0), 1000.0);
}

TEST(CompatSleepMs, OnlyTheLow32BitsCount) {
  const double slept = millisecondsOf((uint64_t{1} << 32) + 20);
  EXPECT_GE(slept, 20.0);
  EXPECT_LT(slept, 5000.0);
}

#if !defined(_WIN32)
TEST(CompatSleepMs, ASignalDoesNotShortenIt) {
  struct sigaction action = {};
  struct sigaction before = {};
  action.sa_handler = [](int) {};
  ASSERT_EQ(sigaction(SIGALRM, &action, &before), 0);
  const itimerval timer = {.it_interval = {0, 5000}, .it_value = {0, 5000}};
  const itimerval none = {};
  ASSERT_EQ(setitimer(ITIMER_REAL, &timer, nullptr), 0);
  EXPECT_GE(millisecondsOf(60), 60.0);
  setitimer(ITIMER_REAL, &none, nullptr);
  sigaction(SIGALRM, &before, nullptr);
}
#endif

}  // namespace
