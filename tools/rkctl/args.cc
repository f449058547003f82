// rkctl: argument parsing and the messages about a subcommand's arguments.
#include "args.h"

#include <ctype.h>
#include <errno.h>
#include <math.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include "command.h"

namespace rkctl {
namespace {

void printMessage(const Invocation &inv, const char *fmt, va_list ap) {
  fprintf(stderr, "rkctl %s: ", inv.command ? inv.command->name : "");
  vfprintf(stderr, fmt, ap);
  fputc('\n', stderr);
}

}  // namespace

bool Invocation::parse(const std::vector<Option> &known) {
  options.clear();
  positional.clear();
  for (size_t i = 0; i < raw.size(); i++) {
    const std::string &word = raw[i];
    if (word == "--") {
      positional.insert(positional.end(), raw.begin() + static_cast<long>(i) + 1, raw.end());
      break;
    }
    if (word.size() < 2 || word[0] != '-') {
      positional.push_back(word);
      continue;
    }
    const Option *found = nullptr;
    std::string value;
    bool hasValue = false;
    if (word[1] == '-') {
      size_t eq = word.find('=');
      std::string name = word.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
      for (const Option &o : known)
        if (name == o.longName) found = &o;
      if (found && eq != std::string::npos) {
        value = word.substr(eq + 1);
        hasValue = true;
      }
    } else {
      for (const Option &o : known)
        if (o.shortName == word[1]) found = &o;
      if (found && word.size() > 2) {
        value = word.substr(2);
        hasValue = true;
      }
    }
    if (!found) {
      usageError(*this, "unknown option %s", word.c_str());
      return false;
    }
    if (!found->takesValue) {
      if (hasValue) {
        usageError(*this, "%s takes no value", word.c_str());
        return false;
      }
    } else if (!hasValue) {
      if (i + 1 >= raw.size()) {
        usageError(*this, "%s needs a value", word.c_str());
        return false;
      }
      value = raw[++i];
    }
    options.emplace(found->longName, value);
  }
  return true;
}

std::string Invocation::get(const std::string &name, const std::string &fallback) const {
  auto range = options.equal_range(name);
  return range.first == range.second ? fallback : std::prev(range.second)->second;
}

std::vector<std::string> Invocation::all(const std::string &name) const {
  std::vector<std::string> out;
  auto range = options.equal_range(name);
  for (auto it = range.first; it != range.second; ++it) out.push_back(it->second);
  return out;
}

int fail(const Invocation &inv, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  printMessage(inv, fmt, ap);
  va_end(ap);
  return kFailed;
}

void warn(const Invocation &inv, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  printMessage(inv, fmt, ap);
  va_end(ap);
}

int usageError(const Invocation &inv, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  printMessage(inv, fmt, ap);
  va_end(ap);
  if (inv.command)
    fprintf(stderr, "usage: rkctl %s %s\n(rkctl %s --help tells more)\n", inv.command->name, inv.command->synopsis,
            inv.command->name);
  return kUsage;
}

bool parseUint(const std::string &text, uint64_t max, uint64_t *out) {
  if (text.empty() || !isdigit(static_cast<unsigned char>(text[0]))) return false;
  errno = 0;
  char *end = nullptr;
  unsigned long long v = strtoull(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || v > max) return false;
  *out = v;
  return true;
}

bool parseSeconds(const std::string &text, double min, double max, int *ms) {
  if (text.empty() || !(isdigit(static_cast<unsigned char>(text[0])) || text[0] == '.')) return false;
  char *end = nullptr;
  double v = strtod(text.c_str(), &end);
  if (*end != '\0' || !(v >= min && v <= max)) return false;
  *ms = static_cast<int>(lround(v * 1000));
  return true;
}

}  // namespace rkctl
