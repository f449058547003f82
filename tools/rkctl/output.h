// rkctl: what goes to the terminal besides plain lines: JSON documents and
// the progress line of long waits.
#pragma once

#include <stdint.h>

#include <memory>
#include <string>

#include <json-c/json.h>

namespace rkctl {

struct JsonDeleter {
  void operator()(json_object *o) const { json_object_put(o); }
};
using JsonPtr = std::unique_ptr<json_object, JsonDeleter>;

// Prints `value` (pretty, one document) on standard output.
void printJson(json_object *value);
json_object *jsonString(const std::string &text);

// A line on standard error that tells how a wait goes, for waits longer
// than about a second. Written only when standard error is a terminal, and
// wiped before anything else is printed.
class Progress {
 public:
  Progress();
  ~Progress() { clear(); }
  void update(const std::string &text);
  void clear();

 private:
  bool tty_;
  bool shown_ = false;
  uint64_t start_;
};

}  // namespace rkctl
