// A DNS responder of the tests' own, on real UDP sockets at port 53 inside
// the test's network namespace.
//
// DnsResponder lives on the test's uloop: each listening socket is a
// uloop_fd, every received query is recorded (bytes, sender, the local
// address it was sent to, arrival order) and handed to an optional handler
// that answers with crafted bytes. Because the loop is the one the client
// under test uses, a test sees queries and answers strictly in the order the
// loop delivers them, without threads.
//
// ThreadedResponder answers A/AAAA queries at once from a thread of its own,
// for benchmarks where the responder's work must not count as the client's.
#pragma once

#include <netinet/in.h>
#include <stdint.h>
#include <sys/socket.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "dns_packet.h"

struct uloop_fd;

namespace rk {
namespace test {

struct DnsQuery {
  Bytes bytes;
  sockaddr_storage from{};
  socklen_t fromLen = 0;
  int family = 0;        // AF_INET or AF_INET6 of the sender, v4-mapped unwrapped
  std::string fromText;  // "127.0.0.1", "::1"
  std::string toText;    // local address the datagram was sent to
  size_t socketIndex = 0;
  size_t seq = 0;        // arrival order over all sockets

  std::string name() const { return queryName(bytes); }
  uint16_t type() const { return queryType(bytes); }
};

// Text of a socket address ("127.0.0.1", "::1"); v4-mapped IPv6 addresses
// are shown as IPv4. Empty for other families.
std::string addressText(const sockaddr_storage &addr);
uint16_t addressPort(const sockaddr_storage &addr);

class DnsResponder {
 public:
  using Handler = std::function<void(DnsResponder &, const DnsQuery &)>;

  // Listens on UDP `port` of each address. "::" is one dual-stack socket
  // that also receives IPv4 (as v4-mapped), so the arrival order over both
  // families is that of a single queue.
  explicit DnsResponder(const std::vector<std::string> &addresses = {"127.0.0.1", "::1"},
                        uint16_t port = 53);
  ~DnsResponder();
  DnsResponder(const DnsResponder &) = delete;
  DnsResponder &operator=(const DnsResponder &) = delete;

  // True when every socket is bound and registered on the loop.
  bool ok() const { return ok_; }
  const std::string &error() const { return error_; }

  void onQuery(Handler handler) { handler_ = std::move(handler); }
  const std::vector<DnsQuery> &queries() const { return queries_; }
  void clear() { queries_.clear(); }

  // Sends `bytes` back to the sender of `query`, from the socket it came in on.
  bool reply(const DnsQuery &query, const Bytes &bytes);
  // Sends `bytes` to `to` from a socket of a matching family.
  bool sendTo(const sockaddr_storage &to, socklen_t toLen, const Bytes &bytes);

 private:
  struct Listener;
  static void onReadable(struct uloop_fd *ufd, unsigned int events);
  void drain(Listener &l);

  std::vector<std::unique_ptr<Listener>> listeners_;
  std::vector<DnsQuery> queries_;
  Handler handler_;
  bool ok_ = false;
  std::string error_;
};

// Answers every A query with one A record and every AAAA query with one AAAA
// record (pointer name, question echoed), anything else with an empty
// answer, immediately, from its own thread with blocking sockets.
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
  ThreadedResponder();
  ~ThreadedResponder();
  ThreadedResponder(const ThreadedResponder &) = delete;
  ThreadedResponder &operator=(const ThreadedResponder &) = delete;

  bool ok() const { return fd_ >= 0; }
  uint64_t answered() const { return answered_.load(std::memory_order_relaxed); }
  // The TTL of answers from now on.
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

}  // namespace test
}  // namespace rk
