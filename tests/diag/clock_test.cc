// The tick and the executable's own name. The cases that place a program at
// chosen paths (/usr/sbin/foo, /foo) or hide /proc run in the private
// namespaces only.
#include <routerkit/log.h>

#include <sys/mount.h>
#include <time.h>

#include <tuple>

#include "diag/clock.h"
#include "rk_test.h"

namespace rk::test {
namespace {

TEST(Tick, MillisecondsOfAClockReading) {
  // The last is above 32 bits and kept whole.
  const std::tuple<time_t, long, uint64_t> cases[] = {
      {2, 999999999, 2999}, {0, 1000000, 1}, {0, 999999, 0}, {4294967, 296000000, 4294967296ull}};
  for (const auto &[sec, nsec, ticks] : cases) {
    timespec ts{};
    ts.tv_sec = sec;
    ts.tv_nsec = nsec;
    EXPECT_EQ(rk::diag::ticksOf(ts), ticks) << sec << "s " << nsec << "ns";
  }
}

TEST(ExecutablePath, SplitsTheRunningProgramsPathIntoCallerSizedBuffers) {
  const std::string own = OwnPath();
  const size_t slash = own.rfind('/');
  const std::string base = own.substr(slash + 1);
  ASSERT_GE(base.size(), 4u);
  char dir[256] = {0}, name[96];
  // Short: zeros up to the size, nothing behind it.
  memset(name, '#', sizeof name);
  EXPECT_EQ(get_executable_path(dir, sizeof dir - 1, name, 80), static_cast<int64_t>(slash + 1));
  EXPECT_EQ(std::string(dir), own.substr(0, slash + 1));
  EXPECT_EQ(std::string(name, sizeof name), base + std::string(80 - base.size(), '\0') + std::string(16, '#'));
  // Cut: no terminator is written, the byte behind the size is the caller's.
  memset(name, '#', sizeof name);
  ASSERT_GT(get_executable_path(dir, sizeof dir - 1, name, 3), 0);
  EXPECT_EQ(std::string(name, 16), base.substr(0, 3) + std::string(13, '#'));
}

TEST(ExecutablePath, NoProcGivesMinusOne) {
  RK_SKIP_UNDER_EMULATION("the emulator answers /proc/self/exe itself");
  RK_REQUIRE_NAMESPACE();
  ASSERT_EQ(mount("rk-noproc", "/proc", "tmpfs", 0, nullptr), 0) << strerror(errno);
  char dir[256] = {0}, name[64] = "untouched";
  const int64_t result = get_executable_path(dir, sizeof dir - 1, name, sizeof name - 1);
  ASSERT_EQ(umount("/proc"), 0);
  EXPECT_EQ(result, -1);
  EXPECT_STREQ(name, "untouched");
}

}  // namespace
}  // namespace rk::test
