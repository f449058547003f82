// rkctl: ICMP echo through routerkit's ping client, for ping and status.
#pragma once

#include <stdint.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include <routerkit/async_ping.h>

namespace rkctl {

// Echo requests to several hosts on the loop, with the replies counted per
// host. The library matches replies to the client by identifier only, and
// tells the replier's address: replies are counted by that address, at
// most one per request sent (the others are duplicates).
class Pinger {
 public:
  struct Host {
    std::string name;     // as the user gave it
    std::string address;  // as the library writes a replier's address
    int family = 0;
    unsigned sent = 0, duplicates = 0;
    std::vector<uint32_t> rtts;  // ms, one per counted reply
    unsigned received() const { return static_cast<unsigned>(rtts.size()); }
  };

  Pinger() = default;
  ~Pinger();
  Pinger(const Pinger &) = delete;
  Pinger &operator=(const Pinger &) = delete;

  // False when the raw sockets cannot be opened (root or CAP_NET_RAW).
  bool open();
  // `address` is an address literal of `family`.
  Host &add(const std::string &name, const std::string &address, int family);
  // One echo request; false when the library could not send it.
  bool send(Host &host);
  bool allAnswered() const;

  std::deque<Host> hosts;
  // After each counted reply or duplicate.
  std::function<void(const Host &host, uint32_t ms, bool duplicate)> onReply;

 private:
  static int handleReply(AsyncPingContext *ctx, const char *address, uint32_t delay);
  AsyncPingContext *ctx_ = nullptr;
};

}  // namespace rkctl
