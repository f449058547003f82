// rkctl log: one message through routerkit's logging, to syslog or a file.
#include <string>

#include <routerkit/log.h>

#include "args.h"
#include "command.h"
#include "log_level.h"
#include "output.h"

namespace rkctl {
namespace {

int run(Invocation &inv) {
  if (!inv.parse({{0, "level", true}, {0, "file", true}})) return kUsage;
  if (inv.positional.size() < 2) return usageError(inv, "expected LEVEL and MESSAGE");
  const LogLevel *level = findLogLevel(inv.positional[0]);
  if (!level) return usageError(inv, "LEVEL is one of %s", logLevelNames().c_str());
  std::string message = inv.positional[1];
  for (size_t i = 2; i < inv.positional.size(); i++) message += " " + inv.positional[i];

  bool sent = true;
  if (inv.has("file")) {
    // The file family is not filtered by the level; failures go to stderr.
    logfile_printf(inv.get("file").c_str(), "%s\n", message.c_str());
  } else {
    if (inv.has("level")) {
      uint64_t v = 0;
      if (!parseUint(inv.get("level"), UINT32_MAX, &v)) return usageError(inv, "--level takes a number");
      log_setLevel(static_cast<uint32_t>(v));
    }
    level->emit("%s", message.c_str());
    // Tested after the call: the first message that passes sets logging up,
    // and /etc/rkctl.debug may then have raised the level.
    sent = log_isLevelEnabled(passingLevel(*level)) == 1;
  }
  if (inv.json) {
    JsonPtr out(json_object_new_object());
    json_object_object_add(out.get(), "level", jsonString(level->name));
    json_object_object_add(out.get(), "sent", json_object_new_boolean(sent));
    printJson(out.get());
  }
  return kOk;
}

}  // namespace

const Command kLogCommand = {
    "log", "[--level N] [--file PATH] LEVEL MESSAGE...",
    "send a message to syslog or a log file",
    "LEVEL is debug, trace, info, warn, error or fatal. The message goes to syslog\n"
    "(facility LOCAL0, ident rkctl) when the process's level lets it pass: 4 at\n"
    "start, so debug and trace are dropped unless /etc/rkctl.debug exists or\n"
    "--level N sets the level first (6 lets everything pass). A dropped message is\n"
    "no error.\n"
    "\n"
    "  --level N     set the level before sending\n"
    "  --file PATH   append the message and a newline to PATH instead, with a\n"
    "                timestamp and the process id, whatever the level\n"
    "\n"
    "JSON: {\"level\": LEVEL, \"sent\": true|false}.\n",
    run};

}  // namespace rkctl
