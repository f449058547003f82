// rkctl: ICMP echo through routerkit's ping client, for ping and status.
#pragma once

#include <stdint.h>

#include <deque>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include <routerkit/async_ping.h>

namespace rkctl {

// Echo requests to several hosts on the loop, with the replies counted per
// host. Each reply names its request by sequence number: a reply counts
// once for the request it answers, from the host that request went to; a
// second reply to the same request is a duplicate.
class Pinger {
 public:
  struct Host {
    std::string name;     // as the user gave it
    std::string address;  // as the library writes a replier's address
    int family = 0;
    unsigned sent = 0, duplicates = 0;
    std::vector<uint32_t> rtts;  // microseconds, one per counted reply
    unsigned received() const { return static_cast<unsigned>(rtts.size()); }
  };

  Pinger() = default;
  ~Pinger();
  Pinger(const Pinger &) = delete;
  Pinger &operator=(const Pinger &) = delete;

  // Unprivileged ICMP sockets when a group of the process may open them
  // (net.ipv4.ping_group_range), else raw ones; false when neither opens.
  bool open();
  // `address` is an address literal of `family`.
  Host &add(const std::string &name, const std::string &address, int family);
  // One echo request; false when the library could not send it.
  bool send(Host &host);
  bool allAnswered() const;

  std::deque<Host> hosts;
  // After each counted reply or duplicate: the request's number for its
  // host (from 1) and the round trip in microseconds.
  std::function<void(const Host &host, unsigned request, uint32_t us, bool duplicate)> onReply;

 private:
  struct Request {
    Host *host;
    unsigned number;
    bool answered;
  };
  static void handleReply(AsyncPingContext *ctx, const char *address, uint16_t sequence, uint32_t us);
  std::unordered_map<uint16_t, Request> requests_;  // by sequence number
  AsyncPingContext *ctx_ = nullptr;
};

// Microseconds as milliseconds to three decimals, as ping(8) prints them
// ("0.042").
std::string msText(double microseconds);

}  // namespace rkctl
