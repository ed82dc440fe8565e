// Mapping files, through the layer where it supplies that and through the system where not: what
// the container reader relies on holds on both. The rest is the layer's alone.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "compat/native.h"
#include "system/system.h"

#if !defined(O_BINARY)
#define O_BINARY 0
#endif

namespace {

using orbtest::allOnes;

constexpr size_t kGranule = 1 << 16;  // what offsets must be multiples of everywhere

// A file of 3 granules and a bit, of bytes that tell where they are.
class MappingTest : public testing::Test {
 protected:
  MappingTest() {
    static std::atomic<int> counter{0};
    name_ = "orb_mapping_" + std::to_string(getpid()) + "_" + std::to_string(counter++);
    path_ = (std::filesystem::temp_directory_path() / name_).string();
    for (size_t i = 0; i < content_.size(); ++i) content_[i] = static_cast<char>(i * 131 + i / 251);
    std::ofstream(path_, std::ios::binary) << content_;
    fd_ = open(path_.c_str(), O_RDONLY | O_BINARY);
  }
  ~MappingTest() override {
    if (fd_ >= 0) close(fd_);
    std::remove(path_.c_str());
  }

  void closeDescriptor() {
    close(fd_);
    fd_ = -1;
  }

  void* map(uint64_t length, uint64_t offset = 0) const {
    return mmap(nullptr, length, PROT_READ, MAP_PRIVATE, fd_, static_cast<off_t>(offset));
  }
  void* map() const { return map(content_.size()); }

  std::string name_;
  std::string path_;
  std::string content_ = std::string(3 * kGranule + 77, '\0');
  int fd_ = -1;
};

TEST_F(MappingTest, ShowsTheBytesOfTheFile) {
  void* view = map();
  ASSERT_NE(view, allOnes());
  EXPECT_EQ(std::memcmp(view, content_.data(), content_.size()), 0);
  EXPECT_EQ(isWritable(view), 0);
  EXPECT_EQ(munmap(view, content_.size()), 0);
}

TEST_F(MappingTest, ALengthOfZeroFails) { EXPECT_EQ(map(0), allOnes()); }

TEST_F(MappingTest, ANegativeDescriptorFails) {
  for (const int fd : {-1, -2, -1000}) {
    EXPECT_EQ(mmap(nullptr, 1, PROT_READ, MAP_PRIVATE, fd, 0), allOnes());
  }
}

TEST_F(MappingTest, ADescriptorThatIsNotOpenFails) {
  const int fd = fd_;
  closeDescriptor();
  EXPECT_EQ(mmap(nullptr, 1, PROT_READ, MAP_PRIVATE, fd, 0), allOnes());
}

TEST_F(MappingTest, StaysReadableAfterTheDescriptorIsClosed) {
  void* view = map();
  ASSERT_NE(view, allOnes());
  closeDescriptor();
  EXPECT_EQ(std::memcmp(view, content_.data(), content_.size()), 0);
  EXPECT_EQ(munmap(view, content_.size()), 0);
}

TEST_F(MappingTest, TwoMappingsOfOneFileAreIndependent) {
  void* first = map();
  void* second = map();
  ASSERT_NE(first, allOnes());
  ASSERT_NE(second, allOnes());
  EXPECT_NE(first, second);
  EXPECT_EQ(munmap(first, content_.size()), 0);
  EXPECT_EQ(std::memcmp(second, content_.data(), content_.size()), 0);
  EXPECT_EQ(munmap(second, content_.size()), 0);
}

TEST_F(MappingTest, LeavesNothingBehind) {
  munmap(map(), content_.size());
  const int before = openFileCount();
  for (int i = 0; i < 50; ++i) ASSERT_EQ(munmap(map(), content_.size()), 0);
  EXPECT_EQ(openFileCount(), before);
  EXPECT_EQ(isFileMapped(name_.c_str()), 0);
}

TEST_F(MappingTest, ManyThreadsMapAndReleaseAtOnce) {
  std::atomic<int> wrong{0};
  const auto run = [&] {
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&] {
        for (int i = 0; i < 20; ++i) {
          void* view = map();
          if (view == allOnes() || std::memcmp(view, content_.data(), content_.size()) != 0) {
            ++wrong;
          }
          if (munmap(view, content_.size()) != 0) ++wrong;
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
  };
  run();  // what the runtimes of threads and of the layer keep for good is there now
  const int before = openFileCount();
  run();
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(isFileMapped(name_.c_str()), 0);
  EXPECT_LT(openFileCount(), before + 8);
}

#if defined(_WIN32)

TEST_F(MappingTest, AnOffsetIsTakenAndAMisalignedOneFailsWithoutALeak) {
  void* view = map(kGranule + 5, 2 * kGranule);
  EXPECT_EQ(view, allOnes()) << "offset and length reach behind the mapping object";
  const int before = openFileCount();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(map(kGranule, 100), allOnes());
  EXPECT_EQ(openFileCount(), before);
}

TEST_F(MappingTest, ALengthBehindTheEndOfTheFileFailsWithoutALeak) {
  const int before = openFileCount();
  for (int i = 0; i < 20; ++i) EXPECT_EQ(map(content_.size() + 1), allOnes());
  EXPECT_EQ(openFileCount(), before);
}

TEST_F(MappingTest, HintProtectionAndFlagsAreIgnored) {
  void* view = mmap(&view, content_.size(), PROT_READ | PROT_WRITE, MAP_SHARED | 0x700, fd_, 0);
  ASSERT_NE(view, allOnes());
  EXPECT_EQ(isWritable(view), 0);
  EXPECT_EQ(std::memcmp(view, content_.data(), content_.size()), 0);
  munmap(view, content_.size());
}

TEST_F(MappingTest, ReleasingWhatIsNoMappingReturns0AndChangesNothing) {
  void* view = map();
  ASSERT_NE(view, allOnes());
  const int before = openFileCount();
  char elsewhere = 0;
  for (void* address : {static_cast<void*>(nullptr), allOnes(), static_cast<void*>(&elsewhere),
                        static_cast<void*>(static_cast<char*>(view) + 1),
                        static_cast<void*>(static_cast<char*>(view) + kGranule)}) {
    EXPECT_EQ(munmap(address, content_.size()), 0);
  }
  // Another view, which the layer knows nothing of.
  const HANDLE object =
      CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, nullptr);
  void* foreign = MapViewOfFile(object, FILE_MAP_READ, 0, 0, 0);
  ASSERT_NE(foreign, nullptr);
  EXPECT_EQ(munmap(foreign, 4096), 0);
  EXPECT_EQ(*static_cast<const volatile char*>(foreign), 0);
  UnmapViewOfFile(foreign);
  CloseHandle(object);
  EXPECT_EQ(openFileCount(), before);
  EXPECT_EQ(std::memcmp(view, content_.data(), content_.size()), 0);
  munmap(view, content_.size());
}

TEST_F(MappingTest, ReleasingTwiceReturns0BothTimesAndReleasesOnce) {
  munmap(map(), 1);
  const int before = openFileCount();
  void* view = map();
  ASSERT_NE(view, allOnes());
  EXPECT_GT(openFileCount(), before);
  EXPECT_EQ(munmap(view, content_.size()), 0);
  EXPECT_EQ(openFileCount(), before);
  EXPECT_EQ(isFileMapped(name_.c_str()), 0);
  EXPECT_EQ(munmap(view, content_.size()), 0);
  EXPECT_EQ(openFileCount(), before);
}

TEST_F(MappingTest, TheLengthOfAReleaseIsIgnored) {
  for (const uint64_t length : {uint64_t{0}, uint64_t{1}, ~uint64_t{0}}) {
    void* view = map();
    ASSERT_NE(view, allOnes());
    EXPECT_EQ(munmap(view, length), 0);
    EXPECT_EQ(isFileMapped(name_.c_str()), 0);
  }
}

TEST_F(MappingTest, ThreadsThatReleaseTheSameMappingReleaseItOnce) {
  munmap(map(), 1);
  const int before = openFileCount();
  for (int round = 0; round < 20; ++round) {
    void* view = map();
    ASSERT_NE(view, allOnes());
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&] { wrong += munmap(view, 0) != 0; });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
  }
  EXPECT_LT(openFileCount(), before + 8);
}

TEST_F(MappingTest, FailuresLeaveTheErrorNumberAlone) {
  errno = 7777;
  EXPECT_EQ(map(0), allOnes());
  EXPECT_EQ(map(content_.size() + 1), allOnes());
  EXPECT_EQ(mmap(nullptr, 1, PROT_READ, MAP_PRIVATE, -1, 0), allOnes());
  EXPECT_EQ(errno, 7777);
}

TEST_F(MappingTest, AdviceReturns0Always) {
  EXPECT_EQ(madvise(nullptr, 0, 14), 0);
  EXPECT_EQ(madvise(allOnes(), ~uint64_t{0}, -1), 0);
}

#endif

}  // namespace
