#include "loop.h"

#include <stddef.h>

extern "C" {
#include <libubox/uloop.h>
}

namespace rk {
namespace test {
namespace {

struct Waiter {
  struct uloop_timeout check {};  // first member: the callback gets the Waiter back
  struct uloop_timeout guard {};
  const std::function<bool()> *done = nullptr;
  bool satisfied = false;
};

void onCheck(struct uloop_timeout *t) {
  auto *w = reinterpret_cast<Waiter *>(t);
  if (w->done && *w->done && (*w->done)()) {
    w->satisfied = true;
    uloop_end();
    return;
  }
  uloop_timeout_set(t, 1);
}

void onGuard(struct uloop_timeout *t) {
  (void)t;
  uloop_end();
}

}  // namespace

bool runLoopUntil(const std::function<bool()> &done, int timeoutMs) {
  if (done && done()) return true;
  Waiter w;
  w.done = &done;
  w.check.cb = onCheck;
  w.guard.cb = onGuard;
  uloop_timeout_set(&w.check, 1);
  uloop_timeout_set(&w.guard, timeoutMs);
  uloop_run();
  uloop_timeout_cancel(&w.check);
  uloop_timeout_cancel(&w.guard);
  return w.satisfied || (done && done());
}

void runLoopFor(int ms) { runLoopUntil(std::function<bool()>(), ms); }

}  // namespace test
}  // namespace rk
