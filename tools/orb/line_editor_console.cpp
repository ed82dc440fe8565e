// The console's own line input: it edits, and keeps a history of its own.
#include <windows.h>

#include <cstdio>

#include "compat/utf16.h"
#include "orb/line_editor.h"

namespace orb {
namespace {

constexpr wchar_t kEndOfFile = 0x1A;  // Ctrl-Z

}  // namespace

struct LineEditor::State {
  HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
};

LineEditor::LineEditor() : state_(std::make_unique<State>()) {}

LineEditor::~LineEditor() = default;

const char* LineEditor::endKey() { return "Ctrl-Z and Enter"; }

LineEditor::Result LineEditor::read(const std::string& prompt, std::string& line) {
  line.clear();
  std::fputs(prompt.c_str(), stdout);
  std::fflush(stdout);
  std::wstring typed;
  while (typed.empty() || typed.back() != L'\n') {
    wchar_t part[1024];
    DWORD count = 0;
    SetLastError(ERROR_SUCCESS);
    const BOOL done = ReadConsoleW(state_->input, part, 1024, &count, nullptr);
    if (GetLastError() == ERROR_OPERATION_ABORTED) {
      // The handler of Ctrl-C runs in another thread; what it sets belongs to this line.
      Sleep(50);
      std::fputs("^C\n", stdout);
      return Result::Interrupted;
    }
    if (done == 0 || count == 0) return Result::End;
    typed.append(part, count);
  }
  if (typed.front() == kEndOfFile) return Result::End;
  while (!typed.empty() && (typed.back() == L'\n' || typed.back() == L'\r')) typed.pop_back();
  line = compat::toUtf8(typed);
  return Result::Line;
}

}  // namespace orb
