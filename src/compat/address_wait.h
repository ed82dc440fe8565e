// Threads that sleep until a value changes, as std::atomic has it. The C++ library of the Windows
// toolchain loses wake-ups there: it looks at the value before it takes the lock that the sleeper
// gives up. So Windows uses its own calls.
#pragma once

#include <atomic>
#include <cstdint>

namespace compat {

// Returns when the value is no longer `old`, and sometimes for no reason.
void waitWhile(const std::atomic<uint32_t>& value, uint32_t old);

// Wakes those that wait for a change of the value, after it.
void wakeOne(std::atomic<uint32_t>& value);
void wakeAll(std::atomic<uint32_t>& value);

}  // namespace compat
