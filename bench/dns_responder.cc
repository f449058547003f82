#include "dns_responder.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace rk::bench {

bool InsideTestNamespace() { return getenv("RK_NS_KEEP") != nullptr && access("/run/.rk-ns", F_OK) == 0; }

void SilenceSyslog() {
  if (InsideTestNamespace()) unlink("/dev/log");
}

ThreadedResponder::ThreadedResponder(const Options &options) : options_(options), ttl_(options.ttl) {
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_port = htons(options_.port);
  if (inet_pton(AF_INET, options_.address.c_str(), &at.sin_addr) != 1) return;
  fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr *>(&at), sizeof at) != 0) {
    close(fd_);
    fd_ = -1;
  }
  if (fd_ >= 0) thread_ = std::thread([this] { run(); });
}

ThreadedResponder::~ThreadedResponder() {
  stop_.store(true);
  if (fd_ < 0) return;
  // A blocked recvfrom on a UDP socket returns once the socket is shut down.
  shutdown(fd_, SHUT_RDWR);
  thread_.join();
  close(fd_);
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
    if (n < 17) continue;
    size_t len = static_cast<size_t>(n);
    // End of the question: the name's labels, then QTYPE and QCLASS.
    size_t pos = 12;
    while (pos < len && buf[pos] != 0) pos += buf[pos] + 1u;
    if (pos + 5 > len) continue;
    uint16_t qtype = static_cast<uint16_t>(buf[pos + 1] << 8 | buf[pos + 2]);
    size_t out = pos + 5;
    buf[2] = 0x81;
    buf[3] = 0x80;
    memset(buf + 6, 0, 6);  // answers counted below; no authority or additional records
    if (qtype == 1 || qtype == 28) {
      const uint8_t *rdata = qtype == 1 ? v4 : v6;
      const uint8_t rdlen = qtype == 1 ? 4 : 16;
      const uint32_t ttl = ttl_.load(std::memory_order_relaxed);
      const uint8_t rr[12] = {0xC0, 0x0C, 0, static_cast<uint8_t>(qtype), 0, 1,
                              static_cast<uint8_t>(ttl >> 24), static_cast<uint8_t>(ttl >> 16),
                              static_cast<uint8_t>(ttl >> 8), static_cast<uint8_t>(ttl), 0, rdlen};
      buf[7] = 1;
      memcpy(buf + out, rr, sizeof rr);
      memcpy(buf + out + sizeof rr, rdata, rdlen);
      out += sizeof rr + rdlen;
    }
    sendto(fd_, buf, out, 0, reinterpret_cast<sockaddr *>(&from), fromLen);
    answered_.fetch_add(1, std::memory_order_relaxed);
  }
}

}  // namespace rk::bench
