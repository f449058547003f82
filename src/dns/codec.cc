// The DNS wire format as this client speaks it: queries and name conversions.
#include <routerkit/async_dns.h>

#include <arpa/inet.h>
#include <string.h>

#include "diag/logmsg.h"
#include "dns/codec.h"

namespace rk::dns {
namespace {

// The question of a reverse lookup ends in this suffix.
constexpr char kReverseSuffix[] = ".in-addr.arpa";

void put16(uint8_t *p, uint16_t v) noexcept {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}

// Encodes the first `length` characters of `name`, which hold no terminator,
// as labels into out[0 .. length + 1]. Every character lands one position to
// the right, so the text is copied in one piece; then the length byte of each
// label goes where its dot (or, for the first, index 0) landed, and the root's
// zero byte at the end. A label length keeps only its low 8 bits.
void encodeLabels(uint8_t *out, const char *name, size_t length) noexcept {
  memcpy(out + 1, name, length);
  size_t p = 0;
  for (;;) {
    const void *dot = memchr(name + p, '.', length - p);
    const size_t j = dot != nullptr ? static_cast<size_t>(static_cast<const char *>(dot) - name) : length;
    out[p] = static_cast<uint8_t>(j - p);
    if (j == length) break;
    p = j + 1;
  }
  out[length + 1] = 0;
}

}  // namespace

void ChangeNameToDnsLabels(uint8_t *out, const char *name, int32_t size) noexcept {
  if (name[0] == '\0' || size <= 1) {
    out[0] = 0;
    return;
  }
  // The text that fits: up to its terminator, and never past index size - 2.
  encodeLabels(out, name, strnlen(name, static_cast<size_t>(size) - 2));
}

size_t ChangeLabelsToDnsName(char *out, WireView labels) noexcept {
  // Reaching index 254 ends the text exactly as a zero byte there would, so
  // the input is taken as clipped to 254 bytes, with zeros behind the end.
  // The text then ends at the first zero byte z of the input, whether that is
  // a length byte or lies inside a label, with its terminator at out[z - 1];
  // and every byte before z lands one place to the left of its input index.
  // So the bytes are copied in one piece, and only the length bytes (a plain
  // count each: a compression pointer is not followed) are then overwritten
  // with dots, by walking the chain of lengths up to z.
  const uint8_t *in = labels.at(0);
  const size_t avail = labels.size() < kNameDecodeSpan ? labels.size() : kNameDecodeSpan;
  const void *zero = avail != 0 ? memchr(in, 0, avail) : in;
  const size_t z = zero != nullptr ? static_cast<size_t>(static_cast<const uint8_t *>(zero) - in) : avail;
  if (z == 0) {
    out[0] = '\0';
    return 0;
  }
  memcpy(out, in + 1, z - 1);
  for (size_t pos = static_cast<size_t>(in[0]) + 1; pos < z; pos += static_cast<size_t>(in[pos]) + 1) {
    out[pos - 1] = '.';
  }
  out[z - 1] = '\0';
  return z - 1;
}

void ChangeLabelsToDnsName(char *out, const uint8_t *labels) noexcept {
  ChangeLabelsToDnsName(out, WireView(labels, kNameDecodeSpan));
}

void ReverseDnsName(char *out, const char *text, int32_t length) noexcept {
  if (length < 1) {
    out[0] = '\0';
    return;
  }
  // Labels are taken front to back and written back to front, each with the
  // separator (terminator for the first) behind it.
  int32_t start = 0;
  int32_t cursor = length;
  bool first = true;
  do {
    int32_t e = start + 1;  // text[start] itself is not examined
    while (e < length && text[e] != '.' && text[e] != '\0') ++e;
    out[cursor] = first ? '\0' : '.';
    first = false;
    const int32_t n = e - start;
    memcpy(out + cursor - n, text + start, static_cast<size_t>(n));
    cursor -= n + 1;
    start = e + 1;
  } while (start < length);
  out[length] = '\0';
}

size_t buildQuery(uint8_t *buf, uint16_t idNetworkOrder, const char *name, size_t nameLength,
                  uint16_t qtype) noexcept {
  memcpy(buf, &idNetworkOrder, sizeof idNetworkOrder);
  buf[2] = kFlagRecursionDesired;
  buf[3] = 0;
  put16(buf + kOffQdCount, 1);
  // ANCOUNT, NSCOUNT and ARCOUNT stay as the zeroed buffer has them.
  if (nameLength != 0) {
    // The same as ChangeNameToDnsLabels with a size of L + 2, which takes
    // the whole text; its length is known here already.
    encodeLabels(buf + kHeaderSize, name, nameLength);
  }
  put16(buf + kHeaderSize + nameLength + 4, kClassIn);
  setQueryType(buf, nameLength, qtype);
  return nameLength + kQueryOverhead;
}

void setQueryType(uint8_t *buf, size_t nameLength, uint16_t qtype) noexcept {
  put16(buf + kHeaderSize + nameLength + 2, qtype);
}

void ChangeAddrToDnsName(const void *address, char *out) noexcept {
  // Offset 4 holds the IPv4 address in both a DnsAddressEntry and a sockaddr_in.
  struct in_addr ipv4;
  memcpy(&ipv4, static_cast<const uint8_t *>(address) + offsetof(DnsAddressEntry, ipv4), sizeof ipv4);
  char text[kPtrAddressTextSize] = {};
  if (inet_ntop(AF_INET, &ipv4, text, sizeof text) == nullptr) {
    RK_LOG(error, "inet_ntop");
    return;
  }
  const int length = static_cast<int>(strlen(text));
  ReverseDnsName(out, text, length);
  strncpy(out + length, kReverseSuffix, static_cast<size_t>(kPtrNameSize - 1 - length));
}

void changeDnsNameToAddr(const char *name, struct in_addr *out) noexcept {
  char text[kPtrAddressTextSize] = {};
  const int length = static_cast<int>(strlen(name)) - static_cast<int>(sizeof kReverseSuffix - 1);
  // ReverseDnsName writes length + 1 bytes. A longer text would be no
  // address anyway, so `out` simply stays as it is.
  if (length < static_cast<int>(sizeof text)) ReverseDnsName(text, name, length);
  (void)inet_pton(AF_INET, text, out);
}

}  // namespace rk::dns
