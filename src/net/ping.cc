// ICMP and ICMPv6 echo on the caller's uloop. The send tick travels in the
// echo payload, so nothing is kept per request: a reply carries everything
// its round-trip time needs. Raw sockets by default, unprivileged ICMP
// sockets on request.
#include <routerkit/async_ping.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <type_traits>

#include "common/socket_client.h"
#include "diag/logmsg.h"

// The socket handlers find the context from the uloop_fd they are given.
static_assert(offsetof(AsyncPingContext, pingSock) == 0, "the context is its IPv4 uloop_fd");
static_assert(offsetof(AsyncPingContext, ping6Sock) == sizeof(struct uloop_fd),
              "ping6Sock lies directly behind pingSock");
static_assert(std::is_standard_layout_v<AsyncPingContext>, "plain C record");

namespace rk::net {
namespace {

constexpr size_t kEcho4Size = 36;                // header, tick, 20 bytes of zeros
constexpr size_t kEcho6Size = 16;                // header, tick
constexpr size_t kEcho6TimedSize = 24;           // header, tick, microseconds (with a reply callback)
constexpr size_t kPingReceiveBufferSize = 1024;  // a longer reply is cut; its fields lie in front
constexpr size_t kAddressTextSize = 46;          // INET6_ADDRSTRLEN
constexpr uint8_t kEchoRequest4 = 8, kEchoReply4 = 0;
constexpr uint8_t kEchoRequest6 = 128, kEchoReply6 = 129;
constexpr int kIcmp6FilterOption = 1;    // ICMP6_FILTER at level IPPROTO_ICMPV6
constexpr size_t kIcmp6FilterWords = 8;  // a bit per message type
// Offsets inside an echo message.
constexpr size_t kChecksumAt = 2, kIdAt = 4, kSeqAt = 6, kTickAt = 8, kMicrosecondsAt = 16;
constexpr uint64_t kMicrosecondsPerSecond = 1000000, kNanosecondsPerMicrosecond = 1000;
constexpr uint64_t kMicrosecondsPerTick = 1000;

// The library's own state of a context, behind the published record in the
// one allocation the creators make: the record comes first, so the context
// pointer is the box's.
struct PingBox {
  AsyncPingContext record;
  AsyncPingReplyCallback replyCallback;  // replaces record.callback when set
  void *userData;
  bool unprivileged;  // SOCK_DGRAM sockets: the kernel owns the identifier
};
static_assert(std::is_standard_layout_v<PingBox> && offsetof(PingBox, record) == 0, "a context is its box");

PingBox *boxOf(AsyncPingContext *context) noexcept { return reinterpret_cast<PingBox *>(context); }
const PingBox *boxOf(const AsyncPingContext *context) noexcept { return reinterpret_cast<const PingBox *>(context); }

// One per process: each raw context takes the next identifier, so contexts
// of one process drop each other's replies (every raw socket sees every ICMP
// message). Stepped without a lock, like the rest, on the loop's thread.
uint32_t pingCounter = 0;

// The 28 bytes recvfrom fills: either family's socket address.
union PeerAddress {
  struct sockaddr any;
  struct sockaddr_in v4;
  struct sockaddr_in6 v6;
};
static_assert(sizeof(PeerAddress) == 28, "a 28-byte socket address");

// RFC 1071 over 16-bit words in host order; the complement, stored in host
// order as well, puts the right bytes on the wire on either byte order. The
// lengths used here are even.
uint16_t pingChecksum(const uint8_t *buffer, size_t length) noexcept {
  uint32_t sum = 0;
  for (size_t i = 0; i + 1 < length; i += 2) {
    uint16_t word;
    memcpy(&word, buffer + i, sizeof word);
    sum += word;
  }
  sum = (sum & 0xffff) + (sum >> 16);
  sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

uint64_t monotonicMicroseconds() noexcept {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * kMicrosecondsPerSecond +
         static_cast<uint64_t>(ts.tv_nsec) / kNanosecondsPerMicrosecond;
}

// `type` is SOCK_RAW, or SOCK_DGRAM for an unprivileged socket, which is
// handed echo replies only and refuses the filter (ENOPROTOOPT).
int createPingSock(int domain, int type, int protocol) noexcept {
  const int fd = openClientSocket(__func__, domain, type, protocol);
  if (fd < 0) return -1;
  if (domain == AF_INET6 && type == SOCK_RAW) {
    // A set bit blocks its type: router and neighbour discovery and
    // redirects (133..137), which a busy link has plenty of, never reach us.
    uint32_t filter[kIcmp6FilterWords] = {};
    filter[133 / 32] = 0x3E0;
    if (setsockopt(fd, IPPROTO_ICMPV6, kIcmp6FilterOption, filter, sizeof filter) != 0)
      RK_LOG(error, "setsockopt:ICMP6_FILTER");  // works without it, reads more
  }
  return fd;
}

// Builds an echo request of `length` bytes in `packet` (zeroed by the
// caller) and sends it. The sequence counter is shared by both families. On
// an unprivileged socket the kernel puts in its own identifier and checksum.
int sendEcho(AsyncPingContext *context, int fd, uint8_t type, uint8_t *packet, size_t length,
             const struct sockaddr *address, socklen_t addressLength) noexcept {
  packet[0] = type;
  memcpy(packet + kIdAt, &context->id, sizeof context->id);
  const uint16_t seq = htons(context->seq++);
  memcpy(packet + kSeqAt, &seq, sizeof seq);
  const uint64_t tick = GetTickCount();
  memcpy(packet + kTickAt, &tick, sizeof tick);
  if (boxOf(context)->replyCallback != nullptr) {
    const uint64_t sent = monotonicMicroseconds();
    memcpy(packet + kMicrosecondsAt, &sent, sizeof sent);
  }
  const uint16_t sum = pingChecksum(packet, length);
  memcpy(packet + kChecksumAt, &sum, sizeof sum);
  return static_cast<int>(sendto(fd, packet, length, 0, address, addressLength));
}

int sendPing4(AsyncPingContext *context, const struct sockaddr *address) noexcept {
  if (context == nullptr || context->pingSock.fd < 0 || address == nullptr) return -1;
  uint8_t packet[kEcho4Size] = {};
  return sendEcho(context, context->pingSock.fd, kEchoRequest4, packet, sizeof packet, address,
                  sizeof(struct sockaddr_in));
}

int sendPing6(AsyncPingContext *context, const struct sockaddr *address) noexcept {
  if (context == nullptr || context->ping6Sock.fd < 0 || address == nullptr) return -1;
  // The kernel puts the ICMPv6 checksum (with its pseudo-header) in itself.
  uint8_t packet[kEcho6TimedSize] = {};
  const size_t length = boxOf(context)->replyCallback != nullptr ? kEcho6TimedSize : kEcho6Size;
  return sendEcho(context, context->ping6Sock.fd, kEchoRequest6, packet, length, address,
                  sizeof(struct sockaddr_in6));
}

// An echo reply for this context: the kernel gives an unprivileged socket
// only replies with that socket's identifier; a raw one sees them all.
bool isOwnReply(const PingBox *box, const uint8_t *icmp, uint8_t replyType) noexcept {
  return icmp[0] == replyType &&
         (box->unprivileged || memcmp(icmp + kIdAt, &box->record.id, sizeof box->record.id) == 0);
}

// The reply callback's turn. A request sent before the callback was set
// carries no microseconds: its tick gives them, in whole milliseconds.
void reportReply(const PingBox *box, AsyncPingContext *context, const char *text, const uint8_t *icmp,
                 uint64_t nowTick, uint64_t nowMicroseconds) noexcept {
  uint16_t seq;
  uint64_t sent, tick;
  memcpy(&seq, icmp + kSeqAt, sizeof seq);
  memcpy(&sent, icmp + kMicrosecondsAt, sizeof sent);
  memcpy(&tick, icmp + kTickAt, sizeof tick);
  const uint64_t microseconds = sent != 0 ? nowMicroseconds - sent : (nowTick - tick) * kMicrosecondsPerTick;
  box->replyCallback(context, text, ntohs(seq), static_cast<uint32_t>(microseconds));
}

// Reads one datagram and hands an echo reply with this context's identifier
// to the callback. Nothing else of a reply is looked at. 0 after the
// callback's turn, else -1.
int checkSocket(AsyncPingContext *context, int fd) noexcept {
  if (context == nullptr || fd < 0) return -1;
  // Zeroed: the fields of a datagram shorter than them read as zeros.
  uint8_t buffer[kPingReceiveBufferSize] = {};
  PeerAddress from = {};
  socklen_t fromLength = sizeof from;
  if (recvfrom(fd, buffer, sizeof buffer, 0, &from.any, &fromLength) <= 0) return -1;
  const uint64_t now = GetTickCount();
  const PingBox *box = boxOf(context);
  const uint64_t nowMicroseconds = box->replyCallback != nullptr ? monotonicMicroseconds() : 0;

  char text[kAddressTextSize] = {};
  const uint8_t *icmp = buffer;
  if (from.any.sa_family == AF_INET6) {
    if (!isOwnReply(box, icmp, kEchoReply6)) return -1;
    if (inet_ntop(AF_INET6, &from.v6.sin6_addr, text, sizeof text) == nullptr) {
      RK_LOG(error, "inet_ntop6");
      return -1;
    }
  } else {
    // A raw IPv4 socket reads the IP header too; at most 60 bytes, so the
    // fields behind it stay inside the buffer. An unprivileged one does not.
    if (!box->unprivileged) icmp = buffer + (buffer[0] & 0x0f) * 4;
    if (!isOwnReply(box, icmp, kEchoReply4)) return -1;
    if (inet_ntop(AF_INET, &from.v4.sin_addr, text, sizeof text) == nullptr) {
      RK_LOG(error, "inet_ntop");
      return -1;
    }
  }
  if (box->replyCallback != nullptr) {
    reportReply(box, context, text, icmp, now, nowMicroseconds);
    return 0;
  }
  uint64_t sent;
  memcpy(&sent, icmp + kTickAt, sizeof sent);
  if (context->callback != nullptr) context->callback(context, text, static_cast<uint32_t>(now - sent));
  return 0;
}

// The socket handlers. A socket lost to end of file stays registered until
// destroy, which takes both sockets off the loop whatever became of them.
void onPingSock4(struct uloop_fd *u, unsigned int events) {
  if (u != nullptr) handleClientEvent(clientOf<AsyncPingContext>(u, 0), u, events, checkSocket);
}

void onPingSock6(struct uloop_fd *u, unsigned int events) {
  if (u != nullptr) handleClientEvent(clientOf<AsyncPingContext>(u, 1), u, events, checkSocket);
}

// Raw sockets, or unprivileged ones. NULL with errno as the failed call
// left it.
AsyncPingContext *createContext(AsyncPingCallback callback, bool unprivileged) noexcept {
  auto *box = static_cast<PingBox *>(calloc(1, sizeof(PingBox)));
  if (box == nullptr) return nullptr;
  AsyncPingContext *context = &box->record;
  context->callback = callback;
  box->unprivileged = unprivileged;
  // The process id plus the raw contexts made before; the counter steps even
  // if the sockets then fail. Unprivileged sockets get theirs from the kernel.
  if (!unprivileged) context->id = htons(static_cast<uint16_t>(static_cast<uint32_t>(getpid()) + pingCounter++));
  const int type = unprivileged ? SOCK_DGRAM : SOCK_RAW;
  // Both families or none: a system without ICMPv6 sockets gets no client.
  if (watchClientSocket(&context->pingSock, createPingSock(AF_INET, type, IPPROTO_ICMP), onPingSock4) &&
      watchClientSocket(&context->ping6Sock, createPingSock(AF_INET6, type, IPPROTO_ICMPV6), onPingSock6)) {
    return context;
  }
  const int error = errno;
  // Whichever failed, the IPv6 socket is not open; the IPv4 one may be.
  closeClientSocket(&context->pingSock, CloseRule::kSkipClosed);
  free(box);
  errno = error;
  return nullptr;
}

void destroyContext(AsyncPingContext *context) noexcept {
  closeClientSocket(&context->pingSock, CloseRule::kAlwaysDelete);
  closeClientSocket(&context->ping6Sock, CloseRule::kAlwaysDelete);
  free(boxOf(context));
}

void setReplyCallback(AsyncPingContext *context, AsyncPingReplyCallback callback) noexcept {
  boxOf(context)->replyCallback = callback;
}

void setUserData(AsyncPingContext *context, void *userData) noexcept { boxOf(context)->userData = userData; }

void *userData(const AsyncPingContext *context) noexcept { return boxOf(context)->userData; }

}  // namespace
}  // namespace rk::net

extern "C" {

AsyncPingContext *asyncPing_create(AsyncPingCallback callback) { return rk::net::createContext(callback, false); }

AsyncPingContext *asyncPing_createUnprivileged(AsyncPingCallback callback) {
  return rk::net::createContext(callback, true);
}

int asyncPing_setReplyCallback(AsyncPingContext *context, AsyncPingReplyCallback callback) {
  if (context == nullptr) return -1;
  rk::net::setReplyCallback(context, callback);
  return 0;
}

void asyncPing_setUserData(AsyncPingContext *context, void *userData) {
  if (context != nullptr) rk::net::setUserData(context, userData);
}

void *asyncPing_getUserData(const AsyncPingContext *context) {
  return context == nullptr ? nullptr : rk::net::userData(context);
}

int asyncPing_destroy(AsyncPingContext *context) {
  if (context == nullptr) return -1;
  rk::net::destroyContext(context);
  return 0;
}

int asyncPing4(AsyncPingContext *context, const char *address) {
  if (context == nullptr || address == nullptr) return -1;
  struct sockaddr_in to = {};
  to.sin_family = AF_INET;
  if (inet_pton(AF_INET, address, &to.sin_addr) <= 0) {
    RK_LOG(error, "error ipv4(%s)", address);
    return -1;
  }
  return rk::net::sendPing4(context, reinterpret_cast<const struct sockaddr *>(&to));
}

int asyncPing6(AsyncPingContext *context, const char *address) {
  if (context == nullptr || address == nullptr) return -1;
  // Port, flow and scope stay 0: a link-local target has no zone here.
  struct sockaddr_in6 to = {};
  to.sin6_family = AF_INET6;
  if (inet_pton(AF_INET6, address, &to.sin6_addr) <= 0) {
    RK_LOG(error, "error ipv6(%s)", address);
    return -1;
  }
  return rk::net::sendPing6(context, reinterpret_cast<const struct sockaddr *>(&to));
}

int asyncPing(AsyncPingContext *context, const struct sockaddr *address) {
  if (context == nullptr || address == nullptr) return -1;
  switch (address->sa_family) {
    case AF_INET6:
      return rk::net::sendPing6(context, address);
    case AF_INET:
      return rk::net::sendPing4(context, address);
    default:
      RK_LOG(error, "error family:%d", address->sa_family);
      return -1;
  }
}

}  // extern "C"
