#include "dns_responder.h"

#include <arpa/inet.h>
#include <poll.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace rk::test {
namespace {

constexpr size_t kHeaderSize = 12;
constexpr uint16_t kTypeA = 1, kTypeAaaa = 28;
constexpr uint8_t kServFail = 2, kNxDomain = 3;  // RCODE, the low bits of the fourth byte

// Member by member: musl pads the record on some targets.
msghdr Message(sockaddr_in6 *peer, iovec *iov, void *control, size_t controlLength) {
  msghdr msg{};
  msg.msg_name = peer, msg.msg_namelen = sizeof *peer, msg.msg_iov = iov, msg.msg_iovlen = 1;
  msg.msg_control = control, msg.msg_controllen = controlLength;
  return msg;
}

}  // namespace

DnsResponder::DnsResponder(uint16_t port) {
  fd_ = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  int off = 0, on = 1;
  setsockopt(fd_, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
  setsockopt(fd_, IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on);
  sockaddr_in6 any{AF_INET6, htons(port), 0, {}, 0};
  if (fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr *>(&any), sizeof any) != 0) close(fd_), fd_ = -1;
}

DnsResponder::~DnsResponder() {
  stop_.store(true);
  // A blocked recvmsg on a UDP socket returns once the socket is shut down.
  if (thread_.joinable()) shutdown(fd_, SHUT_RDWR), thread_.join();
  if (fd_ >= 0) close(fd_);
  if (forgeFd_ >= 0) close(forgeFd_);
}

bool DnsResponder::Next(DnsQuery *q, int ms) {
  pollfd p{fd_, POLLIN, 0};
  if (ms >= 0 && poll(&p, 1, ms) != 1) return false;
  uint8_t buf[2048];
  char control[256];
  iovec iov{buf, sizeof buf};
  msghdr msg = Message(&q->from, &iov, control, sizeof control);
  const ssize_t n = recvmsg(fd_, &msg, 0);
  if (n < 0) return false;
  q->bytes.assign(buf, buf + n);
  // musl's CMSG_NXTHDR compares a size with a pointer difference.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wsign-compare"
  for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
    if (c->cmsg_level != IPPROTO_IPV6 || c->cmsg_type != IPV6_PKTINFO) continue;
    memcpy(&q->toAddress, CMSG_DATA(c) + offsetof(in6_pktinfo, ipi6_addr), sizeof q->toAddress);
    char text[INET6_ADDRSTRLEN] = "";
    const bool v4 = IN6_IS_ADDR_V4MAPPED(&q->toAddress);
    inet_ntop(v4 ? AF_INET : AF_INET6, &q->toAddress.s6_addr[v4 ? 12 : 0], text, sizeof text);
    q->to = text;
  }
#pragma GCC diagnostic pop
  return true;
}

std::vector<DnsQuery> DnsResponder::Take(size_t n) {
  std::vector<DnsQuery> out;
  DnsQuery q;
  while (out.size() < n && Next(&q)) out.push_back(q);
  return out;
}

bool DnsResponder::Reply(const DnsQuery &q, const std::vector<uint8_t> &bytes) {
  iovec iov{const_cast<uint8_t *>(bytes.data()), bytes.size()};
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in6_pktinfo))] = {};
  msghdr msg = Message(const_cast<sockaddr_in6 *>(&q.from), &iov, control, sizeof control);
  cmsghdr *c = CMSG_FIRSTHDR(&msg);
  c->cmsg_level = IPPROTO_IPV6, c->cmsg_type = IPV6_PKTINFO, c->cmsg_len = CMSG_LEN(sizeof(in6_pktinfo));
  memcpy(CMSG_DATA(c) + offsetof(in6_pktinfo, ipi6_addr), &q.toAddress, sizeof q.toAddress);  // interface 0
  return sendmsg(fd_, &msg, 0) == static_cast<ssize_t>(bytes.size());
}

void DnsResponder::Serve(const char *ipv4, const char *ipv6, uint32_t ttl, bool mixed) {
  inet_pton(AF_INET, ipv4, v4_);
  inet_pton(AF_INET6, ipv6, v6_);
  SetTtl(ttl);
  mixed_ = mixed;
  if (mixed) {
    forgeFd_ = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    int off = 0;
    setsockopt(forgeFd_, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
  }
  thread_ = std::thread([this] { ServeLoop(); });
}

void DnsResponder::ServeLoop() {
  DnsQuery q;
  while (!stop_.load(std::memory_order_relaxed) && Next(&q, -1)) {
    std::vector<uint8_t> &b = q.bytes;
    // The end of the question: the name's labels, then QTYPE and QCLASS.
    size_t end = kHeaderSize;
    while (end < b.size() && b[end] != 0) end += b[end] + 1u;
    end += 5;
    if (b.size() < kHeaderSize + 5 || end > b.size()) continue;
    b.resize(end);
    b[2] = 0x81, b[3] = 0x80;  // a response, recursion desired and available, no error
    memset(&b[6], 0, 6);  // answers counted below; no other records
    const uint16_t type = q.type();
    const char *kind = mixed_ ? reinterpret_cast<const char *>(&b[kHeaderSize + 1]) : "";
    if (strncmp(kind, "nx", 2) == 0 || strncmp(kind, "sf", 2) == 0) {
      b[3] |= kind[0] == 'n' ? kNxDomain : kServFail;
    } else if (type == kTypeA || type == kTypeAaaa) {
      const uint8_t *rdata = type == kTypeA ? v4_ : v6_;
      const uint8_t rdLength = type == kTypeA ? sizeof v4_ : sizeof v6_;
      const uint32_t ttl = ttl_.load(std::memory_order_relaxed);
      const uint8_t record[] = {0xC0, 0x0C, 0, static_cast<uint8_t>(type), 0, 1,
                                static_cast<uint8_t>(ttl >> 24), static_cast<uint8_t>(ttl >> 16),
                                static_cast<uint8_t>(ttl >> 8), static_cast<uint8_t>(ttl), 0, rdLength};
      b[7] = 1;
      b.insert(b.end(), record, record + sizeof record);
      b.insert(b.end(), rdata, rdata + rdLength);
    }
    if (strncmp(kind, "fg", 2) == 0) {
      std::vector<uint8_t> forged = b;
      forged[0] ^= 0x80;  // another identifier, then another question
      Reply(q, forged);
      forged[0] = b[0], forged[kHeaderSize + 2] = 'x';
      Reply(q, forged);
      sendto(forgeFd_, b.data(), b.size(), 0, reinterpret_cast<const sockaddr *>(&q.from), sizeof q.from);
    }
    Reply(q, b);
  }
}

}  // namespace rk::test
