// The DNS client's opt-in defences through the public header, on real
// sockets: forged answers from another host and from the server's own
// address (a raw socket), random identifiers, every failure reason from
// dnsmasq and the crafted responder, retries and timeouts, draining, and
// the cache's name limit. Every case runs in private namespaces.
#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dns/cache.h"
#include "dns_responder.h"
#include "dns_test.h"
#include "rk_test.h"
#include <routerkit/log.h>

namespace rk::test {
namespace {

constexpr unsigned kAllChecks = ASYNC_DNS_CHECK_SENDER | ASYNC_DNS_CHECK_QUESTION | ASYNC_DNS_RANDOM_ID;
const char *const kQ = "aaa.bbbbbbb.ccc";

std::vector<std::string> answers, failures;
size_t wanted = 0;  // failures to wait for

int Record(AsyncDnsContext *, const char *name, DnsResult *result) {
  answers.push_back(Show(name, result));
  return 0;
}

void Failed(AsyncDnsContext *, const char *name, int reason) {
  failures.push_back(std::string(name) + " " + std::to_string(reason));
}

using ContextPtr = std::unique_ptr<AsyncDnsContext, int (*)(AsyncDnsContext *)>;

// Runs the loop for `ms`, or until `done` says so.
void Pump(int ms, bool (*done)() = [] { return false; }) {
  uloop_timeout guard{};
  guard.cb = [](uloop_timeout *) {};
  uloop_timeout_set(&guard, ms);
  while (guard.pending && !done()) uloop_run_timeout(5);
  uloop_timeout_cancel(&guard);
}

// A UDP datagram with any source, through a raw socket (the kernel fills in
// the IP checksum; a UDP checksum of 0 means none).
bool SendSpoofed(const char *source, uint16_t sourcePort, uint16_t destPort, const Bytes &payload) {
  const int fd = socket(AF_INET, SOCK_RAW, IPPROTO_RAW);
  if (fd < 0) return false;
  Bytes packet(sizeof(iphdr) + sizeof(udphdr));
  iphdr ip{};
  ip.version = 4;
  ip.ihl = 5;
  ip.ttl = 64;
  ip.protocol = IPPROTO_UDP;
  ip.tot_len = htons(static_cast<uint16_t>(packet.size() + payload.size()));
  inet_pton(AF_INET, source, &ip.saddr);
  inet_pton(AF_INET, "127.0.0.1", &ip.daddr);
  udphdr udp{};
  udp.source = htons(sourcePort);
  udp.dest = htons(destPort);
  udp.len = htons(static_cast<uint16_t>(sizeof udp + payload.size()));
  memcpy(packet.data(), &ip, sizeof ip);
  memcpy(packet.data() + sizeof ip, &udp, sizeof udp);
  packet.insert(packet.end(), payload.begin(), payload.end());
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = ip.daddr;
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
  // A context at 127.0.0.1 with `checks` and the retry; one with either
  // also reports failures, one without is a default context.
  AsyncDnsContext *Open(unsigned checks, uint32_t retryMs = 0, uint32_t attempts = 0) {
    ctx_.reset(asyncDns_create(Record));
    EXPECT_TRUE(ctx_);
    EXPECT_EQ(asyncDns_AddServer(ctx_.get(), "127.0.0.1"), 0);
    if (checks == 0 && retryMs == 0) return ctx_.get();
    EXPECT_EQ(asyncDns_setChecks(ctx_.get(), checks), 0);
    EXPECT_EQ(asyncDns_setRetry(ctx_.get(), retryMs, attempts), 0);
    EXPECT_EQ(asyncDns_setFailureCallback(ctx_.get(), Failed), 0);
    return ctx_.get();
  }
  std::string Cached(const char *name) {
    union {
      DnsResult result;
      uint8_t bytes[4 + 28];
    } out;
    return DnsCache_Get(ctx_->cache, name, &out.result, 1) == 0 ? Show(out.result.slots[0]) : "absent";
  }
  size_t Queries() {
    size_t n = 0;
    for (DnsQuery q; server_->Next(&q, 0);) ++n;
    return n;
  }
  std::unique_ptr<DnsResponder> server_ = std::make_unique<DnsResponder>();
  ContextPtr ctx_{nullptr, asyncDns_destroy};
};

TEST_F(DnsChecks, ForgedAnswersPoisonADefaultContextAndAreRefusedByACheckedOne) {
  SyslogCapture log;
  ASSERT_TRUE(log.ok());
  enum Id { kQueryId, kOldId };
  const struct {
    const char *what;
    unsigned checks;
    const char *source;  // the forger's, port 53
    const char *question;
    Id id;
    std::vector<std::string> answers, logs;
  } rows[] = {
      {"another host, right id and question: a default context takes it", 0, "127.0.0.2", kQ, kQueryId,
       {"aaa.bbbbbbb.ccc: 6.6.6.6"}, {}},
      {"the same refused by the sender check", ASYNC_DNS_CHECK_SENDER, "127.0.0.2", kQ, kQueryId, {},
       {"I [checkDnsSocket:N]error sender from 127.0.0.2"}},
      {"the server's address, a question never asked: a default context takes it", 0, "127.0.0.1",
       "evil.bbbbbbb.ccc", kQueryId, {"evil.bbbbbbb.ccc: 6.6.6.6"}, {}},
      {"the same refused by the question check", kAllChecks, "127.0.0.1", "evil.bbbbbbb.ccc", kQueryId, {},
       {"I [checkDnsSocket:N]error question(evil.bbbbbbb.ccc,1) from 127.0.0.1"}},
      {"the server's address and question, the old predictable identifier", kAllChecks, "127.0.0.1", kQ, kOldId,
       {}, {"I [checkDnsSocket:N]error id(*) from 127.0.0.1"}},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.what);
    answers.clear();
    AsyncDnsContext *c = Open(row.checks);
    ASSERT_EQ(asyncLookup(c, kQ), 0);
    std::vector<DnsQuery> q = server_->Take(2);
    ASSERT_EQ(q.size(), 2u);
    log.Take();
    const uint16_t id = row.id == kOldId ? ntohs(c->id) : IdOf(q[0]);
    ASSERT_TRUE(SendSpoofed(row.source, 53, ntohs(q[0].from.sin6_port),
                            Response(id, row.question, 1).answer(1, 300, V4("6.6.6.6")).b));
    Pump(100, [] { return !answers.empty(); });
    EXPECT_EQ(answers, row.answers);
    std::vector<std::string> logs;
    for (const std::string &l : log.TakeNormalized()) logs.push_back(std::regex_replace(l, std::regex("id\\(\\w+\\)"), "id(*)"));
    EXPECT_EQ(logs, row.logs);
    EXPECT_EQ(Cached(row.question), row.answers.empty() ? "absent" : "6.6.6.6");
    if (!row.answers.empty()) continue;
    // The server's own answer still gets through; a replay of it only
    // without the question check.
    const Bytes real = Response(IdOf(q[0]), kQ, 1).answer(1, 300, V4("192.0.2.1")).b;
    ASSERT_TRUE(server_->Reply(q[0], real));
    Pump(100, [] { return !answers.empty(); });
    EXPECT_EQ(answers, std::vector<std::string>{"aaa.bbbbbbb.ccc: 192.0.2.1"});
    ASSERT_TRUE(server_->Reply(q[0], real));
    Pump(50);
    const bool question = (row.checks & ASYNC_DNS_CHECK_QUESTION) != 0;
    EXPECT_EQ(answers.size(), question ? 1u : 2u);
    EXPECT_EQ(log.TakeNormalized().size(), question ? 1u : 0u);
  }
}

TEST_F(DnsChecks, RandomIdentifiersAreSpreadAndOfTheirOwn) {
  AsyncDnsContext *c = Open(ASYNC_DNS_RANDOM_ID, 1, 1);
  std::vector<uint16_t> ids;
  while (ids.size() < 10000) {
    for (int i = 0; i < 32; ++i) ASSERT_EQ(asyncLookup(c, kQ), 0);
    for (const DnsQuery &q : server_->Take(64)) ids.push_back(IdOf(q));
    wanted = failures.size() + 32;
    Pump(1000, [] { return failures.size() >= wanted; });
    ASSERT_EQ(failures.size(), wanted);
  }
  ASSERT_EQ(ids.size(), 10048u);
  std::set<uint16_t> distinct(ids.begin(), ids.end()), steps;
  size_t bits = 0;
  for (size_t i = 0; i < ids.size(); ++i) {
    EXPECT_NE(ids[i], ntohs(c->id));
    if (i > 0) steps.insert(static_cast<uint16_t>(ids[i] - ids[i - 1]));
    bits += static_cast<size_t>(__builtin_popcount(ids[i]));
    if (i % 64 == 0) {  // the 64 queries of a round are in flight together
      const auto round = ids.begin() + static_cast<long>(i);
      EXPECT_EQ(std::set<uint16_t>(round, round + 64).size(), 64u);
    }
  }
  // 10,048 draws from 65,536 values: about 9,317 distinct ones are expected
  // (a counter would give 10,048, a fixed value 1).
  EXPECT_GT(distinct.size(), 9150u);
  EXPECT_LT(distinct.size(), 9480u);
  EXPECT_GT(steps.size(), 9150u);
  EXPECT_NEAR(static_cast<double>(bits) / (16.0 * static_cast<double>(ids.size())), 0.5, 0.01);
  EXPECT_EQ(failures.size(), 5024u);  // every lookup timed out once
}

// Crafted responses: one response code per query type, -1 for no answer.
TEST_F(DnsChecks, EveryFailureReasonOnceFromTheCraftedResponder) {
  const struct {
    int a, aaaa;
    int reason;  // 0: no report
  } rows[] = {
      {2, 2, ASYNC_DNS_SERVFAIL},  {5, 5, ASYNC_DNS_REFUSED},   {3, 3, ASYNC_DNS_NXDOMAIN},
      {0, 0, ASYNC_DNS_NODATA},    {-1, -1, ASYNC_DNS_TIMEOUT}, {3, -1, ASYNC_DNS_NXDOMAIN},
      {-1, 2, ASYNC_DNS_SERVFAIL}, {0, 4, ASYNC_DNS_NODATA},    {1, 4, ASYNC_DNS_SERVFAIL},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(std::to_string(row.a) + "/" + std::to_string(row.aaaa));
    failures.clear();
    AsyncDnsContext *c = Open(kAllChecks, 60, 1);
    ASSERT_EQ(asyncLookup(c, kQ), 0);
    for (const DnsQuery &q : server_->Take(2)) {
      const int code = q.type() == 1 ? row.a : row.aaaa;
      if (code < 0) continue;
      Bytes b = Response(IdOf(q), kQ, 0, q.type()).b;
      b[3] = static_cast<uint8_t>(0x80 | code);
      // An error response's answers are not delivered.
      if (code != 0) b = Packet{b}.answer(q.type(), 300, q.type() == 1 ? V4("6.6.6.6") : V6("::6")).b;
      if (code != 0) b[7] = 1;
      ASSERT_TRUE(server_->Reply(q, b));
    }
    Pump(200);
    EXPECT_TRUE(answers.empty());
    EXPECT_EQ(failures, std::vector<std::string>{std::string(kQ) + " " + std::to_string(row.reason)});
  }
}

TEST_F(DnsChecks, FailureReasonsFromDnsmasq) {
  server_.reset();  // port 53 is dnsmasq's
  Dnsmasq dnsmasq({"--local=/test.lan/", "--host-record=v4.test.lan,192.0.2.4", "--txt-record=txt.test.lan,x"});
  AsyncDnsContext *c = Open(kAllChecks, 100, 20);  // dnsmasq may need a moment to start
  const std::vector<std::string> names = {"v4.test.lan", "nosuch.test.lan", "txt.test.lan", "other.org"};
  for (const auto &n : names) ASSERT_EQ(asyncLookup(c, n.c_str()), 0);
  Pump(3000, [] { return failures.size() == 3; });
  EXPECT_EQ(answers, std::vector<std::string>{"v4.test.lan: 192.0.2.4"});
  EXPECT_EQ(std::set<std::string>(failures.begin(), failures.end()),
            (std::set<std::string>{"nosuch.test.lan 1", "txt.test.lan 2", "other.org 4"}));
}

TEST_F(DnsChecks, ARetryRecoversALostAnswerAndATimeoutIsReportedOnce) {
  AsyncDnsContext *c = Open(ASYNC_DNS_CHECK_QUESTION, 100, 3);
  ASSERT_EQ(asyncLookup(c, kQ), 0);
  std::vector<DnsQuery> first = server_->Take(2);  // lost
  ASSERT_EQ(first.size(), 2u);
  Pump(150);
  std::vector<DnsQuery> again = server_->Take(2);
  ASSERT_EQ(again.size(), 2u);
  EXPECT_EQ(ToHex(again[0].bytes), ToHex(first[0].bytes));  // sent again, as it was
  ASSERT_TRUE(server_->Reply(again[0], Response(IdOf(again[0]), kQ, 1).answer(1, 300, V4("192.0.2.1")).b));
  ASSERT_TRUE(server_->Reply(again[1], Response(IdOf(again[1]), kQ, 0, 28).b));
  Pump(400);
  EXPECT_EQ(answers, std::vector<std::string>{"aaa.bbbbbbb.ccc: 192.0.2.1"});
  EXPECT_TRUE(failures.empty());
  EXPECT_EQ(Queries(), 0u);

  // Nobody answers: three sendings of each query, then one report.
  ASSERT_EQ(asyncLookup(c, "bbb.bbbbbbb.ccc"), 0);
  Pump(600);
  EXPECT_EQ(Queries(), 6u);
  EXPECT_EQ(failures, std::vector<std::string>{"bbb.bbbbbbb.ccc 5"});
}

TEST_F(DnsChecks, OneReadEventDrainsTheSocket) {
  AsyncDnsContext *c = Open(ASYNC_DNS_CHECK_QUESTION);
  const std::vector<std::string> names = {"a.ccc", "b.ccc", "c.ccc"};
  for (const auto &n : names) ASSERT_EQ(asyncLookup(c, n.c_str()), 0);
  std::vector<DnsQuery> q = server_->Take(6);
  ASSERT_EQ(q.size(), 6u);
  for (size_t i = 0; i < 6; i += 2)
    ASSERT_TRUE(server_->Reply(q[i], Response(IdOf(q[i]), names[i / 2], 1).answer(1, 0, V4("192.0.2.9")).b));
  usleep(50000);
  c->dnsSock.cb(&c->dnsSock, ULOOP_READ);
  EXPECT_EQ(answers.size(), 3u);
}

TEST_F(DnsChecks, SettingsBoundsAndUserData) {
  SyslogCapture log;
  ASSERT_TRUE(log.ok());
  AsyncDnsContext *c = Open(0);
  const struct {
    int got, want;
  } rows[] = {
      {asyncDns_setChecks(nullptr, 0), -1},       {asyncDns_setChecks(c, 8), -1},
      {asyncDns_setRetry(nullptr, 1, 1), -1},     {asyncDns_setFailureCallback(nullptr, Failed), -1},
      {asyncDns_setChecks(c, kAllChecks), 0},
  };
  for (const auto &row : rows) EXPECT_EQ(row.got, row.want);
  int mine = 0;
  EXPECT_EQ(asyncDns_getUserData(c), nullptr);
  asyncDns_setUserData(c, &mine);
  EXPECT_EQ(asyncDns_getUserData(c), &mine);
  EXPECT_EQ(asyncDns_getUserData(nullptr), nullptr);
  log.Take();
  for (int i = 0; i < 64; ++i) ASSERT_EQ(asyncLookup(c, kQ), 0);
  EXPECT_EQ(asyncLookup(c, kQ), -1);
  const DnsAddressEntry ptr = Entry("192.0.2.1");
  EXPECT_EQ(asyncLookupPtr(c, &ptr), -1);
  EXPECT_EQ(asyncLookup(c, std::string(254, 'x').c_str()), -1);
  EXPECT_EQ(log.TakeNormalized(),
            (std::vector<std::string>{"E [asyncLookup:N]error in flight(64)", "E [asyncLookupPtr:N]error in flight(64)",
                                      "E [asyncLookup:N]error name(254)"}));
  EXPECT_EQ(asyncDns_setChecks(c, 0), 0);
  EXPECT_EQ(asyncDns_setFailureCallback(c, nullptr), 0);  // untracked again: the table is forgotten
  EXPECT_EQ(asyncDns_setChecks(c, ASYNC_DNS_CHECK_SENDER), 0);
  EXPECT_EQ(asyncLookup(c, kQ), 0);
}

uint64_t fakeNow = 0;
uint64_t FakeClock() { return fakeNow; }

TEST(DnsCacheLimits, AHundredThousandNamesThroughAThousandAndATtlCap) {
  DnsCache *cache = DnsCacheCreate();
  ASSERT_NE(cache, nullptr);
  DnsCache_setMaxNames(cache, 1000);
  const DnsAddressEntry a = Entry("192.0.2.1");
  char name[32];
  auto nameOf = [&](int i) {
    snprintf(name, sizeof name, "host-%06d.example.lan", i);
    return name;
  };
  union {
    DnsResult result;
    uint8_t bytes[4 + 28];
  } out;
  size_t warm = 0;
  for (int i = 0; i < 100000; ++i) {
    DnsCache_Put(cache, nameOf(i), &a, 3600);
    if (i % 500 == 0) DnsCache_Get(cache, nameOf(0), &out.result, 1);  // name 0 stays in use
    if (i == 1999) warm = mallinfo2().uordblks;
  }
  EXPECT_EQ(cache->tree.count, 1000);
  EXPECT_LE(mallinfo2().uordblks, warm + 4096);
  EXPECT_EQ(DnsCache_Get(cache, nameOf(0), &out.result, 1), 0);
  EXPECT_EQ(DnsCache_Get(cache, nameOf(99000), &out.result, 1), -1);  // the least recently used went first
  EXPECT_EQ(DnsCache_Get(cache, nameOf(99999), &out.result, 1), 0);

  rk::dns::cacheClock = FakeClock;
  DnsCache_Clean(cache);
  DnsCache_setMaxCacheTime(cache, 60);
  DnsCache_setMinCacheTime(cache, 100);
  DnsCache_Put(cache, "capped", &a, 3600);  // cut to 60, then 100 added
  fakeNow += 160000;
  EXPECT_EQ(DnsCache_Get(cache, "capped", &out.result, 1), 0);
  fakeNow += 1;
  EXPECT_EQ(DnsCache_Get(cache, "capped", &out.result, 1), -1);
  rk::dns::cacheClock = GetTickCount;
  DnsCacheDestroy(cache);
}

}  // namespace
}  // namespace rk::test
