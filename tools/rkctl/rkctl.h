// rkctl: what the subcommands share. Each subcommand lives in a cmd_*.cc
// file of its own and registers itself with a static Registrar, so a file
// added to the build is a subcommand of the program.
#pragma once

#include <stdint.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <json-c/json.h>
#include <routerkit/async_dns.h>  /* brings libubox's uloop.h */

namespace rkctl {

// Exit codes, as the platform's own tools use them.
enum Exit { kOk = 0, kFailed = 1, kUsage = 2 };

struct Invocation;

struct Command {
  const char *name;
  const char *synopsis;  // the arguments behind the name, for the usage line
  const char *summary;   // one line for the list of subcommands
  const char *help;      // the rest of "rkctl NAME --help"
  int order;             // place in the list of subcommands
  int (*run)(Invocation &inv);
};

void RegisterCommand(const Command &command);
const std::vector<Command> &Commands();

struct Registrar {
  explicit Registrar(const Command &command) { RegisterCommand(command); }
};

// ---- arguments ----

struct Option {
  char short_name;        // 0 for none
  const char *long_name;  // also the key in Invocation::options
  bool takes_value;
};

struct Invocation {
  const Command *command = nullptr;
  bool json = false;
  std::vector<std::string> raw;          // the words behind the subcommand
  std::multimap<std::string, std::string> options;
  std::vector<std::string> positional;

  // Splits `raw` by the command's options ("-c 3", "-c3", "--count 3",
  // "--count=3"; "--" ends them). Prints a usage error and gives false for
  // an unknown option or a missing value.
  bool Parse(const std::vector<Option> &known);
  bool Has(const std::string &name) const { return options.count(name) > 0; }
  std::string Get(const std::string &name, const std::string &fallback = "") const;
  std::vector<std::string> All(const std::string &name) const;
};

// "rkctl NAME: message" on standard error; kFailed.
int Fail(const Invocation &inv, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// The message, then the usage line; kUsage.
int UsageError(const Invocation &inv, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
// "rkctl NAME: message" on standard error, nothing else.
void Warn(const Invocation &inv, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

// Whole numbers and decimal seconds from the command line; false when the
// text is not one, or out of [min, max].
bool ParseUint(const std::string &text, uint64_t max, uint64_t *out);
bool ParseSeconds(const std::string &text, double min, double max, int *ms);

// ---- output ----

struct JsonPut {
  void operator()(json_object *o) const { json_object_put(o); }
};
using Json = std::unique_ptr<json_object, JsonPut>;

// Prints `value` (pretty, one document) on standard output.
void PrintJson(json_object *value);
json_object *JsonString(const std::string &text);

// A line on standard error that tells how a wait goes, for waits longer
// than about a second. Written only when standard error is a terminal, and
// wiped before anything else is printed.
class Progress {
 public:
  Progress();
  ~Progress() { Clear(); }
  void Update(const std::string &text);
  void Clear();

 private:
  bool tty_;
  bool shown_ = false;
  uint64_t start_;
};

// ---- the event loop ----

// uloop for one subcommand: set up on construction, torn down on
// destruction (after the clients that use it, which the caller ends first).
class Loop {
 public:
  Loop();
  ~Loop();
  bool ok() const { return ok_; }
  // Runs until Stop() or `ms` have passed, calling `every_200ms` (if set)
  // on the way; false when the time ran out. A Stop() before the run makes
  // it return at once. After SIGINT or SIGTERM every run returns at once.
  bool RunFor(int ms, const std::function<void()> &every_200ms = nullptr);
  void Stop();
  bool interrupted() const { return interrupted_; }

 private:
  bool ok_;
  bool stopped_ = false;
  bool interrupted_ = false;
};

// A uloop timer that calls a function.
class Timer {
 public:
  explicit Timer(std::function<void()> fn);
  ~Timer() { Cancel(); }
  Timer(const Timer &) = delete;
  Timer &operator=(const Timer &) = delete;
  void Set(int ms);
  void Cancel();
  bool pending() const { return t_.pending; }

 private:
  static void Fire(uloop_timeout *t);
  uloop_timeout t_{};  // first member: Fire() finds the Timer from it
  std::function<void()> fn_;
};

// ---- addresses ----

// The servers named in /etc/resolv.conf ("nameserver ADDR" lines), in order.
std::vector<std::string> ResolvConfServers(const char *path = "/etc/resolv.conf");
// 2 (AF_INET) or 10 (AF_INET6) for an address literal, else 0; `canonical`
// gets the text as inet_ntop writes it.
int AddressFamily(const std::string &text, std::string *canonical = nullptr);

// ---- DNS, shared by resolve, ping and status ----

// Names and PTRs resolved on the loop through one routerkit DNS client. The
// library has no timer and no retry: the caller's loop gives the deadline.
class Resolver {
 public:
  struct Answer {
    std::vector<std::string> v4, v6;  // in the order of arrival, no repeats
  };

  Resolver();
  ~Resolver();
  Resolver(const Resolver &) = delete;
  Resolver &operator=(const Resolver &) = delete;

  // Creates the client and adds `servers`; the ones the library refuses go
  // to `refused`. False when the client cannot be made.
  bool Open(const std::vector<std::string> &servers, std::vector<std::string> *refused);
  size_t server_count() const { return servers_; }
  bool Lookup(const std::string &name);
  bool LookupPtr(const std::string &ipv4);

  // By name as it came back, in lower case.
  const std::map<std::string, Answer> &answers() const { return answers_; }
  const Answer *Find(const std::string &name) const;
  // PTR answers: address -> host name.
  const std::map<std::string, std::string> &ptr_names() const { return ptr_; }
  // Called after each answer.
  std::function<void()> on_answer;

 private:
  static int OnResult(AsyncDnsContext *ctx, const char *name, DnsResult *result);
  AsyncDnsContext *ctx_ = nullptr;
  size_t servers_ = 0;
  std::map<std::string, Answer> answers_;
  std::map<std::string, std::string> ptr_;
  std::vector<std::string> pending_ptr_;
};

// Resolves `names` until every name has addresses of both families, or has
// some and no more came for a short while, or `timeout_ms` have passed.
// `progress` may be null.
void ResolveAll(Loop &loop, Resolver &resolver, const std::vector<std::string> &names, int timeout_ms,
                Progress *progress);

std::string Lower(std::string text);

}  // namespace rkctl
