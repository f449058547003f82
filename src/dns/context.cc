#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <type_traits>

#include "common/socket.h"
#include "diag/logmsg.h"
#include "dns/cache.h"
#include "dns/internal.h"

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

namespace rk {
namespace dns {

namespace {

// One per process, shared by all contexts; stepped without a lock, like
// everything else of a context, on the event loop's thread.
uint32_t dnsIdCounter = 0;

// An unbound UDP socket with a large receive buffer, so that bursts of
// answers from many servers are not dropped before the loop gets to them.
int createDnsSock(int family) noexcept {
  return rk::open_buffered_socket(__func__, family, SOCK_DGRAM, IPPROTO_UDP);
}

// The work of both socket handlers: an error or eof closes the socket for
// good, a read event takes exactly one datagram and renews the registration.
void handleDnsSockEvent(AsyncDnsContext *context, struct uloop_fd *u, unsigned int events) noexcept {
  if (u->error) {
    uloop_fd_delete(u);
    close(u->fd);
    u->fd = -1;
    return;
  }
  if (u->eof) {
    close(u->fd);
    u->fd = -1;
    return;
  }
  if ((events & ULOOP_READ) == 0) return;
  checkDnsSocket(context, u->fd);
  uloop_fd_add(u, ULOOP_READ);
}

void dnsSockCallback(struct uloop_fd *u, unsigned int events) {
  if (u == nullptr) return;
  // dnsSock is the context's first member.
  handleDnsSockEvent(reinterpret_cast<AsyncDnsContext *>(u), u, events);
}

void dns6SockCallback(struct uloop_fd *u, unsigned int events) {
  if (u == nullptr) return;
  // dns6Sock lies directly behind dnsSock, so one uloop_fd back is the context.
  auto *context = reinterpret_cast<AsyncDnsContext *>(reinterpret_cast<char *>(u) - sizeof(struct uloop_fd));
  handleDnsSockEvent(context, u, events);
}

bool open_socket(struct uloop_fd *u, int family, uloop_fd_handler handler) noexcept {
  u->fd = createDnsSock(family);
  if (u->fd < 0) return false;
  u->cb = handler;
  uloop_fd_add(u, ULOOP_READ);
  return true;
}

void close_socket(struct uloop_fd *u) noexcept {
  if (u->fd < 0) return;  // never opened, or closed by an error or eof event
  uloop_fd_delete(u);
  close(u->fd);
  u->fd = -1;
}

int send_to(int fd, struct list_head *servers, const uint8_t *packet, int32_t length,
           size_t addressOffset, socklen_t addressLength) noexcept {
  // Both server records are the list links followed by the socket address.
  for (struct list_head *p = servers->next; p != servers; p = p->next) {
    const auto *address = reinterpret_cast<const struct sockaddr *>(reinterpret_cast<const char *>(p) + addressOffset);
    // A failed send is neither logged nor a reason to skip the others.
    (void)sendto(fd, packet, static_cast<size_t>(length), 0, address, addressLength);
  }
  return 0;
}

// The body of both server adders: `address` goes to the end of `servers`
// unless a server with the same address (the `in` member of the socket
// address) is there already. `caller` names the adder in its message.
template <typename Server, typename SockAddr, typename InAddr>
int add_server(struct list_head *servers, const SockAddr &address, InAddr SockAddr::*in, const char *caller,
               const char *text) noexcept {
  Server *server;
  list_for_each_entry(server, servers, list) {
    if (memcmp(&(server->addr.*in), &(address.*in), sizeof(InAddr)) == 0) return 0;
  }
  server = static_cast<Server *>(calloc(1, sizeof(Server)));
  if (server == nullptr) return -1;
  log_info("[%s:%d]add %s", caller, __LINE__, text);
  server->addr = address;
  list_add_tail(&server->list, servers);
  return 0;
}

template <typename Server>
void clean_servers(struct list_head *servers) noexcept {
  Server *server;
  Server *tmp;
  list_for_each_entry_safe(server, tmp, servers, list) {
    list_del(&server->list);
    free(server);
  }
  INIT_LIST_HEAD(servers);
}

}  // namespace

int sendDnsQuery(AsyncDnsContext *context, const uint8_t *packet, int32_t length) noexcept {
  if (context == nullptr || context->dnsSock.fd < 0) return -1;
  return send_to(context->dnsSock.fd, &context->servers, packet, length, offsetof(DnsServer, addr),
                sizeof(struct sockaddr_in));
}

int sendDnsQuery6(AsyncDnsContext *context, const uint8_t *packet, int32_t length) noexcept {
  if (context == nullptr || context->dns6Sock.fd < 0) return -1;
  return send_to(context->dns6Sock.fd, &context->servers6, packet, length, offsetof(DnsServer6, addr),
                sizeof(struct sockaddr_in6));
}

void send_to_all(AsyncDnsContext *context, const uint8_t *query, size_t length) noexcept {
  sendDnsQuery(context, query, static_cast<int32_t>(length));
  sendDnsQuery6(context, query, static_cast<int32_t>(length));
}

}  // namespace dns
}  // namespace rk

extern "C" {

AsyncDnsContext *asyncDns_create(AsyncDnsCallback callback) {
  using namespace rk::dns;
  auto *context = static_cast<AsyncDnsContext *>(calloc(1, sizeof(AsyncDnsContext)));
  if (context == nullptr) return nullptr;
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
  if (!open_socket(&context->dnsSock, AF_INET, dnsSockCallback)) {
    RK_LOG(error, "error dnsSock");
  } else if (!open_socket(&context->dns6Sock, AF_INET6, dns6SockCallback)) {
    RK_LOG(error, "error dns6Sock");
  } else if ((context->cache = DnsCacheCreate()) != nullptr) {
    return context;
  }
  asyncDns_destroy(context);
  return nullptr;
}

int asyncDns_destroy(AsyncDnsContext *context) {
  if (context == nullptr) return 0;  // a precondition; refusing costs one test
  rk::dns::close_socket(&context->dnsSock);
  rk::dns::close_socket(&context->dns6Sock);
  asyncDns_cleanServer(context);
  asyncDns_cleanServer6(context);
  if (context->cache != nullptr) DnsCacheDestroy(context->cache);
  free(context);
  return 0;
}

int asyncDns_AddServer(AsyncDnsContext *context, const char *szServer) {
  if (szServer == nullptr || context == nullptr) {
    RK_LOG(error, "szServer=%p or context=%p", static_cast<const void *>(szServer),
                 static_cast<void *>(context));
    return -1;
  }
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(rk::dns::kDnsPort);
  if (inet_pton(AF_INET, szServer, &address.sin_addr) <= 0) {
    RK_LOG(error, "szServer=%s", szServer);
    return -1;
  }
  return rk::dns::add_server<DnsServer>(&context->servers, address, &sockaddr_in::sin_addr, __func__, szServer);
}

int asyncDns_AddServer6(AsyncDnsContext *context, const char *szServer) {
  if (szServer == nullptr || context == nullptr) return -1;
  struct sockaddr_in6 address = {};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(rk::dns::kDnsPort);
  if (inet_pton(AF_INET6, szServer, &address.sin6_addr) <= 0) {
    RK_LOG(error, "%s is not ipv6", szServer);
    return -1;
  }
  return rk::dns::add_server<DnsServer6>(&context->servers6, address, &sockaddr_in6::sin6_addr, __func__, szServer);
}

void asyncDns_cleanServer(AsyncDnsContext *context) {
  if (context != nullptr) rk::dns::clean_servers<DnsServer>(&context->servers);
}

void asyncDns_cleanServer6(AsyncDnsContext *context) {
  if (context != nullptr) rk::dns::clean_servers<DnsServer6>(&context->servers6);
}

int asyncDns_cleanCache(AsyncDnsContext *context) {
  if (context == nullptr) return 0;
  DnsCache_Clean(context->cache);
  return 0;
}

int asyncDns_setMinDnsCache(AsyncDnsContext *context, uint32_t seconds) {
  if (context == nullptr) return 0;  // a precondition; refusing costs one test
  DnsCache_setMinCacheTime(context->cache, seconds);
  return 0;
}

}  // extern "C"
