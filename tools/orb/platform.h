// What the tool needs of the operating system beyond the standard library; one source per system.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace orb {

enum class Stream { Input = 0, Output = 1, Error = 2 };

bool isTerminal(Stream stream);

// Folder of the running program, UTF-8, without a slash at the end; "." when unknown.
std::string executableFolder();

// File name of the runtime plug-in on this system.
const char* pluginFileName();

// File name of the evaluation module on this system.
const char* evalModuleFileName();

// A function of a library that stays loaded from then on; null when either is not there.
void* findInLibrary(const std::string& library, const char* function);

// For libraries that are loaded later; not safe once threads run.
void setEnvironment(const char* name, const std::string& value);

// Largest resident size that this process has had, in bytes; 0 when unknown.
uint64_t peakMemoryBytes();

// Size of a regular file; false when there is none that can be looked at.
bool fileSize(const std::string& path, uint64_t& size);

// For the standard library's calls, which take UTF-8 as it is on some systems only.
std::filesystem::path pathOf(const std::string& text);

// Turns interrupts into a flag instead of the end of the program, and restores the former behaviour
// at the end of its life. One object at a time.
class InterruptFlag {
 public:
  // Conversation: Ctrl-C only, and a second one while the flag is set ends the program at once.
  // Work: Ctrl-C and the other requests to end; all of them wait until the work has cleaned up.
  enum class Scope { Conversation, Work };

  explicit InterruptFlag(Scope scope);
  ~InterruptFlag();
  InterruptFlag(const InterruptFlag&) = delete;
  InterruptFlag& operator=(const InterruptFlag&) = delete;

  bool isSet() const { return *flag() != 0; }
  void clear() { *flag() = 0; }
  // Also what a streaming chat turn takes as its cancel flag.
  volatile int* flag() const;
};

}  // namespace orb
