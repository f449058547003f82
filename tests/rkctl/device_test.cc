// rkctl's subcommands about the device itself: identity, weekdays, CPU,
// the delay record, the bridge address, ping (side by side with iputils
// ping) and the status screen. Each case runs in private namespaces with
// fixture files at the fixed paths and interfaces of its own.
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <regex>

#include <json-c/json_pointer.h>

#include "rkctl_run.h"

namespace rk::test {
namespace {

using Device = InNamespace;

// A JSON document's member at a dotted path, as text ("" when absent).
std::string At(const std::string &json, std::string path) {
  std::replace(path.begin(), path.end(), '.', '/');
  json_object *root = json_tokener_parse(json.c_str()), *o = nullptr;
  std::string text = json_pointer_get(root, ("/" + path).c_str(), &o) == 0 && o ? json_object_get_string(o) : "";
  json_object_put(root);
  return text;
}

bool Sh(const std::string &command) { return system(command.c_str()) == 0; }

TEST_F(Device, IdentityWithSourcesAndFallbacks) {
  mkdir("/etc/config", 0755);
  ASSERT_TRUE(WriteFile("/etc/version", "SWVersion=1.2.3.4.5\nHWVersion: B1\nDeviceType=from-version\n"));
  ASSERT_TRUE(WriteFile("/etc/factory.dat", "sn = SN0042\nInnerDeviceType=Quorvanta-X\n"));
  ASSERT_TRUE(WriteFile("/etc/config/system", "config system\n\toption country 'DE'\n\toption deviceType 'uci-type'\n"));
  Result r = Start({"--json", "identity"});
  ASSERT_EQ(r.rc, 0) << r.err;
  const struct { const char *key, *value, *source, *fallback; } rows[] = {
      {"software_version", "1.2.3", "/etc/version", "false"},
      {"serial_number", "SN0042", "/etc/factory.dat", "false"},
      {"device_type", "uci-type", "uci system.@system.deviceType", "false"},
      {"env_name", "release", "built in", "true"},
      {"default_lan_ip", "10.0.0.1", "/etc/factory.dat (inner device type)", "false"},
  };
  for (const auto &row : rows) {
    const std::string k = row.key;
    EXPECT_EQ(At(r.out, k + ".value") + "|" + At(r.out, k + ".source") + "|" + At(r.out, k + ".fallback"),
              std::string(row.value) + "|" + row.source + "|" + row.fallback);
  }
  unlink("/etc/factory.dat");
  r = Start({"identity"});
  EXPECT_EQ(r.rc, 0);
  EXPECT_NE(r.out.find("serial number        -"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("[cannot read /etc/factory.dat]"), std::string::npos) << r.out;
}

TEST_F(Device, WeekDelayAndBridge) {
  ASSERT_TRUE(Sh("ip link add br-lan type bridge && ip link add v0 type veth peer name v1 && "
                 "ip link set v1 master br-lan && ip link set v0 up && ip link set v1 up && ip link set br-lan up"));
  Check({
      {{"week", "0x22"}, 0, "0x22 Mon,Fri\n", ""},
      {{"week", "--json", "127"}, 0, R"({"mask": 127, "text": "Sun,Mon,Tue,Wed,Thu,Fri,Sat"})", ""},
      {{"week", "xyz"}, 1, "", "no weekday in 'xyz'"},
      {{"week"}, 2, "", "expected one MASK or TEXT"},
      {{"delay", "show"}, 1, "", "no delay recorded"},
      {{"delay", "add", "wan", "10"}, 0, "", ""},
      {{"delay", "add", "x", "31"}, 0, "", ""},
      {{"delay", "--json", "show"}, 0, R"({"mean": 20})", ""},
      {{"delay", "add", "a b", "1"}, 2, "", "a label has 1 to 15 characters"},
      {{"delay", "add", "x", "4294967296"}, 2, "", "VALUE is a number"},
      {{"bridge-addr", "192.168.20.7"}, 1, "", "no running br-lan bridge with an IPv4 address"},
      {{"bridge-addr", "peer"}, 2, "", "PEER is an IPv4 or IPv6 address"},
      {{"identity", "x"}, 2, "", "takes no arguments"},
      {{"status", "--timeout", "0"}, 2, "", "--timeout takes milliseconds"},
  });
  EXPECT_EQ(ReadFile("/var/run/internet.state"), "x 31\nwan 10\n");
  Check({{{"delay", "clear"}, 0, "", ""}, {{"delay", "show"}, 1, "", "no delay recorded"}});

  // The bridge runs once its port forwards.
  ASSERT_TRUE(Sh("ip addr add 192.168.10.1/24 dev br-lan && ip addr add 192.168.20.1/24 dev br-lan && "
                 "for i in $(seq 50); do ip link show br-lan | grep -q LOWER_UP && exit 0; sleep 0.1; done; exit 1"));
  Check({
      {{"bridge-addr", "192.168.20.7"}, 0, "192.168.20.1\n", ""},
      {{"bridge-addr", "--json", "10.0.0.5"}, 0, R"({"peer": "10.0.0.5", "address": "192.168.20.1"})", ""},
  });
}

TEST_F(Device, CpuSamples) {
  Result r = Start({"--json", "cpu", "--interval", "100", "--count", "2"});
  ASSERT_EQ(r.rc, 0) << r.err;
  EXPECT_EQ(At(r.out, "interval_ms"), "100");
  EXPECT_TRUE(std::regex_match(At(r.out, "permille"), std::regex(R"(\[ (1000|\d{1,3}), (1000|\d{1,3}) \])"))) << r.out;
  EXPECT_TRUE(std::regex_match(Start({"cpu", "--interval", "50"}).out, std::regex("[0-9]+\\.[0-9]%\n")));
  Check({{{"cpu", "--count", "0"}, 2, "", "--count takes a number"}});
}

// "3 packets transmitted, 3 received, 0% packet loss" as iputils ping prints
// its summary, and as rkctl prints the same figures from its JSON.
std::string IputilsFigures(const std::string &host) {
  TempDir dir;
  Sh("ping -n -q -c 3 -i 0.2 -W 1 " + host + " > " + (dir / "out") + " 2>&1");
  std::smatch m;
  const std::string out = ReadFile(dir / "out");
  return std::regex_search(out, m, std::regex("[0-9]+ packets transmitted, [0-9]+ received, [0-9.]+% packet loss"))
             ? m.str() : out;
}

TEST_F(Device, PingAgainstIputils) {
  // A dead peer: a neighbour that exists for the kernel but never answers.
  ASSERT_TRUE(Sh("ip link add v0 type veth peer name v1 && ip link set v0 up && ip link set v1 up && "
                 "ip addr add 10.99.0.1/24 dev v0 && "
                 "ip neigh add 10.99.0.2 lladdr 02:00:00:00:00:02 dev v0 nud permanent"));
  const std::vector<std::string> hosts = {"127.0.0.1", "::1", "10.99.0.2"};
  std::vector<std::string> args = {"--json", "ping", "-c", "3", "-i", "0.2", "-W", "1"};
  args.insert(args.end(), hosts.begin(), hosts.end());
  Result r = Start(args);
  EXPECT_EQ(r.rc, 1) << r.err;  // one host without a reply
  for (size_t i = 0; i < hosts.size(); i++) {
    const std::string at = std::to_string(i) + ".";
    char loss[32];
    snprintf(loss, sizeof loss, "%g", atof(At(r.out, at + "loss").c_str()));
    EXPECT_EQ(At(r.out, at + "transmitted") + " packets transmitted, " + At(r.out, at + "received") + " received, " +
                  loss + "% packet loss", IputilsFigures(hosts[i])) << hosts[i];
  }
  r = Start({"ping", "-c", "2", "-i", "0.1", "127.0.0.1"});
  EXPECT_EQ(r.rc, 0);
  EXPECT_TRUE(std::regex_search(r.out, std::regex("^reply from 127.0.0.1: icmp_seq=1 time=[0-9]+\\.[0-9]{3} ms\n")))
      << r.out;
  EXPECT_NE(r.out.find("--- 127.0.0.1 ping statistics ---\n2 packets transmitted, 2 received, 0% packet loss\n"
                       "rtt min/avg/max/mdev = "), std::string::npos) << r.out;
  Check({{{"ping"}, 2, "", "no host given"}, {{"ping", "-c", "0", "::1"}, 2, "", "-c takes a count"}});
  // Without root, on unprivileged ICMP sockets: the user's group is let in.
  const char *emulator = getenv("RK_EMULATED");
  EXPECT_TRUE(Sh("sysctl -qw net.ipv4.ping_group_range='4242 4242' && setpriv --reuid=4242 --regid=4242 "
                 "--clear-groups " + std::string(emulator ? emulator : "") + " " RKCTL " ping -c 1 ::1 10.99.0.1 >&2"));
}

TEST_F(Device, StatusWithAndWithoutDns) {
  ASSERT_TRUE(WriteFile("/etc/resolv.conf", ""));
  Result r = Start({"--json", "status", "--timeout", "500"});
  ASSERT_EQ(r.rc, 0) << r.err;
  EXPECT_EQ(At(r.out, "checks.0.check") + " " + At(r.out, "checks.0.ok"), "ping 127.0.0.1 true");
  EXPECT_EQ(At(r.out, "checks.1.check") + " " + At(r.out, "checks.1.ok"), "ping ::1 true");
  EXPECT_TRUE(std::regex_match(At(r.out, "checks.1.detail"), std::regex("[0-9]+\\.[0-9]{3} ms"))) << r.out;
  EXPECT_EQ(At(r.out, "checks.2.check") + " " + At(r.out, "checks.2.detail"),
            "resolve example.com no DNS server in /etc/resolv.conf");
  EXPECT_EQ(At(r.out, "identity.country.fallback"), "true");

  Dnsmasq server({"--host-record=a.test.lan,192.0.2.1"});
  ASSERT_TRUE(WriteFile("/etc/resolv.conf", "nameserver 127.0.0.1\n"));
  for (int i = 0; i < 50 && Start({"resolve", "a.test.lan", "--timeout", "200"}).rc != 0; i++) continue;
  r = Start({"status", "--name", "a.test.lan"});
  EXPECT_EQ(r.rc, 0);
  EXPECT_TRUE(std::regex_search(r.out, std::regex("\n  ok    resolve a.test.lan +192.0.2.1\n"))) << r.out;
}

}  // namespace
}  // namespace rk::test
