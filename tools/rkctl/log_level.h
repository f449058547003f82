// rkctl: the levels of routerkit's leveled logging, for log and lua.
#pragma once

#include <stdint.h>

#include <string>

namespace rkctl {

struct LogLevel {
  const char *name;  // its function's name without "log_"
  int (*emit)(const char *fmt, ...);
};

// The level named `name`, or null.
const LogLevel *findLogLevel(const std::string &name);
// The stored level at which `level`'s messages pass.
uint32_t passingLevel(const LogLevel &level);
// "debug, trace, info, warn, error, fatal".
std::string logLevelNames();

}  // namespace rkctl
