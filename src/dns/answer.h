// The DNS client's internal seams: answer processing split into "read one
// datagram" and "judge one datagram", the senders, and the PTR name builder.
// Not exported; tests and the fuzzer reach them through the object library.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#include "common/deps.h"
#include <routerkit/async_dns.h>

namespace rk {
namespace dns {

// Sizes of the client's working buffers and limits.
constexpr size_t kReceiveBufferSize = 65535;  // the largest UDP payload
constexpr size_t kSenderTextSize = 46;        // INET6_ADDRSTRLEN
constexpr size_t kPtrAddressTextSize = 64;
constexpr int kMaxAnswers = 16;               // answers looked at per datagram
constexpr size_t kLookupBufferSize = 2048;    // cache result, then query, of asyncLookup
constexpr int kLookupCacheSlots = 73;         // 4 + 73 * 28 == 2048
constexpr size_t kPtrQueryBufferSize = 1500;
constexpr size_t kPtrNameSize = 64;
constexpr uint16_t kDnsPort = 53;

// Reads one datagram from `fd` into a 65535-byte buffer and hands it
// to processDatagram. -1 for a null context, a negative descriptor or a
// failed read ("error recvfrom"); otherwise processDatagram's result.
int checkDnsSocket(AsyncDnsContext *context, int fd) noexcept;

// Judges one received datagram of exactly `len` bytes and delivers its
// addresses: size, identifier and question count tests, at most 16 answers,
// cache insertion for A/AAAA with a non-zero TTL, one callback at the end when
// a slot was filled. `from` (may be null) is used only for the " from %s"
// variants of the messages, which name checkDnsSocket as their origin.
// Every read stays inside [data, data + len); bytes behind the end read as
// zero. 0 when the answer loop ran to its end, else -1.
int processDatagram(AsyncDnsContext *context, const uint8_t *data, size_t len,
                    const struct sockaddr_storage *from) noexcept;

// One sendto per server of the family's list, in the order of adding; the
// results of sendto are not looked at. -1 for a null context or a closed
// socket, else 0 (also for an empty list).
int sendDnsQuery(AsyncDnsContext *context, const uint8_t *packet, int32_t length) noexcept;
int sendDnsQuery6(AsyncDnsContext *context, const uint8_t *packet, int32_t length) noexcept;

// Sends a built query first to the IPv4 servers, then to the IPv6 ones.
void send_to_all(AsyncDnsContext *context, const uint8_t *query, size_t length) noexcept;

}  // namespace dns
}  // namespace rk
