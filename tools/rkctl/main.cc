// rkctl: asks the device questions through routerkit, one subcommand per
// family of the library.
//
//   rkctl [--json] COMMAND [ARGS...]      rkctl COMMAND --help
//
// Exit codes: 0 success, 1 failed, 2 usage. Plain text on standard output
// by default, one JSON document with --json; errors on standard error.
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "args.h"
#include "command.h"

#ifndef RKCTL_VERSION
#define RKCTL_VERSION "0"
#endif

namespace {

// The subcommands in the order of the list.
const rkctl::Command *const kCommands[] = {
    &rkctl::kStatusCommand, &rkctl::kPingCommand, &rkctl::kResolveCommand, &rkctl::kUciCommand,
    &rkctl::kIdentityCommand, &rkctl::kWeekCommand, &rkctl::kCpuCommand, &rkctl::kDelayCommand,
    &rkctl::kBridgeCommand, &rkctl::kLogCommand, &rkctl::kLuaCommand,
};

void listCommands(FILE *out) {
  fprintf(out,
          "usage: rkctl [--json] COMMAND [ARGS...]\n"
          "       rkctl COMMAND --help\n"
          "\n"
          "Commands:\n");
  for (const rkctl::Command *c : kCommands) fprintf(out, "  %-12s %s\n", c->name, c->summary);
  fprintf(out,
          "\n"
          "--json prints one JSON document instead of text. Exit codes: 0 success,\n"
          "1 failed, 2 usage error. Errors go to standard error.\n");
}

void printCommandHelp(const rkctl::Command &c) {
  printf("usage: rkctl %s %s\n\n%s\n", c.name, c.synopsis, c.summary);
  if (c.help[0]) printf("\n%s", c.help);
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  bool json = false, help = false;
  // --json and --help count anywhere before a "--".
  std::vector<std::string> rest;
  for (size_t i = 0; i < args.size(); i++) {
    if (args[i] == "--") {
      rest.insert(rest.end(), args.begin() + static_cast<long>(i), args.end());
      break;
    }
    if (args[i] == "--json")
      json = true;
    else if (args[i] == "--help" || args[i] == "-h")
      help = true;
    else
      rest.push_back(args[i]);
  }
  if (!rest.empty() && rest[0] == "help") {  // "rkctl help [COMMAND]"
    help = true;
    rest.erase(rest.begin());
  }
  if (rest.empty()) {
    listCommands(help ? stdout : stderr);
    return help ? rkctl::kOk : rkctl::kUsage;
  }
  if (rest[0] == "--version") {
    printf("rkctl %s\n", RKCTL_VERSION);
    return rkctl::kOk;
  }
  for (const rkctl::Command *c : kCommands) {
    if (rest[0] != c->name) continue;
    if (help) {
      printCommandHelp(*c);
      return rkctl::kOk;
    }
    rkctl::Invocation inv;
    inv.command = c;
    inv.json = json;
    inv.raw.assign(rest.begin() + 1, rest.end());
    int rc = c->run(inv);
    fflush(stdout);
    return rc;
  }
  fprintf(stderr, "rkctl: unknown command '%s'\n\n", rest[0].c_str());
  listCommands(stderr);
  return rkctl::kUsage;
}
