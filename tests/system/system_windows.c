#include <windows.h>
/* After it, which they need. */
#include <psapi.h>
#include <stdint.h>
#include <string.h>
#include <tlhelp32.h>

#include "system/system.h"

int allThreads(void) {
  THREADENTRY32 entry;
  const HANDLE all = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  int count = 0;
  BOOL more;
  if (all == INVALID_HANDLE_VALUE) return -1;
  entry.dwSize = sizeof entry;
  for (more = Thread32First(all, &entry); more; more = Thread32Next(all, &entry)) {
    count += entry.th32OwnerProcessID == GetCurrentProcessId();
  }
  CloseHandle(all);
  return count;
}

/* Handles are multiples of four, and low ones are given first. One by one: the documented count is
 * always 0 under the emulator, and its server does not survive the list of every process's handles
 * when another process begins meanwhile. */
int openFileCount(void) {
  enum { kMostHandles = 256 };
  int count = 0;
  uintptr_t number;
  for (number = 4; number <= 4 * kMostHandles; number += 4) {
    DWORD flags;
    count += GetHandleInformation((HANDLE)number, &flags) != 0;
  }
  return count;
}

/* Committed memory: what is resident is up to the system, and reserved caches are neither. */
long residentKiB(void) {
  PROCESS_MEMORY_COUNTERS counters;
  if (!GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof counters)) return -1;
  return (long)(counters.WorkingSetSize / 1024);
}

int isWritable(const void* address) {
  MEMORY_BASIC_INFORMATION region;
  if (VirtualQuery(address, &region, sizeof region) == 0) return -1;
  return (region.Protect &
          (PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY)) != 0;
}

int isFileMapped(const char* partOfName) {
  MEMORY_BASIC_INFORMATION region;
  const char* at = NULL;
  for (; VirtualQuery(at, &region, sizeof region) != 0; at += region.RegionSize) {
    char name[1024];
    if (region.State != MEM_COMMIT || region.Type != MEM_MAPPED) continue;
    if (GetMappedFileNameA(GetCurrentProcess(), region.BaseAddress, name, sizeof name) == 0) {
      continue;
    }
    if (strstr(name, partOfName) != NULL) return 1;
  }
  return 0;
}
