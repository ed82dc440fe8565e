#include "compat/address_wait.h"

namespace compat {

void waitWhile(const std::atomic<uint32_t>& value, uint32_t old) {
  value.wait(old, std::memory_order_acquire);
}

void wakeOne(std::atomic<uint32_t>& value) { value.notify_one(); }

void wakeAll(std::atomic<uint32_t>& value) { value.notify_all(); }

}  // namespace compat
