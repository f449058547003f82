// rkctl: the event loop and its timers.
#include "loop.h"

#include <utility>

namespace rkctl {
namespace {

constexpr int kTickMs = 200;

}  // namespace

Loop::Loop() : ok_(uloop_init() == 0) {}

Loop::~Loop() {
  if (ok_) uloop_done();
}

bool Loop::runFor(int ms, const std::function<void()> &every200ms) {
  bool expired = false;
  if (!stopped_ && !interrupted_) {
    Timer guard([&] {
      expired = true;
      uloop_end();
    });
    guard.set(ms);
    Timer tick([&] {
      if (every200ms) every200ms();
      tick.set(kTickMs);
    });
    tick.set(kTickMs);
    // SIGINT and SIGTERM end the wait, and every wait after it.
    if (uloop_run() != 0) interrupted_ = true;
  }
  stopped_ = false;
  return !expired;
}

void Loop::stop() {
  stopped_ = true;
  uloop_end();
}

Timer::Timer(std::function<void()> fn) : fn_(std::move(fn)) { timeout_.cb = fire; }

void Timer::set(int ms) { uloop_timeout_set(&timeout_, ms); }

void Timer::cancel() {
  if (timeout_.pending) uloop_timeout_cancel(&timeout_);
}

void Timer::fire(uloop_timeout *t) { reinterpret_cast<Timer *>(t)->fn_(); }

}  // namespace rkctl
