#include "hostile/counted_new.h"

#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

namespace {

thread_local uint64_t threadCalls = 0;
thread_local uint64_t threadFailAt = 0;
std::atomic<size_t> liveBytes{0};
std::atomic<size_t> peakBytes{0};

void* allocate(size_t size, size_t alignment) {
  if (++threadCalls == threadFailAt) return nullptr;
  void* memory = alignment == 0 ? std::malloc(std::max<size_t>(size, 1)) : nullptr;
  if (alignment != 0 && posix_memalign(&memory, alignment, size) != 0) memory = nullptr;
  if (memory == nullptr) return nullptr;
  const size_t live = liveBytes += malloc_usable_size(memory);
  size_t peak = peakBytes;
  while (peak < live && !peakBytes.compare_exchange_weak(peak, live)) continue;
  return memory;
}

void* allocateOrThrow(size_t size, size_t alignment = 0) {
  if (void* memory = allocate(size, alignment)) return memory;
  throw std::bad_alloc();
}

void release(void* memory) {
  if (memory == nullptr) return;
  liveBytes -= malloc_usable_size(memory);
  std::free(memory);
}

}  // namespace

namespace orbtest {

AllocationCounts allocationCounts() { return {threadCalls, liveBytes, peakBytes}; }

void resetAllocationCounts(uint64_t failAt) {
  threadCalls = 0;
  threadFailAt = failAt;
  peakBytes = liveBytes.load();
}

}  // namespace orbtest

void* operator new(size_t size) { return allocateOrThrow(size); }
void* operator new[](size_t size) { return allocateOrThrow(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return allocate(size, 0); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return allocate(size, 0); }
void* operator new(size_t size, std::align_val_t alignment) {
  return allocateOrThrow(size, static_cast<size_t>(alignment));
}
void* operator new[](size_t size, std::align_val_t alignment) {
  return allocateOrThrow(size, static_cast<size_t>(alignment));
}
void operator delete(void* memory) noexcept { release(memory); }
void operator delete[](void* memory) noexcept { release(memory); }
void operator delete(void* memory, size_t) noexcept { release(memory); }
void operator delete[](void* memory, size_t) noexcept { release(memory); }
void operator delete(void* memory, std::align_val_t) noexcept { release(memory); }
void operator delete[](void* memory, std::align_val_t) noexcept { release(memory); }
void operator delete(void* memory, size_t, std::align_val_t) noexcept { release(memory); }
void operator delete[](void* memory, size_t, std::align_val_t) noexcept { release(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { release(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { release(memory); }
