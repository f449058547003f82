// The DNS cache's records. Public callers see DnsCache as an opaque handle;
// the resolver and the unit tests see its parts through this header.
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "common/deps.h"
#include <routerkit/async_dns.h>

namespace rk::dns {

// One address of a name, with the tick (ms) up to which it counts as live.
struct DnsCacheAddress {
  DnsAddressEntry address;  // all 28 bytes, compared as a whole
  uint64_t expiry;
  DnsCacheAddress *next;
};

// One name. The node comes first so that the node avl_find returns is the
// entry itself; the name lives inline behind the fields, in the same block.
struct DnsCacheEntry {
  struct avl_node node;        // key points at name
  DnsCacheAddress *addresses;  // newest first; null when empty
  struct list_head use;        // in DnsCache::use, most recently read or written first
  char name[];
};

// The cache's one clock: GetTickCount. Kept as a pointer so that unit tests
// can step time to the millisecond; nothing in the library changes it.
using TickSource = uint64_t (*)();
extern TickSource cacheClock;

// What the exported DnsCache functions do, for callers inside the library.
// The first three want a cache that is not null; cacheGet and cachePut check
// their arguments as DnsCache_Get and DnsCache_Put do.
DnsCache *createCache() noexcept;
void destroyCache(DnsCache *cache) noexcept;
void cleanCache(DnsCache *cache) noexcept;
int cacheGet(DnsCache *cache, const char *name, DnsResult *result, int maxCount) noexcept;
void cachePut(DnsCache *cache, const char *name, const DnsAddressEntry *address, uint32_t ttl) noexcept;

// The addresses `minCacheTime` and `ttl` give, in milliseconds: the minimum
// is added to a shorter ttl (not taken instead of it), in 32 bits, and the
// product with 1000 wraps in 32 bits too. A cap (`maxCacheTime`, 0 for none)
// cuts the ttl first.
constexpr uint32_t cacheLifetimeMs(uint32_t ttl, uint32_t minCacheTime, uint32_t maxCacheTime = 0) noexcept {
  if (maxCacheTime != 0 && ttl > maxCacheTime) ttl = maxCacheTime;
  return (minCacheTime > ttl ? ttl + minCacheTime : ttl) * 1000u;
}

}  // namespace rk::dns

struct DnsCache {
  struct avl_tree tree;  // of rk::dns::DnsCacheEntry, avl_strcmp, no duplicates
  pthread_mutex_t mutex;
  uint32_t minCacheTime;  // seconds
  // The entry the last search found or the last put created, or null; never
  // one that has been freed. Answers come in runs for one name (A, then
  // AAAA, from each server), so this spares most of their tree searches.
  rk::dns::DnsCacheEntry *recent;
  // Every entry, most recently read or written first: the last one goes
  // when a new name would pass maxNames (0: no limit).
  struct list_head use;
  uint32_t maxNames;
  uint32_t maxCacheTime;  // seconds; 0: no cap
};
