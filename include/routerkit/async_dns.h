/*
 * routerkit: non-blocking DNS client on the caller's uloop, with its own
 * cache of addresses per name.
 *
 * A context owns one UDP socket per address family, registered for reading
 * on the caller's loop. asyncLookup() answers from the cache at once (the
 * callback runs inside the call) or sends one A and one AAAA query to every
 * server of both families and returns. Each answering datagram that carries
 * addresses runs the callback once, with the name taken from the answer.
 * There is no timer, no retry and no table of queries in flight.
 *
 * The DnsResult and name handed to a callback are borrowed for the length of
 * the call.
 */
#ifndef ROUTERKIT_ASYNC_DNS_H
#define ROUTERKIT_ASYNC_DNS_H

#ifndef RK_API
#define RK_API __attribute__((visibility("default")))
#endif

#include <signal.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>
#include <netinet/in.h>
/* libubox's headers carry no C++ guards of their own; the system headers they
 * use are included above so that none of them is first seen inside the block. */
#ifdef __cplusplus
extern "C" {
#endif
#include <libubox/list.h>
#include <libubox/uloop.h>
#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
extern "C" {
#endif

/*
 * One address, 28 bytes in the layout of a socket address: for AF_INET it
 * reads as a struct sockaddr_in, for AF_INET6 as a struct sockaddr_in6.
 * Unused bytes are zero (the cache compares all 28).
 */
typedef struct DnsAddressEntry {
  uint16_t family;       /* AF_INET (2) or AF_INET6 (10), host order */
  uint16_t port;         /* 0 */
  struct in_addr ipv4;   /* network order, AF_INET only */
  struct in6_addr ipv6;  /* network order, AF_INET6 only */
  uint32_t reserved;     /* 0 */
} DnsAddressEntry;

/* A count, then `count` slots with no gap between them. */
typedef struct DnsResult {
  int32_t count;
  DnsAddressEntry slots[];
} DnsResult;

/* Addresses per name, each with its own expiry; expired ones go lazily. */
typedef struct DnsCache DnsCache;

typedef struct AsyncDnsContext AsyncDnsContext;

/* Receives answers: the context, the name from the answer, the addresses. */
typedef int (*AsyncDnsCallback)(AsyncDnsContext *context, const char *name, DnsResult *result);

typedef struct DnsServer {
  struct list_head list;
  struct sockaddr_in addr;
} DnsServer;

typedef struct DnsServer6 {
  struct list_head list;
  struct sockaddr_in6 addr;
} DnsServer6;

/*
 * The client record. dnsSock is the first member and dns6Sock lies directly
 * behind it: the socket handlers find the context from the uloop_fd.
 * A descriptor of -1 marks a socket that is closed or was never opened.
 */
struct AsyncDnsContext {
  struct uloop_fd dnsSock;
  struct uloop_fd dns6Sock;
  uint16_t id;                /* transaction id, network order */
  DnsCache *cache;
  AsyncDnsCallback callback;  /* may be NULL: answers then only fill the cache */
  struct list_head servers;   /* DnsServer, in the order of adding */
  struct list_head servers6;  /* DnsServer6, in the order of adding */
};

/* NULL on any failure, also when either socket can't be opened. */
RK_API AsyncDnsContext *asyncDns_create(AsyncDnsCallback callback);
/* Removes the sockets from the loop and frees everything; always 0.
 * Not from inside a callback that runs in a read event. */
RK_API int asyncDns_destroy(AsyncDnsContext *context);
/* 0 when the server is in the list afterwards (also when it already was), else -1. */
RK_API int asyncDns_AddServer(AsyncDnsContext *context, const char *szServer);
RK_API int asyncDns_AddServer6(AsyncDnsContext *context, const char *szServer);
RK_API void asyncDns_cleanServer(AsyncDnsContext *context);
RK_API void asyncDns_cleanServer6(AsyncDnsContext *context);
/* Always 0. */
RK_API int asyncDns_cleanCache(AsyncDnsContext *context);
/* A TTL below `seconds` gets `seconds` added; always 0. */
RK_API int asyncDns_setMinDnsCache(AsyncDnsContext *context, uint32_t seconds);

/* A and AAAA for `name`. 0 when queries went out or the cache answered;
 * -1 for NULL arguments or a name longer than 2030 bytes. */
RK_API int asyncLookup(AsyncDnsContext *context, const char *name);
/* PTR for the IPv4 address of `address` (a DnsAddressEntry or a struct
 * sockaddr_in). 0, or -1 for NULL arguments. */
RK_API int asyncLookupPtr(AsyncDnsContext *context, const void *address);

/* NULL when out of memory. */
RK_API DnsCache *DnsCacheCreate(void);
RK_API void DnsCacheDestroy(DnsCache *cache);
/* Fills up to maxCount slots, newest address first. 0 when the name has live
 * addresses; -1 when it has none (result untouched) or a pointer is NULL.
 * `result` needs 4 + 28 * maxCount bytes. */
RK_API int DnsCache_Get(DnsCache *cache, const char *name, DnsResult *result, int maxCount);
/* Copies name and address; a ttl of 0 does nothing. */
RK_API void DnsCache_Put(DnsCache *cache, const char *name, const DnsAddressEntry *address, uint32_t ttl);
RK_API void DnsCache_Clean(DnsCache *cache);
RK_API void DnsCache_setMinCacheTime(DnsCache *cache, uint32_t seconds);

#ifdef __cplusplus
}
#endif

#endif /* ROUTERKIT_ASYNC_DNS_H */
