// Memory whose neighbours can't be touched: a read or write one byte too far ends the test program.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

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
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t inner = (size + page - 1) / page * page;
    length_ = inner + 2 * page;
    void* memory = mmap(nullptr, length_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) throw std::runtime_error("mmap");
    base_ = static_cast<uint8_t*>(memory);
    if (inner != 0 && mprotect(base_ + page, inner, PROT_READ | PROT_WRITE) != 0) {
      throw std::runtime_error("mprotect");
    }
    data_ = base_ + page + (side == Side::End ? inner - size : 0);
  }
  template <typename T>
  GuardedBuffer(const std::vector<T>& content, Side side)
      : GuardedBuffer(content.size() * sizeof(T), side) {
    if (!content.empty()) std::memcpy(data_, content.data(), content.size() * sizeof(T));
  }
  ~GuardedBuffer() { munmap(base_, length_); }
  GuardedBuffer(const GuardedBuffer&) = delete;
  GuardedBuffer& operator=(const GuardedBuffer&) = delete;

  uint8_t* bytes() { return data_; }
  // For contents whose size is a multiple of a float's.
  float* floats() { return reinterpret_cast<float*>(data_); }

 private:
  uint8_t* base_ = nullptr;
  uint8_t* data_ = nullptr;
  size_t length_ = 0;
};

}  // namespace orbtest
