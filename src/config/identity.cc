// What a daemon wants to know about the device: values of the firmware's
// /etc/version, the factory data /etc/factory.dat and the "system" and
// "LocalDomain" UCI packages, with the chains and fallbacks of each getter.
// Every call goes back to its source.
#include <routerkit/config.h>
#include <routerkit/uci_access.h>

#include <string.h>

namespace {

constexpr char kVersionFile[] = "/etc/version";
constexpr char kFactoryFile[] = "/etc/factory.dat";

int from_system(const char *option, char *out, int size) {
  return uciGetOptionString("system", "system", nullptr, option, out, size);
}

// The string contract of the UCI readers: the last byte is the caller's.
int fallback(const char *text, char *out, int size) {
  strncpy(out, text, static_cast<size_t>(size - 1));
  return static_cast<int>(strlen(out));
}

int system_or(const char *option, const char *text, char *out, int size) {
  if (from_system(option, out, size) != 0) return fallback(text, out, size);
  return static_cast<int>(strlen(out));
}

}  // namespace

extern "C" {

int config_getValueFromVersionFile(const char *key, char *out, int size) {
  return getValueFromFile(kVersionFile, key, out, size);
}

int config_getValueFromFactoryFile(const char *key, char *out, int size) {
  return getValueFromFile(kFactoryFile, key, out, size);
}

int config_getSoftwareVersion(char *out, int size) {
  int len = config_getValueFromVersionFile("SWVersion", out, size);
  int dots = 0;
  for (int i = 0; i < len; ++i) {
    if (out[i] == '.' && ++dots == 3) {
      out[i] = '\0';
      return i;
    }
  }
  return len;
}

int config_getDisplaySoftwareVersion(char *out, int size) {
  return config_getSoftwareVersion(out, size);
}

int config_getHardwareVersion(char *out, int size) {
  return config_getValueFromVersionFile("HWVersion", out, size);
}

int config_getCompileTime(char *out, int size) {
  return config_getValueFromVersionFile("CompileTime", out, size);
}

int config_getPlatForm(char *out, int size) {
  return config_getValueFromVersionFile("PlatForm", out, size);
}

int config_getDeviceName(char *out, int size) {
  return config_getValueFromVersionFile("DeviceName", out, size);
}

int config_getInnerDeviceType(char *out, int size) {
  return config_getValueFromFactoryFile("InnerDeviceType", out, size);
}

int config_getSerialNo(char *out, int size) {
  return config_getValueFromFactoryFile("sn", out, size);
}

int config_getDeviceType(char *out, int size) {
  int len = config_getValueFromFactoryFile("DeviceType", out, size);
  if (len > 0) return len;
  if (from_system("deviceType", out, size) == 0) return static_cast<int>(strlen(out));
  return config_getValueFromVersionFile("DeviceType", out, size);
}

int config_getCountry(char *out, int size) { return system_or("country", "CN", out, size); }

int config_getEnvName(char *out, int size) { return system_or("envName", "release", out, size); }

int config_getLocalDomain(char *out, int size) {
  if (!out || size <= 0) return 0;
  if (from_system("localDomain", out, size) == 0 ||
      uciGetOptionString("LocalDomain", "global", nullptr, "domain", out, size) == 0)
    return static_cast<int>(strlen(out));
  return fallback(RK_DEFAULT_LOCAL_DOMAIN, out, size);
}

int config_getDeafultLanIp(char *out, int size) {
  memset(out, 0, static_cast<size_t>(size));
  char inner[128] = {0};
  if (config_getValueFromFactoryFile("InnerDeviceType", inner, sizeof inner) < 0) return 0;
  if (strstr(inner, "Quorvanta")) {
    strncpy(out, "10.0.0.1", static_cast<size_t>(size - 1));
    return 2;
  }
  strncpy(out, "192.168.10.1", static_cast<size_t>(size - 1));
  return 1;
}

}  // extern "C"
