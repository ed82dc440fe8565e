// UTF-8 for the program whatever the code pages of the system are: arguments, console, and streams
// that carry bytes as they are, as on every other system.
#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <cstdio>
#include <string>
#include <vector>

#include "compat/utf16.h"
#include "orb/tool.h"

// A question mark in a question is no pattern of file names.
extern "C" int _dowildcard;
int _dowildcard = 0;

namespace {

// The console belongs to the shell as well, which finds it as it was.
class ConsoleModes {
 public:
  ConsoleModes() : codePage_(GetConsoleOutputCP()) {
    SetConsoleOutputCP(CP_UTF8);
    for (Screen& screen : screens_) {
      screen.handle = GetStdHandle(screen.stream);
      screen.isConsole = GetConsoleMode(screen.handle, &screen.mode) != 0;
      if (!screen.isConsole) continue;
      SetConsoleMode(screen.handle, screen.mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING);
    }
  }
  ~ConsoleModes() {
    std::fflush(stdout);
    for (const Screen& screen : screens_) {
      if (screen.isConsole) SetConsoleMode(screen.handle, screen.mode);
    }
    SetConsoleOutputCP(codePage_);
  }
  ConsoleModes(const ConsoleModes&) = delete;
  ConsoleModes& operator=(const ConsoleModes&) = delete;

 private:
  struct Screen {
    DWORD stream;
    HANDLE handle = nullptr;
    DWORD mode = 0;
    bool isConsole = false;
  };
  UINT codePage_;
  Screen screens_[2] = {{STD_OUTPUT_HANDLE}, {STD_ERROR_HANDLE}};
};

}  // namespace

extern "C" int wmain(int argc, wchar_t** argv) {
  for (std::FILE* stream : {stdin, stdout, stderr}) _setmode(_fileno(stream), _O_BINARY);
  // A character must reach the console in one piece.
  static char buffer[1 << 13];
  std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
  const ConsoleModes modes;

  std::vector<std::string> texts;
  for (int i = 0; i < argc; ++i) texts.push_back(compat::toUtf8(argv[i]));
  std::vector<char*> arguments;
  for (std::string& text : texts) arguments.push_back(text.data());
  arguments.push_back(nullptr);
  return orb::runTool(argc, arguments.data());
}
