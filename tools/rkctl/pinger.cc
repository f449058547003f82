// rkctl: the ping client shared by ping and status.
#include "pinger.h"

#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "address.h"

namespace rkctl {
namespace {

constexpr int kMaxGroups = 256;
constexpr double kMicrosecondsPerMs = 1000;
constexpr size_t kMsTextSize = 32;

// Whether a group of this process lies in net.ipv4.ping_group_range, as the
// kernel asks before it opens an unprivileged ICMP socket; asking first keeps
// a refused attempt out of the log.
bool groupMayPing() {
  unsigned long low = 1, high = 0;
  if (FILE *f = fopen("/proc/sys/net/ipv4/ping_group_range", "r")) {
    if (fscanf(f, "%lu %lu", &low, &high) != 2) low = 1, high = 0;
    fclose(f);
  }
  gid_t groups[kMaxGroups];
  const int n = getgroups(kMaxGroups, groups);
  auto allowed = [&](gid_t g) { return g >= low && g <= high; };
  return allowed(getegid()) || std::any_of(groups, groups + std::max(n, 0), allowed);
}

}  // namespace

Pinger::~Pinger() {
  if (ctx_) asyncPing_destroy(ctx_);
}

bool Pinger::open() {
  if (groupMayPing()) ctx_ = asyncPing_createUnprivileged(nullptr);
  if (!ctx_) ctx_ = asyncPing_create(nullptr);
  if (!ctx_) return false;
  asyncPing_setReplyCallback(ctx_, handleReply);
  asyncPing_setUserData(ctx_, this);
  return true;
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
  const uint16_t sequence = ctx_->seq;  // what the request is about to carry
  int ret = host.family == AF_INET6 ? asyncPing6(ctx_, host.address.c_str()) : asyncPing4(ctx_, host.address.c_str());
  if (ret < 0) return false;
  requests_[sequence] = Request{&host, ++host.sent, false};
  return true;
}

bool Pinger::allAnswered() const {
  return std::all_of(hosts.begin(), hosts.end(), [](const Host &h) { return h.received() >= h.sent; });
}

std::string msText(double microseconds) {
  char text[kMsTextSize];
  snprintf(text, sizeof text, "%.3f", microseconds / kMicrosecondsPerMs);
  return text;
}

void Pinger::handleReply(AsyncPingContext *ctx, const char *address, uint16_t sequence, uint32_t us) {
  Pinger &self = *static_cast<Pinger *>(asyncPing_getUserData(ctx));
  auto it = self.requests_.find(sequence);
  if (it == self.requests_.end() || it->second.host->address != address) return;
  Request &r = it->second;
  const bool duplicate = r.answered;
  r.answered = true;
  if (duplicate)
    r.host->duplicates++;
  else
    r.host->rtts.push_back(us);
  if (self.onReply) self.onReply(*r.host, r.number, us, duplicate);
}

}  // namespace rkctl
