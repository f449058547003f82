// The DNS client on real sockets and the test's own uloop: what needs the
// kernel. Queries on the wire (servers and families in order, exact bytes,
// identifiers), answers from a responder of the test's own (one callback per
// datagram, the cache answering inside the lookup) and events on the
// client's sockets. Debian's dnsmasq answers the same client through rkctl
// and the example daemon (tests/rkctl). Every case runs in private
// namespaces, where port 53 of 127.0.0.1 and ::1 is free.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "dns/cache.h"
#include "dns/query.h"
#include "dns_test.h"
#include "rk_test.h"

namespace rk::test {
namespace {

// ---- a responder of the test's own: one dual-stack socket at [::]:53 ----

struct Query {
  Bytes bytes;
  sockaddr_in6 from{};
  std::string to;  // the local address it was sent to ("127.0.0.1", "::1")
  uint16_t type() const { return bytes.size() >= 4 ? static_cast<uint16_t>(bytes[bytes.size() - 4] << 8 | bytes[bytes.size() - 3]) : 0; }
};

class Server {
 public:
  Server() {
    fd_ = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int off = 0, on = 1;
    setsockopt(fd_, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    setsockopt(fd_, IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on);
    sockaddr_in6 any{};
    any.sin6_family = AF_INET6;
    any.sin6_port = htons(53);
    ok_ = bind(fd_, reinterpret_cast<sockaddr *>(&any), sizeof any) == 0;
  }
  ~Server() { close(fd_); }
  bool ok() const { return ok_; }

  // The next query within `ms`, if any.
  bool Next(Query *q, int ms = 1000) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, ms) != 1) return false;
    uint8_t buf[2048];
    char control[256];
    iovec iov{buf, sizeof buf};
    msghdr msg{};
    msg.msg_name = &q->from;
    msg.msg_namelen = sizeof q->from;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t n = recvmsg(fd_, &msg, 0);
    if (n < 0) return false;
    q->bytes.assign(buf, buf + n);
    // musl's CMSG_NXTHDR compares a size with a pointer difference.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wsign-compare"
    for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level != IPPROTO_IPV6 || c->cmsg_type != IPV6_PKTINFO) continue;
      in6_pktinfo info;
      memcpy(&info, CMSG_DATA(c), sizeof info);
      char text[INET6_ADDRSTRLEN] = "";
      if (IN6_IS_ADDR_V4MAPPED(&info.ipi6_addr))
        inet_ntop(AF_INET, &info.ipi6_addr.s6_addr[12], text, sizeof text);
      else
        inet_ntop(AF_INET6, &info.ipi6_addr, text, sizeof text);
      q->to = text;
    }
#pragma GCC diagnostic pop
    return true;
  }
  std::vector<Query> Take(size_t n) {
    std::vector<Query> out;
    Query q;
    while (out.size() < n && Next(&q)) out.push_back(q);
    return out;
  }
  bool Reply(const Query &q, const Bytes &bytes) {
    return sendto(fd_, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&q.from), sizeof q.from) ==
           static_cast<ssize_t>(bytes.size());
  }
 private:
  int fd_ = -1;
  bool ok_ = false;
};

// ---- the client's callback ----

std::vector<std::string> answers;
bool in_lookup = false;

int Record(AsyncDnsContext *, const char *name, DnsResult *result) {
  answers.push_back((in_lookup ? "inside " : "") + Show(name, result));
  return 0;
}

using ContextPtr = std::unique_ptr<AsyncDnsContext, int (*)(AsyncDnsContext *)>;

// Runs the loop until `n` answers are in or `ms` have passed.
bool RunUntil(size_t n, int ms = 1000) {
  uloop_timeout guard{};
  guard.cb = [](uloop_timeout *) { uloop_end(); };
  uloop_timeout_set(&guard, ms);
  while (answers.size() < n && guard.pending) uloop_run_timeout(10);
  uloop_timeout_cancel(&guard);
  return answers.size() >= n;
}

int Lookup(AsyncDnsContext *c, const char *name) {
  in_lookup = true;
  int ret = asyncLookup(c, name);
  in_lookup = false;
  return ret;
}

// The query for "aaa.bbbbbbb.ccc": the identifier's bytes as the context
// keeps them (network order), then the fixed header and the question.
Bytes Query33(uint16_t id_network, uint16_t type) {
  Packet p;
  p.raw(Bytes(reinterpret_cast<const uint8_t *>(&id_network), reinterpret_cast<const uint8_t *>(&id_network) + 2));
  return p.u16(0x0100).u16(1).u16(0).u16(0).u16(0).raw(Labels("aaa.bbbbbbb.ccc")).u16(type).u16(1).b;
}

class DnsE2e : public ::testing::Test {
 protected:
  void SetUp() override {
    RK_REQUIRE_NAMESPACE();
    ASSERT_EQ(uloop_init(), 0);
    answers.clear();
    ctx_.reset(asyncDns_create(Record));
    ASSERT_TRUE(ctx_);
  }
  void TearDown() override {
    ctx_.reset();
    uloop_done();
  }
  AsyncDnsContext *c() { return ctx_.get(); }
  // A lookup of "aaa.bbbbbbb.ccc" at 127.0.0.1: its two queries.
  std::vector<Query> Ask(Server &server) {
    EXPECT_EQ(asyncDns_AddServer(c(), "127.0.0.1"), 0);
    EXPECT_EQ(Lookup(c(), "aaa.bbbbbbb.ccc"), 0);
    return server.Take(2);
  }
  ContextPtr ctx_{nullptr, asyncDns_destroy};
};

TEST_F(DnsE2e, QueriesGoToEveryServerOfBothListsInOrder) {
  Server server;
  ASSERT_TRUE(server.ok());
  // The IPv6 list reaches IPv4 addresses too, as v4-mapped ones.
  const std::vector<std::string> v4 = {"127.0.0.3", "127.0.0.1", "127.0.0.2"};
  const std::vector<std::string> v6 = {"::ffff:127.0.0.6", "::1", "::ffff:127.0.0.5"};
  for (const auto &s : v4) ASSERT_EQ(asyncDns_AddServer(c(), s.c_str()), 0);
  for (const auto &s : v6) ASSERT_EQ(asyncDns_AddServer6(c(), s.c_str()), 0);
  ASSERT_EQ(asyncDns_AddServer(c(), "127.0.0.1"), 0);  // already there: still one

  ASSERT_EQ(Lookup(c(), "aaa.bbbbbbb.ccc"), 0);
  std::vector<std::string> got, want;
  for (const Query &q : server.Take(13)) {
    got.push_back(q.to + (q.type() == 1 ? " A" : " AAAA"));
    EXPECT_EQ(ToHex(q.bytes), ToHex(Query33(c()->id, q.type() == 1 ? 1 : 28)));
  }
  for (const char *type : {" A", " AAAA"}) {
    for (const auto &s : v4) want.push_back(s + type);
    for (const auto &s : v6) want.push_back((s.rfind("::ffff:", 0) == 0 ? s.substr(7) : s) + type);
  }
  EXPECT_EQ(got, want);
  EXPECT_TRUE(answers.empty());  // nothing waits for an answer
}

TEST_F(DnsE2e, ServersAreAddedOnceAndLogged) {
  SyslogCapture log;
  ASSERT_TRUE(log.ok());
  using Add = int (*)(AsyncDnsContext *, const char *);
  const std::tuple<Add, const char *, int, std::vector<std::string>> rows[] = {
      {asyncDns_AddServer, "127.0.0.1", 0, {"I [asyncDns_AddServer:N]add 127.0.0.1"}},
      {asyncDns_AddServer, "127.0.0.1", 0, {}},
      {asyncDns_AddServer, "::1", -1, {"E [asyncDns_AddServer:N]szServer=::1"}},
      {asyncDns_AddServer6, "::1", 0, {"I [asyncDns_AddServer6:N]add ::1"}},
      {asyncDns_AddServer6, "::1", 0, {}},
      {asyncDns_AddServer6, "127.0.0.1", -1, {"E [asyncDns_AddServer6:N]127.0.0.1 is not ipv6"}},
  };
  for (const auto &[add, text, ret, lines] : rows) {
    EXPECT_EQ(add(c(), text), ret) << text;
    EXPECT_EQ(log.TakeNormalized(), lines) << text;
  }
  EXPECT_EQ(asyncDns_AddServer(c(), nullptr), -1);
  EXPECT_EQ(log.Take().size(), 1u);
  EXPECT_EQ(asyncDns_AddServer6(nullptr, "::1"), -1);
  EXPECT_EQ(asyncLookupPtr(c(), nullptr), -1);
  EXPECT_EQ(asyncDns_destroy(nullptr), 0);
  asyncDns_cleanServer(c());
  asyncDns_cleanServer6(c());
  EXPECT_TRUE(list_empty(&c()->servers) && list_empty(&c()->servers6));
}

TEST_F(DnsE2e, NoSocketNoContextButTheIdentifierSteps) {
  SyslogCapture log;
  ASSERT_TRUE(log.ok());
  const uint16_t before = ntohs(c()->id);
  EXPECT_EQ(asyncDns_AddServer(c(), "no address"), -1);  // syslog connects while it still can
  log.Take();
  rlimit saved;
  getrlimit(RLIMIT_NOFILE, &saved);
  const int lowest = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(lowest);
  for (int free_fds : {0, 1}) {  // no IPv4 socket; then no IPv6 socket
    rlimit r = saved;
    r.rlim_cur = static_cast<rlim_t>(lowest + free_fds);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &r), 0);
    EXPECT_EQ(asyncDns_create(nullptr), nullptr);
    setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(fcntl(lowest, F_GETFD), -1) << "the IPv4 socket is closed again";
  }
  EXPECT_EQ(log.TakeNormalized(), (std::vector<std::string>{
                                      "E [createDnsSock:N]error create sock", "E [asyncDns_create:N]error dnsSock",
                                      "E [createDnsSock:N]error create sock", "E [asyncDns_create:N]error dns6Sock"}));
  ContextPtr after(asyncDns_create(nullptr), asyncDns_destroy);
  ASSERT_TRUE(after);
  EXPECT_EQ(ntohs(after->id), static_cast<uint16_t>(before + 3));
}

TEST(DnsIdentifiers, ProcessIdThenOneMorePerContext) {
  // A fresh process: its first context carries getpid(), the next one more.
  EXPECT_EQ(RunInChild([] {
              AsyncDnsContext *a = asyncDns_create(nullptr);
              AsyncDnsContext *b = asyncDns_create(nullptr);
              bool ok = a && b && ntohs(a->id) == static_cast<uint16_t>(getpid()) &&
                        ntohs(b->id) == static_cast<uint16_t>(getpid() + 1);
              asyncDns_destroy(a);
              asyncDns_destroy(b);
              return ok ? 0 : 1;
            }),
            0);
}

TEST_F(DnsE2e, OneCallbackPerDatagramThenTheCacheAnswersInsideTheLookup) {
  Server server;
  ASSERT_TRUE(server.ok());
  std::vector<Query> q = Ask(server);
  ASSERT_EQ(q.size(), 2u);
  const uint16_t id = ntohs(c()->id);
  ASSERT_TRUE(server.Reply(q[0], Response(id, "aaa.bbbbbbb.ccc", 1).answer(1, 300, V4("192.0.2.1")).b));
  ASSERT_TRUE(server.Reply(q[1], Response(id, "aaa.bbbbbbb.ccc", 1, 28).answer(28, 300, V6("2001:db8::1")).b));
  ASSERT_TRUE(RunUntil(2));
  EXPECT_EQ(answers, (std::vector<std::string>{"aaa.bbbbbbb.ccc: 192.0.2.1", "aaa.bbbbbbb.ccc: 2001:db8::1"}));

  answers.clear();
  ASSERT_EQ(Lookup(c(), "aaa.bbbbbbb.ccc"), 0);
  EXPECT_EQ(answers, std::vector<std::string>{"inside aaa.bbbbbbb.ccc: 2001:db8::1 192.0.2.1"});
  Query none;
  EXPECT_FALSE(server.Next(&none, 50));  // nothing was sent

  // Without a callback nobody could take a cached answer: the lookup asks.
  ContextPtr quiet(asyncDns_create(nullptr), asyncDns_destroy);
  ASSERT_EQ(asyncDns_AddServer(quiet.get(), "127.0.0.1"), 0);
  const DnsAddressEntry cached = Entry("192.0.2.1");
  DnsCache_Put(quiet->cache, "aaa.bbbbbbb.ccc", &cached, 300);
  ASSERT_EQ(asyncLookup(quiet.get(), "aaa.bbbbbbb.ccc"), 0);
  EXPECT_EQ(server.Take(2).size(), 2u);

  EXPECT_EQ(asyncDns_setMinDnsCache(c(), 7), 0);
  EXPECT_EQ(c()->cache->minCacheTime, 7u);
  EXPECT_EQ(asyncDns_cleanCache(c()), 0);  // forgotten: the next lookup asks again
  answers.clear();
  ASSERT_EQ(Lookup(c(), "aaa.bbbbbbb.ccc"), 0);
  EXPECT_EQ(server.Take(2).size(), 2u);
  EXPECT_TRUE(answers.empty());
}

TEST_F(DnsE2e, OneDatagramPerReadEventAndTheRegistrationRenewed) {
  Server server;
  ASSERT_TRUE(server.ok());
  std::vector<Query> q = Ask(server);
  ASSERT_EQ(q.size(), 2u);
  for (const char *a : {"192.0.2.1", "192.0.2.2", "192.0.2.3"})
    ASSERT_TRUE(server.Reply(q[0], Response(ntohs(c()->id), "aaa.bbbbbbb.ccc", 1).answer(1, 0, V4(a)).b));
  c()->dnsSock.cb(&c()->dnsSock, ULOOP_READ);
  EXPECT_EQ(answers, std::vector<std::string>{"aaa.bbbbbbb.ccc: 192.0.2.1"});
  c()->dnsSock.cb(&c()->dnsSock, ULOOP_WRITE);  // not a read event: nothing read
  EXPECT_EQ(answers.size(), 1u);
  ASSERT_TRUE(RunUntil(3));
  EXPECT_EQ(answers.back(), "aaa.bbbbbbb.ccc: 192.0.2.3");
  EXPECT_TRUE(c()->dnsSock.registered);
}

TEST_F(DnsE2e, ErrorOrEofClosesThatFamilysSocketForGood) {
  // An error on the IPv4 socket, or eof on the IPv6 one; `left`: the local
  // address the next queries reach.
  const struct { bool v4, eof; const char *left; } rows[] = {{true, false, "::1"}, {false, true, "127.0.0.1"}};
  for (const auto &row : rows) {
    ctx_.reset(asyncDns_create(Record));
    ASSERT_TRUE(ctx_);
    ASSERT_EQ(asyncDns_AddServer(c(), "127.0.0.1"), 0);
    ASSERT_EQ(asyncDns_AddServer6(c(), "::1"), 0);
    uloop_fd *sock = row.v4 ? &c()->dnsSock : &c()->dns6Sock;
    const int fd = sock->fd;
    (row.eof ? sock->eof : sock->error) = true;
    sock->cb(sock, ULOOP_READ);
    EXPECT_EQ(sock->fd, -1) << row.left;
    EXPECT_EQ(sock->registered, row.eof) << "no uloop_fd_delete on eof";
    // The number is free again: take it, and destroy must not close it.
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC), other = fd;
    ASSERT_TRUE(null == fd || dup2(null, fd) == fd);
    if (null != fd) close(null);

    Server server;
    ASSERT_TRUE(server.ok());
    ASSERT_EQ(Lookup(c(), "aaa.bbbbbbb.ccc"), 0);  // the other family goes on
    std::vector<Query> q = server.Take(3);
    ASSERT_EQ(q.size(), 2u);
    EXPECT_EQ(q[0].to + " " + q[1].to, std::string(row.left) + " " + row.left);
    const uint8_t none[1] = {0};
    EXPECT_EQ((row.v4 ? rk::dns::sendDnsQuery : rk::dns::sendDnsQuery6)(c(), none, 1), -1);
    EXPECT_EQ((row.v4 ? rk::dns::sendDnsQuery6 : rk::dns::sendDnsQuery)(c(), none, 1), 0);
    EXPECT_EQ(rk::dns::sendDnsQuery(nullptr, none, 1), -1);
    ctx_.reset();
    EXPECT_NE(fcntl(other, F_GETFD), -1);
    close(other);
  }
}

TEST_F(DnsE2e, SocketsAreCloseOnExecWithTheirReceiveBuffer) {
  for (int fd : {c()->dnsSock.fd, c()->dns6Sock.fd}) {
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    int rcvbuf = 0;
    socklen_t len = sizeof rcvbuf;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, &len), 0);
    EXPECT_EQ(rcvbuf, 2 * 131072);  // the kernel doubles what was asked for
  }
  const int fd4 = c()->dnsSock.fd, fd6 = c()->dns6Sock.fd;
  ctx_.reset();
  EXPECT_EQ(fcntl(fd4, F_GETFD), -1);
  EXPECT_EQ(fcntl(fd6, F_GETFD), -1);
}

}  // namespace
}  // namespace rk::test
