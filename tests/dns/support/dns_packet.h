// A small fluent builder for DNS datagrams, for tests that answer the client
// with crafted bytes: well-formed answers with pointer or full names, and the
// malformed ones (wrong counts, short records, raw trailing bytes) that the
// client has to refuse without reading past the datagram.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

namespace rk {
namespace test {

using Bytes = std::vector<uint8_t>;

constexpr uint16_t kTypeA = 1;
constexpr uint16_t kTypeCname = 5;
constexpr uint16_t kTypePtr = 12;
constexpr uint16_t kTypeTxt = 16;
constexpr uint16_t kTypeAaaa = 28;

// Standard label encoding of a dotted name: "aaa.b" -> 03 aaa 01 b 00. An
// empty name (or ".") is the root, a single zero byte. Labels longer than 63
// bytes are written with their length as it stands (low 8 bits), so tests can
// build the oversized names that a compliant encoder would refuse.
Bytes encodeName(const std::string &name);

// IPv4 / IPv6 text to its network-order bytes; empty for a bad text.
Bytes ipv4Bytes(const std::string &text);
Bytes ipv6Bytes(const std::string &text);

// One resource record. By default its name is the two-byte compression
// pointer C0 0C (to the question name), its class IN and its TTL 300.
struct Rr {
  Bytes name{0xC0, 0x0C};
  uint16_t type = kTypeA;
  uint16_t klass = 1;
  uint32_t ttl = 300;
  Bytes rdata;
  std::optional<uint16_t> rdlength;  // written instead of rdata.size() when set

  static Rr A(const std::string &ipv4);
  static Rr AAAA(const std::string &ipv6);
  static Rr CNAME(const std::string &target);
  static Rr PTR(const std::string &target);
  static Rr Other(uint16_t type, Bytes rdata);

  Rr &withName(const std::string &fullName);  // written in full, no pointer
  Rr &withNameBytes(Bytes bytes);
  Rr &withTtl(uint32_t seconds);
  Rr &withRdlength(uint16_t length);
  Rr &withRdata(Bytes bytes);

  Bytes bytes() const;
};

// A DNS message. Counts follow what was added unless overridden; the header
// flags default to a plain "response, recursion desired and available".
class DnsPacket {
 public:
  DnsPacket() = default;

  // An answer skeleton for `query`: its identifier and its question bytes
  // (everything behind the header) copied verbatim, QDCOUNT 1.
  static DnsPacket replyTo(const Bytes &query);

  DnsPacket &id(uint16_t value);                  // written big-endian
  DnsPacket &idBytes(uint8_t first, uint8_t second);
  DnsPacket &flags(uint16_t value);
  DnsPacket &qdcount(uint16_t value);
  DnsPacket &ancount(uint16_t value);
  DnsPacket &nscount(uint16_t value);
  DnsPacket &arcount(uint16_t value);

  DnsPacket &question(const std::string &name, uint16_t type = kTypeA, uint16_t klass = 1);
  DnsPacket &questionBytes(const Bytes &bytes);  // raw question section
  DnsPacket &answer(const Rr &rr);
  DnsPacket &raw(const Bytes &bytes);  // appended behind everything else

  Bytes build() const;

 private:
  uint8_t id_[2] = {0x12, 0x34};
  uint16_t flags_ = 0x8180;
  std::optional<uint16_t> qdcount_, ancount_, nscount_, arcount_;
  int questions_ = 0;
  int answers_ = 0;
  Bytes question_;
  Bytes answers_bytes_;
  Bytes tail_;
};

// A query as the client under test would build it for a normal name (labels
// of 1..63 bytes): header with `idNetwork` as two raw bytes, RD set.
Bytes expectedQuery(uint16_t idNetwork, const std::string &name, uint16_t qtype);

// Hex text of bytes, "12 34 01 00", for readable failure messages.
std::string hex(const Bytes &bytes);

// Fields of a query the client sent.
std::string queryName(const Bytes &query);  // decoded QNAME, "" when none
uint16_t queryType(const Bytes &query);      // 0 when the packet is too short

}  // namespace test
}  // namespace rk
