// The resolver context: its two sockets on the caller's loop, its server
// lists, and the sending of one query to every server.
#include <routerkit/async_dns.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <type_traits>

#include "common/socket_client.h"
#include "diag/logmsg.h"
#include "dns/answer.h"
#include "dns/cache.h"
#include "dns/query.h"
#include "dns/tracker.h"

// Daemons read these records directly, and the socket handlers find the
// context from the uloop_fd they are given, so the layout is interface.
static_assert(sizeof(DnsAddressEntry) == 28, "DnsAddressEntry is 28 bytes");
static_assert(alignof(DnsAddressEntry) == 4, "DnsAddressEntry packs into DnsResult without gaps");
static_assert(offsetof(DnsAddressEntry, family) == 0, "family");
static_assert(offsetof(DnsAddressEntry, port) == 2, "port");
static_assert(offsetof(DnsAddressEntry, ipv4) == 4, "IPv4 address");
static_assert(offsetof(DnsAddressEntry, ipv6) == 8, "IPv6 address");
static_assert(offsetof(DnsAddressEntry, reserved) == 24, "rest");
// ...and it reads as a sockaddr_in for family 2 and as a sockaddr_in6 for family 10.
static_assert(offsetof(struct sockaddr_in, sin_family) == offsetof(DnsAddressEntry, family), "sin_family");
static_assert(offsetof(struct sockaddr_in, sin_port) == offsetof(DnsAddressEntry, port), "sin_port");
static_assert(offsetof(struct sockaddr_in, sin_addr) == offsetof(DnsAddressEntry, ipv4), "sin_addr");
static_assert(offsetof(struct sockaddr_in6, sin6_family) == offsetof(DnsAddressEntry, family), "sin6_family");
static_assert(offsetof(struct sockaddr_in6, sin6_port) == offsetof(DnsAddressEntry, port), "sin6_port");
static_assert(offsetof(struct sockaddr_in6, sin6_addr) == offsetof(DnsAddressEntry, ipv6), "sin6_addr");
static_assert(sizeof(struct sockaddr_in6) == sizeof(DnsAddressEntry), "sockaddr_in6 size");
static_assert(sizeof(DnsResult) == 4 && offsetof(DnsResult, slots) == 4, "count, then the slots");
static_assert(sizeof(DnsResult) + rk::dns::kLookupCacheSlots * sizeof(DnsAddressEntry) ==
                  rk::dns::kLookupBufferSize,
              "a cache read by asyncLookup fills its 2048-byte buffer exactly");
static_assert(offsetof(AsyncDnsContext, dnsSock) == 0, "the context is its IPv4 uloop_fd");
static_assert(offsetof(AsyncDnsContext, dns6Sock) == sizeof(struct uloop_fd),
              "dns6Sock lies directly behind dnsSock");
static_assert(std::is_standard_layout_v<DnsAddressEntry> && std::is_trivially_copyable_v<DnsAddressEntry>,
              "plain C record");
static_assert(std::is_standard_layout_v<DnsResult>, "plain C record");
static_assert(std::is_standard_layout_v<AsyncDnsContext>, "plain C record");
static_assert(std::is_standard_layout_v<DnsServer> && std::is_standard_layout_v<DnsServer6>,
              "plain C records");
static_assert(std::is_standard_layout_v<rk::dns::DnsCacheEntry>, "the node is the entry");
static_assert(offsetof(rk::dns::DnsCacheEntry, node) == 0, "the node is the entry");

namespace rk::dns {
namespace {

// One per process, shared by all contexts; stepped without a lock, like
// everything else of a context, on the event loop's thread.
uint32_t dnsIdCounter = 0;

// An unbound UDP socket with a large receive buffer, so that bursts of
// answers from many servers are not dropped before the loop gets to them.
int createDnsSock(int family) noexcept {
  return openClientSocket(__func__, family, SOCK_DGRAM, IPPROTO_UDP);
}

// The work of both socket handlers. A socket lost to end of file stays
// registered; destroy skips it like any closed one. An untracked context
// takes one datagram per read event and renews the registration; a tracked
// one drains the socket and leaves the (level-triggered) registration be.
void handleDnsSockEvent(AsyncDnsContext *context, struct uloop_fd *u, unsigned int events) noexcept {
  if (!isTracked(extensionOf(context))) {
    handleClientEvent(context, u, events, checkDnsSocket);
  } else if (clientSocketReadable(u, events)) {
    drainDnsSocket(context, u->fd);
  }
}

void dnsSockCallback(struct uloop_fd *u, unsigned int events) {
  if (u != nullptr) handleDnsSockEvent(clientOf<AsyncDnsContext>(u, 0), u, events);
}

void dns6SockCallback(struct uloop_fd *u, unsigned int events) {
  if (u != nullptr) handleDnsSockEvent(clientOf<AsyncDnsContext>(u, 1), u, events);
}

int sendTo(int fd, struct list_head *servers, const uint8_t *packet, int32_t length, size_t addressOffset,
           socklen_t addressLength) noexcept {
  // Both server records are the list links followed by the socket address.
  for (struct list_head *p = servers->next; p != servers; p = p->next) {
    const auto *address = reinterpret_cast<const struct sockaddr *>(reinterpret_cast<const char *>(p) + addressOffset);
    // A failed send is neither logged nor a reason to skip the others.
    (void)sendto(fd, packet, static_cast<size_t>(length), 0, address, addressLength);
  }
  return 0;
}

constexpr unsigned kBatchSize = 16;  // datagrams per sendmmsg

void sendBatch(int fd, struct mmsghdr *messages, unsigned n) noexcept {
  for (unsigned done = 0; done < n;) {
    const int sent = sendmmsg(fd, messages + done, n - done, 0);
    if (sent > 0) done += static_cast<unsigned>(sent);
    if (done < n) ++done;  // the one after those sent failed: on to the next
  }
}

template <typename Server>
void sendBatchTo(int fd, struct list_head *servers, const struct iovec *queries, int count,
                 socklen_t addressLength) noexcept {
  if (fd < 0) return;
  struct mmsghdr messages[kBatchSize];
  unsigned n = 0;
  for (int q = 0; q < count; ++q) {
    Server *server;
    list_for_each_entry(server, servers, list) {
      memset(&messages[n], 0, sizeof messages[n]);
      messages[n].msg_hdr.msg_name = &server->addr;
      messages[n].msg_hdr.msg_namelen = addressLength;
      messages[n].msg_hdr.msg_iov = const_cast<struct iovec *>(&queries[q]);
      messages[n].msg_hdr.msg_iovlen = 1;
      if (++n == kBatchSize) {
        sendBatch(fd, messages, n);
        n = 0;
      }
    }
  }
  if (n != 0) sendBatch(fd, messages, n);
}

// A server on the DNS port at the address `text` gives; false when the text
// is no address of the family.
bool serverAddress(const char *text, struct sockaddr_in *out) noexcept {
  out->sin_family = AF_INET;
  out->sin_port = htons(kDnsPort);
  return inet_pton(AF_INET, text, &out->sin_addr) > 0;
}

bool serverAddress(const char *text, struct sockaddr_in6 *out) noexcept {
  out->sin6_family = AF_INET6;
  out->sin6_port = htons(kDnsPort);
  return inet_pton(AF_INET6, text, &out->sin6_addr) > 0;
}

// How an adder reports a text that is no address: the text between `before`
// and `after`.
struct Refusal {
  const char *before;
  const char *after;
};

// The adders' work behind their null checks: the server at `text` goes to the
// end of `servers` unless one with the same address (the `in` member of the
// socket address) is there already. Messages name `origin`, the adder.
template <typename Server, typename SockAddr, typename InAddr>
int addServer(struct list_head *servers, InAddr SockAddr::*in, const char *text, const char *origin,
              Refusal refusal) noexcept {
  SockAddr address = {};
  if (!serverAddress(text, &address)) {
    RK_LOG_AS(error, origin, "%s%s%s", refusal.before, text, refusal.after);
    return -1;
  }
  Server *server;
  list_for_each_entry(server, servers, list) {
    if (memcmp(&(server->addr.*in), &(address.*in), sizeof(InAddr)) == 0) return 0;
  }
  server = static_cast<Server *>(calloc(1, sizeof(Server)));
  if (server == nullptr) return -1;
  RK_LOG_AS(info, origin, "add %s", text);
  server->addr = address;
  list_add_tail(&server->list, servers);
  return 0;
}

template <typename Server>
void cleanServers(struct list_head *servers) noexcept {
  Server *server;
  Server *tmp;
  list_for_each_entry_safe(server, tmp, servers, list) {
    list_del(&server->list);
    free(server);
  }
}

void destroyContext(AsyncDnsContext *context) noexcept {
  closeClientSocket(&context->dnsSock, CloseRule::kSkipClosed);
  closeClientSocket(&context->dns6Sock, CloseRule::kSkipClosed);
  cleanServers<DnsServer>(&context->servers);
  cleanServers<DnsServer6>(&context->servers6);
  if (context->cache != nullptr) destroyCache(context->cache);
  releaseExtension(extensionOf(context));
  free(reinterpret_cast<ContextBox *>(context));
}

// Messages name `origin`, the exported creator.
AsyncDnsContext *createContext(AsyncDnsCallback callback, const char *origin) noexcept {
  // The record lies at the start of a box that holds what a context keeps
  // beside it (tracker.h); the record's own layout stays as published.
  auto *box = static_cast<ContextBox *>(calloc(1, sizeof(ContextBox)));
  if (box == nullptr) return nullptr;
  AsyncDnsContext *context = &box->record;
  initExtension(&box->ext);
  // The first context of a process carries the process id as its identifier,
  // the next one that plus 1; the counter steps even if the sockets then fail.
  const uint32_t sum = static_cast<uint32_t>(getpid()) + dnsIdCounter;
  ++dnsIdCounter;
  context->id = htons(static_cast<uint16_t>(sum));
  context->callback = callback;
  INIT_LIST_HEAD(&context->servers);
  INIT_LIST_HEAD(&context->servers6);
  context->dnsSock.fd = -1;
  context->dns6Sock.fd = -1;

  // Both families are required: a system without IPv6 sockets gets no context.
  if (!watchClientSocket(&context->dnsSock, createDnsSock(AF_INET), dnsSockCallback)) {
    RK_LOG_AS(error, origin, "error dnsSock");
  } else if (!watchClientSocket(&context->dns6Sock, createDnsSock(AF_INET6), dns6SockCallback)) {
    RK_LOG_AS(error, origin, "error dns6Sock");
  } else if ((context->cache = createCache()) != nullptr) {
    return context;
  }
  destroyContext(context);
  return nullptr;
}

}  // namespace

int sendDnsQuery(AsyncDnsContext *context, const uint8_t *packet, int32_t length) noexcept {
  if (context == nullptr || context->dnsSock.fd < 0) return -1;
  return sendTo(context->dnsSock.fd, &context->servers, packet, length, offsetof(DnsServer, addr),
                sizeof(struct sockaddr_in));
}

int sendDnsQuery6(AsyncDnsContext *context, const uint8_t *packet, int32_t length) noexcept {
  if (context == nullptr || context->dns6Sock.fd < 0) return -1;
  return sendTo(context->dns6Sock.fd, &context->servers6, packet, length, offsetof(DnsServer6, addr),
                sizeof(struct sockaddr_in6));
}

void sendToAll(AsyncDnsContext *context, const uint8_t *query, size_t length) noexcept {
  sendDnsQuery(context, query, static_cast<int32_t>(length));
  sendDnsQuery6(context, query, static_cast<int32_t>(length));
}

void sendBatchToAll(AsyncDnsContext *context, const struct iovec *queries, int count) noexcept {
  sendBatchTo<DnsServer>(context->dnsSock.fd, &context->servers, queries, count, sizeof(struct sockaddr_in));
  sendBatchTo<DnsServer6>(context->dns6Sock.fd, &context->servers6, queries, count, sizeof(struct sockaddr_in6));
}

}  // namespace rk::dns

extern "C" {

AsyncDnsContext *asyncDns_create(AsyncDnsCallback callback) { return rk::dns::createContext(callback, __func__); }

int asyncDns_destroy(AsyncDnsContext *context) {
  if (context != nullptr) rk::dns::destroyContext(context);
  return 0;
}

int asyncDns_AddServer(AsyncDnsContext *context, const char *szServer) {
  if (szServer == nullptr || context == nullptr) {
    RK_LOG(error, "szServer=%p or context=%p", static_cast<const void *>(szServer), static_cast<void *>(context));
    return -1;
  }
  return rk::dns::addServer<DnsServer>(&context->servers, &sockaddr_in::sin_addr, szServer, __func__,
                                       {"szServer=", ""});
}

int asyncDns_AddServer6(AsyncDnsContext *context, const char *szServer) {
  if (szServer == nullptr || context == nullptr) return -1;
  return rk::dns::addServer<DnsServer6>(&context->servers6, &sockaddr_in6::sin6_addr, szServer, __func__,
                                        {"", " is not ipv6"});
}

void asyncDns_cleanServer(AsyncDnsContext *context) {
  if (context != nullptr) rk::dns::cleanServers<DnsServer>(&context->servers);
}

void asyncDns_cleanServer6(AsyncDnsContext *context) {
  if (context != nullptr) rk::dns::cleanServers<DnsServer6>(&context->servers6);
}

int asyncDns_cleanCache(AsyncDnsContext *context) {
  if (context != nullptr) DnsCache_Clean(context->cache);
  return 0;
}

int asyncDns_setMinDnsCache(AsyncDnsContext *context, uint32_t seconds) {
  if (context != nullptr) DnsCache_setMinCacheTime(context->cache, seconds);
  return 0;
}

}  // extern "C"
