// Weekday masks: one byte, bit 0 Sunday to bit 6 Saturday, and the
// comma-separated text UCI keeps them as.
#include <routerkit/uci_access.h>

#include <stdio.h>
#include <string.h>

#include "diag/logmsg.h"

namespace {

constexpr const char *kDays[7] = {"Sun,", "Mon,", "Tue,", "Wed,", "Thu,", "Fri,", "Sat,"};

// The bit of the day `token` names by its first letter or two; 0, logged,
// for no day. `token` points into the caller's text: the message shows the
// rest of the text from this token on.
uint8_t getWeekValue(const char *token) {
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

}  // namespace

extern "C" {

int getWeekString(char *out, int size, uint8_t mask) {
  if (!out || size <= 0) return -1;
  int pos = 0;
  if (size > 4) {
    for (int day = 0; day < 7; ++day) {
      if (!(mask & (1u << day))) continue;
      snprintf(out + pos, static_cast<size_t>(size - pos), "%s", kDays[day]);
      pos += 4;
      if (pos - 4 + 8 >= size) break;  // a further day and its NUL would not fit
    }
  }
  if (pos == 0) {
    out[0] = '\0';
    return 0;
  }
  out[pos - 1] = '\0';
  return pos;
}

int getWeekFlag(const char *text, uint8_t *out) {
  if (!text || !out) return -1;
  const char *start = text;
  for (const char *p = text;; ++p) {
    if (*p == ',' || *p == ' ' || *p == '\0') {
      if (p - start >= 2) *out |= getWeekValue(start);
      if (*p == '\0') break;
      start = p + 1;
    }
  }
  return 0;
}

int uciSetWeek(struct uci_context *ctx, struct uci_package *package, struct uci_section *section,
               const char *option, uint8_t mask) {
  char text[34] = {0};
  getWeekString(text, 33, mask);
  return uciSetString(ctx, package, section, option, text);
}

int uciGetWeek(struct uci_context *ctx, struct uci_section *section, const char *option,
               uint8_t *out) {
  char text[34] = {0};
  if (uciGetString(ctx, section, option, text, sizeof text) != 0) return -1;
  printf("week=%s\n", text);
  return getWeekFlag(text, out);
}

}  // extern "C"
