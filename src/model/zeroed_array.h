// A float array that starts as zeros without touching its memory: pages that are never written cost
// nothing, so the caches of a long context are free until they are used.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <utility>

namespace qwen35 {

// Data is aligned to a cache line. Throws std::bad_alloc when memory runs out.
class ZeroedArray {
 public:
  // Discards the contents: afterwards the array holds `count` zeros.
  void resize(size_t count) {
    memory_.reset();
    data_ = nullptr;
    size_ = 0;
    if (count == 0) return;
    if (count > (std::numeric_limits<size_t>::max() - kAlignment) / sizeof(float)) {
      throw std::bad_alloc();
    }
    memory_.reset(std::calloc(count * sizeof(float) + kAlignment - 1, 1));
    if (memory_ == nullptr) throw std::bad_alloc();
    const auto address = reinterpret_cast<uintptr_t>(memory_.get());
    const uintptr_t padding = (kAlignment - address % kAlignment) % kAlignment;
    data_ = reinterpret_cast<float*>(static_cast<char*>(memory_.get()) + padding);
    size_ = count;
  }

  void clear() { clear(0, size_); }
  void clear(size_t first, size_t count) {
    if (count != 0) std::memset(data_ + first, 0, count * sizeof(float));
  }

  float* data() { return data_; }
  const float* data() const { return data_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  float& operator[](size_t i) { return data_[i]; }
  const float& operator[](size_t i) const { return data_[i]; }
  void swap(ZeroedArray& other) noexcept {
    std::swap(memory_, other.memory_);
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
  }

  const float* begin() const { return data_; }
  const float* end() const { return data_ + size_; }

 private:
  static constexpr size_t kAlignment = 64;

  struct Free {
    void operator()(void* memory) const { std::free(memory); }
  };

  std::unique_ptr<void, Free> memory_;
  float* data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace qwen35
