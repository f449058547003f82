// The DNS client on real sockets and the test's own uloop: what needs the
// kernel. Queries on the wire (servers and families in order, exact bytes,
// identifiers), answers from a responder of the test's own (one callback per
// datagram, the cache answering inside the lookup) and events on the
// client's sockets. Debian's dnsmasq answers the same client through rkctl
// and the example daemon (tests/rkctl). Every case runs in private
// namespaces, where port 53 of 127.0.0.1 and ::1 is free.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <optional>
#include <tuple>

#include <gtest/gtest.h>

#include "dns/cache.h"
#include "dns/query.h"
#include "dns_responder.h"
#include "dns_test.h"
#include "rk_test.h"
#include <routerkit/log.h>

namespace rk::test {
namespace {

using Strings = std::vector<std::string>;
Strings answers;  // "inside " for an answer given during asyncLookup
bool in_lookup = false;
int Record(AsyncDnsContext *, const char *name, DnsResult *result) {
  return answers.push_back((in_lookup ? "inside " : "") + Show(name, result)), 0;
}

using ContextPtr = std::unique_ptr<AsyncDnsContext, int (*)(AsyncDnsContext *)>;

// Runs the loop until `n` answers are in or `ms` have passed.
bool RunUntil(size_t n, int ms = 1000) {
  for (uint64_t end = GetTickCount() + ms; answers.size() < n && GetTickCount() < end;) uloop_run_timeout(10);
  return answers.size() >= n;
}

int Lookup(AsyncDnsContext *c, const char *name) {
  in_lookup = true;
  const int ret = asyncLookup(c, name);
  return in_lookup = false, ret;
}

class DnsE2e : public ::testing::Test {
 protected:
  void SetUp() override {
    RK_REQUIRE_NAMESPACE();
    ASSERT_EQ(uloop_init(), 0);
    answers.clear();
    ctx_.reset(asyncDns_create(Record));
    server_.emplace();  // port 53: only in the namespace
    ASSERT_TRUE(ctx_ && server_->ok());
  }
  void TearDown() override { ctx_.reset(), uloop_done(); }
  AsyncDnsContext *c() { return ctx_.get(); }
  // A lookup of "aaa.bbbbbbb.ccc" at 127.0.0.1: its two queries.
  std::vector<DnsQuery> Ask() {
    EXPECT_EQ(asyncDns_AddServer(c(), "127.0.0.1"), 0);
    EXPECT_EQ(Lookup(c(), "aaa.bbbbbbb.ccc"), 0);
    return server_->Take(2);
  }
  std::optional<DnsResponder> server_;
  ContextPtr ctx_{nullptr, asyncDns_destroy};
};

TEST_F(DnsE2e, QueriesGoToEveryServerOfBothListsInOrder) {
  // The IPv6 list reaches IPv4 addresses too, as v4-mapped ones.
  const std::vector<std::string> v4 = {"127.0.0.3", "127.0.0.1", "127.0.0.2"};
  const std::vector<std::string> v6 = {"::ffff:127.0.0.6", "::1", "::ffff:127.0.0.5"};
  for (const auto &s : v4) ASSERT_EQ(asyncDns_AddServer(c(), s.c_str()), 0);
  for (const auto &s : v6) ASSERT_EQ(asyncDns_AddServer6(c(), s.c_str()), 0);
  ASSERT_EQ(asyncDns_AddServer(c(), "127.0.0.1"), 0);  // already there: still one

  ASSERT_EQ(Lookup(c(), "aaa.bbbbbbb.ccc"), 0);
  Strings got, want;
  for (const DnsQuery &q : server_->Take(13)) {
    got.push_back(q.to + (q.type() == 1 ? " A" : " AAAA"));
    // The identifier's bytes as the context keeps them (network order), recursion desired, and the question.
    Packet want = Header(ntohs(c()->id), 1, 0, 0x0100).raw(Labels("aaa.bbbbbbb.ccc"));
    EXPECT_EQ(ToHex(q.bytes), ToHex(want.u16(q.type() == 1 ? 1 : 28).u16(1).b));
  }
  for (const char *type : {" A", " AAAA"}) {
    for (const auto &s : v4) want.push_back(s + type);
    for (const auto &s : v6) want.push_back((s.rfind("::ffff:", 0) == 0 ? s.substr(7) : s) + type);
  }
  EXPECT_EQ(got, want);
  EXPECT_TRUE(answers.empty());  // nothing waits for an answer
  // A pointer query goes to the same six servers, once each.
  sockaddr_in addr{};
  addr.sin_addr.s_addr = htonl(0x01020304);
  ASSERT_EQ(asyncLookupPtr(c(), &addr), 0);
  const Packet ptr = Header(ntohs(c()->id), 1, 0, 0x0100).raw(Labels("4.3.2.1.in-addr.arpa")).u16(12).u16(1);
  Strings sent;
  for (const DnsQuery &q : server_->Take(7)) sent.push_back(ToHex(q.bytes));
  EXPECT_EQ(sent, Strings(6, ToHex(ptr.b)));
}

TEST_F(DnsE2e, ServersAreAddedOnceAndLogged) {
  SyslogCapture log;
  ASSERT_TRUE(log.ok());
  using Add = int (*)(AsyncDnsContext *, const char *);
  const std::tuple<Add, const char *, int, Strings> rows[] = {
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
  EXPECT_EQ(asyncDns_AddServer6(nullptr, "::1") + asyncLookupPtr(c(), nullptr) + asyncDns_destroy(nullptr), -2);
  asyncDns_cleanServer(c()), asyncDns_cleanServer6(c());
  EXPECT_TRUE(list_empty(&c()->servers) && list_empty(&c()->servers6));
}

TEST(DnsIdentifiers, ProcessIdThenOneMorePerContextEvenWithoutSockets) {
  // A fresh process: its first context carries getpid(), the next one more,
  // though it fails for want of descriptors; the third one more again.
  EXPECT_EQ(RunInChild([] {
              ContextPtr a(asyncDns_create(nullptr), asyncDns_destroy);
              rlimit saved, none;
              getrlimit(RLIMIT_NOFILE, &saved), none = {0, saved.rlim_max};
              const bool failed = !setrlimit(RLIMIT_NOFILE, &none) && !asyncDns_create(nullptr);
              ContextPtr b((setrlimit(RLIMIT_NOFILE, &saved), asyncDns_create(nullptr)), asyncDns_destroy);
              const uint16_t pid = static_cast<uint16_t>(getpid());
              return failed && a && b && ntohs(a->id) == pid && ntohs(b->id) == static_cast<uint16_t>(pid + 2) ? 0 : 1;
            }), 0);
}

TEST_F(DnsE2e, OneCallbackPerDatagramThenTheCacheAnswersInsideTheLookup) {
  std::vector<DnsQuery> q = Ask();
  ASSERT_EQ(q.size(), 2u);
  const uint16_t id = ntohs(c()->id);
  ASSERT_TRUE(server_->Reply(q[0], Response(id, "aaa.bbbbbbb.ccc", 1).a("192.0.2.1", 300).b));
  ASSERT_TRUE(server_->Reply(q[1], Response(id, "aaa.bbbbbbb.ccc", 1, 28).aaaa("2001:db8::1", 300).b));
  ASSERT_TRUE(RunUntil(2));
  EXPECT_EQ(answers, (Strings{"aaa.bbbbbbb.ccc: 192.0.2.1", "aaa.bbbbbbb.ccc: 2001:db8::1"}));

  answers.clear();
  ASSERT_EQ(Lookup(c(), "aaa.bbbbbbb.ccc"), 0);
  EXPECT_EQ(answers, Strings{"inside aaa.bbbbbbb.ccc: 2001:db8::1 192.0.2.1"});
  DnsQuery none;
  EXPECT_FALSE(server_->Next(&none, 50));  // nothing was sent

  // Without a callback nobody could take a cached answer: the lookup asks.
  ContextPtr quiet(asyncDns_create(nullptr), asyncDns_destroy);
  ASSERT_EQ(asyncDns_AddServer(quiet.get(), "127.0.0.1"), 0);
  const DnsAddressEntry cached = Entry("192.0.2.1");
  DnsCache_Put(quiet->cache, "aaa.bbbbbbb.ccc", &cached, 300);
  ASSERT_EQ(asyncLookup(quiet.get(), "aaa.bbbbbbb.ccc"), 0);
  EXPECT_EQ(server_->Take(2).size(), 2u);

  EXPECT_EQ(asyncDns_setMinDnsCache(c(), 7), 0);
  EXPECT_EQ(c()->cache->minCacheTime, 7u);
  EXPECT_EQ(asyncDns_cleanCache(c()), 0);  // forgotten: the next lookup asks again
  answers.clear();
  ASSERT_EQ(Lookup(c(), "aaa.bbbbbbb.ccc"), 0);
  EXPECT_EQ(server_->Take(2).size(), 2u);
  EXPECT_TRUE(answers.empty());
}

TEST_F(DnsE2e, OneDatagramPerReadEventAndTheRegistrationRenewed) {
  std::vector<DnsQuery> q = Ask();
  ASSERT_EQ(q.size(), 2u);
  for (const char *a : {"192.0.2.1", "192.0.2.2", "192.0.2.3"})
    ASSERT_TRUE(server_->Reply(q[0], Response(ntohs(c()->id), "aaa.bbbbbbb.ccc", 1).a(a, 0).b));
  c()->dnsSock.cb(&c()->dnsSock, ULOOP_READ);
  EXPECT_EQ(answers, Strings{"aaa.bbbbbbb.ccc: 192.0.2.1"});
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
    ASSERT_EQ(asyncDns_AddServer(c(), "127.0.0.1") + asyncDns_AddServer6(c(), "::1"), 0);
    uloop_fd *sock = row.v4 ? &c()->dnsSock : &c()->dns6Sock;
    const int fd = sock->fd;
    (row.eof ? sock->eof : sock->error) = true;
    sock->cb(sock, ULOOP_READ);
    EXPECT_EQ(sock->fd, -1) << row.left;
    EXPECT_EQ(sock->registered, row.eof) << "no uloop_fd_delete on eof";
    // The number is free again: take it, and destroy must not close it.
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_TRUE(null == fd || dup2(null, fd) == fd);
    if (null != fd) close(null);
    ASSERT_EQ(Lookup(c(), "aaa.bbbbbbb.ccc"), 0);  // the other family goes on
    std::vector<DnsQuery> q = server_->Take(3);
    ASSERT_EQ(q.size(), 2u);
    EXPECT_EQ(q[0].to + " " + q[1].to, std::string(row.left) + " " + row.left);
    const uint8_t none[1] = {0};
    EXPECT_EQ((row.v4 ? rk::dns::sendDnsQuery : rk::dns::sendDnsQuery6)(c(), none, 1), -1);
    EXPECT_EQ((row.v4 ? rk::dns::sendDnsQuery6 : rk::dns::sendDnsQuery)(c(), none, 1), 0);
    EXPECT_EQ(server_->Take(1).size(), 1u);
    EXPECT_EQ(rk::dns::sendDnsQuery(nullptr, none, 1), -1);
    ctx_.reset();
    EXPECT_EQ(close(fd), 0) << "still open";
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
}

}  // namespace
}  // namespace rk::test
