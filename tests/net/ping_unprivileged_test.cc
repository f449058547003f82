// The ping client's opt-in entry points inside private namespaces:
// unprivileged ICMP sockets as a user whose group is allowed or not, raw and
// unprivileged contexts side by side, the reply callback's sequence numbers
// and microseconds (beside iputils ping), and the caller's pointer.
#include <arpa/inet.h>
#include <grp.h>
#include <time.h>
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
std::vector<uint32_t> microseconds;

const std::string &Tag(AsyncPingContext *c) { return *static_cast<const std::string *>(asyncPing_getUserData(c)); }
void OnReply(AsyncPingContext *c, const char *from, uint16_t seq, uint32_t us) {
  got[Tag(c)] += " " + std::to_string(seq);
  replies.push_back(std::to_string(seq) + " " + from), microseconds.push_back(us);
}
int OnDelay(AsyncPingContext *c, const char *from, uint32_t) {
  got[Tag(c)] += " -", replies.push_back(std::string("- ") + from);
  return 0;
}

// A context of either kind with `tag` as its user data; the reply callback unless `ms`.
AsyncPingContext *Make(bool unprivileged, const std::string &tag, bool ms = false) {
  AsyncPingContext *c = unprivileged ? asyncPing_createUnprivileged(OnDelay) : asyncPing_create(OnDelay);
  if (c != nullptr && asyncPing_setReplyCallback(c, ms ? nullptr : OnReply) == 0)
    asyncPing_setUserData(c, const_cast<std::string *>(&tag));
  return c;
}

void RunUntil(size_t n, int ms) {
  for (uint64_t end = GetTickCount() + ms; replies.size() < n && GetTickCount() < end;) uloop_run_timeout(10);
}

uint64_t Microseconds() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000000ull + ts.tv_nsec / 1000;
}

bool Sh(const std::string &command) { return system(command.c_str()) == 0; }
bool Peer() {  // 10.9.0.2 and fd09::2 in a namespace one veth hop away
  return Sh("set -e; ip netns add peer; ip link add rk0 type veth peer name rk1 netns peer\n"
            "ip addr add 10.9.0.1/24 dev rk0; ip addr add fd09::1/64 dev rk0 nodad; ip link set rk0 up\n"
            "ip -n peer addr add 10.9.0.2/24 dev rk1; ip -n peer addr add fd09::2/64 dev rk1 nodad\n"
            "ip -n peer link set rk1 up; ping -c1 -W3 -q fd09::2 >/dev/null; ping -c1 -W3 -q 10.9.0.2 >/dev/null");
}

TEST(PingUnprivileged, AsAUserOfAnAllowedGroupAndRefusedOtherwise) {
  RK_REQUIRE_NAMESPACE();
  ASSERT_TRUE(Peer());
  const struct { const char *range, *want; } rows[] = {
      {"4242 4242", "120 0 127.0.0.1|1 ::1|2 10.9.0.2|3 fd09::2|"},  // 24 bytes for IPv6 with the reply callback
      {"4000 4241", "NULL errno 13"},                                // EACCES
  };
  for (const auto &row : rows) {
    ASSERT_TRUE(Sh(std::string("sysctl -qw net.ipv4.ping_group_range='") + row.range + "'"));
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    const int code = RunInChild([&] {
      // No capability is left after setuid: raw sockets are refused.
      if (setgroups(0, nullptr) || setgid(4242) || setuid(4242) || asyncPing_create(nullptr) || uloop_init()) return 1;
      const std::string tag = "u";
      AsyncPingContext *c = Make(true, tag);
      std::string text = c ? "" : "NULL errno " + std::to_string(errno);
      if (c) {
        const int sent = asyncPing4(c, "127.0.0.1") + asyncPing6(c, "::1") + asyncPing4(c, "10.9.0.2") +
                         asyncPing6(c, "fd09::2");
        RunUntil(4, 3000), RunUntil(5, 100);
        std::sort(replies.begin(), replies.end());
        text = std::to_string(sent) + " ";
        for (const std::string &r : replies) text += r + "|";
      }
      _exit(write(out[1], text.data(), text.size()) < 0);  // the coverage counters are not this user's to write
    });
    char text[256] = "";
    close(out[1]);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(std::string(text, std::max<ssize_t>(read(out[0], text, sizeof text), 0)), row.want) << row.range;
    close(out[0]);
  }
}

// The next echo request on raw socket `fd` ({} when none waits), and an echo reply to it.
std::vector<uint8_t> Request(int fd) {
  for (uint8_t b[1500];;) {
    const ssize_t n = recv(fd, b, sizeof b, MSG_DONTWAIT);
    const size_t at = (b[0] & 15) * 4;
    if (n <= 0) return {};
    if (n > static_cast<ssize_t>(at) && b[at] == 8) return std::vector<uint8_t>(b + at, b + n);
  }
}
void Answer(int fd, std::vector<uint8_t> m) {
  uint32_t sum = 0;
  m[0] = m[2] = m[3] = 0;
  for (size_t i = 0; i + 1 < m.size(); i += 2) sum += m[i] << 8 | m[i + 1];
  sum = ~((sum & 0xffff) + (sum >> 16));
  m[2] = static_cast<uint8_t>(sum >> 8), m[3] = static_cast<uint8_t>(sum);
  const sockaddr_in lo{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  sendto(fd, m.data(), m.size(), 0, reinterpret_cast<const sockaddr *>(&lo), sizeof lo);
}

TEST(PingUnprivileged, SideBySideEachTakesItsOwnRepliesWithDuplicatesAndLateOnesBySequence) {
  RK_REQUIRE_NAMESPACE();
  // The test answers instead of the kernel, in an order of its own.
  ASSERT_TRUE(Sh("sysctl -qw net.ipv4.ping_group_range='0 0' net.ipv4.icmp_echo_ignore_all=1"));
  SyslogCapture log;  // an unprivileged ICMPv6 socket gets no filter: nothing to log
  const int fds = OpenFdCount(), responder = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
  ASSERT_EQ(uloop_init(), 0);
  const std::string tags[4] = {"raw", "raw ms", "unprivileged", "unprivileged ms"};
  AsyncPingContext *c[4] = {Make(false, tags[0]), Make(false, tags[1], true), Make(true, tags[2]),
                            Make(true, tags[3], true)};
  ASSERT_TRUE(c[0] && c[1] && c[2] && c[3]);
  const uint64_t t0 = Microseconds();
  std::vector<uint8_t> request[6];
  for (int i = 0, r = 0; i < 4; i++)
    for (int n = 0; n < (i % 2 ? 1 : 2); n++, r++) {  // two requests from each context with the reply callback
      ASSERT_EQ(asyncPing4(c[i], "127.0.0.1"), 36);
      request[r] = Request(responder);
      uint64_t sent, tick;
      memcpy(&sent, &request[r].at(16), 8), memcpy(&tick, &request[r][8], 8);
      EXPECT_EQ(request[r][7], n) << tags[i];
      EXPECT_TRUE(i % 2 ? sent == 0 : sent >= t0 && sent <= Microseconds()) << tags[i] << " " << sent;
      EXPECT_TRUE(tick >= t0 / 1000 && tick <= GetTickCount()) << tags[i] << " " << tick;
    }
  for (int r : {1, 1, 2, 4, 4, 5}) Answer(responder, request[r]);  // second requests twice, first ones late
  RunUntil(6, 2000);
  usleep(100000);
  for (int r : {0, 3}) Answer(responder, request[r]);
  RunUntil(8, 2000), RunUntil(9, 100);
  EXPECT_EQ(got, (std::map<std::string, std::string>{
                     {"raw", " 1 1 0"}, {"raw ms", " -"}, {"unprivileged", " 1 1 0"}, {"unprivileged ms", " -"}}));
  ASSERT_EQ(microseconds.size(), 6u);
  std::sort(microseconds.begin(), microseconds.end());
  EXPECT_TRUE(microseconds[0] > 0 && microseconds[3] < 100000 && microseconds[4] >= 100000) << microseconds[4];
  for (AsyncPingContext *p : c) EXPECT_EQ(asyncPing_destroy(p), 0);
  close(responder), uloop_done();
  EXPECT_EQ(OpenFdCount(), fds);
  EXPECT_EQ(log.TakeNormalized(), std::vector<std::string>{});
  EXPECT_TRUE(asyncPing_setReplyCallback(nullptr, OnReply) == -1 && asyncPing_getUserData(nullptr) == nullptr);
  asyncPing_setUserData(nullptr, nullptr);
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

// The clock arithmetic against an outside measure of the same path in the
// same run: iputils ping's median to the veth peer. The machine's load moves
// both; a measure that misses the bound is taken again, twice at most.
TEST(PingUnprivileged, MicrosecondsAgreeWithIputils) {
  RK_REQUIRE_NAMESPACE();
  ASSERT_TRUE(Peer() && Sh("sysctl -qw net.ipv4.ping_group_range='0 0'"));
  ASSERT_EQ(uloop_init(), 0);
  const double bound = getenv("RK_EMULATED") ? 1000 : 50;  // under qemu-user: the emulator's own time on each side
  const int count = 21;
  for (bool unprivileged : {false, true}) {
    AsyncPingContext *c = Make(unprivileged, "peer");
    ASSERT_TRUE(c);
    double ours = 0, theirs = -1000;
    for (int attempt = 0; attempt < 3 && !(ours > 0 && std::abs(ours - theirs) <= bound); attempt++) {
      replies.clear(), microseconds.clear();
      for (int i = 0; i < count; i++, usleep(10000)) asyncPing4(c, "10.9.0.2"), RunUntil(i + 1, 1000);
      ours = Median(std::vector<double>(microseconds.begin(), microseconds.end()));
      std::vector<double> times;
      if (FILE *p = popen(("ping -n -c " + std::to_string(count) + " -i 0.01 10.9.0.2").c_str(), "r")) {
        for (char line[256]; fgets(line, sizeof line, p);)
          if (const char *t = strstr(line, "time=")) times.push_back(atof(t + 5) * 1000);
        pclose(p);
      }
      theirs = Median(times);
    }
    EXPECT_TRUE(ours > 0 && std::abs(ours - theirs) <= bound)
        << (unprivileged ? "unprivileged " : "raw ") << ours << " us, iputils " << theirs << " us";
    asyncPing_destroy(c);
  }
  uloop_done();
}

}  // namespace
}  // namespace rk::test
