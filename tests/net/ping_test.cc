// The ping client on raw sockets and the test's own uloop, inside private
// namespaces: the kernel answers for 127.0.0.1, ::1 and a peer namespace one
// veth hop away, and the test's own raw sockets see the requests on the wire.
#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>

#include <routerkit/async_ping.h>
#include <routerkit/log.h>

#include "rk_test.h"

namespace rk::test {
namespace {

std::vector<std::string> replies;  // "<tag> <address>", and " late" for a delay of 3 s or more
template <char tag>
int Record(AsyncPingContext *, const char *from, uint32_t delay) {
  replies.push_back(tag + (" " + std::string(from)) + (delay < 3000 ? "" : " late"));
  return 0;
}

void RunUntil(size_t n, int ms) {
  for (uint64_t end = GetTickCount() + ms; replies.size() < n && GetTickCount() < end;) uloop_run_timeout(10);
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
  const int fds = OpenFdCount();
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

  ASSERT_EQ(system("set -e; ip netns add peer; ip link add rk0 type veth peer name rk1 netns peer\n"
                   "ip addr add 10.9.0.1/24 dev rk0; ip addr add fd09::1/64 dev rk0 nodad; ip link set rk0 up\n"
                   "ip -n peer addr add 10.9.0.2/24 dev rk1; ip -n peer addr add fd09::2/64 dev rk1 nodad\n"
                   "ip -n peer link set rk1 up; ip route add 198.51.100.0/24 via 10.9.0.2\n"
                   "ip route add 2001:db8::/64 via fd09::2  # the peer forwards nothing: no echo reply"),
            0);
  const int udp = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  for (const char *to : {"::ffff:127.0.0.1", "::1"}) {  // the kernel's "port unreachable" is no echo reply
    sockaddr_in6 closed_port{AF_INET6, htons(9), 0, {}, 0};
    inet_pton(AF_INET6, to, &closed_port.sin6_addr);
    ASSERT_EQ(sendto(udp, "", 0, 0, reinterpret_cast<sockaddr *>(&closed_port), sizeof closed_port), 0);
  }
  for (const char *to : {"198.51.100.1", "10.9.0.2"}) EXPECT_EQ(asyncPing4(a, to), 36);
  for (const char *to : {"2001:db8::1", "fd09::2"}) EXPECT_EQ(asyncPing6(a, to), 16);
  EXPECT_EQ(asyncPing6(b, "::1"), 16);  // both contexts see every reply, each takes its own
  RunUntil(5, 3000);  // the peer's first reply may wait for neighbour discovery
  RunUntil(6, 100);   // and nothing more comes
  std::sort(replies.begin(), replies.end());
  EXPECT_EQ(replies, (std::vector<std::string>{"a 10.9.0.2", "a 127.0.0.1", "a ::1", "a fd09::2", "b ::1"}));
  asyncPing_destroy(a), asyncPing_destroy(b), close(udp);
  uloop_done();
  EXPECT_EQ(OpenFdCount(), fds);
}

TEST(Ping, BadInputAndLostSockets) {
  RK_REQUIRE_NAMESPACE();
  SyslogCapture log;
  ASSERT_EQ(uloop_init(), 0);
  AsyncPingContext *c = asyncPing_create(nullptr);  // replies are read and go nowhere
  ASSERT_TRUE(c && log.ok());
  auto check = [&](int ret, int want, std::vector<std::string> lines) {
    EXPECT_EQ(ret, want);
    EXPECT_EQ(log.TakeNormalized(), lines);
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

}  // namespace
}  // namespace rk::test
