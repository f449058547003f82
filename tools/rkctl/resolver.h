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

// Names and PTRs resolved on the loop through one routerkit DNS client that
// checks what it takes (only from the servers, only answers to its own
// questions, random identifiers), sends again once half the deadline has
// passed, and reports names that end without an address.
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
  // to `refused`. A query not answered within `deadlineMs` (two sendings)
  // fails as a timeout. False when the client cannot be made.
  bool open(const std::vector<std::string> &servers, std::vector<std::string> *refused, int deadlineMs);
  size_t serverCount() const { return servers_; }
  bool lookup(const std::string &name);
  bool lookupPtr(const std::string &ipv4);

  // By name, in any case.
  const Answer *find(const std::string &name) const;
  // Why a name (or the PTR of an address) ended without an address: one of
  // the library's ASYNC_DNS_* reasons, 0 while there is none.
  int failure(const std::string &nameOrAddress) const;
  // PTR answers: address -> host name.
  const std::map<std::string, std::string> &ptrNames() const { return ptr_; }
  // Called after each answer and each failure.
  std::function<void()> onAnswer;

 private:
  static int handleResult(AsyncDnsContext *ctx, const char *name, DnsResult *result);
  static void handleFailure(AsyncDnsContext *ctx, const char *name, int reason);
  AsyncDnsContext *ctx_ = nullptr;
  size_t servers_ = 0;
  std::map<std::string, Answer> answers_;  // by name as it came back, in lower case
  std::map<std::string, std::string> ptr_;
  std::vector<std::string> pendingPtr_;
  std::map<std::string, int> failed_;  // by name in lower case, or by address for a PTR
};

// "NXDOMAIN (no such name)", ..., "timeout (no answer within MS ms)".
std::string failureText(int reason, int timeoutMs);

// Resolves `names` until every name has addresses of both families or has
// failed, or every name has some or has failed and no more came for a short
// while, or `timeoutMs` have passed.
// `progress` may be null.
void resolveAll(Loop &loop, Resolver &resolver, const std::vector<std::string> &names, int timeoutMs,
                Progress *progress);

}  // namespace rkctl
