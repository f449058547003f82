// Long runs: many operations of one kind in one process, with the heap in
// use, the descriptors and the resident memory sampled along the way
// (longrun.h), to show that nothing grows once the first 1 % is done.
//
//   longrun dns default|checked COUNT
//       COUNT lookups (A+AAAA) over 100 names against the tests' responder on
//       127.0.0.1:53, in batches of 20 on one uloop. Of every ten names six
//       are answered, one is NXDOMAIN, one SERVFAIL, one answered after three
//       forgeries (another identifier, another question, another port) and
//       one answered and ends its batch. "default" is a context as created,
//       answers with TTL 0 (nothing cached, every lookup on the wire);
//       "checked" has every check, a retry, a failure callback and a cache of
//       at most 50 names, answers with TTL 300 (80 names cached in turn: every
//       lookup misses, every answer makes room).
//   longrun ping raw|unprivileged COUNT
//       COUNT echo requests in bursts of 64, half to 127.0.0.1, half to ::1,
//       replies through the microsecond reply callback.
//   longrun script COUNT
//       COUNT luaHelperCall("lr.handle", arg) with a JSON object; the script
//       calls a native method with it and reads the response.
//   longrun bridge COUNT
//       COUNT conversions of each kind of one document with every JSON type.
//
// Each run prints its longrun.h line and a line of what it counted. Needs
// port 53, raw sockets and a ping_group_range that lets group 0 in: run it
// through bench/run-longrun.sh (private namespaces).
#include <routerkit/async_dns.h>
#include <routerkit/async_ping.h>
#include <routerkit/data_bridge.h>
#include <routerkit/lua_helper.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <json-c/json.h>
#include <lua.hpp>

#include "common/deps.h"
#include "dns_responder.h"
#include "longrun.h"
#include "rk_test.h"

namespace {

constexpr int kWatchdogMs = 2000;  // a batch or burst that lost a datagram ends here

// Ends the loop when nothing ends it in time, and counts that.
struct Watchdog {
  uloop_timeout timer{};
  unsigned long fired = 0;
  Watchdog() {
    timer.cb = [](uloop_timeout *) { uloop_end(); };
  }
  void run() {
    uloop_timeout_set(&timer, kWatchdogMs);
    if (const int signal = uloop_run()) exit(128 + signal);  // SIGTERM or SIGINT, caught by uloop
    if (!timer.pending) ++fired;
    uloop_timeout_cancel(&timer);
  }
};

// ---- DNS -------------------------------------------------------------------

constexpr int kNames = 100;
constexpr int kBatch = 20;  // kNames is a multiple; the last name of each batch is a plain answered one
constexpr uint32_t kCachedTtl = 300;
constexpr uint32_t kMaxCachedNames = 50;
constexpr uint32_t kRetryMs = 250, kAttempts = 2;

struct DnsCounts {
  const char *last;  // the name that ends the batch
  int lastAddresses;
  unsigned long callbacks, addresses, fromCache, failures[ASYNC_DNS_TIMEOUT + 1];
} dnsCounts;

int onAnswer(AsyncDnsContext *, const char *name, DnsResult *result) {
  ++dnsCounts.callbacks;
  dnsCounts.addresses += static_cast<unsigned long>(result->count);
  dnsCounts.fromCache += result->count == 2;  // a datagram carries one address here
  if (strcmp(name, dnsCounts.last) == 0 && (dnsCounts.lastAddresses += result->count) >= 2) uloop_end();
  return 0;
}

void onFailure(AsyncDnsContext *, const char *, int reason) {
  if (reason >= 0 && reason <= ASYNC_DNS_TIMEOUT) ++dnsCounts.failures[reason];
}

int dnsRun(bool checked, unsigned long count) {
  rk::test::DnsResponder responder;
  if (!responder.ok()) return 1;
  responder.Serve("192.0.2.1", "2001:db8::1", checked ? kCachedTtl : 0, true);
  AsyncDnsContext *ctx = asyncDns_create(onAnswer);
  if (ctx == nullptr || asyncDns_AddServer(ctx, "127.0.0.1") != 0) return 1;
  if (checked) {
    if (asyncDns_setChecks(ctx, ASYNC_DNS_CHECK_SENDER | ASYNC_DNS_CHECK_QUESTION | ASYNC_DNS_RANDOM_ID) != 0 ||
        asyncDns_setRetry(ctx, kRetryMs, kAttempts) != 0 || asyncDns_setFailureCallback(ctx, onFailure) != 0)
      return 1;
    DnsCache_setMaxNames(ctx->cache, kMaxCachedNames);
  }
  static const char *const kinds[10] = {"ok", "ok", "ok", "ok", "ok", "ok", "nx", "sf", "fg", "ok"};
  std::vector<std::string> names;
  for (int i = 0; i < kNames; ++i) names.push_back(kinds[i % 10] + std::to_string(i) + ".longrun.lan");
  Watchdog watchdog;
  LongRun r{};
  longRunBegin(&r, checked ? "dns checked" : "dns default", count);
  for (unsigned long done = 0; done < count; done += kBatch) {
    dnsCounts.last = names[(done + kBatch - 1) % kNames].c_str();
    dnsCounts.lastAddresses = 0;
    for (unsigned long k = done; k < done + kBatch; ++k) asyncLookup(ctx, names[k % kNames].c_str());
    if (dnsCounts.lastAddresses < 2) watchdog.run();
    longRunStep(&r, done + kBatch);
  }
  asyncDns_destroy(ctx);
  const unsigned long *f = dnsCounts.failures;
  printf("%s: %lu callbacks with %lu addresses (%lu from the cache); failures: NXDOMAIN %lu, NODATA %lu, "
         "SERVFAIL %lu, REFUSED %lu, timeout %lu; batches stalled %lu\n",
         r.name, dnsCounts.callbacks, dnsCounts.addresses, dnsCounts.fromCache, f[ASYNC_DNS_NXDOMAIN],
         f[ASYNC_DNS_NODATA], f[ASYNC_DNS_SERVFAIL], f[ASYNC_DNS_REFUSED], f[ASYNC_DNS_TIMEOUT], watchdog.fired);
  return 0;
}

// ---- ping ------------------------------------------------------------------

constexpr int kBurst = 64;

struct PingCounts {
  unsigned long replies, want;
  unsigned long long microseconds;
  uint32_t maxMicroseconds;
} pingCounts;

void onReply(AsyncPingContext *, const char *, uint16_t, uint32_t microseconds) {
  pingCounts.microseconds += microseconds;
  if (microseconds > pingCounts.maxMicroseconds) pingCounts.maxMicroseconds = microseconds;
  if (++pingCounts.replies >= pingCounts.want) uloop_end();
}

int pingRun(bool unprivileged, unsigned long count) {
  AsyncPingContext *ctx = unprivileged ? asyncPing_createUnprivileged(nullptr) : asyncPing_create(nullptr);
  if (ctx == nullptr || asyncPing_setReplyCallback(ctx, onReply) != 0) return 1;
  Watchdog watchdog;
  LongRun r{};
  unsigned long sent = 0;
  longRunBegin(&r, unprivileged ? "ping unprivileged" : "ping raw", count);
  for (unsigned long done = 0; done < count; done += kBurst) {
    pingCounts.want = pingCounts.replies + kBurst;
    for (int i = 0; i < kBurst; i += 2) {
      sent += asyncPing4(ctx, "127.0.0.1") > 0;
      sent += asyncPing6(ctx, "::1") > 0;
    }
    watchdog.run();
    longRunStep(&r, done + kBurst);
  }
  asyncPing_destroy(ctx);
  printf("%s: %lu sent, %lu replies, mean %.1f us, max %u us; bursts stalled %lu\n", r.name, sent,
         pingCounts.replies, pingCounts.replies ? static_cast<double>(pingCounts.microseconds) / pingCounts.replies : 0,
         pingCounts.maxMicroseconds, watchdog.fired);
  return 0;
}

// ---- script ----------------------------------------------------------------

const char kScript[] = R"(
lr = {calls = 0, tags = 0}
function lr.handle(arg)
  local r = obj:get(arg)
  lr.calls = lr.calls + 1
  lr.tags = lr.tags + r.count
  lr.last = r.echo.name .. r.echo.n
end
)";

int getCallback(json_object *request, json_object *response) {
  json_object *tags = nullptr, *name = nullptr, *n = nullptr;
  json_object_object_get_ex(request, "tags", &tags);
  json_object_object_get_ex(request, "name", &name);
  json_object_object_get_ex(request, "n", &n);
  json_object *echo = json_object_new_object();
  json_object_object_add(echo, "name", json_object_new_string(json_object_get_string(name)));
  json_object_object_add(echo, "n", json_object_new_int(json_object_get_int(n)));
  json_object_object_add(response, "count", json_object_new_int(static_cast<int>(json_object_array_length(tags))));
  json_object_object_add(response, "ok", json_object_new_boolean(1));
  json_object_object_add(response, "echo", echo);
  return 0;
}

void collectGarbage(void *state) { lua_gc(static_cast<lua_State *>(state), LUA_GCCOLLECT, 0); }

int scriptRun(unsigned long count) {
  char path[] = "/tmp/rk-longrun-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0 || write(fd, kScript, sizeof kScript - 1) < 0) return 1;
  close(fd);
  LuaHelper *h = CreateLuaHelper(path);
  unlink(path);
  static const LuaHelperFunction rows[] = {{"get", getCallback}, {nullptr, nullptr}};
  if (h == nullptr || luaHelperRegister(h, "obj", rows) != 0) return 1;
  json_object *arg = json_tokener_parse(
      R"({"name": "wan", "n": 0, "up": true, "mtu": 1500, "tags": ["a", "b", "c"],
          "limits": {"up": 100, "down": 1000.5}})");
  LongRun r{};
  r.settle = collectGarbage;
  r.settleArg = h->state;
  unsigned long failed = 0;
  longRunBegin(&r, "script calls", count);
  for (unsigned long i = 0; i < count; ++i) {
    json_object_object_add(arg, "n", json_object_new_int(static_cast<int>(i)));
    failed += luaHelperCall(h, "lr.handle", arg) != 0;
    longRunStep(&r, i + 1);
  }
  lua_State *L = h->state;
  lua_getglobal(L, "lr");
  lua_getfield(L, -1, "calls");
  lua_getfield(L, -2, "tags");
  printf("%s: %lu calls failed; the script counted %.0f calls and %.0f tags in the responses\n", r.name, failed,
         lua_tonumber(L, -2), lua_tonumber(L, -1));
  lua_settop(L, 0);
  json_object_put(arg);
  luaHelperDestroy(h);
  return 0;
}

// ---- conversions -----------------------------------------------------------

const char kDocument[] = R"({"name": "wan", "proto": "dhcp", "enabled": true, "disabled": false,
  "mtu": 1500, "metric": 0.5, "big": 8589934592, "nothing": null, "empty": [], "none": {},
  "dns": ["192.0.2.1", "192.0.2.2", "2001:db8::1"], "ports": [53, 67, 68, 123, 443],
  "routes": [{"target": "0.0.0.0", "mask": 0, "gateway": "192.0.2.254"},
             {"target": "10.0.0.0", "mask": 8, "metric": 20.25, "onlink": true}],
  "limits": {"up": {"rate": 100, "burst": [1, 2, 3]}, "down": {"rate": 1000, "queue": {"depth": 64}}}})";

int bridgeRun(unsigned long count) {
  lua_State *L = luaL_newstate();
  json_object *doc = json_tokener_parse(kDocument);
  if (L == nullptr || doc == nullptr) return 1;
  json_to_lua(L, doc);  // the document's table at 1
  blob_buf members{}, wrapped{}, out{};
  blob_buf_init(&members, 0);
  json_to_blob(&members, doc);
  blob_buf_init(&wrapped, 0);
  void *table = blobmsg_open_table(&wrapped, "doc");  // an object comes back as one object
  json_to_blob(&wrapped, doc);
  blobmsg_close_table(&wrapped, table);
  auto *attr = static_cast<blob_attr *>(blob_data(wrapped.head));
  blob_buf_init(&out, 0);
  struct Kind {
    const char *name;
    bool (*convert)(lua_State *, json_object *, blob_buf *, blob_buf *, blob_attr *);
  };
  static const Kind kinds[] = {
      {"lua_to_json",
       [](lua_State *L, json_object *, blob_buf *, blob_buf *, blob_attr *) {
         json_object *o = lua_to_json(L, 1);
         json_object_put(o);
         return o != nullptr;
       }},
      {"lua_to_blob",
       [](lua_State *L, json_object *, blob_buf *, blob_buf *out, blob_attr *) {
         blob_buf_init(out, 0);
         lua_to_blob(L, 1, out);
         return blob_len(out->head) > 0;
       }},
      {"json_to_lua",
       [](lua_State *L, json_object *doc, blob_buf *, blob_buf *, blob_attr *) {
         json_to_lua(L, doc);
         const bool ok = lua_istable(L, -1);
         lua_settop(L, 1);
         return ok;
       }},
      {"blob_to_lua",
       [](lua_State *L, json_object *, blob_buf *members, blob_buf *, blob_attr *) {
         blob_to_lua(L, static_cast<blob_attr *>(blob_data(members->head)), blob_len(members->head));
         const bool ok = lua_istable(L, -1);
         lua_settop(L, 1);
         return ok;
       }},
      {"json_to_blob",
       [](lua_State *, json_object *doc, blob_buf *, blob_buf *out, blob_attr *) {
         blob_buf_init(out, 0);
         json_to_blob(out, doc);
         return blob_len(out->head) > 0;
       }},
      {"blob_to_json",
       [](lua_State *, json_object *, blob_buf *, blob_buf *, blob_attr *attr) {
         json_object *o = blob_to_json(attr);
         json_object_put(o);
         return o != nullptr;
       }},
  };
  for (const Kind &kind : kinds) {
    LongRun r{};
    r.settle = collectGarbage;
    r.settleArg = L;
    unsigned long failed = 0;
    longRunBegin(&r, kind.name, count);
    for (unsigned long i = 0; i < count; ++i) {
      failed += !kind.convert(L, doc, &members, &out, attr);
      longRunStep(&r, i + 1);
    }
    printf("%s: %lu conversions failed\n", kind.name, failed);
  }
  blob_buf_free(&out);
  blob_buf_free(&wrapped);
  blob_buf_free(&members);
  json_object_put(doc);
  lua_close(L);
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  const std::string kind = argc > 2 ? argv[2] : "";
  const unsigned long count = argc > 1 ? strtoul(argv[argc - 1], nullptr, 10) : 0;
  if (!rk::test::InTestNamespace() || count == 0) {
    fprintf(stderr, "usage: %s dns default|checked COUNT | ping raw|unprivileged COUNT | script COUNT | "
                    "bridge COUNT\n  inside the private namespaces: run it through bench/run-longrun.sh\n",
            argv[0]);
    return 2;
  }
  rk::test::SilenceSyslog();  // every refused datagram is logged
  if (uloop_init() != 0) return 1;
  int status = 2;
  if (mode == "dns" && (kind == "default" || kind == "checked")) status = dnsRun(kind == "checked", count);
  if (mode == "ping" && (kind == "raw" || kind == "unprivileged")) status = pingRun(kind == "unprivileged", count);
  if (mode == "script") status = scriptRun(count);
  if (mode == "bridge") status = bridgeRun(count);
  uloop_done();
  return status;
}
