// One value at a time from the firmware's key/value files (/etc/version,
// /etc/factory.dat) and from the factory tool. Nothing is kept between calls:
// each call opens, reads and closes what it needs, on the caller's stack.
#include <routerkit/config.h>

#include <stdio.h>
#include <string.h>

#include <array>

#include "diag/logmsg.h"
#include "common/raii.h"

namespace rk {
namespace {

// The reader sees a file in pieces of at most 63 bytes (one fgets into this
// buffer), and each piece is parsed as if it were a whole line: a longer
// line's value is cut at the end of its piece, and its remainder is tried as
// a line of its own.
constexpr size_t kLineSize = 64;
constexpr size_t kCommandSize = 256;

inline bool is_blank(char c) noexcept { return c == ' ' || c == '\t'; }

inline const char *skip_blanks(const char *p) noexcept {
  while (is_blank(*p)) ++p;
  return p;
}

// The value behind "key", blanks, '=' or ':', blanks in one piece, or null
// when the piece does not carry the key.
const char *value_in_piece(const char *piece, const char *key, size_t key_len) noexcept {
  if (strncmp(piece, key, key_len) != 0) return nullptr;
  // strncmp matched key_len bytes, none of them NUL, so the piece is at
  // least that long.
  const char *p = skip_blanks(piece + key_len);
  if (*p != '=' && *p != ':') return nullptr;
  return skip_blanks(p + 1);
}

// Copies the value up to NUL, LF or CR, at most size - 1 bytes, then drops
// trailing blanks. Cutting comes before trimming, so a cut value may lose the
// blanks in front of the cut too. Returns the length kept.
int store_value(const char *value, char *out, int size) noexcept {
  int n = 0;
  while (n < size - 1 && value[n] != '\0' && value[n] != '\n' && value[n] != '\r') {
    out[n] = value[n];
    ++n;
  }
  while (n > 0 && is_blank(out[n - 1])) --n;
  out[n] = '\0';
  return n;
}

// The first piece that carries the key ends the search, whatever its value
// looks like. 0 with `out` untouched when none does.
int read_value(FILE *file, const char *key, char *out, int size) noexcept {
  const size_t key_len = strlen(key);
  std::array<char, kLineSize> piece;
  while (fgets(piece.data(), piece.size(), file)) {
    if (const char *value = value_in_piece(piece.data(), key, key_len))
      return store_value(value, out, size);
  }
  return 0;
}

inline bool is_factory_trim(char c) noexcept {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// The tool prints "key=value\n". Only the first '=' of the whole output
// counts, and only the rest of that line is taken.
int read_factory_output(FILE *stream, char *out, int size) noexcept {
  int c;
  while ((c = fgetc(stream)) != EOF && c != '=') {
  }
  if (!fgets(out, size, stream)) return -1;
  // Trailing blanks, tabs, LF and CR go, back to index 1: a value of a single
  // byte is left as it is, even an LF.
  for (size_t i = strlen(out); i >= 2 && is_factory_trim(out[i - 1]); --i) out[i - 1] = '\0';
  return 0;
}

}  // namespace
}  // namespace rk

extern "C" {

int getValueFromFile(const char *path, const char *key, char *out, int size) {
  if (!path || !key || !out || size <= 0) {
    RK_LOG(error, "getVersionInfoFromFile value is NULL");
    return -1;
  }
  rk::FilePtr file(fopen(path, "r"));
  if (!file) {
    RK_LOG(error, "open %s for read key=%s ERROR", path, key);
    return -1;
  }
  return rk::read_value(file.get(), key, out, size);
}

int getFactoryValue(const char *key, char *out, int size) {
  if (!key || key[0] == '\0' || !out || size <= 0) return -1;
  // The key goes onto the shell's command line as it is: a plain word.
  std::array<char, rk::kCommandSize> command{};
  snprintf(command.data(), command.size(), "/usr/bin/factory show %s", key);
  FILE *stream = popen(command.data(), "r");
  if (!stream) return -1;
  // The tool's exit status is not looked at: its output alone decides.
  const int result = rk::read_factory_output(stream, out, size);
  pclose(stream);
  return result;
}

int getTheProvinceCode(char *out, int size) {
  const int result = getFactoryValue("provinceCode", out, size);
  if (result != 0) out[0] = '\0';
  return result;
}

}  // extern "C"
