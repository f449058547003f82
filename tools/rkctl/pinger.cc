// rkctl: the ping client shared by ping and status.
#include "pinger.h"

#include <sys/socket.h>

#include <algorithm>
#include <map>

#include "address.h"

namespace rkctl {
namespace {

// Every Pinger on the loop, found again from the context the library hands
// to the callback.
std::map<AsyncPingContext *, Pinger *> &pingers() {
  static std::map<AsyncPingContext *, Pinger *> all;
  return all;
}

}  // namespace

Pinger::~Pinger() {
  if (!ctx_) return;
  pingers().erase(ctx_);
  asyncPing_destroy(ctx_);
}

bool Pinger::open() {
  ctx_ = asyncPing_create(handleReply);
  if (ctx_) pingers()[ctx_] = this;
  return ctx_ != nullptr;
}

Pinger::Host &Pinger::add(const std::string &name, const std::string &address, int family) {
  Host h;
  h.name = name;
  addressFamily(address, &h.address);
  h.family = family;
  hosts.push_back(h);
  return hosts.back();
}

bool Pinger::send(Host &host) {
  if (!ctx_) return false;
  int ret = host.family == AF_INET6 ? asyncPing6(ctx_, host.address.c_str()) : asyncPing4(ctx_, host.address.c_str());
  if (ret < 0) return false;
  host.sent++;
  return true;
}

bool Pinger::allAnswered() const {
  return std::all_of(hosts.begin(), hosts.end(), [](const Host &h) { return h.received() >= h.sent; });
}

int Pinger::handleReply(AsyncPingContext *ctx, const char *address, uint32_t delay) {
  auto it = pingers().find(ctx);
  if (it == pingers().end()) return 0;
  Pinger &self = *it->second;
  for (Host &h : self.hosts) {
    if (h.address != address) continue;
    bool duplicate = h.received() >= h.sent;
    if (duplicate)
      h.duplicates++;
    else
      h.rtts.push_back(delay);
    if (self.onReply) self.onReply(h, delay, duplicate);
    break;
  }
  return 0;
}

}  // namespace rkctl
