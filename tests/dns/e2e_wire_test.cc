// What the client puts on the wire: the exact bytes of its queries, the
// order in which they leave over both families and all servers, the name
// length limit, PTR queries, and the identifier of consecutive contexts.
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dns_e2e_fixture.h"

namespace rk {
namespace test {
namespace {

using WireTest = DnsE2eTest;

Bytes header(const AsyncDnsContext *c) {
  return {idByte(c, 0), idByte(c, 1), 0x01, 0x00, 0x00, 0x01, 0, 0, 0, 0, 0, 0};
}

Bytes concat(Bytes a, const Bytes &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

std::string familyName(int family) { return family == AF_INET ? "v4" : family == AF_INET6 ? "v6" : "?"; }

TEST_F(WireTest, FourQueriesOf33BytesInFamilyOrder) {
  // One dual-stack socket: both families land in one queue, in send order.
  DnsResponder &r = responder({"::"});
  AsyncDnsContext *c = context();
  ASSERT_EQ(asyncDns_AddServer(c, "127.0.0.1"), 0);
  ASSERT_EQ(asyncDns_AddServer6(c, "::1"), 0);

  ASSERT_EQ(asyncLookup(c, "aaa.bbbbbbb.ccc"), 0);
  ASSERT_TRUE(waitQueries(4));
  ASSERT_EQ(r.queries().size(), 4u);

  const std::vector<std::pair<int, uint16_t>> order = {
      {AF_INET, kTypeA}, {AF_INET6, kTypeA}, {AF_INET, kTypeAaaa}, {AF_INET6, kTypeAaaa}};
  for (size_t i = 0; i < 4; ++i) {
    const DnsQuery &q = r.queries()[i];
    SCOPED_TRACE("query " + std::to_string(i));
    EXPECT_EQ(familyName(q.family), familyName(order[i].first));
    ASSERT_EQ(q.bytes.size(), 33u);
    EXPECT_EQ(hex(q.bytes), hex(expectedQuery(c->id, "aaa.bbbbbbb.ccc", order[i].second)));
    EXPECT_EQ(hex(Bytes(q.bytes.begin() + 2, q.bytes.begin() + 12)), "01 00 00 01 00 00 00 00 00 00");
    EXPECT_EQ(q.bytes[29], 0x00);
    EXPECT_EQ(q.bytes[30], i < 2 ? 0x01 : 0x1C);
    EXPECT_EQ(q.bytes[0], idByte(c, 0));
    EXPECT_EQ(q.bytes[1], idByte(c, 1));
  }
  // Nothing waits for an answer: the lookup is done once the queries left.
  EXPECT_TRUE(Recorder::answers().empty());
}

// The kernel finishes a new IPv6 address a moment after `ip addr add`
// returns (even with nodad); until then datagrams to it are dropped. Ready
// means: a socket binds to it and receives a datagram sent to it.
bool waitUsable(const char *address) {
  for (int i = 0; i < 500; ++i) {
    sockaddr_in6 at{};
    at.sin6_family = AF_INET6;
    if (inet_pton(AF_INET6, address, &at.sin6_addr) != 1) return false;
    int rx = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int tx = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    socklen_t len = sizeof at;
    bool ok = bind(rx, reinterpret_cast<sockaddr *>(&at), sizeof at) == 0 &&
              getsockname(rx, reinterpret_cast<sockaddr *>(&at), &len) == 0 &&
              sendto(tx, "x", 1, 0, reinterpret_cast<sockaddr *>(&at), sizeof at) == 1;
    pollfd p{rx, POLLIN, 0};
    ok = ok && poll(&p, 1, 20) == 1;
    close(rx);
    close(tx);
    if (ok) return true;
    usleep(2000);
  }
  return false;
}

TEST_F(WireTest, EveryServerOfBothListsInOrderOfAdding) {
  // Two more IPv6 addresses on lo; 127.0.0.0/8 is local already.
  for (const char *a : {"fd00:53::1", "fd00:53::2"}) {
    std::string cmd = std::string("ip -6 addr add ") + a + "/128 dev lo nodad";
    ASSERT_EQ(system(cmd.c_str()), 0) << cmd;
  }
  for (const char *a : {"fd00:53::1", "fd00:53::2"}) ASSERT_TRUE(waitUsable(a)) << a;
  DnsResponder &r = responder({"::"});
  AsyncDnsContext *c = context();
  const std::vector<std::string> v4 = {"127.0.0.3", "127.0.0.1", "127.0.0.2"};
  const std::vector<std::string> v6 = {"fd00:53::2", "::1", "fd00:53::1"};
  for (const auto &s : v4) ASSERT_EQ(asyncDns_AddServer(c, s.c_str()), 0);
  for (const auto &s : v6) ASSERT_EQ(asyncDns_AddServer6(c, s.c_str()), 0);

  ASSERT_EQ(asyncLookup(c, "order.test"), 0);
  EXPECT_TRUE(waitQueries(12));
  std::vector<std::string> got, want;
  for (const auto &q : r.queries()) got.push_back(q.toText + (q.type() == kTypeA ? " A" : " AAAA"));
  for (const char *type : {" A", " AAAA"}) {
    for (const auto &s : v4) want.push_back(s + type);
    for (const auto &s : v6) want.push_back(s + type);
  }
  EXPECT_EQ(got, want);
}

// Names with empty labels are encoded as they stand, inside L + 2 bytes of
// QNAME: a trailing dot adds a second zero byte and QTYPE moves one byte on.
struct NameCase {
  const char *name;
  Bytes qname;
};

TEST_F(WireTest, NamesAreEncodedInPlace) {
  const std::vector<NameCase> cases = {
      {"aaa.bbbbbbb.ccc",
       {3, 'a', 'a', 'a', 7, 'b', 'b', 'b', 'b', 'b', 'b', 'b', 3, 'c', 'c', 'c', 0}},
      {"aaa.bbbbbbb.ccc.",
       {3, 'a', 'a', 'a', 7, 'b', 'b', 'b', 'b', 'b', 'b', 'b', 3, 'c', 'c', 'c', 0, 0}},
      {"a..b", {1, 'a', 0, 1, 'b', 0}},
      {".abc", {0, 3, 'a', 'b', 'c', 0}},
      {"a", {1, 'a', 0}},
      {"..", {0, 0, 0, 0}},
      {"", {0, 0}},
  };
  DnsResponder &r = responder({"127.0.0.1"});
  AsyncDnsContext *c = context();
  ASSERT_EQ(asyncDns_AddServer(c, "127.0.0.1"), 0);
  for (const auto &tc : cases) {
    SCOPED_TRACE(std::string("name \"") + tc.name + "\"");
    r.clear();
    ASSERT_EQ(asyncLookup(c, tc.name), 0);
    ASSERT_TRUE(waitQueries(2));
    Bytes a = concat(concat(header(c), tc.qname), {0, 1, 0, 1});
    Bytes aaaa = concat(concat(header(c), tc.qname), {0, 0x1C, 0, 1});
    EXPECT_EQ(a.size(), strlen(tc.name) + 18);
    EXPECT_EQ(hex(r.queries()[0].bytes), hex(a));
    EXPECT_EQ(hex(r.queries()[1].bytes), hex(aaaa));
  }
}

std::string longName(size_t length) {
  std::string name;
  while (name.size() < length) {
    if (!name.empty()) name += '.';
    name += std::string(62, static_cast<char>('a' + name.size() % 26));
  }
  name.resize(length);
  if (name.back() == '.') name.back() = 'z';
  return name;
}

TEST_F(WireTest, LongestNameFillsTheBuffer) {
  DnsResponder &r = responder();
  AsyncDnsContext *c = context();
  ASSERT_EQ(asyncDns_AddServer(c, "127.0.0.1"), 0);
  ASSERT_EQ(asyncDns_AddServer6(c, "::1"), 0);

  const std::string longest = longName(2030);
  ASSERT_EQ(longest.size(), 2030u);
  ASSERT_EQ(asyncLookup(c, longest.c_str()), 0);
  ASSERT_TRUE(waitQueries(4));
  for (const auto &q : r.queries()) {
    EXPECT_EQ(q.bytes.size(), 2048u);
    EXPECT_EQ(hex(q.bytes), hex(expectedQuery(c->id, longest, q.type() == kTypeA ? kTypeA : kTypeAaaa)));
  }
  r.clear();

  const std::string tooLong = longName(2031);
  logs();
  EXPECT_EQ(asyncLookup(c, tooLong.c_str()), -1);
  EXPECT_EQ(logs(), std::vector<std::string>());  // refused without a message
  // Nothing went out: the next lookup's queries are the first to arrive.
  ASSERT_EQ(asyncLookup(c, "after.test"), 0);
  ASSERT_TRUE(waitQueries(4));
  for (const auto &q : r.queries()) EXPECT_EQ(q.name(), "after.test");
}

TEST_F(WireTest, PtrQueryOf44Bytes) {
  DnsResponder &r = responder({"::"});
  AsyncDnsContext *c = context();
  ASSERT_EQ(asyncDns_AddServer(c, "127.0.0.1"), 0);
  ASSERT_EQ(asyncDns_AddServer6(c, "::1"), 0);

  // The address may come as a DnsAddressEntry or as a sockaddr_in; only the
  // IPv4 field is read, not the family.
  DnsAddressEntry entry{};
  entry.family = AF_INET;
  inet_pton(AF_INET, "192.168.1.100", &entry.ipv4);
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  inet_pton(AF_INET, "192.168.1.100", &sin.sin_addr);
  DnsAddressEntry noFamily{};
  inet_pton(AF_INET, "192.168.1.100", &noFamily.ipv4);

  const Bytes want = expectedQuery(c->id, "100.1.168.192.in-addr.arpa", kTypePtr);
  ASSERT_EQ(want.size(), 44u);
  for (const void *address : {static_cast<const void *>(&entry), static_cast<const void *>(&sin),
                              static_cast<const void *>(&noFamily)}) {
    r.clear();
    ASSERT_EQ(asyncLookupPtr(c, address), 0);
    ASSERT_TRUE(waitQueries(2));
    ASSERT_EQ(r.queries().size(), 2u);
    EXPECT_EQ(r.queries()[0].family, AF_INET);
    EXPECT_EQ(r.queries()[1].family, AF_INET6);
    for (const auto &q : r.queries()) EXPECT_EQ(hex(q.bytes), hex(want));
  }
}

TEST_F(WireTest, RefusedArgumentsSendNothing) {
  DnsResponder &r = responder();
  AsyncDnsContext *c = context();
  ASSERT_EQ(asyncDns_AddServer(c, "127.0.0.1"), 0);
  EXPECT_EQ(asyncLookup(nullptr, "x.test"), -1);
  EXPECT_EQ(asyncLookup(c, nullptr), -1);
  EXPECT_EQ(asyncLookupPtr(c, nullptr), -1);
  DnsAddressEntry entry{};
  EXPECT_EQ(asyncLookupPtr(nullptr, &entry), -1);
  ASSERT_EQ(asyncLookup(c, "after.test"), 0);
  ASSERT_TRUE(waitQueries(2));
  EXPECT_EQ(r.queries()[0].name(), "after.test");
}

TEST_F(WireTest, NoServersStillSucceeds) {
  DnsResponder &r = responder();
  AsyncDnsContext *c = context();
  EXPECT_EQ(asyncLookup(c, "nobody.test"), 0);
  DnsAddressEntry entry{};
  entry.family = AF_INET;
  EXPECT_EQ(asyncLookupPtr(c, &entry), 0);
  ASSERT_EQ(asyncDns_AddServer(c, "127.0.0.1"), 0);
  ASSERT_EQ(asyncLookup(c, "after.test"), 0);
  ASSERT_TRUE(waitQueries(2));
  EXPECT_EQ(r.queries()[0].name(), "after.test");
}

// The identifier: getpid() plus a process-wide counter, in network order.
// A fresh program (dns_id_probe) shows the first context's value: it makes
// two contexts one after the other and looks up "first.id" and "second.id".
TEST_F(WireTest, IdentifiersOfConsecutiveContexts) {
  DnsResponder &r = responder({"127.0.0.1"});
  pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    execl(RK_DNS_ID_PROBE, RK_DNS_ID_PROBE, static_cast<char *>(nullptr));
    _exit(127);
  }
  int status = 0;
  // The loop's SIGCHLD handling may have reaped it already; the queries tell.
  if (waitpid(child, &status, 0) == child) {
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  ASSERT_TRUE(waitQueries(4));
  const uint16_t first = static_cast<uint16_t>(child);
  for (const auto &q : r.queries()) {
    uint16_t expected = q.name() == "first.id" ? first : static_cast<uint16_t>(first + 1);
    SCOPED_TRACE(q.name());
    EXPECT_EQ(q.bytes[0], expected >> 8);
    EXPECT_EQ(q.bytes[1], expected & 0xff);
  }

  // In this process too, one context after the other differ by one.
  ContextPtr a(asyncDns_create(nullptr));
  ContextPtr b(asyncDns_create(nullptr));
  ASSERT_TRUE(a && b);
  EXPECT_EQ(static_cast<uint16_t>(contextId(a.get()) + 1), contextId(b.get()));
}

// Restores the descriptor limit when the test ends, whatever happens.
class FdLimit {
 public:
  FdLimit() : lowest_(lowestFree()) { getrlimit(RLIMIT_NOFILE, &saved_); }
  ~FdLimit() { setrlimit(RLIMIT_NOFILE, &saved_); }
  // Leaves exactly `free` descriptors below the limit.
  bool allow(int free) {
    if (lowest_ < 0) return false;
    rlimit r = saved_;
    r.rlim_cur = static_cast<rlim_t>(lowest_ + free);
    return setrlimit(RLIMIT_NOFILE, &r) == 0;
  }
  int lowest() const { return lowest_; }

 private:
  static int lowestFree() {
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) close(fd);
    return fd;
  }
  int lowest_;
  rlimit saved_{};
};

TEST_F(WireTest, FailedSocketsCountTowardsTheIdentifier) {
  ContextPtr before(asyncDns_create(nullptr));
  ASSERT_TRUE(before);
  // Let syslog connect now, while a descriptor is still free for it.
  EXPECT_EQ(asyncDns_AddServer(before.get(), "no address"), -1);
  logs();

  {
    FdLimit limit;
    const int lowest = limit.lowest();
    ASSERT_TRUE(limit.allow(0));
    EXPECT_EQ(asyncDns_create(nullptr), nullptr);  // no IPv4 socket
    ASSERT_TRUE(limit.allow(1));
    EXPECT_EQ(asyncDns_create(nullptr), nullptr);  // IPv4 socket, no IPv6 socket
    // The IPv4 socket of the second attempt was closed again.
    EXPECT_EQ(fcntl(lowest, F_GETFD), -1);
  }
  EXPECT_EQ(logs(), (std::vector<std::string>{
                        "E [createDnsSock:N]error create sock",
                        "E [asyncDns_create:N]error dnsSock",
                        "E [createDnsSock:N]error create sock",
                        "E [asyncDns_create:N]error dns6Sock",
                    }));

  ContextPtr after(asyncDns_create(nullptr));
  ASSERT_TRUE(after);
  EXPECT_EQ(static_cast<uint16_t>(contextId(before.get()) + 3), contextId(after.get()));
}

}  // namespace
}  // namespace test
}  // namespace rk
