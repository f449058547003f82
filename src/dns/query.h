// The query side of the DNS client: the lookups' buffers and the senders
// that put a built query in front of every server.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

#include "common/deps.h"
#include <routerkit/async_dns.h>

namespace rk::dns {

constexpr size_t kLookupBufferSize = 2048;  // cache result, then query, of asyncLookup
constexpr int kLookupCacheSlots = 73;       // 4 + 73 * 28 == 2048
constexpr size_t kPtrQueryBufferSize = 1500;
constexpr uint16_t kDnsPort = 53;

// One sendto per server of the family's list, in the order of adding; the
// results of sendto are not looked at. -1 for a null context or a closed
// socket, else 0 (also for an empty list).
int sendDnsQuery(AsyncDnsContext *context, const uint8_t *packet, int32_t length) noexcept;
int sendDnsQuery6(AsyncDnsContext *context, const uint8_t *packet, int32_t length) noexcept;

// Sends a built query first to the IPv4 servers, then to the IPv6 ones.
void sendToAll(AsyncDnsContext *context, const uint8_t *query, size_t length) noexcept;

// Sends `count` built queries to every server of both lists, each family's
// in as few sendmmsg calls as fit: per family, each query to every server
// in the order of adding, then the next query. Failed sends are skipped.
void sendBatchToAll(AsyncDnsContext *context, const struct iovec *queries, int count) noexcept;

}  // namespace rk::dns
