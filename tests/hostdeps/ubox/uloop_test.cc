// uloop as daemons rely on it: what a handler observes for readable, closed
// and failing descriptors, one callback per iteration, timers in expiry
// order, and the loop ending on uloop_end or SIGINT/SIGTERM. Real pipes and
// socketpairs throughout.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <functional>
#include <vector>

extern "C" {
#include <libubox/uloop.h>
}

namespace rk::test {
namespace {

static_assert(offsetof(uloop_fd, cb) == 0 && offsetof(uloop_fd, fd) == 8 &&
                  offsetof(uloop_fd, eof) == 12 && offsetof(uloop_fd, error) == 13 &&
                  offsetof(uloop_fd, registered) == 14 && offsetof(uloop_fd, flags) == 15,
              "uloop_fd field order");
static_assert(offsetof(uloop_timeout, list) == 0 && offsetof(uloop_timeout, pending) == 16 &&
                  offsetof(uloop_timeout, cb) == 24 && offsetof(uloop_timeout, time) == 32,
              "uloop_timeout field order");

// What a handler saw when it ran.
struct Seen {
  unsigned int events;
  bool registered;
  bool error;
  bool eof;
};

// A watched descriptor whose handler records each call and then runs `on`.
struct Watch {
  struct Slot {
    uloop_fd fd;
    Watch *owner;
  } slot{};
  std::vector<Seen> seen;
  std::function<void(Watch &)> on;

  explicit Watch(int fd) {
    slot.fd.fd = fd;
    slot.fd.cb = &Watch::handler;
    slot.owner = this;
  }
  uloop_fd *u() { return &slot.fd; }
  int add(unsigned int flags) { return uloop_fd_add(&slot.fd, flags); }

  static void handler(uloop_fd *u, unsigned int events) {
    Watch *w = container_of(u, Slot, fd)->owner;
    w->seen.push_back({events, u->registered, u->error, u->eof});
    if (w->on)
      w->on(*w);
  }
};

// A timer that runs `on` when it fires.
struct Timer {
  struct Slot {
    uloop_timeout t;
    Timer *owner;
  } slot{};
  std::function<void(Timer &)> on;
  int fired = 0;

  explicit Timer(std::function<void(Timer &)> fn = nullptr) : on(std::move(fn)) {
    slot.t.cb = &Timer::handler;
    slot.owner = this;
  }
  ~Timer() { uloop_timeout_cancel(&slot.t); }
  uloop_timeout *t() { return &slot.t; }
  void set(int ms) { ASSERT_EQ(uloop_timeout_set(&slot.t, ms), 0); }

  static void handler(uloop_timeout *t) {
    Timer *self = container_of(t, Slot, t)->owner;
    self->fired++;
    if (self->on)
      self->on(*self);
  }
};

void end_loop(Timer &) {
  uloop_end();
}

class Uloop : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(uloop_init(), 0);
    guard_.on = [](Timer &) {
      ADD_FAILURE() << "guard timeout: the loop did not end by itself";
      uloop_end();
    };
    guard_.set(5000);
  }
  void TearDown() override {
    uloop_timeout_cancel(guard_.t());
    uloop_done();
    for (int fd : fds_)
      close(fd);
  }
  // A pipe whose ends are closed after the test (unless taken with forget()).
  void make_pipe(int p[2]) {
    ASSERT_EQ(pipe(p), 0);
    fds_.push_back(p[0]);
    fds_.push_back(p[1]);
  }
  void make_socketpair(int type, int p[2]) {
    ASSERT_EQ(socketpair(AF_UNIX, type, 0, p), 0);
    fds_.push_back(p[0]);
    fds_.push_back(p[1]);
  }
  void forget(int fd) {
    for (int &f : fds_) {
      if (f == fd)
        f = -1;
    }
  }
  void close_now(int fd) {
    forget(fd);
    close(fd);
  }

  Timer guard_;
  std::vector<int> fds_;
};

TEST_F(Uloop, ReaddFromTheHandlerGivesOneCallbackPerDatagram) {
  int sp[2];
  make_socketpair(SOCK_DGRAM, sp);
  for (char c : {'a', 'b', 'c'})
    ASSERT_EQ(send(sp[1], &c, 1, 0), 1);
  Timer settle(end_loop);
  std::vector<char> got;
  Watch w(sp[0]);
  w.on = [&](Watch &self) {
    char c;
    if (recv(self.u()->fd, &c, 1, 0) == 1)
      got.push_back(c);
    EXPECT_EQ(self.add(ULOOP_READ), 0);
    if (got.size() == 3)
      settle.set(30);  // give a fourth, wrong callback the chance to show up
  };
  ASSERT_EQ(w.add(ULOOP_READ), 0);
  EXPECT_EQ(uloop_run(), 0);
  EXPECT_EQ(w.seen.size(), 3u);
  EXPECT_EQ(got, (std::vector<char>{'a', 'b', 'c'}));
  uloop_fd_delete(w.u());
}

TEST_F(Uloop, HangUpUnregistersBeforeTheHandler) {
  struct Case {
    const char *what;
    bool data_pending;
    unsigned int expected_events;
  };
  const Case cases[] = {{"pure hang-up", false, 0}, {"hang-up with data", true, ULOOP_READ}};
  for (const Case &c : cases) {
    int p[2];
    make_pipe(p);
    if (c.data_pending) {
      ASSERT_EQ(write(p[1], "x", 1), 1);
    }
    close_now(p[1]);
    Watch w(p[0]);
    w.on = [](Watch &self) {
      EXPECT_EQ(uloop_fd_delete(self.u()), 0);
      uloop_end();
    };
    ASSERT_EQ(w.add(ULOOP_READ), 0);
    EXPECT_EQ(uloop_run(), 0);
    ASSERT_EQ(w.seen.size(), 1u) << c.what;
    EXPECT_EQ(w.seen[0].events, c.expected_events) << c.what;
    EXPECT_FALSE(w.seen[0].registered) << c.what;
    EXPECT_TRUE(w.seen[0].error) << c.what;
    EXPECT_FALSE(w.u()->registered);
    EXPECT_EQ(w.u()->flags, 0);
  }
}

TEST_F(Uloop, PeerShutdownSetsEofAndAddResetsIt) {
  int sp[2];
  make_socketpair(SOCK_STREAM, sp);
  ASSERT_EQ(shutdown(sp[1], SHUT_WR), 0);
  Watch w(sp[0]);
  w.on = [](Watch &self) {
    if (self.seen.size() == 2)
      uloop_end();
  };
  ASSERT_EQ(w.add(ULOOP_READ), 0);
  EXPECT_EQ(uloop_run(), 0);
  ASSERT_EQ(w.seen.size(), 2u);  // level mode: it keeps firing
  for (const Seen &s : w.seen) {
    EXPECT_TRUE(s.eof);
    EXPECT_FALSE(s.error);
    EXPECT_TRUE(s.registered);
    EXPECT_EQ(s.events, static_cast<unsigned>(ULOOP_READ));
  }
  EXPECT_TRUE(w.u()->eof);
  ASSERT_EQ(w.add(ULOOP_READ), 0);
  EXPECT_FALSE(w.u()->eof);
  EXPECT_FALSE(w.u()->error);
  EXPECT_EQ(uloop_fd_delete(w.u()), 0);
}

TEST_F(Uloop, TimeoutsFireInExpiryOrder) {
  std::vector<int> order;
  Timer t30([&](Timer &) {
    order.push_back(30);
    uloop_end();
  });
  Timer t10([&](Timer &) { order.push_back(10); });
  Timer t20([&](Timer &) { order.push_back(20); });
  Timer t0([&](Timer &) { order.push_back(0); });
  t30.set(30);
  t10.set(10);
  t20.set(20);
  t0.set(0);
  EXPECT_EQ(uloop_run(), 0);
  EXPECT_EQ(order, (std::vector<int>{0, 10, 20, 30}));
}

// Runs without the fixture: these are about uloop_init/uloop_done themselves.

}  // namespace
}  // namespace rk::test
