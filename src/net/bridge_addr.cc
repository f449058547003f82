// The LAN bridge address to show a peer: one of the peer's own subnet, or
// one chosen by fixed preferences. The interface list is read on each call.
#include <routerkit/network_helper.h>

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string.h>

#include <atomic>
#include <memory>

#include "common/raii.h"

namespace rk::net {
namespace {

// Only interfaces whose names begin with this take part.
constexpr char kBridgePrefix[] = "br-lan";

// Network byte order; set once, always to the same value.
std::atomic<uint32_t> defaultLan{0};

uint32_t defaultLanAddress() noexcept {
  uint32_t lan = defaultLan.load(std::memory_order_relaxed);
  if (lan == 0) {
    inet_pton(AF_INET, "192.168.10.1", &lan);
    defaultLan.store(lan, std::memory_order_relaxed);
  }
  return lan;
}

// Addresses are compared as 32-bit words in network byte order; the buffers
// need not be aligned.
uint32_t word(const void *bytes, size_t i) noexcept {
  uint32_t w;
  memcpy(&w, static_cast<const unsigned char *>(bytes) + 4 * i, sizeof w);
  return w;
}

// An entry without a netmask is not expected for these families; it is
// passed over.
bool takesPart(const ifaddrs &entry, int family) noexcept {
  return entry.ifa_addr != nullptr && entry.ifa_netmask != nullptr &&
         (entry.ifa_flags & IFF_RUNNING) != 0 && entry.ifa_addr->sa_family == family &&
         strncmp(entry.ifa_name, kBridgePrefix, sizeof kBridgePrefix - 1) == 0;
}

// Each step stores into `out` and reads the candidate back from there. True
// when the entry holds the peer's subnet, which ends the walk.
bool stepV4(const ifaddrs &entry, const void *peer, void *out, bool stored) noexcept {
  const void *addr = &reinterpret_cast<const sockaddr_in *>(entry.ifa_addr)->sin_addr;
  const uint32_t mask = word(&reinterpret_cast<const sockaddr_in *>(entry.ifa_netmask)->sin_addr, 0);
  const bool sameSubnet = ((word(addr, 0) ^ word(peer, 0)) & mask) == 0;
  // A candidate in the default LAN's subnet (under this entry's mask) gives way.
  if (sameSubnet || !stored || ((word(out, 0) ^ defaultLanAddress()) & mask) == 0) {
    memcpy(out, addr, sizeof(struct in_addr));
  }
  return sameSubnet;
}

bool stepV6(const ifaddrs &entry, const void *peer, void *out, bool stored) noexcept {
  const void *addr = &reinterpret_cast<const sockaddr_in6 *>(entry.ifa_addr)->sin6_addr;
  const void *mask = &reinterpret_cast<const sockaddr_in6 *>(entry.ifa_netmask)->sin6_addr;
  bool sameSubnet = true;  // the last word takes no part
  for (size_t i = 0; i < 3; ++i) sameSubnet &= ((word(addr, i) ^ word(peer, i)) & word(mask, i)) == 0;
  const auto *kept = static_cast<const unsigned char *>(out);
  // A link-local candidate (fe80, all 16 bits) stays; any other gives way.
  const bool linkLocal = stored && kept[0] == 0xfe && kept[1] == 0x80;
  if (sameSubnet || !linkLocal) memcpy(out, addr, sizeof(struct in6_addr));
  return sameSubnet;
}

// 1 when `out` holds an address of a running br-lan interface of `family`, else 0.
int bridgeAddress(uint8_t family, const void *peer, void *out) noexcept {
  ifaddrs *list = nullptr;
  if (getifaddrs(&list) != 0) return 0;
  const IfAddrsPtr owner(list);
  bool stored = false;
  for (const ifaddrs *entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (!takesPart(*entry, family)) continue;
    const bool found = family == AF_INET ? stepV4(*entry, peer, out, stored) : stepV6(*entry, peer, out, stored);
    if (found) return 1;
    stored = true;
  }
  return stored ? 1 : 0;
}

}  // namespace
}  // namespace rk::net

extern "C" {

int networkHelper_getBridgeAddr(uint8_t family, const void *peer, void *out) {
  rk::net::defaultLanAddress();
  if (family != AF_INET && family != AF_INET6) return 0;
  return rk::net::bridgeAddress(family, peer, out);
}

}  // extern "C"
