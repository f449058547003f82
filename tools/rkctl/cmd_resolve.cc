// rkctl resolve: names and reverse names through routerkit's DNS client.
#include <stdio.h>
#include <sys/socket.h>

#include <algorithm>
#include <string>
#include <vector>

#include "address.h"
#include "args.h"
#include "command.h"
#include "loop.h"
#include "output.h"
#include "resolver.h"

namespace rkctl {
namespace {

constexpr int kDefaultTimeoutMs = 2000;
// The loop's own deadline lies this far behind the client's, which reports
// a timeout by itself.
constexpr int kBackstopMs = 200;

const char *reasonName(int reason) {
  switch (reason) {
    case ASYNC_DNS_NXDOMAIN:
      return "NXDOMAIN";
    case ASYNC_DNS_NODATA:
      return "NODATA";
    case ASYNC_DNS_SERVFAIL:
      return "SERVFAIL";
    case ASYNC_DNS_REFUSED:
      return "REFUSED";
    default:
      return "timeout";
  }
}

// The servers to ask: --server, else /etc/resolv.conf. Reports what the
// library refused; false (after the message) when none is left.
bool openResolver(Invocation &inv, Resolver *resolver, int timeoutMs) {
  std::vector<std::string> servers = inv.all("server");
  if (servers.empty()) servers = resolvConfServers();
  if (servers.empty()) {
    fail(inv, "no DNS server: none given with --server and none in /etc/resolv.conf");
    return false;
  }
  std::vector<std::string> refused;
  if (!resolver->open(servers, &refused, timeoutMs)) {
    fail(inv, "cannot create the DNS client (no UDP sockets?)");
    return false;
  }
  for (const std::string &s : refused) warn(inv, "server %s refused (not an IPv4 or IPv6 address)", s.c_str());
  if (resolver->serverCount() == 0) {
    fail(inv, "no usable DNS server");
    return false;
  }
  return true;
}

int resolvePtr(Invocation &inv, Loop &loop, Resolver &resolver, const std::string &address, int timeoutMs) {
  if (!resolver.lookupPtr(address)) return fail(inv, "cannot send the query for %s", address.c_str());
  resolver.onAnswer = [&] { loop.stop(); };  // the first answer (or failure) is the answer
  // The client's own deadline comes first; this one is only a backstop.
  loop.runFor(timeoutMs + kBackstopMs);
  auto it = resolver.ptrNames().find(address);
  if (it == resolver.ptrNames().end())
    return fail(inv, "%s: %s", address.c_str(), failureText(resolver.failure(address), timeoutMs).c_str());
  if (inv.json) {
    JsonPtr out(json_object_new_object());
    json_object_object_add(out.get(), "address", jsonString(address));
    json_object_object_add(out.get(), "name", jsonString(it->second));
    printJson(out.get());
  } else {
    printf("%s %s\n", address.c_str(), it->second.c_str());
  }
  return kOk;
}

int run(Invocation &inv) {
  if (!inv.parse({{0, "server", true}, {0, "timeout", true}, {0, "ptr", true}})) return kUsage;
  int timeoutMs = kDefaultTimeoutMs;
  if (inv.has("timeout")) {
    uint64_t v = 0;
    if (!parseUint(inv.get("timeout"), kMaxTimeoutMs, &v) || v == 0)
      return usageError(inv, "--timeout takes milliseconds from 1 to 600000");
    timeoutMs = static_cast<int>(v);
  }
  for (const std::string &s : inv.all("server"))
    if (!addressFamily(s)) return usageError(inv, "--server takes an IPv4 or IPv6 address, not '%s'", s.c_str());
  std::string ptr;
  if (inv.has("ptr")) {
    if (!inv.positional.empty()) return usageError(inv, "--ptr takes no names");
    if (addressFamily(inv.get("ptr"), &ptr) != AF_INET)
      return usageError(inv, "--ptr takes an IPv4 address, not '%s'", inv.get("ptr").c_str());
  } else if (inv.positional.empty()) {
    return usageError(inv, "no name given");
  }

  Loop loop;
  if (!loop.ok()) return fail(inv, "cannot set up the event loop");
  Resolver resolver;
  if (!openResolver(inv, &resolver, timeoutMs)) return kFailed;
  if (!ptr.empty()) return resolvePtr(inv, loop, resolver, ptr, timeoutMs);

  std::vector<std::string> names;
  for (const std::string &n : inv.positional)
    if (std::find(names.begin(), names.end(), n) == names.end()) names.push_back(n);
  Progress progress;
  resolveAll(loop, resolver, names, timeoutMs + kBackstopMs, &progress);
  progress.clear();

  int rc = kOk;
  JsonPtr list(json_object_new_array());
  for (const std::string &n : names) {
    const Resolver::Answer *a = resolver.find(n);
    JsonPtr addresses(json_object_new_array());
    if (a) {
      for (const auto *family : {&a->v4, &a->v6})
        for (const std::string &addr : *family) {
          if (!inv.json) printf("%s %s\n", n.c_str(), addr.c_str());
          json_object_array_add(addresses.get(), jsonString(addr));
        }
    } else {
      rc = fail(inv, "%s: %s", n.c_str(), failureText(resolver.failure(n), timeoutMs).c_str());
    }
    json_object *entry = json_object_new_object();
    json_object_object_add(entry, "name", jsonString(n));
    json_object_object_add(entry, "addresses", addresses.release());
    if (!a) json_object_object_add(entry, "error", jsonString(reasonName(resolver.failure(n))));
    json_object_array_add(list.get(), entry);
  }
  if (inv.json) printJson(list.get());
  return rc;
}

}  // namespace

const Command kResolveCommand = {
    "resolve", "NAME... [--server ADDR]... [--timeout MS] | --ptr ADDR",
    "look names or an IPv4 address up through the DNS client",
    "Asks every server for the A and AAAA records of each NAME through routerkit's DNS\n"
    "client on a uloop, and prints one line per address: NAME ADDRESS (IPv4 first).\n"
    "\n"
    "  --server ADDR   a server to ask (IPv4 or IPv6, repeatable); default: the\n"
    "                  nameserver lines of /etc/resolv.conf\n"
    "  --timeout MS    the deadline, default 2000: a query unanswered after half\n"
    "                  of it is sent again, and a name with no answer at the\n"
    "                  deadline fails as a timeout. rkctl stops when each name\n"
    "                  has addresses of both families or has failed, or has\n"
    "                  some and nothing new came for 300 ms\n"
    "  --ptr ADDR      ask for the host name of an IPv4 address; prints ADDR NAME\n"
    "\n"
    "Only answers from the servers to the questions asked, with the random\n"
    "identifier of their query, are taken. A name without an address is reported\n"
    "with the reason: NXDOMAIN (no such name), NODATA (no address), SERVFAIL,\n"
    "REFUSED (the server's answer) or timeout.\n"
    "\n"
    "Exit 1 when a name got no address (the others are still printed) or when\n"
    "there is no usable server.\n"
    "JSON: [{\"name\": NAME, \"addresses\": [ADDR...]}...], with \"error\": REASON\n"
    "for a name without addresses; with --ptr {\"address\": ADDR, \"name\": NAME}.\n",
    run};

}  // namespace rkctl
