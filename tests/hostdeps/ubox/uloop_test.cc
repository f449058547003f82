// uloop's delivery as the library's socket handlers rely on it: a read event
// per iteration while data waits, a hang-up reported with the error flag and
// the descriptor unregistered before the handler runs, a peer's shutdown
// reported as eof. Real pipes and socketpairs.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <tuple>

extern "C" {
#include <libubox/uloop.h>
}

namespace rk::test {
namespace {

struct Seen {
  int calls = 0;
  unsigned int events = 0;
  bool registered = false, error = false, eof = false;
};
Seen seen;

void Record(uloop_fd *u, unsigned int events) {
  seen = {seen.calls + 1, events, u->registered, u->error, u->eof};
  uloop_end();
}
auto Fields(const Seen &s) { return std::make_tuple(s.calls, s.events, s.registered, s.error, s.eof); }

TEST(Uloop, ReadableHangUpAndShutdownAsTheHandlerSeesThem) {
  const struct Row {
    const char *what;
    bool socketpair, data, close_peer;
    Seen want;
  } rows[] = {
      {"data waiting", false, true, false, {1, ULOOP_READ, true, false, false}},
      {"pure hang-up", false, false, true, {1, 0, false, true, false}},
      {"hang-up with data", false, true, true, {1, ULOOP_READ, false, true, false}},
      {"peer shut down its writing side", true, false, false, {1, ULOOP_READ, true, false, true}},
  };
  for (const Row &row : rows) {
    ASSERT_EQ(uloop_init(), 0);
    int p[2];
    ASSERT_EQ(row.socketpair ? socketpair(AF_UNIX, SOCK_STREAM, 0, p) : pipe(p), 0);
    ASSERT_EQ(row.data ? write(p[1], "x", 1) : 1, 1);
    if (row.close_peer) close(p[1]);
    if (row.socketpair) shutdown(p[1], SHUT_WR);
    uloop_fd u{};
    u.fd = p[0];
    u.cb = Record;
    seen = Seen();
    ASSERT_EQ(uloop_fd_add(&u, ULOOP_READ), 0);
    EXPECT_EQ(uloop_run_timeout(1000), 0);
    EXPECT_EQ(Fields(seen), Fields(row.want)) << row.what << " (calls, events, registered, error, eof)";
    uloop_fd_delete(&u);
    close(p[0]);
    if (!row.close_peer) close(p[1]);
    uloop_done();
  }
}

}  // namespace
}  // namespace rk::test
