/*
 * routerkit: values from key/value files and the factory tool.
 *
 * Buffers are the caller's: `out` with `size` bytes.
 */
#ifndef ROUTERKIT_CONFIG_H
#define ROUTERKIT_CONFIG_H

#ifndef RK_API
#define RK_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Reads the value of `key` from a file of "key = value" (or "key: value")
 * lines into `out`. Returns the value's length (0 also for an empty value);
 * 0 with `out` untouched when no line matches; -1 for bad arguments or a
 * file that can't be opened (both logged). The file is read in pieces of 63
 * bytes, so a value ends at the end of its piece.
 */
RK_API int getValueFromFile(const char *path, const char *key, char *out, int size);

/*
 * Asks "/usr/bin/factory show <key>" (a plain word) and reads the rest of
 * the line behind the first '=' of its output, trailing blanks and line ends
 * removed. 0 when a value was read (not a length), else -1 with `out`
 * untouched.
 */
RK_API int getFactoryValue(const char *key, char *out, int size);

/* getFactoryValue("provinceCode"); on failure `out` becomes "" (size >= 1). */
RK_API int getTheProvinceCode(char *out, int size);

/* ---- Device identity -----------------------------------------------------
 *
 * Each getter goes back to its source on every call; nothing is cached and
 * nothing is logged here (an unopenable file is logged by getValueFromFile).
 * Results of the file readers are those of getValueFromFile: the length, 0
 * for a missing key or an empty value (`out` then untouched or empty), -1 for
 * a file that can't be opened. UCI sources follow the string contract of
 * uci_access.h, and so do the fallbacks: the last byte of `out` is the
 * caller's to zero.
 */

/* The built-in local domain, used when neither UCI source has one. */
#define RK_DEFAULT_LOCAL_DOMAIN "lan"

/* getValueFromFile on /etc/version and /etc/factory.dat. */
RK_API int config_getValueFromVersionFile(const char *key, char *out, int size);
RK_API int config_getValueFromFactoryFile(const char *key, char *out, int size);

/* "SWVersion" of /etc/version, cut at its third dot: the length after the cut. */
RK_API int config_getSoftwareVersion(char *out, int size);
RK_API int config_getDisplaySoftwareVersion(char *out, int size);
/* "HWVersion", "CompileTime", "PlatForm", "DeviceName" of /etc/version. */
RK_API int config_getHardwareVersion(char *out, int size);
RK_API int config_getCompileTime(char *out, int size);
RK_API int config_getPlatForm(char *out, int size);
RK_API int config_getDeviceName(char *out, int size);
/* "InnerDeviceType" and "sn" of /etc/factory.dat. */
RK_API int config_getInnerDeviceType(char *out, int size);
RK_API int config_getSerialNo(char *out, int size);
/*
 * "DeviceType" of /etc/factory.dat when it has a value; else the option
 * system.@system.deviceType (strlen of `out`, an empty option included);
 * else "DeviceType" of /etc/version.
 */
RK_API int config_getDeviceType(char *out, int size);
/* system.@system.country, else "CN"; strlen of `out`. Needs size >= 1. */
RK_API int config_getCountry(char *out, int size);
/* system.@system.envName, else "release"; strlen of `out`. Needs size >= 1. */
RK_API int config_getEnvName(char *out, int size);
/*
 * system.@system.localDomain, else LocalDomain.@global.domain, else
 * RK_DEFAULT_LOCAL_DOMAIN; strlen of `out`. 0 for a NULL `out` or a size of
 * 0 or less, with nothing read.
 */
RK_API int config_getLocalDomain(char *out, int size);
/*
 * Clears `out` (size >= 1), then: 2 and "10.0.0.1" when the factory value
 * "InnerDeviceType" holds the brand word "Quorvanta"; 1 and "192.168.10.1"
 * otherwise; 0 and an empty `out` when /etc/factory.dat can't be opened.
 * The address is cut to size - 1 bytes.
 */
RK_API int config_getDeafultLanIp(char *out, int size);

#ifdef __cplusplus
}
#endif

#endif /* ROUTERKIT_CONFIG_H */
