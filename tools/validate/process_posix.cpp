// Processes and dynamic loading.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "validate/platform.h"

extern char** environ;

namespace orb::validate {
namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// The process with its output going into `writeEnd`; 0 when it cannot be started.
pid_t start(const std::vector<std::string>& arguments, int writeEnd) {
  std::vector<char*> words;
  words.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments)
    words.push_back(const_cast<char*>(argument.c_str()));
  words.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, writeEnd, STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, writeEnd, STDERR_FILENO);
  pid_t child = 0;
  if (posix_spawn(&child, words[0], &actions, nullptr, words.data(), environ) != 0) child = 0;
  posix_spawn_file_actions_destroy(&actions);
  return child;
}

// Takes in what the child prints until it closes the pipe or the time is over.
void collect(int readEnd, double timeoutSeconds, Clock::time_point began, ProcessResult& result) {
  for (;;) {
    const double left = timeoutSeconds - secondsSince(began);
    pollfd waiting{readEnd, POLLIN, 0};
    const int ready = left <= 0 ? 0 : poll(&waiting, 1, static_cast<int>(left * 1000) + 1);
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      result.timedOut = true;
      return;
    }
    std::array<char, 4096> bytes;
    const ssize_t count = read(readEnd, bytes.data(), bytes.size());
    if (count <= 0) return;
    result.output.append(bytes.data(), static_cast<size_t>(count));
  }
}

}  // namespace

ProcessResult runProcess(const std::vector<std::string>& arguments, double timeoutSeconds) {
  ProcessResult result;
  std::array<int, 2> ends;
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return result;
  const Clock::time_point began = Clock::now();
  const pid_t child = start(arguments, ends[1]);
  close(ends[1]);
  if (child != 0) {
    result.started = true;
    collect(ends[0], timeoutSeconds, began, result);
    if (result.timedOut) kill(child, SIGKILL);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    if (WIFSIGNALED(status)) {
      const int signal = WTERMSIG(status);
      result.endedBy = "signal " + std::to_string(signal) + " (" + strsignal(signal) + ")";
    }
  }
  close(ends[0]);
  result.seconds = secondsSince(began);
  return result;
}

std::string executablePath() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error).string();
}

void* openLibrary(const std::string& path, std::string& error) {
  // A name without a slash would be looked for in the system's folders.
  const std::string file = path.find('/') == std::string::npos ? "./" + path : path;
  void* library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    const char* message = dlerror();
    error = message != nullptr ? message : "unknown error";
  }
  return library;
}

void* findFunction(void* library, const char* name) { return dlsym(library, name); }

void closeLibrary(void* library) { dlclose(library); }

}  // namespace orb::validate
