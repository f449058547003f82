// The event loop of one test: uloop_init when the fixture is made and
// uloop_done when it goes, after the derived fixture's members, so the
// objects under test have left the loop by then.
#pragma once

#include <functional>

#include <gtest/gtest.h>

extern "C" {
#include <libubox/uloop.h>
}

#include "loop.h"

namespace rk {
namespace test {

class UloopTest : public ::testing::Test {
 protected:
  UloopTest() { uloop_init(); }
  ~UloopTest() override { uloop_done(); }

  bool runUntil(const std::function<bool()> &done, int timeoutMs = 5000) { return runLoopUntil(done, timeoutMs); }
  void runFor(int ms) { runLoopFor(ms); }
};

}  // namespace test
}  // namespace rk
