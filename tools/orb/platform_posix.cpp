#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "orb/platform.h"

namespace orb {
namespace {

constexpr std::array<int, 3> kSignals{SIGINT, SIGTERM, SIGHUP};
volatile int interruptFlag = 0;
volatile int endOnSecond = 0;
std::array<struct sigaction, kSignals.size()> formerActions;

extern "C" void onInterrupt(int signal) {
  if (interruptFlag != 0 && endOnSecond != 0) {
    std::signal(signal, SIG_DFL);
    std::raise(signal);
    return;
  }
  interruptFlag = 1;
}

}  // namespace

bool isTerminal(Stream stream) { return isatty(static_cast<int>(stream)) != 0; }

std::string executableFolder() {
  std::error_code error;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? "." : program.parent_path().string();
}

const char* pluginFileName() { return "liborb_runtime_qwen35.so"; }

const char* evalModuleFileName() { return "liborb_eval.so"; }

void* findInLibrary(const std::string& library, const char* function) {
  void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
  return handle == nullptr ? nullptr : dlsym(handle, function);
}

void setEnvironment(const char* name, const std::string& value) {
  setenv(name, value.c_str(), /*overwrite=*/1);
}

uint64_t peakMemoryBytes() {
  rusage usage{};
  if (getrusage(RUSAGE_SELF, &usage) != 0) return 0;
  return static_cast<uint64_t>(usage.ru_maxrss) * 1024;  // reported in KiB
}

bool fileSize(const std::string& path, uint64_t& size) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  size = static_cast<uint64_t>(status.st_size);
  return true;
}

std::filesystem::path pathOf(const std::string& text) { return text; }

InterruptFlag::InterruptFlag(Scope scope) {
  interruptFlag = 0;
  endOnSecond = scope == Scope::Conversation ? 1 : 0;
  struct sigaction action {};
  action.sa_handler = onInterrupt;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  for (size_t i = 0; i < kSignals.size(); ++i) {
    const bool wanted = scope == Scope::Work || kSignals[i] == SIGINT;
    sigaction(kSignals[i], wanted ? &action : nullptr, &formerActions[i]);
  }
}

InterruptFlag::~InterruptFlag() {
  for (size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &formerActions[i], nullptr);
}

volatile int* InterruptFlag::flag() const { return &interruptFlag; }

}  // namespace orb
