// Commands through the real /bin/sh, firewall rules through recording scripts
// at /usr/sbin, CPU usage against a /proc/stat of the test's own.
#include <routerkit/log.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/time.h>

#include "rk_test.h"

namespace rk::test {
namespace {

TEST(Commands, StatusAndTheTextTheShellRuns) {
  RK_REQUIRE_NAMESPACE();
  ASSERT_EQ(mount("rk", "/usr/sbin", "tmpfs", 0, nullptr), 0);
  for (const char *tool : {"/usr/sbin/iptables", "/usr/sbin/ip6tables"})
    ASSERT_TRUE(WriteFile(tool, "#!/bin/sh\necho \"$0 $*\" >/tmp/ran\nexit 4\n", 0755));
  const std::string x(2100, 'x'), v4 = "/usr/sbin/iptables ";
  // Room for text behind what the caller or the function puts first; one more is cut.
  const struct { int (*run)(const char *, ...); std::string lead, added; size_t room; } cuts[] = {
      {LC_SystemCall, v4, "", 2028}, {iptables, "", v4 + "-w ", 1001},
      {ip6tables, "", "/usr/sbin/ip6tables -w ", 1000}};
  for (const auto &c : cuts)
    for (size_t n : {c.room, c.room + 1}) {
      EXPECT_EQ(c.run("%s", (c.lead + x.substr(0, n)).c_str()), 4 << 8);
      EXPECT_EQ(ReadFile("/tmp/ran"), c.added + c.lead + x.substr(0, c.room) + "\n") << n;
    }
  EXPECT_EQ(iptables("-A %s --comment 5%%", "in%d"), 4 << 8);
  EXPECT_EQ(ReadFile("/tmp/ran"), v4 + "-w -A in%d --comment 5%\n");
  EXPECT_EQ(LC_SystemCall("echo 1%% %s >/tmp/ran; exit 3", "a%%b"), 3 << 8);
  EXPECT_EQ(ReadFile("/tmp/ran"), "1% a%%b\n");
  for (const auto &[command, status] : {std::pair{"exit 0", 0}, {"kill -9 $$", 9}})
    EXPECT_EQ(LC_SystemCall("%s", command), status) << command;
  for (auto run : {LC_SystemCall, iptables, ip6tables}) EXPECT_EQ(run(nullptr), -1);
  ASSERT_EQ(mount("/dev/null", "/bin/sh", nullptr, MS_BIND, nullptr), 0);
  EXPECT_EQ(LC_SystemCall("true"), 127 << 8);  // the shell cannot run
}

TEST(Commands, InterruptedWaitGoesOn) {
  struct sigaction on_alarm {};  // without SA_RESTART, so the wait fails with EINTR
  on_alarm.sa_handler = [](int) {};
  const itimerval once{{0, 0}, {0, 100000}};
  ASSERT_EQ(sigaction(SIGALRM, &on_alarm, nullptr) + setitimer(ITIMER_REAL, &once, nullptr), 0);
  EXPECT_EQ(LC_SystemCall("sleep 0.4; exit 5"), 5 << 8);
}

TEST(Commands, CloseAllFdKeepsTheStandardThree) {
  EXPECT_EQ(RunInChild([] {
              if (dup2(open("/dev/null", 0), 40) != 40) return -1;
              close_all_fd();
              return OpenFdCount();
            }), 3);
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
      {"cpu  121 50 55 847 7 25 25\n", 1000}};  // iowait is busy
  CpuTimes times{};
  for (const auto &r : rows) {
    ASSERT_TRUE(WriteFile("/tmp/stat", r.stat));
    EXPECT_EQ(getCPUUsageValue(&times), r.value) << r.stat;
  }
  ASSERT_EQ(chmod("/tmp/stat", 0), 0);  // unreadable once root is given up: 0, the record stays
  EXPECT_EQ(RunInChild([t = times]() mutable {
              return setuid(65534) == 0 && getCPUUsageValue(&t) == 0 && t.iowait == 7 && t.user == 121;
            }), 1);
}

}  // namespace
}  // namespace rk::test
