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

namespace rk::diag {
namespace {

constexpr size_t kCommandSize = 2048;  // LC_SystemCall's command line
constexpr size_t kRuleSize = 1024;     // a firewall command, prefix included
constexpr size_t kFdPathSize = 64;
// The shell's own exit code for a command that cannot be run.
constexpr int kExecFailedExitCode = 127;
constexpr char kIptablesPrefix[] = "/usr/sbin/iptables -w ";
constexpr char kIp6tablesPrefix[] = "/usr/sbin/ip6tables -w ";
// A failure to start a command, whichever entry asked for it, is logged as
// LC_SystemCall's; a failure to list descriptors as close_all_fd's.
constexpr char kSystemCallOrigin[] = "LC_SystemCall";
constexpr char kCloseAllOrigin[] = "close_all_fd";

// The raw wait status of `pid`; an interrupted wait is resumed, any other
// failure gives -1.
int waitStatus(pid_t pid) noexcept {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return status;
}

// Runs finished command text. The text exists before the child does: the
// vfork child only execs or exits.
int runShell(const char *command) noexcept {
  const pid_t pid = vfork();
  if (pid == 0) {
    execl("/bin/sh", "sh", "-c", command, static_cast<char *>(nullptr));
    _exit(kExecFailedExitCode);
  }
  if (pid < 0) {
    RK_LOG_AS(error, kSystemCallOrigin, "vfork() failed");
    return -1;
  }
  return waitStatus(pid);
}

int systemCall(const char *fmt, va_list ap) noexcept {
  char command[kCommandSize] = {};
  vsnprintf(command, sizeof command, fmt, ap);
  return runShell(command);
}

// A rule is formatted behind its prefix and then runs as it stands: a '%' in
// the finished text is never read as a directive again.
int runRule(const char *prefix, const char *fmt, va_list ap) noexcept {
  char command[kRuleSize] = {};
  const size_t used = strlen(prefix);
  memcpy(command, prefix, used + 1);
  vsnprintf(command + used, sizeof command - used, fmt, ap);
  return runShell(command);
}

void closeAllFds() noexcept {
  char path[kFdPathSize] = {};
  snprintf(path, sizeof path, "/proc/%d/fd/", static_cast<int>(getpid()));
  DirPtr dir(opendir(path));
  if (!dir) {
    RK_LOG_AS(error, kCloseAllOrigin, "close_all_fd open dir:%s fail", path);
    return;
  }
  const int own = dirfd(dir.get());
  while (const dirent *entry = readdir(dir.get())) {
    if (entry->d_name[0] < '0' || entry->d_name[0] > '9') continue;
    const long fd = strtol(entry->d_name, nullptr, 10);
    if (fd <= STDERR_FILENO || fd == own || fd > INT_MAX) continue;
    close(static_cast<int>(fd));
  }
}

}  // namespace
}  // namespace rk::diag

extern "C" {

int LC_SystemCall(const char *fmt, ...) {
  if (fmt == nullptr) return -1;
  va_list ap;
  va_start(ap, fmt);
  const int status = rk::diag::systemCall(fmt, ap);
  va_end(ap);
  return status;
}

int iptables(const char *fmt, ...) {
  if (fmt == nullptr) return -1;
  va_list ap;
  va_start(ap, fmt);
  const int status = rk::diag::runRule(rk::diag::kIptablesPrefix, fmt, ap);
  va_end(ap);
  return status;
}

int ip6tables(const char *fmt, ...) {
  if (fmt == nullptr) return -1;
  va_list ap;
  va_start(ap, fmt);
  const int status = rk::diag::runRule(rk::diag::kIp6tablesPrefix, fmt, ap);
  va_end(ap);
  return status;
}

void close_all_fd(void) { rk::diag::closeAllFds(); }

}  // extern "C"
