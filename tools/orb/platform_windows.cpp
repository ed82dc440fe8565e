#include <windows.h>
// After it, which it needs.
#include <psapi.h>

#include <array>
#include <atomic>
#include <cstdlib>

#include "compat/utf16.h"
#include "orb/platform.h"

namespace orb {
namespace {

volatile int interruptFlag = 0;
std::atomic<InterruptFlag::Scope> scopeInUse{InterruptFlag::Scope::Conversation};

// Runs in a thread of the system's. What is not handled here ends the program.
BOOL WINAPI onConsoleEvent(DWORD event) {
  const bool isKey = event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT;
  if (scopeInUse == InterruptFlag::Scope::Conversation) {
    if (event != CTRL_C_EVENT || interruptFlag != 0) return FALSE;
    interruptFlag = 1;
    return TRUE;
  }
  interruptFlag = 1;
  // Returning from the other events ends the program, before the work has cleaned up behind itself.
  if (!isKey) Sleep(INFINITE);
  return TRUE;
}

HANDLE handleOf(Stream stream) {
  constexpr std::array<DWORD, 3> kHandles{STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE};
  return GetStdHandle(kHandles[static_cast<size_t>(stream)]);
}

}  // namespace

bool isTerminal(Stream stream) {
  DWORD mode = 0;
  return GetConsoleMode(handleOf(stream), &mode) != 0;
}

std::string executableFolder() {
  std::wstring path(32768, L'\0');  // the longest that the system knows
  const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
  path.resize(length < path.size() ? length : 0);
  const size_t slash = path.find_last_of(L"\\/");
  return slash == std::wstring::npos ? "." : compat::toUtf8(path.substr(0, slash));
}

const char* pluginFileName() { return "liborb_runtime_qwen35.dll"; }

const char* evalModuleFileName() { return "liborb_eval.dll"; }

void* findInLibrary(const std::string& library, const char* function) {
  std::wstring wide;
  if (!compat::toWidePath(library, wide)) return nullptr;
  const HMODULE module = LoadLibraryW(wide.c_str());
  return module == nullptr ? nullptr : reinterpret_cast<void*>(GetProcAddress(module, function));
}

void setEnvironment(const char* name, const std::string& value) { _putenv_s(name, value.c_str()); }

uint64_t peakMemoryBytes() {
  PROCESS_MEMORY_COUNTERS counters{};
  if (GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters) == 0) return 0;
  return counters.PeakWorkingSetSize;
}

bool fileSize(const std::string& path, uint64_t& size) {
  std::wstring wide;
  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (!compat::toWidePath(path, wide) ||
      GetFileAttributesExW(wide.c_str(), GetFileExInfoStandard, &data) == 0 ||
      (data.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE)) != 0) {
    return false;
  }
  size = uint64_t{data.nFileSizeHigh} << 32 | data.nFileSizeLow;
  return true;
}

std::filesystem::path pathOf(const std::string& text) {
  std::wstring wide;
  return compat::toWidePath(text, wide) ? std::filesystem::path(wide) : std::filesystem::path(text);
}

InterruptFlag::InterruptFlag(Scope scope) {
  interruptFlag = 0;
  scopeInUse = scope;
  SetConsoleCtrlHandler(onConsoleEvent, TRUE);
}

InterruptFlag::~InterruptFlag() { SetConsoleCtrlHandler(onConsoleEvent, FALSE); }

volatile int* InterruptFlag::flag() const { return &interruptFlag; }

}  // namespace orb
