// The ping client inside private namespaces. On raw sockets with the test's
// own uloop: the kernel answers for 127.0.0.1, ::1 and a peer namespace one
// veth hop away, and the test's own raw sockets see the requests on the
// wire. The opt-in entry points: unprivileged ICMP sockets as a user whose
// group is allowed or not, raw and unprivileged contexts side by side, the
// reply callback's sequence numbers and microseconds (beside iputils ping),
// and the caller's pointer.
#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <unistd.h>

#include <algorithm>
#include <map>

#include <routerkit/async_ping.h>
#include <routerkit/log.h>

#include "rk_test.h"

namespace rk::test {
namespace {

// "<tag> <address>" (and " late" for a delay of 3 s or more) from Record;
// "<sequence> <address>" from OnReply, "- <address>" from OnDelay.
std::vector<std::string> replies;
template <char tag>
int Record(AsyncPingContext *, const char *from, uint32_t delay) {
  return replies.push_back(tag + (" " + std::string(from)) + (delay < 3000 ? "" : " late")), 0;
}

void RunUntil(size_t n, int ms) {
  for (uint64_t end = GetTickCount() + ms; replies.size() < n && GetTickCount() < end;) uloop_run_timeout(10);
}

// 10.9.0.2 and fd09::2 one veth hop away, made anew, their neighbour entries made.
bool Peer() {
  return !system("ip link del rk0 2>/dev/null; ip netns del peer 2>/dev/null; set -e; ip netns add peer\n"
                 "ip link add rk0 type veth peer name rk1 netns peer; ip addr add 10.9.0.1/24 dev rk0\n"
                 "ip addr add fd09::1/64 dev rk0 nodad; ip link set rk0 up; ip -n peer addr add 10.9.0.2/24 dev rk1\n"
                 "ip -n peer addr add fd09::2/64 dev rk1 nodad; ip -n peer link set rk1 up\n"
                 "ping -c1 -W3 -q fd09::2 >/dev/null; ping -c1 -W3 -q 10.9.0.2 >/dev/null");
}

// The ICMP bytes of the datagram waiting on raw socket `fd` (IPv4 ones come with the IP header).
std::vector<uint8_t> Read(int fd) {
  uint8_t b[1500];
  const ssize_t n = recv(fd, b, sizeof b, MSG_DONTWAIT);  // loopback has delivered when sendto returns
  const size_t at = (b[0] >> 4) == 4 ? (b[0] & 15) * 4 : 0;
  return n > static_cast<ssize_t>(at) ? std::vector<uint8_t>(b + at, b + n) : std::vector<uint8_t>{};
}

// The Internet checksum as a receiver adds it up, over network-order words.
uint32_t Fold(const std::vector<uint8_t> &b, uint32_t sum) {
  for (size_t i = 0; i + 1 < b.size(); i += 2) sum += b[i] << 8 | b[i + 1];
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return sum;
}

TEST(Ping, RealRepliesAndTheirRequestsOnTheWire) {
  RK_REQUIRE_NAMESPACE();
  ASSERT_EQ(uloop_init(), 0);
  const int raw[2] = {socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP),
                      socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMPV6)};
  AsyncPingContext *a = asyncPing_create(Record<'a'>), *b = asyncPing_create(Record<'b'>);
  ASSERT_TRUE(a && b);
  const uint64_t t0 = GetTickCount();
  ASSERT_EQ(asyncPing4(a, "127.0.0.1"), 36);
  ASSERT_EQ(asyncPing6(a, "::1"), 16);
  for (int v6 : {0, 1}) {  // type, identifier as kept, sequence 0 then 1 across families, tick in host order
    std::vector<uint8_t> m = Read(raw[v6]), want(v6 ? 16 : 36);
    ASSERT_EQ(m.size(), want.size());
    uint64_t tick;
    memcpy(&tick, &m[8], 8);
    EXPECT_TRUE(tick >= t0 && tick <= GetTickCount()) << tick;
    want[0] = v6 ? 128 : 8, want[2] = m[2], want[3] = m[3], want[7] = v6;
    memcpy(&want[4], &a->id, 2), memcpy(&want[8], &tick, 8);
    EXPECT_EQ(ToHex(m), ToHex(want));
    EXPECT_EQ(Fold(m, v6 ? 1 + 1 + 16 + 58 : 0), 0xffffu);  // ICMPv6 with its pseudo-header, ::1 to ::1
    close(raw[v6]);
  }
  // One datagram per read event: the first on the IPv4 socket is the request itself, and it is dropped.
  a->pingSock.cb(&a->pingSock, ULOOP_READ);
  EXPECT_TRUE(replies.empty());

  // The peer forwards nothing: no echo reply from behind it.
  ASSERT_TRUE(Peer() && !system("ip route add 198.51.100.0/24 via 10.9.0.2; ip route add 2001:db8::/64 via fd09::2"));
  const int udp = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  for (const char *to : {"::ffff:127.0.0.1", "::1"}) {  // the kernel's "port unreachable" is no echo reply
    sockaddr_in6 closed_port{AF_INET6, htons(9), 0, {}, 0};
    inet_pton(AF_INET6, to, &closed_port.sin6_addr);
    ASSERT_EQ(sendto(udp, "", 0, 0, reinterpret_cast<sockaddr *>(&closed_port), sizeof closed_port), 0);
  }
  for (const char *to : {"198.51.100.1", "10.9.0.2"}) EXPECT_EQ(asyncPing4(a, to), 36);
  for (const char *to : {"2001:db8::1", "fd09::2"}) EXPECT_EQ(asyncPing6(a, to), 16);
  EXPECT_EQ(asyncPing6(b, "::1"), 16);  // both contexts see every reply, each takes its own
  RunUntil(5, 3000), RunUntil(6, 100);  // five replies, then nothing more
  std::sort(replies.begin(), replies.end());
  EXPECT_EQ(replies, (std::vector<std::string>{"a 10.9.0.2", "a 127.0.0.1", "a ::1", "a fd09::2", "b ::1"}));
  replies.clear();
  asyncPing_destroy(a), asyncPing_destroy(b), close(udp), uloop_done();
}

TEST(Ping, BadInputAndLostSockets) {
  RK_REQUIRE_NAMESPACE();
  SyslogCapture log;
  ASSERT_EQ(uloop_init(), 0);
  AsyncPingContext *c = asyncPing_create(nullptr);  // replies are read and go nowhere
  ASSERT_TRUE(c && log.ok());
  auto check = [&](int ret, int want, std::vector<std::string> lines) {
    EXPECT_EQ(std::make_pair(ret, log.TakeNormalized()), std::make_pair(want, lines));
  };
  const sockaddr family0{};
  const sockaddr_in lo4{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  const sockaddr_in6 lo6{AF_INET6, 0, 0, IN6ADDR_LOOPBACK_INIT, 0};
  check(asyncPing4(c, "::1"), -1, {"E [asyncPing4:N]error ipv4(::1)"});
  check(asyncPing6(c, "127.0.0.1"), -1, {"E [asyncPing6:N]error ipv6(127.0.0.1)"});
  check(asyncPing(c, &family0), -1, {"E [asyncPing:N]error family:0"});
  check(asyncPing4(nullptr, "127.0.0.1") + asyncPing6(c, nullptr) + asyncPing(c, nullptr) + asyncPing_destroy(nullptr),
        -4, {});
  check(asyncPing(c, reinterpret_cast<const sockaddr *>(&lo4)), 36, {});

  // A socket lost to an error (IPv4) or to eof (IPv6): that family's sends fail, the other's go on.
  const int fd4 = c->pingSock.fd, fd6 = c->ping6Sock.fd, null = open("/dev/null", O_RDONLY | O_CLOEXEC);
  c->pingSock.error = true;
  c->pingSock.cb(&c->pingSock, ULOOP_READ);
  check(asyncPing4(c, "127.0.0.1"), -1, {});
  check(asyncPing(c, reinterpret_cast<const sockaddr *>(&lo6)), 16, {});
  c->ping6Sock.eof = true;
  c->ping6Sock.cb(&c->ping6Sock, ULOOP_READ);
  check(asyncPing6(c, "::1"), -1, {});
  EXPECT_TRUE(c->pingSock.fd == -1 && c->ping6Sock.fd == -1);
  EXPECT_TRUE(fcntl(fd4, F_GETFD) == -1 && fcntl(fd6, F_GETFD) == -1) << "both closed";
  EXPECT_TRUE(!c->pingSock.registered && c->ping6Sock.registered) << "eof leaves it registered until destroy";
  ASSERT_TRUE(dup2(null, fd4) == fd4 && dup2(null, fd6) == fd6);  // numbers taken again: destroy must not close them
  EXPECT_EQ(asyncPing_destroy(c), 0);
  EXPECT_TRUE(fcntl(fd4, F_GETFD) != -1 && fcntl(fd6, F_GETFD) != -1);
  close(fd4), close(fd6), close(null);
  uloop_done();
}

std::map<std::string, std::string> got;  // per user data: " <sequence>" per reply, " -" for the millisecond callback
std::vector<double> microseconds;

const char *Tag(AsyncPingContext *c) { return static_cast<const char *>(asyncPing_getUserData(c)); }
void OnReply(AsyncPingContext *c, const char *from, uint16_t seq, uint32_t us) {
  got[Tag(c)] += " " + std::to_string(seq), replies.push_back(std::to_string(seq) + " " + from);
  microseconds.push_back(us);
}
int OnDelay(AsyncPingContext *c, const char *from, uint32_t) {
  return got[Tag(c)] += " -", replies.push_back(std::string("- ") + from), 0;
}

// A context of either kind with `tag` as its user data; the reply callback unless `ms`.
AsyncPingContext *Make(bool unprivileged, const char *tag, bool ms = false) {
  AsyncPingContext *c = unprivileged ? asyncPing_createUnprivileged(OnDelay) : asyncPing_create(OnDelay);
  if (c != nullptr && asyncPing_setReplyCallback(c, ms ? nullptr : OnReply) == 0)
    asyncPing_setUserData(c, const_cast<char *>(tag));
  return c;
}

double Median(std::vector<double> v) {
  return std::sort(v.begin(), v.end()), v.empty() ? 0 : v[v.size() / 2];
}

bool Groups(const std::string &r) { return !system(("sysctl -qw net.ipv4.ping_group_range='" + r + "'").c_str()); }

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
  RunUntil(6, 2000), usleep(100000);
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
