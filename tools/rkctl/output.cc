// rkctl: JSON output and the progress line.
#include "output.h"

#include <stdio.h>
#include <unistd.h>

#include <routerkit/log.h>

namespace rkctl {
namespace {

// A wait shorter than this shows no progress line.
constexpr uint64_t kQuietMs = 1000;

}  // namespace

void printJson(json_object *value) {
  printf("%s\n", json_object_to_json_string_ext(value, JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED |
                                                           JSON_C_TO_STRING_NOSLASHESCAPE));
}

json_object *jsonString(const std::string &text) {
  return json_object_new_string_len(text.data(), static_cast<int>(text.size()));
}

Progress::Progress() : tty_(isatty(STDERR_FILENO) == 1), start_(GetTickCount()) {}

void Progress::update(const std::string &text) {
  uint64_t elapsed = GetTickCount() - start_;
  if (!tty_ || elapsed < kQuietMs) return;
  fprintf(stderr, "\r%s, %.1f s\033[K", text.c_str(), static_cast<double>(elapsed) / 1000);
  fflush(stderr);
  shown_ = true;
}

void Progress::clear() {
  if (!shown_) return;
  fputs("\r\033[K", stderr);
  fflush(stderr);
  shown_ = false;
}

}  // namespace rkctl
