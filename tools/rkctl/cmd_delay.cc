// rkctl delay: the internet delay record shared by the device's daemons.
#include <ctype.h>
#include <stdio.h>

#include <string>

#include <routerkit/network_helper.h>

#include "args.h"
#include "command.h"
#include "output.h"

namespace rkctl {
namespace {

constexpr size_t kMaxLabelLength = 15;

// The record's lines are "LABEL VALUE": a label is 1 to 15 characters
// without white space, or the record cannot be read back.
bool validLabel(const std::string &label) {
  if (label.empty() || label.size() > kMaxLabelLength) return false;
  for (char c : label)
    if (isspace(static_cast<unsigned char>(c)) || !isprint(static_cast<unsigned char>(c))) return false;
  return true;
}

int run(Invocation &inv) {
  if (!inv.parse({})) return kUsage;
  const std::vector<std::string> &pos = inv.positional;
  const std::string what = pos.empty() ? "" : pos[0];
  if (what == "add") {
    uint64_t value = 0;
    if (pos.size() != 3) return usageError(inv, "add takes LABEL VALUE");
    if (!validLabel(pos[1])) return usageError(inv, "a label has 1 to 15 characters and no blanks");
    if (!parseUint(pos[2], UINT32_MAX, &value)) return usageError(inv, "VALUE is a number from 0 to 4294967295");
    if (setInternetDelay(pos[1].c_str(), static_cast<uint32_t>(value)) != 0)
      return fail(inv, "cannot write /var/run/internet.state");
  } else if (what == "show" && pos.size() == 1) {
    uint32_t mean = 0;
    if (getInternetDelay(&mean) != 0) return fail(inv, "no delay recorded");
    if (inv.json) {
      JsonPtr out(json_object_new_object());
      json_object_object_add(out.get(), "mean", json_object_new_int64(mean));
      printJson(out.get());
    } else {
      printf("%u\n", mean);
    }
  } else if (what == "clear" && pos.size() == 1) {
    clearInternetDelay();
  } else {
    return usageError(inv, "expected add LABEL VALUE, show or clear");
  }
  return kOk;
}

}  // namespace

const Command kDelayCommand = {
    "delay", "add LABEL VALUE | show | clear", "the internet delay record",
    "The record is one file, /var/run/internet.state, shared by every process\n"
    "linked with the library, newest value first.\n"
    "  add LABEL VALUE   add a value (LABEL: 1 to 15 characters, no blanks; the\n"
    "                    unit is the caller's, daemons record milliseconds)\n"
    "  show              print the mean of the newest five values; exit 1 when\n"
    "                    nothing is recorded\n"
    "  clear             empty the record\n"
    "JSON (show): {\"mean\": N}.\n",
    run};

}  // namespace rkctl
