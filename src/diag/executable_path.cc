// The executable's own directory and name, from /proc/self/exe. It does not
// log: logging takes its name from here.
#include <routerkit/log.h>

#include <string.h>
#include <unistd.h>

namespace rk::diag {
namespace {

// The caller zero-fills both buffers and passes sizes below their capacity:
// readlink and strncpy write no terminator of their own, and the only one
// written here is the cut behind the directory's final '/'.
int64_t splitExecutablePath(char *dir, uint64_t dirSize, char *name, uint64_t nameSize) noexcept {
  if (readlink("/proc/self/exe", dir, dirSize) <= 0) return -1;
  char *slash = strrchr(dir, '/');
  if (!slash) return -1;
  strncpy(name, slash + 1, nameSize);
  slash[1] = '\0';
  return slash + 1 - dir;
}

}  // namespace
}  // namespace rk::diag

extern "C" {

int64_t get_executable_path(char *dir, uint64_t dirSize, char *name, uint64_t nameSize) {
  return rk::diag::splitExecutablePath(dir, dirSize, name, nameSize);
}

}  // extern "C"
