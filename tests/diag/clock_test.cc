// The tick and the executable's own name. The cases that place a program at
// chosen paths (/usr/sbin/foo, /foo) or hide /proc run in the private
// namespaces only.
#include <routerkit/log.h>

#include <sys/mount.h>
#include <time.h>

#include <cstdint>
#include <string>

#include "diag/clock.h"
#include "rk_test.h"

namespace rk::test {
namespace {

std::string OwnPath() {
  char buf[4096] = {0};
  return readlink("/proc/self/exe", buf, sizeof buf - 1) > 0 ? buf : "";
}

// Runs `program` (inside `root` when given) and returns its standard output.
std::string RunProgram(const std::string &program, const std::string &root = "") {
  int out[2];
  if (pipe(out) != 0) return "pipe failed";
  pid_t pid = StartChild([&] {
    dup2(out[1], STDOUT_FILENO);
    close(out[0]);
    close(out[1]);
    if (!root.empty() && (chroot(root.c_str()) != 0 || chdir("/") != 0)) return 126;
    execl(program.c_str(), program.c_str(), static_cast<char *>(nullptr));
    return 127;
  });
  close(out[1]);
  std::string text;
  char buf[512];
  for (ssize_t n; (n = read(out[0], buf, sizeof buf)) > 0;) text.append(buf, n);
  close(out[0]);
  int code = WaitChild(pid);
  return code == 0 ? text : "exit " + std::to_string(code) + ": " + text;
}

TEST(Tick, MillisecondsOfAClockReading) {
  struct Case {
    time_t sec;
    long nsec;
    uint64_t ticks;
  };
  const Case cases[] = {
      {2, 999999999, 2999},  {0, 1000000, 1},  {0, 999999, 0}, {0, 0, 0},
      {5000000, 0, 5000000000ull},  // above 32 bits, kept whole
      {4294967, 296000000, 4294967296ull},
  };
  for (const Case &c : cases) {
    timespec ts{};
    ts.tv_sec = c.sec;
    ts.tv_nsec = c.nsec;
    EXPECT_EQ(rk::ticks_of(ts), c.ticks) << c.sec << "s " << c.nsec << "ns";
  }
}

TEST(Tick, FollowsTheMonotonicClock) {
  auto now_ms = [] {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
  };
  const uint64_t before = now_ms();
  const uint64_t tick = GetTickCount();
  const uint64_t after = now_ms();
  EXPECT_LE(before, tick);
  EXPECT_LE(tick, after);
  EXPECT_LE(tick, GetTickCount());
}

TEST(ExecutablePath, SplitsTheRunningProgramsPath) {
  const std::string own = OwnPath();
  const size_t slash = own.rfind('/');
  char dir[256] = {0};
  char name[64] = {0};
  EXPECT_EQ(get_executable_path(dir, sizeof dir - 1, name, sizeof name - 1),
            static_cast<int64_t>(slash + 1));
  EXPECT_EQ(std::string(dir), own.substr(0, slash + 1));
  EXPECT_EQ(std::string(name), own.substr(slash + 1));
}

TEST(ExecutablePath, ACutLinkIsSplitOnTheCutText) {
  const std::string own = OwnPath();
  const size_t last_slash = own.rfind('/');
  // Cuts inside the first directory, right behind the last '/', and inside
  // the base name.
  for (size_t size : {size_t{1}, size_t{3}, last_slash + 1, last_slash + 3}) {
    SCOPED_TRACE(size);
    const std::string cut = own.substr(0, size);
    const size_t slash = cut.rfind('/');
    char dir[4096] = {0};
    char name[64] = {0};
    EXPECT_EQ(get_executable_path(dir, size, name, sizeof name - 1),
              static_cast<int64_t>(slash + 1));
    EXPECT_EQ(std::string(dir), cut.substr(0, slash + 1));
    EXPECT_EQ(std::string(name), cut.substr(slash + 1));
  }
}

TEST(ExecutablePath, NameBufferGetsExactlyItsSize) {
  const std::string own = OwnPath();
  const std::string base = own.substr(own.rfind('/') + 1);
  ASSERT_GE(base.size(), 4u);
  char dir[256] = {0};

  // Cut: no terminator is written, the byte behind the size is the caller's.
  char name[16];
  memset(name, '#', sizeof name);
  ASSERT_GT(get_executable_path(dir, sizeof dir - 1, name, 3), 0);
  EXPECT_EQ(std::string(name, sizeof name), base.substr(0, 3) + std::string(13, '#'));

  // Short: zeros up to the size, nothing behind it.
  char wide[96];
  memset(wide, '#', sizeof wide);
  memset(dir, 0, sizeof dir);
  ASSERT_GT(get_executable_path(dir, sizeof dir - 1, wide, 80), 0);
  EXPECT_EQ(std::string(wide, sizeof wide),
            base + std::string(80 - base.size(), '\0') + std::string(16, '#'));
}

TEST(ExecutablePath, NoProcGivesMinusOne) {
  RK_REQUIRE_NAMESPACE();
  ASSERT_EQ(mount("rk-noproc", "/proc", "tmpfs", 0, nullptr), 0) << strerror(errno);
  char dir[256] = {0};
  char name[64] = "untouched";
  const int64_t result = get_executable_path(dir, sizeof dir - 1, name, sizeof name - 1);
  ASSERT_EQ(umount("/proc"), 0);
  EXPECT_EQ(result, -1);
  EXPECT_STREQ(name, "untouched");
}

TEST(ExecutablePath, ProgramInUsrSbin) {
  RK_REQUIRE_NAMESPACE();
  ASSERT_EQ(mount("rk-sbin", "/usr/sbin", "tmpfs", 0, nullptr), 0) << strerror(errno);
  ASSERT_EQ(system("cp " RK_EXE_PROBE " /usr/sbin/foo"), 0);
  EXPECT_EQ(RunProgram("/usr/sbin/foo"), "10|/usr/sbin/|foo\n");
}

TEST(ExecutablePath, ProgramInTheRootDirectory) {
  RK_REQUIRE_NAMESPACE();
  // A small root of its own for the probe: the system's /usr (libraries),
  // /etc, a /proc, and the build tree at its own path.
  const std::string root = "/tmp/root";
  for (const std::string d : {"", "/usr", "/etc", "/proc"})
    ASSERT_EQ(mkdir((root + d).c_str(), 0755), 0) << d;
  ASSERT_EQ(symlink("usr/lib", (root + "/lib").c_str()), 0);
  ASSERT_EQ(symlink("usr/lib64", (root + "/lib64").c_str()), 0);
  ASSERT_EQ(system(("mkdir -p " + root + RK_BUILD_DIR).c_str()), 0);
  ASSERT_EQ(mount("/usr", (root + "/usr").c_str(), nullptr, MS_BIND | MS_REC, nullptr), 0);
  ASSERT_EQ(mount("/etc", (root + "/etc").c_str(), nullptr, MS_BIND | MS_REC, nullptr), 0);
  ASSERT_EQ(mount("proc", (root + "/proc").c_str(), "proc", 0, nullptr), 0);
  ASSERT_EQ(mount(RK_BUILD_DIR, (root + RK_BUILD_DIR).c_str(), nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(system(("cp " RK_EXE_PROBE " " + root + "/foo").c_str()), 0);

  EXPECT_EQ(RunProgram("/foo", root), "1|/|foo\n");
}

}  // namespace
}  // namespace rk::test
