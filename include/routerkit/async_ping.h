/*
 * routerkit: non-blocking ICMP and ICMPv6 echo on the caller's uloop.
 *
 * A context owns one raw socket per address family (ICMP and ICMPv6),
 * registered for reading on the caller's loop; creating one needs the right
 * to open raw sockets, and both families must be available. Each send puts
 * one echo request on the wire and returns at once: 36 bytes for IPv4, 16 for
 * IPv6, carrying the context's identifier, a sequence number shared by both
 * families and the tick of sending (GetTickCount, host byte order). The peer
 * echoes that tick back, so the context keeps no record of requests in
 * flight: there is no timer and no retry, and a request without a reply
 * gives no callback.
 *
 * Every echo reply that carries the context's identifier runs the callback
 * once, with the replier's address as text and the round-trip time in
 * milliseconds (the tick of receiving less the echoed tick, in 32 bits). A
 * late reply still counts. The address text is borrowed for the length of
 * the call.
 *
 * A context belongs to the thread of its loop; a callback must not destroy
 * its own context.
 *
 * Opt in, per context: asyncPing_createUnprivileged opens unprivileged ICMP
 * sockets instead of raw ones (no root needed where the process's group is in
 * net.ipv4.ping_group_range); asyncPing_setReplyCallback gives each reply
 * its request's sequence number and a round trip in microseconds; a pointer
 * of the caller's rides along with asyncPing_setUserData. A context that uses
 * none of them behaves, and puts bytes on the wire, as described above.
 */
#ifndef ROUTERKIT_ASYNC_PING_H
#define ROUTERKIT_ASYNC_PING_H

#ifndef RK_API
#define RK_API __attribute__((visibility("default")))
#endif

#include <signal.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/socket.h>
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

typedef struct AsyncPingContext AsyncPingContext;

/* Receives each matching echo reply: the context, the replier's address as
 * text, the round-trip time in milliseconds. The result is not used. */
typedef int (*AsyncPingCallback)(AsyncPingContext *context, const char *address, uint32_t delay);
/* Receives each echo reply instead of the AsyncPingCallback once set: the
 * replier's address as text, the sequence number of the request it answers
 * (as sent, host order) and the round trip in microseconds of the monotonic
 * clock. */
typedef void (*AsyncPingReplyCallback)(AsyncPingContext *context, const char *address, uint16_t sequence,
                                       uint32_t microseconds);

/*
 * The client record. pingSock is the first member and ping6Sock lies directly
 * behind it: the socket handlers find the context from the uloop_fd. A
 * descriptor of -1 marks a socket lost to an error or end-of-file event;
 * sends for that family then give -1, and it is not opened again.
 * Contexts come only from the two creators: the library keeps more state of
 * its own behind the record, in the same allocation.
 */
struct AsyncPingContext {
  struct uloop_fd pingSock;   /* ICMP, raw or unprivileged */
  struct uloop_fd ping6Sock;  /* ICMPv6, raw or unprivileged */
  uint16_t id;                /* echo identifier, network order; 0 when unprivileged */
  uint16_t seq;               /* next sequence number, host order, both families */
  AsyncPingCallback callback; /* may be NULL: replies are then read and dropped */
};

/* NULL when out of memory or when either raw socket can't be opened. */
RK_API AsyncPingContext *asyncPing_create(AsyncPingCallback callback);
/* The same context on unprivileged ICMP sockets (SOCK_DGRAM): the kernel
 * sets each socket's identifier and hands it only its own replies. NULL when
 * out of memory or when either socket can't be opened; errno then tells why:
 * EACCES when no group of the process is in net.ipv4.ping_group_range. */
RK_API AsyncPingContext *asyncPing_createUnprivileged(AsyncPingCallback callback);
/* Replies run `callback` instead of the millisecond one from now on, and
 * requests carry a microsecond send time (an IPv6 request grows to 24 bytes);
 * NULL goes back to the millisecond callback. 0, or -1 for a NULL context. */
RK_API int asyncPing_setReplyCallback(AsyncPingContext *context, AsyncPingReplyCallback callback);
/* A pointer of the caller's, kept with the context and never looked at. */
RK_API void asyncPing_setUserData(AsyncPingContext *context, void *userData);
/* What asyncPing_setUserData kept; NULL before, and for a NULL context. */
RK_API void *asyncPing_getUserData(const AsyncPingContext *context);
/* Removes the sockets from the loop, closes them and frees the context;
 * 0, or -1 for NULL. Not from inside the context's own callback. */
RK_API int asyncPing_destroy(AsyncPingContext *context);
/*
 * One echo request to the address in `address` (dotted IPv4 text, or IPv6
 * text). The result is that of sendto: 36 (IPv4) or 16 (IPv6) when sent, -1
 * for NULL arguments, a lost socket, text of another family or a failed send.
 */
RK_API int asyncPing4(AsyncPingContext *context, const char *address);
RK_API int asyncPing6(AsyncPingContext *context, const char *address);
/* The same for a socket address prepared by the caller: a struct sockaddr_in
 * (AF_INET) or struct sockaddr_in6 (AF_INET6), used as it is. */
RK_API int asyncPing(AsyncPingContext *context, const struct sockaddr *address);

#ifdef __cplusplus
}
#endif

#endif /* ROUTERKIT_ASYNC_PING_H */
