// The DNS client's opt-in defences through the public header, on real
// sockets: forged answers from another host and from the server's own
// address (a raw socket), random identifiers, every failure reason from
// dnsmasq and the crafted responder, retries and draining. Every case runs
// in private namespaces.
#include <unistd.h>

#include <algorithm>
#include <set>

#include "dns_responder.h"
#include "dns_test.h"
#include "rk_test.h"
#include <routerkit/log.h>

namespace rk::test {
namespace {

constexpr unsigned kAll = ASYNC_DNS_CHECK_SENDER | ASYNC_DNS_CHECK_QUESTION | ASYNC_DNS_RANDOM_ID;
const char *const kQ = "aaa.bbbbbbb.ccc";
using Strings = std::vector<std::string>;
Strings answers, failures;

int Record(AsyncDnsContext *, const char *name, DnsResult *result) { return answers.push_back(Show(name, result)), 0; }
void Failed(AsyncDnsContext *, const char *n, int reason) { failures.push_back(n + (" " + std::to_string(reason))); }

// Runs the loop for `ms`, or until `list` holds `n` entries; at least once,
// however late a busy machine lets it start.
void Pump(int ms, const Strings *list = nullptr, size_t n = 0) {
  const uint64_t end = GetTickCount() + ms;
  do uloop_run_timeout(5); while (GetTickCount() < end && !(list && list->size() >= n));
}

// A UDP datagram from port 53 of any source to 127.0.0.1, through a raw
// socket (the kernel fills in the IP checksum; a UDP checksum of 0 means none).
bool SendSpoofed(const char *source, uint16_t toPort, const Bytes &payload) {
  const auto udp = static_cast<uint16_t>(8 + payload.size());
  const Bytes packet = Packet().u16(0x4500).u16(20 + udp).u32(0).u16(0x4011).u16(0).raw(Ip(source)).raw(Ip("127.0.0.1"))
                           .u16(53).u16(toPort).u16(udp).u16(0).raw(payload).b;
  const sockaddr_in to{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  const int fd = socket(AF_INET, SOCK_RAW, IPPROTO_RAW);
  const ssize_t sent = sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
  close(fd);
  return sent == static_cast<ssize_t>(packet.size());
}

uint16_t IdOf(const DnsQuery &q) { return static_cast<uint16_t>(q.bytes[0] << 8 | q.bytes[1]); }

class DnsChecks : public ::testing::Test {
 protected:
  void SetUp() override {
    RK_REQUIRE_NAMESPACE();
    ASSERT_TRUE(server_->ok());
    ASSERT_EQ(uloop_init(), 0);
  }
  void TearDown() override { ctx_.reset(), uloop_done(); }
  // A context at 127.0.0.1, nothing recorded yet: default without checks
  // and retry, else with them and reporting failures.
  AsyncDnsContext *Open(unsigned checks, uint32_t retryMs = 0, uint32_t attempts = 0) {
    ctx_.reset(asyncDns_create(Record));
    answers.clear(), failures.clear();
    EXPECT_EQ(asyncDns_AddServer(ctx_.get(), "127.0.0.1"), 0);
    if (checks != 0 || retryMs != 0) {
      EXPECT_EQ(asyncDns_setChecks(ctx_.get(), checks) | asyncDns_setRetry(ctx_.get(), retryMs, attempts) |
                    asyncDns_setFailureCallback(ctx_.get(), Failed), 0);
    }
    return ctx_.get();
  }
  std::unique_ptr<DnsResponder> server_ = std::make_unique<DnsResponder>();
  std::unique_ptr<AsyncDnsContext, int (*)(AsyncDnsContext *)> ctx_{nullptr, asyncDns_destroy};
};

// A forger at `source` port 53 answers `question` with the query's
// identifier, or the context's predictable one; a refusal is `logged` (a
// format for that identifier as read), else the forged address is delivered
// and cached.
TEST_F(DnsChecks, ForgedAnswersPoisonADefaultContextAndAreRefusedByACheckedOne) {
  SyslogCapture log;
  ASSERT_TRUE(log.ok());
  const struct { unsigned checks; const char *source, *question; bool oldId; const char *logged; } rows[] = {
      {0, "127.0.0.2", kQ, false, nullptr},
      {ASYNC_DNS_CHECK_SENDER, "127.0.0.2", kQ, false, "error sender from 127.0.0.2"},
      {0, "127.0.0.1", "evil.bbbbbbb.ccc", false, nullptr},
      {kAll, "127.0.0.1", "evil.bbbbbbb.ccc", false, "error question(evil.bbbbbbb.ccc,1) from 127.0.0.1"},
      {kAll, "127.0.0.1", kQ, true, "error id(%x) from 127.0.0.1"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(std::string(row.source) + " " + row.question + " checks " + std::to_string(row.checks));
    AsyncDnsContext *c = Open(row.checks);
    ASSERT_EQ(asyncLookup(c, kQ), 0);
    std::vector<DnsQuery> q = server_->Take(2);
    ASSERT_EQ(q.size(), 2u);
    log.Take();
    const uint16_t id = row.oldId ? ntohs(c->id) : IdOf(q[0]);
    ASSERT_TRUE(SendSpoofed(row.source, ntohs(q[0].from.sin6_port), Response(id, row.question, 1).a("6.6.6.6", 300).b));
    Pump(row.logged ? 100 : 3000, &answers, 1);
    EXPECT_EQ(answers, row.logged ? Strings{} : Strings{row.question + std::string(": 6.6.6.6")});
    EXPECT_EQ(Cached(c->cache, row.question), row.logged ? "absent" : "6.6.6.6");
    char logged[128] = "";
    if (row.logged) snprintf(logged, sizeof logged, row.logged, c->id);
    EXPECT_EQ(log.TakeNormalized(), row.logged ? Strings{"I [checkDnsSocket:N]" + std::string(logged)} : Strings{});
    if (!row.logged) continue;
    // The server's own answer still gets through; a replay of it only
    // without the question check.
    const Bytes real = Response(IdOf(q[0]), kQ, 1).a("192.0.2.1", 300).b;
    ASSERT_TRUE(server_->Reply(q[0], real) && server_->Reply(q[0], real));
    const bool question = (row.checks & ASYNC_DNS_CHECK_QUESTION) != 0;
    Pump(3000, &answers, question ? 1 : 2), Pump(100);  // and a dropped replay
    EXPECT_EQ(answers, Strings(question ? 1 : 2, "aaa.bbbbbbb.ccc: 192.0.2.1"));
    EXPECT_EQ(log.TakeNormalized().size(), question ? 1u : 0u);
  }
}

TEST_F(DnsChecks, RandomIdentifiersAreSpreadAndOfTheirOwn) {
  AsyncDnsContext *c = Open(ASYNC_DNS_RANDOM_ID, 1, 1);
  std::vector<uint16_t> ids;
  while (ids.size() < 10000) {  // rounds of 32 lookups (64 queries) that time out after 1 ms, each reported
    for (int i = 0; i < 32; ++i) ASSERT_EQ(asyncLookup(c, kQ), 0);
    for (const DnsQuery &q : server_->Take(64)) ids.push_back(IdOf(q));
    Pump(1000, &failures, ids.size() / 2);
    ASSERT_EQ(failures.size(), ids.size() / 2);
  }
  std::set<uint16_t> distinct(ids.begin(), ids.end()), steps;
  size_t bits = 0;
  for (size_t i = 0; i < ids.size(); ++i) {
    EXPECT_NE(ids[i], ntohs(c->id));
    if (i > 0) steps.insert(static_cast<uint16_t>(ids[i] - ids[i - 1]));
    bits += static_cast<size_t>(__builtin_popcount(ids[i]));
    EXPECT_TRUE(i % 64 != 0 || std::set<uint16_t>(&ids[i], &ids[i] + 64).size() == 64u) << "in flight together";
  }
  // 10,048 draws from 65,536 values: about 9,317 distinct ones are expected
  // (a counter would give 10,048, a fixed value 1), and as many steps.
  EXPECT_TRUE(distinct.size() > 9150 && distinct.size() < 9480 && steps.size() > 9150)
      << distinct.size() << " distinct, " << steps.size() << " steps";
  EXPECT_NEAR(static_cast<double>(bits) / (16.0 * static_cast<double>(ids.size())), 0.5, 0.01);
}

TEST_F(DnsChecks, EveryFailureReasonOnceFromCraftedResponses) {
  // A response code for the A and for the AAAA query, -1 for no answer
  // (two sendings of 200 ms each, then a timeout).
  const struct { int a, aaaa, reason; } rows[] = {
      {2, 2, ASYNC_DNS_SERVFAIL},  {5, 5, ASYNC_DNS_REFUSED},   {3, 3, ASYNC_DNS_NXDOMAIN}, {0, 0, ASYNC_DNS_NODATA},
      {-1, -1, ASYNC_DNS_TIMEOUT}, {3, -1, ASYNC_DNS_NXDOMAIN}, {-1, 2, ASYNC_DNS_SERVFAIL}, {0, 4, ASYNC_DNS_NODATA},
      {1, 4, ASYNC_DNS_SERVFAIL}};
  for (const auto &row : rows) {
    SCOPED_TRACE(std::to_string(row.a) + "/" + std::to_string(row.aaaa));
    ASSERT_EQ(asyncLookup(Open(kAll, 200, 2), kQ), 0);
    for (const DnsQuery &q : server_->Take(2)) {
      const int code = q.type() == 1 ? row.a : row.aaaa;
      // An error response's records are not delivered.
      Packet p = Response(IdOf(q), kQ, code == 0 ? 0 : 1, q.type());
      if (code != 0) p.answer(q.type(), 300, Ip(q.type() == 1 ? "6.6.6.6" : "::6"));
      p.b[3] = static_cast<uint8_t>(0x80 | code);
      ASSERT_TRUE(code < 0 || server_->Reply(q, p.b));
    }
    Pump(3000, &failures, 1), Pump(50);
    EXPECT_TRUE(answers.empty());
    EXPECT_EQ(failures, Strings{std::string(kQ) + " " + std::to_string(row.reason)});
    int resent = 0;  // an answered query, even an error, is not sent again
    for (DnsQuery again; server_->Next(&again, 0);) ++resent;
    EXPECT_EQ(resent, (row.a < 0) + (row.aaaa < 0));
  }
}

TEST_F(DnsChecks, FailureReasonsFromDnsmasq) {
  server_.reset();  // port 53 is dnsmasq's
  Dnsmasq dnsmasq({"--local=/test.lan/", "--host-record=v4.test.lan,192.0.2.4", "--txt-record=txt.test.lan,x"});
  AsyncDnsContext *c = Open(kAll, 100, 20);  // dnsmasq may need a moment to start
  for (const char *n : {"v4.test.lan", "nosuch.test.lan", "txt.test.lan", "other.org"}) ASSERT_EQ(asyncLookup(c, n), 0);
  Pump(3000, &failures, 3), Pump(3000, &answers, 1);  // in whichever order they come
  EXPECT_EQ(answers, Strings{"v4.test.lan: 192.0.2.4"});
  std::sort(failures.begin(), failures.end());
  EXPECT_EQ(failures, (Strings{"nosuch.test.lan 1", "other.org 4", "txt.test.lan 2"}));
}

TEST_F(DnsChecks, ARetryRecoversALostAnswerAndOneEventDrainsTheSocket) {
  AsyncDnsContext *c = Open(ASYNC_DNS_CHECK_QUESTION, 100, 3);
  for (const char *n : {kQ, "b.ccc", "c.ccc"}) ASSERT_EQ(asyncLookup(c, n), 0);
  std::vector<DnsQuery> first = server_->Take(6);  // lost
  Pump(150);
  std::vector<DnsQuery> again = server_->Take(6);
  ASSERT_EQ(again.size(), 6u);
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(ToHex(again[i].bytes), ToHex(first[i].bytes));  // sent again as they were
  EXPECT_EQ(ToHex(again[0].bytes), ToHex(Header(IdOf(again[0]), 1, 0, 0x0100).raw(Labels(kQ)).u16(1).u16(1).b));
  for (size_t i = 0; i < 6; i += 2) {
    const std::string name = i == 0 ? kQ : i == 2 ? "B.ccc" : "c.ccc";  // a question's case does not matter
    ASSERT_TRUE(server_->Reply(again[i], Response(IdOf(again[i]), name, 1).a("192.0.2.1", 0).b));
    ASSERT_TRUE(server_->Reply(again[i + 1], Response(IdOf(again[i + 1]), name, 0, 28).b));
  }
  usleep(50000);
  c->dnsSock.cb(&c->dnsSock, ULOOP_READ);  // six datagrams, one event
  EXPECT_EQ(answers, (Strings{"aaa.bbbbbbb.ccc: 192.0.2.1", "B.ccc: 192.0.2.1", "c.ccc: 192.0.2.1"}));
  Pump(400);
  EXPECT_TRUE(failures.empty());
  EXPECT_TRUE(server_->Take(1).empty());
}

TEST_F(DnsChecks, SettingsBoundsAndUserData) {
  SyslogCapture log;
  ASSERT_TRUE(log.ok());
  AsyncDnsContext *c = Open(0);
  EXPECT_EQ(asyncDns_setChecks(nullptr, 0) & asyncDns_setChecks(c, 8) & asyncDns_setRetry(nullptr, 1, 1) &
                asyncDns_setFailureCallback(nullptr, Failed), -1);
  EXPECT_EQ(asyncDns_getUserData(c), nullptr);
  asyncDns_setUserData(c, this);
  EXPECT_TRUE(asyncDns_getUserData(c) == this && asyncDns_getUserData(nullptr) == nullptr);
  ASSERT_EQ(asyncDns_setChecks(c, kAll), 0);
  log.Take();
  for (int i = 0; i < 64; ++i) ASSERT_EQ(asyncLookup(c, kQ), 0);
  const DnsAddressEntry ptr = Entry("192.0.2.1");
  EXPECT_EQ(asyncLookup(c, kQ), -1);
  EXPECT_EQ(asyncLookupPtr(c, &ptr), -1);
  EXPECT_EQ(asyncLookup(c, std::string(254, 'x').c_str()), -1);
  EXPECT_EQ(log.TakeNormalized(),
            (Strings{"E [asyncLookup:N]error in flight(64)", "E [asyncLookupPtr:N]error in flight(64)",
                     "E [asyncLookup:N]error name(254)"}));
  ASSERT_EQ(asyncDns_setChecks(c, 0), 0);  // untracked: the table is forgotten
  ASSERT_EQ(asyncDns_setChecks(c, ASYNC_DNS_CHECK_SENDER), 0);
  EXPECT_EQ(asyncLookup(c, kQ), 0);
}

}  // namespace
}  // namespace rk::test
