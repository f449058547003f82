// The server lists as a daemon manages them: duplicates, texts of the wrong
// family, null arguments, cleaning and adding again, all seen through what
// reaches the responder and what syslog gets.
#include <arpa/inet.h>
#include <stdio.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dns_e2e_fixture.h"

namespace rk {
namespace test {
namespace {

class ServerTest : public DnsE2eTest {
 protected:
  void SetUp() override {
    DnsE2eTest::SetUp();
    responder({"::"});
    context();
    logs();
  }
  // Local addresses the queries of one lookup were sent to, in order. A
  // marker query sent behind them from a socket of the test's own lands in
  // the same queue after them, so its arrival means all of them are in.
  std::vector<std::string> askedFor(const std::string &name) {
    responder_->clear();
    EXPECT_EQ(asyncLookup(context(), name.c_str()), 0);
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(53);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    Bytes marker = DnsPacket().flags(0x0100).question("marker.sync").build();
    EXPECT_EQ(sendto(fd, marker.data(), marker.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to),
              static_cast<ssize_t>(marker.size()));
    close(fd);
    auto seen = [&] {
      for (const auto &q : responder_->queries())
        if (q.name() == "marker.sync") return true;
      return false;
    };
    EXPECT_TRUE(runUntil(seen));
    std::vector<std::string> out;
    for (const auto &q : responder_->queries()) {
      if (q.name() != "marker.sync") out.push_back(q.toText + (q.type() == kTypeA ? " A" : " AAAA"));
    }
    return out;
  }
};

std::string pointer(const void *p) {
  char buf[32];
  snprintf(buf, sizeof buf, "%p", p);
  return buf;
}

TEST_F(ServerTest, DuplicatesLeaveOneServer) {
  AsyncDnsContext *c = context();
  EXPECT_EQ(asyncDns_AddServer(c, "127.0.0.1"), 0);
  EXPECT_EQ(asyncDns_AddServer(c, "127.0.0.1"), 0);
  EXPECT_EQ(asyncDns_AddServer6(c, "::1"), 0);
  EXPECT_EQ(asyncDns_AddServer6(c, "0:0:0:0:0:0:0:1"), 0);  // the same 16 bytes
  EXPECT_EQ(logs(), (std::vector<std::string>{"I [asyncDns_AddServer:N]add 127.0.0.1",
                                              "I [asyncDns_AddServer6:N]add ::1"}));
  EXPECT_EQ(askedFor("dup.lan"),
            (std::vector<std::string>{"127.0.0.1 A", "::1 A", "127.0.0.1 AAAA", "::1 AAAA"}));
}

struct BadText {
  bool six;
  const char *text;
  const char *log;
};

TEST_F(ServerTest, TextsThatAreNotAddressesOfTheFamily) {
  const std::vector<BadText> cases = {
      {false, "::1", "E [asyncDns_AddServer:N]szServer=::1"},
      {false, "", "E [asyncDns_AddServer:N]szServer="},
      {false, "127.0.0", "E [asyncDns_AddServer:N]szServer=127.0.0"},
      {false, "127.0.0.1 ", "E [asyncDns_AddServer:N]szServer=127.0.0.1 "},
      {false, "localhost", "E [asyncDns_AddServer:N]szServer=localhost"},
      {true, "127.0.0.1", "E [asyncDns_AddServer6:N]127.0.0.1 is not ipv6"},
      {true, "", "E [asyncDns_AddServer6:N] is not ipv6"},
      {true, "fe80::1%lo", "E [asyncDns_AddServer6:N]fe80::1%lo is not ipv6"},
  };
  AsyncDnsContext *c = context();
  for (const auto &tc : cases) {
    SCOPED_TRACE(tc.text);
    EXPECT_EQ(tc.six ? asyncDns_AddServer6(c, tc.text) : asyncDns_AddServer(c, tc.text), -1);
    EXPECT_EQ(logs(), std::vector<std::string>{tc.log});
  }
  // None of them became a server.
  EXPECT_EQ(askedFor("none.lan"), std::vector<std::string>());
}

TEST_F(ServerTest, NullArguments) {
  AsyncDnsContext *c = context();
  const char *text = "127.0.0.1";
  EXPECT_EQ(asyncDns_AddServer(nullptr, text), -1);
  EXPECT_EQ(asyncDns_AddServer(c, nullptr), -1);
  EXPECT_EQ(logs(), (std::vector<std::string>{
                        "E [asyncDns_AddServer:N]szServer=" + pointer(text) + " or context=" + pointer(nullptr),
                        "E [asyncDns_AddServer:N]szServer=" + pointer(nullptr) + " or context=" + pointer(c)}));
  EXPECT_EQ(asyncDns_AddServer6(nullptr, "::1"), -1);
  EXPECT_EQ(asyncDns_AddServer6(c, nullptr), -1);
  EXPECT_EQ(logs(), std::vector<std::string>());
  asyncDns_cleanServer(nullptr);
  asyncDns_cleanServer6(nullptr);
}

TEST_F(ServerTest, CleanEmptiesOneFamilyAndAddingStartsOver) {
  AsyncDnsContext *c = context();
  for (const char *s : {"127.0.0.1", "127.0.0.2"}) ASSERT_EQ(asyncDns_AddServer(c, s), 0);
  ASSERT_EQ(asyncDns_AddServer6(c, "::1"), 0);

  asyncDns_cleanServer(c);
  EXPECT_EQ(askedFor("a.lan"), (std::vector<std::string>{"::1 A", "::1 AAAA"}));

  ASSERT_EQ(asyncDns_AddServer(c, "127.0.0.3"), 0);
  EXPECT_EQ(askedFor("b.lan"),
            (std::vector<std::string>{"127.0.0.3 A", "::1 A", "127.0.0.3 AAAA", "::1 AAAA"}));

  asyncDns_cleanServer6(c);
  EXPECT_EQ(askedFor("c.lan"), (std::vector<std::string>{"127.0.0.3 A", "127.0.0.3 AAAA"}));
  asyncDns_cleanServer6(c);  // cleaning an empty list is fine
  asyncDns_cleanServer(c);
  EXPECT_EQ(askedFor("d.lan"), std::vector<std::string>());

  // A server added again after cleaning is logged again.
  logs();
  ASSERT_EQ(asyncDns_AddServer(c, "127.0.0.1"), 0);
  EXPECT_EQ(logs(), std::vector<std::string>{"I [asyncDns_AddServer:N]add 127.0.0.1"});
}

TEST_F(ServerTest, ContextWrappersReturnZero) {
  AsyncDnsContext *c = context();
  EXPECT_EQ(asyncDns_setMinDnsCache(c, 60), 0);
  EXPECT_EQ(asyncDns_cleanCache(c), 0);
  EXPECT_EQ(asyncDns_cleanCache(nullptr), 0);
}

}  // namespace
}  // namespace test
}  // namespace rk
