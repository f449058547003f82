// Shell commands and firewall rules, run through /bin/sh and waited for on
// the caller's thread; and closing every inherited descriptor.
#include <routerkit/log.h>

#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "common/raii.h"
#include "diag/logmsg.h"

namespace rk {
namespace {

constexpr size_t kCommandSize = 2048;  // LC_SystemCall's command line
constexpr size_t kRuleSize = 1024;     // a firewall command, prefix included
constexpr size_t kFdPathSize = 64;

// The raw wait status of `pid`; an interrupted wait is resumed, any other
// failure gives -1.
int wait_status(pid_t pid) noexcept {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

int run_rule(const char *prefix, const char *fmt, va_list ap) noexcept {
  char command[kRuleSize] = {};
  const size_t used = strlen(prefix);
  memcpy(command, prefix, used + 1);
  vsnprintf(command + used, sizeof command - used, fmt, ap);
  // The rule is finished text now: "%s" keeps a '%' in it from being read
  // as a directive again.
  return LC_SystemCall("%s", command);
}

}  // namespace
}  // namespace rk

extern "C" {

int LC_SystemCall(const char *fmt, ...) {
  if (fmt == nullptr) return -1;
  // Formatted before the child is made: the vfork child only execs or exits.
  char command[rk::kCommandSize] = {};
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(command, sizeof command, fmt, ap);
  va_end(ap);

  const pid_t pid = vfork();
  if (pid == 0) {
    execl("/bin/sh", "sh", "-c", command, static_cast<char *>(nullptr));
    _exit(127);
  }
  if (pid < 0) {
    RK_LOG(error, "vfork() failed");
    return -1;
  }
  return rk::wait_status(pid);
}

int iptables(const char *fmt, ...) {
  if (fmt == nullptr) return -1;
  va_list ap;
  va_start(ap, fmt);
  const int status = rk::run_rule("/usr/sbin/iptables -w ", fmt, ap);
  va_end(ap);
  return status;
}

int ip6tables(const char *fmt, ...) {
  if (fmt == nullptr) return -1;
  va_list ap;
  va_start(ap, fmt);
  const int status = rk::run_rule("/usr/sbin/ip6tables -w ", fmt, ap);
  va_end(ap);
  return status;
}

void close_all_fd(void) {
  char path[rk::kFdPathSize] = {};
  snprintf(path, sizeof path, "/proc/%d/fd/", static_cast<int>(getpid()));
  rk::DirPtr dir(opendir(path));
  if (!dir) {
    RK_LOG(error, "close_all_fd open dir:%s fail", path);
    return;
  }
  const int own = dirfd(dir.get());
  while (const dirent *entry = readdir(dir.get())) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    const long fd = strtol(entry->d_name, nullptr, 10);
    if (fd <= 2 || fd == own || fd > INT_MAX) continue;
    close(static_cast<int>(fd));
  }
}

}  // extern "C"
