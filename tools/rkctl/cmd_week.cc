// rkctl week: weekday masks and their text, both ways.
#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

#include <routerkit/uci_access.h>

#include "args.h"
#include "command.h"
#include "output.h"

namespace rkctl {
namespace {

constexpr size_t kTextSize = 33;  // all seven days and their commas fit

bool parseMask(const std::string &text, uint8_t *mask) {
  uint64_t v = 0;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    char *end = nullptr;
    v = strtoull(text.c_str() + 2, &end, 16);
    if (*end != '\0' || !isxdigit(static_cast<unsigned char>(text[2])) || v > 255) return false;
  } else if (!parseUint(text, 255, &v)) {
    return false;
  }
  *mask = static_cast<uint8_t>(v);
  return true;
}

int run(Invocation &inv) {
  if (!inv.parse({})) return kUsage;
  if (inv.positional.size() != 1) return usageError(inv, "expected one MASK or TEXT");
  const std::string &arg = inv.positional[0];
  uint8_t mask = 0;
  if (!parseMask(arg, &mask)) {
    getWeekFlag(arg.c_str(), &mask);  // unknown words are logged and skipped
    if (mask == 0 && arg.find_first_not_of(", ") != std::string::npos)
      return fail(inv, "no weekday in '%s' (days are Sun, Mon, ... or their first two letters)", arg.c_str());
  }
  char text[kTextSize] = "";
  getWeekString(text, sizeof text, mask);
  if (inv.json) {
    JsonPtr out(json_object_new_object());
    json_object_object_add(out.get(), "mask", json_object_new_int(mask));
    json_object_object_add(out.get(), "text", jsonString(text));
    printJson(out.get());
  } else {
    printf("0x%02x %s\n", mask, text);
  }
  return kOk;
}

}  // namespace

const Command kWeekCommand = {
    "week", "MASK|TEXT", "convert between a weekday mask and its text",
    "MASK is a number from 0 to 255, decimal or 0x hex: bit 0 is Sunday, bit 6\n"
    "Saturday, bit 7 means nothing. TEXT is a list of day names separated by commas\n"
    "or blanks; the first one or two letters decide (Mon, mo, Thursday, SA).\n"
    "Prints the mask in hex and the text as the library writes it:\n"
    "  rkctl week 0x22        ->  0x22 Mon,Fri\n"
    "  rkctl week 'sat sun'   ->  0x41 Sun,Sat\n"
    "Unknown words are skipped (the library logs each); exit 1 when the text holds\n"
    "no day at all.\n"
    "JSON: {\"mask\": N, \"text\": TEXT}.\n",
    run};

}  // namespace rkctl
