// The socket side shared by the DNS client and the ping client.
#include "common/socket_client.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "diag/logmsg.h"

namespace rk {
namespace {

constexpr int32_t kSocketReceiveBuffer = 0x20000;

}  // namespace

int openClientSocket(const char *origin, int domain, int type, int protocol) noexcept {
  const int fd = socket(domain, type | SOCK_CLOEXEC, protocol);
  if (fd < 0) {
    const int error = errno;
    RK_LOG_AS(error, origin, "error create sock");
    errno = error;
    return -1;
  }
  const int32_t size = kSocketReceiveBuffer;
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size) != 0) {
    const int error = errno;
    RK_LOG_AS(error, origin, "setsockopt:SO_RCVBUF");
    close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

bool watchClientSocket(struct uloop_fd *u, int fd, uloop_fd_handler handler) noexcept {
  u->fd = fd;
  if (fd < 0) return false;
  u->cb = handler;
  uloop_fd_add(u, ULOOP_READ);
  return true;
}

void closeClientSocket(struct uloop_fd *u, CloseRule rule) noexcept {
  if (rule == CloseRule::kSkipClosed && u->fd < 0) return;
  uloop_fd_delete(u);
  if (u->fd >= 0) close(u->fd);
  u->fd = -1;
}

bool clientSocketReadable(struct uloop_fd *u, unsigned int events) noexcept {
  if (!u->error && !u->eof) return (events & ULOOP_READ) != 0;
  if (u->error) uloop_fd_delete(u);  // end of file leaves it registered
  close(u->fd);
  u->fd = -1;
  return false;
}

}  // namespace rk
