// rkctl: names and PTRs through routerkit's DNS client, for resolve, ping
// and status.
#pragma once

#include <stddef.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <routerkit/async_dns.h>

#include "loop.h"
#include "output.h"

namespace rkctl {

// The servers named in /etc/resolv.conf ("nameserver ADDR" lines), in order.
std::vector<std::string> resolvConfServers(const char *path = "/etc/resolv.conf");

// Names and PTRs resolved on the loop through one routerkit DNS client. The
// library has no timer and no retry: the caller's loop gives the deadline.
class Resolver {
 public:
  struct Answer {
    std::vector<std::string> v4, v6;  // in the order of arrival, no repeats
  };

  Resolver();
  ~Resolver();
  Resolver(const Resolver &) = delete;
  Resolver &operator=(const Resolver &) = delete;

  // Creates the client and adds `servers`; the ones the library refuses go
  // to `refused`. False when the client cannot be made.
  bool open(const std::vector<std::string> &servers, std::vector<std::string> *refused);
  size_t serverCount() const { return servers_; }
  bool lookup(const std::string &name);
  bool lookupPtr(const std::string &ipv4);

  // By name, in any case.
  const Answer *find(const std::string &name) const;
  // PTR answers: address -> host name.
  const std::map<std::string, std::string> &ptrNames() const { return ptr_; }
  // Called after each answer.
  std::function<void()> onAnswer;

 private:
  static int handleResult(AsyncDnsContext *ctx, const char *name, DnsResult *result);
  AsyncDnsContext *ctx_ = nullptr;
  size_t servers_ = 0;
  std::map<std::string, Answer> answers_;  // by name as it came back, in lower case
  std::map<std::string, std::string> ptr_;
  std::vector<std::string> pendingPtr_;
};

// Resolves `names` until every name has addresses of both families, or has
// some and no more came for a short while, or `timeoutMs` have passed.
// `progress` may be null.
void resolveAll(Loop &loop, Resolver &resolver, const std::vector<std::string> &names, int timeoutMs,
                Progress *progress);

}  // namespace rkctl
