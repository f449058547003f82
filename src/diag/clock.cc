// The library's one clock: milliseconds of the monotonic clock.
#include "diag/clock.h"

#include <routerkit/log.h>

namespace rk::diag {
namespace {

constexpr uint64_t kMillisecondsPerSecond = 1000;
constexpr uint64_t kNanosecondsPerMillisecond = 1000000;

uint64_t monotonicTicks() noexcept {
  timespec ts{};  // a failed read leaves zero, which gives tick 0
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ticksOf(ts);
}

}  // namespace

uint64_t ticksOf(const timespec &ts) noexcept {
  return static_cast<uint64_t>(ts.tv_sec) * kMillisecondsPerSecond +
         static_cast<uint64_t>(ts.tv_nsec) / kNanosecondsPerMillisecond;
}

}  // namespace rk::diag

extern "C" {

uint64_t GetTickCount(void) { return rk::diag::monotonicTicks(); }

}  // extern "C"
