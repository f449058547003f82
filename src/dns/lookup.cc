// Lookups: a name or an IPv4 address is asked of every server at once, or a
// name is answered from the cache inside the call.
#include <routerkit/async_dns.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>

#include "dns/cache.h"
#include "dns/codec.h"
#include "dns/query.h"
#include "dns/tracker.h"

namespace rk::dns {
namespace {

constexpr uint16_t kAddressTypes[kQueriesPerLookup] = {kTypeA, kTypeAaaa};
constexpr uint16_t kPointerType = kTypePtr;

int lookup(AsyncDnsContext *context, const char *name) noexcept {
  // One buffer serves first as the DnsResult of a cache hit and then, after
  // a miss (which writes nothing), as the query, zeroed as far as it goes.
  alignas(DnsResult) uint8_t buffer[kLookupBufferSize];

  // Without a callback nobody could take a cached answer, so the cache is
  // not read at all.
  if (context->cache != nullptr && context->callback != nullptr) {
    auto *cached = reinterpret_cast<DnsResult *>(buffer);
    if (cacheGet(context->cache, name, cached, kLookupCacheSlots) == 0) {  // only ever with addresses
      context->callback(context, name, cached);
      return 0;
    }
  }

  const size_t length = strlen(name);
  if (isTracked(extensionOf(context))) {
    return startTrackedLookup(context, name, length, kAddressTypes, kQueriesPerLookup, "asyncLookup");
  }
  // The limit is the buffer, not a DNS rule.
  if (length + kQueryOverhead > sizeof buffer) return -1;
  memset(buffer, 0, length + kQueryOverhead);
  const size_t size = buildQuery(buffer, context->id, name, length, kTypeA);
  sendToAll(context, buffer, size);
  setQueryType(buffer, length, kTypeAaaa);
  sendToAll(context, buffer, size);
  return 0;
}

int lookupPtr(AsyncDnsContext *context, const void *address) noexcept {
  uint8_t query[kPtrQueryBufferSize] = {};
  char name[kPtrNameSize] = {};
  // A failed conversion leaves the name empty, and the empty question goes out.
  ChangeAddrToDnsName(address, name);
  if (isTracked(extensionOf(context))) {
    return startTrackedLookup(context, name, strlen(name), &kPointerType, 1, "asyncLookupPtr");
  }
  const size_t size = buildQuery(query, context->id, name, strlen(name), kTypePtr);
  sendToAll(context, query, size);
  return 0;
}

}  // namespace
}  // namespace rk::dns

extern "C" {

int asyncLookup(AsyncDnsContext *context, const char *name) {
  if (context == nullptr || name == nullptr) return -1;
  return rk::dns::lookup(context, name);
}

int asyncLookupPtr(AsyncDnsContext *context, const void *address) {
  if (context == nullptr || address == nullptr) return -1;
  return rk::dns::lookupPtr(context, address);
}

}  // extern "C"
