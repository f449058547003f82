// rkctl: the leveled family of routerkit/log.h as a table.
#include "log_level.h"

#include <iterator>

#include <routerkit/log.h>

namespace rkctl {
namespace {

#define RKCTL_LOG_LEVEL(word) \
  { #word, log_##word }

// Weakest first. The stored level is a rank counted from log_fatal up: at
// level 4, the level at start, fatal, error, warn and info pass; 6 lets
// every function pass.
const LogLevel kLogLevels[] = {RKCTL_LOG_LEVEL(debug), RKCTL_LOG_LEVEL(trace), RKCTL_LOG_LEVEL(info),
                               RKCTL_LOG_LEVEL(warn),  RKCTL_LOG_LEVEL(error), RKCTL_LOG_LEVEL(fatal)};

#undef RKCTL_LOG_LEVEL

}  // namespace

const LogLevel *findLogLevel(const std::string &name) {
  for (const LogLevel &l : kLogLevels)
    if (name == l.name) return &l;
  return nullptr;
}

uint32_t passingLevel(const LogLevel &level) { return static_cast<uint32_t>(std::end(kLogLevels) - &level); }

std::string logLevelNames() {
  std::string text;
  for (const LogLevel &l : kLogLevels) text += (text.empty() ? "" : ", ") + std::string(l.name);
  return text;
}

}  // namespace rkctl
