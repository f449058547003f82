// The library's one clock: milliseconds of the monotonic clock.
#include "diag/clock.h"

#include <routerkit/log.h>

namespace rk {

uint64_t ticks_of(const timespec &ts) noexcept {
  return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

}  // namespace rk

extern "C" {

uint64_t GetTickCount(void) {
  timespec ts{};  // a failed read leaves zero, which gives tick 0
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return rk::ticks_of(ts);
}

}  // extern "C"
