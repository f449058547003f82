// Answer processing: one received datagram is judged, its addresses go to the
// cache and, at the end, to the context's callback.
#include <routerkit/async_dns.h>

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <memory>

#include "diag/logmsg.h"
#include "dns/answer.h"
#include "dns/cache.h"
#include "dns/codec.h"
#include "dns/tracker.h"

namespace rk::dns {
namespace {

// The messages of answer processing name the routine that reads the datagram,
// whichever function here logs them.
constexpr char kOrigin[] = "checkDnsSocket";

constexpr size_t kSenderTextSize = 46;  // INET6_ADDRSTRLEN

// Datagrams shorter than this are refused before anything else is read.
constexpr size_t kMinDatagram = 21;
// Behind the question's encoded name: QTYPE and QCLASS.
constexpr size_t kQuestionTail = 4;

// An answer record, relative to its first byte when its name is a two-byte
// compression pointer; behind a full name of D + 2 bytes everything is
// shifted by D.
constexpr uint8_t kNamePointer = 0xC0;
enum RecordOffset : size_t { kRecType = 2, kRecTtl = 6, kRecRdLength = 10, kRecRdata = 12 };

struct ResultDeleter {
  void operator()(DnsResult *p) const noexcept { free(p); }
};
using ResultPtr = std::unique_ptr<DnsResult, ResultDeleter>;

// One received datagram, with the sender its refusals name.
struct Datagram {
  AsyncDnsContext *context;
  WireView bytes;
  const struct sockaddr_storage *from;  // may be null
};

// The tail of a refusal message, printed as "%s%s": " from <sender>", or
// nothing when the sender is neither IPv4 nor IPv6 or can't be printed. Made
// only for a refusal, so an accepted datagram costs no inet_ntop.
class SenderSuffix {
 public:
  explicit SenderSuffix(const struct sockaddr_storage *from) noexcept {
    const void *address = nullptr;
    if (from != nullptr && from->ss_family == AF_INET) {
      address = &reinterpret_cast<const struct sockaddr_in *>(from)->sin_addr;
    } else if (from != nullptr && from->ss_family == AF_INET6) {
      address = &reinterpret_cast<const struct sockaddr_in6 *>(from)->sin6_addr;
    }
    if (address != nullptr && inet_ntop(from->ss_family, address, text_, sizeof text_) != nullptr) {
      lead_ = " from ";
    } else {
      text_[0] = '\0';
    }
  }
  const char *lead() const noexcept { return lead_; }
  const char *text() const noexcept { return text_; }

 private:
  const char *lead_ = "";
  char text_[kSenderTextSize];
};

// Size, identifier and question count; then the question's name goes to
// `name` and `firstAnswer` is where the answers begin. The number of answers
// to look at, or 0 for a refused datagram (only the first three tests log).
int checkHeader(const Datagram &dg, char (&name)[kNameBufferSize], size_t *firstAnswer) noexcept {
  const size_t len = dg.bytes.size();
  if (len < kMinDatagram) {
    const SenderSuffix sender(dg.from);
    RK_LOG_AS(info, kOrigin, "error size(%d)%s%s", static_cast<int>(len), sender.lead(), sender.text());
    return 0;
  }
  // The identifier is the context's, compared as raw bytes; a mismatch is
  // printed as the 16-bit values those bytes give in memory.
  const uint16_t expected = dg.context->id;
  if (memcmp(dg.bytes.at(0), &expected, sizeof expected) != 0) {
    uint16_t got;
    memcpy(&got, dg.bytes.at(0), sizeof got);
    const SenderSuffix sender(dg.from);
    RK_LOG_AS(info, kOrigin, "error id(%x,%x)%s%s", static_cast<unsigned>(got), static_cast<unsigned>(expected),
              sender.lead(), sender.text());
    return 0;
  }
  const uint16_t questions = dg.bytes.u16(kOffQdCount);
  if (questions != 1) {
    const SenderSuffix sender(dg.from);
    RK_LOG_AS(info, kOrigin, "error questCount(%d)%s%s", static_cast<int>(questions), sender.lead(),
              sender.text());
    return 0;
  }
  const size_t q = ChangeLabelsToDnsName(name, dg.bytes.from(kHeaderSize));
  if (q == 0) return 0;
  *firstAnswer = kHeaderSize + q + 2 + kQuestionTail;  // the encoded name is Q + 2 bytes
  if (*firstAnswer >= len) return 0;
  return std::min<int>(dg.bytes.u16(kOffAnCount), kMaxAnswers);
}

// A result with `n` zeroed slots. Not calloc, nor a memset of the whole block
// (which the compiler turns into calloc): glibc's calloc skips its per-thread cache.
ResultPtr newResult(int n) noexcept {
  const size_t slotsSize = sizeof(DnsAddressEntry) * static_cast<size_t>(n);
  ResultPtr result(static_cast<DnsResult *>(malloc(sizeof(DnsResult) + slotsSize)));
  if (!result) return result;
  result->count = 0;
  for (int i = 0; i < n; ++i) memset(&result->slots[i], 0, sizeof result->slots[i]);
  return result;
}

// Copies at most `FieldSize` bytes of RDATA into an address field of a
// zeroed slot; a shorter RDATA fills only its own bytes.
template <size_t FieldSize>
void fillAddress(DnsAddressEntry *slot, uint16_t family, void *field, const uint8_t *rdata,
                 uint16_t rdLength) noexcept {
  slot->family = family;
  memcpy(field, rdata, std::min<size_t>(rdLength, FieldSize));
}

// A PTR answer: the slot gets the address the question asked about (its
// reversed "d.c.b.a.in-addr.arpa" name), and the name becomes the host name
// from RDATA.
void fillPointer(DnsAddressEntry *slot, char *name, WireView rdata) noexcept {
  slot->family = AF_INET;
  changeDnsNameToAddr(name, &slot->ipv4);  // no address: the slot still counts, as zero
  ChangeLabelsToDnsName(name, rdata);
}

// Files the record at `record`, whose RDATA lies inside the datagram, into
// the next slot by its type. False when it ends the walk: the first PTR
// record does, and is never cached.
bool takeRecord(const Datagram &dg, size_t record, char *name, DnsResult *result) noexcept {
  const uint16_t type = dg.bytes.u16(record + kRecType);
  const uint32_t ttl = dg.bytes.u32(record + kRecTtl);
  const uint16_t rdLength = dg.bytes.u16(record + kRecRdLength);
  const uint8_t *rdata = dg.bytes.at(record + kRecRdata);
  DnsAddressEntry *slot = &result->slots[result->count];
  if (type == kTypeA) {
    fillAddress<sizeof slot->ipv4>(slot, AF_INET, &slot->ipv4, rdata, rdLength);
  } else if (type == kTypeAaaa) {
    fillAddress<sizeof slot->ipv6>(slot, AF_INET6, &slot->ipv6, rdata, rdLength);
  } else if (type == kTypePtr) {
    fillPointer(slot, name, dg.bytes.from(record + kRecRdata));
    ++result->count;
    return false;
  } else {
    // Any other type (a CNAME, say) uses up an answer but no slot; the
    // records behind it stay filed under the current name.
    return true;
  }
  ++result->count;
  if (ttl != 0) cachePut(dg.context->cache, name, slot, ttl);
  return true;
}

// The walk over `n` answers from `record`, which lies inside the datagram;
// `name` is the current name throughout. False when an answer's full name
// decodes empty: the datagram then ends with no callback, and what went to
// the cache stays there. A record cut off by the end is reported and ends
// the walk, keeping the slots before it.
bool walkAnswers(const Datagram &dg, size_t record, int n, char (&name)[kNameBufferSize],
                 DnsResult *result) noexcept {
  const size_t len = dg.bytes.size();
  for (int remaining = n;;) {
    if (dg.bytes[record] != kNamePointer) {
      // Only 0xC0 counts as a pointer (to an offset below 256); anything else
      // is read as a full name that replaces the current one.
      RK_LOG_AS(info, kOrigin, "the data_name is not 0xC0XX");
      memset(name, 0, sizeof name);
      const size_t d = ChangeLabelsToDnsName(name, dg.bytes.from(record));
      if (d == 0) return false;
      record += d;
    }
    const size_t rdata = record + kRecRdata;
    if (rdata >= len) {
      const SenderSuffix sender(dg.from);
      RK_LOG_AS(error, kOrigin, "error protol(domain:%s,count:%d/%d)%s%s", name, static_cast<int>(result->count),
                remaining, sender.lead(), sender.text());
      return true;
    }
    const uint16_t rdLength = dg.bytes.u16(record + kRecRdLength);
    const size_t next = rdata + rdLength;
    if (next > len) {
      const SenderSuffix sender(dg.from);
      RK_LOG_AS(error, kOrigin, "error protol(%s,data_len:%d,count:%d/%d)%s%s", name, static_cast<int>(rdLength),
                static_cast<int>(result->count), remaining, sender.lead(), sender.text());
      return true;
    }
    if (!takeRecord(dg, record, name, result)) return true;
    if (--remaining == 0 || next >= len) return true;
    record = next;
  }
}

// A tracked context's shortest response: the header and a question for
// the root name.
constexpr size_t kMinResponse = kHeaderSize + 1 + kQuestionTail;
constexpr uint8_t kFlagResponse = 0x80;  // QR, in the first flag byte
constexpr uint8_t kRcodeMask = 0x0F;     // RCODE, in the second
enum ResponseCode : uint8_t { kNoError = 0, kServFail = 2, kNxDomain = 3, kRefused = 5 };

int reasonOf(uint8_t code) noexcept {
  switch (code) {
    case kNxDomain:
      return ASYNC_DNS_NXDOMAIN;
    case kRefused:
      return ASYNC_DNS_REFUSED;
    default:
      return ASYNC_DNS_SERVFAIL;
  }
}

// The query of a tracked context that a datagram answers, judged by the
// checks the context asked for; a refusal is logged and gives false. A
// datagram that matches no query may still pass (no question check): it is
// then processed as on an untracked context and closes nothing.
bool matchTracked(const Datagram &dg, ContextExtension *ext, QueryRef *ref) noexcept {
  const unsigned checks = ext->settings.checks;
  if ((checks & ASYNC_DNS_CHECK_SENDER) != 0 && !fromServer(dg.context, dg.from)) {
    const SenderSuffix sender(dg.from);
    RK_LOG_AS(info, kOrigin, "error sender%s%s", sender.lead(), sender.text());
    return false;
  }
  const size_t len = dg.bytes.size();
  if (len < kMinResponse) {
    const SenderSuffix sender(dg.from);
    RK_LOG_AS(info, kOrigin, "error size(%d)%s%s", static_cast<int>(len), sender.lead(), sender.text());
    return false;
  }
  uint16_t id;
  memcpy(&id, dg.bytes.at(0), sizeof id);
  *ref = {nullptr, 0, 0};
  if ((checks & ASYNC_DNS_RANDOM_ID) != 0) {
    *ref = findQueryById(ext, id);
    if (!*ref) {
      const SenderSuffix sender(dg.from);
      RK_LOG_AS(info, kOrigin, "error id(%x)%s%s", static_cast<unsigned>(id), sender.lead(), sender.text());
      return false;
    }
  } else if (id != dg.context->id) {
    const SenderSuffix sender(dg.from);
    RK_LOG_AS(info, kOrigin, "error id(%x,%x)%s%s", static_cast<unsigned>(id),
              static_cast<unsigned>(dg.context->id), sender.lead(), sender.text());
    return false;
  }
  const uint16_t questions = dg.bytes.u16(kOffQdCount);
  if (questions != 1) {
    const SenderSuffix sender(dg.from);
    RK_LOG_AS(info, kOrigin, "error questCount(%d)%s%s", static_cast<int>(questions), sender.lead(),
              sender.text());
    return false;
  }
  const WireView question = dg.bytes.from(kHeaderSize);
  const bool checkQuestion = (checks & ASYNC_DNS_CHECK_QUESTION) != 0;
  if (!*ref) {
    *ref = findQueryByQuestion(ext, question);
  } else if (checkQuestion && !asksQuestion(*ref, question)) {
    *ref = {nullptr, 0, 0};
  }
  if (checkQuestion && (!*ref || (dg.bytes[2] & kFlagResponse) == 0)) {
    char name[kNameBufferSize];
    const size_t q = ChangeLabelsToDnsName(name, question);
    const SenderSuffix sender(dg.from);
    RK_LOG_AS(info, kOrigin, "error question(%s,%d)%s%s", name, static_cast<int>(question.u16(q + 2)),
              sender.lead(), sender.text());
    return false;
  }
  return true;
}

}  // namespace

int processTrackedDatagram(AsyncDnsContext *context, const uint8_t *data, size_t len,
                           const struct sockaddr_storage *from) noexcept {
  if (context == nullptr || data == nullptr) return -1;
  ContextExtension *ext = extensionOf(context);
  const Datagram dg{context, WireView(data, len), from};
  QueryRef ref;
  if (!matchTracked(dg, ext, &ref)) return -1;
  LookupEnd end{};
  // Only a context that checks or reports reads the response code; one that
  // only retries takes any answer as today, and it closes its query.
  const bool readCode = ext->settings.checks != 0 || ext->settings.failure != nullptr;
  const uint8_t code = readCode ? static_cast<uint8_t>(dg.bytes[3] & kRcodeMask) : uint8_t{kNoError};
  if (code != kNoError) {
    // An error response delivers nothing; NXDOMAIN is the name's own answer,
    // the others only this server's.
    if (ref) answerQuery(ref, false, reasonOf(code), code != kNxDomain, &end);
    reportEnd(context, end);
    return 0;
  }
  char name[kNameBufferSize];
  const size_t q = ChangeLabelsToDnsName(name, dg.bytes.from(kHeaderSize));
  const size_t firstAnswer = kHeaderSize + q + 2 + kQuestionTail;
  const int n = q != 0 && firstAnswer < len ? std::min<int>(dg.bytes.u16(kOffAnCount), kMaxAnswers) : 0;
  // Room for the most a datagram delivers, on the stack: a tracked context
  // allocates nothing per answer.
  alignas(DnsResult) uint8_t room[sizeof(DnsResult) + kMaxAnswers * sizeof(DnsAddressEntry)];
  auto *result = reinterpret_cast<DnsResult *>(room);
  result->count = 0;
  for (int i = 0; i < n; ++i) memset(&result->slots[i], 0, sizeof result->slots[i]);
  const bool delivered = n > 0 && walkAnswers(dg, firstAnswer, n, name, result) && result->count > 0;
  if (ref) answerQuery(ref, delivered, delivered ? 0 : ASYNC_DNS_NODATA, false, &end);
  if (delivered && context->callback != nullptr) context->callback(context, name, result);
  reportEnd(context, end);
  return 0;
}

int drainDnsSocket(AsyncDnsContext *context, int fd) noexcept {
  // One call takes what has arrived, up to the bound; MSG_TRUNC makes a
  // longer datagram report its whole length, which refuses it.
  uint8_t buffers[kDrainPerEvent][kDrainDatagramSize];
  struct sockaddr_storage from[kDrainPerEvent];
  struct iovec parts[kDrainPerEvent];
  struct mmsghdr messages[kDrainPerEvent];
  for (unsigned i = 0; i < kDrainPerEvent; ++i) {
    parts[i] = {buffers[i], sizeof buffers[i]};
    memset(&messages[i], 0, sizeof messages[i]);
    memset(&from[i], 0, sizeof(struct sockaddr_in6));
    messages[i].msg_hdr.msg_name = &from[i];
    messages[i].msg_hdr.msg_namelen = sizeof(struct sockaddr_in6);
    messages[i].msg_hdr.msg_iov = &parts[i];
    messages[i].msg_hdr.msg_iovlen = 1;
  }
  const int got = recvmmsg(fd, messages, kDrainPerEvent, MSG_DONTWAIT | MSG_TRUNC, nullptr);
  if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return 0;
  if (got < 1) {
    RK_LOG_AS(error, kOrigin, "error recvfrom");
    return -1;
  }
  for (int i = 0; i < got; ++i) {
    const size_t length = messages[i].msg_len;
    if (length < 1) {
      RK_LOG_AS(error, kOrigin, "error recvfrom");
    } else if (length > kDrainDatagramSize) {
      const SenderSuffix sender(&from[i]);
      RK_LOG_AS(info, kOrigin, "error size(%d)%s%s", static_cast<int>(length), sender.lead(), sender.text());
    } else if (isTracked(extensionOf(context))) {
      processTrackedDatagram(context, buffers[i], length, &from[i]);
    } else {
      // A callback turned tracking off: the rest of the batch is read as
      // an untracked context reads.
      processDatagram(context, buffers[i], length, &from[i]);
    }
  }
  return 0;
}

int processDatagram(AsyncDnsContext *context, const uint8_t *data, size_t len,
                    const struct sockaddr_storage *from) noexcept {
  if (context == nullptr || data == nullptr) return -1;
  const Datagram dg{context, WireView(data, len), from};
  char name[kNameBufferSize];
  size_t firstAnswer = 0;
  const int n = checkHeader(dg, name, &firstAnswer);
  if (n == 0) return -1;
  const ResultPtr result = newResult(n);
  if (!result) {
    RK_LOG_AS(error, kOrigin, "calloc error");
    return -1;
  }
  if (!walkAnswers(dg, firstAnswer, n, name, result.get())) return -1;
  if (result->count > 0 && context->callback != nullptr) context->callback(context, name, result.get());
  return 0;
}

int checkDnsSocket(AsyncDnsContext *context, int fd) noexcept {
  if (context == nullptr || fd < 0) return -1;
  // Not cleared: every read goes through a WireView, which yields zero behind
  // the received length as a cleared buffer would.
  uint8_t buffer[kDnsReceiveBufferSize];
  // recvfrom gets room for 28 bytes, and nothing behind them is read.
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

}  // namespace rk::dns
