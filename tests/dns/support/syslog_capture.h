// Catches what the process sends to syslog: a unix datagram socket bound at
// /dev/log inside the test's private namespace (rk-ns-run gives every test
// a throw-away /dev). Messages arrive synchronously, so a test reads what a
// call logged right after the call.
#pragma once

#include <string>
#include <vector>

namespace rk {
namespace test {

// True inside the private namespaces of tests/support/rk-ns-run. Code that
// replaces /dev/log or listens on port 53 checks this first.
bool insideTestNamespace();

struct LogLine {
  int severity = -1;  // 3 for log_error, 6 for log_info ...
  std::string text;   // the message as the library formatted it

  // "I [checkDnsSocket:N]error size(20) from 127.0.0.1": severity letter,
  // and the source line of "[function:line]" replaced by N, since line
  // numbers are not part of the messages' contract.
  std::string normalized() const;
};

class SyslogCapture {
 public:
  // Binds /dev/log (replacing whatever is there); only inside the namespace.
  SyslogCapture();
  ~SyslogCapture();
  SyslogCapture(const SyslogCapture &) = delete;
  SyslogCapture &operator=(const SyslogCapture &) = delete;

  bool ok() const { return fd_ >= 0; }
  // Everything received since the last call, oldest first.
  std::vector<LogLine> take();
  std::vector<std::string> takeNormalized();

 private:
  int fd_ = -1;
};

// Makes /dev/log unreachable, so messages are formatted by the library and
// syslog() but go nowhere (for fuzzers and benchmarks that log a lot). Only
// inside the namespace; false outside of it.
bool silenceSyslog();

}  // namespace test
}  // namespace rk
