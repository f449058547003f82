#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>

#include "dns/cache.h"
#include "dns/codec.h"
#include "dns/internal.h"


extern "C" {

int asyncLookup(AsyncDnsContext *context, const char *name) {
  using namespace rk::dns;
  // One buffer serves first as the DnsResult of a cache hit and then, still
  // all zero after a miss, as the query.
  alignas(DnsResult) uint8_t buffer[kLookupBufferSize];
  memset(buffer, 0, sizeof buffer);
  if (context == nullptr || name == nullptr) return -1;

  // Without a callback nobody could take a cached answer, so the cache is
  // not read at all.
  if (context->cache != nullptr && context->callback != nullptr) {
    auto *cached = reinterpret_cast<DnsResult *>(buffer);
    if (cache_get(context->cache, name, cached, kLookupCacheSlots) == 0) {  // only ever with addresses
      context->callback(context, name, cached);
      return 0;
    }
  }

  // The limit is the buffer, not a DNS rule.
  const size_t length = strlen(name);
  if (length + kQueryOverhead > sizeof buffer) return -1;
  const size_t size = BuildQuery(buffer, context->id, name, length, kTypeA);
  send_to_all(context, buffer, size);
  SetQueryType(buffer, length, kTypeAaaa);
  send_to_all(context, buffer, size);
  return 0;
}

int asyncLookupPtr(AsyncDnsContext *context, const void *address) {
  using namespace rk::dns;
  uint8_t query[kPtrQueryBufferSize];
  char name[kPtrNameSize];
  memset(query, 0, sizeof query);
  memset(name, 0, sizeof name);
  if (context == nullptr || address == nullptr) return -1;

  // A failed conversion leaves the name empty, and the empty question goes out.
  ChangeAddrToDnsName(address, name);
  const size_t size = BuildQuery(query, context->id, name, strlen(name), kTypePtr);
  send_to_all(context, query, size);
  return 0;
}

}  // extern "C"
