// Writes the seed corpus of the DNS datagram fuzzer: well-formed answers of
// every kind the client handles and the malformed ones its checks exist
// for. Run once; the files are checked in under tests/fuzz/corpus/dns.
//
//   dns_make_corpus tests/fuzz/corpus/dns
//
// Each file is one way-in byte (see dns_datagram_entry.cc) and a datagram
// with the identifier 12 34 the fuzz context uses.
#include <stdio.h>

#include <string>
#include <vector>

#include "dns_packet.h"

using rk::test::Bytes;
using rk::test::DnsPacket;
using rk::test::Rr;

namespace {

constexpr uint8_t kV4 = 0, kV6 = 1, kNoSender = 2, kSocket = 3, kLookUpAgain = 4;

DnsPacket reply(const std::string &qname = "aaa.bbbbbbb.ccc", uint16_t qtype = rk::test::kTypeA) {
  return DnsPacket().id(0x1234).question(qname, qtype);
}

bool write(const std::string &dir, const std::string &name, uint8_t way, const Bytes &datagram) {
  std::string path = dir + "/seed-" + name;
  FILE *f = fopen(path.c_str(), "wb");
  if (!f) return false;
  fputc(way, f);
  fwrite(datagram.data(), 1, datagram.size(), f);
  return fclose(f) == 0;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s OUTPUT_DIR\n", argv[0]);
    return 2;
  }
  const std::string dir = argv[1];
  struct Seed {
    const char *name;
    uint8_t way;
    Bytes bytes;
  };
  std::vector<Seed> seeds;
  auto add = [&](const char *name, uint8_t way, Bytes b) { seeds.push_back({name, way, std::move(b)}); };

  add("a-two", kV4 | kLookUpAgain, reply().answer(Rr::A("192.0.2.1")).answer(Rr::A("192.0.2.2")).build());
  add("aaaa-v6", kV6 | kLookUpAgain, reply("aaa.bbbbbbb.ccc", rk::test::kTypeAaaa).answer(Rr::AAAA("2001:db8::1")).build());
  add("mixed-socket", kSocket | kLookUpAgain,
      reply().answer(Rr::A("192.0.2.1")).answer(Rr::AAAA("2001:db8::1")).answer(Rr::A("192.0.2.2")).build());
  add("cname-then-a", kV4 | kLookUpAgain,
      reply("alias.lan").answer(Rr::CNAME("real.lan")).answer(Rr::A("192.0.2.1")).answer(Rr::A("192.0.2.2")).build());
  add("ttl-zero", kV4 | kLookUpAgain, reply().answer(Rr::A("192.0.2.1")).answer(Rr::A("192.0.2.2").withTtl(0)).build());
  add("full-name", kV4 | kLookUpAgain, reply().answer(Rr::A("192.0.2.7").withName("www.example.lan")).answer(Rr::A("192.0.2.8")).build());
  add("zero-name", kV4, reply().answer(Rr::A("192.0.2.1")).answer(Rr::A("192.0.2.2").withNameBytes({0})).build());
  {
    Bytes name{0xC1};
    name.insert(name.end(), 193, 'q');
    name.push_back(0);
    add("c1-name", kV4 | kLookUpAgain, reply().answer(Rr::A("192.0.2.77").withNameBytes(name)).build());
  }
  {
    DnsPacket p = reply();
    for (int i = 1; i <= 40; ++i) p.answer(Rr::A("10.0.0." + std::to_string(i)));
    add("forty-answers", kV4 | kLookUpAgain, p.build());
  }
  add("other-types", kV4, reply().answer(Rr::Other(rk::test::kTypeTxt, {3, 'a', 'b', 'c'})).answer(Rr::CNAME("x.ccc")).build());
  add("rdlength-zero-last", kV4, reply().answer(Rr::A("192.0.2.1")).answer(Rr::A("192.0.2.2").withRdata({})).build());
  add("rdlength-past-end", kSocket, reply().answer(Rr::A("192.0.2.1")).answer(Rr::AAAA("2001:db8::1").withRdlength(17)).build());
  add("rdlength-short-long", kV4,
      reply().answer(Rr::Other(rk::test::kTypeA, {10, 1})).answer(Rr::Other(rk::test::kTypeA, {10, 2, 0, 3, 0xff, 0xff})).answer(Rr::A("192.0.2.5")).build());
  add("ptr", kV4, reply("4.3.2.1.in-addr.arpa", rk::test::kTypePtr).answer(Rr::PTR("host.bbbbbbb.ccc")).build());
  add("ptr-short-question", kV4, reply("bbbbbbb.ccc", rk::test::kTypePtr).answer(Rr::PTR("host.bbbbbbb.ccc")).build());
  add("ptr-two", kNoSender, reply("100.1.168.192.in-addr.arpa", rk::test::kTypePtr).answer(Rr::PTR("one.lan")).answer(Rr::PTR("two.lan")).build());
  add("ptr-pointer-rdata", kV4, reply("4.3.2.1.in-addr.arpa", rk::test::kTypePtr).answer(Rr::Other(rk::test::kTypePtr, {4, 'h', 'o', 's', 't', 0xC0, 0x0C})).build());
  {
    // A question name long enough to overrun the PTR address text.
    std::string q;
    for (int i = 0; i < 20; ++i) q += "255.";
    q += "in-addr.arpa";
    add("ptr-long-question", kV4, reply(q, rk::test::kTypePtr).answer(Rr::PTR("h.lan")).build());
  }
  {
    Bytes b = reply().answer(Rr::A("192.0.2.1")).build();
    b.resize(20);
    add("size-20", kV4, b);
    Bytes c = reply("aaa").build();
    add("size-21", kV4, c);
  }
  {
    Bytes b = reply().answer(Rr::A("192.0.2.1")).build();
    b[0] = 0x43;
    add("wrong-id", kV6, b);
  }
  add("questcount-2", kV4, reply().qdcount(2).answer(Rr::A("192.0.2.1")).build());
  add("questcount-0", kNoSender, reply().qdcount(0).answer(Rr::A("192.0.2.1")).build());
  add("empty-question", kV4, DnsPacket().id(0x1234).question("").answer(Rr::A("192.0.2.1")).build());
  add("ancount-0", kV4, reply().raw({0, 0, 0, 0}).build());
  add("rcode-3", kSocket, reply().flags(0x8183).build());
  add("ancount-beyond", kV4, reply().ancount(5).answer(Rr::A("192.0.2.1")).build());
  add("empty-datagram", kSocket, {});
  {
    // Question name cut by the end of the datagram.
    Bytes b = reply().build();
    b.resize(12);
    b.insert(b.end(), {0x3f, 'a', 'b', 'c'});
    add("cut-question", kV4, b);
  }
  {
    // A whole receive buffer of label bytes: nothing ever ends.
    Bytes b = reply().build();
    b.resize(12);
    b[7] = 16;
    while (b.size() < 65535) b.push_back(0x3f);
    add("full-buffer-endless", kV4, b);
    b.resize(65507);
    add("largest-udp-endless", kSocket, b);
  }
  {
    // A full-name record whose shifted fields lie behind the end.
    Bytes b = reply().build();
    b[7] = 1;
    b.insert(b.end(), {0x05, 'a', 'b', 'c', 'd', 'e', 0x00, 0x00, 0x01});
    add("shifted-fields-past-end", kV4, b);
  }

  for (const auto &s : seeds) {
    if (!write(dir, s.name, s.way, s.bytes)) {
      fprintf(stderr, "cannot write %s/seed-%s\n", dir.c_str(), s.name);
      return 1;
    }
  }
  printf("%zu seeds written to %s\n", seeds.size(), dir.c_str());
  return 0;
}
