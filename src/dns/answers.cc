#include "dns/internal.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>

#include "diag/logmsg.h"
#include "dns/cache.h"
#include "dns/codec.h"

namespace rk {
namespace dns {
namespace {

// The messages of answer processing name the routine that reads the datagram,
// whichever of the two functions here logs them.
constexpr char kOrigin[] = "checkDnsSocket";

// Datagrams shorter than this are refused before anything else is read.
constexpr size_t kMinDatagram = 21;

// An answer record, relative to its first byte when its name is a two-byte
// compression pointer; behind a full name of D + 2 bytes everything is
// shifted by D.
constexpr uint8_t kNamePointer = 0xC0;
constexpr size_t kRecType = 2;
constexpr size_t kRecTtl = 6;
constexpr size_t kRecRdLength = 10;
constexpr size_t kRecRdata = 12;

struct ResultDeleter {
  void operator()(DnsResult *p) const noexcept { free(p); }
};
using ResultPtr = std::unique_ptr<DnsResult, ResultDeleter>;

// The sender as text, or null when it is neither IPv4 nor IPv6 or can't be printed.
const char *sender_text(const struct sockaddr_storage *from, char (&text)[kSenderTextSize]) noexcept {
  if (from == nullptr) return nullptr;
  const void *address;
  if (from->ss_family == AF_INET) {
    address = &reinterpret_cast<const struct sockaddr_in *>(from)->sin_addr;
  } else if (from->ss_family == AF_INET6) {
    address = &reinterpret_cast<const struct sockaddr_in6 *>(from)->sin6_addr;
  } else {
    return nullptr;
  }
  return inet_ntop(from->ss_family, address, text, sizeof text);
}

// Logs a refused datagram, with " from <sender>" when the sender is known.
// The sender is printed only here, so an accepted datagram costs no inet_ntop.
#define RK_DNS_REPORT(logfn, fmt, ...)                                                  \
  do {                                                                                  \
    char senderBuf_[kSenderTextSize];                                                   \
    const char *sender_ = sender_text(from, senderBuf_);                                 \
    if (sender_ != nullptr) {                                                           \
      logfn("[%s:%d]" fmt " from %s", kOrigin, __LINE__, __VA_ARGS__, sender_);         \
    } else {                                                                            \
      logfn("[%s:%d]" fmt, kOrigin, __LINE__, __VA_ARGS__);                             \
    }                                                                                   \
  } while (0)

// Copies at most `FieldSize` bytes of RDATA into an address field of a
// zeroed slot; a shorter RDATA fills only its own bytes.
template <size_t FieldSize>
void fill_address(DnsAddressEntry *slot, uint16_t family, void *field, const uint8_t *rdata,
                 uint16_t rdLength) noexcept {
  slot->family = family;
  memcpy(field, rdata, std::min<size_t>(rdLength, FieldSize));
}

// A PTR answer: the slot gets the address the question asked about (its
// reversed "d.c.b.a.in-addr.arpa" name), and the name becomes the host name
// from RDATA.
void fill_pointer(DnsAddressEntry *slot, char *name, WireView rdata) noexcept {
  slot->family = AF_INET;
  ChangeDnsNameToAddr(name, &slot->ipv4);  // no address: the slot still counts, as zero
  ChangeLabelsToDnsName(name, rdata);
}

}  // namespace

int processDatagram(AsyncDnsContext *context, const uint8_t *data, size_t len,
                    const struct sockaddr_storage *from) noexcept {
  if (context == nullptr || data == nullptr) return -1;
  const WireView dg(data, len);

  if (len < kMinDatagram) {
    RK_DNS_REPORT(log_info, "error size(%d)", static_cast<int>(len));
    return -1;
  }
  // The identifier is the context's, compared as raw bytes; a mismatch is
  // printed as the 16-bit values those bytes give in memory.
  if (memcmp(data, &context->id, sizeof context->id) != 0) {
    uint16_t got;
    memcpy(&got, data, sizeof got);
    RK_DNS_REPORT(log_info, "error id(%x,%x)", static_cast<unsigned>(got),
                  static_cast<unsigned>(context->id));
    return -1;
  }
  const uint16_t questions = dg.u16(kOffQdCount);
  if (questions != 1) {
    RK_DNS_REPORT(log_info, "error questCount(%d)", static_cast<int>(questions));
    return -1;
  }

  char name[kNameBufferSize];
  const size_t q = ChangeLabelsToDnsName(name, dg.from(kHeaderSize));
  if (q == 0) return -1;
  // Behind the question: its name (Q + 2 bytes), QTYPE and QCLASS.
  size_t record = kHeaderSize + q + 2 + 4;
  if (record >= len) return -1;
  int n = dg.u16(kOffAnCount);
  if (n == 0) return -1;
  if (n > kMaxAnswers) n = kMaxAnswers;

  // Zero-filled as calloc would give it, but not through calloc: glibc's
  // calloc bypasses the per-thread cache, and this block comes and goes with
  // every datagram. The count and the slots are cleared apart, because the
  // compiler folds malloc plus a memset of the whole block back into calloc.
  const size_t slotsSize = sizeof(DnsAddressEntry) * static_cast<size_t>(n);
  ResultPtr result(static_cast<DnsResult *>(malloc(sizeof(DnsResult) + slotsSize)));
  if (!result) {
    log_error("[%s:%d]calloc error", kOrigin, __LINE__);
    return -1;
  }
  // Slot by slot: at most 16 of them, usually one or two, for which a
  // fixed-size clear is a few stores where a memset of a run-time size is a
  // string instruction with its start-up cost.
  result->count = 0;
  for (int i = 0; i < n; ++i) memset(&result->slots[i], 0, sizeof result->slots[i]);

  // `record` is inside the datagram here: the first answer was tested above,
  // every later one is tested before the loop steps to it.
  for (int remaining = n;;) {
    if (dg[record] != kNamePointer) {
      // Only 0xC0 counts as a pointer (to an offset below 256); anything else
      // is read as a full name that replaces the current one.
      log_info("[%s:%d]the data_name is not 0xC0XX", kOrigin, __LINE__);
      memset(name, 0, sizeof name);
      const size_t d = ChangeLabelsToDnsName(name, dg.from(record));
      if (d == 0) return -1;  // what went to the cache stays there; no callback
      record += d;
    }
    // TYPE, TTL and RDLENGTH are needed only when the record's RDATA starts
    // inside the datagram; then all three lie before it, so they are read
    // after that test, straight from the bytes.
    const size_t rdata = record + kRecRdata;
    if (rdata >= len) {
      RK_DNS_REPORT(log_error, "error protol(domain:%s,count:%d/%d)", name,
                    static_cast<int>(result->count), remaining);
      break;
    }
    const uint8_t *fields = dg.at(record);
    const uint16_t type = static_cast<uint16_t>(fields[kRecType] << 8 | fields[kRecType + 1]);
    const uint32_t ttl = static_cast<uint32_t>(fields[kRecTtl]) << 24 |
                         static_cast<uint32_t>(fields[kRecTtl + 1]) << 16 |
                         static_cast<uint32_t>(fields[kRecTtl + 2]) << 8 | fields[kRecTtl + 3];
    const uint16_t rdLength = static_cast<uint16_t>(fields[kRecRdLength] << 8 | fields[kRecRdLength + 1]);
    const size_t next = rdata + rdLength;
    if (next > len) {
      RK_DNS_REPORT(log_error, "error protol(%s,data_len:%d,count:%d/%d)", name,
                    static_cast<int>(rdLength), static_cast<int>(result->count), remaining);
      break;
    }

    DnsAddressEntry *slot = &result->slots[result->count];
    if (type == kTypeA) {
      fill_address<sizeof slot->ipv4>(slot, AF_INET, &slot->ipv4, dg.at(rdata), rdLength);
      ++result->count;
      if (ttl != 0) cache_put(context->cache, name, slot, ttl);
    } else if (type == kTypeAaaa) {
      fill_address<sizeof slot->ipv6>(slot, AF_INET6, &slot->ipv6, dg.at(rdata), rdLength);
      ++result->count;
      if (ttl != 0) cache_put(context->cache, name, slot, ttl);
    } else if (type == kTypePtr) {
      // The first PTR record ends the walk; it is never cached.
      fill_pointer(slot, name, dg.from(rdata));
      ++result->count;
      break;
    }
    // Any other type (a CNAME, say) uses up an answer but no slot; the
    // records behind it stay filed under the current name.
    if (--remaining == 0 || next >= len) break;
    record = next;
  }

  if (result->count > 0 && context->callback != nullptr) {
    context->callback(context, name, result.get());
  }
  return 0;
}

int checkDnsSocket(AsyncDnsContext *context, int fd) noexcept {
  if (context == nullptr || fd < 0) return -1;
  // Every read of the datagram goes through a WireView that yields zero
  // behind the received length, which is what a zero-filled buffer would
  // give; clearing all 64 KiB per datagram would cost more than the rest of
  // an answer's work together, for nothing a caller could see.
  uint8_t buffer[kReceiveBufferSize];
  // recvfrom gets room for 28 bytes, and nothing behind them is ever read,
  // so only those are cleared.
  struct sockaddr_storage from;
  memset(&from, 0, sizeof(struct sockaddr_in6));
  socklen_t fromLength = sizeof(struct sockaddr_in6);
  const ssize_t got =
      recvfrom(fd, buffer, sizeof buffer, 0, reinterpret_cast<struct sockaddr *>(&from), &fromLength);
  if (got < 1) {
    RK_LOG(error, "error recvfrom");
    return -1;
  }
  return processDatagram(context, buffer, static_cast<size_t>(got), &from);
}

}  // namespace dns
}  // namespace rk
