// The library's one clock and the executable's own name. Neither logs:
// logging takes its name from here.
#include "diag/clock.h"

#include <routerkit/log.h>

#include <string.h>
#include <unistd.h>

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

// The caller zero-fills both buffers and passes sizes below their capacity:
// readlink and strncpy write no terminator of their own, and the only one
// written here is the cut behind the directory's final '/'.
int64_t get_executable_path(char *dir, uint64_t dirSize, char *name, uint64_t nameSize) {
  if (readlink("/proc/self/exe", dir, dirSize) <= 0) return -1;
  char *slash = strrchr(dir, '/');
  if (!slash) return -1;
  strncpy(name, slash + 1, nameSize);
  slash[1] = '\0';
  return slash + 1 - dir;
}

}  // extern "C"
