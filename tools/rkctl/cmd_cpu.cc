// rkctl cpu: CPU usage over intervals, from the library's sampler.
#include <stdio.h>
#include <time.h>

#include <string>

#include <routerkit/log.h>

#include "args.h"
#include "command.h"
#include "output.h"

namespace rkctl {
namespace {

void sleepMs(int ms) {
  timespec t{ms / 1000, static_cast<long>(ms % 1000) * 1000000};
  while (nanosleep(&t, &t) != 0) {
  }
}

int run(Invocation &inv) {
  if (!inv.parse({{0, "interval", true}, {0, "count", true}})) return kUsage;
  uint64_t interval = 1000, count = 1;
  if (inv.has("interval") && (!parseUint(inv.get("interval"), 3600000, &interval) || interval == 0))
    return usageError(inv, "--interval takes milliseconds from 1 to 3600000");
  if (inv.has("count") && (!parseUint(inv.get("count"), 100000, &count) || count == 0))
    return usageError(inv, "--count takes a number from 1 to 100000");
  if (!inv.positional.empty()) return usageError(inv, "takes no arguments");

  CpuTimes times = {};
  getCPUUsageValue(&times);  // the share since boot: only the counters are wanted
  JsonPtr samples(json_object_new_array());
  for (uint64_t i = 0; i < count; i++) {
    sleepMs(static_cast<int>(interval));
    unsigned permille = getCPUUsageValue(&times);
    if (inv.json) {
      json_object_array_add(samples.get(), json_object_new_int(static_cast<int>(permille)));
    } else {
      printf("%u.%u%%\n", permille / 10, permille % 10);
      fflush(stdout);
    }
  }
  if (inv.json) {
    JsonPtr out(json_object_new_object());
    json_object_object_add(out.get(), "interval_ms", json_object_new_int64(static_cast<int64_t>(interval)));
    json_object_object_add(out.get(), "permille", samples.release());
    printJson(out.get());
  }
  return kOk;
}

}  // namespace

const Command kCpuCommand = {
    "cpu", "[--interval MS] [--count N]", "CPU usage over intervals",
    "Samples the CPU counters of /proc/stat with the library's sampler N times\n"
    "(default 1), MS apart (default 1000), and prints the busy share of each\n"
    "interval in percent with one decimal (the library counts per mille; time\n"
    "waiting for I/O counts as busy). A line comes after each interval.\n"
    "JSON: {\"interval_ms\": MS, \"permille\": [N...]}.\n",
    run};

}  // namespace rkctl
