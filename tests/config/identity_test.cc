// Device identity from /etc/version, /etc/factory.dat and the "system" and
// "LocalDomain" packages. Every case writes the fixed paths, so they run in
// private namespaces.
#include <routerkit/config.h>

#include <filesystem>

#include "uci_testutil.h"

namespace rk::test {
namespace {

// /etc/version, /etc/factory.dat, options of system.@system[0] and of
// LocalDomain.@global[0] as a test sets them up: "" leaves one out entirely.
struct Sources { const char *version = "", *factory = "", *system = "", *local = ""; };

class Identity : public UciFiles {
 protected:
  void set(const Sources &s) {
    std::filesystem::remove("/etc/version");
    std::filesystem::remove("/etc/factory.dat");
    clearConfig();
    if (*s.version) WriteFile("/etc/version", s.version);
    if (*s.factory) WriteFile("/etc/factory.dat", s.factory);
    if (*s.system) put("system", std::string("config system\n") + s.system);
    if (*s.local) put("LocalDomain", std::string("config global\n") + s.local);
  }
  struct Row { Sources src; int (*get)(char *, int); int size; const char *expect; };
  // Each getter's result and text, in a buffer of `size` filled with '#'
  // except its last byte, as a caller that zeroes only that byte.
  template <size_t N>
  void run(const Row (&rows)[N]) {
    for (const Row &r : rows) {
      set(r.src);
      std::vector<char> out(static_cast<size_t>(r.size), '#');
      out.back() = '\0';
      EXPECT_EQ(r.expect, std::to_string(r.get(out.data(), r.size)) + " " + out.data())
          << r.src.version << r.src.factory << r.src.system << r.src.local;
    }
  }
};

TEST_F(Identity, FileGettersAndTheVersionCut) {
  const Row rows[] = {
      {{"SWVersion = 1.2.3.4.5\n"}, config_getSoftwareVersion, 64, "5 1.2.3"},
      {{"SWVersion = V1.2.3.4_abc\n"}, config_getDisplaySoftwareVersion, 64, "6 V1.2.3"},
      {{"SWVersion = 1.2.3.\n"}, config_getSoftwareVersion, 64, "5 1.2.3"},
      {{"SWVersion = 1.2.3.4.5\n"}, config_getSoftwareVersion, 5, "4 1.2."},
      {{"HWVersion = 1.0\n"}, config_getSoftwareVersion, 8, "0 #######"},
      {{}, config_getSerialNo, 8, "-1 #######"},
  };
  run(rows);
}

TEST_F(Identity, ChainsAndFallbacks) {
  const char *sys_type = "\toption deviceType 'uci-type'\n";
  const Row rows[] = {
      {{"DeviceType = ver\n", "DeviceType = fac\n", sys_type}, config_getDeviceType, 64, "3 fac"},
      {{"DeviceType = ver\n", "DeviceType =\n", sys_type}, config_getDeviceType, 64, "8 uci-type"},
      {{"DeviceType = ver\n"}, config_getDeviceType, 64, "3 ver"},
      {{"", "", "\toption country 'DE'\n"}, config_getCountry, 64, "2 DE"},
      {{}, config_getCountry, 64, "2 CN"},
      {{}, config_getCountry, 2, "1 C"},
      {{"", "", "\toption envName 'beta'\n"}, config_getEnvName, 64, "4 beta"},
      {{}, config_getEnvName, 64, "7 release"},
      {{"", "", "\toption localDomain 'home'\n", "\toption domain 'corp'\n"}, config_getLocalDomain, 64, "4 home"},
      {{"", "", "\toption country 'DE'\n", "\toption domain 'corp'\n"}, config_getLocalDomain, 64, "4 corp"},
      {{}, config_getLocalDomain, 64, "3 " RK_DEFAULT_LOCAL_DOMAIN},
      {{"", "InnerDeviceType = aQuorvantaZ\n"}, config_getDeafultLanIp, 64, "2 10.0.0.1"},
      {{"", "InnerDeviceType = aQuorvantaZ\n"}, config_getDeafultLanIp, 5, "2 10.0"},
      {{"", "InnerDeviceType = quorvanta\n"}, config_getDeafultLanIp, 64, "1 192.168.10.1"},
      {{"", "sn = 1\n"}, config_getDeafultLanIp, 64, "1 192.168.10.1"},
      {{}, config_getDeafultLanIp, 64, "0 "},
  };
  run(rows);
  char untouched[4] = "abc";
  EXPECT_EQ(0, config_getLocalDomain(untouched, 0));
  EXPECT_EQ(0, config_getLocalDomain(nullptr, 8));
  EXPECT_STREQ("abc", untouched);
}

}  // namespace
}  // namespace rk::test
