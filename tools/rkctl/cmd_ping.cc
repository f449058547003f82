// rkctl ping: ICMP and ICMPv6 echo to several hosts at once on one loop,
// with a summary per host in the form ping(8) gives it.
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <vector>

#include "address.h"
#include "args.h"
#include "command.h"
#include "loop.h"
#include "output.h"
#include "pinger.h"
#include "resolver.h"

namespace rkctl {
namespace {

// How long the names may take before the first round.
constexpr int kResolveTimeoutMs = 2000;

// Round-trip figures as ping(8) prints them, in microseconds.
struct RttSummary {
  double min = 0, avg = 0, max = 0, mdev = 0;
};

RttSummary summarize(const std::vector<uint32_t> &rtts) {
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

// Milliseconds to three decimals, in JSON as in the text.
json_object *jsonMs(double microseconds) {
  const std::string text = msText(microseconds);
  return json_object_new_double_s(atof(text.c_str()), text.c_str());
}

double lossPercent(unsigned sent, unsigned received) {
  return sent ? (sent - std::min(sent, received)) * 100.0 / sent : 0;
}

std::string label(const Pinger::Host &h) { return h.name == h.address ? h.address : h.name + " (" + h.address + ")"; }

int run(Invocation &inv) {
  if (!inv.parse({{'c', "count", true}, {'i', "interval", true}, {'W', "timeout", true}})) return kUsage;
  uint64_t count = 4;
  int intervalMs = 1000, waitMs = 1000;
  if (inv.has("count") && (!parseUint(inv.get("count"), 100000, &count) || count == 0))
    return usageError(inv, "-c takes a count from 1 to 100000");
  if (inv.has("interval") && !parseSeconds(inv.get("interval"), 0.01, 3600, &intervalMs))
    return usageError(inv, "-i takes seconds from 0.01 to 3600");
  if (inv.has("timeout") && !parseSeconds(inv.get("timeout"), 0, 3600, &waitMs))
    return usageError(inv, "-W takes seconds from 0 to 3600");
  if (inv.positional.empty()) return usageError(inv, "no host given");

  Loop loop;
  if (!loop.ok()) return fail(inv, "cannot set up the event loop");
  Pinger pinger;
  if (!pinger.open())
    return fail(inv, "cannot open ICMP sockets (this needs a group in net.ipv4.ping_group_range, root or CAP_NET_RAW)");
  int rc = kOk;

  // Names first, through the DNS client and the servers of /etc/resolv.conf.
  std::vector<std::string> names;
  for (const std::string &h : inv.positional)
    if (!addressFamily(h) && std::find(names.begin(), names.end(), h) == names.end()) names.push_back(h);
  Resolver resolver;
  if (!names.empty() && resolver.open(resolvConfServers(), nullptr, kResolveTimeoutMs)) {
    Progress progress;
    resolveAll(loop, resolver, names, kResolveTimeoutMs, &progress);
  }
  for (const std::string &h : inv.positional) {
    std::string address;
    int family = addressFamily(h, &address);
    if (!family) {
      const Resolver::Answer *a = resolver.find(h);
      if (a && (!a->v4.empty() || !a->v6.empty())) {
        family = a->v4.empty() ? AF_INET6 : AF_INET;
        address = a->v4.empty() ? a->v6[0] : a->v4[0];
      }
    }
    bool known = std::any_of(pinger.hosts.begin(), pinger.hosts.end(),
                             [&](const Pinger::Host &p) { return p.name == h; });
    if (!family)
      rc = fail(inv, "%s: cannot resolve", h.c_str());
    else if (!known)
      pinger.add(h, address, family);
  }

  // One round to every host each interval; after the last, wait for late
  // replies, unless every request has its reply already.
  Progress progress;
  uint64_t rounds = 0;
  auto check = [&] {
    if (rounds >= count && pinger.allAnswered()) loop.stop();
  };
  Timer round([&] {
    for (Pinger::Host &h : pinger.hosts)
      if (!pinger.send(h) && rounds == 0) warn(inv, "%s: cannot send", label(h).c_str());
    if (++rounds < count) round.set(intervalMs);
  });
  pinger.onReply = [&](const Pinger::Host &h, unsigned request, uint32_t us, bool duplicate) {
    if (!inv.json) {
      progress.clear();
      printf("reply from %s: icmp_seq=%u time=%s ms%s\n", label(h).c_str(), request, msText(us).c_str(),
             duplicate ? " (duplicate)" : "");
      fflush(stdout);
    }
    check();
  };
  if (!pinger.hosts.empty()) {
    round.set(0);
    int total = static_cast<int>(std::min<uint64_t>((count - 1) * static_cast<uint64_t>(intervalMs) + waitMs,
                                                    INT32_MAX));
    loop.runFor(total, [&] {
      unsigned got = 0;
      for (const Pinger::Host &h : pinger.hosts) got += h.received();
      progress.update("ping: round " + std::to_string(rounds) + " of " + std::to_string(count) + ", " +
                      std::to_string(got) + " replies");
      check();
    });
  }
  progress.clear();

  JsonPtr list(json_object_new_array());
  for (const Pinger::Host &h : pinger.hosts) {
    RttSummary s = summarize(h.rtts);
    double loss = lossPercent(h.sent, h.received());
    if (h.received() == 0) rc = kFailed;
    if (!inv.json) {
      printf("\n--- %s ping statistics ---\n%u packets transmitted, %u received, %g%% packet loss\n", h.name.c_str(),
             h.sent, h.received(), loss);
      if (h.received())
        printf("rtt min/avg/max/mdev = %s/%s/%s/%s ms\n", msText(s.min).c_str(), msText(s.avg).c_str(),
               msText(s.max).c_str(), msText(s.mdev).c_str());
      continue;
    }
    json_object *o = json_object_new_object();
    json_object_object_add(o, "host", jsonString(h.name));
    json_object_object_add(o, "address", jsonString(h.address));
    json_object_object_add(o, "transmitted", json_object_new_int64(h.sent));
    json_object_object_add(o, "received", json_object_new_int64(h.received()));
    json_object_object_add(o, "duplicates", json_object_new_int64(h.duplicates));
    json_object_object_add(o, "loss", json_object_new_double(loss));
    json_object *rtts = json_object_new_array();
    for (uint32_t r : h.rtts) json_object_array_add(rtts, jsonMs(r));
    json_object_object_add(o, "rtts", rtts);
    json_object *summary = nullptr;
    if (h.received()) {
      summary = json_object_new_object();
      json_object_object_add(summary, "min", jsonMs(s.min));
      json_object_object_add(summary, "avg", jsonMs(s.avg));
      json_object_object_add(summary, "max", jsonMs(s.max));
      json_object_object_add(summary, "mdev", jsonMs(s.mdev));
    }
    json_object_object_add(o, "rtt", summary);
    json_object_array_add(list.get(), o);
  }
  if (inv.json) printJson(list.get());
  return rc;
}

}  // namespace

const Command kPingCommand = {
    "ping", "HOST... [-c COUNT] [-i INTERVAL] [-W TIMEOUT]",
    "ICMP echo to hosts on one loop, with ping-style summaries",
    "Sends COUNT echo requests to each HOST (an IPv4 or IPv6 address, or a name\n"
    "looked up first through the servers of /etc/resolv.conf), one round to all\n"
    "hosts every INTERVAL, through routerkit's ping client on a uloop. Prints a\n"
    "line per reply (the request's number per host, icmp_seq, and the round trip\n"
    "in ms to the microsecond) and a summary per host: packets transmitted and\n"
    "received, loss, round-trip min/avg/max/mdev.\n"
    "\n"
    "  -c COUNT      requests per host, default 4\n"
    "  -i INTERVAL   seconds between rounds, default 1 (decimals allowed)\n"
    "  -W TIMEOUT    seconds to wait for late replies after the last round,\n"
    "                default 1. The library has no timeout of its own.\n"
    "\n"
    "Each reply counts once for the request it answers; a second one is a\n"
    "duplicate. Uses unprivileged ICMP sockets when a group of the user is in\n"
    "net.ipv4.ping_group_range, else raw ones (root or CAP_NET_RAW). Exit 1 when\n"
    "a host got no reply at all.\n"
    "JSON: [{\"host\", \"address\", \"transmitted\", \"received\", \"duplicates\",\n"
    "\"loss\", \"rtts\": [ms...], \"rtt\": {\"min\", \"avg\", \"max\", \"mdev\"} or null}...].\n",
    run};

}  // namespace rkctl
