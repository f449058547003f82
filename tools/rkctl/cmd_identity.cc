// rkctl identity: the device identity getters, each value with its source.
#include <stdio.h>

#include <vector>

#include "args.h"
#include "command.h"
#include "identity.h"
#include "output.h"

namespace rkctl {
namespace {

int run(Invocation &inv) {
  if (!inv.parse({})) return kUsage;
  if (!inv.positional.empty()) return usageError(inv, "takes no arguments");
  std::vector<IdentityValue> values = readIdentity();
  if (inv.json) {
    JsonPtr out(json_object_new_object());
    for (const IdentityValue &v : values) {
      json_object *o = json_object_new_object();
      json_object_object_add(o, "value", v.missing ? nullptr : jsonString(v.value));
      json_object_object_add(o, "source", jsonString(v.source));
      json_object_object_add(o, "fallback", json_object_new_boolean(v.fallback));
      json_object_object_add(out.get(), v.key, o);
    }
    printJson(out.get());
    return kOk;
  }
  for (const IdentityValue &v : values)
    printf("%-20s %-24s [%s]\n", v.label, v.missing ? "-" : v.value.c_str(), v.source.c_str());
  return kOk;
}

}  // namespace

const Command kIdentityCommand = {
    "identity", "", "the device's identity values and where each came from",
    "Calls each identity getter of the library: versions and platform from\n"
    "/etc/version, inner device type and serial number from /etc/factory.dat,\n"
    "device type from the first of /etc/factory.dat, UCI and /etc/version that has\n"
    "it, country, environment and local domain from UCI or the library's built-in\n"
    "values, and the default LAN address chosen by the factory's inner device\n"
    "type. Prints one line each: label, value (- for none), [source].\n"
    "\n"
    "JSON: {KEY: {\"value\": TEXT or null, \"source\", \"fallback\": true|false}...}.\n",
    run};

}  // namespace rkctl
