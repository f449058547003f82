// The sockets of the DNS client and the ping client: close-on-exec, with a
// receive buffer large enough for a burst of replies while the loop is busy
// elsewhere.
#pragma once

#include <stdint.h>
#include <sys/socket.h>
#include <unistd.h>

#include <routerkit/log.h>

namespace rk {

constexpr int32_t kSocketReceiveBuffer = 0x20000;

// A socket of `type` (SOCK_DGRAM, SOCK_RAW) with that buffer, or -1. Failures
// are logged as "[<caller>:<line>]error create sock" and
// "[<caller>:<line>]setsockopt:SO_RCVBUF".
inline int open_buffered_socket(const char *caller, int domain, int type, int protocol) noexcept {
  const int fd = socket(domain, type | SOCK_CLOEXEC, protocol);
  if (fd < 0) {
    log_error("[%s:%d]error create sock", caller, __LINE__);
    return -1;
  }
  const int32_t size = kSocketReceiveBuffer;
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0) {
    log_error("[%s:%d]setsockopt:SO_RCVBUF", caller, __LINE__);
    close(fd);
    return -1;
  }
  return fd;
}

}  // namespace rk
