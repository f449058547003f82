// The tick arithmetic behind GetTickCount, reachable for tests of its edges.
#pragma once

#include <stdint.h>
#include <time.h>

namespace rk::diag {

// Milliseconds of a clock reading: seconds * 1000 + nanoseconds / 1000000,
// truncating, at the full 64 bits.
uint64_t ticksOf(const timespec &ts) noexcept;

}  // namespace rk::diag
