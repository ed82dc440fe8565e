#include <dirent.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "system/system.h"

static int countEntries(const char* directory) {
  DIR* entries = opendir(directory);
  int count = 0;
  if (entries == NULL) return -1;
  while (readdir(entries) != NULL) count += 1;
  closedir(entries);
  return count - 2; /* . and .. */
}

int allThreads(void) { return countEntries("/proc/self/task"); }

int openFileCount(void) { return countEntries("/proc/self/fd"); }

long residentKiB(void) {
  long pages = 0;
  FILE* file = fopen("/proc/self/statm", "r");
  if (file == NULL || fscanf(file, "%*s %ld", &pages) != 1) pages = -1;
  if (file != NULL) fclose(file);
  return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

int isWritable(const void* address) {
  char line[4096 + 128];
  int writable = -1;
  FILE* maps = fopen("/proc/self/maps", "r");
  if (maps == NULL) return -1;
  while (writable < 0 && fgets(line, sizeof line, maps) != NULL) {
    unsigned long first = 0, end = 0;
    char mode[8] = "";
    if (sscanf(line, "%lx-%lx %7s", &first, &end, mode) != 3) continue;
    if ((uintptr_t)address >= first && (uintptr_t)address < end) writable = mode[1] == 'w';
  }
  fclose(maps);
  return writable;
}

int isFileMapped(const char* partOfName) {
  char line[4096 + 128];
  int found = 0;
  FILE* maps = fopen("/proc/self/maps", "r");
  if (maps == NULL) return -1;
  while (!found && fgets(line, sizeof line, maps) != NULL) found = strstr(line, partOfName) != NULL;
  fclose(maps);
  return found;
}
