// The DNS cache: addresses per name in an AVL tree under one mutex, each
// address with its own expiry.
#include <routerkit/async_dns.h>
#include <routerkit/log.h>  // GetTickCount

#include <stdlib.h>
#include <string.h>

#include "common/raii.h"
#include "dns/cache.h"

namespace rk::dns {

TickSource cacheClock = GetTickCount;

namespace {

DnsCacheEntry *entryOf(struct avl_node *node) noexcept {
  // The node is the entry's first member.
  return reinterpret_cast<DnsCacheEntry *>(node);
}

DnsCacheEntry *entryOfUse(struct list_head *use) noexcept {
  return reinterpret_cast<DnsCacheEntry *>(reinterpret_cast<char *>(use) - offsetof(DnsCacheEntry, use));
}

// Frees each address of an entry, then the entry. Runs with the mutex held.
void DnsCache_FreeEntry(DnsCacheEntry *entry) noexcept {
  if (entry == nullptr) return;
  for (DnsCacheAddress *a = entry->addresses; a != nullptr;) {
    DnsCacheAddress *next = a->next;
    free(a);
    a = next;
  }
  free(entry);
}

// Takes an entry out of the tree and the use list and frees it. Runs with
// the mutex held.
void dropEntry(DnsCache *cache, DnsCacheEntry *entry) noexcept {
  avl_delete(&cache->tree, &entry->node);
  list_del(&entry->use);
  if (cache->recent == entry) cache->recent = nullptr;
  DnsCache_FreeEntry(entry);
}

// Drops the expired addresses of `name` and returns its entry, or null when
// nothing live is left (the entry is then gone too). Expiry is lazy: this is
// the only place where addresses die, and it runs only for the name at hand.
// Runs with the mutex held.
DnsCacheEntry *DnsCache_ExpireName(DnsCache *cache, const char *name) noexcept {
  if (name == nullptr) return nullptr;
  // The recent entry is in the tree, and names are unique there, so a name
  // equal to its name finds exactly the node a search would find.
  DnsCacheEntry *entry = cache->recent;
  if (entry == nullptr || strcmp(entry->name, name) != 0) {
    struct avl_node *node = avl_find(&cache->tree, name);
    if (node == nullptr) return nullptr;
    entry = entryOf(node);
    cache->recent = entry;
  }
  // Use is recorded only while there is a limit to enforce.
  if (cache->maxNames != 0 && cache->use.next != &entry->use) list_move(&entry->use, &cache->use);
  const uint64_t now = cacheClock();
  for (DnsCacheAddress **link = &entry->addresses; *link != nullptr;) {
    DnsCacheAddress *a = *link;
    if (a->expiry < now) {  // an address is still live at its very expiry tick
      *link = a->next;
      free(a);
    } else {
      link = &a->next;
    }
  }
  if (entry->addresses == nullptr) {
    dropEntry(cache, entry);
    return nullptr;
  }
  return entry;
}

// Resets the tree to empty, then frees the entries along its old ordered
// list. Runs with the mutex held.
void emptyTree(DnsCache *cache) noexcept {
  DnsCacheEntry *entry;
  DnsCacheEntry *tmp;
  cache->recent = nullptr;
  INIT_LIST_HEAD(&cache->use);
  avl_remove_all_elements(&cache->tree, entry, node, tmp) { DnsCache_FreeEntry(entry); }
}

DnsCacheEntry *allocateEntry(const char *name) noexcept {
  const size_t length = strlen(name);
  auto *entry = static_cast<DnsCacheEntry *>(malloc(offsetof(DnsCacheEntry, name) + length + 1));
  if (entry == nullptr) return nullptr;
  memset(entry, 0, offsetof(DnsCacheEntry, name));
  memcpy(entry->name, name, length + 1);
  entry->node.key = entry->name;
  return entry;
}

void linkEntry(DnsCache *cache, DnsCacheEntry *entry) noexcept {
  list_add(&entry->use, &cache->use);
  cache->recent = entry;
}

DnsCacheEntry *newEntry(DnsCache *cache, const char *name) noexcept {
  DnsCacheEntry *entry = allocateEntry(name);
  if (entry == nullptr) return nullptr;
  // A full cache makes room first, least recently used names first.
  while (cache->maxNames != 0 && static_cast<uint32_t>(cache->tree.count) >= cache->maxNames &&
         !list_empty(&cache->use)) {
    dropEntry(cache, entryOfUse(cache->use.prev));
  }
  avl_insert(&cache->tree, &entry->node);
  linkEntry(cache, entry);
  return entry;
}

// A name the tree lacks goes in with one search (avl_insert refuses a name
// it has); null when it was there, which then stays as it was.
DnsCacheEntry *insertIfNew(DnsCache *cache, const char *name) noexcept {
  DnsCacheEntry *entry = allocateEntry(name);
  if (entry == nullptr) return nullptr;
  if (avl_insert(&cache->tree, &entry->node) != 0) {
    free(entry);
    return nullptr;
  }
  linkEntry(cache, entry);
  return entry;
}

DnsCacheAddress *findOrAddAddress(DnsCacheEntry *entry, const DnsAddressEntry *address) noexcept {
  for (DnsCacheAddress *a = entry->addresses; a != nullptr; a = a->next) {
    if (memcmp(&a->address, address, sizeof a->address) == 0) return a;  // a refresh keeps its place
  }
  auto *a = static_cast<DnsCacheAddress *>(malloc(sizeof(DnsCacheAddress)));
  if (a == nullptr) return nullptr;
  memcpy(&a->address, address, sizeof a->address);
  a->expiry = 0;
  a->next = entry->addresses;  // newest at the head
  entry->addresses = a;
  return a;
}

}  // namespace

DnsCache *createCache() noexcept {
  auto *cache = static_cast<DnsCache *>(calloc(1, sizeof(DnsCache)));
  if (cache == nullptr) return nullptr;
  avl_init(&cache->tree, avl_strcmp, false, nullptr);
  INIT_LIST_HEAD(&cache->use);
  if (pthread_mutex_init(&cache->mutex, nullptr) != 0) {
    free(cache);
    return nullptr;
  }
  return cache;
}

void destroyCache(DnsCache *cache) noexcept {
  {
    MutexLock lock(&cache->mutex);
    emptyTree(cache);
  }
  pthread_mutex_destroy(&cache->mutex);
  free(cache);
}

void cleanCache(DnsCache *cache) noexcept {
  MutexLock lock(&cache->mutex);
  emptyTree(cache);
}

int cacheGet(DnsCache *cache, const char *name, DnsResult *result, int maxCount) noexcept {
  if (name == nullptr || result == nullptr || cache == nullptr) return -1;
  MutexLock lock(&cache->mutex);
  const DnsCacheEntry *entry = DnsCache_ExpireName(cache, name);
  if (entry == nullptr) return -1;
  int32_t count = 0;
  for (const DnsCacheAddress *a = entry->addresses; a != nullptr && count < maxCount; a = a->next) {
    result->slots[count++] = a->address;
  }
  result->count = count;
  return 0;
}

void cachePut(DnsCache *cache, const char *name, const DnsAddressEntry *address, uint32_t ttl) noexcept {
  if (cache == nullptr || name == nullptr || address == nullptr || ttl == 0) return;
  MutexLock lock(&cache->mutex);
  // Most puts are of a name the cache lacks, or of the one before it: the
  // first goes in with one search, the second is found with none. Without
  // a limit only, so that no name is made room for that was there.
  DnsCacheEntry *entry = nullptr;
  if (cache->maxNames == 0 && (cache->recent == nullptr || strcmp(cache->recent->name, name) != 0)) {
    entry = insertIfNew(cache, name);
  }
  if (entry == nullptr) entry = DnsCache_ExpireName(cache, name);
  if (entry == nullptr) {
    entry = newEntry(cache, name);
    // Without memory for the address the new entry stays empty; the next
    // expiry walk over this name removes it.
    if (entry == nullptr) return;
  }
  DnsCacheAddress *a = findOrAddAddress(entry, address);
  if (a == nullptr) return;
  // A repeat overwrites the expiry, which may shorten it.
  a->expiry =
      cacheClock() + static_cast<uint64_t>(cacheLifetimeMs(ttl, cache->minCacheTime, cache->maxCacheTime));
}

}  // namespace rk::dns

extern "C" {

DnsCache *DnsCacheCreate(void) { return rk::dns::createCache(); }

void DnsCacheDestroy(DnsCache *cache) {
  if (cache != nullptr) rk::dns::destroyCache(cache);
}

int DnsCache_Get(DnsCache *cache, const char *name, DnsResult *result, int maxCount) {
  return rk::dns::cacheGet(cache, name, result, maxCount);
}

void DnsCache_Put(DnsCache *cache, const char *name, const DnsAddressEntry *address, uint32_t ttl) {
  rk::dns::cachePut(cache, name, address, ttl);
}

void DnsCache_Clean(DnsCache *cache) {
  if (cache != nullptr) rk::dns::cleanCache(cache);
}

void DnsCache_setMinCacheTime(DnsCache *cache, uint32_t seconds) {
  if (cache != nullptr) cache->minCacheTime = seconds;
}

void DnsCache_setMaxNames(DnsCache *cache, uint32_t maxNames) {
  if (cache != nullptr) cache->maxNames = maxNames;
}

void DnsCache_setMaxCacheTime(DnsCache *cache, uint32_t seconds) {
  if (cache != nullptr) cache->maxCacheTime = seconds;
}

}  // extern "C"
