// rkctl: the device identity values and their sources.
#include "identity.h"

#include <routerkit/config.h>
#include <routerkit/uci_access.h>

namespace rkctl {
namespace {

constexpr int kValueSize = 128;
constexpr const char *kVersionFile = "/etc/version";
constexpr const char *kFactoryFile = "/etc/factory.dat";
constexpr const char *kBuiltIn = "built in";

// A source the library tries before the last one of a value: a non-empty
// value of the factory file, or a readable UCI option.
struct Probe {
  const char *factoryKey;
  const char *config, *type, *option;
};

constexpr bool isSet(const Probe &p) { return p.factoryKey || p.config; }
constexpr Probe factory(const char *key) { return {key, nullptr, nullptr, nullptr}; }
constexpr Probe uci(const char *config, const char *type, const char *option) {
  return {nullptr, config, type, option};
}

// One identity getter and its sources in the order the library tries them.
// No getter tells which source gave its value, so this table repeats the
// order of config.h; every probe asks the library itself.
struct Row {
  const char *key, *label;
  int (*getter)(char *out, int size);
  Probe probes[2];   // unused ones are all null
  const char *last;  // a file, or kBuiltIn for the library's built-in value
};

const Row kRows[] = {
    {"software_version", "software version", config_getSoftwareVersion, {}, kVersionFile},
    {"hardware_version", "hardware version", config_getHardwareVersion, {}, kVersionFile},
    {"compile_time", "compile time", config_getCompileTime, {}, kVersionFile},
    {"platform", "platform", config_getPlatForm, {}, kVersionFile},
    {"device_name", "device name", config_getDeviceName, {}, kVersionFile},
    {"device_type", "device type", config_getDeviceType,
     {factory("DeviceType"), uci("system", "system", "deviceType")}, kVersionFile},
    {"inner_device_type", "inner device type", config_getInnerDeviceType, {}, kFactoryFile},
    {"serial_number", "serial number", config_getSerialNo, {}, kFactoryFile},
    {"country", "country", config_getCountry, {uci("system", "system", "country")}, kBuiltIn},
    {"env_name", "environment", config_getEnvName, {uci("system", "system", "envName")}, kBuiltIn},
    {"local_domain", "local domain", config_getLocalDomain,
     {uci("system", "system", "localDomain"), uci("LocalDomain", "global", "domain")}, kBuiltIn},
};

// The text of the probe's source when it has the value, else "".
std::string answer(const Probe &probe) {
  char out[kValueSize] = "";
  if (probe.factoryKey)
    return config_getValueFromFactoryFile(probe.factoryKey, out, kValueSize) > 0 ? kFactoryFile : "";
  if (uciGetOptionString(probe.config, probe.type, nullptr, probe.option, out, kValueSize) != 0) return "";
  return std::string("uci ") + probe.config + ".@" + probe.type + "." + probe.option;
}

IdentityValue read(const Row &row) {
  IdentityValue v(row.key, row.label);
  char out[kValueSize] = "";
  int n = row.getter(out, kValueSize);
  v.value = out;
  bool builtIn = row.last == kBuiltIn;
  // A value with a built-in fallback is never missing, even when empty.
  v.missing = !builtIn && n <= 0;
  for (const Probe &p : row.probes)
    if (isSet(p) && v.source.empty()) v.source = answer(p);
  if (!v.source.empty()) return v;
  v.fallback = builtIn;
  // Only a value of one file tells that the file cannot be read.
  bool oneFile = !isSet(row.probes[0]);
  v.source = oneFile && n < 0 ? std::string("cannot read ") + row.last : row.last;
  return v;
}

// The default LAN address: the getter's result tells its source.
IdentityValue readDefaultLanIp() {
  IdentityValue v("default_lan_ip", "default LAN address");
  char out[kValueSize] = "";
  int which = config_getDeafultLanIp(out, kValueSize);
  v.value = out;
  v.missing = which == 0;
  v.fallback = which == 1;
  v.source = which == 2   ? std::string(kFactoryFile) + " (inner device type)"
             : which == 1 ? kBuiltIn
                          : std::string("cannot read ") + kFactoryFile;
  return v;
}

}  // namespace

std::vector<IdentityValue> readIdentity() {
  std::vector<IdentityValue> all;
  for (const Row &row : kRows) all.push_back(read(row));
  all.push_back(readDefaultLanIp());
  return all;
}

}  // namespace rkctl
