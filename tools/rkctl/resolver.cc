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

// Every Resolver on the loop, found again from the context the library
// hands to the callback (the callback has no argument of the caller's).
std::map<AsyncDnsContext *, Resolver *> &resolvers() {
  static std::map<AsyncDnsContext *, Resolver *> all;
  return all;
}

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
  if (!ctx_) return;
  resolvers().erase(ctx_);
  asyncDns_destroy(ctx_);
}

bool Resolver::open(const std::vector<std::string> &servers, std::vector<std::string> *refused) {
  ctx_ = asyncDns_create(handleResult);
  if (!ctx_) return false;
  resolvers()[ctx_] = this;
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

int Resolver::handleResult(AsyncDnsContext *ctx, const char *name, DnsResult *result) {
  auto it = resolvers().find(ctx);
  if (it == resolvers().end()) return 0;
  Resolver &self = *it->second;
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
      allSome = allSome && a;
      allBoth = allBoth && a && !a->v4.empty() && !a->v6.empty();
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
    for (const std::string &n : names) done += resolver.find(n) != nullptr;
    progress->update("resolving: " + std::to_string(done) + " of " + std::to_string(names.size()) +
                     " names answered");
  });
  resolver.onAnswer = nullptr;
}

}  // namespace rkctl
