// The benchmarks' DNS responder: answers every A query with one A record and
// every AAAA query with one AAAA record (pointer name, question echoed),
// anything else with an empty answer, at once, from a thread of its own, so
// that its work does not count as the client's.
#pragma once

#include <stdint.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include <routerkit/async_dns.h>

namespace rk::bench {

struct ContextDeleter {
  void operator()(AsyncDnsContext *c) const { asyncDns_destroy(c); }
};
using ContextPtr = std::unique_ptr<AsyncDnsContext, ContextDeleter>;

// True inside tests/support/rk-ns-run, where port 53 and /dev/log are ours.
bool InsideTestNamespace();
// Makes /dev/log unreachable: the library's messages go nowhere.
void SilenceSyslog();

class ThreadedResponder {
 public:
  struct Options {
    std::string address = "127.0.0.1";
    uint16_t port = 53;
    uint32_t ttl = 0;
    std::string ipv4 = "192.0.2.1";
    std::string ipv6 = "2001:db8::1";
  };
  explicit ThreadedResponder(const Options &options);
  ~ThreadedResponder();
  ThreadedResponder(const ThreadedResponder &) = delete;
  ThreadedResponder &operator=(const ThreadedResponder &) = delete;
  bool ok() const { return fd_ >= 0; }
  uint64_t answered() const { return answered_.load(std::memory_order_relaxed); }
  void setTtl(uint32_t seconds) { ttl_.store(seconds, std::memory_order_relaxed); }

 private:
  void run();
  Options options_;
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> answered_{0};
  std::atomic<uint32_t> ttl_{0};
  std::thread thread_;
};

}  // namespace rk::bench
