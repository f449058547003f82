// rkctl: the uloop event loop of one subcommand, and timers on it.
#pragma once

#include <functional>

#include <routerkit/async_dns.h>  /* brings libubox's uloop.h, with C linkage */

namespace rkctl {

// uloop for one subcommand: set up on construction, torn down on
// destruction (after the clients that use it, which the caller ends first).
class Loop {
 public:
  Loop();
  ~Loop();
  bool ok() const { return ok_; }
  // Runs until stop() or `ms` have passed, calling `every200ms` (if set)
  // on the way; false when the time ran out. A stop() before the run makes
  // it return at once. After SIGINT or SIGTERM every run returns at once.
  bool runFor(int ms, const std::function<void()> &every200ms = nullptr);
  void stop();

 private:
  bool ok_;
  bool stopped_ = false;
  bool interrupted_ = false;
};

// A uloop timer that calls a function.
class Timer {
 public:
  explicit Timer(std::function<void()> fn);
  ~Timer() { cancel(); }
  Timer(const Timer &) = delete;
  Timer &operator=(const Timer &) = delete;
  void set(int ms);
  void cancel();

 private:
  static void fire(uloop_timeout *t);
  uloop_timeout timeout_{};  // first member: fire() finds the Timer from it
  std::function<void()> fn_;
};

}  // namespace rkctl
