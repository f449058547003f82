// The test-support layer shared by every area: where a test runs, files,
// bytes, syslog and standard error captures, forked children. Everything is
// in namespace rk::test.
#pragma once

#include <stdlib.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace rk::test {

// True inside tests/support/rk-ns-run, where /etc, /usr/bin, /dev, /tmp and
// /run are throw-away, so a test may write at the system's fixed paths, bind
// /dev/log, listen on port 53 and bring up interfaces.
bool InTestNamespace();

#define RK_REQUIRE_NAMESPACE()                                                            \
  do {                                                                                   \
    if (!::rk::test::InTestNamespace())                                                  \
      GTEST_SKIP() << "writes fixed paths: run through ctest (tests/support/rk-ns-run)"; \
  } while (0)

// Set (to the emulator's name) when the tests of a cross build run under
// qemu-user. A case that cannot work there skips with its reason.
#define RK_SKIP_UNDER_EMULATION(reason)                                \
  do {                                                                \
    if (getenv("RK_EMULATED") != nullptr)                             \
      GTEST_SKIP() << "under " << getenv("RK_EMULATED") << ": " << reason; \
  } while (0)
// What the C library's syslog keeps: musl's 31 bytes of the ident and 1024
// bytes of a message in all (header included), glibc's everything.
#ifdef __GLIBC__
constexpr bool kSyslogCuts = false;
#else
constexpr bool kSyslogCuts = true;
#endif
constexpr size_t kSyslogIdentKept = kSyslogCuts ? 31 : std::string::npos;

// ---- files ----
bool WriteFile(const std::string &path, const std::string &content, int mode = 0644);
std::string ReadFile(const std::string &path);
bool FileExists(const std::string &path);
// The running program's path, from /proc/self/exe ("" when unreadable).
std::string OwnPath();
// The "[YYYY-MM-DD hh:mm:ss] " stamp of the log files, as a pattern.
constexpr char kLogStamp[] = R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\] )";
// Entries in /proc/self/fd: compare before and after a call to see that it
// leaves no descriptor behind.
int OpenFdCount();

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::string &path() const { return path_; }
  std::string operator/(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// ---- bytes ----
// Bytes spelled as hex words ("8500000c 0001 6e"); a word that starts with
// an apostrophe stands for its own characters ("03 'aaa 00").
std::vector<uint8_t> Hex(const std::string &text);
// Lower-case hex of `len` bytes, one blank between bytes ("12 34 01").
std::string ToHex(const void *data, size_t len);
inline std::string ToHex(const std::vector<uint8_t> &v) { return ToHex(v.data(), v.size()); }

// ---- syslog ----
struct LogLine {
  int severity = -1;  // 3 for log_error, 6 for log_info ...
  int facility = -1;  // 16 for LOG_LOCAL0
  std::string ident;  // without "[pid]"
  std::string text;   // the message as the library formatted it

  // "E [checkDnsSocket:N]error size(20) from 127.0.0.1": the severity
  // letter, and the source line of a leading "[function:line]" replaced by
  // N, since line numbers are not part of the messages' contract.
  std::string Normalized() const;
};

// Catches what the process sends to syslog: a unix datagram socket bound at
// /dev/log (only inside the test namespace, where /dev is throw-away).
// Messages are queued by the time the sending call returns, so a test reads
// what a call logged right after the call.
class SyslogCapture {
 public:
  SyslogCapture();
  ~SyslogCapture();
  SyslogCapture(const SyslogCapture &) = delete;
  SyslogCapture &operator=(const SyslogCapture &) = delete;

  bool ok() const { return fd_ >= 0; }
  // Everything received since the last call, oldest first.
  std::vector<LogLine> Take();
  std::vector<std::string> TakeNormalized();

 private:
  int fd_ = -1;
};

// Makes /dev/log unreachable, so messages are formatted but go nowhere (for
// fuzzers and benchmarks that log a lot). False outside the namespace.
bool SilenceSyslog();

// ---- standard error (or output) ----
// Redirects descriptor 2 (or `fd`, such as 1) into memory for its lifetime.
class StderrCapture {
 public:
  explicit StderrCapture(int fd = 2);
  ~StderrCapture() { Stop(); }
  StderrCapture(const StderrCapture &) = delete;
  StderrCapture &operator=(const StderrCapture &) = delete;
  // Restores the descriptor and returns what was written to it.
  std::string Stop();

 private:
  int fd_, saved_ = -1, mem_ = -1;
  std::string text_;
};

// ---- servers ----
// Debian's dnsmasq on port 53 of 127.0.0.1 and ::1, with the extra `args`
// (such as "--host-record=..."), for the life of the object. Not started
// when /usr/sbin/dnsmasq is missing; a test then sees no answers.
class Dnsmasq {
 public:
  explicit Dnsmasq(std::vector<std::string> args);
  ~Dnsmasq();
  Dnsmasq(const Dnsmasq &) = delete;
  Dnsmasq &operator=(const Dnsmasq &) = delete;

 private:
  pid_t pid_ = -1;
};

// ---- children ----
// Runs `body` in a forked child that ends with _exit(body()), so nothing of
// the parent's gtest state runs twice; the coverage counters of the child
// are written first. Fork before starting threads.
pid_t StartChild(const std::function<int()> &body);
// The child's exit code, or 128 + signal if it was killed; -1 on no child.
int WaitChild(pid_t pid);
inline int RunInChild(const std::function<int()> &body) { return WaitChild(StartChild(body)); }

}  // namespace rk::test
