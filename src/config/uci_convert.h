// Text to value for both families of typed UCI readers: one sscanf
// conversion, and the one rule for booleans.
#pragma once

#include <stdio.h>
#include <string.h>

namespace rk::config {

// Converts `text` with one sscanf `format` into a Raw and stores it in `out`
// as T. A text that holds no number gives -1, or 0 with `out` untouched when
// `lenient` (the readers that report success for any readable text).
template <typename Raw, typename T>
int scanNumber(const char *text, const char *format, T *out, bool lenient = false) noexcept {
  Raw value = 0;
  if (sscanf(text, format, &value) != 1) return lenient ? 0 : -1;
  *out = static_cast<T>(value);
  return 0;
}

// The texts a boolean is written as.
constexpr char kTrueText[] = "true";
constexpr char kFalseText[] = "false";

// "true" and "1" are true; every other text is false.
inline bool isTrue(const char *text) noexcept {
  return strcmp(text, kTrueText) == 0 || strcmp(text, "1") == 0;
}

}  // namespace rk::config
