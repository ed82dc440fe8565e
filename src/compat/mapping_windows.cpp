// mmap, munmap and madvise over the system's file mappings.
#include <io.h>
#include <windows.h>

#include <mutex>
#include <unordered_map>

#include "compat/compat.h"

namespace {

struct MapRecord {
  HANDLE file = nullptr;  // a duplicate, so that the mapping outlives the descriptor
  HANDLE mapping = nullptr;
  void* view = nullptr;
  uint64_t length = 0;
};

// The mappings of the process by their start addresses.
struct Registry {
  std::mutex mapLock;
  std::unordered_map<uint64_t, MapRecord> mapRecs;
};

Registry& registry() {
  static Registry instance;
  return instance;
}

void* const kMapFailed = reinterpret_cast<void*>(~uintptr_t{0});

DWORD highHalf(uint64_t value) { return static_cast<DWORD>(value >> 32); }
DWORD lowHalf(uint64_t value) { return static_cast<DWORD>(value); }

void release(const MapRecord& record) {
  if (record.view != nullptr) UnmapViewOfFile(record.view);
  if (record.mapping != nullptr) CloseHandle(record.mapping);
  if (record.file != nullptr) CloseHandle(record.file);
}

// False on failure; what the record holds by then is the caller's to release.
bool makeView(MapRecord& record, int fd, uint64_t offset) {
  const auto original = reinterpret_cast<HANDLE>(_get_osfhandle(fd));
  if (original == INVALID_HANDLE_VALUE) return false;
  const HANDLE self = GetCurrentProcess();
  if (DuplicateHandle(self, original, self, &record.file, 0, FALSE, DUPLICATE_SAME_ACCESS) == 0) {
    record.file = nullptr;
    return false;
  }
  record.mapping = CreateFileMappingW(record.file, nullptr, PAGE_READONLY, highHalf(record.length),
                                      lowHalf(record.length), nullptr);
  if (record.mapping == nullptr) return false;
  record.view = MapViewOfFile(record.mapping, FILE_MAP_READ, highHalf(offset), lowHalf(offset),
                              record.length);
  return record.view != nullptr;
}

bool remember(const MapRecord& record) {
  try {
    Registry& known = registry();
    const std::lock_guard<std::mutex> guard(known.mapLock);
    known.mapRecs[reinterpret_cast<uint64_t>(record.view)] = record;
    return true;
  } catch (...) {  // no memory for the record
    return false;
  }
}

}  // namespace

void* mmap(void* /*hint*/, uint64_t length, int /*protection*/, int /*flags*/, int fd,
           uint64_t offset) {
  if (fd < 0 || length == 0) return kMapFailed;
  MapRecord record{.length = length};
  if (!makeView(record, fd, offset) || !remember(record)) {
    release(record);
    return kMapFailed;
  }
  return record.view;
}

int munmap(void* address, uint64_t /*length*/) {
  if (address == nullptr) return 0;
  MapRecord record;
  {
    Registry& known = registry();
    const std::lock_guard<std::mutex> guard(known.mapLock);
    const auto found = known.mapRecs.find(reinterpret_cast<uint64_t>(address));
    if (found == known.mapRecs.end()) return 0;
    record = found->second;
    known.mapRecs.erase(found);
  }
  release(record);
  return 0;
}

int madvise(void* /*address*/, uint64_t /*length*/, int /*advice*/) { return 0; }
