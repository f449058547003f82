// The ping client's opt-in entry points inside private namespaces:
// unprivileged ICMP sockets as a user whose group is allowed or not, raw and
// unprivileged contexts side by side, the reply callback's sequence numbers
// and microseconds (beside iputils ping), and the caller's pointer.
#include <arpa/inet.h>
#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include <routerkit/async_ping.h>
#include <routerkit/log.h>

#include "rk_test.h"

namespace rk::test {
namespace {

std::map<std::string, std::string> got;  // per user data: " <sequence>" per reply, " -" for the millisecond callback
std::vector<std::string> replies;         // "<sequence> <address>"
std::vector<double> microseconds;

const char *Tag(AsyncPingContext *c) { return static_cast<const char *>(asyncPing_getUserData(c)); }
void OnReply(AsyncPingContext *c, const char *from, uint16_t seq, uint32_t us) {
  got[Tag(c)] += " " + std::to_string(seq), replies.push_back(std::to_string(seq) + " " + from);
  microseconds.push_back(us);
}
int OnDelay(AsyncPingContext *c, const char *from, uint32_t) {
  got[Tag(c)] += " -", replies.push_back(std::string("- ") + from);
  return 0;
}

// A context of either kind with `tag` as its user data; the reply callback unless `ms`.
AsyncPingContext *Make(bool unprivileged, const char *tag, bool ms = false) {
  AsyncPingContext *c = unprivileged ? asyncPing_createUnprivileged(OnDelay) : asyncPing_create(OnDelay);
  if (c != nullptr && asyncPing_setReplyCallback(c, ms ? nullptr : OnReply) == 0)
    asyncPing_setUserData(c, const_cast<char *>(tag));
  return c;
}

void RunUntil(size_t n, int ms) {
  for (uint64_t end = GetTickCount() + ms; replies.size() < n && GetTickCount() < end;) uloop_run_timeout(10);
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

bool Groups(const std::string &r) { return !system(("sysctl -qw net.ipv4.ping_group_range='" + r + "'").c_str()); }
bool Peer() {  // 10.9.0.2 and fd09::2 one veth hop away, their neighbour entries made
  return !system("set -e; ip netns add peer; ip link add rk0 type veth peer name rk1 netns peer\n"
                 "ip addr add 10.9.0.1/24 dev rk0; ip addr add fd09::1/64 dev rk0 nodad; ip link set rk0 up\n"
                 "ip -n peer addr add 10.9.0.2/24 dev rk1; ip -n peer addr add fd09::2/64 dev rk1 nodad\n"
                 "ip -n peer link set rk1 up; ping -c1 -W3 -q fd09::2 >/dev/null; ping -c1 -W3 -q 10.9.0.2 >/dev/null");
}

TEST(PingUnprivileged, AsAUserOfAnAllowedGroupAndRefusedOtherwise) {
  RK_REQUIRE_NAMESPACE();
  ASSERT_TRUE(Peer());
  const struct { const char *groups, *want; } rows[] = {
      {"4242 4242", "120 0 127.0.0.1|1 ::1|2 10.9.0.2|3 fd09::2|"},  // 24 bytes for IPv6 with the reply callback
      {"4000 4241", "NULL errno 13"},                                // EACCES
  };
  for (const auto &row : rows) {
    ASSERT_TRUE(Groups(row.groups));
    EXPECT_EQ(0, RunInChild([&] {
      // No capability is left after setuid: raw sockets are refused.
      if (setgroups(0, nullptr) || setgid(4242) || setuid(4242) || asyncPing_create(nullptr)) return 1;
      AsyncPingContext *c = uloop_init() ? nullptr : Make(true, "u");
      std::string text = !c ? "NULL errno " + std::to_string(errno)
                            : std::to_string(asyncPing4(c, "127.0.0.1") + asyncPing6(c, "::1") +
                                             asyncPing4(c, "10.9.0.2") + asyncPing6(c, "fd09::2")) + " ";
      if (c) RunUntil(4, 3000), RunUntil(5, 100);
      std::sort(replies.begin(), replies.end());
      for (const std::string &r : replies) text += r + "|";
      fprintf(stderr, "%s\n", text.c_str());
      _exit(text != row.want);  // the coverage counters are not this user's to write
    })) << row.groups;
  }
}

TEST(PingUnprivileged, SideBySideEachTakesItsOwnRepliesAndTellsDuplicatesAndLateOnes) {
  RK_REQUIRE_NAMESPACE();
  EXPECT_TRUE(asyncPing_createUnprivileged(nullptr) == nullptr && errno == EACCES);  // "1 0": no group, root's neither
  ASSERT_TRUE(Groups("0 0"));
  SyslogCapture log;  // an unprivileged ICMPv6 socket gets no filter: nothing to log
  const int tap = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
  ASSERT_EQ(uloop_init(), 0);
  AsyncPingContext *c[4] = {Make(false, "raw"), Make(false, "raw ms", true), Make(true, "unprivileged"),
                            Make(true, "unprivileged ms", true)};
  for (int i = 0; i < 4; i++)
    for (int n = 0; n < (i % 2 ? 1 : 2); n++) EXPECT_EQ(asyncPing4(c[i], "127.0.0.1"), 36);
  RunUntil(6, 2000);
  usleep(100000);
  // The kernel's echo replies once more, 100 ms late: each sequence number comes a second time.
  std::vector<std::vector<uint8_t>> late;
  for (uint8_t b[256]; recv(tap, b, sizeof b, MSG_DONTWAIT) == 56;)
    if (b[20] == 0) late.emplace_back(b + 20, b + 56);
  const sockaddr_in lo{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  for (const auto &m : late) sendto(tap, m.data(), m.size(), 0, reinterpret_cast<const sockaddr *>(&lo), sizeof lo);
  RunUntil(12, 2000), RunUntil(13, 100);
  EXPECT_EQ(got, (std::map<std::string, std::string>{{"raw", " 0 1 0 1"}, {"raw ms", " - -"},
                                                     {"unprivileged", " 0 1 0 1"}, {"unprivileged ms", " - -"}}));
  std::sort(microseconds.begin(), microseconds.end());
  EXPECT_TRUE(microseconds.at(0) > 0 && microseconds.at(3) < 100000 && microseconds.at(4) >= 100000);
  for (AsyncPingContext *p : c) EXPECT_EQ(asyncPing_destroy(p), 0);
  close(tap), uloop_done();
  EXPECT_EQ(log.TakeNormalized(), std::vector<std::string>{});
  EXPECT_TRUE(asyncPing_setReplyCallback(nullptr, OnReply) == -1 && asyncPing_getUserData(nullptr) == nullptr);
}

// The clock arithmetic against an outside measure of the same path in the
// same run: iputils ping's median to the veth peer. The machine's load moves
// both; a measure that misses the bound is taken again, twice at most.
TEST(PingUnprivileged, MicrosecondsAgreeWithIputils) {
  RK_REQUIRE_NAMESPACE();
  ASSERT_TRUE(Peer() && Groups("0 0"));
  ASSERT_EQ(uloop_init(), 0);
  const double bound = getenv("RK_EMULATED") ? 250 : 50;  // under qemu-user the emulator adds its own time
  for (bool unprivileged : {false, true}) {
    AsyncPingContext *c = Make(unprivileged, "peer");
    double ours = 0, theirs = -1000;
    for (int attempt = 0; attempt < 3 && !(ours > 0 && std::abs(ours - theirs) <= bound); attempt++) {
      replies.clear(), microseconds.clear();
      for (size_t i = 0; i < 21; i++, usleep(10000)) asyncPing4(c, "10.9.0.2"), RunUntil(i + 1, 1000);
      std::vector<double> times;
      FILE *p = popen("ping -n -c 21 -i 0.01 10.9.0.2", "r");
      for (char line[256]; p && fgets(line, sizeof line, p);)
        if (const char *t = strstr(line, "time=")) times.push_back(atof(t + 5) * 1000);
      if (p) pclose(p);
      ours = Median(microseconds), theirs = Median(times);
    }
    EXPECT_TRUE(ours > 0 && std::abs(ours - theirs) <= bound) << unprivileged << ": " << ours << " us, iputils "
                                                              << theirs;
    asyncPing_destroy(c);
  }
  uloop_done();
}

}  // namespace
}  // namespace rk::test
