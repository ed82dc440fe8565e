#include <windows.h>
/* After it, which they need. */
#include <psapi.h>
#include <stdint.h>
#include <stdlib.h>
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

/* Every handle of every process, as the system's own tools list them: the documented count of one
 * process is always 0 under emulators. */
typedef struct HandleEntry {
  void* object;
  ULONG_PTR process;
  ULONG_PTR handle;
  ULONG access, unused1, attributes, unused2;
} HandleEntry;

typedef struct HandleList {
  ULONG_PTR count, unused;
  HandleEntry entries[1];
} HandleList;

typedef LONG(WINAPI* QueryFunction)(int kind, void* out, ULONG size, ULONG* needed);

int openFileCount(void) {
  enum { kExtendedHandles = 64 };
  const FARPROC address = GetProcAddress(GetModuleHandleW(L"ntdll"), "NtQuerySystemInformation");
  QueryFunction query;
  ULONG size = 1 << 20;
  HandleList* list = malloc(size);
  int count = 0;
  ULONG_PTR i;
  memcpy(&query, &address, sizeof address);
  while (query(kExtendedHandles, list, size, NULL) != 0) {
    size *= 2;
    list = size < (1u << 28) ? realloc(list, size) : NULL;
    if (list == NULL) return -1;
  }
  for (i = 0; i < list->count; ++i) {
    count += list->entries[i].process == GetCurrentProcessId();
  }
  free(list);
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
