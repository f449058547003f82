// Driving the test's uloop: run until a condition holds, with a guard
// timeout so that a missing answer ends the run instead of hanging it.
#pragma once

#include <functional>

namespace rk {
namespace test {

// Runs the loop until `done` holds (checked before the first iteration and
// then every millisecond) or `timeoutMs` has passed. True when `done` held.
bool runLoopUntil(const std::function<bool()> &done, int timeoutMs = 5000);
// Runs the loop for `ms` milliseconds.
void runLoopFor(int ms);

}  // namespace test
}  // namespace rk
