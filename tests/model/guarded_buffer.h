// Memory whose neighbours can't be touched: a read or write one byte too far ends the test program.
#pragma once

#if defined(_WIN32)
#include <windows.h>
#else
#include <sys/mman.h>
#include <unistd.h>
#endif

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace orbtest {

enum class Side { Begin, End };  // which end of the buffer touches forbidden memory

class GuardedBuffer {
 public:
  GuardedBuffer(size_t size, Side side) {
    const size_t page = pageSize();
    const size_t inner = (size + page - 1) / page * page;
    length_ = inner + 2 * page;
    base_ = reserve(length_);
    if (inner != 0) open(base_ + page, inner);
    data_ = base_ + page + (side == Side::End ? inner - size : 0);
  }
  template <typename T>
  GuardedBuffer(const std::vector<T>& content, Side side)
      : GuardedBuffer(content.size() * sizeof(T), side) {
    if (!content.empty()) std::memcpy(data_, content.data(), content.size() * sizeof(T));
  }
  ~GuardedBuffer() { release(base_, length_); }
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;

  uint8_t* bytes() { return data_; }
  // For contents whose size is a multiple of a float's.
  float* floats() { return reinterpret_cast<float*>(data_); }

 private:
#if defined(_WIN32)
  static size_t pageSize() { return 4096; }
  static uint8_t* reserve(size_t length) {
    void* memory = VirtualAlloc(nullptr, length, MEM_RESERVE, PAGE_NOACCESS);
    if (memory == nullptr) throw std::runtime_error("VirtualAlloc");
    return static_cast<uint8_t*>(memory);
  }
  static void open(uint8_t* memory, size_t length) {
    if (VirtualAlloc(memory, length, MEM_COMMIT, PAGE_READWRITE) == nullptr) {
      throw std::runtime_error("VirtualAlloc");
    }
  }
  static void release(uint8_t* memory, size_t) { VirtualFree(memory, 0, MEM_RELEASE); }
#else
  static size_t pageSize() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }
  static uint8_t* reserve(size_t length) {
    void* memory = mmap(nullptr, length, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("mmap");
    return static_cast<uint8_t*>(memory);
  }
  static void open(uint8_t* memory, size_t length) {
    if (mprotect(memory, length, PROT_READ | PROT_WRITE) != 0) throw std::runtime_error("mprotect");
  }
  static void release(uint8_t* memory, size_t length) { munmap(memory, length); }
#endif

  uint8_t* base_ = nullptr;
  uint8_t* data_ = nullptr;
  size_t length_ = 0;
};

}  // namespace orbtest
