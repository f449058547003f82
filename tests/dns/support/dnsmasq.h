// A real DNS server for the tests: Debian's dnsmasq, started in the test's
// own network namespace on 127.0.0.1:53 and [::1]:53 with nothing but the
// records a test gives it (no resolv.conf, no hosts file, no upstream), and
// ended when the object goes.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace rk {
namespace test {

class Dnsmasq {
 public:
  // `records` are further dnsmasq options, e.g. "--host-record=a.lan,192.0.2.1".
  // `probeName` is a name it knows; the constructor waits until a query for
  // it is answered on both addresses.
  Dnsmasq(const std::vector<std::string> &records, const std::string &probeName);
  ~Dnsmasq();
  Dnsmasq(const Dnsmasq &) = delete;
  Dnsmasq &operator=(const Dnsmasq &) = delete;

  bool ok() const { return ready_; }
  const std::string &error() const { return error_; }

  static const char *binary();

 private:
  pid_t pid_ = -1;
  bool ready_ = false;
  std::string error_;
};

}  // namespace test
}  // namespace rk
