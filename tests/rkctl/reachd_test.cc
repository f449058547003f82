// The example daemon end to end: targets from a UCI package, a name through
// dnsmasq, pings to a live and an unresolvable target, the delay record, the
// log lines and the Lua hook with the round's results.
#include <sys/stat.h>

#include <regex>

#include "rkctl_run.h"

namespace rk::test {
namespace {

TEST(Reachd, OneRound) {
  RK_REQUIRE_NAMESPACE();
  Dnsmasq server({"--host-record=self.test.lan,127.0.0.1", "--local=/test.lan/"});
  for (int i = 0; i < 50 && Start({"resolve", "self.test.lan", "--server", "127.0.0.1", "--timeout", "200"}).rc; i++)
    continue;
  mkdir("/etc/config", 0755);
  ASSERT_TRUE(WriteFile("/etc/config/reachd",
                        "config reachd 'main'\n\toption count '2'\n\toption interval '100'\n\toption timeout '500'\n"
                        "\toption period '0'\n\toption hook '/tmp/hook.lua'\n\toption dns '127.0.0.1'\n"
                        "config target\n\toption host 'self.test.lan'\n\toption label 'self'\n"
                        "config target\n\toption host '::1'\n"
                        "config target\n\toption host 'gone.test.lan'\n\toption label 'gone'\n"));
  ASSERT_TRUE(WriteFile("/tmp/hook.lua", R"(
function on_round(round)
  local f = io.open("/tmp/round", "w")
  for _, t in ipairs(round.targets) do
    f:write(t.label, " ", tostring(t.address), " ", t.received, "/", t.sent, " ",
            t.avg_ms and string.format("%.3f", t.avg_ms) or "nil", "\n")
  end
  f:close()
  reachd:log{message = "mean " .. tostring(reachd:delay().mean)}
end
)"));
  SyslogCapture log;
  ASSERT_TRUE(log.ok());
  ASSERT_EQ(system("sysctl -qw net.ipv4.ping_group_range='0 0'"), 0);  // unprivileged ICMP sockets, quietly
  Result r = RunProgram(REACHD, {"-1"});
  EXPECT_EQ(r.rc, 1) << r.err;  // one target did not answer
  // Loopback round trips are some microseconds, more under emulation: each
  // target's mean is read from the hook's view and must be the same figure
  // in the log, and its whole ms in the delay record.
  const std::string round = ReadFile("/tmp/round");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(round, m, std::regex("self 127\\.0\\.0\\.1 2/2 (([0-9]+)\\.[0-9]{3})\n"
                                                    "::1 ::1 2/2 (([0-9]+)\\.[0-9]{3})\ngone nil 0/0 nil\n")))
      << round;
  const std::string self = m[1], loop6 = m[3];
  EXPECT_LT(std::stoi(self) + std::stoi(loop6), 1000);  // both answered within the 500 ms timeout
  EXPECT_EQ(ReadFile("/var/run/internet.state"), "::1 " + m[4].str() + "\nself " + m[2].str() + "\n");
  std::vector<std::string> lines;
  for (const LogLine &l : log.Take())
    if (l.ident == "reachd") lines.push_back(std::to_string(l.severity) + " " + l.text);
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_TRUE(std::regex_match(lines[5], std::regex("6 hook: mean [0-9]+"))) << lines[5];
  lines.pop_back();
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "6 [asyncDns_AddServer:" + lines.at(0).substr(lines.at(0).find(':') + 1),
                       "6 watching 3 targets, 2 requests each per round",
                       "6 self: self.test.lan (127.0.0.1) 2/2 replies, " + self + " ms",
                       "6 ::1: ::1 (::1) 2/2 replies, " + loop6 + " ms",
                       "4 gone: gone.test.lan not resolved: NXDOMAIN",
                   }));
  unlink("/etc/config/reachd");
  r = RunProgram(REACHD, {"-1"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.err, "reachd: no targets in the package reachd\n");
}

}  // namespace
}  // namespace rk::test
