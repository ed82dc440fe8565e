// What the validator needs of the operating system; one source per system.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace orb::validate {

struct ProcessResult {
  bool started = false;
  bool timedOut = false;  // and was ended for it
  int exitCode = -1;      // -1 when it did not end by itself
  std::string endedBy;    // "signal 11 (Segmentation fault)", or empty
  std::string output;     // both output streams together
  double seconds = 0;
};

// Runs a program to its end, at most `timeoutSeconds`, with nothing on its standard input.
ProcessResult runProcess(const std::vector<std::string>& arguments, double timeoutSeconds);

// Path of the running program; empty when unknown.
std::string executablePath();

// Dynamic loading. openLibrary is null on failure, with the system's words in `error`.
void* openLibrary(const std::string& path, std::string& error);
void* findFunction(void* library, const char* name);
void closeLibrary(void* library);

// Bytes that end where the process may not go on: reading or writing past them ends the process.
// All are kCanary at first, so are the bytes in front of them.
class GuardedBytes {
 public:
  static constexpr unsigned char kCanary = 0xA5;

  explicit GuardedBytes(size_t size);
  ~GuardedBytes();
  GuardedBytes(const GuardedBytes&) = delete;
  GuardedBytes& operator=(const GuardedBytes&) = delete;

  char* data() const { return data_; }
  size_t size() const { return size_; }
  bool frontIntact() const;

 private:
  char* pages_;
  size_t mapped_;  // without the page that may not be touched
  char* data_;
  size_t size_;
};

// This process, seen from outside. -1 where the system doesn't tell.
double processorSeconds();  // of all threads, ended ones too
int threadCount();
int64_t residentBytes();
int64_t bytesWritten();  // to files, pipes, terminals and sockets since its start
void sleepMilliseconds(int milliseconds);

// Open files and sockets, each as a line of text.
std::vector<std::string> openFiles();

// All that a plug-in leaves as it is, as pairs of a name and the present value: locale, working
// directory, environment, signal actions and masks, floating-point mode, processor affinity and
// so on. Of the calling thread where it belongs to a thread.
std::vector<std::pair<std::string, std::string>> surroundings();

// Gives this thread a floating-point mode that no compiler assumes.
void setUnusualFloatingPointMode();

}  // namespace orb::validate
