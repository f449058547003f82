// uloop on epoll.
//
// Events are fetched in batches but handed out one callback per iteration,
// with due timeouts fired in between, so a handler never runs long after the
// timer it raced with. Undelivered batch entries are dropped when their
// record is deleted. Error/hang-up handling and the eof flag are applied
// when an entry is delivered, right before its handler runs.
#include <libubox/uloop.h>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstring>

#include <cstddef>

// Code built against the real library steps between embedded records, so
// the layouts must match it byte for byte, on 32- and 64-bit targets.
static_assert(offsetof(uloop_fd, fd) == sizeof(void *) && offsetof(uloop_fd, eof) == sizeof(void *) + 4 &&
                  offsetof(uloop_fd, error) == sizeof(void *) + 5 &&
                  offsetof(uloop_fd, registered) == sizeof(void *) + 6 &&
                  offsetof(uloop_fd, flags) == sizeof(void *) + 7 && sizeof(uloop_fd) == sizeof(void *) + 8,
              "uloop_fd layout");
static_assert(offsetof(uloop_timeout, pending) == 2 * sizeof(void *) &&
                  offsetof(uloop_timeout, cb) == 3 * sizeof(void *) &&
                  offsetof(uloop_timeout, time) == 4 * sizeof(void *),
              "uloop_timeout layout");

namespace rk {
namespace {

constexpr int kBatch = 16;

struct Pending {
  uloop_fd *fd;
  uint32_t events;
};

struct SavedSignal {
  int signo;
  bool changed;
  struct sigaction old;
};

int g_epoll = -1;
int g_waker[2] = {-1, -1};
volatile sig_atomic_t g_status;  // signal that ended the loop, 0 if none
LIST_HEAD(g_timeouts);
Pending g_batch[kBatch];
int g_batch_len;
int g_batch_next;
SavedSignal g_signals[] = {
    {SIGINT, false, {}}, {SIGTERM, false, {}}, {SIGCHLD, false, {}}, {SIGPIPE, false, {}}};

int64_t now_us() noexcept {
  timespec ts{};  // a failed read gives time 0, not whatever was on the stack
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int64_t to_us(const timeval &tv) noexcept {
  return static_cast<int64_t>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

void wake() noexcept {
  if (g_waker[1] >= 0) {
    int saved = errno;
    char c = 'w';
    ssize_t n = write(g_waker[1], &c, 1);
    (void)n;  // a full pipe already guarantees a wake-up
    errno = saved;
  }
}

void drain_waker() noexcept {
  char sink[64];
  while (read(g_waker[0], sink, sizeof(sink)) > 0) {
  }
}

void on_terminate(int signo) {
  g_status = signo;
  uloop_cancelled = true;
  wake();
}

void on_child(int) {
  wake();
}

// Installs a handler only where the disposition is the default one, so a
// program's own choice is left alone; SIGPIPE becomes ignored.
void install_signals() noexcept {
  for (SavedSignal &s : g_signals) {
    s.changed = false;
    if (sigaction(s.signo, nullptr, &s.old) != 0 || s.old.sa_handler != SIG_DFL ||
        (s.old.sa_flags & SA_SIGINFO))
      continue;
    struct sigaction sa;
    std::memset(&sa, 0, sizeof(sa));
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    if (s.signo == SIGPIPE)
      sa.sa_handler = SIG_IGN;
    else if (s.signo == SIGCHLD)
      sa.sa_handler = on_child;
    else
      sa.sa_handler = on_terminate;
    s.changed = sigaction(s.signo, &sa, nullptr) == 0;
  }
}

void restore_signals() noexcept {
  for (SavedSignal &s : g_signals) {
    if (s.changed)
      sigaction(s.signo, &s.old, nullptr);
    s.changed = false;
  }
}

void drop_pending(const uloop_fd *u) noexcept {
  for (int i = g_batch_next; i < g_batch_len; i++) {
    if (g_batch[i].fd == u)
      g_batch[i].fd = nullptr;
  }
}

void clear_batch() noexcept {
  g_batch_len = 0;
  g_batch_next = 0;
}

void insert_timeout(uloop_timeout *t) noexcept {
  // After every timeout that expires at the same time or earlier.
  list_head *pos = g_timeouts.prev;
  while (pos != &g_timeouts) {
    uloop_timeout *other = container_of(pos, uloop_timeout, list);
    if (to_us(other->time) <= to_us(t->time))
      break;
    pos = pos->prev;
  }
  list_add(&t->list, pos);
  t->pending = true;
}

void fire_due_timeouts() noexcept {
  int64_t now = now_us();
  while (!list_empty(&g_timeouts)) {
    uloop_timeout *t = list_first_entry(&g_timeouts, uloop_timeout, list);
    if (to_us(t->time) > now)
      break;
    uloop_timeout_cancel(t);  // pending is false before the callback, so it may re-arm
    if (t->cb)
      t->cb(t);
  }
}

// Milliseconds until the next timeout (rounded up so the loop does not
// wake early and spin), -1 if there is none.
int next_timeout_ms() noexcept {
  if (list_empty(&g_timeouts))
    return -1;
  uloop_timeout *t = list_first_entry(&g_timeouts, uloop_timeout, list);
  int64_t diff = to_us(t->time) - now_us();
  if (diff <= 0)
    return 0;
  int64_t ms = (diff + 999) / 1000;
  return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

void fetch_events(int wait_ms) noexcept {
  clear_batch();
  if (g_epoll < 0) {
    // Without an epoll instance only timeouts can happen: sleep until the
    // next one rather than spinning on a failing epoll_wait.
    if (wait_ms > 0) {
      timespec ts{wait_ms / 1000, static_cast<long>(wait_ms % 1000) * 1000000};
      nanosleep(&ts, nullptr);
    }
    return;
  }
  epoll_event events[kBatch];
  int n = epoll_wait(g_epoll, events, kBatch, wait_ms);
  for (int i = 0; i < n; i++) {
    if (events[i].data.ptr == nullptr) {
      drain_waker();
      continue;
    }
    g_batch[g_batch_len++] = {static_cast<uloop_fd *>(events[i].data.ptr), events[i].events};
  }
}

// Delivers the next undropped entry, if any.
void dispatch_one() noexcept {
  while (g_batch_next < g_batch_len) {
    Pending p = g_batch[g_batch_next++];
    uloop_fd *u = p.fd;
    if (!u)
      continue;
    if (p.events & (EPOLLERR | EPOLLHUP)) {
      u->error = true;
      if (!(u->flags & ULOOP_ERROR_CB))
        uloop_fd_delete(u);
    }
    unsigned int events = 0;
    if (p.events & EPOLLRDHUP)
      u->eof = true;
    if (p.events & EPOLLIN)
      events |= ULOOP_READ;
    if (p.events & EPOLLOUT)
      events |= ULOOP_WRITE;
    if (u->cb)
      u->cb(u, events);
    return;
  }
}

int run(int timeout) noexcept {
  g_status = 0;
  uloop_cancelled = false;
  int64_t deadline = timeout >= 0 ? now_us() + static_cast<int64_t>(timeout) * 1000 : 0;
  for (;;) {
    fire_due_timeouts();
    if (uloop_cancelled)
      break;
    if (g_batch_next >= g_batch_len) {
      int wait = next_timeout_ms();
      if (timeout >= 0) {
        int64_t left = (deadline - now_us() + 999) / 1000;
        if (left < 0)
          left = 0;
        if (wait < 0 || wait > left)
          wait = static_cast<int>(left);
      } else if (wait < 0 && g_epoll < 0) {
        break;  // nothing could ever wake this loop
      }
      fetch_events(wait);
    }
    if (!uloop_cancelled)
      dispatch_one();
    if (timeout >= 0 || uloop_cancelled)
      break;
  }
  return g_status;
}

}  // namespace
}  // namespace rk

extern "C" {

bool uloop_cancelled = false;

int uloop_init(void) {
  using namespace rk;
  if (g_epoll >= 0)
    return 0;
  g_epoll = epoll_create1(EPOLL_CLOEXEC);
  if (g_epoll < 0)
    return -1;
  if (pipe2(g_waker, O_NONBLOCK | O_CLOEXEC) != 0) {
    close(g_epoll);
    g_epoll = -1;
    return -1;
  }
  epoll_event ev;
  std::memset(&ev, 0, sizeof(ev));
  ev.events = EPOLLIN;
  ev.data.ptr = nullptr;  // marks the wake-up pipe
  if (epoll_ctl(g_epoll, EPOLL_CTL_ADD, g_waker[0], &ev) != 0) {
    close(g_waker[0]);
    close(g_waker[1]);
    g_waker[0] = g_waker[1] = -1;
    close(g_epoll);
    g_epoll = -1;
    return -1;
  }
  clear_batch();
  install_signals();
  return 0;
}

int uloop_run_timeout(int timeout) {
  return rk::run(timeout);
}

void uloop_done(void) {
  using namespace rk;
  restore_signals();
  if (g_epoll >= 0)
    close(g_epoll);
  g_epoll = -1;
  for (int &fd : g_waker) {
    if (fd >= 0)
      close(fd);
    fd = -1;
  }
  clear_batch();
  while (!list_empty(&g_timeouts))
    uloop_timeout_cancel(list_first_entry(&g_timeouts, uloop_timeout, list));
}

int uloop_fd_add(struct uloop_fd *sock, unsigned int flags) {
  using namespace rk;
  if (!(flags & ULOOP_EVENT_MASK))
    return uloop_fd_delete(sock);
  if (!sock->registered && !(flags & ULOOP_BLOCKING) && sock->fd >= 0) {
    int fl = fcntl(sock->fd, F_GETFL);
    if (fl >= 0 && !(fl & O_NONBLOCK))
      fcntl(sock->fd, F_SETFL, fl | O_NONBLOCK);
  }
  if (g_epoll < 0 || sock->fd < 0)
    return -1;

  epoll_event ev;
  std::memset(&ev, 0, sizeof(ev));
  if (flags & ULOOP_READ)
    ev.events |= EPOLLIN | EPOLLRDHUP;
  if (flags & ULOOP_WRITE)
    ev.events |= EPOLLOUT;
  if (flags & ULOOP_EDGE_TRIGGER)
    ev.events |= EPOLLET;
  ev.data.ptr = sock;
  int op = sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  if (epoll_ctl(g_epoll, op, sock->fd, &ev) != 0)
    return -1;

  sock->flags = static_cast<uint8_t>(flags);
  sock->registered = true;
  sock->eof = false;
  sock->error = false;
  return 0;
}

int uloop_fd_delete(struct uloop_fd *sock) {
  using namespace rk;
  drop_pending(sock);
  if (!sock->registered)
    return 0;
  sock->registered = false;
  sock->flags = 0;
  if (g_epoll < 0 || sock->fd < 0)
    return -1;
  return epoll_ctl(g_epoll, EPOLL_CTL_DEL, sock->fd, nullptr) == 0 ? 0 : -1;
}

int uloop_timeout_add(struct uloop_timeout *timeout) {
  if (timeout->pending)
    return -1;
  rk::insert_timeout(timeout);
  return 0;
}

int uloop_timeout_set(struct uloop_timeout *timeout, int msecs) {
  if (timeout->pending)
    uloop_timeout_cancel(timeout);
  // A time in the past would stay due forever while its callback re-arms it.
  if (msecs < 0)
    msecs = 0;
  int64_t at = rk::now_us() + static_cast<int64_t>(msecs) * 1000;
  timeout->time.tv_sec = static_cast<time_t>(at / 1000000);
  timeout->time.tv_usec = static_cast<suseconds_t>(at % 1000000);
  return uloop_timeout_add(timeout);
}

int uloop_timeout_cancel(struct uloop_timeout *timeout) {
  if (!timeout->pending)
    return -1;
  list_del(&timeout->list);
  timeout->pending = false;
  return 0;
}

int64_t uloop_timeout_remaining64(struct uloop_timeout *timeout) {
  if (!timeout->pending)
    return -1;
  int64_t left = rk::to_us(timeout->time) - rk::now_us();
  return left <= 0 ? 0 : (left + 999) / 1000;
}

int uloop_timeout_remaining(struct uloop_timeout *timeout) {
  int64_t left = uloop_timeout_remaining64(timeout);
  return left > INT_MAX ? INT_MAX : static_cast<int>(left);
}

}  // extern "C"
