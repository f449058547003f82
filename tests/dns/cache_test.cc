// The DNS cache: expiry arithmetic, lazy expiry at the exact tick, order of
// addresses, slot limits, the life of names and the bounds on names and
// lifetimes. Time is stepped by hand through the cache's clock pointer.
#include <gtest/gtest.h>
#include <malloc.h>

#include <string>

#include "dns/cache.h"
#include "dns_test.h"
#include <routerkit/log.h>

namespace rk::test {
namespace {

uint64_t fakeNow = 0;

class DnsCacheTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fakeNow = 1000000;
    rk::dns::cacheClock = [] { return fakeNow; };
    ASSERT_NE(cache_, nullptr);
  }
  void TearDown() override { DnsCacheDestroy(cache_), rk::dns::cacheClock = GetTickCount; }
  void put(const std::string &name, const char *address, uint32_t ttl) {
    const DnsAddressEntry a = Entry(address);
    DnsCache_Put(cache_, name.c_str(), &a, ttl);
  }
  std::string get(const char *name, int maxCount = 8) { return Cached(cache_, name, maxCount); }
  DnsCache *cache_ = DnsCacheCreate();
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
    put("aaa.bbbbbbb.ccc", "1.2.3.4", row.ttl);
    fakeNow = start + row.lifetimeMs;
    EXPECT_EQ(get("aaa.bbbbbbb.ccc"), "1.2.3.4");
    fakeNow = start + row.lifetimeMs + 1;
    EXPECT_EQ(get("aaa.bbbbbbb.ccc"), "absent");
    EXPECT_EQ(cache_->tree.count, 0u) << "the last address takes its name with it";
    EXPECT_EQ(rk::dns::cacheLifetimeMs(row.ttl, row.minCacheTime), row.lifetimeMs);
  }
}

TEST_F(DnsCacheTest, NewestFirstARefreshKeepsThePlaceAndEachAddressExpiresOnItsOwn) {
  put("n", "1.1.1.1", 100);
  put("n", "2.2.2.2", 100);
  EXPECT_EQ(get("n"), "2.2.2.2 1.1.1.1");
  put("n", "1.1.1.1", 500);  // a new expiry for 1.1.1.1 only
  EXPECT_EQ(get("n"), "2.2.2.2 1.1.1.1");
  for (const char *a : {"1.1.1.1", "2.2.2.2"}) put("long-then-short", a, a[0] == '1' ? 300 : 10);
  for (const char *a : {"2.2.2.2", "1.1.1.1"}) put("short-then-long", a, a[0] == '1' ? 300 : 10);
  for (const char *a : {"1.1.1.1", "::2", "3.3.3.3"}) put("middle", a, a[0] == ':' ? 10 : 300);
  fakeNow += 10001;
  EXPECT_EQ(get("long-then-short") + "|" + get("short-then-long") + "|" + get("middle"),
            "1.1.1.1|1.1.1.1|3.3.3.3 1.1.1.1");
  fakeNow += 90000;
  EXPECT_EQ(get("n"), "1.1.1.1");
}

TEST_F(DnsCacheTest, MaxCountLimitsTheSlots) {
  for (const char *a : {"1.1.1.1", "2.2.2.2", "2001:db8::3"}) put("n", a, 100);
  EXPECT_EQ(get("n", 2), "2001:db8::3 2.2.2.2");
  EXPECT_EQ(get("n", 0) + get("n", -1), "");
  // On an absent name the count stays as it was.
  union { DnsResult result; uint8_t bytes[sizeof(DnsResult) + sizeof(DnsAddressEntry)]; } buf = {{77}};
  EXPECT_EQ(DnsCache_Get(cache_, "other", &buf.result, 0) + DnsCache_Get(cache_, "other", &buf.result, 1), -2);
  EXPECT_EQ(buf.result.count, 77);
}

TEST_F(DnsCacheTest, ZeroTtlChangesNothingNotEvenExpiredAddresses) {
  put("n", "1.1.1.1", 1);
  fakeNow += 5000;
  put("n", "2.2.2.2", 0);
  EXPECT_EQ(cache_->tree.count, 1u) << "the expired address was not even looked at";
  EXPECT_EQ(get("n"), "absent");
  put("m", "2.2.2.2", 0);
  EXPECT_EQ(cache_->tree.count, 0u);
}

// Heap bytes in use; musl keeps no such count, so there the bound is not held.
size_t HeapInUse() {
#ifdef __GLIBC__
  return mallinfo2().uordblks;
#else
  return 0;
#endif
}

TEST_F(DnsCacheTest, AHundredThousandNamesThroughAThousandAndATtlCap) {
  DnsCache_setMaxNames(cache_, 1000);
  size_t warm = 0;
  for (int i = 0; i < 100000; ++i) {
    put("host-" + std::to_string(i), "192.0.2.1", 3600);  // short enough for no heap of its own
    if (i % 500 == 0) get("host-0");                        // stays in use
    if (i == 1999) warm = HeapInUse();
  }
  EXPECT_EQ(cache_->tree.count, 1000u);
  EXPECT_LE(HeapInUse(), warm + 4096);
  // The least recently used went first: host-0 was read, host-99000 is the 1001st newest.
  EXPECT_EQ(get("host-0") + "|" + get("host-99000"), "192.0.2.1|absent");
  DnsCache_setMaxCacheTime(cache_, 60);
  DnsCache_setMinCacheTime(cache_, 100);
  put("capped", "192.0.2.1", 3600);  // cut to 60, then 100 added
  fakeNow += 160000;
  EXPECT_EQ(get("capped"), "192.0.2.1");
  fakeNow += 1;
  EXPECT_EQ(get("capped"), "absent");
}

}  // namespace
}  // namespace rk::test
