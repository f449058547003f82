// rkctl ping: ICMP and ICMPv6 echo to several hosts at once on one loop,
// with a summary per host in the form ping(8) gives it.
#include <math.h>
#include <stdio.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "ping.h"
#include "rkctl.h"

namespace rkctl {
namespace {

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

bool Pinger::Open() {
  ctx_ = asyncPing_create(OnReply);
  if (ctx_) pingers()[ctx_] = this;
  return ctx_ != nullptr;
}

Pinger::Host &Pinger::Add(const std::string &name, const std::string &address, int family) {
  Host h;
  h.name = name;
  AddressFamily(address, &h.address);
  h.family = family;
  hosts.push_back(h);
  return hosts.back();
}

bool Pinger::Send(Host &host) {
  if (!ctx_) return false;
  int ret = host.family == 10 ? asyncPing6(ctx_, host.address.c_str()) : asyncPing4(ctx_, host.address.c_str());
  if (ret < 0) return false;
  host.sent++;
  return true;
}

bool Pinger::AllAnswered() const {
  return std::all_of(hosts.begin(), hosts.end(), [](const Host &h) { return h.received() >= h.sent; });
}

int Pinger::OnReply(AsyncPingContext *ctx, const char *address, uint32_t delay) {
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
    if (self.on_reply) self.on_reply(h, delay, duplicate);
    break;
  }
  return 0;
}

RttSummary Summarize(const std::vector<uint32_t> &rtts) {
  RttSummary s;
  if (rtts.empty()) return s;
  s.min = *std::min_element(rtts.begin(), rtts.end());
  s.max = *std::max_element(rtts.begin(), rtts.end());
  double sum = 0, sum2 = 0;
  for (uint32_t r : rtts) {
    sum += r;
    sum2 += static_cast<double>(r) * r;
  }
  s.avg = sum / static_cast<double>(rtts.size());
  s.mdev = sqrt(std::max(0.0, sum2 / static_cast<double>(rtts.size()) - s.avg * s.avg));
  return s;
}

double LossPercent(unsigned sent, unsigned received) {
  return sent ? (sent - std::min(sent, received)) * 100.0 / sent : 0;
}

namespace {

std::string label(const Pinger::Host &h) { return h.name == h.address ? h.address : h.name + " (" + h.address + ")"; }

int run(Invocation &inv) {
  if (!inv.Parse({{'c', "count", true}, {'i', "interval", true}, {'W', "timeout", true}})) return kUsage;
  uint64_t count = 4;
  int interval_ms = 1000, wait_ms = 1000;
  if (inv.Has("count") && (!ParseUint(inv.Get("count"), 100000, &count) || count == 0))
    return UsageError(inv, "-c takes a count from 1 to 100000");
  if (inv.Has("interval") && !ParseSeconds(inv.Get("interval"), 0.01, 3600, &interval_ms))
    return UsageError(inv, "-i takes seconds from 0.01 to 3600");
  if (inv.Has("timeout") && !ParseSeconds(inv.Get("timeout"), 0, 3600, &wait_ms))
    return UsageError(inv, "-W takes seconds from 0 to 3600");
  if (inv.positional.empty()) return UsageError(inv, "no host given");

  Loop loop;
  if (!loop.ok()) return Fail(inv, "cannot set up the event loop");
  Pinger pinger;
  if (!pinger.Open()) return Fail(inv, "cannot open raw ICMP sockets (this needs root or CAP_NET_RAW)");
  int rc = kOk;

  // Names first, through the DNS client and the servers of /etc/resolv.conf.
  std::vector<std::string> names;
  for (const std::string &h : inv.positional)
    if (!AddressFamily(h) && std::find(names.begin(), names.end(), h) == names.end()) names.push_back(h);
  Resolver resolver;
  if (!names.empty() && resolver.Open(ResolvConfServers(), nullptr)) {
    Progress progress;
    ResolveAll(loop, resolver, names, 2000, &progress);
  }
  for (const std::string &h : inv.positional) {
    std::string address;
    int family = AddressFamily(h, &address);
    if (!family) {
      const Resolver::Answer *a = resolver.Find(h);
      if (a && (!a->v4.empty() || !a->v6.empty())) {
        family = a->v4.empty() ? 10 : 2;
        address = a->v4.empty() ? a->v6[0] : a->v4[0];
      }
    }
    bool known = std::any_of(pinger.hosts.begin(), pinger.hosts.end(),
                             [&](const Pinger::Host &p) { return p.name == h; });
    if (!family)
      rc = Fail(inv, "%s: cannot resolve", h.c_str());
    else if (!known)
      pinger.Add(h, address, family);
  }

  // One round to every host each interval; after the last, wait for late
  // replies, unless every request has its reply already.
  Progress progress;
  uint64_t rounds = 0;
  auto check = [&] {
    if (rounds >= count && pinger.AllAnswered()) loop.Stop();
  };
  Timer round([&] {
    for (Pinger::Host &h : pinger.hosts)
      if (!pinger.Send(h) && rounds == 0) Warn(inv, "%s: cannot send", label(h).c_str());
    if (++rounds < count) round.Set(interval_ms);
  });
  pinger.on_reply = [&](const Pinger::Host &h, uint32_t ms, bool duplicate) {
    if (!inv.json) {
      progress.Clear();
      printf("reply from %s: time=%u ms%s\n", label(h).c_str(), ms, duplicate ? " (duplicate)" : "");
      fflush(stdout);
    }
    check();
  };
  if (!pinger.hosts.empty()) {
    round.Set(0);
    int total = static_cast<int>(std::min<uint64_t>((count - 1) * static_cast<uint64_t>(interval_ms) + wait_ms,
                                                    INT32_MAX));
    loop.RunFor(total, [&] {
      unsigned got = 0;
      for (const Pinger::Host &h : pinger.hosts) got += h.received();
      progress.Update("ping: round " + std::to_string(rounds) + " of " + std::to_string(count) + ", " +
                      std::to_string(got) + " replies");
      check();
    });
  }
  progress.Clear();

  Json list(json_object_new_array());
  for (const Pinger::Host &h : pinger.hosts) {
    RttSummary s = Summarize(h.rtts);
    double loss = LossPercent(h.sent, h.received());
    if (h.received() == 0) rc = kFailed;
    if (!inv.json) {
      printf("\n--- %s ping statistics ---\n%u packets transmitted, %u received, %g%% packet loss\n", h.name.c_str(),
             h.sent, h.received(), loss);
      if (h.received()) printf("rtt min/avg/max/mdev = %u/%.3f/%u/%.3f ms\n", s.min, s.avg, s.max, s.mdev);
      continue;
    }
    json_object *o = json_object_new_object();
    json_object_object_add(o, "host", JsonString(h.name));
    json_object_object_add(o, "address", JsonString(h.address));
    json_object_object_add(o, "transmitted", json_object_new_int64(h.sent));
    json_object_object_add(o, "received", json_object_new_int64(h.received()));
    json_object_object_add(o, "duplicates", json_object_new_int64(h.duplicates));
    json_object_object_add(o, "loss", json_object_new_double(loss));
    json_object *rtts = json_object_new_array();
    for (uint32_t r : h.rtts) json_object_array_add(rtts, json_object_new_int64(r));
    json_object_object_add(o, "rtts", rtts);
    json_object *summary = nullptr;
    if (h.received()) {
      summary = json_object_new_object();
      json_object_object_add(summary, "min", json_object_new_int64(s.min));
      json_object_object_add(summary, "avg", json_object_new_double(s.avg));
      json_object_object_add(summary, "max", json_object_new_int64(s.max));
      json_object_object_add(summary, "mdev", json_object_new_double(s.mdev));
    }
    json_object_object_add(o, "rtt", summary);
    json_object_array_add(list.get(), o);
  }
  if (inv.json) PrintJson(list.get());
  return rc;
}

const Registrar registrar({"ping", "HOST... [-c COUNT] [-i INTERVAL] [-W TIMEOUT]",
                           "ICMP echo to hosts on one loop, with ping-style summaries",
                           "Sends COUNT echo requests to each HOST (an IPv4 or IPv6 address, or a name\n"
                           "looked up first through the servers of /etc/resolv.conf), one round to all\n"
                           "hosts every INTERVAL, through routerkit's ping client on a uloop. Prints a\n"
                           "line per reply and a summary per host: packets transmitted and received,\n"
                           "loss, round-trip min/avg/max/mdev (the library measures whole ms).\n"
                           "\n"
                           "  -c COUNT      requests per host, default 4\n"
                           "  -i INTERVAL   seconds between rounds, default 1 (decimals allowed)\n"
                           "  -W TIMEOUT    seconds to wait for late replies after the last round,\n"
                           "                default 1. The library has no timeout of its own.\n"
                           "\n"
                           "Replies are counted by the replying address, at most one per request sent.\n"
                           "Needs root or CAP_NET_RAW. Exit 1 when a host got no reply at all.\n"
                           "JSON: [{\"host\", \"address\", \"transmitted\", \"received\", \"duplicates\",\n"
                           "\"loss\", \"rtts\": [ms...], \"rtt\": {\"min\", \"avg\", \"max\", \"mdev\"} or null}...].\n",
                           15, run});

}  // namespace
}  // namespace rkctl
