/* What the plug-in does to the process around it: as little as possible. */
#if !defined(_WIN32)
#define _GNU_SOURCE /* the processor affinity */
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <malloc.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#endif
#include <dlfcn.h>
#include <fcntl.h>
#include <fenv.h>
#include <locale.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xmmintrin.h>

#include "check.h"
#include "host.h"

extern char** environ;

void testLoadingDoesNoWork(void) {
  Host host;
  ORBRuntimeHandle* handle;
  const double before = processorSeconds();
  double taken;
  openHost(&host);
  host.init();
  host.runtimes(NULL);
  taken = processorSeconds() - before;
  printf("loading took %.2f ms\n", taken * 1e3);
  CHECK(taken < (ORB_SANITIZED ? 1.0 : 0.02));
  CHECK_INT(threadCount(), 1);
  handle = openModel(&host, "chat.orb");
  CHECK_INT(threadCount(), 1); /* none before the first product */
  host.runtime->destroy(handle);
  CHECK_INT(threadCount(), 1);
  closeHost(&host);
}

static void countThreads(const char* bytes, unsigned int length, void* user) {
  const int now = threadCount();
  (void)bytes;
  (void)length;
  if (now > *(int*)user) *(int*)user = now;
}

/* Windows counts the processor time of user and kernel in steps of 10 ms each, and what is left of
   the work before may make both full. */
#if defined(_WIN32)
#define CLOCK_STEPS 0.020
#else
#define CLOCK_STEPS 0.0
#endif

#define MOST_ASLEEP (ORB_SANITIZED ? 0.05 : 0.005 + CLOCK_STEPS)

static double timeAsleep(void) {
  const double before = processorSeconds();
  sleepMilliseconds(100);
  return processorSeconds() - before;
}

#define CHECK_IDLE()                   \
  do {                                 \
    CHECK_INT(threadCount(), 1);       \
    CHECK(timeAsleep() < MOST_ASLEEP); \
  } while (0)

void testIdleBetweenCalls(void) {
  Host host;
  ORBRuntimeHandle* handle;
  ORBBenchParams params = {12, 2, 1};
  ORBBenchResult result;
  char out[512];
  int most = 0;
  openHost(&host);
  handle = openModel(&host, "synth.orb");
  CHECK_INT(host.runtime->generate(handle, "a", out, sizeof out), ORB_OK);
  CHECK_IDLE();
  CHECK_INT(host.runtime->chatTurn(handle, "x", out, sizeof out), ORB_OK);
  CHECK_IDLE();
  CHECK_INT(host.streaming->chatTurnStream(handle, "x", countThreads, &most, NULL), ORB_OK);
  CHECK(most > 1); /* so there was something to end */
  CHECK_IDLE();
  CHECK_INT(host.runtime->bench(handle, &params, &result), ORB_OK);
  CHECK_IDLE();
  CHECK_INT(host.runtime->reset(handle), ORB_OK);
  host.runtime->destroy(handle);
  CHECK_IDLE();
  closeHost(&host);
  CHECK_IDLE();
}

/* What the allocator keeps depends on when threads end, so it is made to give that back first. */
static long heldKiB(void) {
#if defined(__GLIBC__)
  malloc_trim(0);
#endif
  return residentKiB();
}

void testUnloadRounds(void) {
  enum { kRounds = 100, kWarmUp = 20 };
  long settled = 0, last;
  int files = openFileCount();
  const double start = wallSeconds();
  int round;
  for (round = 0; round < kRounds; ++round) {
    Host host;
    ORBRuntimeHandle* handle;
    char out[16];
    openHost(&host);
    handle = openModel(&host, "chat.orb");
    CHECK_INT(host.runtime->generate(handle, "b", out, sizeof out), ORB_OK);
    CHECK_TEXT(out, "c");
    host.runtime->destroy(handle);
    closeHost(&host);
    CHECK_INT(threadCount(), 1);
#if defined(_WIN32)
    /* The runtimes keep handles of the first thread, and of a lock from its first contention on. */
    if (round == 0) files = openFileCount();
    CHECK(openFileCount() < files + kRounds / 10);
#else
    CHECK_INT(openFileCount(), files);
#endif
    if (round == kWarmUp) settled = heldKiB();
  }
  last = heldKiB();
  printf("%d rounds in %.1f s, holding %ld KiB after round %d, %ld KiB after the last\n", kRounds,
         wallSeconds() - start, settled, kWarmUp, last);
  if (!ORB_SANITIZED) CHECK(last - settled < 512);
  CHECK(timeAsleep() < MOST_ASLEEP);
}

/* The caches of the default context would take 2 GiB in this model of full attention blocks. */
void testFreshHandleIsSmall(void) {
  Host host;
  ORBRuntimeHandle* handle;
  char out[64];
  long before;
  openHost(&host);
  before = residentKiB();
  handle = openModel(&host, "chat.orb");
  if (!ORB_SANITIZED) CHECK(residentKiB() - before < 8 * 1024);
  CHECK_INT(host.runtime->reset(handle), ORB_OK);
  CHECK_INT(host.runtime->generate(handle, "a", out, sizeof out), ORB_OK);
  if (!ORB_SANITIZED) CHECK(residentKiB() - before < 16 * 1024);
  host.runtime->destroy(handle);
  closeHost(&host);
}

#if !defined(_WIN32) /* what these look at and forbid are calls of POSIX systems */

/* A little of everything on one model. */
static void useModel(const Host* host, const char* name) {
  ORBRuntimeHandle* handle = openModel(host, name);
  ORBRuntimeProbe probe;
  ORBRuntimeStats stats;
  Stream stream;
  char out[512];
  CHECK_INT(host->runtime->probe(modelPath(name), &probe), 0);
  CHECK_INT(host->runtime->generate(handle, "a", out, sizeof out), ORB_OK);
  CHECK_INT(host->runtime->chatTurn(handle, "x", out, sizeof out), ORB_OK);
  memset(&stream, 0, sizeof stream);
  CHECK_INT(streamTurn(host, handle, "x", &stream), ORB_OK);
  CHECK_INT(host->runtime->stats(handle, &stats), ORB_OK);
  CHECK_INT(host->runtime->reset(handle), ORB_OK);
  host->runtime->destroy(handle);
}

typedef struct ProcessState {
  struct sigaction actions[65];
  sigset_t blocked;
  char directory[4096];
  char locale[256];
  char** variables;
  char environment[32768]; /* all variables, one after the other */
  fenv_t floating;
  unsigned vectorMode; /* rounding, flush-to-zero and masks; not the sticky flags */
  mode_t mask;
  cpu_set_t affinity;
  int priority;
  struct stat streams[3];
} ProcessState;

static void readState(ProcessState* state) {
  size_t length = 0;
  int i;
  memset(state, 0, sizeof *state);
  for (i = 1; i <= 64; ++i) sigaction(i, NULL, &state->actions[i]);
  pthread_sigmask(SIG_BLOCK, NULL, &state->blocked);
  CHECK(getcwd(state->directory, sizeof state->directory) != NULL);
  snprintf(state->locale, sizeof state->locale, "%s", setlocale(LC_ALL, NULL));
  state->variables = environ;
  for (i = 0; environ[i] != NULL; ++i) {
    const size_t size = strlen(environ[i]) + 1;
    if (length + size > sizeof state->environment) break;
    memcpy(state->environment + length, environ[i], size);
    length += size;
  }
  CHECK_INT(fegetenv(&state->floating), 0);
  state->vectorMode = _mm_getcsr() & ~0x3Fu;
  state->mask = umask(0);
  umask(state->mask);
  CHECK_INT(sched_getaffinity(0, sizeof state->affinity, &state->affinity), 0);
  state->priority = getpriority(PRIO_PROCESS, 0);
  for (i = 0; i < 3; ++i) CHECK_INT(fstat(i, &state->streams[i]), 0);
}

/* That the process is as it was before `when`. */
static void checkSameState(const ProcessState* before, const char* when) {
  static ProcessState after;
  const int failedBefore = failedChecks;
  int i;
  readState(&after);
  for (i = 1; i <= 64; ++i) {
    CHECK(before->actions[i].sa_handler == after.actions[i].sa_handler);
    CHECK_INT(after.actions[i].sa_flags, before->actions[i].sa_flags);
    CHECK_INT(sigismember(&after.blocked, i), sigismember(&before->blocked, i));
  }
  CHECK_TEXT(after.directory, before->directory);
  CHECK_TEXT(after.locale, before->locale);
  CHECK(after.variables == before->variables);
  CHECK(memcmp(after.environment, before->environment, sizeof after.environment) == 0);
  CHECK_INT(after.floating.__control_word, before->floating.__control_word);
  CHECK_INT(after.vectorMode, before->vectorMode);
  CHECK_INT(after.mask, before->mask);
  CHECK(CPU_EQUAL(&after.affinity, &before->affinity));
  CHECK_INT(after.priority, before->priority);
  for (i = 0; i < 3; ++i) {
    CHECK_INT(after.streams[i].st_ino, before->streams[i].st_ino);
    CHECK_INT(after.streams[i].st_dev, before->streams[i].st_dev);
  }
  if (failedChecks != failedBefore) fprintf(stderr, "... after %s\n", when);
}

/* A host may run with any of these. */
static void takeUnusualState(void) {
  sigset_t some;
  sigemptyset(&some);
  sigaddset(&some, SIGUSR1);
  sigaddset(&some, SIGPIPE);
  CHECK_INT(pthread_sigmask(SIG_BLOCK, &some, NULL), 0);
  signal(SIGINT, SIG_IGN);
  setlocale(LC_ALL, "C.UTF-8");
  CHECK_INT(fesetround(FE_UPWARD), 0);
  _mm_setcsr(_mm_getcsr() | 0x8040u); /* flush-to-zero, denormals-are-zero */
  umask(027);
  CHECK_INT(chdir("/"), 0);
}

void testProcessIsLeftAlone(void) {
  static ProcessState before;
  Host host;
  ORBRuntimeHandle* handle = NULL;
  ORBBenchParams params = {12, 2, 1};
  ORBBenchResult result;
  Stream stream;
  char out[512];
  const int files = openFileCount();
  takeUnusualState();
  readState(&before);
  openHost(&host);
  checkSameState(&before, "loading");
  handle = openModel(&host, "chat.orb");
  checkSameState(&before, "create");
  CHECK_INT(host.runtime->generate(handle, "a", out, sizeof out), ORB_OK);
  checkSameState(&before, "generate");
  CHECK_INT(host.runtime->chatTurn(handle, "x", out, sizeof out), ORB_OK);
  checkSameState(&before, "chatTurn");
  memset(&stream, 0, sizeof stream);
  CHECK_INT(streamTurn(&host, handle, "x", &stream), ORB_OK);
  checkSameState(&before, "chatTurnStream");
  CHECK_INT(host.runtime->bench(handle, &params, &result), ORB_OK);
  checkSameState(&before, "bench");
  CHECK_INT(host.runtime->reset(handle), ORB_OK);
  host.runtime->destroy(handle);
  checkSameState(&before, "destroy");
  CHECK_INT(host.runtime->create(modelPath("broken.orb"), NULL, &handle, NULL, 0), ORB_FAILED);
  CHECK_INT(host.runtime->create(modelPath("moe.orb"), NULL, &handle, NULL, 0), ORB_FAILED);
  checkSameState(&before, "failed create");
  CHECK_INT(openFileCount(), files);
  closeHost(&host);
  checkSameState(&before, "unloading");
}

/* Bytes that reached the standard streams while `name` was used. */
static long bytesPrintedBy(const Host* host, const char* name) {
  const int output = dup(1), error = dup(2);
  char path[] = "/tmp/orb_abi_XXXXXX";
  const int file = mkstemp(path);
  struct stat status;
  unlink(path);
  dup2(file, 1);
  dup2(file, 2);
  useModel(host, name);
  fflush(stdout);
  dup2(output, 1);
  dup2(error, 2);
  CHECK_INT(fstat(file, &status), 0);
  close(file);
  close(output);
  close(error);
  return (long)status.st_size;
}

void testNothingIsPrinted(void) {
  Host host;
  openHost(&host);
  CHECK_INT(bytesPrintedBy(&host, "chat.orb"), 0);
  closeHost(&host);
}

/* From here on the system ends the process when it makes, renames or opens a file for writing, or
 * asks for a socket. Reading 32 bits of the flags is enough: they are an int. */
static int forbidFilesAndSockets(void) {
#define DENY(number)                                   \
  BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (number), 0, 1), \
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS)
#define DENY_WRITING(number, argument)                                                   \
  BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, (number), 0, 4),                                   \
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, args[argument])), \
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, O_WRONLY | O_RDWR | O_CREAT, 0, 1),           \
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),                               \
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)
  struct sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
      DENY(SYS_socket),
      DENY(SYS_socketpair),
      DENY(SYS_connect),
      DENY(SYS_creat),
      DENY(SYS_mkdir),
      DENY(SYS_mkdirat),
      DENY(SYS_rename),
      DENY(SYS_renameat2),
      DENY(SYS_unlink),
      DENY(SYS_unlinkat),
      DENY(SYS_memfd_create),
      DENY(SYS_execve),
      DENY(SYS_openat2),
      DENY_WRITING(SYS_open, 1),
      DENY_WRITING(SYS_openat, 2),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  struct sock_fprog program = {sizeof filter / sizeof filter[0], filter};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return 0;
  return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

static void useOfTheNetwork(void) { (void)!socket(AF_INET, SOCK_STREAM, 0); }

static void useOfAFile(void) { (void)!open("/tmp", O_WRONLY); }

static void useOfThePlugin(void) {
  Host host;
  openHost(&host);
  useModel(&host, "chat.orb");
  useModel(&host, "dice.orb");
  closeHost(&host);
}

/* How a process without files and network ends that does this: 0 when by itself and well. */
static int endWithoutFilesAndNetwork(void (*use)(void)) {
  int status = -1;
  const pid_t child = fork();
  if (child == 0) {
    const struct rlimit noCore = {0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    if (!forbidFilesAndSockets()) _exit(3);
    use();
    _exit(failedChecks != 0);
  }
  CHECK(child > 0);
  CHECK(waitpid(child, &status, 0) == child);
  return WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status);
}

void testNoFileIsWrittenNoNetworkUsed(void) {
  /* First that the guard sees what it is to see. */
  CHECK_INT(endWithoutFilesAndNetwork(useOfTheNetwork), SIGSYS);
  CHECK_INT(endWithoutFilesAndNetwork(useOfAFile), SIGSYS);
  CHECK_INT(endWithoutFilesAndNetwork(useOfThePlugin), 0);
}

/* Another library that is in the process for everybody has functions of the same names; none of
 * the plug-in's own calls may end up there. It lies beside the plug-in. */
void testNamesElsewhereDoNotReachIn(void) {
  Host host;
  char path[4096];
  const char* slash = strrchr(pluginPath, '/');
  void* other;
  void* address;
  int* calls;
  snprintf(path, sizeof path, "%.*s/libabi_namesake.so",
           slash != NULL ? (int)(slash - pluginPath) : 1, slash != NULL ? pluginPath : ".");
  other = dlopen(path, RTLD_NOW | RTLD_GLOBAL);
  CHECK(other != NULL);
  if (other == NULL) return;
  address = dlsym(other, "namesakeCalls");
  CHECK(address != NULL);
  calls = address;
  openHost(&host);
  useModel(&host, "chat.orb");
  CHECK_INT(*calls, 0);
  closeHost(&host);
}
#endif
