#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>

#include "common/logmsg.h"
#include "dns/cache.h"
#include "dns/codec.h"
#include "dns/internal.h"

namespace rk {
namespace dns {

void ChangeAddrToDnsName(const void *address, char *out) noexcept {
  // Offset 4 holds the IPv4 address in both a DnsAddressEntry and a sockaddr_in.
  struct in_addr ipv4;
  memcpy(&ipv4, static_cast<const uint8_t *>(address) + offsetof(DnsAddressEntry, ipv4), sizeof ipv4);
  char text[kPtrAddressTextSize] = {};
  if (inet_ntop(AF_INET, &ipv4, text, sizeof text) == nullptr) {
    RK_LOG_ERROR("inet_ntop");
    return;
  }
  const int length = static_cast<int>(strlen(text));
  ReverseDnsName(out, text, length);
  static constexpr char kSuffix[] = ".in-addr.arpa";
  strncpy(out + length, kSuffix, static_cast<size_t>(kPtrNameSize - 1 - length));
}

namespace {

// Sends a built query for A or PTR first to the IPv4 servers, then to the IPv6 ones.
void sendToAll(AsyncDnsContext *context, const uint8_t *query, size_t length) noexcept {
  sendDnsQuery(context, query, static_cast<int32_t>(length));
  sendDnsQuery6(context, query, static_cast<int32_t>(length));
}

}  // namespace
}  // namespace dns
}  // namespace rk

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
    if (cacheGet(context->cache, name, cached, kLookupCacheSlots) == 0 && cached->count > 0) {
      context->callback(context, name, cached);
      return 0;
    }
  }

  // The limit is the buffer, not a DNS rule.
  const size_t length = strlen(name);
  if (length + kQueryOverhead > sizeof buffer) return -1;
  const size_t size = BuildQuery(buffer, context->id, name, length, kTypeA);
  sendToAll(context, buffer, size);
  SetQueryType(buffer, length, kTypeAaaa);
  sendToAll(context, buffer, size);
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
  sendToAll(context, query, size);
  return 0;
}

}  // extern "C"
