// rkctl: the DNS helper that several subcommands use.
#include "resolver.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "address.h"

namespace rkctl {
namespace {

constexpr size_t kLineSize = 512;
// The two words of a resolv.conf line; the widths of the sscanf format
// below are these sizes less one.
constexpr size_t kKeySize = 32;
constexpr size_t kValueSize = 256;

constexpr uint32_t kSendings = 2;
constexpr unsigned kChecks = ASYNC_DNS_CHECK_SENDER | ASYNC_DNS_CHECK_QUESTION | ASYNC_DNS_RANDOM_ID;
constexpr char kReverseSuffix[] = ".in-addr.arpa";

void addUnique(std::vector<std::string> *list, const std::string &value) {
  if (std::find(list->begin(), list->end(), value) == list->end()) list->push_back(value);
}

std::string lower(std::string text) {
  for (char &c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return text;
}

}  // namespace

std::vector<std::string> resolvConfServers(const char *path) {
  std::vector<std::string> out;
  FILE *f = fopen(path, "r");
  if (!f) return out;
  char line[kLineSize];
  while (fgets(line, sizeof line, f)) {
    char key[kKeySize], value[kValueSize];
    static_assert(kKeySize == 32 && kValueSize == 256, "the widths of the format");
    if (sscanf(line, "%31s %255s", key, value) == 2 && strcmp(key, "nameserver") == 0) addUnique(&out, value);
  }
  fclose(f);
  return out;
}

Resolver::Resolver() = default;

Resolver::~Resolver() {
  if (ctx_) asyncDns_destroy(ctx_);
}

bool Resolver::open(const std::vector<std::string> &servers, std::vector<std::string> *refused, int deadlineMs) {
  ctx_ = asyncDns_create(handleResult);
  if (!ctx_) return false;
  asyncDns_setUserData(ctx_, this);
  const uint32_t perSending = static_cast<uint32_t>(deadlineMs) / kSendings;
  if (asyncDns_setChecks(ctx_, kChecks) != 0 || asyncDns_setFailureCallback(ctx_, handleFailure) != 0 ||
      asyncDns_setRetry(ctx_, perSending > 0 ? perSending : 1, kSendings) != 0) {
    return false;
  }
  for (const std::string &s : servers) {
    int family = addressFamily(s);
    int ret = family == AF_INET6 ? asyncDns_AddServer6(ctx_, s.c_str()) : asyncDns_AddServer(ctx_, s.c_str());
    if (ret == 0)
      servers_++;
    else if (refused)
      refused->push_back(s);
  }
  return true;
}

bool Resolver::lookup(const std::string &name) { return ctx_ && asyncLookup(ctx_, name.c_str()) == 0; }

bool Resolver::lookupPtr(const std::string &ipv4) {
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  if (!ctx_ || inet_pton(AF_INET, ipv4.c_str(), &sin.sin_addr) != 1) return false;
  addUnique(&pendingPtr_, ipv4);
  return asyncLookupPtr(ctx_, &sin) == 0;
}

const Resolver::Answer *Resolver::find(const std::string &name) const {
  auto it = answers_.find(lower(name));
  return it == answers_.end() ? nullptr : &it->second;
}

int Resolver::failure(const std::string &nameOrAddress) const {
  auto it = failed_.find(lower(nameOrAddress));
  return it == failed_.end() ? 0 : it->second;
}

void Resolver::handleFailure(AsyncDnsContext *ctx, const char *name, int reason) {
  Resolver &self = *static_cast<Resolver *>(asyncDns_getUserData(ctx));
  std::string key = lower(name);
  // A PTR lookup is reported by its question, "d.c.b.a.in-addr.arpa".
  const size_t suffix = sizeof kReverseSuffix - 1;
  if (key.size() > suffix && key.compare(key.size() - suffix, suffix, kReverseSuffix) == 0) {
    std::string reversed, label;
    for (size_t end = key.size() - suffix; end > 0;) {
      const size_t dot = key.rfind('.', end - 1);
      const size_t start = dot == std::string::npos ? 0 : dot + 1;
      reversed += (reversed.empty() ? "" : ".") + key.substr(start, end - start);
      end = dot == std::string::npos ? 0 : dot;
    }
    key = reversed;
  }
  self.failed_.emplace(key, reason);
  if (self.onAnswer) self.onAnswer();
}

std::string failureText(int reason, int timeoutMs) {
  switch (reason) {
    case ASYNC_DNS_NXDOMAIN:
      return "NXDOMAIN (no such name)";
    case ASYNC_DNS_NODATA:
      return "NODATA (the name has no address)";
    case ASYNC_DNS_SERVFAIL:
      return "SERVFAIL (the server failed)";
    case ASYNC_DNS_REFUSED:
      return "REFUSED (the server refused)";
    default:
      return "timeout (no answer within " + std::to_string(timeoutMs) + " ms)";
  }
}

int Resolver::handleResult(AsyncDnsContext *ctx, const char *name, DnsResult *result) {
  Resolver &self = *static_cast<Resolver *>(asyncDns_getUserData(ctx));
  for (int i = 0; i < result->count; i++) {
    const DnsAddressEntry &e = result->slots[i];
    char text[INET6_ADDRSTRLEN] = "";
    if (e.family == AF_INET) inet_ntop(AF_INET, &e.ipv4, text, sizeof text);
    if (e.family == AF_INET6) inet_ntop(AF_INET6, &e.ipv6, text, sizeof text);
    if (!text[0]) continue;
    // A PTR answer carries the host name as its name and the address asked
    // about in its one slot.
    bool isPtr = e.family == AF_INET && result->count == 1 &&
                 std::find(self.pendingPtr_.begin(), self.pendingPtr_.end(), text) != self.pendingPtr_.end();
    if (isPtr) {
      self.ptr_.emplace(text, name);
      continue;
    }
    Answer &a = self.answers_[lower(name)];
    addUnique(e.family == AF_INET ? &a.v4 : &a.v6, text);
  }
  if (self.onAnswer) self.onAnswer();
  return 0;
}

void resolveAll(Loop &loop, Resolver &resolver, const std::vector<std::string> &names, int timeoutMs,
                Progress *progress) {
  // Each server answers A and AAAA separately and a name without addresses
  // of a family gets no callback at all, so there is no telling when the
  // last answer is in: stop when every name has both families, or when
  // every name has some and nothing new came for a short while.
  constexpr int kSettleMs = 300;
  Timer settle([&] { loop.stop(); });
  auto check = [&] {
    bool allSome = true, allBoth = true;
    for (const std::string &n : names) {
      const Resolver::Answer *a = resolver.find(n);
      const bool failed = resolver.failure(n) != 0;
      allSome = allSome && (a || failed);
      allBoth = allBoth && ((a && !a->v4.empty() && !a->v6.empty()) || failed);
    }
    if (allBoth)
      loop.stop();
    else if (allSome)
      settle.set(kSettleMs);
  };
  resolver.onAnswer = check;
  for (const std::string &n : names) resolver.lookup(n);  // a cache hit answers inside the call
  check();
  loop.runFor(timeoutMs, [&] {
    if (!progress) return;
    size_t done = 0;
    for (const std::string &n : names) done += resolver.find(n) != nullptr || resolver.failure(n) != 0;
    progress->update("resolving: " + std::to_string(done) + " of " + std::to_string(names.size()) +
                     " names answered");
  });
  resolver.onAnswer = nullptr;
}

}  // namespace rkctl
