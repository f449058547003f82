// The DNS cache: expiry arithmetic, lazy expiry at the exact tick, order of
// addresses, slot limits and the life of names. Time is stepped by hand
// through the cache's clock pointer.
#include <gtest/gtest.h>

#include <string>

#include "dns/cache.h"
#include "dns_test.h"
#include <routerkit/log.h>

namespace rk::test {
namespace {

uint64_t fakeNow = 0;
uint64_t fakeClock() { return fakeNow; }

class DnsCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fakeNow = 1000000;
    rk::dns::cacheClock = fakeClock;
    cache_ = DnsCacheCreate();
    ASSERT_NE(cache_, nullptr);
  }
  void TearDown() override {
    DnsCacheDestroy(cache_);
    rk::dns::cacheClock = GetTickCount;
  }

  void put(const char *name, const DnsAddressEntry &a, uint32_t ttl) { DnsCache_Put(cache_, name, &a, ttl); }

  std::string get(const char *name, int maxCount = 8) { return Cached(cache_, name, maxCount); }

  unsigned names() const { return cache_->tree.count; }

  DnsCache *cache_ = nullptr;
};

TEST_F(DnsCacheTest, LifetimeArithmetic) {
  const struct { uint32_t minCacheTime, ttl; uint64_t lifetimeMs; } rows[] = {
      {0, 300, 300000}, {60, 30, 90000} /* the minimum is added to a shorter ttl */, {60, 60, 60000},
      {0, 4294967, 4294967000}, {0, 4294968, 704} /* 4294968000 wraps in 32 bits */,
      {4294967295u, 2, 1000} /* the sum has 32 bits too */,
  };
  for (const auto &row : rows) {
    SCOPED_TRACE("min " + std::to_string(row.minCacheTime) + " ttl " + std::to_string(row.ttl));
    DnsCache_Clean(cache_);
    DnsCache_setMinCacheTime(cache_, row.minCacheTime);
    const uint64_t start = fakeNow = 5000000000ull;  // above 2^32: ticks are kept at 64 bits
    put("aaa.bbbbbbb.ccc", Entry("1.2.3.4"), row.ttl);
    fakeNow = start + row.lifetimeMs;
    EXPECT_EQ(get("aaa.bbbbbbb.ccc"), "1.2.3.4");
    fakeNow = start + row.lifetimeMs + 1;
    EXPECT_EQ(get("aaa.bbbbbbb.ccc"), "absent");
    EXPECT_EQ(names(), 0u) << "the last address takes its name with it";
    EXPECT_EQ(rk::dns::cacheLifetimeMs(row.ttl, row.minCacheTime), row.lifetimeMs);
  }
}

TEST_F(DnsCacheTest, NewestFirstAndRefreshKeepsThePlace) {
  put("aaa.bbbbbbb.ccc", Entry("1.1.1.1"), 100);
  put("aaa.bbbbbbb.ccc", Entry("2.2.2.2"), 100);
  EXPECT_EQ(get("aaa.bbbbbbb.ccc"), "2.2.2.2 1.1.1.1");
  put("aaa.bbbbbbb.ccc", Entry("1.1.1.1"), 500);
  EXPECT_EQ(get("aaa.bbbbbbb.ccc"), "2.2.2.2 1.1.1.1");
  // The refresh set a new expiry for 1.1.1.1 only.
  fakeNow += 100001;
  EXPECT_EQ(get("aaa.bbbbbbb.ccc"), "1.1.1.1");
}

TEST_F(DnsCacheTest, EachAddressExpiresOnItsOwn) {
  put("long-then-short", Entry("1.1.1.1"), 300);
  put("long-then-short", Entry("2.2.2.2"), 10);
  put("short-then-long", Entry("2.2.2.2"), 10);
  put("short-then-long", Entry("1.1.1.1"), 300);
  put("middle", Entry("1.1.1.1"), 300);
  put("middle", Entry("::2"), 10);
  put("middle", Entry("3.3.3.3"), 300);
  fakeNow += 10001;
  EXPECT_EQ(get("long-then-short"), "1.1.1.1");
  EXPECT_EQ(get("short-then-long"), "1.1.1.1");
  EXPECT_EQ(get("middle"), "3.3.3.3 1.1.1.1");
}

TEST_F(DnsCacheTest, MaxCountLimitsTheSlots) {
  put("n", Entry("1.1.1.1"), 100);
  put("n", Entry("2.2.2.2"), 100);
  put("n", Entry("2001:db8::3"), 100);
  EXPECT_EQ(get("n", 2), "2001:db8::3 2.2.2.2");
  EXPECT_EQ(get("n", 0), "");
  EXPECT_EQ(get("n", -1), "");

  // On an absent name the count stays as it was.
  union { DnsResult result; uint8_t bytes[sizeof(DnsResult) + sizeof(DnsAddressEntry)]; } buf = {{77}};
  EXPECT_EQ(DnsCache_Get(cache_, "other", &buf.result, 0), -1);
  EXPECT_EQ(DnsCache_Get(cache_, "other", &buf.result, 1), -1);
  EXPECT_EQ(buf.result.count, 77);
}

TEST_F(DnsCacheTest, ZeroTtlChangesNothingNotEvenExpiredAddresses) {
  put("n", Entry("1.1.1.1"), 1);
  fakeNow += 5000;
  put("n", Entry("2.2.2.2"), 0);
  EXPECT_EQ(names(), 1u) << "the expired address was not even looked at";
  EXPECT_EQ(get("n"), "absent");
  EXPECT_EQ(names(), 0u);
  put("m", Entry("2.2.2.2"), 0);
  EXPECT_EQ(names(), 0u);
}

}  // namespace
}  // namespace rk::test
