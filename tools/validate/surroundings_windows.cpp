// What a process can see of itself, and memory with a guard.
#include <fcntl.h>
#include <fenv.h>
#include <io.h>
#include <sys/stat.h>
#include <windows.h>
#include <xmmintrin.h>
// After windows.h, which they need.
#include <psapi.h>
#include <tlhelp32.h>
#include <winternl.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <new>

#include "compat/utf16.h"
#include "validate/platform.h"

namespace orb::validate {
namespace {

constexpr unsigned kStickyFlags = 0x3F;  // of the vector unit's control word: what happened so far

std::string hex(uint64_t value) {
  std::array<char, 20> text;
  std::snprintf(text.data(), text.size(), "%llx", static_cast<unsigned long long>(value));
  return text.data();
}

std::string hexOf(const void* pointer) { return hex(reinterpret_cast<uintptr_t>(pointer)); }

// Asking for an action means to set another one.
std::string signalActions() {
  std::string text;
  for (const int number : {SIGABRT, SIGFPE, SIGILL, SIGINT, SIGSEGV, SIGTERM, SIGBREAK}) {
    const auto action = std::signal(number, SIG_IGN);
    std::signal(number, action);
    text += std::to_string(number) + ":" + hexOf(reinterpret_cast<void*>(action)) + " ";
  }
  return text;
}

std::string exceptionFilter() {
  const LPTOP_LEVEL_EXCEPTION_FILTER filter = SetUnhandledExceptionFilter(nullptr);
  SetUnhandledExceptionFilter(filter);
  return hexOf(reinterpret_cast<void*>(filter));
}

std::string workingDirectory() {
  std::wstring path(32768, L'\0');
  path.resize(GetCurrentDirectoryW(static_cast<DWORD>(path.size()), path.data()));
  return compat::toUtf8(path);
}

std::string environment() {
  std::string text;
  wchar_t* const variables = GetEnvironmentStringsW();
  for (const wchar_t* at = variables; *at != L'\0'; at += wcslen(at) + 1) {
    text += compat::toUtf8(at) + '\n';
  }
  FreeEnvironmentStringsW(variables);
  return text;
}

std::string affinity() {
  DWORD_PTR own = 0, all = 0;
  GetProcessAffinityMask(GetCurrentProcess(), &own, &all);
  return hex(own);
}

std::string standardStreams() {
  std::string text;
  for (const DWORD stream : {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE}) {
    text += hexOf(GetStdHandle(stream)) + " ";
  }
  for (int stream = 0; stream < 3; ++stream) text += hex(_get_osfhandle(stream)) + " ";
  return text;
}

std::string fileCreationMask() {
  const int mask = _umask(0);
  _umask(mask);
  return std::to_string(mask);
}

bool isFile(HANDLE handle) {
  constexpr auto kTypeInformation = static_cast<OBJECT_INFORMATION_CLASS>(2);
  alignas(PUBLIC_OBJECT_TYPE_INFORMATION) std::array<char, 1024> buffer;
  if (NtQueryObject(handle, kTypeInformation, buffer.data(), sizeof buffer, nullptr) != 0) {
    return false;
  }
  const auto* type = reinterpret_cast<PUBLIC_OBJECT_TYPE_INFORMATION*>(buffer.data());
  return std::wstring_view(type->TypeName.Buffer, type->TypeName.Length / sizeof(wchar_t)) ==
         L"File";
}

}  // namespace

GuardedBytes::GuardedBytes(size_t size) : size_(size) {
  constexpr size_t kPage = 4096;
  mapped_ = (size + kPage - 1) / kPage * kPage + kPage;
  void* pages = VirtualAlloc(nullptr, mapped_ + kPage, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
  if (pages == nullptr) throw std::bad_alloc();
  pages_ = static_cast<char*>(pages);
  DWORD before = 0;
  VirtualProtect(pages_ + mapped_, kPage, PAGE_NOACCESS, &before);
  std::memset(pages_, kCanary, mapped_);
  data_ = pages_ + mapped_ - size;
}

GuardedBytes::~GuardedBytes() { VirtualFree(pages_, 0, MEM_RELEASE); }

bool GuardedBytes::frontIntact() const {
  return std::all_of(pages_, data_,
                     [](char byte) { return static_cast<unsigned char>(byte) == kCanary; });
}

double processorSeconds() {
  FILETIME created, ended, kernel, user;
  if (GetProcessTimes(GetCurrentProcess(), &created, &ended, &kernel, &user) == 0) return -1;
  const auto ticks = [](const FILETIME& time) {
    return static_cast<double>(uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime);
  };
  return (ticks(kernel) + ticks(user)) * 1e-7;
}

int threadCount() {
  const HANDLE all = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  if (all == INVALID_HANDLE_VALUE) return -1;
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  int count = 0;
  for (BOOL more = Thread32First(all, &entry); more != 0; more = Thread32Next(all, &entry)) {
    if (entry.th32OwnerProcessID == GetCurrentProcessId()) ++count;
  }
  CloseHandle(all);
  return count;
}

int64_t residentBytes() {
  PROCESS_MEMORY_COUNTERS counters{};
  if (GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters) == 0) return -1;
  return static_cast<int64_t>(counters.WorkingSetSize);
}

int64_t bytesWritten() {
  IO_COUNTERS counters{};
  if (GetProcessIoCounters(GetCurrentProcess(), &counters) == 0) return -1;
  // No program gets this far without reading; emulators do not count.
  if (counters.ReadOperationCount + counters.OtherOperationCount == 0) return -1;
  return static_cast<int64_t>(counters.WriteTransferCount);
}

void sleepMilliseconds(int milliseconds) { Sleep(static_cast<DWORD>(milliseconds)); }

std::vector<std::string> openFiles() {
  // Handles are multiples of four, and low ones are given first.
  constexpr uintptr_t kMostHandles = 2048;
  std::vector<std::string> files;
  for (uintptr_t number = 4; number <= 4 * kMostHandles; number += 4) {
    const auto handle = reinterpret_cast<HANDLE>(number);
    if (!isFile(handle)) continue;
    std::array<wchar_t, 1024> path;
    DWORD length = 0;
    if (GetFileType(handle) == FILE_TYPE_DISK) {
      length = GetFinalPathNameByHandleW(handle, path.data(), static_cast<DWORD>(path.size()), 0);
    }
    if (length >= path.size()) length = 0;
    files.push_back(hex(number) + " " + compat::toUtf8({path.data(), length}));
  }
  return files;
}

std::vector<std::pair<std::string, std::string>> surroundings() {
  const char* locale = std::setlocale(LC_ALL, nullptr);
  return {{"locale", locale != nullptr ? locale : ""},
          {"working directory", workingDirectory()},
          {"environment", environment()},
          {"signal actions", signalActions()},
          {"exception filter", exceptionFilter()},
          {"error mode", hex(GetErrorMode())},
          {"rounding mode", std::to_string(fegetround())},
          {"vector unit's control word", hex(_mm_getcsr() & ~kStickyFlags)},
          {"processor affinity", affinity()},
          {"file creation mask", fileCreationMask()},
          {"standard streams", standardStreams()},
          {"console code pages", hex(GetConsoleCP()) + " " + hex(GetConsoleOutputCP())},
          {"priority", hex(GetPriorityClass(GetCurrentProcess())) + " " +
                           std::to_string(GetThreadPriority(GetCurrentThread()))}};
}

void setUnusualFloatingPointMode() {
  constexpr unsigned kFlushToZero = 0x8000, kDenormalsAreZero = 0x0040;
  _mm_setcsr(_mm_getcsr() | kFlushToZero | kDenormalsAreZero);
}

}  // namespace orb::validate
