// rkctl status: one screen about the device, with a reachability check that
// ends at a deadline of its own, network or not.
#include <arpa/inet.h>
#include <stdio.h>
#include <time.h>

#include <algorithm>
#include <string>
#include <vector>

#include <routerkit/log.h>
#include <routerkit/network_helper.h>

#include "address.h"
#include "args.h"
#include "command.h"
#include "identity.h"
#include "loop.h"
#include "output.h"
#include "pinger.h"
#include "resolver.h"

namespace rkctl {
namespace {

constexpr uint64_t kMinCpuMs = 250;
constexpr uint64_t kDefaultTimeoutMs = 2000;

struct Check {
  explicit Check(std::string w) : what(std::move(w)) {}
  std::string what, detail;
  bool ok = false;
};

std::string bridgeAddress(int family) {
  unsigned char any[sizeof(in6_addr)] = {}, out[sizeof(in6_addr)] = {};
  char text[INET6_ADDRSTRLEN] = "";
  if (networkHelper_getBridgeAddr(static_cast<uint8_t>(family), any, out) != 1) return "";
  inet_ntop(family, out, text, sizeof text);
  return text;
}

// Pings 127.0.0.1, ::1 and the DNS servers, and resolves `name` through
// those servers, all at once; whatever has not answered by the deadline
// fails.
std::vector<Check> reachability(const std::string &name, int timeoutMs) {
  std::vector<Check> checks;
  std::vector<std::string> servers = resolvConfServers();
  Loop loop;
  Pinger pinger;
  Resolver resolver;
  bool canPing = loop.ok() && pinger.open();
  bool canResolve =
      loop.ok() && !servers.empty() && resolver.open(servers, nullptr, timeoutMs) && resolver.serverCount() > 0;
  std::vector<std::string> targets = {"127.0.0.1", "::1"};
  for (const std::string &s : servers)
    if (addressFamily(s) && std::find(targets.begin(), targets.end(), s) == targets.end()) targets.push_back(s);
  if (canPing)
    for (const std::string &t : targets) pinger.send(pinger.add(t, t, addressFamily(t)));
  auto done = [&] {
    return (!canPing || pinger.allAnswered()) && (!canResolve || resolver.find(name) || resolver.failure(name));
  };
  pinger.onReply = [&](const Pinger::Host &, unsigned, uint32_t, bool) {
    if (done()) loop.stop();
  };
  resolver.onAnswer = [&] {
    if (done()) loop.stop();
  };
  if (canResolve) resolver.lookup(name);
  if (loop.ok() && !done()) loop.runFor(timeoutMs);
  pinger.onReply = nullptr;
  resolver.onAnswer = nullptr;

  const std::string late = "no reply within " + std::to_string(timeoutMs) + " ms";
  for (const std::string &t : targets) {
    Check c("ping " + t);
    const Pinger::Host *h = nullptr;
    for (const Pinger::Host &p : pinger.hosts)
      if (p.name == t) h = &p;
    if (!canPing)
      c.detail = "cannot open ICMP sockets (needs a group in net.ipv4.ping_group_range, root or CAP_NET_RAW)";
    else if (!h || h->sent == 0)
      c.detail = "cannot send (no route?)";
    else if (h->received() == 0)
      c.detail = late;
    else {
      c.ok = true;
      c.detail = msText(h->rtts[0]) + " ms";
    }
    checks.push_back(c);
  }
  Check r("resolve " + name);
  const Resolver::Answer *a = canResolve ? resolver.find(name) : nullptr;
  if (servers.empty()) {
    r.detail = "no DNS server in /etc/resolv.conf";
  } else if (!canResolve) {
    r.detail = "cannot use the DNS servers of /etc/resolv.conf";
  } else if (!a) {
    r.detail = failureText(resolver.failure(name), timeoutMs);
  } else {
    r.ok = true;
    r.detail = !a->v4.empty() ? a->v4[0] : a->v6[0];
  }
  checks.push_back(r);
  return checks;
}

int run(Invocation &inv) {
  if (!inv.parse({{0, "timeout", true}, {0, "name", true}})) return kUsage;
  uint64_t timeout = kDefaultTimeoutMs;
  if (inv.has("timeout") && (!parseUint(inv.get("timeout"), kMaxTimeoutMs, &timeout) || timeout == 0))
    return usageError(inv, "--timeout takes milliseconds from 1 to 600000");
  if (!inv.positional.empty()) return usageError(inv, "takes no arguments");
  const std::string name = inv.get("name", "example.com");

  std::vector<IdentityValue> identity = readIdentity();
  uint32_t delay = 0;
  bool hasDelay = getInternetDelay(&delay) == 0;
  std::string v4 = bridgeAddress(AF_INET), v6 = bridgeAddress(AF_INET6);

  // The CPU is sampled across the reachability check, at least 250 ms.
  CpuTimes times = {};
  getCPUUsageValue(&times);
  uint64_t start = GetTickCount();
  std::vector<Check> checks = reachability(name, static_cast<int>(timeout));
  uint64_t spent = GetTickCount() - start;
  if (spent < kMinCpuMs) {
    timespec t{0, static_cast<long>(kMinCpuMs - spent) * 1000000};
    nanosleep(&t, nullptr);
    spent = kMinCpuMs;
  }
  unsigned cpu = getCPUUsageValue(&times);

  if (inv.json) {
    JsonPtr out(json_object_new_object());
    json_object *id = json_object_new_object();
    for (const IdentityValue &v : identity) {
      json_object *o = json_object_new_object();
      json_object_object_add(o, "value", v.missing ? nullptr : jsonString(v.value));
      json_object_object_add(o, "fallback", json_object_new_boolean(v.fallback));
      json_object_object_add(id, v.key, o);
    }
    json_object_object_add(out.get(), "identity", id);
    json_object_object_add(out.get(), "cpu_permille", json_object_new_int(static_cast<int>(cpu)));
    json_object_object_add(out.get(), "delay_mean", hasDelay ? json_object_new_int64(delay) : nullptr);
    json_object *bridge = json_object_new_object();
    json_object_object_add(bridge, "ipv4", v4.empty() ? nullptr : jsonString(v4));
    json_object_object_add(bridge, "ipv6", v6.empty() ? nullptr : jsonString(v6));
    json_object_object_add(out.get(), "bridge", bridge);
    json_object *list = json_object_new_array();
    for (const Check &c : checks) {
      json_object *o = json_object_new_object();
      json_object_object_add(o, "check", jsonString(c.what));
      json_object_object_add(o, "ok", json_object_new_boolean(c.ok));
      json_object_object_add(o, "detail", jsonString(c.detail));
      json_object_array_add(list, o);
    }
    json_object_object_add(out.get(), "checks", list);
    printJson(out.get());
    return kOk;
  }
  printf("identity\n");
  for (const IdentityValue &v : identity)
    printf("  %-20s %s%s\n", v.label, v.missing ? "-" : v.value.c_str(), v.fallback ? "  (fallback)" : "");
  printf("cpu usage              %u.%u%% over %llu ms\n", cpu / 10, cpu % 10, static_cast<unsigned long long>(spent));
  if (hasDelay)
    printf("internet delay         %u (mean of the newest records)\n", delay);
  else
    printf("internet delay         none recorded\n");
  printf("LAN bridge             IPv4 %s, IPv6 %s\n", v4.empty() ? "none" : v4.c_str(), v6.empty() ? "none" : v6.c_str());
  printf("reachability           (deadline %llu ms)\n", static_cast<unsigned long long>(timeout));
  for (const Check &c : checks)
    printf("  %-4s  %-28s %s\n", c.ok ? "ok" : "FAIL", c.what.c_str(), c.detail.c_str());
  return kOk;
}

}  // namespace

const Command kStatusCommand = {
    "status", "[--timeout MS] [--name NAME]", "one screen about the device",
    "Shows the identity values (marking those that came from a built-in fallback),\n"
    "the CPU usage over the time of the check (at least 250 ms), the mean of the\n"
    "internet delay record, the LAN bridge addresses, and a reachability check:\n"
    "ping 127.0.0.1, ::1 and the DNS servers of /etc/resolv.conf, and resolve NAME\n"
    "(default example.com) through those servers, all at once. What has not\n"
    "answered by the deadline (--timeout MS, default 2000) gets a FAIL line with\n"
    "the reason, so the screen comes in time without a network too. Exit 0\n"
    "whenever the screen was made.\n"
    "JSON: {\"identity\": {KEY: {\"value\", \"fallback\"}...}, \"cpu_permille\",\n"
    "\"delay_mean\", \"bridge\": {\"ipv4\", \"ipv6\"}, \"checks\": [{\"check\", \"ok\",\n"
    "\"detail\"}...]}.\n",
    run};

}  // namespace rkctl
