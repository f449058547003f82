// A DNS server of the tests' own on port 53: one dual-stack UDP socket at
// [::], so that 127.0.0.x and ::1 all reach it. A test takes each query and
// answers it by hand with crafted bytes; the benchmarks let it answer every
// query at once from a thread of its own, so that its work is not counted as
// the client's. Used inside tests/support/rk-ns-run, where port 53 is free.
#pragma once

#include <netinet/in.h>
#include <stdint.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace rk::test {

struct DnsQuery {
  std::vector<uint8_t> bytes;
  sockaddr_in6 from{};
  in6_addr toAddress{};  // the local address it was sent to
  std::string to;        // the same as text ("127.0.0.1", "::1")
  // QTYPE: the two bytes before QCLASS at the end of the question.
  uint16_t type() const {
    return bytes.size() >= 4 ? static_cast<uint16_t>(bytes[bytes.size() - 4] << 8 | bytes[bytes.size() - 3]) : 0;
  }
};

class DnsResponder {
 public:
  explicit DnsResponder(uint16_t port = 53);
  ~DnsResponder();
  DnsResponder(const DnsResponder &) = delete;
  DnsResponder &operator=(const DnsResponder &) = delete;
  bool ok() const { return fd_ >= 0; }

  // The next query within `ms`, if any.
  bool Next(DnsQuery *q, int ms = 1000);
  // Up to `n` queries, each within a second of the one before.
  std::vector<DnsQuery> Take(size_t n);
  // Sends `bytes` to the query's sender, from the address it was sent to.
  bool Reply(const DnsQuery &q, const std::vector<uint8_t> &bytes);

  // From now on a thread answers every query: A with one A record of
  // `ipv4`, AAAA with one AAAA record of `ipv6` (the name a pointer to the
  // question, TTL as set), anything else with no answer. With `mixed`, the
  // first two letters of the name choose: "nx" gets NXDOMAIN, "sf" SERVFAIL,
  // "fg" three forgeries before its answer (another identifier, another
  // question, the answer from another port).
  void Serve(const char *ipv4, const char *ipv6, uint32_t ttl, bool mixed = false);
  void SetTtl(uint32_t seconds) { ttl_.store(seconds, std::memory_order_relaxed); }

 private:
  void ServeLoop();
  int fd_ = -1;
  int forgeFd_ = -1;  // the other port of the forgeries
  bool mixed_ = false;
  uint8_t v4_[4] = {}, v6_[16] = {};
  std::atomic<bool> stop_{false};
  std::atomic<uint32_t> ttl_{0};
  std::thread thread_;
};

}  // namespace rk::test
