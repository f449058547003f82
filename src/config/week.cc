// Weekday masks: one byte, bit 0 Sunday to bit 6 Saturday, and the
// comma-separated text UCI keeps them as.
#include <routerkit/uci_access.h>

#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include <array>

#include "diag/logmsg.h"

namespace rk::config {
namespace {

constexpr size_t kDayCount = 7;
constexpr const char *kDays[kDayCount] = {"Sun,", "Mon,", "Tue,", "Wed,", "Thu,", "Fri,", "Sat,"};
constexpr int kDayTextLength = 4;  // "Sun," and its six siblings
// Tokens shorter than this name no day and are dropped without a message.
constexpr ptrdiff_t kMinTokenLength = 2;
// The option text of uciSetWeek and uciGetWeek. Writing offers one byte less
// than the buffer; either way all seven days (27 characters) fit.
constexpr size_t kWeekTextSize = 34;
using WeekText = std::array<char, kWeekTextSize>;

// The bit of the day `token` names by its first letter or two; 0, logged,
// for no day. `token` points into the caller's text: the message shows the
// rest of the text from this token on.
uint8_t getWeekValue(const char *token) noexcept {
  const char second = static_cast<char>(token[1] & ~0x20);
  switch (token[0]) {
    case 'M': case 'm': return 2;
    case 'W': case 'w': return 8;
    case 'F': case 'f': return 32;
    case 'T': case 't':
      if (second == 'U') return 4;
      if (second == 'H') return 16;
      break;
    case 'S': case 's':
      if (second == 'A') return 64;
      if (second == 'U') return 1;
      break;
    default:
      break;
  }
  RK_LOG(error, "error week(%s)", token);
  return 0;
}

// Days are written whole: one goes in only while its text and a NUL still
// fit, and the last comma becomes the terminator.
int weekString(char *out, int size, uint8_t mask) noexcept {
  int pos = 0;
  if (size > kDayTextLength) {
    for (size_t day = 0; day < kDayCount; ++day) {
      if (!(mask & (1u << day))) continue;
      snprintf(out + pos, static_cast<size_t>(size - pos), "%s", kDays[day]);
      pos += kDayTextLength;
      if (pos + kDayTextLength >= size) break;  // a further day and its NUL would not fit
    }
  }
  if (pos == 0) {
    out[0] = '\0';
    return 0;
  }
  out[pos - 1] = '\0';
  return pos;
}

void addWeekDays(const char *text, uint8_t *out) noexcept {
  const char *start = text;
  for (const char *p = text;; ++p) {
    if (*p == ',' || *p == ' ' || *p == '\0') {
      if (p - start >= kMinTokenLength) *out |= getWeekValue(start);
      if (*p == '\0') break;
      start = p + 1;
    }
  }
}

int setWeek(uci_context *ctx, uci_package *package, uci_section *section, const char *option,
            uint8_t mask) noexcept {
  WeekText text{};
  weekString(text.data(), static_cast<int>(text.size() - 1), mask);
  return uciSetString(ctx, package, section, option, text.data());
}

int getWeek(uci_context *ctx, uci_section *section, const char *option, uint8_t *out) noexcept {
  WeekText text{};
  if (uciGetString(ctx, section, option, text.data(), static_cast<int>(text.size())) != 0)
    return -1;
  printf("week=%s\n", text.data());
  return getWeekFlag(text.data(), out);
}

}  // namespace
}  // namespace rk::config

extern "C" {

int getWeekString(char *out, int size, uint8_t mask) {
  if (!out || size <= 0) return -1;
  return rk::config::weekString(out, size, mask);
}

int getWeekFlag(const char *text, uint8_t *out) {
  if (!text || !out) return -1;
  rk::config::addWeekDays(text, out);
  return 0;
}

int uciSetWeek(struct uci_context *ctx, struct uci_package *package, struct uci_section *section,
               const char *option, uint8_t mask) {
  return rk::config::setWeek(ctx, package, section, option, mask);
}

int uciGetWeek(struct uci_context *ctx, struct uci_section *section, const char *option,
               uint8_t *out) {
  return rk::config::getWeek(ctx, section, option, out);
}

}  // extern "C"
