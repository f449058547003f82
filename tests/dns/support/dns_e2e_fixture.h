// The fixture of the DNS client's end-to-end tests: a uloop, a capture of
// syslog at /dev/log, the tests' own responder on port 53 and a client
// context whose callback records every answer.
//
// deliver() sends crafted bytes to one of the client's sockets from the
// responder's port 53 and then a sentinel answer behind it on the same
// socket. Datagrams on one socket are read in order, so once the sentinel's
// callback has run, the crafted datagram has been handled: a test can state
// "no callback" and "exactly this log" without waiting for a timeout.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <routerkit/async_dns.h>
#include <routerkit/log.h>

#include "dns_client.h"
#include "dns_packet.h"
#include "dns_responder.h"
#include "syslog_capture.h"
#include "uloop_fixture.h"

namespace rk {
namespace test {

constexpr char kSentinelName[] = "sentinel.sync";

class DnsE2eTest : public UloopTest {
 protected:
  void SetUp() override {
    ASSERT_TRUE(insideTestNamespace()) << "this test needs the private namespaces of rk-ns-run";
    log_ = std::make_unique<SyslogCapture>();
    ASSERT_TRUE(log_->ok()) << "cannot bind /dev/log";
    Recorder::clear();
    Recorder::setHook(nullptr);
  }

  void TearDown() override {
    ctx_.reset();
    responder_.reset();
    Recorder::setHook(nullptr);
    Recorder::clear();
  }

  // The responder, made on first use with the given listening addresses.
  DnsResponder &responder(const std::vector<std::string> &addresses = {"127.0.0.1", "::1"}) {
    if (!responder_) {
      responder_ = std::make_unique<DnsResponder>(addresses);
      EXPECT_TRUE(responder_->ok()) << responder_->error();
    }
    return *responder_;
  }

  // The context under test, with the recording callback (or `callback`).
  AsyncDnsContext *context(AsyncDnsCallback callback = &Recorder::callback) {
    if (!ctx_) {
      ctx_.reset(asyncDns_create(callback));
      EXPECT_NE(ctx_, nullptr);
    }
    return ctx_.get();
  }

  size_t queryCount() const { return responder_ ? responder_->queries().size() : 0; }

  bool waitQueries(size_t n) {
    return runUntil([&] { return queryCount() >= n; });
  }

  // Makes the client send from both sockets once (a lookup of "prime.test"
  // against 127.0.0.1 and ::1), so that the addresses it answers on are
  // known. Leaves both servers configured and clears queries, answers and log.
  void prime() {
    AsyncDnsContext *c = context();
    responder();
    ASSERT_EQ(asyncDns_AddServer(c, "127.0.0.1"), 0);
    ASSERT_EQ(asyncDns_AddServer6(c, "::1"), 0);
    ASSERT_EQ(asyncLookup(c, "prime.test"), 0);
    ASSERT_TRUE(waitQueries(4));
    for (const auto &q : responder_->queries()) {
      if (q.family == AF_INET) client4_ = q;
      if (q.family == AF_INET6) client6_ = q;
    }
    ASSERT_EQ(client4_.family, AF_INET);
    ASSERT_EQ(client6_.family, AF_INET6);
    responder_->clear();
    log_->take();
    Recorder::clear();
  }

  // A response skeleton carrying the context's identifier and a question.
  DnsPacket reply(const std::string &qname = "aaa.bbbbbbb.ccc", uint16_t qtype = kTypeA) {
    AsyncDnsContext *c = context();
    return DnsPacket().idBytes(idByte(c, 0), idByte(c, 1)).question(qname, qtype);
  }

  // Sends `bytes` to the client's socket of `family` from [::1]:53 or
  // 127.0.0.1:53, then the sentinel, and runs the loop until the sentinel's
  // callback. The sentinel's answer is removed from the record.
  ::testing::AssertionResult deliver(const Bytes &bytes, int family = AF_INET) {
    const DnsQuery &to = family == AF_INET ? client4_ : client6_;
    if (to.family != family) return ::testing::AssertionFailure() << "prime() first";
    if (!responder_->reply(to, bytes)) return ::testing::AssertionFailure() << "send failed";
    return sync(family);
  }

  // Only the sentinel: all datagrams sent before to that socket are handled.
  ::testing::AssertionResult sync(int family = AF_INET) {
    const DnsQuery &to = family == AF_INET ? client4_ : client6_;
    Bytes sentinel = reply(kSentinelName).answer(Rr::A("192.0.2.250").withTtl(0)).build();
    if (!responder_->reply(to, sentinel)) return ::testing::AssertionFailure() << "sentinel send failed";
    auto seen = [] {
      for (const auto &a : Recorder::answers())
        if (a.name == kSentinelName) return true;
      return false;
    };
    if (!runUntil(seen)) return ::testing::AssertionFailure() << "the sentinel's answer never came";
    auto &all = Recorder::answers();
    for (auto it = all.begin(); it != all.end();) it = it->name == kSentinelName ? all.erase(it) : it + 1;
    return ::testing::AssertionSuccess();
  }

  std::vector<std::string> logs() { return log_->takeNormalized(); }

  std::unique_ptr<SyslogCapture> log_;
  std::unique_ptr<DnsResponder> responder_;
  ContextPtr ctx_;
  DnsQuery client4_, client6_;
};

}  // namespace test
}  // namespace rk
