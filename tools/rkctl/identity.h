// rkctl: the device identity getters with where each value came from, for
// identity and status.
#pragma once

#include <string>
#include <vector>

namespace rkctl {

struct IdentityValue {
  IdentityValue(const char *k, const char *l) : key(k), label(l) {}
  const char *key;    // JSON name
  const char *label;  // text label
  std::string value;
  std::string source;     // the file or UCI option it came from, or why there is none
  bool fallback = false;  // the library's built-in value
  bool missing = false;   // no value at all
};

std::vector<IdentityValue> readIdentity();

}  // namespace rkctl
