// Acceptance of received DNS datagrams: what is refused with which message,
// what reaches the callback and the cache, and that every read stays inside
// the datagram (each one is handed over as an exact-size heap copy).
//
// Runs in a private namespace (NAMESPACE flag): the messages go through
// syslog, which this program receives on its own /dev/log.
#include <gtest/gtest.h>

#include <tuple>

#include "dns/cache.h"
#include "dns/answer.h"
#include "dns_test.h"
#include "rk_test.h"

namespace rk::test {
namespace {

constexpr uint16_t kId = 0x1234;  // the context's identifier, as a number
const char *const kQ = "aaa.bbbbbbb.ccc";
const char *const kNotPointer = "I [checkDnsSocket:N]the data_name is not 0xC0XX";

// The identifiers are printed as the 16-bit values their two bytes give in
// memory, so the text differs between little- and big-endian hosts.
std::string InMemory(uint8_t first, uint8_t second) {
  char text[8];
  snprintf(text, sizeof text, "%x", ntohs(static_cast<uint16_t>(first << 8 | second)));
  return text;
}

using Strings = std::vector<std::string>;
Strings calls;
int recordCall(AsyncDnsContext *, const char *name, DnsResult *r) { return calls.push_back(Show(name, r)), 0; }

struct Row {
  const char *what;
  Bytes datagram;
  int ret;
  Strings calls = {}, logs = {};
  std::vector<std::pair<const char *, const char *>> cache = {};  // name, live addresses newest first
};

class DnsAnswers : public ::testing::Test {
 protected:
  void SetUp() override {
    RK_REQUIRE_NAMESPACE();
    ASSERT_TRUE(log_.ok() && uloop_init() == 0 && (context_ = asyncDns_create(recordCall)));
    context_->id = htons(kId);
  }
  void TearDown() override { asyncDns_destroy(context_), uloop_done(); }

  // The result; the callbacks are left in `calls`.
  int run(const Bytes &datagram, const struct sockaddr_storage *from = nullptr) {
    calls.clear();
    return rk::dns::processDatagram(context_, HeapCopy(datagram).get(), datagram.size(), from);
  }

  // Runs a table row: result, callbacks, messages, then the cache.
  void expect(const Row &row) {
    if (!row.cache.empty()) DnsCache_Clean(context_->cache);
    EXPECT_EQ(run(row.datagram), row.ret) << row.what;
    EXPECT_EQ(calls, row.calls) << row.what;
    EXPECT_EQ(log_.TakeNormalized(), row.logs) << row.what;
    for (const auto &entry : row.cache) EXPECT_EQ(Cached(context_->cache, entry.first), entry.second) << row.what;
  }

  SyslogCapture log_;
  AsyncDnsContext *context_ = nullptr;
};

TEST_F(DnsAnswers, RefusedBeforeTheAnswerLoop) {
  // The flags are not looked at: only the size, the identifier and the question count.
  const std::string wrongId = InMemory(0x56, 0x78) + "," + InMemory(0x12, 0x34);
  const Row rows[] = {
      {"20 bytes are too short", Bytes(20), -1, {}, {"I [checkDnsSocket:N]error size(20)"}},
      {"21 bytes reach the identifier test", Header(0x5678, 0, 0).raw(Bytes(9)).b, -1, {},
       {"I [checkDnsSocket:N]error id(" + wrongId + ")"}},
      {"then the question count", Header(kId, 0, 0).raw(Bytes(9)).b, -1, {},
       {"I [checkDnsSocket:N]error questCount(0)"}},
      {"no answers", Response(kId, kQ, 0).raw(Bytes(16)).b, -1},
      {"an empty question name", Header(kId, 1, 1).u8(0).u16(1).u16(1).a("1.2.3.4").b, -1},
      {"answers would start at the end", Response(kId, kQ, 1).b, -1},
      {"a response code is not looked at: NXDOMAIN without answers",
       Header(kId, 1, 0, 0x8183).raw(Labels(kQ)).u16(1).u16(1).b, -1},
  };
  for (const Row &row : rows) expect(row);
  EXPECT_EQ(Cached(context_->cache, kQ), "absent");
}

TEST_F(DnsAnswers, AnswersReachTheCallbackAndTheCache) {
  const Row rows[] = {
      {"one A", Response(kId, kQ, 1).a("1.2.3.4").b, 0, {"aaa.bbbbbbb.ccc: 1.2.3.4"}, {}, {{kQ, "1.2.3.4"}}},
      {"A, AAAA: slots in answer order, cache newest first", Response(kId, kQ, 2).a("1.2.3.4").aaaa("2001:db8::1").b,
       0, {"aaa.bbbbbbb.ccc: 1.2.3.4 2001:db8::1"}, {}, {{kQ, "2001:db8::1 1.2.3.4"}}},
      {"a CNAME then two A records: filed under the question's name",
       Response(kId, kQ, 3).answer(5, 60, Labels("www.bbbbbbb.ccc")).a("1.1.1.1").a("2.2.2.2").b, 0,
       {"aaa.bbbbbbb.ccc: 1.1.1.1 2.2.2.2"}, {}, {{kQ, "2.2.2.2 1.1.1.1"}, {"www.bbbbbbb.ccc", "absent"}}},
      {"a TTL of 0 is delivered but not cached", Response(kId, kQ, 2).a("1.1.1.1").a("2.2.2.2", 0).b, 0,
       {"aaa.bbbbbbb.ccc: 1.1.1.1 2.2.2.2"}, {}, {{kQ, "1.1.1.1"}}},
      {"only records of other types: no slot, no callback",
       Response(kId, kQ, 3).answer(5, 60, Labels("www.bbbbbbb.ccc")).answer(15, 60, Bytes{0, 10, 0})
           .answer(16, 60, Bytes{3, 'a', 'b', 'c'}).b, 0, {}, {}, {{kQ, "absent"}}},
      {"RDLENGTH 2 fills two bytes, RDLENGTH 6 stores four and moves six on",
       Response(kId, kQ, 3).answer(1, 60, Bytes{1, 2}).answer(1, 60, Bytes{5, 6, 7, 8, 9, 9}).a("9.9.9.9").b, 0,
       {"aaa.bbbbbbb.ccc: 1.2.0.0 5.6.7.8 9.9.9.9"}},
      {"the datagram ends behind the last record before ANCOUNT is used up",
       Response(kId, kQ, 5).a("1.1.1.1").aaaa("::1").b, 0, {"aaa.bbbbbbb.ccc: 1.1.1.1 ::1"}},
      {"bytes behind the counted answers are not looked at", Response(kId, kQ, 1).a("1.1.1.1").a("2.2.2.2").b, 0,
       {"aaa.bbbbbbb.ccc: 1.1.1.1"}, {}, {{kQ, "1.1.1.1"}}},
  };
  for (const Row &row : rows) expect(row);
  // At most sixteen slots are filled.
  Packet p = Response(kId, kQ, 40);
  std::string sixteen = "aaa.bbbbbbb.ccc:";
  for (uint8_t i = 0; i < 40; ++i) {
    p.answer(1, 60, Bytes{10, 0, 0, i});
    if (i < 16) sixteen += " 10.0.0." + std::to_string(i);
  }
  expect({"40 answers", p.b, 0, {sixteen}});
}

TEST_F(DnsAnswers, FullAnswerNamesReplaceTheName) {
  const Row rows[] = {
      {"a full name goes to the callback and the cache",
       Response(kId, kQ, 2).raw(Labels("www.bbbbbbb.ccc")).record(1, 60, Ip("1.1.1.1")).a("2.2.2.2").b, 0,
       {"www.bbbbbbb.ccc: 1.1.1.1 2.2.2.2"}, {kNotPointer}, {{"www.bbbbbbb.ccc", "2.2.2.2 1.1.1.1"}, {kQ, "absent"}}},
      {"a first byte of 0xC1 is no pointer: a full name, fields shifted behind it",
       Response(kId, kQ, 1).raw(Bytes{0xC1, 'x', 'y', 0}).record(1, 60, Ip("1.2.3.4")).b, 0, {"xy: 1.2.3.4"},
       {kNotPointer}, {{"xy", "1.2.3.4"}}},
      {"a zero name byte ends everything without a callback; the cache keeps what it got",
       Response(kId, kQ, 2).a("1.1.1.1").raw(Bytes{0}).record(1, 60, Ip("2.2.2.2")).b, -1, {}, {kNotPointer},
       {{kQ, "1.1.1.1"}}},
  };
  for (const Row &row : rows) expect(row);
}

TEST_F(DnsAnswers, RecordsCutByTheEndAreReportedAndWhatCameBeforeIsDelivered) {
  const Row rows[] = {
      {"RDATA would start exactly at the end",
       Response(kId, kQ, 2).a("1.1.1.1").u8(0xC0).u8(0x0C).u16(1).u16(1).u32(60).u16(0).b, 0,
       {"aaa.bbbbbbb.ccc: 1.1.1.1"}, {"E [checkDnsSocket:N]error protol(domain:aaa.bbbbbbb.ccc,count:1/1)"}},
      {"RDLENGTH one byte past the end",
       Response(kId, kQ, 2).a("1.1.1.1").u8(0xC0).u8(0x0C).u16(1).u16(1).u32(60).u16(4).raw({2, 2, 2}).b, 0,
       {"aaa.bbbbbbb.ccc: 1.1.1.1"}, {"E [checkDnsSocket:N]error protol(aaa.bbbbbbb.ccc,data_len:4,count:1/1)"}},
      {"a record ending at the end passes", Response(kId, kQ, 1).a("1.1.1.1").b, 0, {"aaa.bbbbbbb.ccc: 1.1.1.1"}},
      {"TYPE, TTL and RDLENGTH behind the end", Response(kId, kQ, 1).raw({0xC0, 0x0C, 0x00}).b, 0, {},
       {"E [checkDnsSocket:N]error protol(domain:aaa.bbbbbbb.ccc,count:0/1)"}},
      {"a full name to the end shifts the fields behind", Response(kId, kQ, 1).raw({5, 'a', 'b', 'c', 'd', 'e'}).b, 0,
       {}, {kNotPointer, "E [checkDnsSocket:N]error protol(domain:abcde,count:0/1)"}},
      {"a question name cut by the end reads as if zeros followed", Header(kId, 1, 1).u8(63).raw(Bytes(10, 'a')).b, -1},
      // Hostile counts and names.
      {"65535 answers claimed, one there", Response(kId, kQ, 65535).a("1.1.1.1").b, 0, {"aaa.bbbbbbb.ccc: 1.1.1.1"}, {},
       {{kQ, "1.1.1.1"}}},
      {"a pointer to itself is not followed", Response(kId, kQ, 1).raw({0xC0, 33}).record(1, 60, Ip("1.2.3.4")).b, 0,
       {"aaa.bbbbbbb.ccc: 1.2.3.4"}},
      {"a question name that is a pointer to itself", Header(kId, 1, 1).raw({0xC0, 0x0C}).u16(1).u16(1).a("1.1.1.1").b,
       -1, {}, {kNotPointer}},
  };
  for (const Row &row : rows) expect(row);
}

TEST_F(DnsAnswers, PointerRecords) {
  const std::string ptr = "4.3.2.1.in-addr.arpa";
  // The address text holds 64 bytes: room for the reversal of a question of
  // up to 76 characters. Nothing longer can be an address.
  const std::string longest = std::string(63, 'x') + ".in-addr.arpa";
  const Row rows[] = {
      {"a PTR answer names the host and carries the address it was asked about",
       Response(kId, ptr, 1, 12).answer(12, 60, Labels("host.bbbbbbb.ccc")).b, 0, {"host.bbbbbbb.ccc: 1.2.3.4"}, {},
       {{"host.bbbbbbb.ccc", "absent"}, {ptr.c_str(), "absent"}}},
      {"a question shorter than the suffix gives an address of zero",
       Response(kId, "bbbbbbb.ccc", 1, 12).answer(12, 60, Labels("h")).b, 0, {"h: 0.0.0.0"}},
      {"A records before a PTR are delivered with it",
       Response(kId, ptr, 3, 12).a("9.9.9.9").answer(12, 60, Labels("host.bbbbbbb.ccc")).a("8.8.8.8").b, 0,
       {"host.bbbbbbb.ccc: 9.9.9.9 1.2.3.4"}, {}, {{ptr.c_str(), "9.9.9.9"}}},
      {"a 76-character question", Response(kId, longest, 1, 12).answer(12, 60, Labels("h")).b, 0, {"h: 0.0.0.0"}},
  };
  for (const Row &row : rows) expect(row);
}

TEST_F(DnsAnswers, MessagesNameTheSenderWhenKnown) {
  sockaddr_storage from4 = {}, from6 = {};
  from4.ss_family = AF_INET;
  inet_pton(AF_INET, "192.0.2.7", &reinterpret_cast<sockaddr_in *>(&from4)->sin_addr);
  from6.ss_family = AF_INET6;
  inet_pton(AF_INET6, "2001:db8::53", &reinterpret_cast<sockaddr_in6 *>(&from6)->sin6_addr);
  const std::tuple<Bytes, const sockaddr_storage *, std::string> rows[] = {
      {Bytes(5), &from4, "I [checkDnsSocket:N]error size(5) from 192.0.2.7"},
      {Bytes(5), &from6, "I [checkDnsSocket:N]error size(5) from 2001:db8::53"},
      {Header(0xabcd, 1, 1).raw(Bytes(10)).b, &from4,
       "I [checkDnsSocket:N]error id(" + InMemory(0xab, 0xcd) + "," + InMemory(0x12, 0x34) + ") from 192.0.2.7"},
      {Response(kId, kQ, 1).raw({0xC0, 0x0C}).b, &from4,
       "E [checkDnsSocket:N]error protol(domain:aaa.bbbbbbb.ccc,count:0/1) from 192.0.2.7"},
      {Response(kId, kQ, 1).u8(0xC0).u8(0x0C).u16(1).u16(1).u32(1).u16(9).raw({1}).b, &from6,
       "E [checkDnsSocket:N]error protol(aaa.bbbbbbb.ccc,data_len:9,count:0/1) from 2001:db8::53"},
  };
  for (const auto &[datagram, from, line] : rows) {
    run(datagram, from);
    EXPECT_EQ(log_.TakeNormalized(), Strings{line});
  }
  // No socket to read: refused before any read, and nothing logged.
  EXPECT_EQ(rk::dns::checkDnsSocket(context_, -1) + rk::dns::checkDnsSocket(nullptr, 0), -2);
  EXPECT_EQ(log_.TakeNormalized(), Strings{});
}

}  // namespace
}  // namespace rk::test
