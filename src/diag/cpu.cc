// CPU usage from the first line of /proc/stat, against the caller's previous
// sample.
#include <routerkit/log.h>

#include <stdio.h>

#include <array>

#include "common/raii.h"

namespace rk::diag {
namespace {

// user, nice, system, idle, iowait, irq, softirq: the fields of CpuTimes.
constexpr size_t kCounterCount = 7;
constexpr uint64_t kPerMille = 1000;

uint64_t sum(const CpuTimes &t) noexcept {
  return t.user + t.nice + t.system + t.idle + t.iowait + t.irq + t.softirq;
}

uint16_t cpuUsage(CpuTimes *times) noexcept {
  FilePtr stat(fopen("/proc/stat", "r"));
  if (!stat) return 0;
  // The scan's result is not looked at: a counter it does not reach stays 0
  // and counts as read.
  std::array<unsigned long long, kCounterCount> v{};
  [[maybe_unused]] const int fields = fscanf(stat.get(), "%*s %llu %llu %llu %llu %llu %llu %llu",
                                             &v[0], &v[1], &v[2], &v[3], &v[4], &v[5], &v[6]);
  stat.reset();
  const CpuTimes now{v[0], v[1], v[2], v[3], v[4], v[5], v[6]};
  // Unsigned 64-bit throughout; only idle time counts as not busy.
  const uint64_t total = sum(now) - sum(*times);
  const uint64_t idle = now.idle - times->idle;
  *times = now;
  if (total == 0) return 0;
  return static_cast<uint16_t>((total - idle) * kPerMille / total);
}

}  // namespace
}  // namespace rk::diag

extern "C" {

uint16_t getCPUUsageValue(CpuTimes *times) { return rk::diag::cpuUsage(times); }

}  // extern "C"
