// What a process can see of itself, and memory with a guard.
#include <dirent.h>
#include <fenv.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xmmintrin.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <new>
#include <thread>

#include "validate/platform.h"

extern char** environ;

namespace orb::validate {
namespace {

constexpr unsigned kStickyFlags = 0x3F;  // of the vector unit's control word: what happened so far

std::string hex(uint64_t value) {
  std::array<char, 20> text;
  std::snprintf(text.data(), text.size(), "%llx", static_cast<unsigned long long>(value));
  return text.data();
}

std::string signalActions() {
  std::string text;
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction action {};
    if (sigaction(signal, nullptr, &action) != 0) continue;
    const auto handler = reinterpret_cast<uintptr_t>(
        (action.sa_flags & SA_SIGINFO) != 0 ? reinterpret_cast<void*>(action.sa_sigaction)
                                            : reinterpret_cast<void*>(action.sa_handler));
    if (handler == 0 && action.sa_flags == 0) continue;
    text += std::to_string(signal) + ":" + hex(handler) + "/" +
            hex(static_cast<uint64_t>(action.sa_flags)) + " ";
  }
  return text;
}

std::string blockedSignals() {
  sigset_t blocked;
  pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  std::string text;
  for (int signal = 1; signal < NSIG; ++signal) {
    if (sigismember(&blocked, signal) == 1) text += std::to_string(signal) + " ";
  }
  return text;
}

std::string environment() {
  std::string text = hex(reinterpret_cast<uintptr_t>(environ));
  for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
    text += '\n';
    text += *variable;
  }
  return text;
}

std::string affinity() {
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) != 0) return "";
  std::string text;
  for (int processor = 0; processor < CPU_SETSIZE; ++processor) {
    if (CPU_ISSET(processor, &set)) text += std::to_string(processor) + " ";
  }
  return text;
}

std::string standardStreams() {
  std::string text;
  for (int stream = 0; stream < 3; ++stream) {
    struct stat status {};
    if (fstat(stream, &status) != 0) status.st_ino = 0;
    text += hex(status.st_dev) + ":" + hex(status.st_ino) + " ";
  }
  return text;
}

std::string limits() {
  std::string text;
  for (const auto resource : {RLIMIT_STACK, RLIMIT_DATA, RLIMIT_NOFILE, RLIMIT_CORE, RLIMIT_AS,
                              RLIMIT_MEMLOCK, RLIMIT_NPROC}) {
    rlimit limit{};
    getrlimit(resource, &limit);
    text += hex(limit.rlim_cur) + "/" + hex(limit.rlim_max) + " ";
  }
  return text;
}

// A number that follows a word at the start of a line.
int64_t numberAfter(const char* path, const std::string& word) {
  std::ifstream file(path);
  std::string first;
  int64_t number = -1;
  while (file >> first) {
    if (first == word && file >> number) return number;
  }
  return -1;
}

int countEntries(const char* path) {
  std::error_code error;
  std::filesystem::directory_iterator entries(path, error);
  if (error) return -1;
  return static_cast<int>(std::distance(entries, std::filesystem::directory_iterator()));
}

}  // namespace

GuardedBytes::GuardedBytes(size_t size) : size_(size) {
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  mapped_ = (size + page - 1) / page * page + page;
  void* pages =
      mmap(nullptr, mapped_ + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED) throw std::bad_alloc();
  pages_ = static_cast<char*>(pages);
  mprotect(pages_ + mapped_, page, PROT_NONE);
  std::memset(pages_, kCanary, mapped_);
  data_ = pages_ + mapped_ - size;
}

GuardedBytes::~GuardedBytes() {
  munmap(pages_, mapped_ + static_cast<size_t>(sysconf(_SC_PAGESIZE)));
}

bool GuardedBytes::frontIntact() const {
  return std::all_of(pages_, data_,
                     [](char byte) { return static_cast<unsigned char>(byte) == kCanary; });
}

double processorSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

int threadCount() { return countEntries("/proc/self/task"); }

int64_t residentBytes() {
  std::ifstream file("/proc/self/statm");
  int64_t total = 0, resident = -1;
  file >> total >> resident;
  return resident < 0 ? -1 : resident * sysconf(_SC_PAGESIZE);
}

int64_t bytesWritten() { return numberAfter("/proc/self/io", "wchar:"); }

void sleepMilliseconds(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

std::vector<std::string> openFiles() {
  std::vector<std::string> files;
  DIR* folder = opendir("/proc/self/fd");
  if (folder == nullptr) return files;
  const std::string own = std::to_string(dirfd(folder));
  while (const dirent* entry = readdir(folder)) {
    const std::string name = entry->d_name;
    if (name == "." || name == ".." || name == own) continue;
    std::error_code error;
    files.push_back(name + " " +
                    std::filesystem::read_symlink("/proc/self/fd/" + name, error).string());
  }
  closedir(folder);
  std::sort(files.begin(), files.end());
  return files;
}

std::vector<std::pair<std::string, std::string>> surroundings() {
  std::error_code error;
  const char* locale = std::setlocale(LC_ALL, nullptr);
  const mode_t mask = umask(0);
  umask(mask);
  return {{"locale", locale != nullptr ? locale : ""},
          {"working directory", std::filesystem::current_path(error).string()},
          {"environment", environment()},
          {"signal actions", signalActions()},
          {"blocked signals", blockedSignals()},
          {"rounding mode", std::to_string(fegetround())},
          {"vector unit's control word", hex(_mm_getcsr() & ~kStickyFlags)},
          {"processor affinity", affinity()},
          {"file creation mask", hex(mask)},
          {"standard streams", standardStreams()},
          {"resource limits", limits()},
          {"priority", std::to_string(getpriority(PRIO_PROCESS, 0))}};
}

void setUnusualFloatingPointMode() {
  constexpr unsigned kFlushToZero = 0x8000, kDenormalsAreZero = 0x0040;
  _mm_setcsr(_mm_getcsr() | kFlushToZero | kDenormalsAreZero);
}

}  // namespace orb::validate
