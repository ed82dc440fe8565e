#include <windows.h>

#include "compat/address_wait.h"

namespace compat {

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));

void waitWhile(const std::atomic<uint32_t>& value, uint32_t old) {
  auto* address = const_cast<std::atomic<uint32_t>*>(&value);
  WaitOnAddress(address, &old, sizeof old, INFINITE);
}

void wakeOne(std::atomic<uint32_t>& value) { WakeByAddressSingle(&value); }

void wakeAll(std::atomic<uint32_t>& value) { WakeByAddressAll(&value); }

}  // namespace compat
