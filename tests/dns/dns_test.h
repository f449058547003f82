// What the DNS tests share: a datagram builder, addresses as bytes and as
// DnsAddressEntry, the text of a result ("name: a b c") and of a cached name,
// and exact-size heap copies.
#pragma once

#include <arpa/inet.h>
#include <string.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <routerkit/async_dns.h>

namespace rk::test {

using Bytes = std::vector<uint8_t>;

// "aaa.bb" -> 03 'aaa 02 'bb 00
inline Bytes Labels(const std::string &dotted) {
  Bytes out;
  for (size_t at = 0, dot; at < dotted.size(); at = dot + 1) {
    dot = std::min(dotted.find('.', at), dotted.size());
    out.push_back(static_cast<uint8_t>(dot - at));
    out.insert(out.end(), dotted.data() + at, dotted.data() + dot);
  }
  out.push_back(0);
  return out;
}

// An address as its 4 or 16 bytes.
inline Bytes Ip(const char *text) {
  Bytes b(strchr(text, ':') ? 16 : 4);
  inet_pton(b.size() == 4 ? AF_INET : AF_INET6, text, b.data());
  return b;
}

inline DnsAddressEntry Entry(const char *text) {
  DnsAddressEntry e = {};
  e.family = strchr(text, ':') ? AF_INET6 : AF_INET;
  inet_pton(e.family, text, e.family == AF_INET ? static_cast<void *>(&e.ipv4) : static_cast<void *>(&e.ipv6));
  return e;
}

// The slots of a result as "a b c".
inline std::string Addresses(const DnsResult *result) {
  std::string s;
  for (int i = 0; i < result->count; ++i) {
    const DnsAddressEntry &e = result->slots[i];
    char text[64] = "?";
    inet_ntop(e.family, e.family == AF_INET ? static_cast<const void *>(&e.ipv4) : &e.ipv6, text, sizeof text);
    s += (i ? " " : "") + std::string(text);
  }
  return s;
}

inline std::string Show(const char *name, const DnsResult *result) {
  return std::string(name) + ":" + (result->count > 0 ? " " + Addresses(result) : "");
}

// The live addresses of a cached name, newest first; "absent" when the cache has none.
inline std::string Cached(DnsCache *cache, const char *name, int maxCount = 16) {
  union {
    DnsResult result;
    uint8_t bytes[sizeof(DnsResult) + 16 * sizeof(DnsAddressEntry)];
  } buf = {};
  return DnsCache_Get(cache, name, &buf.result, maxCount) == 0 ? Addresses(&buf.result) : "absent";
}

// An exact-size heap copy: a read behind its end is an ASan report.
inline std::unique_ptr<uint8_t[]> HeapCopy(const Bytes &b) {
  std::unique_ptr<uint8_t[]> copy(new uint8_t[b.empty() ? 1 : b.size()]);
  std::copy(b.begin(), b.end(), copy.get());
  return copy;
}

// Big-endian datagram builder.
struct Packet {
  Bytes b;
  Packet &u8(uint8_t v) { return b.push_back(v), *this; }
  Packet &u16(uint16_t v) { return u8(static_cast<uint8_t>(v >> 8)).u8(static_cast<uint8_t>(v)); }
  Packet &u32(uint32_t v) { return u16(static_cast<uint16_t>(v >> 16)).u16(static_cast<uint16_t>(v)); }
  Packet &raw(const Bytes &r) { return b.insert(b.end(), r.begin(), r.end()), *this; }
  // An answer named by a compression pointer to the question; `record` follows a name.
  Packet &answer(uint16_t type, uint32_t ttl, const Bytes &rdata) { return u8(0xC0).u8(0x0C).record(type, ttl, rdata); }
  Packet &a(const char *v4, uint32_t ttl = 60) { return answer(1, ttl, Ip(v4)); }
  Packet &aaaa(const char *v6, uint32_t ttl = 60) { return answer(28, ttl, Ip(v6)); }
  Packet &record(uint16_t type, uint32_t ttl, const Bytes &rdata) {
    return u16(type).u16(1).u32(ttl).u16(static_cast<uint16_t>(rdata.size())).raw(rdata);
  }
};

// A header: identifier as a number, a response's flags unless told, no NS/AR records.
inline Packet Header(uint16_t id, uint16_t qd, uint16_t an, uint16_t flags = 0x8180) {
  return Packet().u16(id).u16(flags).u16(qd).u16(an).u16(0).u16(0);
}

// A response with one question (class IN) and `an` answers still to add.
inline Packet Response(uint16_t id, const std::string &question, uint16_t an, uint16_t qtype = 1) {
  return Header(id, 1, an).raw(Labels(question)).u16(qtype).u16(1);
}

}  // namespace rk::test
