// Events on the client's two sockets as the loop delivers them: one
// datagram per read event, error and eof closing a socket for good (and
// destroy not closing it a second time), write-only events ignored, and the
// context going on with the family that is left.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "dns_e2e_fixture.h"

namespace rk {
namespace test {
namespace {

class SocketTest : public DnsE2eTest {
 protected:
  void SetUp() override {
    DnsE2eTest::SetUp();
    prime();
  }

  // Puts `n` answers in the IPv4 socket's queue without running the loop.
  void queueAnswers(int n) {
    for (int i = 1; i <= n; ++i) {
      Bytes b = reply("q" + std::to_string(i) + ".lan").answer(Rr::A("192.0.2." + std::to_string(i))).build();
      ASSERT_TRUE(responder_->reply(client4_, b));
    }
    // Loopback delivers within sendto; the queue holds them now.
    int pending = 0;
    ASSERT_EQ(ioctl(context()->dnsSock.fd, FIONREAD, &pending), 0);
    ASSERT_GT(pending, 0);
  }

  // Takes the descriptor number `fd` with a harmless file, so that a second
  // close of `fd` would hit it.
  static int occupy(int fd) {
    int tmp = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (tmp == fd || tmp < 0) return tmp;
    int dup = fcntl(tmp, F_DUPFD_CLOEXEC, fd);
    close(tmp);
    return dup;
  }
  static bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

  std::vector<std::string> queriedFamilies() {
    std::vector<std::string> out;
    for (const auto &q : responder_->queries()) out.push_back(q.family == AF_INET ? "v4" : "v6");
    return out;
  }
};

TEST_F(SocketTest, OneDatagramPerReadEvent) {
  AsyncDnsContext *c = context();
  queueAnswers(3);
  c->dnsSock.cb(&c->dnsSock, ULOOP_READ);
  EXPECT_EQ(Recorder::lines(), std::vector<std::string>{"q1.lan: 192.0.2.1"});
  c->dnsSock.cb(&c->dnsSock, ULOOP_READ);
  EXPECT_EQ(Recorder::lines(), (std::vector<std::string>{"q1.lan: 192.0.2.1", "q2.lan: 192.0.2.2"}));
  // The registration was renewed each time: the loop delivers the rest.
  ASSERT_TRUE(runUntil([] { return Recorder::answers().size() == 3; }));
  EXPECT_EQ(Recorder::answers()[2].line, "q3.lan: 192.0.2.3");
  EXPECT_TRUE(c->dnsSock.registered);
}

TEST_F(SocketTest, WriteOnlyEventReadsNothing) {
  AsyncDnsContext *c = context();
  const int fd = c->dnsSock.fd;
  queueAnswers(1);
  c->dnsSock.cb(&c->dnsSock, ULOOP_WRITE);
  c->dns6Sock.cb(&c->dns6Sock, ULOOP_WRITE);
  EXPECT_TRUE(Recorder::answers().empty());
  EXPECT_EQ(c->dnsSock.fd, fd);
  ASSERT_TRUE(runUntil([] { return Recorder::answers().size() == 1; }));
  EXPECT_EQ(Recorder::lines(), std::vector<std::string>{"q1.lan: 192.0.2.1"});
}

TEST_F(SocketTest, NullRecordIsIgnored) {
  AsyncDnsContext *c = context();
  c->dnsSock.cb(nullptr, ULOOP_READ);
  c->dns6Sock.cb(nullptr, ULOOP_READ);
  EXPECT_GE(c->dnsSock.fd, 0);
  EXPECT_GE(c->dns6Sock.fd, 0);
}

TEST_F(SocketTest, ErrorClosesTheSocketAndReadsNothing) {
  AsyncDnsContext *c = context();
  const int fd = c->dnsSock.fd;
  queueAnswers(1);
  c->dnsSock.error = true;
  c->dnsSock.cb(&c->dnsSock, ULOOP_READ);
  EXPECT_EQ(c->dnsSock.fd, -1);
  EXPECT_FALSE(isOpen(fd));
  EXPECT_FALSE(c->dnsSock.registered);
  EXPECT_TRUE(Recorder::answers().empty());
  EXPECT_EQ(logs(), std::vector<std::string>());

  // Lookups go on over IPv6 alone.
  ASSERT_EQ(asyncLookup(c, "left.lan"), 0);
  ASSERT_TRUE(waitQueries(2));
  EXPECT_EQ(queriedFamilies(), (std::vector<std::string>{"v6", "v6"}));
  ASSERT_TRUE(deliver(reply("left.lan").answer(Rr::AAAA("2001:db8::1")).build(), AF_INET6));
  EXPECT_EQ(Recorder::lines(), std::vector<std::string>{"left.lan: 2001:db8::1"});

  // Destroy must not close the old number again: it belongs to someone else now.
  const int other = occupy(fd);
  ASSERT_EQ(other, fd);
  ctx_.reset();
  EXPECT_TRUE(isOpen(other));
  close(other);
}

TEST_F(SocketTest, EofClosesTheSocket) {
  AsyncDnsContext *c = context();
  const int fd = c->dns6Sock.fd;
  c->dns6Sock.eof = true;
  c->dns6Sock.cb(&c->dns6Sock, ULOOP_READ);
  EXPECT_EQ(c->dns6Sock.fd, -1);
  EXPECT_FALSE(isOpen(fd));
  EXPECT_GE(c->dnsSock.fd, 0);

  ASSERT_EQ(asyncLookup(c, "left.lan"), 0);
  ASSERT_TRUE(waitQueries(2));
  EXPECT_EQ(queriedFamilies(), (std::vector<std::string>{"v4", "v4"}));

  const int other = occupy(fd);
  ASSERT_EQ(other, fd);
  ctx_.reset();
  EXPECT_TRUE(isOpen(other));
  close(other);
}

TEST_F(SocketTest, BothSocketsClosedLookupsStillReturnZero) {
  AsyncDnsContext *c = context();
  const int fd4 = c->dnsSock.fd, fd6 = c->dns6Sock.fd;
  c->dnsSock.error = true;
  c->dnsSock.cb(&c->dnsSock, ULOOP_READ | ULOOP_WRITE);
  c->dns6Sock.error = true;
  c->dns6Sock.cb(&c->dns6Sock, 0);
  EXPECT_EQ(c->dnsSock.fd, -1);
  EXPECT_EQ(c->dns6Sock.fd, -1);
  EXPECT_EQ(asyncLookup(c, "nowhere.lan"), 0);
  DnsAddressEntry e{};
  EXPECT_EQ(asyncLookupPtr(c, &e), 0);
  const int o4 = occupy(fd4), o6 = occupy(fd6);
  ctx_.reset();
  EXPECT_TRUE(isOpen(o4));
  EXPECT_TRUE(isOpen(o6));
  close(o4);
  close(o6);
  EXPECT_TRUE(responder_->queries().empty());
}

TEST_F(SocketTest, DestroyClosesBothSockets) {
  AsyncDnsContext *c = context();
  const int fd4 = c->dnsSock.fd, fd6 = c->dns6Sock.fd;
  ctx_.reset();
  EXPECT_FALSE(isOpen(fd4));
  EXPECT_FALSE(isOpen(fd6));
}

TEST_F(SocketTest, SocketsAreCloseOnExecAndNonBlocking) {
  AsyncDnsContext *c = context();
  for (int fd : {c->dnsSock.fd, c->dns6Sock.fd}) {
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(fcntl(fd, F_GETFL) & O_NONBLOCK);  // uloop sets it on registration
    int rcvbuf = 0;
    socklen_t len = sizeof rcvbuf;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, &len), 0);
    EXPECT_EQ(rcvbuf, 2 * 131072);  // the kernel doubles what was asked for
  }
}

}  // namespace
}  // namespace test
}  // namespace rk
