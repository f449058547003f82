// The delay record in /var/run/internet.state and the bridge address chosen
// among real interfaces, each case in private namespaces.
#include <routerkit/network_helper.h>

#include <arpa/inet.h>
#include <sched.h>

#include <regex>

#include "rk_test.h"

namespace rk::test {
namespace {

const char kState[] = "/var/run/internet.state";

// The mean, or -1 when the call failed and left its result alone.
int64_t Mean() {
  uint32_t mean = 123456;
  const int result = getInternetDelay(&mean);
  return result == 0 ? static_cast<int64_t>(mean) : (result == -1 && mean == 123456 ? -1 : -2);
}

TEST(DelayRecord, WritesNewestFirstAndAveragesFive) {
  RK_REQUIRE_NAMESPACE();
  const struct { const char *label; uint32_t delay; const char *file; int64_t mean; } steps[] = {
      {nullptr, 0, "", -1}, {"wan", 10, "wan 10\n", 10}, {"lan", 20, "lan 20\nwan 10\n", 15},
      {"wan", 31, "wan 31\nlan 20\nwan 10\n", 20}, {"d", 1, "d 1\nwan 31\nlan 20\nwan 10\n", 15},
      {"e", 2, "e 2\nd 1\nwan 31\nlan 20\nwan 10\n", 12},
      {"f", 3, "f 3\ne 2\nd 1\nwan 31\nlan 20\nwan 10\n", 11},  // six lines, five averaged
      {"g", 4294967295, "g 4294967295\nf 3\ne 2\nd 1\nwan 31\nlan 20\n", 7},  // the sum wraps
      {nullptr, 0, "", -1}};
  EXPECT_EQ(Mean(), -1);  // no file
  for (const auto &s : steps) {
    EXPECT_EQ(s.label ? setInternetDelay(s.label, s.delay) : clearInternetDelay(), 0);
    EXPECT_EQ(ReadFile(kState), s.file);
    EXPECT_EQ(Mean(), s.mean) << s.file;
  }
}

TEST(DelayRecord, LinesItDidNotWriteAreSkipped) {
  RK_REQUIRE_NAMESPACE();
  // A write carries over exactly the records it read.
  std::string million;
  for (int i = 0; i < 1000000; ++i) million += "x\n";
  const struct { std::string file; const char *kept; } rows[] = {
      {"a 1\nb\nc 3\n", "a 1\nc 3\n"},
      {"0123456789abcdef 5\n0123456789abcde 7", "0123456789abcde 7\n"},  // 16 and 15 characters
      {"0123456789abcde 4294967295\n", "0123456789abcde 4294967295\n"},  // the longest line
      {"x 1 2\ny -1\nz 4294967296\nv 12abc\n s 5\nt\t6\n\nw  8\nu 8\n", "u 8\n"},
      {std::string(5000, 'y') + " 9\nok 9\n", "ok 9\n"},
      {std::string("n\0l 5\ne 6\n", 10), "e 6\n"}, {"only garbage\n", ""}, {million + "m 1\n", "m 1\n"}};
  for (const auto &r : rows) {
    ASSERT_TRUE(WriteFile(kState, r.file));
    EXPECT_EQ(setInternetDelay("new", 1), 0);
    EXPECT_EQ(ReadFile(kState), std::string("new 1\n") + r.kept) << r.file;
  }
}

TEST(DelayRecord, TwoWritersAtOnce) {
  RK_REQUIRE_NAMESPACE();
  const auto writer = [](char who) {
    return [who] {
      for (uint32_t i = 0; i < 300; ++i) setInternetDelay((who + std::to_string(i)).c_str(), i);
      return 0;
    };
  };
  const pid_t a = StartChild(writer('a')), b = StartChild(writer('b'));
  EXPECT_EQ(WaitChild(a) + WaitChild(b), 0);
  // The last write's new record stands whole at the start and no line is
  // longer than a record; the next write carries over records only.
  const std::string file = ReadFile(kState);
  EXPECT_TRUE(std::regex_match(file, std::regex("([ab])(\\d+) \\2\n([^\n]{0,26}\n)*[^\n]{0,26}"))) << file;
  ASSERT_EQ(setInternetDelay("last", 0), 0);
  EXPECT_TRUE(std::regex_match(ReadFile(kState), std::regex("last 0\n([^\\s]{1,15} \\d{1,10}\n){0,5}")));
}

// `br NAME ADDR...`: a running bridge (a veth port gives it carrier);
// `down NAME ADDR...`: one that is not. No link-local address of their own.
const char kMakeBridges[] =
    "down() { ip link add $1 type bridge && ip link set $1 addrgenmode none && n=$1 && shift &&"
    " for a; do ip addr add $a dev $n $(case $a in *:*) echo nodad;; esac) || return 1; done; };"
    "br() { down \"$@\" && ip link add p$1 type veth peer name q$1 && ip link set p$1 master $1 &&"
    " ip link set p$1 up && ip link set q$1 up && ip link set $1 up &&"
    " for i in $(seq 500); do ip link show $1 | grep -q 'state UP' && return; sleep 0.01; done; };";

TEST(BridgeAddr, ChoiceForThePeer) {
  RK_REQUIRE_NAMESPACE();
  const char *v6 = "2001:db8:1::5";
  const struct { const char *net; uint8_t family; const char *peer, *want; } rows[] = {
      {"br br-lan 192.168.20.1/24 192.168.10.1/24 192.168.20.2/24", 2, "192.168.20.7", "192.168.20.1"},
      {"br br-lan 192.168.10.1/24 192.168.20.1/24", 2, "10.0.0.5", "192.168.20.1"},
      {"br br-lan 192.168.20.1/24 192.168.10.1/24", 2, "10.0.0.5", "192.168.20.1"},
      {"br br-lan 192.168.10.1/24 192.168.10.2/24", 2, "10.0.0.5", "192.168.10.2"},
      {"br br-lan 192.168.20.1/24 10.0.0.1/8", 2, "10.1.1.5", "10.0.0.1"},  // each mask its own
      {"down br-lan 192.168.20.1/24; br br-wan 192.168.20.2/24; br eth0 192.168.20.3/24;"
       "br br-lan1 192.168.10.1/24", 2, "192.168.20.7", "192.168.10.1"},
      {"br br-wan 192.168.20.1/24; down br-lan 192.168.10.1/24; br br-lan1", 2, "192.168.20.7", nullptr},
      {"br br-lan 192.168.10.1/24", 17, "192.168.10.1", nullptr},
      {"br br-lan 2001:db8:2::1/64; br br-lan1 fe80::1/64", 10, v6, "fe80::1"},
      {"br br-lan fe81::1/64; br br-lan1 fe80::1/64; br br-lan2 fe80::2/64", 10, v6, "fe80::1"},
      {"br br-lan 2001:db8:2::1/64 2001:db8:3::1/64", 10, v6, "2001:db8:2::1"},  // newest first
      {"br br-lan 2001:db8:1::9/128; br br-lan1 2001:db8:2::1/64", 10, v6, "2001:db8:1::9"}};
  for (const auto &r : rows) {
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    ASSERT_EQ(system((kMakeBridges + std::string(r.net)).c_str()), 0) << r.net;
    const int af = r.family == 10 ? AF_INET6 : AF_INET;
    uint8_t peer[16] = {}, out[16], want[16];
    memset(out, 0xaa, sizeof out), memset(want, 0xaa, sizeof want);
    ASSERT_TRUE(inet_pton(af, r.peer, peer) == 1 && (!r.want || inet_pton(af, r.want, want) == 1));
    EXPECT_EQ(networkHelper_getBridgeAddr(r.family, peer, out), r.want ? 1 : 0) << r.net;
    EXPECT_EQ(ToHex(out, sizeof out), ToHex(want, sizeof want)) << r.net;
  }
}

}  // namespace
}  // namespace rk::test
