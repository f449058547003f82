// rkctl resolve: names and reverse names through routerkit's DNS client.
#include <algorithm>
#include <string>
#include <vector>

#include "rkctl.h"

namespace rkctl {
namespace {

const int kDefaultTimeoutMs = 2000;

// The servers to ask: --server, else /etc/resolv.conf. Reports what the
// library refused; false (after the message) when none is left.
bool open_resolver(Invocation &inv, Resolver *resolver) {
  std::vector<std::string> servers = inv.All("server");
  if (servers.empty()) servers = ResolvConfServers();
  if (servers.empty()) {
    Fail(inv, "no DNS server: none given with --server and none in /etc/resolv.conf");
    return false;
  }
  std::vector<std::string> refused;
  if (!resolver->Open(servers, &refused)) {
    Fail(inv, "cannot create the DNS client (no UDP sockets?)");
    return false;
  }
  for (const std::string &s : refused) Warn(inv, "server %s refused (not an IPv4 or IPv6 address)", s.c_str());
  if (resolver->server_count() == 0) {
    Fail(inv, "no usable DNS server");
    return false;
  }
  return true;
}

int resolve_ptr(Invocation &inv, Loop &loop, Resolver &resolver, const std::string &address, int timeout_ms) {
  if (!resolver.LookupPtr(address)) return Fail(inv, "cannot send the query for %s", address.c_str());
  resolver.on_answer = [&] { loop.Stop(); };  // the first answer is the answer
  loop.RunFor(timeout_ms);
  auto it = resolver.ptr_names().find(address);
  if (it == resolver.ptr_names().end())
    return Fail(inv, "%s: no answer within %d ms", address.c_str(), timeout_ms);
  if (inv.json) {
    Json out(json_object_new_object());
    json_object_object_add(out.get(), "address", JsonString(address));
    json_object_object_add(out.get(), "name", JsonString(it->second));
    PrintJson(out.get());
  } else {
    printf("%s %s\n", address.c_str(), it->second.c_str());
  }
  return kOk;
}

int run(Invocation &inv) {
  if (!inv.Parse({{0, "server", true}, {0, "timeout", true}, {0, "ptr", true}})) return kUsage;
  int timeout_ms = kDefaultTimeoutMs;
  if (inv.Has("timeout")) {
    uint64_t v = 0;
    if (!ParseUint(inv.Get("timeout"), 600000, &v) || v == 0)
      return UsageError(inv, "--timeout takes milliseconds from 1 to 600000");
    timeout_ms = static_cast<int>(v);
  }
  for (const std::string &s : inv.All("server"))
    if (!AddressFamily(s)) return UsageError(inv, "--server takes an IPv4 or IPv6 address, not '%s'", s.c_str());
  std::string ptr;
  if (inv.Has("ptr")) {
    if (!inv.positional.empty()) return UsageError(inv, "--ptr takes no names");
    if (AddressFamily(inv.Get("ptr"), &ptr) != 2)
      return UsageError(inv, "--ptr takes an IPv4 address, not '%s'", inv.Get("ptr").c_str());
  } else if (inv.positional.empty()) {
    return UsageError(inv, "no name given");
  }

  Loop loop;
  if (!loop.ok()) return Fail(inv, "cannot set up the event loop");
  Resolver resolver;
  if (!open_resolver(inv, &resolver)) return kFailed;
  if (!ptr.empty()) return resolve_ptr(inv, loop, resolver, ptr, timeout_ms);

  std::vector<std::string> names;
  for (const std::string &n : inv.positional)
    if (std::find(names.begin(), names.end(), n) == names.end()) names.push_back(n);
  Progress progress;
  ResolveAll(loop, resolver, names, timeout_ms, &progress);
  progress.Clear();

  int rc = kOk;
  Json list(json_object_new_array());
  for (const std::string &n : names) {
    const Resolver::Answer *a = resolver.Find(n);
    Json addresses(json_object_new_array());
    if (a) {
      for (const auto *family : {&a->v4, &a->v6})
        for (const std::string &addr : *family) {
          if (!inv.json) printf("%s %s\n", n.c_str(), addr.c_str());
          json_object_array_add(addresses.get(), JsonString(addr));
        }
    } else {
      rc = Fail(inv, "%s: no address within %d ms", n.c_str(), timeout_ms);
    }
    json_object *entry = json_object_new_object();
    json_object_object_add(entry, "name", JsonString(n));
    json_object_object_add(entry, "addresses", addresses.release());
    json_object_array_add(list.get(), entry);
  }
  if (inv.json) PrintJson(list.get());
  return rc;
}

const Registrar registrar({"resolve", "NAME... [--server ADDR]... [--timeout MS] | --ptr ADDR",
                           "look names or an IPv4 address up through the DNS client",
                           "Asks every server for the A and AAAA records of each NAME through routerkit's DNS\n"
                           "client on a uloop, and prints one line per address: NAME ADDRESS (IPv4 first).\n"
                           "\n"
                           "  --server ADDR   a server to ask (IPv4 or IPv6, repeatable); default: the\n"
                           "                  nameserver lines of /etc/resolv.conf\n"
                           "  --timeout MS    the deadline, default 2000. The library itself has no\n"
                           "                  timeout and no retry: rkctl stops when each name has\n"
                           "                  addresses of both families, or has some and nothing new\n"
                           "                  came for 300 ms, or at the deadline\n"
                           "  --ptr ADDR      ask for the host name of an IPv4 address; prints ADDR NAME\n"
                           "\n"
                           "Exit 1 when a name got no address before the deadline (the others are still\n"
                           "printed) or when there is no usable server.\n"
                           "JSON: [{\"name\": NAME, \"addresses\": [ADDR...]}...], or with --ptr\n"
                           "{\"address\": ADDR, \"name\": NAME}.\n",
                           20, run});

}  // namespace
}  // namespace rkctl
