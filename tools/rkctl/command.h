// rkctl: the subcommands and the exit codes they share. Each subcommand is a
// Command object of its own cmd_*.cc; main.cc lists them.
#pragma once

namespace rkctl {

// Exit codes, as the platform's own tools use them.
enum Exit { kOk = 0, kFailed = 1, kUsage = 2 };

struct Invocation;

struct Command {
  const char *name;
  const char *synopsis;  // the arguments behind the name, for the usage line
  const char *summary;   // one line for the list of subcommands
  const char *help;      // the rest of "rkctl NAME --help"
  int (*run)(Invocation &inv);
};

extern const Command kBridgeCommand;
extern const Command kCpuCommand;
extern const Command kDelayCommand;
extern const Command kIdentityCommand;
extern const Command kLogCommand;
extern const Command kLuaCommand;
extern const Command kPingCommand;
extern const Command kResolveCommand;
extern const Command kStatusCommand;
extern const Command kUciCommand;
extern const Command kWeekCommand;

}  // namespace rkctl
