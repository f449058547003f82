// What the DNS tests share: a datagram builder, addresses as bytes and as
// DnsAddressEntry, the text of a result ("name: a b c") and of a cached name,
// and exact-size heap copies.
#pragma once

#include <arpa/inet.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include <routerkit/async_dns.h>

namespace rk::test {

using Bytes = std::vector<uint8_t>;

// "aaa.bb" -> 03 'aaa' 02 'bb' 00
inline Bytes Labels(const std::string &dotted) {
  Bytes out;
  size_t start = 0;
  while (start < dotted.size()) {
    size_t dot = dotted.find('.', start);
    if (dot == std::string::npos) dot = dotted.size();
    out.push_back(static_cast<uint8_t>(dot - start));
    out.insert(out.end(), dotted.begin() + static_cast<long>(start), dotted.begin() + static_cast<long>(dot));
    start = dot + 1;
  }
  out.push_back(0);
  return out;
}

inline Bytes V4(const char *text) {
  Bytes b(4);
  inet_pton(AF_INET, text, b.data());
  return b;
}

inline Bytes V6(const char *text) {
  Bytes b(16);
  inet_pton(AF_INET6, text, b.data());
  return b;
}

inline DnsAddressEntry Entry(const char *text) {
  DnsAddressEntry e = {};
  e.family = strchr(text, ':') ? AF_INET6 : AF_INET;
  inet_pton(e.family, text, e.family == AF_INET ? static_cast<void *>(&e.ipv4) : static_cast<void *>(&e.ipv6));
  return e;
}

inline std::string Show(const DnsAddressEntry &e) {
  char text[64] = "?";
  if (e.family == AF_INET) inet_ntop(AF_INET, &e.ipv4, text, sizeof text);
  if (e.family == AF_INET6) inet_ntop(AF_INET6, &e.ipv6, text, sizeof text);
  return text;
}

// The slots of a result as "a b c".
inline std::string Addresses(const DnsResult *result) {
  std::string s;
  for (int i = 0; i < result->count; ++i) s += (i ? " " : "") + Show(result->slots[i]);
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
  if (!b.empty()) memcpy(copy.get(), b.data(), b.size());
  return copy;
}

// Big-endian datagram builder.
struct Packet {
  Bytes b;
  Packet &u8(uint8_t v) {
    b.push_back(v);
    return *this;
  }
  Packet &u16(uint16_t v) { return u8(static_cast<uint8_t>(v >> 8)).u8(static_cast<uint8_t>(v)); }
  Packet &u32(uint32_t v) { return u16(static_cast<uint16_t>(v >> 16)).u16(static_cast<uint16_t>(v)); }
  Packet &raw(const Bytes &r) {
    b.insert(b.end(), r.begin(), r.end());
    return *this;
  }
  Packet &fill(size_t n, uint8_t v) { return raw(Bytes(n, v)); }
  // A record named by a compression pointer to the question.
  Packet &answer(uint16_t type, uint32_t ttl, const Bytes &rdata) { return u8(0xC0).u8(0x0C).record(type, ttl, rdata); }
  Packet &a(const char *v4, uint32_t ttl = 60) { return answer(1, ttl, V4(v4)); }
  Packet &aaaa(const char *v6, uint32_t ttl = 60) { return answer(28, ttl, V6(v6)); }
  // A record whose name is written in full.
  Packet &answerNamed(const std::string &name, uint16_t type, uint32_t ttl, const Bytes &rdata) {
    return raw(Labels(name)).record(type, ttl, rdata);
  }
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
