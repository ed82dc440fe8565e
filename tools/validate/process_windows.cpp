// Processes and dynamic loading.
#include <windows.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

#include "compat/compat.h"
#include "compat/utf16.h"
#include "validate/platform.h"

namespace orb::validate {
namespace {

class OwnedHandle {
 public:
  ~OwnedHandle() { close(); }
  void close() {
    if (value != nullptr && value != INVALID_HANDLE_VALUE) CloseHandle(value);
    value = nullptr;
  }
  HANDLE value = nullptr;
};

// Backslashes count double in front of a quotation mark only.
void appendQuoted(std::wstring& line, const std::wstring& word) {
  if (!line.empty()) line += L' ';
  line += L'"';
  size_t backslashes = 0;
  for (const wchar_t c : word) {
    if (c == L'"') line.append(backslashes + 1, L'\\');
    backslashes = c == L'\\' ? backslashes + 1 : 0;
    line += c;
  }
  line.append(backslashes, L'\\');
  line += L'"';
}

// The process with its output going into `writeEnd`; null when it cannot be started.
HANDLE start(const std::vector<std::string>& arguments, HANDLE writeEnd) {
  std::wstring line, wide;
  for (const std::string& argument : arguments) {
    if (!compat::toWide(argument, wide)) return nullptr;
    appendQuoted(line, wide);
  }
  SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
  OwnedHandle input;
  input.value = CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                            OPEN_EXISTING, 0, nullptr);
  STARTUPINFOW streams{};
  streams.cb = sizeof streams;
  streams.dwFlags = STARTF_USESTDHANDLES;
  streams.hStdInput = input.value;
  streams.hStdOutput = writeEnd;
  streams.hStdError = writeEnd;
  PROCESS_INFORMATION process{};
  // A system with much to do refuses now and then; nothing of the plug-in has run by then.
  constexpr int kAttempts = 5;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    std::wstring words = line;  // which the call may write to
    if (CreateProcessW(nullptr, words.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &streams,
                       &process) != 0) {
      CloseHandle(process.hThread);
      return process.hProcess;
    }
    std::fprintf(stderr, "orb: a process could not be started (error %lu)\n", GetLastError());
    Sleep(100);
  }
  return nullptr;
}

void readAll(HANDLE readEnd, std::string& output) {
  char bytes[4096];
  DWORD count = 0;
  while (ReadFile(readEnd, bytes, sizeof bytes, &count, nullptr) != 0 && count > 0) {
    output.append(bytes, count);
  }
}

void tellEnd(HANDLE process, ProcessResult& result) {
  constexpr DWORD kFirstException = 0xC0000000;
  DWORD code = 0;
  GetExitCodeProcess(process, &code);
  if (result.timedOut) return;
  if (code < kFirstException) {
    result.exitCode = static_cast<int>(code);
    return;
  }
  char text[32];
  std::snprintf(text, sizeof text, "exception %08lX", code);
  result.endedBy = text;
}

}  // namespace

ProcessResult runProcess(const std::vector<std::string>& arguments, double timeoutSeconds) {
  ProcessResult result;
  OwnedHandle readEnd, writeEnd, process;
  if (CreatePipe(&readEnd.value, &writeEnd.value, nullptr, 0) == 0) return result;
  SetHandleInformation(writeEnd.value, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
  const auto began = std::chrono::steady_clock::now();
  process.value = start(arguments, writeEnd.value);
  writeEnd.close();
  if (process.value != nullptr) {
    result.started = true;
    std::thread reader(readAll, readEnd.value, std::ref(result.output));
    if (WaitForSingleObject(process.value, static_cast<DWORD>(timeoutSeconds * 1000)) != 0) {
      result.timedOut = true;
      TerminateProcess(process.value, 1);
      WaitForSingleObject(process.value, INFINITE);
    }
    reader.join();
    tellEnd(process.value, result);
  }
  result.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  return result;
}

std::string executablePath() {
  std::wstring path(32768, L'\0');  // the longest that the system knows
  path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
  return compat::toUtf8(path);
}

void* openLibrary(const std::string& path, std::string& error) {
  std::wstring wide;
  std::error_code ignored;
  compat::toWide(path, wide);
  // A name without a folder would be looked for in the system's.
  const std::wstring full = std::filesystem::absolute(wide, ignored).wstring();
  void* library = dlopen(compat::toUtf8(full).c_str(), 0);
  if (library == nullptr) error = dlerror();
  return library;
}

void* findFunction(void* library, const char* name) { return dlsym(library, name); }

void closeLibrary(void* library) { dlclose(library); }

}  // namespace orb::validate
