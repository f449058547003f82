/*
 * routerkit: non-blocking DNS client on the caller's uloop, with its own
 * cache of addresses per name.
 *
 * A context owns one UDP socket per address family, registered for reading
 * on the caller's loop. asyncLookup() answers from the cache at once (the
 * callback runs inside the call) or sends one A and one AAAA query to every
 * server of both families and returns. Each answering datagram that carries
 * addresses runs the callback once, with the name taken from the answer.
 * Such a context has no timer, no retry and no table of queries in flight.
 *
 * A daemon may opt into more, per context: checks on what it accepts
 * (asyncDns_setChecks), sending again after a deadline (asyncDns_setRetry),
 * a report of lookups that end without an address
 * (asyncDns_setFailureCallback). Any of these makes the context keep a
 * bounded table of the queries it has in flight and arm one uloop_timeout
 * of its own; a context on which none was called behaves as described
 * above, to the byte.
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

/*
 * Checks, combinable; none by default (asyncDns_setChecks).
 *   ASYNC_DNS_CHECK_SENDER: a datagram is taken only from port 53 of an
 *     address in the server lists: an IPv4 sender from `servers`, an IPv6
 *     one (v4-mapped included, as the IPv6 socket reports it) from `servers6`.
 *   ASYNC_DNS_CHECK_QUESTION: the datagram must be a response (QR set) whose
 *     one question (the name without regard to case, the type, class IN) is
 *     that of a query still in flight. An answer closes its query: a second
 *     answer to it, from another server or replayed, is refused.
 *   ASYNC_DNS_RANDOM_ID: every query gets an identifier of its own from the
 *     kernel's random source (never one in flight, never the context's `id`),
 *     and an answer must carry the identifier of a query in flight. Without
 *     this bit queries carry `id` as before.
 */
#define ASYNC_DNS_CHECK_SENDER 0x1u
#define ASYNC_DNS_CHECK_QUESTION 0x2u
#define ASYNC_DNS_RANDOM_ID 0x4u

/* Why a lookup ended without an address (AsyncDnsFailureCallback). */
#define ASYNC_DNS_NXDOMAIN 1 /* the name does not exist (RCODE 3) */
#define ASYNC_DNS_NODATA 2   /* it exists, with no address (RCODE 0, no A/AAAA/PTR answer) */
#define ASYNC_DNS_SERVFAIL 3 /* the server failed (RCODE 2; also 1, 4 and codes above 5) */
#define ASYNC_DNS_REFUSED 4  /* the server refused (RCODE 5) */
#define ASYNC_DNS_TIMEOUT 5  /* no query of the lookup was answered in time */

/* A lookup (one asyncLookup or asyncLookupPtr call) ended without any
 * address: `name` as asked ("d.c.b.a.in-addr.arpa" for a PTR lookup),
 * borrowed for the call; `reason` one of ASYNC_DNS_NXDOMAIN..TIMEOUT. */
typedef void (*AsyncDnsFailureCallback)(AsyncDnsContext *context, const char *name, int reason);

/*
 * Queries in flight. A context with checks, a retry or a failure callback
 * (a "tracked" context) keeps a table of at most 64 lookups in flight (each
 * with its A and AAAA query, or its PTR query). When it is full, asyncLookup
 * and asyncLookupPtr log "[<function>:N]error in flight(64)" and return -1,
 * sending nothing; so does a tracked lookup of a name longer than 253
 * characters ("[asyncLookup:N]error name(LENGTH)"), which no answer could
 * carry. A cache hit needs no room.
 *
 * A query waits 5000 ms for its answer, or as asyncDns_setRetry says; then
 * it is over, and a lookup none of whose queries brought an address is
 * reported as ASYNC_DNS_TIMEOUT, unless an answer gave another reason first.
 * A lookup ends when each of its queries is answered or over; the failure
 * callback then runs once if no address came. An error response (RCODE
 * SERVFAIL, REFUSED, ...) is counted per server asked: its query stays open
 * until every server has answered so or the time is up; NXDOMAIN and any
 * NOERROR response close it at once. The answers of an error response are
 * not delivered.
 *
 * A tracked context drains its socket: one read event takes what has
 * arrived, up to 16 datagrams in one recvmmsg, not one datagram. It takes
 * datagrams of up to 4096 bytes (a server answering a query without EDNS
 * sends at most 512). Refused datagrams are logged at info level as the
 * others are: "[checkDnsSocket:N]error sender from ADDR",
 * "...error id(ID) from ADDR" (no query in flight has it),
 * "...error question(NAME,TYPE) from ADDR" (none in flight asks it), and the
 * size, identifier and question count messages above.
 *
 * Both callbacks may start lookups. Neither may destroy the context. A
 * context that stops being tracked forgets what it had in flight, without
 * reports.
 */

/* 0, or -1 for a NULL context, a bit not defined above, or no memory for
 * the table ("[asyncDns_setChecks:N]calloc error"). 0 clears every check. */
RK_API int asyncDns_setChecks(AsyncDnsContext *context, unsigned checks);
/* A query still unanswered `timeoutMs` after a sending is sent again to
 * every server, with the same identifier, up to `attempts` sendings in all
 * (0 counts as 1); after the last it is over. A timeoutMs of 0 (the
 * default) means no retry. 0, or -1 for a NULL context or no memory. */
RK_API int asyncDns_setRetry(AsyncDnsContext *context, uint32_t timeoutMs, uint32_t attempts);
/* NULL removes it. 0, or -1 for a NULL context or no memory. Also makes
 * answers' response codes read. */
RK_API int asyncDns_setFailureCallback(AsyncDnsContext *context, AsyncDnsFailureCallback callback);
/* A pointer of the daemon's, kept beside the context for its callbacks;
 * NULL until set, and NULL from a NULL context. */
RK_API void asyncDns_setUserData(AsyncDnsContext *context, void *userData);
RK_API void *asyncDns_getUserData(const AsyncDnsContext *context);

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
/* At most `maxNames` names: putting a new name into a full cache first
 * forgets the name read or written least recently (reads and writes count
 * from when a limit is set; before, the order of adding). 0 (the default):
 * no limit. A lower limit takes effect at the next put of a new name. */
RK_API void DnsCache_setMaxNames(DnsCache *cache, uint32_t maxNames);
/* A TTL above `seconds` is cut to it, for later puts, before the minimum of
 * DnsCache_setMinCacheTime is applied. 0 (the default): no cap. */
RK_API void DnsCache_setMaxCacheTime(DnsCache *cache, uint32_t seconds);

#ifdef __cplusplus
}
#endif

#endif /* ROUTERKIT_ASYNC_DNS_H */
