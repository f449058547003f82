// Commands through the real /bin/sh, firewall rules through recording scripts
// at /usr/sbin, CPU usage against a /proc/stat of the test's own.
#include <routerkit/log.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include "rk_test.h"

namespace rk::test {
namespace {

volatile sig_atomic_t g_alarms = 0;

TEST(Commands, StatusAndTheTextTheShellRuns) {
  RK_REQUIRE_NAMESPACE();
  ASSERT_EQ(mount("rk", "/usr/sbin", "tmpfs", 0, nullptr), 0);
  for (const char *tool : {"/usr/sbin/iptables", "/usr/sbin/ip6tables"})
    ASSERT_TRUE(WriteFile(tool, "#!/bin/sh\necho \"$0 $*\" >/tmp/ran\nexit 4\n", 0755));
  const std::string x(2100, 'x'), v4 = "/usr/sbin/iptables ", v6 = "/usr/sbin/ip6tables -w ";
  const struct { int (*run)(const char *, ...); const char *fmt; std::string arg, ran; int status; } rows[] = {
      {LC_SystemCall, "%s", v4 + x.substr(0, 2028), v4 + x.substr(0, 2028), 1024},  // 2047 characters
      {LC_SystemCall, "%s", v4 + x.substr(0, 2029), v4 + x.substr(0, 2028), 1024},
      {iptables, "%s", x.substr(0, 1001), v4 + "-w " + x.substr(0, 1001), 1024},
      {iptables, "%s", x.substr(0, 1002), v4 + "-w " + x.substr(0, 1001), 1024},
      {ip6tables, "%s", x.substr(0, 1000), v6 + x.substr(0, 1000), 1024},
      {ip6tables, "%s", x.substr(0, 1001), v6 + x.substr(0, 1000), 1024},
      {iptables, "-A %s --comment 5%%", "in%d", v4 + "-w -A in%d --comment 5%", 1024},
      {LC_SystemCall, "echo 1%% %s >/tmp/ran", "a%%b", "1% a%%b", 0},
      {LC_SystemCall, "echo %s >/tmp/ran; exit 3", "three", "three", 768},
      {LC_SystemCall, "echo %s >/tmp/ran; kill -9 $$", "nine", "nine", 9},
  };
  for (const auto &r : rows) {
    EXPECT_EQ(r.run(r.fmt, r.arg.c_str()), r.status) << r.fmt << r.arg.size();
    EXPECT_EQ(ReadFile("/tmp/ran"), r.ran + "\n") << r.fmt << r.arg.size();
  }
  const char *none = nullptr;
  EXPECT_EQ(LC_SystemCall(none) + iptables(none) + ip6tables(none), -3);
  ASSERT_EQ(mount("/dev/null", "/bin/sh", nullptr, MS_BIND, nullptr), 0);
  EXPECT_EQ(LC_SystemCall("true"), 127 << 8);  // the shell cannot run
}

TEST(Commands, InterruptedWaitGoesOn) {
  struct sigaction on_alarm {};
  on_alarm.sa_handler = [](int) { g_alarms = g_alarms + 1; };  // no SA_RESTART
  ASSERT_EQ(sigaction(SIGALRM, &on_alarm, nullptr), 0);
  const itimerval once{{0, 0}, {0, 100000}};
  ASSERT_EQ(setitimer(ITIMER_REAL, &once, nullptr), 0);
  EXPECT_EQ(LC_SystemCall("sleep 0.4; exit 5"), 5 << 8);
  EXPECT_EQ(g_alarms, 1);
}

TEST(Commands, CloseAllFdKeepsTheStandardThree) {
  EXPECT_EQ(RunInChild([] {
              dup2(open("/dev/null", O_RDONLY), 40);
              close_all_fd();
              return OpenFdCount();
            }),
            3);
}

TEST(Commands, SystemFailuresAreLogged) {
  RK_REQUIRE_NAMESPACE();
  RK_SKIP_UNDER_EMULATION("a seccomp filter does not see emulated system calls");
  SyslogCapture syslog;
  const pid_t child = StartChild([] {
    if (!FailSyscall(SYS_vfork, EAGAIN) || !FailSyscall(SYS_openat, EMFILE)) return 1;
    close_all_fd();
    return LC_SystemCall("true") == -1 ? 0 : 2;
  });
  ASSERT_EQ(WaitChild(child), 0);
  EXPECT_EQ(syslog.TakeNormalized(),
            (std::vector<std::string>{"E [close_all_fd:N]close_all_fd open dir:/proc/" +
                                          std::to_string(child) + "/fd/ fail",
                                      "E [LC_SystemCall:N]vfork() failed"}));
}

TEST(Cpu, PerMilleOfBusyTicksBetweenSamples) {
  RK_REQUIRE_NAMESPACE();
  ASSERT_TRUE(WriteFile("/tmp/stat", ""));
  ASSERT_EQ(mount("/tmp/stat", "/proc/stat", nullptr, MS_BIND, nullptr), 0);
  const struct { const char *stat; uint16_t value; } rows[] = {
      {"cpu  10 0 5 85 0 0 0 7\ncpu0 1 1 1 1 1 1 1\n", 150},  // since the counters began
      {"cpu  10 0 5 85 0 0 0 9\n", 0},                        // no tick; steal is not read
      {"cpu  20 0 5 85 0 0 0\n", 1000}, {"cpu  20 0 5 95 0 0 0\n", 0},
      {"cpu  120 50 55 845 0 25 25\n", 250}, {"cpu  121 50 55 847 0 25 25\n", 333},
      {"cpu  121 50 55 847 7 25 25\n", 1000},  // iowait is busy
  };
  CpuTimes times{};
  for (const auto &r : rows) {
    ASSERT_TRUE(WriteFile("/tmp/stat", r.stat));
    EXPECT_EQ(getCPUUsageValue(&times), r.value) << r.stat;
  }
  ASSERT_EQ(chmod("/tmp/stat", 0), 0);  // unreadable once root is given up
  EXPECT_EQ(RunInChild([&times] {
              const CpuTimes before = times;
              return setuid(65534) == 0 && getCPUUsageValue(&times) == 0 &&
                     memcmp(&before, &times, sizeof times) == 0;
            }),
            1);
  ASSERT_EQ(umount("/proc/stat"), 0);
  CpuTimes real{};
  getCPUUsageValue(&real);
  EXPECT_GT(real.user + real.system, 0u);
  usleep(20000);
  EXPECT_LE(getCPUUsageValue(&real), 1000);
}

}  // namespace
}  // namespace rk::test
