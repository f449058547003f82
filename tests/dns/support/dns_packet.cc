#include "dns_packet.h"

#include <arpa/inet.h>
#include <stdio.h>

namespace rk {
namespace test {
namespace {

void put16(Bytes &out, uint16_t v) {
  out.push_back(static_cast<uint8_t>(v >> 8));
  out.push_back(static_cast<uint8_t>(v));
}

void put32(Bytes &out, uint32_t v) {
  put16(out, static_cast<uint16_t>(v >> 16));
  put16(out, static_cast<uint16_t>(v));
}

void append(Bytes &out, const Bytes &more) { out.insert(out.end(), more.begin(), more.end()); }

}  // namespace

Bytes encodeName(const std::string &name) {
  Bytes out;
  size_t start = 0;
  while (start < name.size()) {
    size_t dot = name.find('.', start);
    if (dot == std::string::npos) dot = name.size();
    if (dot > start) {
      out.push_back(static_cast<uint8_t>(dot - start));
      out.insert(out.end(), name.begin() + start, name.begin() + dot);
    }
    start = dot + 1;
  }
  out.push_back(0);
  return out;
}

Bytes ipv4Bytes(const std::string &text) {
  uint8_t b[4];
  if (inet_pton(AF_INET, text.c_str(), b) != 1) return {};
  return Bytes(b, b + 4);
}

Bytes ipv6Bytes(const std::string &text) {
  uint8_t b[16];
  if (inet_pton(AF_INET6, text.c_str(), b) != 1) return {};
  return Bytes(b, b + 16);
}

Rr Rr::A(const std::string &ipv4) { return Other(kTypeA, ipv4Bytes(ipv4)); }
Rr Rr::AAAA(const std::string &ipv6) { return Other(kTypeAaaa, ipv6Bytes(ipv6)); }
Rr Rr::CNAME(const std::string &target) { return Other(kTypeCname, encodeName(target)); }
Rr Rr::PTR(const std::string &target) { return Other(kTypePtr, encodeName(target)); }

Rr Rr::Other(uint16_t type, Bytes rdata) {
  Rr rr;
  rr.type = type;
  rr.rdata = std::move(rdata);
  return rr;
}

Rr &Rr::withName(const std::string &fullName) { return withNameBytes(encodeName(fullName)); }
Rr &Rr::withNameBytes(Bytes bytes) {
  name = std::move(bytes);
  return *this;
}
Rr &Rr::withTtl(uint32_t seconds) {
  ttl = seconds;
  return *this;
}
Rr &Rr::withRdlength(uint16_t length) {
  rdlength = length;
  return *this;
}
Rr &Rr::withRdata(Bytes bytes) {
  rdata = std::move(bytes);
  return *this;
}

Bytes Rr::bytes() const {
  Bytes out = name;
  put16(out, type);
  put16(out, klass);
  put32(out, ttl);
  put16(out, rdlength ? *rdlength : static_cast<uint16_t>(rdata.size()));
  append(out, rdata);
  return out;
}

DnsPacket DnsPacket::replyTo(const Bytes &query) {
  DnsPacket p;
  if (query.size() >= 2) p.idBytes(query[0], query[1]);
  if (query.size() > 12) p.questionBytes(Bytes(query.begin() + 12, query.end()));
  return p;
}

DnsPacket &DnsPacket::id(uint16_t value) {
  return idBytes(static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value));
}
DnsPacket &DnsPacket::idBytes(uint8_t first, uint8_t second) {
  id_[0] = first;
  id_[1] = second;
  return *this;
}
DnsPacket &DnsPacket::flags(uint16_t value) {
  flags_ = value;
  return *this;
}
DnsPacket &DnsPacket::qdcount(uint16_t value) {
  qdcount_ = value;
  return *this;
}
DnsPacket &DnsPacket::ancount(uint16_t value) {
  ancount_ = value;
  return *this;
}
DnsPacket &DnsPacket::nscount(uint16_t value) {
  nscount_ = value;
  return *this;
}
DnsPacket &DnsPacket::arcount(uint16_t value) {
  arcount_ = value;
  return *this;
}

DnsPacket &DnsPacket::question(const std::string &name, uint16_t type, uint16_t klass) {
  append(question_, encodeName(name));
  put16(question_, type);
  put16(question_, klass);
  ++questions_;
  return *this;
}

DnsPacket &DnsPacket::questionBytes(const Bytes &bytes) {
  append(question_, bytes);
  ++questions_;
  return *this;
}

DnsPacket &DnsPacket::answer(const Rr &rr) {
  append(answers_bytes_, rr.bytes());
  ++answers_;
  return *this;
}

DnsPacket &DnsPacket::raw(const Bytes &bytes) {
  append(tail_, bytes);
  return *this;
}

Bytes DnsPacket::build() const {
  Bytes out{id_[0], id_[1]};
  put16(out, flags_);
  put16(out, qdcount_ ? *qdcount_ : static_cast<uint16_t>(questions_));
  put16(out, ancount_ ? *ancount_ : static_cast<uint16_t>(answers_));
  put16(out, nscount_ ? *nscount_ : 0);
  put16(out, arcount_ ? *arcount_ : 0);
  append(out, question_);
  append(out, answers_bytes_);
  append(out, tail_);
  return out;
}

Bytes expectedQuery(uint16_t idNetwork, const std::string &name, uint16_t qtype) {
  const auto *idb = reinterpret_cast<const uint8_t *>(&idNetwork);
  Bytes out{idb[0], idb[1], 0x01, 0x00, 0x00, 0x01, 0, 0, 0, 0, 0, 0};
  if (name.empty()) {
    out.push_back(0);
    out.push_back(0);
  } else {
    append(out, encodeName(name));
  }
  put16(out, qtype);
  put16(out, 1);
  return out;
}

std::string hex(const Bytes &bytes) {
  std::string out;
  char buf[4];
  for (size_t i = 0; i < bytes.size(); ++i) {
    snprintf(buf, sizeof buf, "%02x", bytes[i]);
    if (i) out += ' ';
    out += buf;
  }
  return out;
}

std::string queryName(const Bytes &query) {
  std::string out;
  size_t pos = 12;
  while (pos < query.size() && query[pos] != 0) {
    size_t len = query[pos];
    if (!out.empty()) out += '.';
    for (size_t i = 1; i <= len && pos + i < query.size(); ++i) out += static_cast<char>(query[pos + i]);
    pos += len + 1;
  }
  return out;
}

uint16_t queryType(const Bytes &query) {
  size_t pos = 12;
  while (pos < query.size() && query[pos] != 0) pos += query[pos] + 1;
  if (pos + 2 >= query.size()) return 0;
  return static_cast<uint16_t>(query[pos + 1] << 8 | query[pos + 2]);
}

}  // namespace test
}  // namespace rk
