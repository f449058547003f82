// rkctl as a user runs it: each row starts the program with its arguments
// and compares exit code, standard output (parsed back when it is JSON) and
// a piece of standard error.
#include <sys/stat.h>

#include "rkctl_run.h"

namespace rk::test {
namespace {

using Rkctl = InNamespace;

TEST_F(Rkctl, UsageErrorsAndHelp) {
  Check({
      {{}, 2, "", "usage: rkctl"},
      {{"frobnicate"}, 2, "", "unknown command 'frobnicate'"},
      {{"resolve"}, 2, "", "no name given"},
      {{"resolve", "--ptr", "::1"}, 2, "", "--ptr takes an IPv4 address"},
      {{"resolve", "--bogus", "x"}, 2, "", "unknown option --bogus"},
      {{"uci", "get", "system.hostname"}, 2, "", "is not CONFIG.SECTION.OPTION"},
      {{"uci", "set", "system.@system.hostname"}, 2, "", "set takes CONFIG.SECTION.OPTION=VALUE"},
      {{"log", "loud", "x"}, 2, "", "LEVEL is one of"},
      {{"lua", "x.lua", "f", "{nope"}, 2, "", "the argument is no JSON"},
  });
  for (const char *cmd : {"resolve", "uci", "log", "lua"}) {
    Result r = Start({cmd, "--help"});
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.out.rfind(std::string("usage: rkctl ") + cmd + " ", 0), 0u) << r.out;
    EXPECT_NE(Start({"--help"}).out.find(std::string("\n  ") + cmd + " "), std::string::npos) << cmd;
  }
}

TEST_F(Rkctl, ResolveAgainstDnsmasq) {
  Dnsmasq server({"--host-record=dual.test.lan,192.0.2.1,2001:db8::1", "--host-record=v4.test.lan,192.0.2.4",
                  "--ptr-record=4.2.0.192.in-addr.arpa,v4.test.lan", "--local=/test.lan/", "--local=/example/"});
  ASSERT_TRUE(WriteFile("/etc/resolv.conf", "# test\nnameserver 127.0.0.1\n"));
  int rc = 1;
  for (int i = 0; i < 50 && rc != 0; i++) rc = Start({"resolve", "v4.test.lan", "--timeout", "200"}).rc;
  ASSERT_EQ(rc, 0) << "dnsmasq does not answer";
  Check({
      {{"resolve", "dual.test.lan", "v4.test.lan"}, 0,
       "dual.test.lan 192.0.2.1\ndual.test.lan 2001:db8::1\nv4.test.lan 192.0.2.4\n", ""},
      {{"resolve", "--json", "dual.test.lan", "none.test.lan", "--server", "::1", "--timeout", "500"}, 1,
       R"([{"name": "dual.test.lan", "addresses": ["192.0.2.1", "2001:db8::1"]},
           {"name": "none.test.lan", "addresses": [], "error": "NXDOMAIN"}])",
       "none.test.lan: NXDOMAIN"},
      {{"resolve", "nosuch.example"}, 1, "", "rkctl resolve: nosuch.example: NXDOMAIN (no such name)\n"},
      {{"resolve", "--json", "--ptr", "192.0.2.4"}, 0, R"({"address": "192.0.2.4", "name": "v4.test.lan"})", ""},
      {{"resolve", "--ptr", "192.0.2.9", "--timeout", "300"}, 1, "", "192.0.2.9: REFUSED"},
      {{"resolve", "v4.test.lan", "--server", "127.0.0.9", "--timeout", "200"}, 1, "",
       "v4.test.lan: timeout (no answer within 200 ms)"},
  });
  ASSERT_TRUE(WriteFile("/etc/resolv.conf", "search lan\n"));
  Check({{{"resolve", "v4.test.lan"}, 1, "", "no DNS server: none given with --server and none in /etc/resolv.conf"}});
}

TEST_F(Rkctl, UciGetAndSet) {
  mkdir("/etc/config", 0755);
  ASSERT_TRUE(WriteFile("/etc/config/system", "config system 'main'\n\toption hostname 'rk1'\n\tlist ntp 'a'\n"));
  Check({
      {{"uci", "get", "system.@system.hostname"}, 0, "rk1\n", ""},
      {{"uci", "get", "system.main.ntp"}, 1, "", "system.main.ntp: no such section or option"},
      {{"uci", "get", "nothere.@x.y"}, 1, "", "cannot read /etc/config/nothere: No such file or directory"},
      {{"uci", "set", "system.main.hostname=rk 2"}, 0, "", ""},
      {{"uci", "--json", "get", "system.@system.hostname"}, 0,
       R"({"config": "system", "section": "@system", "option": "hostname", "value": "rk 2"})", ""},
      {{"uci", "set", "system.other.hostname=x"}, 1, "", "not written"},
  });
  EXPECT_NE(ReadFile("/etc/config/system").find("option hostname 'rk 2'"), std::string::npos);
}

TEST_F(Rkctl, LogToSyslogAndFile) {
  SyslogCapture log;
  ASSERT_TRUE(log.ok());
  Check({
      {{"log", "--json", "debug", "dropped"}, 0, R"({"level": "debug", "sent": false})", ""},
      {{"log", "--json", "--level", "6", "debug", "two", "words"}, 0, R"({"level": "debug", "sent": true})", ""},
      {{"log", "error", "it broke"}, 0, "", ""},
      {{"log", "--file", "/tmp/rk.log", "info", "to a file"}, 0, "", ""},
  });
  std::vector<std::string> got;
  for (const LogLine &l : log.Take()) got.push_back(l.ident + " " + std::to_string(l.severity) + " " + l.text);
  EXPECT_EQ(got, (std::vector<std::string>{"rkctl 7 two words", "rkctl 3 it broke"}));
  const std::string file = ReadFile("/tmp/rk.log");
  EXPECT_TRUE(file.size() > 11 && file.compare(file.size() - 11, 11, " to a file\n") == 0) << file;
}

TEST_F(Rkctl, LuaFunctions) {
  mkdir("/etc/config", 0755);
  ASSERT_TRUE(WriteFile("/etc/config/system", "config system\n\toption hostname 'rk1'\n"));
  ASSERT_TRUE(WriteFile("/tmp/s.lua", R"(
function hello(arg) return "hello " .. (arg and arg.who or "nobody") end
host = {name = function() return rk:uci_get{config = "system", type = "system", option = "hostname"} end}
function echo(arg) return {arg = arg, ticks = rk:tick().tick > 0} end
function boom() error("bad thing") end
)"));
  ASSERT_TRUE(WriteFile("/tmp/syntax.lua", "x = = 1\n"));
  ASSERT_TRUE(WriteFile("/tmp/raises.lua", "error('at start')\n"));
  Check({
      {{"lua", "/tmp/s.lua", "hello", R"({"who": "you"})"}, 0, "hello you\n", ""},
      {{"lua", "--json", "/tmp/s.lua", "host.name"}, 0, R"({"value": "rk1"})", ""},
      {{"lua", "--json", "/tmp/s.lua", "echo", "[1, 2.5, null, \"x\"]"}, 0,
       R"({"arg": [1, 2.5, null, "x"], "ticks": true})", ""},
      {{"lua", "/tmp/s.lua", "boom"}, 1, "", "boom raised an error: /tmp/s.lua:5: bad thing"},
      {{"lua", "/tmp/s.lua", "host.nothing"}, 1, "", "/tmp/s.lua has no function host.nothing"},
      {{"lua", "/tmp/syntax.lua", "f"}, 1, "", "cannot load /tmp/syntax.lua: /tmp/syntax.lua:1:"},
      {{"lua", "/tmp/raises.lua", "f"}, 1, "", "cannot load /tmp/raises.lua"},
  });
}

}  // namespace
}  // namespace rk::test
