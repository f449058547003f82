// Answers through the client's real sockets: which datagrams are accepted,
// what is logged for the refused ones, what the callback gets and what goes
// into the cache. Every case is a crafted datagram from the responder's
// port 53, followed by a sentinel, so "no callback" needs no timeout.
#include <arpa/inet.h>
#include <malloc.h>
#include <stdio.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dns_e2e_fixture.h"

namespace rk {
namespace test {
namespace {

constexpr char kName[] = "aaa.bbbbbbb.ccc";

class AnswerTest : public DnsE2eTest {
 protected:
  void SetUp() override {
    DnsE2eTest::SetUp();
    prime();
  }
  std::string cached(const std::string &name) { return cachedLine(context()->cache, name); }
};

std::string idText(uint16_t inMemory) {
  char buf[16];
  snprintf(buf, sizeof buf, "%x", inMemory);
  return buf;
}

// Makes response skeletons with the context's identifier.
struct Skeleton {
  uint8_t id0, id1;
  DnsPacket operator()(const std::string &qname = kName, uint16_t qtype = kTypeA) const {
    return DnsPacket().idBytes(id0, id1).question(qname, qtype);
  }
  DnsPacket bare() const { return DnsPacket().idBytes(id0, id1); }
};

// One datagram, what syslog gets for it and which callbacks run.
struct AcceptanceCase {
  const char *what;
  std::function<Bytes(const Skeleton &)> datagram;
  std::vector<std::string> log;
  std::vector<std::string> answers;
};

TEST_F(AnswerTest, DatagramsAreJudgedInOrder) {
  const std::vector<AcceptanceCase> cases = {
      {"20 bytes are too short",
       [](const Skeleton &reply) {
         Bytes b = reply().answer(Rr::A("192.0.2.1")).build();
         b.resize(20);
         return b;
       },
       {"I [checkDnsSocket:N]error size(20) from 127.0.0.1"},
       {}},
      {"21 bytes with the right identifier pass the size test and end silently",
       [](const Skeleton &reply) {
         Bytes b = reply("aaa").build();
         EXPECT_EQ(b.size(), 21u);
         return b;
       },
       {},
       {}},
      {"questCount 2",
       [](const Skeleton &reply) {
         return reply().qdcount(2).answer(Rr::A("192.0.2.1")).build();
       },
       {"I [checkDnsSocket:N]error questCount(2) from 127.0.0.1"},
       {}},
      {"questCount 0",
       [](const Skeleton &reply) {
         return reply().qdcount(0).answer(Rr::A("192.0.2.1")).build();
       },
       {"I [checkDnsSocket:N]error questCount(0) from 127.0.0.1"},
       {}},
      {"an empty question name ends silently",
       [](const Skeleton &reply) {
         return reply.bare().question("").answer(Rr::A("192.0.2.1")).build();
       },
       {},
       {}},
      {"ANCOUNT 0 ends silently",
       [](const Skeleton &reply) { return reply().raw({0, 0, 0, 0}).build(); },
       {},
       {}},
      {"an error response (RCODE 3) without answers ends silently",
       [](const Skeleton &reply) { return reply().flags(0x8183).build(); },
       {},
       {}},
      {"ANCOUNT 1 but nothing behind the question ends silently",
       [](const Skeleton &reply) { return reply().ancount(1).build(); },
       {},
       {}},
      {"flags are not read: a 'query' with answers is processed",
       [](const Skeleton &reply) {
         return reply().flags(0x0100).answer(Rr::A("192.0.2.1")).build();
       },
       {},
       {"aaa.bbbbbbb.ccc: 192.0.2.1"}},
      {"slots stand in the order of the answers",
       [](const Skeleton &reply) {
         return reply()
             .answer(Rr::A("192.0.2.1"))
             .answer(Rr::AAAA("2001:db8::1"))
             .answer(Rr::A("192.0.2.2"))
             .build();
       },
       {},
       {"aaa.bbbbbbb.ccc: 192.0.2.1, 2001:db8::1, 192.0.2.2"}},
      {"records of other types use up answers but no slot",
       [](const Skeleton &reply) {
         return reply()
             .answer(Rr::Other(kTypeTxt, {3, 'a', 'b', 'c'}))
             .answer(Rr::CNAME("x.ccc"))
             .build();
       },
       {},
       {}},
      {"RDLENGTH 0 on the last record: RDATA would start at the end",
       [](const Skeleton &reply) {
         return reply()
             .answer(Rr::A("192.0.2.1"))
             .answer(Rr::A("192.0.2.2").withRdata({}))
             .build();
       },
       {"E [checkDnsSocket:N]error protol(domain:aaa.bbbbbbb.ccc,count:1/1) from 127.0.0.1"},
       {"aaa.bbbbbbb.ccc: 192.0.2.1"}},
      {"RDLENGTH one byte past the end",
       [](const Skeleton &reply) {
         return reply()
             .answer(Rr::A("192.0.2.1"))
             .answer(Rr::A("192.0.2.2"))
             .answer(Rr::AAAA("2001:db8::1").withRdlength(17))
             .build();
       },
       {"E [checkDnsSocket:N]error protol(aaa.bbbbbbb.ccc,data_len:17,count:2/1) from 127.0.0.1"},
       {"aaa.bbbbbbb.ccc: 192.0.2.1, 192.0.2.2"}},
      {"a record that ends exactly at the end passes",
       [](const Skeleton &reply) {
         return reply().answer(Rr::AAAA("2001:db8::5")).build();
       },
       {},
       {"aaa.bbbbbbb.ccc: 2001:db8::5"}},
      {"ANCOUNT larger than the records: the walk stops at the end",
       [](const Skeleton &reply) {
         return reply().ancount(5).answer(Rr::A("192.0.2.1")).build();
       },
       {},
       {"aaa.bbbbbbb.ccc: 192.0.2.1"}},
      {"a name written in full replaces the question's",
       [](const Skeleton &reply) {
         return reply()
             .answer(Rr::A("192.0.2.7").withName("www.example.lan"))
             .build();
       },
       {"I [checkDnsSocket:N]the data_name is not 0xC0XX"},
       {"www.example.lan: 192.0.2.7"}},
      {"a full name holds for the records behind it",
       [](const Skeleton &reply) {
         return reply()
             .answer(Rr::A("192.0.2.7").withName("www.example.lan"))
             .answer(Rr::A("192.0.2.8"))
             .build();
       },
       {"I [checkDnsSocket:N]the data_name is not 0xC0XX"},
       {"www.example.lan: 192.0.2.7, 192.0.2.8"}},
      {"an answer name of a single zero byte drops the whole datagram",
       [](const Skeleton &reply) {
         return reply()
             .answer(Rr::A("192.0.2.1"))
             .answer(Rr::A("192.0.2.2").withNameBytes({0}))
             .build();
       },
       {"I [checkDnsSocket:N]the data_name is not 0xC0XX"},
       {}},
      {"A with RDLENGTH 2 fills two bytes; RDLENGTH 6 stores four and skips six",
       [](const Skeleton &reply) {
         return reply()
             .answer(Rr::Other(kTypeA, {10, 1}))
             .answer(Rr::Other(kTypeA, {10, 2, 0, 3, 0xff, 0xff}))
             .answer(Rr::A("192.0.2.5"))
             .build();
       },
       {},
       {"aaa.bbbbbbb.ccc: 10.1.0.0, 10.2.0.3, 192.0.2.5"}},
      {"AAAA with RDLENGTH 20 stores sixteen bytes",
       [](const Skeleton &reply) {
         Bytes rdata = ipv6Bytes("2001:db8::9");
         rdata.insert(rdata.end(), {1, 2, 3, 4});
         return reply()
             .answer(Rr::Other(kTypeAaaa, rdata))
             .answer(Rr::A("192.0.2.6"))
             .build();
       },
       {},
       {"aaa.bbbbbbb.ccc: 2001:db8::9, 192.0.2.6"}},
      {"a PTR answer gives the host name and the address of the question",
       [](const Skeleton &reply) {
         return reply("4.3.2.1.in-addr.arpa", kTypePtr)
             .answer(Rr::PTR("host.bbbbbbb.ccc"))
             .build();
       },
       {},
       {"host.bbbbbbb.ccc: 1.2.3.4"}},
      {"a PTR for a question of fewer than 14 characters has the address zero",
       [](const Skeleton &reply) {
         return reply("bbbbbbb.ccc", kTypePtr)
             .answer(Rr::PTR("host.bbbbbbb.ccc"))
             .build();
       },
       {},
       {"host.bbbbbbb.ccc: 0.0.0.0"}},
      {"the first PTR record ends the walk",
       [](const Skeleton &reply) {
         return reply("100.1.168.192.in-addr.arpa", kTypePtr)
             .answer(Rr::PTR("one.lan"))
             .answer(Rr::PTR("two.lan"))
             .answer(Rr::A("192.0.2.1"))
             .build();
       },
       {},
       {"one.lan: 192.168.1.100"}},
      {"addresses before a PTR keep their slots",
       [](const Skeleton &reply) {
         return reply("4.3.2.1.in-addr.arpa", kTypePtr)
             .answer(Rr::A("192.0.2.1"))
             .answer(Rr::PTR("host.lan"))
             .build();
       },
       {},
       {"host.lan: 192.0.2.1, 1.2.3.4"}},
      {"PTR RDATA ending in a pointer: the pointer's byte reads as a label length",
       [](const Skeleton &reply) {
         return reply("4.3.2.1.in-addr.arpa", kTypePtr)
             .answer(Rr::Other(kTypePtr, {4, 'h', 'o', 's', 't', 0xC0, 0x0C}))
             .build();
       },
       {},
       {"host.\x0c: 1.2.3.4"}},
  };

  for (const auto &tc : cases) {
    SCOPED_TRACE(tc.what);
    Recorder::clear();
    ASSERT_TRUE(deliver(tc.datagram(Skeleton{idByte(context(), 0), idByte(context(), 1)})));
    EXPECT_EQ(logs(), tc.log);
    EXPECT_EQ(Recorder::lines(), tc.answers);
  }
}

TEST_F(AnswerTest, WrongIdentifierIsPrintedAsStoredInMemory) {
  AsyncDnsContext *c = context();
  if (idByte(c, 0) == 0x12 && idByte(c, 1) == 0x34) GTEST_SKIP() << "the process id happens to be 0x1234";
  Bytes b = reply().answer(Rr::A("192.0.2.1")).build();
  b[0] = 0x12;
  b[1] = 0x34;
  b.resize(21);
  ASSERT_TRUE(deliver(b));
  uint16_t received;
  memcpy(&received, b.data(), 2);
  // On a little-endian host the bytes 12 34 print as 3412.
  EXPECT_EQ(logs(), std::vector<std::string>{"I [checkDnsSocket:N]error id(" + idText(received) + "," +
                                             idText(c->id) + ") from 127.0.0.1"});
  EXPECT_TRUE(Recorder::answers().empty());
}

TEST_F(AnswerTest, SenderOverIpv6IsNamedInTheMessage) {
  Bytes b = reply().answer(Rr::A("192.0.2.1")).build();
  b.resize(12);
  ASSERT_TRUE(deliver(b, AF_INET6));
  EXPECT_EQ(logs(), std::vector<std::string>{"I [checkDnsSocket:N]error size(12) from ::1"});
  // And a good answer over IPv6 reaches the callback with this context.
  ASSERT_TRUE(deliver(reply().answer(Rr::AAAA("2001:db8::7")).build(), AF_INET6));
  ASSERT_EQ(Recorder::answers().size(), 1u);
  EXPECT_EQ(Recorder::answers()[0].line, "aaa.bbbbbbb.ccc: 2001:db8::7");
  EXPECT_EQ(Recorder::answers()[0].context, context());
  EXPECT_EQ(logs(), std::vector<std::string>());
}

TEST_F(AnswerTest, AnyoneWithTheIdentifierIsBelieved) {
  // Not a configured server and not port 53: only the identifier counts.
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in self{};
  self.sin_family = AF_INET;
  self.sin_port = htons(5353);
  inet_pton(AF_INET, "127.0.0.9", &self.sin_addr);
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&self), sizeof self), 0);
  Bytes b = reply("stranger.lan").answer(Rr::A("198.51.100.1")).build();
  ASSERT_EQ(sendto(fd, b.data(), b.size(), 0, reinterpret_cast<const sockaddr *>(&client4_.from), client4_.fromLen),
            static_cast<ssize_t>(b.size()));
  Bytes tooShort(5, 0);
  ASSERT_EQ(sendto(fd, tooShort.data(), tooShort.size(), 0, reinterpret_cast<const sockaddr *>(&client4_.from),
                   client4_.fromLen),
            5);
  close(fd);
  ASSERT_TRUE(sync());
  EXPECT_EQ(Recorder::lines(), std::vector<std::string>{"stranger.lan: 198.51.100.1"});
  EXPECT_EQ(logs(), std::vector<std::string>{"I [checkDnsSocket:N]error size(5) from 127.0.0.9"});
}

TEST_F(AnswerTest, EmptyDatagramIsAFailedRead) {
  ASSERT_TRUE(deliver(Bytes{}));
  EXPECT_EQ(logs(), std::vector<std::string>{"E [checkDnsSocket:N]error recvfrom"});
  EXPECT_TRUE(Recorder::answers().empty());
}

// The refusals before the answer loop are info, the broken records errors:
// at level 3 a daemon sees only the latter.
TEST_F(AnswerTest, LogLevelSelectsTheMessages) {
  log_setLevel(3);
  Bytes shortOne = reply().answer(Rr::A("192.0.2.1")).build();
  shortOne.resize(20);
  ASSERT_TRUE(deliver(shortOne));
  ASSERT_TRUE(deliver(reply().answer(Rr::A("192.0.2.1")).answer(Rr::AAAA("2001:db8::1").withRdlength(17)).build()));
  ASSERT_TRUE(deliver(reply().answer(Rr::A("192.0.2.2").withName("full.lan")).build()));
  log_setLevel(4);
  EXPECT_EQ(logs(), std::vector<std::string>{
                        "E [checkDnsSocket:N]error protol(aaa.bbbbbbb.ccc,data_len:17,count:1/1) from 127.0.0.1"});
  EXPECT_EQ(Recorder::lines(), (std::vector<std::string>{"aaa.bbbbbbb.ccc: 192.0.2.1", "full.lan: 192.0.2.2"}));
}

TEST_F(AnswerTest, CnameIsSkippedAndAddressesFiledUnderTheQuestion) {
  ASSERT_TRUE(deliver(reply("alias.lan")
                          .answer(Rr::CNAME("real.lan"))
                          .answer(Rr::A("192.0.2.1"))
                          .answer(Rr::A("192.0.2.2"))
                          .build()));
  EXPECT_EQ(Recorder::lines(), std::vector<std::string>{"alias.lan: 192.0.2.1, 192.0.2.2"});
  EXPECT_EQ(cached("alias.lan"), "alias.lan: 192.0.2.2, 192.0.2.1");
  EXPECT_EQ(cached("real.lan"), "real.lan: (absent)");
}

// The DnsResult of a datagram is one heap block of 4 + 28 * n bytes, n being
// ANCOUNT cut to 16: 452 bytes for 40 answers, 60 for two.
size_t g_resultBlock = 0;
int measuringCallback(AsyncDnsContext *context, const char *name, DnsResult *result) {
  if (std::string(name) != kSentinelName) g_resultBlock = malloc_usable_size(result);
  return Recorder::callback(context, name, result);
}

class AnswerBlockTest : public DnsE2eTest {
 protected:
  void SetUp() override {
    DnsE2eTest::SetUp();
    context(&measuringCallback);
    prime();
  }
};

TEST_F(AnswerBlockTest, FourBytesAndTwentyEightPerAnswerLookedAt) {
  for (const auto &[answers, bytes] : std::vector<std::pair<int, size_t>>{{40, 452}, {2, 60}, {16, 452}}) {
    SCOPED_TRACE(answers);
    DnsPacket p = reply();
    for (int i = 0; i < answers; ++i) p.answer(Rr::A("10.0.0.1").withTtl(0));
    g_resultBlock = 0;
    ASSERT_TRUE(deliver(p.build()));
    // glibc rounds a block up (to 16n - 8 usable bytes); ASan gives it exactly.
    EXPECT_GE(g_resultBlock, bytes);
    EXPECT_LT(g_resultBlock, bytes + 16);
  }
}

TEST_F(AnswerTest, PtrAnswersAreNotCached) {
  ASSERT_TRUE(deliver(reply("4.3.2.1.in-addr.arpa", kTypePtr).answer(Rr::PTR("host.bbbbbbb.ccc")).build()));
  EXPECT_EQ(Recorder::lines(), std::vector<std::string>{"host.bbbbbbb.ccc: 1.2.3.4"});
  EXPECT_EQ(cached("host.bbbbbbb.ccc"), "host.bbbbbbb.ccc: (absent)");
  EXPECT_EQ(cached("4.3.2.1.in-addr.arpa"), "4.3.2.1.in-addr.arpa: (absent)");
}

TEST_F(AnswerTest, OneCallbackPerDatagram) {
  // One lookup, four answering datagrams (A and AAAA from each family):
  // four callbacks, each with the name from its answer.
  ASSERT_EQ(asyncLookup(context(), "multi.lan"), 0);
  ASSERT_TRUE(waitQueries(4));
  for (const auto &q : responder_->queries()) {
    DnsPacket p = DnsPacket::replyTo(q.bytes);
    p.answer(q.type() == kTypeA ? Rr::A("192.0.2.1") : Rr::AAAA("2001:db8::1"));
    ASSERT_TRUE(responder_->reply(q, p.build()));
  }
  ASSERT_TRUE(runUntil([] { return Recorder::answers().size() >= 4; }));
  ASSERT_TRUE(sync(AF_INET));
  ASSERT_TRUE(sync(AF_INET6));
  std::vector<std::string> lines = Recorder::lines();
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines, (std::vector<std::string>{"multi.lan: 192.0.2.1", "multi.lan: 192.0.2.1",
                                             "multi.lan: 2001:db8::1", "multi.lan: 2001:db8::1"}));
}

// A datagram as large as UDP over IPv4 allows, filled with 0x3F: the
// question name never ends (it is cut at 253 characters), and so do the
// answer names. Sixteen answers are announced; each record is read as a
// full name of 253 characters with its fields shifted behind it, of type
// 0x3F3F and RDLENGTH 16191, until the fourth runs past the end.
TEST_F(AnswerTest, HugeDatagramOfEndlessNames) {
  Bytes b = reply().build();
  b.resize(12);
  b[7] = 16;
  while (b.size() < 65507) b.push_back(0x3f);
  ASSERT_TRUE(deliver(b));
  EXPECT_TRUE(Recorder::answers().empty());
  const std::string q63(63, '?');
  const std::string name = q63 + "." + q63 + "." + q63 + "." + std::string(61, '?');
  ASSERT_EQ(name.size(), 253u);
  const std::string notPointer = "I [checkDnsSocket:N]the data_name is not 0xC0XX";
  EXPECT_EQ(logs(), (std::vector<std::string>{
                        notPointer, notPointer, notPointer, notPointer,
                        "E [checkDnsSocket:N]error protol(" + name + ",data_len:16191,count:0/13) from 127.0.0.1"}));
}

}  // namespace
}  // namespace test
}  // namespace rk
