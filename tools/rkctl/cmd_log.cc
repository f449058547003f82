// rkctl log: one message through routerkit's logging, to syslog or a file.
#include <string.h>

#include <string>

#include <routerkit/log.h>

#include "rkctl.h"

namespace rkctl {
namespace {

struct Level {
  const char *name;
  int (*emit)(const char *fmt, ...);
  uint32_t needs;  // the stored level at which the message passes
};

const Level kLevels[] = {{"debug", log_debug, 6}, {"trace", log_trace, 5}, {"info", log_info, 4},
                         {"warn", log_warn, 3},   {"error", log_error, 2}, {"fatal", log_fatal, 1}};

int run(Invocation &inv) {
  if (!inv.Parse({{0, "level", true}, {0, "file", true}})) return kUsage;
  if (inv.positional.size() < 2) return UsageError(inv, "expected LEVEL and MESSAGE");
  const Level *level = nullptr;
  for (const Level &l : kLevels)
    if (inv.positional[0] == l.name) level = &l;
  if (!level) return UsageError(inv, "LEVEL is one of debug, trace, info, warn, error, fatal");
  std::string message = inv.positional[1];
  for (size_t i = 2; i < inv.positional.size(); i++) message += " " + inv.positional[i];

  bool sent = true;
  if (inv.Has("file")) {
    // The file family is not filtered by the level; failures go to stderr.
    logfile_printf(inv.Get("file").c_str(), "%s\n", message.c_str());
  } else {
    if (inv.Has("level")) {
      uint64_t v = 0;
      if (!ParseUint(inv.Get("level"), UINT32_MAX, &v)) return UsageError(inv, "--level takes a number");
      log_setLevel(static_cast<uint32_t>(v));
    }
    level->emit("%s", message.c_str());
    // Tested after the call: the first message that passes sets logging up,
    // and /etc/rkctl.debug may then have raised the level.
    sent = log_isLevelEnabled(level->needs) == 1;
  }
  if (inv.json) {
    Json out(json_object_new_object());
    json_object_object_add(out.get(), "level", JsonString(level->name));
    json_object_object_add(out.get(), "sent", json_object_new_boolean(sent));
    PrintJson(out.get());
  }
  return kOk;
}

const Registrar registrar({"log", "[--level N] [--file PATH] LEVEL MESSAGE...",
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
                           80, run});

}  // namespace
}  // namespace rkctl
