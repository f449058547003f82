// rkctl identity: the device identity getters, each value with its source.
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include <routerkit/config.h>
#include <routerkit/uci_access.h>

#include "identity.h"
#include "rkctl.h"

namespace rkctl {
namespace {

const int kSize = 128;

// A getter of one key/value file: its length, 0 (missing or empty) or -1
// (the file cannot be read).
IdentityValue from_file(const char *key, const char *label, int (*getter)(char *, int), const char *path) {
  IdentityValue v(key, label);
  char out[kSize] = "";
  int n = getter(out, kSize);
  v.value = out;
  v.source = n < 0 ? std::string("cannot read ") + path : path;
  v.missing = n <= 0;
  return v;
}

bool uci_has(const char *config, const char *type, const char *option) {
  char out[kSize] = "";
  return uciGetOptionString(config, type, nullptr, option, out, kSize) == 0;
}

// A getter that falls back to a built-in value when its UCI option is not
// readable; the option decides which it was.
IdentityValue from_uci(const char *key, const char *label, int (*getter)(char *, int), const char *option) {
  IdentityValue v(key, label);
  char out[kSize] = "";
  getter(out, kSize);
  v.value = out;
  v.fallback = !uci_has("system", "system", option);
  v.source = v.fallback ? "built in" : std::string("uci system.@system.") + option;
  return v;
}

}  // namespace

std::vector<IdentityValue> ReadIdentity() {
  std::vector<IdentityValue> all;
  all.push_back(from_file("software_version", "software version", config_getSoftwareVersion, "/etc/version"));
  all.push_back(from_file("hardware_version", "hardware version", config_getHardwareVersion, "/etc/version"));
  all.push_back(from_file("compile_time", "compile time", config_getCompileTime, "/etc/version"));
  all.push_back(from_file("platform", "platform", config_getPlatForm, "/etc/version"));
  all.push_back(from_file("device_name", "device name", config_getDeviceName, "/etc/version"));

  // Device type: the factory file, then UCI, then the version file.
  IdentityValue type("device_type", "device type");
  char out[kSize] = "";
  char probe[kSize] = "";
  int n = config_getDeviceType(out, kSize);
  type.value = out;
  type.missing = n <= 0;
  if (config_getValueFromFactoryFile("DeviceType", probe, kSize) > 0)
    type.source = "/etc/factory.dat";
  else if (uci_has("system", "system", "deviceType"))
    type.source = "uci system.@system.deviceType";
  else
    type.source = "/etc/version";
  all.push_back(type);

  all.push_back(from_file("inner_device_type", "inner device type", config_getInnerDeviceType, "/etc/factory.dat"));
  all.push_back(from_file("serial_number", "serial number", config_getSerialNo, "/etc/factory.dat"));
  all.push_back(from_uci("country", "country", config_getCountry, "country"));
  all.push_back(from_uci("env_name", "environment", config_getEnvName, "envName"));

  // Local domain: two UCI options, then the built-in name.
  IdentityValue domain("local_domain", "local domain");
  memset(out, 0, sizeof out);
  config_getLocalDomain(out, kSize);
  domain.value = out;
  if (uci_has("system", "system", "localDomain"))
    domain.source = "uci system.@system.localDomain";
  else if (uci_has("LocalDomain", "global", "domain"))
    domain.source = "uci LocalDomain.@global.domain";
  else {
    domain.source = "built in";
    domain.fallback = true;
  }
  all.push_back(domain);

  // Default LAN address: chosen by the factory's inner device type.
  IdentityValue lan("default_lan_ip", "default LAN address");
  memset(out, 0, sizeof out);
  int which = config_getDeafultLanIp(out, kSize);
  lan.value = out;
  lan.missing = which == 0;
  lan.fallback = which == 1;
  lan.source = which == 2 ? "/etc/factory.dat (inner device type)"
                          : which == 1 ? "built in" : "cannot read /etc/factory.dat";
  all.push_back(lan);
  return all;
}

namespace {

int run(Invocation &inv) {
  if (!inv.Parse({})) return kUsage;
  if (!inv.positional.empty()) return UsageError(inv, "takes no arguments");
  std::vector<IdentityValue> values = ReadIdentity();
  if (inv.json) {
    Json out(json_object_new_object());
    for (const IdentityValue &v : values) {
      json_object *o = json_object_new_object();
      json_object_object_add(o, "value", v.missing ? nullptr : JsonString(v.value));
      json_object_object_add(o, "source", JsonString(v.source));
      json_object_object_add(o, "fallback", json_object_new_boolean(v.fallback));
      json_object_object_add(out.get(), v.key, o);
    }
    PrintJson(out.get());
    return kOk;
  }
  for (const IdentityValue &v : values)
    printf("%-20s %-24s [%s]\n", v.label, v.missing ? "-" : v.value.c_str(), v.source.c_str());
  return kOk;
}

const Registrar registrar({"identity", "", "the device's identity values and where each came from",
                           "Calls each identity getter of the library: versions and platform from\n"
                           "/etc/version, inner device type and serial number from /etc/factory.dat,\n"
                           "device type from the first of /etc/factory.dat, UCI and /etc/version that has\n"
                           "it, country, environment and local domain from UCI or the library's built-in\n"
                           "values, and the default LAN address chosen by the factory's inner device\n"
                           "type. Prints one line each: label, value (- for none), [source].\n"
                           "\n"
                           "JSON: {KEY: {\"value\": TEXT or null, \"source\", \"fallback\": true|false}...}.\n",
                           40, run});

}  // namespace
}  // namespace rkctl
