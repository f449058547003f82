// The internet delay record: a small text file that every process linked
// with the library reads and rewrites in place.
#include <routerkit/network_helper.h>

#include <ctype.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include "common/raii.h"

namespace rk {
namespace {

constexpr char kStatePath[] = "/var/run/internet.state";
constexpr int kMaxRecords = 5;
constexpr size_t kLabelSize = 16;
constexpr size_t kMaxDigits = 10;                          // 4294967295
constexpr size_t kMaxLine = kLabelSize - 1 + 1 + kMaxDigits;  // newline not counted

struct InternetDelayRecord {
  char label[kLabelSize];
  uint32_t delay;
};

// One line as a write makes it, "<label> <digits>", or false.
bool parse_record(const char *line, size_t len, InternetDelayRecord &record) noexcept {
  const auto *blank = static_cast<const char *>(memchr(line, ' ', len));
  if (blank == nullptr) return false;
  const size_t label_len = static_cast<size_t>(blank - line);
  const size_t digits = len - label_len - 1;
  if (label_len == 0 || label_len >= kLabelSize || digits == 0 || digits > kMaxDigits) return false;
  for (size_t i = 0; i < label_len; ++i) {
    if (line[i] == '\0' || isspace(static_cast<unsigned char>(line[i]))) return false;
  }
  uint64_t value = 0;
  for (const char *p = blank + 1; p < line + len; ++p) {
    if (*p < '0' || *p > '9') return false;
    value = value * 10 + static_cast<uint64_t>(*p - '0');
  }
  if (value > UINT32_MAX) return false;
  memcpy(record.label, line, label_len);
  record.label[label_len] = '\0';
  record.delay = static_cast<uint32_t>(value);
  return true;
}

// The first records of the file, newest first, and their number: none when
// the file cannot be opened. A line too long for a record is passed over whole.
int loadInternetDelays(InternetDelayRecord (&records)[kMaxRecords]) noexcept {
  FilePtr file(fopen(kStatePath, "r"));
  if (!file) return 0;
  int count = 0;
  char line[kMaxLine];
  size_t len = 0;
  bool too_long = false;
  while (count < kMaxRecords) {
    const int c = getc(file.get());
    if (c != '\n' && c != EOF) {
      if (len < sizeof line)
        line[len++] = static_cast<char>(c);
      else
        too_long = true;
      continue;
    }
    if (!too_long && parse_record(line, len, records[count])) ++count;
    if (c == EOF) break;
    len = 0;
    too_long = false;
  }
  return count;
}

}  // namespace
}  // namespace rk

extern "C" {

int setInternetDelay(const char *label, uint32_t delay) {
  rk::InternetDelayRecord old[rk::kMaxRecords];
  const int count = rk::loadInternetDelays(old);
  rk::FilePtr file(fopen(rk::kStatePath, "w"));
  if (!file) return -1;
  fprintf(file.get(), "%s %" PRIu32 "\n", label, delay);
  for (int i = 0; i < count; ++i) fprintf(file.get(), "%s %" PRIu32 "\n", old[i].label, old[i].delay);
  return 0;
}

int getInternetDelay(uint32_t *delay) {
  rk::InternetDelayRecord records[rk::kMaxRecords];
  const int count = rk::loadInternetDelays(records);
  if (count == 0) return -1;
  uint32_t total = 0;  // wraps at 32 bits
  for (int i = 0; i < count; ++i) total += records[i].delay;
  *delay = total / static_cast<uint32_t>(count);
  return 0;
}

int clearInternetDelay(void) {
  rk::FilePtr file(fopen(rk::kStatePath, "w"));
  return 0;
}

}  // extern "C"
