// Helpers around the client under test: an owning pointer for contexts, a
// one-line printer for DnsResult, and a recording AsyncDnsCallback.
//
// The callback has no user-data argument, so the recorder is process-wide
// and keeps the context pointer of each call; tests tell contexts apart by it.
#pragma once

#include <stdint.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <routerkit/async_dns.h>

namespace rk {
namespace test {

struct ContextDeleter {
  void operator()(AsyncDnsContext *c) const { asyncDns_destroy(c); }
};
using ContextPtr = std::unique_ptr<AsyncDnsContext, ContextDeleter>;

// "1.2.3.4", "::1"; other families as "family(N)".
std::string formatEntry(const DnsAddressEntry &entry);
// "name: 1.2.3.4, ::1"; a result without slots prints as "name:".
std::string formatResult(const char *name, const DnsResult *result);

// The identifier of a context as a host-order number (it is held in
// network order).
inline uint16_t contextId(const AsyncDnsContext *c) { return static_cast<uint16_t>((c->id >> 8) | (c->id << 8)); }
// The identifier's two bytes as they go on the wire.
inline uint8_t idByte(const AsyncDnsContext *c, int i) { return reinterpret_cast<const uint8_t *>(&c->id)[i]; }

struct Answer {
  AsyncDnsContext *context = nullptr;
  std::string name;
  std::vector<DnsAddressEntry> slots;
  std::string line;        // formatResult of the call
  bool duringLookup = false;  // arrived inside a LookupScope (a cache hit)
};

class Recorder {
 public:
  // The AsyncDnsCallback to hand to asyncDns_create.
  static int callback(AsyncDnsContext *context, const char *name, DnsResult *result);

  static std::vector<Answer> &answers();
  static std::vector<std::string> lines();  // the `line` of every answer, in order
  static void clear();
  // Runs after each recorded answer, still inside the callback.
  static void setHook(std::function<void(const Answer &)> hook);

  // Marks answers that arrive while it lives as duringLookup.
  class LookupScope {
   public:
    LookupScope();
    ~LookupScope();
  };
};

// The A and AAAA slots the cache holds for `name`, newest first, as
// formatResult prints them; "name: (absent)" when DnsCache_Get misses.
std::string cachedLine(DnsCache *cache, const std::string &name);

}  // namespace test
}  // namespace rk
