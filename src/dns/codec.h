// The DNS wire format as this client speaks it: the fixed query layout, the
// three name conversions, and a bounded view over received bytes.
//
// Nothing here is a full DNS parser. Names are decoded without following
// compression pointers (a pointer byte reads as a label length), labels have
// no 63-byte limit, and the decoder stops only at a zero byte or at index 254.
#pragma once

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>

namespace rk::dns {

// Header: ID, two flag bytes, QDCOUNT, ANCOUNT, NSCOUNT, ARCOUNT.
constexpr size_t kHeaderSize = 12;
constexpr size_t kOffQdCount = 4;
constexpr size_t kOffAnCount = 6;
// A query is the header, the encoded name (L + 2 bytes for a dotted name of
// L bytes), QTYPE and QCLASS: L + 18 bytes in all.
constexpr size_t kQueryOverhead = 18;

// The record types the client asks for, and the one class.
enum : uint16_t { kTypeA = 1, kTypePtr = 12, kTypeAaaa = 28 };
constexpr uint16_t kClassIn = 1;
constexpr uint8_t kFlagRecursionDesired = 0x01;

// Text buffer of a decoded name: at most 253 characters and a terminator.
constexpr size_t kNameBufferSize = 256;
// The decoder never reads further than this many bytes from where it starts.
constexpr size_t kNameDecodeSpan = 254;
// The name of a reverse lookup ("d.c.b.a.in-addr.arpa") and the dotted
// address text it is made from or read back into.
constexpr size_t kPtrNameSize = 64;
constexpr size_t kPtrAddressTextSize = 64;

// Read-only bytes of a received datagram that know their own length. Every
// read behind the end yields zero, which is exactly what a zero-filled
// receive buffer would give, so decoding stays inside [data, data + size)
// while behaving like the classic "zero the buffer, then parse" approach.
class WireView {
 public:
  constexpr WireView(const uint8_t *data, size_t size) noexcept : data_(data), size_(size) {}

  constexpr size_t size() const noexcept { return size_; }
  constexpr uint8_t operator[](size_t off) const noexcept { return off < size_ ? data_[off] : 0; }
  // Network-order integers; bytes behind the end count as zero.
  constexpr uint16_t u16(size_t off) const noexcept {
    if (off < size_ && size_ - off >= 2) return static_cast<uint16_t>(data_[off] << 8 | data_[off + 1]);
    return static_cast<uint16_t>((*this)[off] << 8 | (*this)[off + 1]);
  }
  constexpr uint32_t u32(size_t off) const noexcept {
    if (off < size_ && size_ - off >= 4) {
      return static_cast<uint32_t>(data_[off]) << 24 | static_cast<uint32_t>(data_[off + 1]) << 16 |
             static_cast<uint32_t>(data_[off + 2]) << 8 | data_[off + 3];
    }
    return static_cast<uint32_t>(u16(off)) << 16 | u16(off + 2);
  }
  // The bytes from `off` on; empty (not invalid) when `off` is at or behind the end.
  constexpr WireView from(size_t off) const noexcept {
    return off < size_ ? WireView(data_ + off, size_ - off) : WireView(data_ + size_, 0);
  }
  // Raw pointer to byte `off`; only for ranges the caller has bounds-checked.
  constexpr const uint8_t *at(size_t off) const noexcept { return data_ + off; }

 private:
  const uint8_t *data_;
  size_t size_;
};

// Encodes a dotted name into labels, in place one position to the right: a
// dot becomes the length byte of the label behind it and the terminator the
// root's zero byte. Writes at least one byte and otherwise at most `size`
// bytes; with `size` = strlen(name) + 2 the whole name fits.
void ChangeNameToDnsLabels(uint8_t *out, const char *name, int32_t size) noexcept;

// Decodes labels into dotted text. `out` needs room for 256 bytes and gets at
// most 253 characters and a terminator. Reads at most 254 bytes of `labels`.
void ChangeLabelsToDnsName(char *out, const uint8_t *labels) noexcept;
// The same over a bounded view: bytes behind the view's end read as zero, so
// a name cut off by the end of a datagram ends there. Returns the length of
// the text written.
size_t ChangeLabelsToDnsName(char *out, WireView labels) noexcept;

// Writes the dot-separated labels of the first `length` bytes of `text` in
// reverse order ("1.2.3.4" -> "4.3.2.1"). Writes at most `length` + 1 bytes.
// A text that ends in a dot leaves out[0] unwritten.
void ReverseDnsName(char *out, const char *text, int32_t length) noexcept;

// The two directions of a reverse lookup's name. ChangeAddrToDnsName: the
// name of the IPv4 address at offset 4 of `address` (a DnsAddressEntry or a
// sockaddr_in; the family is not looked at), e.g. "100.1.168.192.in-addr.arpa".
// `out` holds 64 bytes and is zeroed by the caller; it stays empty when the
// address can't be printed.
void ChangeAddrToDnsName(const void *address, char *out) noexcept;
// The address a PTR question `name` ("d.c.b.a.in-addr.arpa") asks about;
// `out` stays as it is when the name holds no address.
void changeDnsNameToAddr(const char *name, struct in_addr *out) noexcept;

// Builds a query for `name` (L = `nameLength` bytes) in `buf`, which must be
// zero-filled and hold L + 18 bytes: the identifier (already in network
// order) as it stands, recursion desired, one question, the encoded name
// (left as the buffer's two zero bytes for an empty name), `qtype` and class
// IN. Returns L + 18.
size_t buildQuery(uint8_t *buf, uint16_t idNetworkOrder, const char *name, size_t nameLength,
                  uint16_t qtype) noexcept;
// Overwrites the QTYPE of a query built for a name of `nameLength` bytes.
void setQueryType(uint8_t *buf, size_t nameLength, uint16_t qtype) noexcept;

}  // namespace rk::dns
