// The LAN bridge address to show a peer: one of the peer's own subnet, or
// one chosen by fixed preferences. The interface list is read on each call.
#include <routerkit/network_helper.h>

#include <arpa/inet.h>
#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

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

// One address of the interface list: the interface's name and flags, the
// address and its netmask (network byte order, unaligned).
struct IfAddress {
  char name[IF_NAMESIZE];
  unsigned flags;
  const void *addr;
  const void *mask;
};

bool takesPart(const IfAddress &entry) noexcept {
  return (entry.flags & IFF_RUNNING) != 0 && strncmp(entry.name, kBridgePrefix, sizeof kBridgePrefix - 1) == 0;
}

// Each step stores into `out` and reads the candidate back from there. True
// when the entry holds the peer's subnet, which ends the walk.
bool stepV4(const IfAddress &entry, const void *peer, void *out, bool stored) noexcept {
  const void *addr = entry.addr;
  const uint32_t mask = word(entry.mask, 0);
  const bool sameSubnet = ((word(addr, 0) ^ word(peer, 0)) & mask) == 0;
  // A candidate in the default LAN's subnet (under this entry's mask) gives way.
  if (sameSubnet || !stored || ((word(out, 0) ^ defaultLanAddress()) & mask) == 0) {
    memcpy(out, addr, sizeof(struct in_addr));
  }
  return sameSubnet;
}

bool stepV6(const IfAddress &entry, const void *peer, void *out, bool stored) noexcept {
  const void *addr = entry.addr;
  const void *mask = entry.mask;
  bool sameSubnet = true;  // the last word takes no part
  for (size_t i = 0; i < 3; ++i) sameSubnet &= ((word(addr, i) ^ word(peer, i)) & word(mask, i)) == 0;
  const auto *kept = static_cast<const unsigned char *>(out);
  // A link-local candidate (fe80, all 16 bits) stays; any other gives way.
  const bool linkLocal = stored && kept[0] == 0xfe && kept[1] == 0x80;
  if (sameSubnet || !linkLocal) memcpy(out, addr, sizeof(struct in6_addr));
  return sameSubnet;
}

// The interface list comes from the kernel's routing socket rather than from
// getifaddrs: the same entries in the same order (the kernel's) on every C
// library, and every length checked against its record. musl's getifaddrs
// trusts the length of an attribute that ends a record, and qemu-user leaves
// that attribute in the host's byte order on a big-endian target.
class AddressDump {
 public:
  explicit AddressDump(int family) noexcept : family_(family) {}

  // Calls visit(const IfAddress &) for each address of the family, in the
  // kernel's order, until it returns true. False when the dump failed.
  template <typename Visit>
  bool run(Visit visit) noexcept {
    fd_.reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!fd_.valid() || !request()) return false;
    for (;;) {
      const ssize_t n = recv(fd_.get(), buffer_, sizeof buffer_, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      for (size_t at = 0; at + sizeof(nlmsghdr) <= static_cast<size_t>(n);) {
        nlmsghdr h;
        memcpy(&h, buffer_ + at, sizeof h);
        if (h.nlmsg_len < sizeof h || h.nlmsg_len > static_cast<size_t>(n) - at) return false;
        if (h.nlmsg_seq == kSequence) {
          if (h.nlmsg_type == NLMSG_DONE) return true;
          if (h.nlmsg_type == NLMSG_ERROR) return false;
          IfAddress entry{};
          if (h.nlmsg_type == RTM_NEWADDR && read(buffer_ + at, h.nlmsg_len, entry) && visit(entry)) return true;
        }
        at += NLMSG_ALIGN(h.nlmsg_len);
      }
    }
  }

 private:
  static constexpr uint32_t kSequence = 1;
  static constexpr size_t kReceiveSize = 8192;  // the kernel sizes dump parts to the reader's buffer
  static constexpr size_t kMaxAddressSize = 16;

  bool request() noexcept {
    struct {
      nlmsghdr h;
      ifaddrmsg m;
    } req{};
    req.h.nlmsg_len = sizeof req;
    req.h.nlmsg_type = RTM_GETADDR;
    req.h.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    req.h.nlmsg_seq = kSequence;
    req.m.ifa_family = static_cast<uint8_t>(family_);
    return send(fd_.get(), &req, sizeof req, 0) == static_cast<ssize_t>(sizeof req);
  }

  // One RTM_NEWADDR record: the local address (IFA_LOCAL, else IFA_ADDRESS),
  // the netmask from the prefix length, the name from the label (IPv4) or the
  // interface index, the interface's flags. False for a record to pass over.
  bool read(const uint8_t *record, size_t length, IfAddress &entry) noexcept {
    ifaddrmsg m;
    const size_t head = NLMSG_LENGTH(sizeof m);
    if (length < head) return false;
    memcpy(&m, record + NLMSG_HDRLEN, sizeof m);
    const size_t size = m.ifa_family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
    if (m.ifa_family != family_ || m.ifa_prefixlen > 8 * size) return false;
    const uint8_t *address = nullptr, *local = nullptr;
    for (size_t at = NLMSG_ALIGN(head); at + sizeof(rtattr) <= length;) {
      rtattr a;
      memcpy(&a, record + at, sizeof a);
      if (a.rta_len < sizeof a || a.rta_len > length - at) break;
      const uint8_t *data = record + at + RTA_LENGTH(0);
      const size_t dataSize = a.rta_len - RTA_LENGTH(0);
      if ((a.rta_type == IFA_ADDRESS || a.rta_type == IFA_LOCAL) && dataSize == size)
        (a.rta_type == IFA_LOCAL ? local : address) = data;
      else if (a.rta_type == IFA_LABEL && dataSize > 0 && dataSize <= sizeof entry.name)
        strncpy(entry.name, reinterpret_cast<const char *>(data), dataSize);
      at += RTA_ALIGN(a.rta_len);
    }
    if (!address && !local) return false;
    entry.name[sizeof entry.name - 1] = '\0';
    if (!entry.name[0] && !if_indextoname(m.ifa_index, entry.name)) return false;
    ifreq flags{};
    memcpy(flags.ifr_name, entry.name, sizeof entry.name);
    if (ioctl(fd_.get(), SIOCGIFFLAGS, &flags) != 0) return false;
    entry.flags = static_cast<unsigned short>(flags.ifr_flags);
    memcpy(address_, local ? local : address, size);
    memset(mask_, 0, sizeof mask_);
    for (unsigned bit = 0; bit < m.ifa_prefixlen; ++bit) mask_[bit / 8] |= static_cast<uint8_t>(0x80 >> bit % 8);
    entry.addr = address_;
    entry.mask = mask_;
    return true;
  }

  int family_;
  UniqueFd fd_;
  alignas(nlmsghdr) uint8_t buffer_[kReceiveSize];
  uint8_t address_[kMaxAddressSize];
  uint8_t mask_[kMaxAddressSize];
};

// 1 when `out` holds an address of a running br-lan interface of `family`,
// else 0 with `out` as it was (also when the list cannot be read to its end).
int bridgeAddress(uint8_t family, const void *peer, void *out) noexcept {
  uint8_t before[sizeof(in6_addr)];
  const size_t size = family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
  memcpy(before, out, size);
  AddressDump dump(family);
  bool stored = false;
  const bool listed = dump.run([&](const IfAddress &entry) {
    if (!takesPart(entry)) return false;
    const bool found = family == AF_INET ? stepV4(entry, peer, out, stored) : stepV6(entry, peer, out, stored);
    stored = true;
    return found;
  });
  if (!listed) memcpy(out, before, size);
  return listed && stored ? 1 : 0;
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
