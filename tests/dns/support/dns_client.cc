#include "dns_client.h"

#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>

namespace rk {
namespace test {
namespace {

std::vector<Answer> g_answers;
std::function<void(const Answer &)> g_hook;
int g_lookupDepth = 0;

}  // namespace

std::string formatEntry(const DnsAddressEntry &entry) {
  char text[INET6_ADDRSTRLEN] = "";
  if (entry.family == AF_INET) {
    inet_ntop(AF_INET, &entry.ipv4, text, sizeof text);
  } else if (entry.family == AF_INET6) {
    inet_ntop(AF_INET6, &entry.ipv6, text, sizeof text);
  } else {
    snprintf(text, sizeof text, "family(%u)", entry.family);
  }
  return text;
}

std::string formatResult(const char *name, const DnsResult *result) {
  std::string line = name ? name : "(null)";
  line += ':';
  for (int32_t i = 0; result && i < result->count; ++i) {
    line += i ? ", " : " ";
    line += formatEntry(result->slots[i]);
  }
  return line;
}

int Recorder::callback(AsyncDnsContext *context, const char *name, DnsResult *result) {
  Answer a;
  a.context = context;
  a.name = name ? name : "";
  if (result && result->count > 0) a.slots.assign(result->slots, result->slots + result->count);
  a.line = formatResult(name, result);
  a.duringLookup = g_lookupDepth > 0;
  g_answers.push_back(a);
  if (g_hook) g_hook(g_answers.back());
  return 0;
}

std::vector<Answer> &Recorder::answers() { return g_answers; }

std::vector<std::string> Recorder::lines() {
  std::vector<std::string> out;
  for (const auto &a : g_answers) out.push_back(a.line);
  return out;
}

void Recorder::clear() { g_answers.clear(); }

void Recorder::setHook(std::function<void(const Answer &)> hook) { g_hook = std::move(hook); }

Recorder::LookupScope::LookupScope() { ++g_lookupDepth; }
Recorder::LookupScope::~LookupScope() { --g_lookupDepth; }

std::string cachedLine(DnsCache *cache, const std::string &name) {
  constexpr int kSlots = 73;
  auto *result = static_cast<DnsResult *>(calloc(1, sizeof(DnsResult) + kSlots * sizeof(DnsAddressEntry)));
  std::string line;
  if (DnsCache_Get(cache, name.c_str(), result, kSlots) != 0) {
    line = name + ": (absent)";
  } else {
    line = formatResult(name.c_str(), result);
  }
  free(result);
  return line;
}

}  // namespace test
}  // namespace rk
