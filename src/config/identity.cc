// What a daemon wants to know about the device: values of the firmware's
// /etc/version, the factory data /etc/factory.dat and the "system" and
// "LocalDomain" UCI packages, with the chains and fallbacks of each getter.
// Every call goes back to its source.
#include <routerkit/config.h>
#include <routerkit/uci_access.h>

#include <string.h>

namespace rk::config {
namespace {

constexpr char kVersionFile[] = "/etc/version";
constexpr char kFactoryFile[] = "/etc/factory.dat";
// The software version is shown up to its third dot: "1.2.3.4567" as "1.2.3".
constexpr int kShownVersionDots = 3;
constexpr size_t kInnerDeviceTypeSize = 128;
// Devices whose inner type names this brand word have their own LAN address.
constexpr char kBrandWord[] = "Quorvanta";
constexpr char kBrandLanIp[] = "10.0.0.1";
constexpr char kDefaultLanIp[] = "192.168.10.1";
constexpr int kBrandLanIpResult = 2;
constexpr int kDefaultLanIpResult = 1;

int fromSystem(const char *option, char *out, int size) noexcept {
  return uciGetOptionString("system", "system", nullptr, option, out, size);
}

// The string contract of the UCI readers: the last byte is the caller's.
int fallback(const char *text, char *out, int size) noexcept {
  strncpy(out, text, static_cast<size_t>(size - 1));
  return static_cast<int>(strlen(out));
}

int systemOr(const char *option, const char *text, char *out, int size) noexcept {
  if (fromSystem(option, out, size) != 0) return fallback(text, out, size);
  return static_cast<int>(strlen(out));
}

int versionFileValue(const char *key, char *out, int size) noexcept {
  return getValueFromFile(kVersionFile, key, out, size);
}

int factoryFileValue(const char *key, char *out, int size) noexcept {
  return getValueFromFile(kFactoryFile, key, out, size);
}

int softwareVersion(char *out, int size) noexcept {
  const int length = versionFileValue("SWVersion", out, size);
  int dots = 0;
  for (int i = 0; i < length; ++i) {
    if (out[i] == '.' && ++dots == kShownVersionDots) {
      out[i] = '\0';
      return i;
    }
  }
  return length;
}

int deviceType(char *out, int size) noexcept {
  const int length = factoryFileValue("DeviceType", out, size);
  if (length > 0) return length;
  if (fromSystem("deviceType", out, size) == 0) return static_cast<int>(strlen(out));
  return versionFileValue("DeviceType", out, size);
}

int localDomain(char *out, int size) noexcept {
  if (fromSystem("localDomain", out, size) == 0 ||
      uciGetOptionString("LocalDomain", "global", nullptr, "domain", out, size) == 0)
    return static_cast<int>(strlen(out));
  return fallback(RK_DEFAULT_LOCAL_DOMAIN, out, size);
}

int defaultLanIp(char *out, int size) noexcept {
  memset(out, 0, static_cast<size_t>(size));
  char inner[kInnerDeviceTypeSize] = {0};
  if (factoryFileValue("InnerDeviceType", inner, sizeof inner) < 0) return 0;
  if (strstr(inner, kBrandWord)) {
    strncpy(out, kBrandLanIp, static_cast<size_t>(size - 1));
    return kBrandLanIpResult;
  }
  strncpy(out, kDefaultLanIp, static_cast<size_t>(size - 1));
  return kDefaultLanIpResult;
}

}  // namespace
}  // namespace rk::config

extern "C" {

int config_getValueFromVersionFile(const char *key, char *out, int size) {
  return rk::config::versionFileValue(key, out, size);
}

int config_getValueFromFactoryFile(const char *key, char *out, int size) {
  return rk::config::factoryFileValue(key, out, size);
}

int config_getSoftwareVersion(char *out, int size) {
  return rk::config::softwareVersion(out, size);
}

int config_getDisplaySoftwareVersion(char *out, int size) {
  return rk::config::softwareVersion(out, size);
}

int config_getHardwareVersion(char *out, int size) {
  return rk::config::versionFileValue("HWVersion", out, size);
}

int config_getCompileTime(char *out, int size) {
  return rk::config::versionFileValue("CompileTime", out, size);
}

int config_getPlatForm(char *out, int size) {
  return rk::config::versionFileValue("PlatForm", out, size);
}

int config_getDeviceName(char *out, int size) {
  return rk::config::versionFileValue("DeviceName", out, size);
}

int config_getInnerDeviceType(char *out, int size) {
  return rk::config::factoryFileValue("InnerDeviceType", out, size);
}

int config_getSerialNo(char *out, int size) {
  return rk::config::factoryFileValue("sn", out, size);
}

int config_getDeviceType(char *out, int size) { return rk::config::deviceType(out, size); }

int config_getCountry(char *out, int size) {
  return rk::config::systemOr("country", "CN", out, size);
}

int config_getEnvName(char *out, int size) {
  return rk::config::systemOr("envName", "release", out, size);
}

int config_getLocalDomain(char *out, int size) {
  if (!out || size <= 0) return 0;
  return rk::config::localDomain(out, size);
}

int config_getDeafultLanIp(char *out, int size) { return rk::config::defaultLanIp(out, size); }

}  // extern "C"
