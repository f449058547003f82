// The socket side shared by the DNS client and the ping client. Each client
// record begins with two uloop_fds, IPv4 then IPv6, each a close-on-exec
// socket with a receive buffer large enough for a burst of replies while the
// loop is busy elsewhere.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "common/deps.h"

namespace rk {

// What taking a socket back does; the two clients differ here.
enum class CloseRule {
  kSkipClosed,    // a socket with fd < 0 is left alone (DNS; also a socket never opened)
  kAlwaysDelete,  // always off the loop, closed when fd >= 0 (ping: eof leaves it registered)
};

// A socket of `type` (SOCK_DGRAM, SOCK_RAW) with a receive buffer of 0x20000
// bytes, or -1. Failures are logged as "[<origin>:<line>]error create sock"
// and "[<origin>:<line>]setsockopt:SO_RCVBUF"; errno stays as the failed
// call left it.
int openClientSocket(const char *origin, int domain, int type, int protocol) noexcept;

// Stores `fd` in `u` and, when it is a descriptor, registers it for reading
// with `handler`. False for a negative `fd`, with nothing registered.
bool watchClientSocket(struct uloop_fd *u, int fd, uloop_fd_handler handler) noexcept;

// Takes a socket back from the loop and closes it as `rule` says; the
// descriptor is -1 afterwards.
void closeClientSocket(struct uloop_fd *u, CloseRule rule) noexcept;

// Acts on a lost socket: an error takes it off the loop and closes it, end of
// file only closes it (it stays registered for the client's destroy); the
// descriptor is -1 then. True when the event asks for a read instead.
bool clientSocketReadable(struct uloop_fd *u, unsigned int events) noexcept;

// The client record whose socket number `slot` (0 for IPv4, 1 for IPv6) is `u`.
template <typename Client>
Client *clientOf(struct uloop_fd *u, size_t slot) noexcept {
  return reinterpret_cast<Client *>(reinterpret_cast<char *>(u) - slot * sizeof(struct uloop_fd));
}

// The work of a socket handler: a read event takes exactly one datagram with
// `readOne` (whose result is not looked at) and renews the registration;
// further datagrams raise further events.
template <typename Client>
void handleClientEvent(Client *client, struct uloop_fd *u, unsigned int events,
                       int (*readOne)(Client *, int) noexcept) noexcept {
  if (!clientSocketReadable(u, events)) return;
  readOne(client, u->fd);
  uloop_fd_add(u, ULOOP_READ);
}

}  // namespace rk
