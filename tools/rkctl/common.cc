// rkctl: argument parsing, messages, output, the loop and the DNS helper
// that several subcommands use.
#include "rkctl.h"

#include <arpa/inet.h>
#include <ctype.h>
#include <errno.h>
#include <math.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include <routerkit/async_dns.h>
#include <routerkit/log.h>

namespace rkctl {
namespace {

std::vector<Command> &registry() {
  static std::vector<Command> commands;
  return commands;
}

void vmessage(const Invocation &inv, const char *fmt, va_list ap) {
  fprintf(stderr, "rkctl %s: ", inv.command ? inv.command->name : "");
  vfprintf(stderr, fmt, ap);
  fputc('\n', stderr);
}

// Every Resolver on the loop, found again from the context the library
// hands to the callback (the callback has no argument of the caller's).
std::map<AsyncDnsContext *, Resolver *> &resolvers() {
  static std::map<AsyncDnsContext *, Resolver *> all;
  return all;
}

void add_unique(std::vector<std::string> *list, const std::string &value) {
  if (std::find(list->begin(), list->end(), value) == list->end()) list->push_back(value);
}

}  // namespace

void RegisterCommand(const Command &command) {
  auto &all = registry();
  all.insert(std::upper_bound(all.begin(), all.end(), command,
                              [](const Command &a, const Command &b) { return a.order < b.order; }),
             command);
}

const std::vector<Command> &Commands() { return registry(); }

// ---- arguments ----

bool Invocation::Parse(const std::vector<Option> &known) {
  options.clear();
  positional.clear();
  for (size_t i = 0; i < raw.size(); i++) {
    const std::string &word = raw[i];
    if (word == "--") {
      positional.insert(positional.end(), raw.begin() + static_cast<long>(i) + 1, raw.end());
      break;
    }
    if (word.size() < 2 || word[0] != '-') {
      positional.push_back(word);
      continue;
    }
    const Option *found = nullptr;
    std::string value;
    bool has_value = false;
    if (word[1] == '-') {
      size_t eq = word.find('=');
      std::string name = word.substr(2, eq == std::string::npos ? std::string::npos : eq - 2);
      for (const Option &o : known)
        if (name == o.long_name) found = &o;
      if (found && eq != std::string::npos) {
        value = word.substr(eq + 1);
        has_value = true;
      }
    } else {
      for (const Option &o : known)
        if (o.short_name == word[1]) found = &o;
      if (found && word.size() > 2) {
        value = word.substr(2);
        has_value = true;
      }
    }
    if (!found) {
      UsageError(*this, "unknown option %s", word.c_str());
      return false;
    }
    if (!found->takes_value) {
      if (has_value) {
        UsageError(*this, "%s takes no value", word.c_str());
        return false;
      }
    } else if (!has_value) {
      if (i + 1 >= raw.size()) {
        UsageError(*this, "%s needs a value", word.c_str());
        return false;
      }
      value = raw[++i];
    }
    options.emplace(found->long_name, value);
  }
  return true;
}

std::string Invocation::Get(const std::string &name, const std::string &fallback) const {
  auto range = options.equal_range(name);
  return range.first == range.second ? fallback : std::prev(range.second)->second;
}

std::vector<std::string> Invocation::All(const std::string &name) const {
  std::vector<std::string> out;
  auto range = options.equal_range(name);
  for (auto it = range.first; it != range.second; ++it) out.push_back(it->second);
  return out;
}

int Fail(const Invocation &inv, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vmessage(inv, fmt, ap);
  va_end(ap);
  return kFailed;
}

void Warn(const Invocation &inv, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vmessage(inv, fmt, ap);
  va_end(ap);
}

int UsageError(const Invocation &inv, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vmessage(inv, fmt, ap);
  va_end(ap);
  if (inv.command)
    fprintf(stderr, "usage: rkctl %s %s\n(rkctl %s --help tells more)\n", inv.command->name, inv.command->synopsis,
            inv.command->name);
  return kUsage;
}

bool ParseUint(const std::string &text, uint64_t max, uint64_t *out) {
  if (text.empty() || !isdigit(static_cast<unsigned char>(text[0]))) return false;
  errno = 0;
  char *end = nullptr;
  unsigned long long v = strtoull(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || v > max) return false;
  *out = v;
  return true;
}

bool ParseSeconds(const std::string &text, double min, double max, int *ms) {
  if (text.empty() || !(isdigit(static_cast<unsigned char>(text[0])) || text[0] == '.')) return false;
  char *end = nullptr;
  double v = strtod(text.c_str(), &end);
  if (*end != '\0' || !(v >= min && v <= max)) return false;
  *ms = static_cast<int>(lround(v * 1000));
  return true;
}

// ---- output ----

void PrintJson(json_object *value) {
  printf("%s\n", json_object_to_json_string_ext(value, JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED |
                                                           JSON_C_TO_STRING_NOSLASHESCAPE));
}

json_object *JsonString(const std::string &text) {
  return json_object_new_string_len(text.data(), static_cast<int>(text.size()));
}

Progress::Progress() : tty_(isatty(STDERR_FILENO) == 1), start_(GetTickCount()) {}

void Progress::Update(const std::string &text) {
  uint64_t elapsed = GetTickCount() - start_;
  if (!tty_ || elapsed < 1000) return;
  fprintf(stderr, "\r%s, %.1f s\033[K", text.c_str(), static_cast<double>(elapsed) / 1000);
  fflush(stderr);
  shown_ = true;
}

void Progress::Clear() {
  if (!shown_) return;
  fputs("\r\033[K", stderr);
  fflush(stderr);
  shown_ = false;
}

// ---- the event loop ----

Loop::Loop() : ok_(uloop_init() == 0) {}

Loop::~Loop() {
  if (ok_) uloop_done();
}

bool Loop::RunFor(int ms, const std::function<void()> &every_200ms) {
  bool expired = false;
  if (!stopped_ && !interrupted_) {
    Timer guard([&] {
      expired = true;
      uloop_end();
    });
    guard.Set(ms);
    Timer tick([&] {
      if (every_200ms) every_200ms();
      tick.Set(200);
    });
    tick.Set(200);
    // SIGINT and SIGTERM end the wait, and every wait after it.
    if (uloop_run() != 0) interrupted_ = true;
  }
  stopped_ = false;
  return !expired;
}

void Loop::Stop() {
  stopped_ = true;
  uloop_end();
}

Timer::Timer(std::function<void()> fn) : fn_(std::move(fn)) { t_.cb = Fire; }

void Timer::Set(int ms) { uloop_timeout_set(&t_, ms); }

void Timer::Cancel() {
  if (t_.pending) uloop_timeout_cancel(&t_);
}

void Timer::Fire(uloop_timeout *t) { reinterpret_cast<Timer *>(t)->fn_(); }

// ---- addresses ----

std::vector<std::string> ResolvConfServers(const char *path) {
  std::vector<std::string> out;
  FILE *f = fopen(path, "r");
  if (!f) return out;
  char line[512];
  while (fgets(line, sizeof line, f)) {
    char key[32], value[256];
    if (sscanf(line, "%31s %255s", key, value) == 2 && strcmp(key, "nameserver") == 0) add_unique(&out, value);
  }
  fclose(f);
  return out;
}

int AddressFamily(const std::string &text, std::string *canonical) {
  unsigned char buf[sizeof(in6_addr)];
  char out[INET6_ADDRSTRLEN];
  for (int family : {AF_INET, AF_INET6}) {
    if (inet_pton(family, text.c_str(), buf) != 1) continue;
    if (canonical) *canonical = inet_ntop(family, buf, out, sizeof out) ? out : text;
    return family;
  }
  return 0;
}

std::string Lower(std::string text) {
  for (char &c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return text;
}

// ---- DNS ----

Resolver::Resolver() = default;

Resolver::~Resolver() {
  if (!ctx_) return;
  resolvers().erase(ctx_);
  asyncDns_destroy(ctx_);
}

bool Resolver::Open(const std::vector<std::string> &servers, std::vector<std::string> *refused) {
  ctx_ = asyncDns_create(OnResult);
  if (!ctx_) return false;
  resolvers()[ctx_] = this;
  for (const std::string &s : servers) {
    int family = AddressFamily(s);
    int ret = family == AF_INET6 ? asyncDns_AddServer6(ctx_, s.c_str()) : asyncDns_AddServer(ctx_, s.c_str());
    if (ret == 0)
      servers_++;
    else if (refused)
      refused->push_back(s);
  }
  return true;
}

bool Resolver::Lookup(const std::string &name) { return ctx_ && asyncLookup(ctx_, name.c_str()) == 0; }

bool Resolver::LookupPtr(const std::string &ipv4) {
  sockaddr_in sin{};
  sin.sin_family = AF_INET;
  if (!ctx_ || inet_pton(AF_INET, ipv4.c_str(), &sin.sin_addr) != 1) return false;
  add_unique(&pending_ptr_, ipv4);
  return asyncLookupPtr(ctx_, &sin) == 0;
}

const Resolver::Answer *Resolver::Find(const std::string &name) const {
  auto it = answers_.find(Lower(name));
  return it == answers_.end() ? nullptr : &it->second;
}

int Resolver::OnResult(AsyncDnsContext *ctx, const char *name, DnsResult *result) {
  auto it = resolvers().find(ctx);
  if (it == resolvers().end()) return 0;
  Resolver &self = *it->second;
  for (int i = 0; i < result->count; i++) {
    const DnsAddressEntry &e = result->slots[i];
    char text[INET6_ADDRSTRLEN] = "";
    if (e.family == AF_INET) inet_ntop(AF_INET, &e.ipv4, text, sizeof text);
    if (e.family == AF_INET6) inet_ntop(AF_INET6, &e.ipv6, text, sizeof text);
    if (!text[0]) continue;
    // A PTR answer carries the host name as its name and the address asked
    // about in its one slot.
    bool is_ptr = e.family == AF_INET && result->count == 1 &&
                  std::find(self.pending_ptr_.begin(), self.pending_ptr_.end(), text) != self.pending_ptr_.end();
    if (is_ptr) {
      self.ptr_.emplace(text, name);
      continue;
    }
    Answer &a = self.answers_[Lower(name)];
    add_unique(e.family == AF_INET ? &a.v4 : &a.v6, text);
  }
  if (self.on_answer) self.on_answer();
  return 0;
}

void ResolveAll(Loop &loop, Resolver &resolver, const std::vector<std::string> &names, int timeout_ms,
                Progress *progress) {
  // Each server answers A and AAAA separately and a name without addresses
  // of a family gets no callback at all, so there is no telling when the
  // last answer is in: stop when every name has both families, or when
  // every name has some and nothing new came for a short while.
  const int kSettleMs = 300;
  Timer settle([&] { loop.Stop(); });
  auto check = [&] {
    bool all_some = true, all_both = true;
    for (const std::string &n : names) {
      const Resolver::Answer *a = resolver.Find(n);
      all_some = all_some && a;
      all_both = all_both && a && !a->v4.empty() && !a->v6.empty();
    }
    if (all_both)
      loop.Stop();
    else if (all_some)
      settle.Set(kSettleMs);
  };
  resolver.on_answer = check;
  for (const std::string &n : names) resolver.Lookup(n);  // a cache hit answers inside the call
  check();
  loop.RunFor(timeout_ms, [&] {
    if (!progress) return;
    size_t done = 0;
    for (const std::string &n : names) done += resolver.Find(n) != nullptr;
    progress->Update("resolving: " + std::to_string(done) + " of " + std::to_string(names.size()) +
                     " names answered");
  });
  resolver.on_answer = nullptr;
}

}  // namespace rkctl
