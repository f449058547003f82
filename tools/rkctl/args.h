// rkctl: the words behind a subcommand, the messages about them, and the
// numbers read from them.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

namespace rkctl {

struct Command;

struct Option {
  char shortName;        // 0 for none
  const char *longName;  // also the key in Invocation::options
  bool takesValue;
};

struct Invocation {
  const Command *command = nullptr;
  bool json = false;
  std::vector<std::string> raw;  // the words behind the subcommand
  std::multimap<std::string, std::string> options;
  std::vector<std::string> positional;

  // Splits `raw` by the command's options ("-c 3", "-c3", "--count 3",
  // "--count=3"; "--" ends them). Prints a usage error and gives false for
  // an unknown option or a missing value.
  bool parse(const std::vector<Option> &known);
  bool has(const std::string &name) const { return options.count(name) > 0; }
  // The last value given for `name`.
  std::string get(const std::string &name, const std::string &fallback = "") const;
  std::vector<std::string> all(const std::string &name) const;
};

// "rkctl NAME: message" on standard error; kFailed.
int fail(const Invocation &inv, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// The message, then the usage line; kUsage.
int usageError(const Invocation &inv, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// "rkctl NAME: message" on standard error, nothing else.
void warn(const Invocation &inv, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Whole numbers and decimal seconds from the command line; false when the
// text is not one, or out of [min, max].
bool parseUint(const std::string &text, uint64_t max, uint64_t *out);
// The longest deadline a subcommand takes, in ms.
constexpr uint64_t kMaxTimeoutMs = 600000;
bool parseSeconds(const std::string &text, double min, double max, int *ms);

}  // namespace rkctl
