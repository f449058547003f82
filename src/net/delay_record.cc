// The internet delay record: a small text file that every process linked
// with the library reads and rewrites in place.
#include <routerkit/network_helper.h>

#include <ctype.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include "common/raii.h"

namespace rk::net {
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
bool parseRecord(const char *line, size_t len, InternetDelayRecord &record) noexcept {
  const auto *blank = static_cast<const char *>(memchr(line, ' ', len));
  if (blank == nullptr) return false;
  const size_t labelLength = static_cast<size_t>(blank - line);
  const size_t digits = len - labelLength - 1;
  if (labelLength == 0 || labelLength >= kLabelSize || digits == 0 || digits > kMaxDigits) return false;
  for (size_t i = 0; i < labelLength; ++i) {
    if (line[i] == '\0' || isspace(static_cast<unsigned char>(line[i]))) return false;
  }
  uint64_t value = 0;
  for (const char *p = blank + 1; p < line + len; ++p) {
    if (*p < '0' || *p > '9') return false;
    value = value * 10 + static_cast<uint64_t>(*p - '0');
  }
  if (value > UINT32_MAX) return false;
  memcpy(record.label, line, labelLength);
  record.label[labelLength] = '\0';
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
  bool tooLong = false;
  while (count < kMaxRecords) {
    const int c = getc(file.get());
    if (c != '\n' && c != EOF) {
      if (len < sizeof line)
        line[len++] = static_cast<char>(c);
      else
        tooLong = true;
      continue;
    }
    if (!tooLong && parseRecord(line, len, records[count])) ++count;
    if (c == EOF) break;
    len = 0;
    tooLong = false;
  }
  return count;
}

// The new record first, then the old ones; -1 when the file can't be written.
int storeDelay(const char *label, uint32_t delay) noexcept {
  InternetDelayRecord old[kMaxRecords];
  const int count = loadInternetDelays(old);
  FilePtr file(fopen(kStatePath, "w"));
  if (!file) return -1;
  fprintf(file.get(), "%s %" PRIu32 "\n", label, delay);
  for (int i = 0; i < count; ++i) fprintf(file.get(), "%s %" PRIu32 "\n", old[i].label, old[i].delay);
  return 0;
}

// The mean of the records, or -1 when there are none.
int averageDelay(uint32_t *delay) noexcept {
  InternetDelayRecord records[kMaxRecords];
  const int count = loadInternetDelays(records);
  if (count == 0) return -1;
  uint32_t total = 0;  // wraps at 32 bits
  for (int i = 0; i < count; ++i) total += records[i].delay;
  *delay = total / static_cast<uint32_t>(count);
  return 0;
}

// Truncates the file, or leaves it as it is when it can't be opened.
void clearDelays() noexcept { FilePtr file(fopen(kStatePath, "w")); }

}  // namespace
}  // namespace rk::net

extern "C" {

int setInternetDelay(const char *label, uint32_t delay) { return rk::net::storeDelay(label, delay); }

int getInternetDelay(uint32_t *delay) { return rk::net::averageDelay(delay); }

int clearInternetDelay(void) {
  rk::net::clearDelays();
  return 0;
}

}  // extern "C"
