// One value at a time from the firmware's key/value files (/etc/version,
// /etc/factory.dat) and from the factory tool. Nothing is kept between calls:
// each call opens, reads and closes what it needs, on the caller's stack.
#include <routerkit/config.h>

#include <stdio.h>
#include <string.h>

#include <array>

#include "common/raii.h"
#include "diag/logmsg.h"

namespace rk::config {
namespace {

// The reader sees a file in pieces of at most 63 bytes (one fgets into this
// buffer), and each piece is parsed as if it were a whole line: a longer
// line's value is cut at the end of its piece, and its remainder is tried as
// a line of its own.
constexpr size_t kLineSize = 64;
constexpr size_t kFactoryCommandSize = 256;
// A file that cannot be opened is logged as the entry's own failure.
constexpr char kFileReaderOrigin[] = "getValueFromFile";

inline bool isBlank(char c) noexcept { return c == ' ' || c == '\t'; }

inline const char *skipBlanks(const char *p) noexcept {
  while (isBlank(*p)) ++p;
  return p;
}

// The value behind "key", blanks, '=' or ':', blanks in one piece, or null
// when the piece does not carry the key.
const char *valueInPiece(const char *piece, const char *key, size_t keyLength) noexcept {
  if (strncmp(piece, key, keyLength) != 0) return nullptr;
  // strncmp matched keyLength bytes, none of them NUL, so the piece is at
  // least that long.
  const char *p = skipBlanks(piece + keyLength);
  if (*p != '=' && *p != ':') return nullptr;
  return skipBlanks(p + 1);
}

// Copies the value up to NUL, LF or CR, at most size - 1 bytes, then drops
// trailing blanks. Cutting comes before trimming, so a cut value may lose the
// blanks in front of the cut too. Returns the length kept.
int storeValue(const char *value, char *out, int size) noexcept {
  int n = 0;
  while (n < size - 1 && value[n] != '\0' && value[n] != '\n' && value[n] != '\r') {
    out[n] = value[n];
    ++n;
  }
  while (n > 0 && isBlank(out[n - 1])) --n;
  out[n] = '\0';
  return n;
}

// The first piece that carries the key ends the search, whatever its value
// looks like. 0 with `out` untouched when none does.
int readValue(FILE *file, const char *key, char *out, int size) noexcept {
  const size_t keyLength = strlen(key);
  std::array<char, kLineSize> piece;
  while (fgets(piece.data(), piece.size(), file)) {
    if (const char *value = valueInPiece(piece.data(), key, keyLength))
      return storeValue(value, out, size);
  }
  return 0;
}

inline bool isFactoryTrim(char c) noexcept {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// The tool prints "key=value\n". Only the first '=' of the whole output
// counts, and only the rest of that line is taken.
int readFactoryOutput(FILE *stream, char *out, int size) noexcept {
  int c;
  while ((c = fgetc(stream)) != EOF && c != '=') {
  }
  if (!fgets(out, size, stream)) return -1;
  // Trailing blanks, tabs, LF and CR go, back to index 1: a value of a single
  // byte is left as it is, even an LF.
  for (size_t i = strlen(out); i >= 2 && isFactoryTrim(out[i - 1]); --i) out[i - 1] = '\0';
  return 0;
}

int valueFromFile(const char *path, const char *key, char *out, int size) noexcept {
  FilePtr file(fopen(path, "r"));
  if (!file) {
    RK_LOG_AS(error, kFileReaderOrigin, "open %s for read key=%s ERROR", path, key);
    return -1;
  }
  return readValue(file.get(), key, out, size);
}

// The key goes onto the shell's command line as it is: a plain word.
int factoryToolValue(const char *key, char *out, int size) noexcept {
  std::array<char, kFactoryCommandSize> command{};
  snprintf(command.data(), command.size(), "/usr/bin/factory show %s", key);
  FILE *stream = popen(command.data(), "r");
  if (!stream) return -1;
  // The tool's exit status is not looked at: its output alone decides.
  const int result = readFactoryOutput(stream, out, size);
  pclose(stream);
  return result;
}

}  // namespace
}  // namespace rk::config

extern "C" {

int getValueFromFile(const char *path, const char *key, char *out, int size) {
  if (!path || !key || !out || size <= 0) {
    RK_LOG(error, "getVersionInfoFromFile value is NULL");
    return -1;
  }
  return rk::config::valueFromFile(path, key, out, size);
}

int getFactoryValue(const char *key, char *out, int size) {
  if (!key || key[0] == '\0' || !out || size <= 0) return -1;
  return rk::config::factoryToolValue(key, out, size);
}

int getTheProvinceCode(char *out, int size) {
  const int result = getFactoryValue("provinceCode", out, size);
  if (result != 0) out[0] = '\0';
  return result;
}

}  // extern "C"
