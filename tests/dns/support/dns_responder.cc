#include "dns_responder.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

extern "C" {
#include <libubox/uloop.h>
}

namespace rk {
namespace test {

// One socket of the responder; the uloop_fd comes first so that the handler
// gets the whole record back from the pointer the loop hands it.
struct DnsResponder::Listener {
  struct uloop_fd ufd {};
  DnsResponder *owner = nullptr;
  size_t index = 0;
  int family = 0;
};

namespace {

bool isV4Mapped(const in6_addr &a) { return IN6_IS_ADDR_V4MAPPED(&a); }

// Turns a v4-mapped IPv6 socket address into a plain IPv4 one.
sockaddr_storage unmapped(const sockaddr_storage &in) {
  if (in.ss_family != AF_INET6) return in;
  const auto &s6 = reinterpret_cast<const sockaddr_in6 &>(in);
  if (!isV4Mapped(s6.sin6_addr)) return in;
  sockaddr_storage out{};
  auto &s4 = reinterpret_cast<sockaddr_in &>(out);
  s4.sin_family = AF_INET;
  s4.sin_port = s6.sin6_port;
  memcpy(&s4.sin_addr, &s6.sin6_addr.s6_addr[12], 4);
  return out;
}

// A v4 address in the v4-mapped form a dual-stack socket needs for sendto.
sockaddr_storage mapped(const sockaddr_storage &in) {
  if (in.ss_family != AF_INET) return in;
  const auto &s4 = reinterpret_cast<const sockaddr_in &>(in);
  sockaddr_storage out{};
  auto &s6 = reinterpret_cast<sockaddr_in6 &>(out);
  s6.sin6_family = AF_INET6;
  s6.sin6_port = s4.sin_port;
  s6.sin6_addr.s6_addr[10] = 0xff;
  s6.sin6_addr.s6_addr[11] = 0xff;
  memcpy(&s6.sin6_addr.s6_addr[12], &s4.sin_addr, 4);
  return out;
}

int openUdp(const std::string &address, uint16_t port, int *familyOut, std::string *error) {
  sockaddr_storage ss{};
  socklen_t len = 0;
  int family = 0;
  bool dualStack = false;
  auto &s4 = reinterpret_cast<sockaddr_in &>(ss);
  auto &s6 = reinterpret_cast<sockaddr_in6 &>(ss);
  if (inet_pton(AF_INET, address.c_str(), &s4.sin_addr) == 1) {
    family = AF_INET;
    s4.sin_family = AF_INET;
    s4.sin_port = htons(port);
    len = sizeof s4;
  } else if (inet_pton(AF_INET6, address.c_str(), &s6.sin6_addr) == 1) {
    family = AF_INET6;
    s6.sin6_family = AF_INET6;
    s6.sin6_port = htons(port);
    len = sizeof s6;
    dualStack = IN6_IS_ADDR_UNSPECIFIED(&s6.sin6_addr);
  } else {
    *error = "bad address " + address;
    return -1;
  }
  int fd = socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    *error = std::string("socket: ") + strerror(errno);
    return -1;
  }
  int on = 1, off = 0;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (family == AF_INET) {
    setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
  } else {
    setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, dualStack ? &off : &on, sizeof on);
    setsockopt(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on);
  }
  if (bind(fd, reinterpret_cast<sockaddr *>(&ss), len) != 0) {
    *error = "bind " + address + ": " + strerror(errno);
    close(fd);
    return -1;
  }
  *familyOut = family;
  return fd;
}

}  // namespace

std::string addressText(const sockaddr_storage &addrIn) {
  sockaddr_storage addr = unmapped(addrIn);
  char text[INET6_ADDRSTRLEN] = "";
  if (addr.ss_family == AF_INET) {
    inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in &>(addr).sin_addr, text, sizeof text);
  } else if (addr.ss_family == AF_INET6) {
    inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6 &>(addr).sin6_addr, text, sizeof text);
  }
  return text;
}

uint16_t addressPort(const sockaddr_storage &addr) {
  if (addr.ss_family == AF_INET) return ntohs(reinterpret_cast<const sockaddr_in &>(addr).sin_port);
  if (addr.ss_family == AF_INET6) return ntohs(reinterpret_cast<const sockaddr_in6 &>(addr).sin6_port);
  return 0;
}

DnsResponder::DnsResponder(const std::vector<std::string> &addresses, uint16_t port) {
  ok_ = true;
  for (const auto &address : addresses) {
    auto l = std::make_unique<Listener>();
    l->owner = this;
    l->index = listeners_.size();
    int fd = openUdp(address, port, &l->family, &error_);
    if (fd < 0) {
      ok_ = false;
      break;
    }
    l->ufd.fd = fd;
    l->ufd.cb = &DnsResponder::onReadable;
    if (uloop_fd_add(&l->ufd, ULOOP_READ) != 0) {
      error_ = "uloop_fd_add failed for " + address;
      close(fd);
      ok_ = false;
      break;
    }
    listeners_.push_back(std::move(l));
  }
}

DnsResponder::~DnsResponder() {
  for (auto &l : listeners_) {
    uloop_fd_delete(&l->ufd);
    close(l->ufd.fd);
  }
}

void DnsResponder::onReadable(struct uloop_fd *ufd, unsigned int) {
  auto *l = reinterpret_cast<Listener *>(ufd);
  l->owner->drain(*l);
}

void DnsResponder::drain(Listener &l) {
  for (;;) {
    uint8_t buf[65536];
    union {
      cmsghdr align;
      uint8_t space[256];
    } control;
    DnsQuery q;
    iovec iov{buf, sizeof buf};
    msghdr msg{};
    msg.msg_name = &q.from;
    msg.msg_namelen = sizeof q.from;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control.space;
    msg.msg_controllen = sizeof control.space;
    ssize_t n = recvmsg(l.ufd.fd, &msg, MSG_DONTWAIT);
    if (n < 0) return;
    q.bytes.assign(buf, buf + n);
    q.fromLen = msg.msg_namelen;
    for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
      sockaddr_storage to{};
      if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
        in_pktinfo info;
        memcpy(&info, CMSG_DATA(c), sizeof info);
        to.ss_family = AF_INET;
        reinterpret_cast<sockaddr_in &>(to).sin_addr = info.ipi_addr;
        q.toText = addressText(to);
      } else if (c->cmsg_level == IPPROTO_IPV6 && c->cmsg_type == IPV6_PKTINFO) {
        in6_pktinfo info;
        memcpy(&info, CMSG_DATA(c), sizeof info);
        to.ss_family = AF_INET6;
        reinterpret_cast<sockaddr_in6 &>(to).sin6_addr = info.ipi6_addr;
        q.toText = addressText(to);
      }
    }
    q.family = unmapped(q.from).ss_family;
    q.fromText = addressText(q.from);
    q.socketIndex = l.index;
    q.seq = queries_.size();
    queries_.push_back(q);
    if (handler_) handler_(*this, queries_.back());
  }
}

bool DnsResponder::reply(const DnsQuery &query, const Bytes &bytes) {
  if (query.socketIndex >= listeners_.size()) return false;
  int fd = listeners_[query.socketIndex]->ufd.fd;
  ssize_t n = sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&query.from),
                     query.fromLen);
  return n == static_cast<ssize_t>(bytes.size());
}

bool DnsResponder::sendTo(const sockaddr_storage &toIn, socklen_t toLen, const Bytes &bytes) {
  for (auto &l : listeners_) {
    sockaddr_storage to = toIn;
    if (l->family == AF_INET6 && toIn.ss_family == AF_INET) {
      to = mapped(toIn);
      toLen = sizeof(sockaddr_in6);
    }
    if (l->family != to.ss_family) continue;
    ssize_t n = sendto(l->ufd.fd, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&to), toLen);
    if (n == static_cast<ssize_t>(bytes.size())) return true;
  }
  return false;
}

ThreadedResponder::ThreadedResponder() : ThreadedResponder(Options()) {}

ThreadedResponder::ThreadedResponder(const Options &options) : options_(options), ttl_(options.ttl) {
  int family = 0;
  std::string error;
  fd_ = openUdp(options_.address, options_.port, &family, &error);
  if (fd_ >= 0) thread_ = std::thread([this] { run(); });
}

ThreadedResponder::~ThreadedResponder() {
  stop_.store(true);
  if (fd_ >= 0) {
    // A blocked recvfrom on a UDP socket returns once the socket is shut down.
    shutdown(fd_, SHUT_RDWR);
    thread_.join();
    close(fd_);
  }
}

void ThreadedResponder::run() {
  uint8_t v4[4], v6[16];
  inet_pton(AF_INET, options_.ipv4.c_str(), v4);
  inet_pton(AF_INET6, options_.ipv6.c_str(), v6);
  uint8_t buf[2048];
  while (!stop_.load(std::memory_order_relaxed)) {
    sockaddr_storage from;
    socklen_t fromLen = sizeof from;
    ssize_t n = recvfrom(fd_, buf, 512, 0, reinterpret_cast<sockaddr *>(&from), &fromLen);
    if (n <= 0) continue;
    size_t len = static_cast<size_t>(n);
    if (len < 17) continue;
    // End of the question: the name's labels, then QTYPE and QCLASS.
    size_t pos = 12;
    while (pos < len && buf[pos] != 0) pos += buf[pos] + 1u;
    if (pos + 5 > len) continue;
    uint16_t qtype = static_cast<uint16_t>(buf[pos + 1] << 8 | buf[pos + 2]);
    size_t out = pos + 5;
    buf[2] = 0x81;
    buf[3] = 0x80;
    buf[6] = 0;
    buf[7] = 0;
    memset(buf + 8, 0, 4);  // no authority or additional records
    const uint8_t *rdata = qtype == 1 ? v4 : v6;
    size_t rdlen = qtype == 1 ? 4 : 16;
    if (qtype == 1 || qtype == 28) {
      buf[7] = 1;
      uint8_t *p = buf + out;
      p[0] = 0xC0;
      p[1] = 0x0C;
      p[2] = 0;
      p[3] = static_cast<uint8_t>(qtype);
      p[4] = 0;
      p[5] = 1;
      const uint32_t ttl = ttl_.load(std::memory_order_relaxed);
      p[6] = static_cast<uint8_t>(ttl >> 24);
      p[7] = static_cast<uint8_t>(ttl >> 16);
      p[8] = static_cast<uint8_t>(ttl >> 8);
      p[9] = static_cast<uint8_t>(ttl);
      p[10] = 0;
      p[11] = static_cast<uint8_t>(rdlen);
      memcpy(p + 12, rdata, rdlen);
      out += 12 + rdlen;
    }
    sendto(fd_, buf, out, 0, reinterpret_cast<sockaddr *>(&from), fromLen);
    answered_.fetch_add(1, std::memory_order_relaxed);
  }
}

}  // namespace test
}  // namespace rk
