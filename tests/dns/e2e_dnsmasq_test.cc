// The client against a real DNS server: dnsmasq, started in the test's
// namespace on 127.0.0.1:53 and [::1]:53 with a few local records.
#include <arpa/inet.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dns_e2e_fixture.h"
#include "dnsmasq.h"

namespace rk {
namespace test {
namespace {

class DnsmasqTest : public DnsE2eTest {
 protected:
  void SetUp() override {
    DnsE2eTest::SetUp();
    if (!Dnsmasq::binary()) GTEST_SKIP() << "dnsmasq is not installed";
    server_ = std::make_unique<Dnsmasq>(
        std::vector<std::string>{
            "--host-record=multi.test.lan,192.0.2.1,2001:db8::1,300",
            "--host-record=multi.test.lan,192.0.2.2,2001:db8::2,300",
            "--host-record=single.test.lan,192.0.2.9,300",
            "--ptr-record=100.1.168.192.in-addr.arpa,router.test.lan",
        },
        "single.test.lan");
    ASSERT_TRUE(server_->ok()) << server_->error();
    AsyncDnsContext *c = context();
    ASSERT_EQ(asyncDns_AddServer(c, "127.0.0.1"), 0);
    ASSERT_EQ(asyncDns_AddServer6(c, "::1"), 0);
  }
  void TearDown() override {
    DnsE2eTest::TearDown();
    server_.reset();
  }

  bool waitAnswers(size_t n) {
    return runUntil([n] { return Recorder::answers().size() >= n; });
  }

  // A line with its addresses sorted: the server's order within a
  // response is its own business.
  static std::string sorted(const Answer &a) {
    std::vector<std::string> addrs;
    for (const auto &e : a.slots) addrs.push_back(formatEntry(e));
    std::sort(addrs.begin(), addrs.end());
    std::string line = a.name + ":";
    for (size_t i = 0; i < addrs.size(); ++i) line += (i ? ", " : " ") + addrs[i];
    return line;
  }
  static std::vector<std::string> sortedLines() {
    std::vector<std::string> out;
    for (const auto &a : Recorder::answers()) out.push_back(sorted(a));
    std::sort(out.begin(), out.end());
    return out;
  }

  std::unique_ptr<Dnsmasq> server_;
};

TEST_F(DnsmasqTest, SeveralAddressesOfBothFamiliesFromBothServers) {
  AsyncDnsContext *c = context();
  ASSERT_EQ(asyncLookup(c, "multi.test.lan"), 0);
  ASSERT_TRUE(waitAnswers(4));
  EXPECT_EQ(sortedLines(), (std::vector<std::string>{
                               "multi.test.lan: 192.0.2.1, 192.0.2.2",
                               "multi.test.lan: 192.0.2.1, 192.0.2.2",
                               "multi.test.lan: 2001:db8::1, 2001:db8::2",
                               "multi.test.lan: 2001:db8::1, 2001:db8::2",
                           }));
  for (const auto &a : Recorder::answers()) EXPECT_FALSE(a.duringLookup);

  // All four addresses are cached now: the next lookup is answered inside
  // the call, once, with each address once.
  Recorder::clear();
  {
    Recorder::LookupScope scope;
    ASSERT_EQ(asyncLookup(c, "multi.test.lan"), 0);
  }
  ASSERT_EQ(Recorder::answers().size(), 1u);
  EXPECT_TRUE(Recorder::answers()[0].duringLookup);
  EXPECT_EQ(sorted(Recorder::answers()[0]), "multi.test.lan: 192.0.2.1, 192.0.2.2, 2001:db8::1, 2001:db8::2");
}

TEST_F(DnsmasqTest, UnknownNameGivesNoCallback) {
  AsyncDnsContext *c = context();
  // dnsmasq refuses it (no upstream); the client learns nothing. The known
  // name asked behind it over the same sockets tells when all answers are in.
  ASSERT_EQ(asyncLookup(c, "unknown.test.lan"), 0);
  ASSERT_EQ(asyncLookup(c, "single.test.lan"), 0);
  // dnsmasq answers each of its sockets in order, so when the known name's
  // A answers are in (one per family), the unknown name's answers were read
  // before them. The AAAA answers for the known name carry no address.
  ASSERT_TRUE(waitAnswers(2));
  EXPECT_EQ(sortedLines(), (std::vector<std::string>{"single.test.lan: 192.0.2.9", "single.test.lan: 192.0.2.9"}));
}

TEST_F(DnsmasqTest, ReverseLookups) {
  AsyncDnsContext *c = context();
  DnsAddressEntry e{};
  e.family = AF_INET;
  inet_pton(AF_INET, "192.168.1.100", &e.ipv4);
  ASSERT_EQ(asyncLookupPtr(c, &e), 0);
  ASSERT_TRUE(waitAnswers(2));
  EXPECT_EQ(sortedLines(), (std::vector<std::string>{"router.test.lan: 192.168.1.100",
                                                     "router.test.lan: 192.168.1.100"}));

  // A host record brings its reverse record along.
  Recorder::clear();
  inet_pton(AF_INET, "192.0.2.9", &e.ipv4);
  ASSERT_EQ(asyncLookupPtr(c, &e), 0);
  ASSERT_TRUE(waitAnswers(2));
  EXPECT_EQ(sortedLines(), (std::vector<std::string>{"single.test.lan: 192.0.2.9", "single.test.lan: 192.0.2.9"}));
  // PTR answers are not cached.
  EXPECT_EQ(cachedLine(c->cache, "single.test.lan"), "single.test.lan: (absent)");
}

}  // namespace
}  // namespace test
}  // namespace rk
