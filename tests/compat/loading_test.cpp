// Dynamic loading, through the layer where it supplies that and through the system where not.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>

#include "compat/export.h"
#include "compat/native.h"

extern "C" ORB_API int compatTestMarker();
int compatTestMarker() { return 123; }

namespace {

namespace fs = std::filesystem;
using orbtest::pathOf;
using orbtest::textOf;
using IntFunction = int (*)();

int call(void* function) { return reinterpret_cast<IntFunction>(function)(); }

// The two guests in a folder of a name that takes more than one code page.
class GuestTest : public testing::Test {
 protected:
  GuestTest() {
    folder_ = fs::temp_directory_path() / pathOf("orb loading папка 😀 " + std::to_string(getpid()));
    fs::create_directory(folder_);
    fs::copy_file(GUEST_BASE, folder_ / fs::path(GUEST_BASE).filename(),
                  fs::copy_options::overwrite_existing);
    fs::copy_file(GUEST, guest(), fs::copy_options::overwrite_existing);
  }
  ~GuestTest() override {
    std::error_code ignored;
    fs::remove_all(folder_, ignored);
  }
  fs::path guest() const { return folder_ / fs::path(GUEST).filename(); }

  fs::path folder_;
};

TEST(LoadingTest, ANullOrEmptyNameIsTheMainProgram) {
  void* main = dlopen(nullptr, RTLD_NOW);
  ASSERT_NE(main, nullptr);
  EXPECT_EQ(dlopen("", RTLD_NOW), main);
  void* marker = dlsym(main, "compatTestMarker");
  ASSERT_NE(marker, nullptr);
  EXPECT_EQ(call(marker), 123);
}

TEST(LoadingTest, ANullHandleLooksInTheMainProgram) {
  void* marker = dlsym(nullptr, "compatTestMarker");
  ASSERT_NE(marker, nullptr);
  EXPECT_EQ(call(marker), 123);
  EXPECT_EQ(dlsym(nullptr, "compatTestNoSuchName"), nullptr);
}

TEST_F(GuestTest, LoadsALibraryByItsUtf8PathWithWhatItNeedsBesideIt) {
  void* guest = dlopen(textOf(this->guest()).c_str(), RTLD_NOW);
  ASSERT_NE(guest, nullptr) << dlerror();
  void* value = dlsym(guest, "guestValue");
  ASSERT_NE(value, nullptr);
  EXPECT_EQ(call(value), 42);
  EXPECT_EQ(dlsym(guest, "noSuchName"), nullptr);
  EXPECT_EQ(dlclose(guest), 0);
}

TEST(LoadingTest, AMissingLibraryIsNullWithAText) {
  EXPECT_EQ(dlopen("/nowhere/no such library.dll", RTLD_NOW), nullptr);
  const char* text = dlerror();
  ASSERT_NE(text, nullptr);
  EXPECT_NE(std::string(text), "");
}

#if defined(_WIN32)

// The system's text by the calls that the layer is to use, in the plainest way.
std::string systemText(DWORD code) {
  wchar_t wide[192];
  const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                      nullptr, code, 0, wide, 192, nullptr);
  char text[600] = "";
  WideCharToMultiByte(CP_UTF8, 0, wide, static_cast<int>(length), text, sizeof text - 1, nullptr,
                      nullptr);
  return text;
}

TEST(LoadingTest, TheMainProgramIsTheSystemsHandleOfIt) {
  EXPECT_EQ(dlopen(nullptr, 0), static_cast<void*>(GetModuleHandleW(nullptr)));
}

TEST(LoadingTest, TheFlagsAreIgnored) {
  for (const int flags : {0, 1, 2, -1, 0x7FFFFFFF}) {
    void* kernel = dlopen("kernel32.dll", flags);
    EXPECT_EQ(kernel, static_cast<void*>(GetModuleHandleW(L"kernel32.dll")));
    EXPECT_EQ(dlsym(kernel, "GetTickCount"), reinterpret_cast<void*>(GetProcAddress(
                                                 static_cast<HMODULE>(kernel), "GetTickCount")));
    EXPECT_EQ(dlclose(kernel), 0);
  }
}

TEST_F(GuestTest, ARelativeNameIsFoundByTheSecondAttempt) {
  const fs::path before = fs::current_path();
  fs::current_path(folder_);
  void* guest = dlopen((".\\" + textOf(this->guest().filename())).c_str(), RTLD_NOW);
  EXPECT_NE(guest, nullptr) << dlerror();
  fs::current_path(before);
  EXPECT_EQ(dlclose(guest), 0);
}

TEST_F(GuestTest, ALibraryIsUnloadedByItsLastClose) {
  const std::string path = textOf(guest());
  void* first = dlopen(path.c_str(), RTLD_NOW);
  void* second = dlopen(path.c_str(), RTLD_NOW);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first, second);
  EXPECT_EQ(dlclose(first), 0);
  EXPECT_NE(GetModuleHandleW(guest().filename().c_str()), nullptr);
  EXPECT_EQ(dlclose(second), 0);
  EXPECT_EQ(GetModuleHandleW(guest().filename().c_str()), nullptr);
}

TEST(LoadingTest, NamesThatCannotBeConvertedAreNull) {
  EXPECT_EQ(dlopen("kernel32\xFF.dll", RTLD_NOW), nullptr);
  EXPECT_EQ(dlopen(std::string(4096, 'x').c_str(), RTLD_NOW), nullptr);
}

TEST(LoadingTest, ClosingNullSucceedsAndANonsenseHandleFails) {
  EXPECT_EQ(dlclose(nullptr), 0);
  EXPECT_EQ(dlclose(reinterpret_cast<void*>(uintptr_t{0x10000})), 1);
}

TEST(ErrorTextTest, IsTheSystemsAfterAMissingLibrary) {
  EXPECT_EQ(dlopen("C:\\nowhere\\none.dll", RTLD_NOW), nullptr);
  const DWORD code = GetLastError();
  const std::string expected = systemText(code);
  SetLastError(code);
  if (expected.empty()) {
    EXPECT_EQ(dlerror(), "Win32 error " + std::to_string(code));
  } else {
    EXPECT_EQ(dlerror(), expected);
  }
}

TEST(ErrorTextTest, WithoutATextOfTheSystemTellsTheCode) {
  SetLastError(0x2000BEEF);
  EXPECT_STREQ(dlerror(), "Win32 error 536919791");
  SetLastError(0xFFFFFFF0);
  EXPECT_STREQ(dlerror(), "Win32 error 4294967280");
}

TEST(ErrorTextTest, IsNeverNullAndTheErrorStays) {
  for (const DWORD code : {DWORD{0}, DWORD{2}, DWORD{5}, DWORD{126}, DWORD{0x2000BEEF}}) {
    SetLastError(code);
    const char* first = dlerror();
    EXPECT_EQ(GetLastError(), code);
    ASSERT_NE(first, nullptr);
    const std::string text = first;
    EXPECT_EQ(dlerror(), text);
    EXPECT_EQ(GetLastError(), code);
  }
}

TEST(ErrorTextTest, EveryTextFitsTheBuffer) {
  int texts = 0;
  for (DWORD code = 0; code < 16000; ++code) {
    SetLastError(code);
    const std::string text = dlerror();
    ASSERT_LE(text.size(), 255u) << code;
    texts += text != "Win32 error " + std::to_string(code);
  }
  EXPECT_GT(texts, 100);
}

TEST(ErrorTextTest, EachThreadHasABufferThatItsNextCallOverwrites) {
  SetLastError(2);
  char* mine = dlerror();
  const std::string text = mine;
  char* other = nullptr;
  std::string otherText;
  std::thread([&] {
    SetLastError(0x2000BEEF);
    other = dlerror();
    otherText = other;
  }).join();
  EXPECT_NE(other, mine);
  EXPECT_EQ(otherText, "Win32 error 536919791");
  EXPECT_EQ(mine, text);
  SetLastError(0x2000BEEF);
  EXPECT_EQ(dlerror(), mine);
  EXPECT_EQ(std::string(mine), otherText);
}

#endif

}  // namespace
