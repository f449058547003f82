// The DNS client's opt-in defences through the public header, on real
// sockets: forged answers from another host and from the server's own
// address (a raw socket), random identifiers, every failure reason from
// dnsmasq and the crafted responder, retries, draining, and the cache's
// limits. Every case runs in private namespaces.
#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <unistd.h>

#include <memory>
#include <regex>
#include <set>

#include "dns/cache.h"
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
size_t wanted = 0;  // answers or failures to wait for

int Record(AsyncDnsContext *, const char *name, DnsResult *result) {
  answers.push_back(Show(name, result));
  return 0;
}
void Failed(AsyncDnsContext *, const char *name, int reason) {
  failures.push_back(std::string(name) + " " + std::to_string(reason));
}

// Runs the loop for `ms`, or until `done` says so.
void Pump(int ms, bool (*done)() = [] { return false; }) {
  uloop_timeout guard{};
  guard.cb = [](uloop_timeout *) {};
  uloop_timeout_set(&guard, ms);
  while (guard.pending && !done()) uloop_run_timeout(5);
  uloop_timeout_cancel(&guard);
}
bool EnoughAnswers() { return answers.size() >= wanted; }
bool EnoughFailures() { return failures.size() >= wanted; }

// A UDP datagram to 127.0.0.1 from any source, through a raw socket (the
// kernel fills in the IP checksum; a UDP checksum of 0 means none).
bool SendSpoofed(const char *source, uint16_t toPort, const Bytes &payload) {
  iphdr ip{};
  ip.version = 4, ip.ihl = 5, ip.ttl = 64, ip.protocol = IPPROTO_UDP;
  ip.tot_len = htons(static_cast<uint16_t>(sizeof(iphdr) + sizeof(udphdr) + payload.size()));
  inet_pton(AF_INET, source, &ip.saddr);
  ip.daddr = htonl(INADDR_LOOPBACK);
  udphdr udp{};
  udp.source = htons(53), udp.dest = htons(toPort), udp.len = htons(static_cast<uint16_t>(8 + payload.size()));
  Bytes packet(reinterpret_cast<uint8_t *>(&ip), reinterpret_cast<uint8_t *>(&ip + 1));
  packet.insert(packet.end(), reinterpret_cast<uint8_t *>(&udp), reinterpret_cast<uint8_t *>(&udp + 1));
  packet.insert(packet.end(), payload.begin(), payload.end());
  sockaddr_in to{};
  to.sin_family = AF_INET, to.sin_addr.s_addr = ip.daddr;
  const int fd = socket(AF_INET, SOCK_RAW, IPPROTO_RAW);
  const bool ok = sendto(fd, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to) ==
                  static_cast<ssize_t>(packet.size());
  close(fd);
  return ok;
}

uint16_t IdOf(const DnsQuery &q) { return static_cast<uint16_t>(q.bytes[0] << 8 | q.bytes[1]); }

class DnsChecks : public ::testing::Test {
 protected:
  void SetUp() override {
    RK_REQUIRE_NAMESPACE();
    ASSERT_TRUE(server_->ok());
    ASSERT_EQ(uloop_init(), 0);
    answers.clear();
    failures.clear();
  }
  void TearDown() override {
    ctx_.reset();
    uloop_done();
  }
  // A context at 127.0.0.1: default without checks and retry, else with
  // them and reporting failures.
  AsyncDnsContext *Open(unsigned checks, uint32_t retryMs = 0, uint32_t attempts = 0) {
    ctx_.reset(asyncDns_create(Record));
    EXPECT_EQ(asyncDns_AddServer(ctx_.get(), "127.0.0.1"), 0);
    if (checks != 0 || retryMs != 0) {
      EXPECT_EQ(asyncDns_setChecks(ctx_.get(), checks) | asyncDns_setRetry(ctx_.get(), retryMs, attempts) |
                    asyncDns_setFailureCallback(ctx_.get(), Failed), 0);
    }
    return ctx_.get();
  }
  std::string Cached(const char *name) {
    alignas(DnsResult) uint8_t out[4 + 28];
    auto *r = reinterpret_cast<DnsResult *>(out);
    return DnsCache_Get(ctx_->cache, name, r, 1) == 0 ? Show(r->slots[0]) : "absent";
  }
  std::unique_ptr<DnsResponder> server_ = std::make_unique<DnsResponder>();
  std::unique_ptr<AsyncDnsContext, int (*)(AsyncDnsContext *)> ctx_{nullptr, asyncDns_destroy};
};

TEST_F(DnsChecks, ForgedAnswersPoisonADefaultContextAndAreRefusedByACheckedOne) {
  SyslogCapture log;
  ASSERT_TRUE(log.ok());
  const struct {
    unsigned checks;
    const char *source;  // the forger's, port 53
    const char *question;
    bool oldId;  // the context's predictable identifier instead of the query's
    const char *answer, *logged;
  } rows[] = {
      {0, "127.0.0.2", kQ, false, "aaa.bbbbbbb.ccc: 6.6.6.6", nullptr},
      {ASYNC_DNS_CHECK_SENDER, "127.0.0.2", kQ, false, nullptr, "error sender from 127.0.0.2"},
      {0, "127.0.0.1", "evil.bbbbbbb.ccc", false, "evil.bbbbbbb.ccc: 6.6.6.6", nullptr},
      {kAll, "127.0.0.1", "evil.bbbbbbb.ccc", false, nullptr, "error question(evil.bbbbbbb.ccc,1) from 127.0.0.1"},
      {kAll, "127.0.0.1", kQ, true, nullptr, "error id(*) from 127.0.0.1"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(std::string(row.source) + " " + row.question + " checks " + std::to_string(row.checks));
    answers.clear();
    AsyncDnsContext *c = Open(row.checks);
    ASSERT_EQ(asyncLookup(c, kQ), 0);
    std::vector<DnsQuery> q = server_->Take(2);
    ASSERT_EQ(q.size(), 2u);
    log.Take();
    const Bytes forged = Response(row.oldId ? ntohs(c->id) : IdOf(q[0]), row.question, 1).answer(1, 300, V4("6.6.6.6")).b;
    ASSERT_TRUE(SendSpoofed(row.source, ntohs(q[0].from.sin6_port), forged));
    wanted = 1;
    Pump(100, EnoughAnswers);
    EXPECT_EQ(answers, row.answer ? Strings{row.answer} : Strings{});
    EXPECT_EQ(Cached(row.question), row.answer ? "6.6.6.6" : "absent");
    Strings logs;
    for (const std::string &l : log.TakeNormalized()) logs.push_back(std::regex_replace(l, std::regex("id\\(\\w+\\)"), "id(*)"));
    EXPECT_EQ(logs, row.logged ? Strings{std::string("I [checkDnsSocket:N]") + row.logged} : Strings{});
    if (row.answer) continue;
    // The server's own answer still gets through; a replay of it only
    // without the question check.
    const Bytes real = Response(IdOf(q[0]), kQ, 1).answer(1, 300, V4("192.0.2.1")).b;
    ASSERT_TRUE(server_->Reply(q[0], real) && server_->Reply(q[0], real));
    Pump(100);
    const bool question = (row.checks & ASYNC_DNS_CHECK_QUESTION) != 0;
    EXPECT_EQ(answers, Strings(question ? 1 : 2, "aaa.bbbbbbb.ccc: 192.0.2.1"));
    EXPECT_EQ(log.TakeNormalized().size(), question ? 1u : 0u);
  }
}

TEST_F(DnsChecks, RandomIdentifiersAreSpreadAndOfTheirOwn) {
  AsyncDnsContext *c = Open(ASYNC_DNS_RANDOM_ID, 1, 1);
  std::vector<uint16_t> ids;
  while (ids.size() < 10000) {  // rounds of 32 lookups (64 queries) that time out after 1 ms
    for (int i = 0; i < 32; ++i) ASSERT_EQ(asyncLookup(c, kQ), 0);
    for (const DnsQuery &q : server_->Take(64)) ids.push_back(IdOf(q));
    wanted = failures.size() + 32;
    Pump(1000, EnoughFailures);
    ASSERT_EQ(failures.size(), wanted);
  }
  ASSERT_EQ(ids.size(), 10048u);
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
  EXPECT_GT(distinct.size(), 9150u);
  EXPECT_LT(distinct.size(), 9480u);
  EXPECT_GT(steps.size(), 9150u);
  EXPECT_NEAR(static_cast<double>(bits) / (16.0 * static_cast<double>(ids.size())), 0.5, 0.01);
}

TEST_F(DnsChecks, EveryFailureReasonOnceFromCraftedResponses) {
  // A response code for the A and for the AAAA query, -1 for no answer
  // (two sendings of 40 ms each, then a timeout).
  const struct {
    int a, aaaa, reason;
  } rows[] = {
      {2, 2, ASYNC_DNS_SERVFAIL},  {5, 5, ASYNC_DNS_REFUSED}, {3, 3, ASYNC_DNS_NXDOMAIN}, {0, 0, ASYNC_DNS_NODATA},
      {-1, -1, ASYNC_DNS_TIMEOUT}, {3, -1, ASYNC_DNS_NXDOMAIN}, {-1, 2, ASYNC_DNS_SERVFAIL},
      {0, 4, ASYNC_DNS_NODATA},    {1, 4, ASYNC_DNS_SERVFAIL},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(std::to_string(row.a) + "/" + std::to_string(row.aaaa));
    failures.clear();
    for (DnsQuery stale; server_->Next(&stale, 0);) {  // the second sendings of the row before
    }
    AsyncDnsContext *c = Open(kAll, 40, 2);
    ASSERT_EQ(asyncLookup(c, kQ), 0);
    for (const DnsQuery &q : server_->Take(2)) {
      const int code = q.type() == 1 ? row.a : row.aaaa;
      // An error response's records are not delivered.
      Packet p = Response(IdOf(q), kQ, code == 0 ? 0 : 1, q.type());
      if (code != 0) p.answer(q.type(), 300, q.type() == 1 ? V4("6.6.6.6") : V6("::6"));
      p.b[3] = static_cast<uint8_t>(0x80 | code);
      ASSERT_TRUE(code < 0 || server_->Reply(q, p.b));
    }
    Pump(250);
    EXPECT_TRUE(answers.empty());
    EXPECT_EQ(failures, Strings{std::string(kQ) + " " + std::to_string(row.reason)});
  }
}

TEST_F(DnsChecks, FailureReasonsFromDnsmasq) {
  server_.reset();  // port 53 is dnsmasq's
  Dnsmasq dnsmasq({"--local=/test.lan/", "--host-record=v4.test.lan,192.0.2.4", "--txt-record=txt.test.lan,x"});
  AsyncDnsContext *c = Open(kAll, 100, 20);  // dnsmasq may need a moment to start
  for (const char *n : {"v4.test.lan", "nosuch.test.lan", "txt.test.lan", "other.org"}) ASSERT_EQ(asyncLookup(c, n), 0);
  wanted = 3;
  Pump(3000, EnoughFailures);
  EXPECT_EQ(answers, Strings{"v4.test.lan: 192.0.2.4"});
  EXPECT_EQ(std::set<std::string>(failures.begin(), failures.end()),
            (std::set<std::string>{"nosuch.test.lan 1", "txt.test.lan 2", "other.org 4"}));
}

TEST_F(DnsChecks, ARetryRecoversALostAnswerAndOneEventDrainsTheSocket) {
  AsyncDnsContext *c = Open(ASYNC_DNS_CHECK_QUESTION, 100, 3);
  for (const char *n : {kQ, "b.ccc", "c.ccc"}) ASSERT_EQ(asyncLookup(c, n), 0);
  std::vector<DnsQuery> first = server_->Take(6);  // lost
  Pump(150);
  std::vector<DnsQuery> again = server_->Take(6);
  ASSERT_EQ(again.size(), 6u);
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(ToHex(again[i].bytes), ToHex(first[i].bytes));  // sent again as they were
  for (size_t i = 0; i < 6; i += 2) {
    const std::string name = i == 0 ? kQ : i == 2 ? "B.ccc" : "c.ccc";  // a question's case does not matter
    ASSERT_TRUE(server_->Reply(again[i], Response(IdOf(again[i]), name, 1).answer(1, 0, V4("192.0.2.1")).b));
    ASSERT_TRUE(server_->Reply(again[i + 1], Response(IdOf(again[i + 1]), name, 0, 28).b));
  }
  usleep(50000);
  c->dnsSock.cb(&c->dnsSock, ULOOP_READ);  // six datagrams, one event
  EXPECT_EQ(answers, (Strings{"aaa.bbbbbbb.ccc: 192.0.2.1", "B.ccc: 192.0.2.1", "c.ccc: 192.0.2.1"}));
  Pump(400);
  EXPECT_TRUE(failures.empty());
  DnsQuery none;
  EXPECT_FALSE(server_->Next(&none, 0));
}

TEST_F(DnsChecks, SettingsBoundsAndUserData) {
  SyslogCapture log;
  ASSERT_TRUE(log.ok());
  AsyncDnsContext *c = Open(0);
  EXPECT_EQ(asyncDns_setChecks(nullptr, 0) & asyncDns_setChecks(c, 8) & asyncDns_setRetry(nullptr, 1, 1) &
                asyncDns_setFailureCallback(nullptr, Failed),
            -1);
  int mine = 0;
  EXPECT_EQ(asyncDns_getUserData(c), nullptr);
  asyncDns_setUserData(c, &mine);
  EXPECT_TRUE(asyncDns_getUserData(c) == &mine && asyncDns_getUserData(nullptr) == nullptr);
  ASSERT_EQ(asyncDns_setChecks(c, kAll), 0);
  log.Take();
  for (int i = 0; i < 64; ++i) ASSERT_EQ(asyncLookup(c, kQ), 0);
  const DnsAddressEntry ptr = Entry("192.0.2.1");
  EXPECT_EQ(asyncLookup(c, kQ), -1);
  EXPECT_EQ(asyncLookupPtr(c, &ptr), -1);
  EXPECT_EQ(asyncLookup(c, std::string(254, 'x').c_str()), -1);
  EXPECT_EQ(log.TakeNormalized(), (Strings{"E [asyncLookup:N]error in flight(64)", "E [asyncLookupPtr:N]error in flight(64)",
                                           "E [asyncLookup:N]error name(254)"}));
  ASSERT_EQ(asyncDns_setChecks(c, 0), 0);  // untracked: the table is forgotten
  ASSERT_EQ(asyncDns_setChecks(c, ASYNC_DNS_CHECK_SENDER), 0);
  EXPECT_EQ(asyncLookup(c, kQ), 0);
}

uint64_t fakeNow = 0;
uint64_t FakeClock() { return fakeNow; }
// Heap bytes in use; musl keeps no such count, so there the bound is not held.
size_t HeapInUse() {
#ifdef __GLIBC__
  return mallinfo2().uordblks;
#else
  return 0;
#endif
}

TEST(DnsCacheLimits, AHundredThousandNamesThroughAThousandAndATtlCap) {
  DnsCache *cache = DnsCacheCreate();
  DnsCache_setMaxNames(cache, 1000);
  const DnsAddressEntry a = Entry("192.0.2.1");
  char name[32];
  auto nameOf = [&](int i) { return snprintf(name, sizeof name, "host-%06d.lan", i), name; };
  alignas(DnsResult) uint8_t buffer[4 + 28];
  DnsResult *out = reinterpret_cast<DnsResult *>(buffer);
  size_t warm = 0;
  for (int i = 0; i < 100000; ++i) {
    DnsCache_Put(cache, nameOf(i), &a, 3600);
    if (i % 500 == 0) DnsCache_Get(cache, nameOf(0), out, 1);  // name 0 stays in use
    if (i == 1999) warm = HeapInUse();
  }
  EXPECT_EQ(cache->tree.count, 1000);
  EXPECT_LE(HeapInUse(), warm + 4096);
  // The least recently used went first: name 0 was read, 99000 is the 1001st newest.
  EXPECT_EQ(DnsCache_Get(cache, nameOf(0), out, 1) + DnsCache_Get(cache, nameOf(99000), out, 1), -1);

  rk::dns::cacheClock = FakeClock;
  DnsCache_setMaxCacheTime(cache, 60);
  DnsCache_setMinCacheTime(cache, 100);
  DnsCache_Put(cache, "capped", &a, 3600);  // cut to 60, then 100 added
  fakeNow += 160000;
  EXPECT_EQ(DnsCache_Get(cache, "capped", out, 1), 0);
  fakeNow += 1;
  EXPECT_EQ(DnsCache_Get(cache, "capped", out, 1), -1);
  rk::dns::cacheClock = GetTickCount;
  DnsCacheDestroy(cache);
}

}  // namespace
}  // namespace rk::test
