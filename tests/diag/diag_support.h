// Test helpers for logging and the readers built on it: a syslog receiver at
// /dev/log, a capture of standard error and forked children (with a seccomp
// filter to make one system call fail). Header-only; also used by the
// key/value file tests. File helpers come from tests/support.
#pragma once

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "rk_test.h"

// In a build with gcov counters, a forked child that ends with _exit must
// write its counters itself.
#ifdef RK_GCOV_DUMP
extern "C" void __gcov_dump(void);
#endif

namespace rk_test {

// True inside tests/support/rk-ns-run, where /etc, /usr/bin, /dev and /tmp
// are throw-away, so a test may write at the system's fixed paths.
inline bool InTestNamespace() {
  std::ifstream mounts("/proc/self/mounts");
  std::string line;
  while (std::getline(mounts, line))
    if (line.rfind("rk-etc /etc ", 0) == 0) return true;
  return false;
}

// Logging keeps process-wide state that cannot be reset, so each of these
// tests must be the first in its process (ctest runs every case alone).
inline bool ClaimFreshProcess() {
  static bool claimed = false;
  return !std::exchange(claimed, true);
}

#define RK_REQUIRE_NAMESPACE()                                                           \
  do {                                                                                  \
    if (!rk_test::InTestNamespace())                                                    \
      GTEST_SKIP() << "writes fixed paths: run through ctest (tests/support/rk-ns-run)"; \
  } while (0)

#define RK_REQUIRE_FRESH_NAMESPACE()                                               \
  do {                                                                           \
    RK_REQUIRE_NAMESPACE();                                                      \
    if (!rk_test::ClaimFreshProcess())                                           \
      GTEST_SKIP() << "needs fresh logging state: run one test case per process"; \
  } while (0)

// The base name of the running test program, as the library cuts it.
inline std::string OwnName() {
  char buf[4096] = {0};
  if (readlink("/proc/self/exe", buf, sizeof buf - 1) <= 0) return "";
  std::string path(buf);
  return path.substr(path.rfind('/') + 1).substr(0, 63);
}

// Redirects standard error (descriptor 2) into memory for its lifetime.
class StderrCapture {
 public:
  StderrCapture() {
    fflush(stderr);
    saved_ = dup(STDERR_FILENO);
    mem_ = memfd_create("stderr", MFD_CLOEXEC);
    dup2(mem_, STDERR_FILENO);
  }
  ~StderrCapture() { Stop(); }
  StderrCapture(const StderrCapture &) = delete;
  StderrCapture &operator=(const StderrCapture &) = delete;

  // Restores standard error and returns what was written to it.
  std::string Stop() {
    if (saved_ < 0) return text_;
    fflush(stderr);
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    saved_ = -1;
    char buf[4096];
    ssize_t n;
    for (off_t off = 0; (n = pread(mem_, buf, sizeof buf, off)) > 0; off += n) text_.append(buf, n);
    close(mem_);
    return text_;
  }

 private:
  int saved_ = -1;
  int mem_ = -1;
  std::string text_;
};

struct SyslogMessage {
  int priority = -1;  // facility * 8 + severity, as sent
  std::string ident;
  std::string text;
  std::string raw;
};

// The receiving end of syslog(3): a datagram socket bound at /dev/log. The
// C library sends "<PRI>Mmm dd hh:mm:ss ident[pid]: text" per message.
class SyslogSink {
 public:
  SyslogSink() {
    unlink(kPath);
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, kPath);
    bound_ = fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
  }
  ~SyslogSink() {
    if (fd_ >= 0) close(fd_);
    unlink(kPath);
  }
  SyslogSink(const SyslogSink &) = delete;
  SyslogSink &operator=(const SyslogSink &) = delete;

  bool bound() const { return bound_; }

  // The next message. A local datagram is queued by the time the sending
  // call returns, so a message that is not there now was not sent.
  std::optional<SyslogMessage> Next() {
    char buf[65536];
    ssize_t n = recv(fd_, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0) return std::nullopt;
    return Parse(std::string(buf, n));
  }

 private:
  static constexpr const char *kPath = "/dev/log";

  static SyslogMessage Parse(const std::string &raw) {
    SyslogMessage m;
    m.raw = raw;
    size_t close_pri = raw.find('>');
    if (raw.empty() || raw[0] != '<' || close_pri == std::string::npos) return m;
    m.priority = atoi(raw.c_str() + 1);
    // "Mmm dd hh:mm:ss " is 16 bytes; then "ident[pid]: " ("[pid]" only
    // with LOG_PID).
    size_t ident_at = close_pri + 1 + 16;
    size_t end = ident_at <= raw.size() ? raw.find(": ", ident_at) : std::string::npos;
    if (end == std::string::npos) return m;
    m.ident = raw.substr(ident_at, end - ident_at);
    if (!m.ident.empty() && m.ident.back() == ']') m.ident.erase(m.ident.rfind('['));
    m.text = raw.substr(end + 2);
    return m;
  }

  int fd_ = -1;
  bool bound_ = false;
};

// Starts `body` in a forked child that ends with _exit(body()), so nothing
// of the parent's gtest state runs twice. Fork before starting threads.
inline pid_t StartChild(const std::function<int()> &body) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    int code = body();
    fflush(nullptr);
#ifdef RK_GCOV_DUMP
    __gcov_dump();
#endif
    _exit(code);
  }
  return pid;
}

// The child's exit code, or 128 + signal if it was killed.
inline int WaitChild(pid_t pid) {
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

inline int RunInChild(const std::function<int()> &body) { return WaitChild(StartChild(body)); }

// From here on, in this process, system call `nr` fails with `err` without
// running. For forked children only: the filter cannot be removed.
inline bool FailSyscall(long nr, int err) {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(nr), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (static_cast<uint32_t>(err) & SECCOMP_RET_DATA)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  sock_fprog prog{static_cast<unsigned short>(sizeof filter / sizeof filter[0]), filter};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog) == 0;
}

}  // namespace rk_test
