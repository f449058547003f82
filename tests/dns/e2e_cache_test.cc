// The cache as a daemon sees it through the client: what answers put in,
// lookups answered from it inside asyncLookup without a datagram, the order
// of addresses, TTL 0, the minimum cache time and expiry to the millisecond.
//
// Expiry tests step the cache's clock (rk::dns::cacheClock, the library's
// hook for exactly this) instead of waiting for real seconds.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dns/cache.h"
#include "dns_e2e_fixture.h"

namespace rk {
namespace test {
namespace {

constexpr char kName[] = "aaa.bbbbbbb.ccc";

uint64_t g_now = 0;
uint64_t fakeTick() { return g_now; }

class CacheTest : public DnsE2eTest {
 protected:
  void SetUp() override {
    DnsE2eTest::SetUp();
    prime();
  }
  void TearDown() override {
    if (savedClock_) rk::dns::cacheClock = savedClock_;
    DnsE2eTest::TearDown();
  }
  void useFakeClock(uint64_t now) {
    if (!savedClock_) savedClock_ = rk::dns::cacheClock;
    g_now = now;
    rk::dns::cacheClock = &fakeTick;
  }

  // asyncLookup, telling whether the cache answered (the callback ran inside
  // the call) and whether queries went out (they reach the responder, whose
  // queue is checked behind a second lookup that always goes out).
  struct Outcome {
    std::vector<std::string> inside;
    std::vector<std::string> queried;
  };
  Outcome lookup(const std::string &name) {
    Outcome out;
    responder_->clear();
    size_t before = Recorder::answers().size();
    {
      Recorder::LookupScope scope;
      EXPECT_EQ(asyncLookup(context(), name.c_str()), 0);
    }
    for (size_t i = before; i < Recorder::answers().size(); ++i) {
      EXPECT_TRUE(Recorder::answers()[i].duringLookup);
      out.inside.push_back(Recorder::answers()[i].line);
    }
    EXPECT_EQ(asyncLookup(context(), "marker.test"), 0);
    EXPECT_TRUE(runUntil([&] {
      size_t markers = 0;
      for (const auto &q : responder_->queries()) markers += q.name() == "marker.test";
      return markers == 4;
    }));
    for (const auto &q : responder_->queries()) {
      if (q.name() != "marker.test") out.queried.push_back(q.name() + (q.type() == kTypeA ? " A" : " AAAA"));
    }
    // Two sockets of the responder: the order between them is the loop's.
    std::sort(out.queried.begin(), out.queried.end());
    return out;
  }

  rk::dns::TickSource savedClock_ = nullptr;
};

const std::vector<std::string> kQueried = {"aaa.bbbbbbb.ccc A", "aaa.bbbbbbb.ccc A", "aaa.bbbbbbb.ccc AAAA",
                                           "aaa.bbbbbbb.ccc AAAA"};

TEST_F(CacheTest, HitAnswersInsideTheLookupWithoutSending) {
  ASSERT_TRUE(deliver(reply().answer(Rr::A("192.0.2.1")).answer(Rr::AAAA("2001:db8::1")).build()));
  Recorder::clear();
  Outcome o = lookup(kName);
  // Newest first: the AAAA record was put after the A record.
  EXPECT_EQ(o.inside, std::vector<std::string>{"aaa.bbbbbbb.ccc: 2001:db8::1, 192.0.2.1"});
  EXPECT_EQ(o.queried, std::vector<std::string>());
}

TEST_F(CacheTest, MissSendsAndNamesAreCaseSensitive) {
  ASSERT_TRUE(deliver(reply("bbbbbbb.ccc").answer(Rr::A("192.0.2.1")).build()));
  Outcome o = lookup("Bbbbbbb.ccc");
  EXPECT_EQ(o.inside, std::vector<std::string>());
  EXPECT_EQ(o.queried, (std::vector<std::string>{"Bbbbbbb.ccc A", "Bbbbbbb.ccc A", "Bbbbbbb.ccc AAAA",
                                                 "Bbbbbbb.ccc AAAA"}));
}

TEST_F(CacheTest, NewestFirstAndARepeatKeepsItsPlace) {
  ASSERT_TRUE(deliver(reply().answer(Rr::A("192.0.2.1")).build()));
  ASSERT_TRUE(deliver(reply().answer(Rr::A("192.0.2.2")).answer(Rr::A("192.0.2.1")).build()));
  ASSERT_TRUE(deliver(reply().answer(Rr::AAAA("2001:db8::3")).build(), AF_INET6));
  EXPECT_EQ(lookup(kName).inside, std::vector<std::string>{"aaa.bbbbbbb.ccc: 2001:db8::3, 192.0.2.2, 192.0.2.1"});
}

TEST_F(CacheTest, TtlZeroLeavesTheNameToTheNetwork) {
  ASSERT_TRUE(deliver(reply().answer(Rr::A("192.0.2.1").withTtl(0)).build()));
  EXPECT_EQ(Recorder::lines(), std::vector<std::string>{"aaa.bbbbbbb.ccc: 192.0.2.1"});
  Outcome o = lookup(kName);
  EXPECT_EQ(o.inside, std::vector<std::string>());
  EXPECT_EQ(o.queried, kQueried);
}

TEST_F(CacheTest, AHitHoldsAtMost73Addresses) {
  // 80 addresses in five datagrams of 16; the hit gives the newest 73.
  for (int d = 0; d < 5; ++d) {
    DnsPacket p = reply();
    for (int i = 0; i < 16; ++i) p.answer(Rr::A("10.0." + std::to_string(d) + "." + std::to_string(i)));
    ASSERT_TRUE(deliver(p.build()));
  }
  Outcome o = lookup(kName);
  ASSERT_EQ(o.inside.size(), 1u);
  std::string want = std::string(kName) + ":";
  int n = 0;
  for (int d = 4; d >= 0 && n < 73; --d)
    for (int i = 15; i >= 0 && n < 73; --i, ++n) want += (n ? ", 10.0." : " 10.0.") + std::to_string(d) + "." + std::to_string(i);
  EXPECT_EQ(o.inside[0], want);
  EXPECT_EQ(o.queried, std::vector<std::string>());
}

TEST_F(CacheTest, ExpiryAtTheExactTick) {
  useFakeClock(5000000);
  ASSERT_TRUE(deliver(reply().answer(Rr::A("192.0.2.1").withTtl(1)).answer(Rr::A("192.0.2.2").withTtl(2)).build()));

  g_now = 5001000;  // the first address's last live millisecond
  EXPECT_EQ(lookup(kName).inside, std::vector<std::string>{"aaa.bbbbbbb.ccc: 192.0.2.2, 192.0.2.1"});
  g_now = 5001001;  // one millisecond later it is gone, the other one stays
  EXPECT_EQ(lookup(kName).inside, std::vector<std::string>{"aaa.bbbbbbb.ccc: 192.0.2.2"});
  g_now = 5002000;
  EXPECT_EQ(lookup(kName).inside, std::vector<std::string>{"aaa.bbbbbbb.ccc: 192.0.2.2"});
  g_now = 5002001;  // the last one gone: the name goes to the network again
  Outcome o = lookup(kName);
  EXPECT_EQ(o.inside, std::vector<std::string>());
  EXPECT_EQ(o.queried, kQueried);
}

TEST_F(CacheTest, MinimumCacheTimeIsAddedToAShorterTtl) {
  useFakeClock(1000000);
  EXPECT_EQ(asyncDns_setMinDnsCache(context(), 60), 0);
  ASSERT_TRUE(deliver(reply("short.lan").answer(Rr::A("192.0.2.1").withTtl(30)).build()));  // 90 s
  ASSERT_TRUE(deliver(reply("long.lan").answer(Rr::A("192.0.2.2").withTtl(61)).build()));   // 61 s
  g_now = 1061000;
  EXPECT_EQ(lookup("long.lan").inside, std::vector<std::string>{"long.lan: 192.0.2.2"});
  g_now = 1061001;
  EXPECT_EQ(lookup("long.lan").inside, std::vector<std::string>());
  g_now = 1090000;
  EXPECT_EQ(lookup("short.lan").inside, std::vector<std::string>{"short.lan: 192.0.2.1"});
  g_now = 1090001;
  EXPECT_EQ(lookup("short.lan").inside, std::vector<std::string>());
}

TEST_F(CacheTest, CleanCacheForgetsEveryName) {
  ASSERT_TRUE(deliver(reply().answer(Rr::A("192.0.2.1")).build()));
  ASSERT_TRUE(deliver(reply("other.lan").answer(Rr::A("192.0.2.2")).build()));
  EXPECT_EQ(asyncDns_cleanCache(context()), 0);
  EXPECT_EQ(asyncDns_cleanCache(nullptr), 0);
  EXPECT_EQ(lookup(kName).queried, kQueried);
  EXPECT_EQ(cachedLine(context()->cache, "other.lan"), "other.lan: (absent)");
  // Usable afterwards.
  ASSERT_TRUE(deliver(reply().answer(Rr::A("192.0.2.3")).build()));
  EXPECT_EQ(lookup(kName).inside, std::vector<std::string>{"aaa.bbbbbbb.ccc: 192.0.2.3"});
}

// A context without a callback never reads its cache, but its answers still
// fill it.
TEST(CacheWithoutCallback, AnswersFillTheCacheAndLookupsStillGoOut) {
  ASSERT_TRUE(insideTestNamespace());
  uloop_init();
  {
    SyslogCapture log;
    DnsResponder r;
    ASSERT_TRUE(r.ok());
    ContextPtr c(asyncDns_create(nullptr));
    ASSERT_TRUE(c);
    ASSERT_EQ(asyncDns_AddServer(c.get(), "127.0.0.1"), 0);
    ASSERT_EQ(asyncLookup(c.get(), kName), 0);
    ASSERT_TRUE(runLoopUntil([&] { return r.queries().size() == 2; }));
    for (const auto &q : r.queries()) {
      DnsPacket p = DnsPacket::replyTo(q.bytes);
      p.answer(q.type() == kTypeA ? Rr::A("192.0.2.1") : Rr::AAAA("2001:db8::1"));
      ASSERT_TRUE(r.reply(q, p.build()));
    }
    ASSERT_TRUE(runLoopUntil([&] { return cachedLine(c->cache, kName).find("192.0.2.1") != std::string::npos &&
                                          cachedLine(c->cache, kName).find("2001:db8::1") != std::string::npos; }));
    r.clear();
    ASSERT_EQ(asyncLookup(c.get(), kName), 0);
    ASSERT_TRUE(runLoopUntil([&] { return r.queries().size() == 2; }));
    EXPECT_EQ(r.queries()[0].name(), kName);
  }
  uloop_done();
}

}  // namespace
}  // namespace test
}  // namespace rk
