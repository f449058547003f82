/* A daemon built against an installed routerkit (a prefix or the packages):
 * one call of every family, on a uloop, as a real one would start up. */
/* A daemon on Linux asks for POSIX; libubox's uloop.h needs struct sigaction. */
#define _POSIX_C_SOURCE 200809L
#include <routerkit/async_dns.h>
#include <routerkit/async_ping.h>
#include <routerkit/config.h>
#include <routerkit/data_bridge.h>
#include <routerkit/log.h>
#include <routerkit/lua_helper.h>
#include <routerkit/network_helper.h>
#include <routerkit/uci_access.h>

#include <json-c/json.h>
#include <stdio.h>
#include <string.h>

static int replied;

static int onReply(AsyncPingContext *context, const char *address, uint32_t delay) {
  (void)context, (void)address, (void)delay;
  replied = 1;
  uloop_end();
  return 0;
}

static void stop(struct uloop_timeout *t) {
  (void)t;
  uloop_end();
}

int main(void) {
  struct uloop_timeout guard = {.cb = stop};
  struct json_object *in = json_tokener_parse("{\"name\":\"routerkit\"}"), *out;
  AsyncDnsContext *dns;
  AsyncPingContext *ping;
  LuaHelper *lua;
  char value[16] = "";
  uint8_t week = 0;
  uint32_t delay = 0;
  FILE *f = fopen("/tmp/app.conf", "w");
  if (!in || !f || fputs("name = routerkit\n", f) < 0 || fclose(f) != 0) return 1;
  if (uloop_init() != 0 || !(dns = asyncDns_create(NULL)) || !(ping = asyncPing_create(onReply)) ||
      !(lua = CreateLuaHelper("/dev/null")) || asyncPing4(ping, "127.0.0.1") < 0)
    return 1;
  uloop_timeout_set(&guard, 2000);
  uloop_run();
  json_to_lua(lua->state, in);
  out = lua_to_json(lua->state, -1);
  int ok = replied && out && !strcmp(json_object_to_json_string(in), json_object_to_json_string(out)) &&
           getValueFromFile("/tmp/app.conf", "name", value, sizeof value) == 9 &&
           getWeekFlag("Mon,Wed", &week) == 0 && week != 0 && setInternetDelay("wan", 23) == 0 &&
           getInternetDelay(&delay) == 0 && delay == 23;
  json_object_put(out), json_object_put(in);
  luaHelperDestroy(lua);
  asyncPing_destroy(ping);
  asyncDns_destroy(dns);
  uloop_done();
  log_info("installed routerkit works");
  printf("installed routerkit %s: tick %llu, %s, week 0x%02x, delay %u\n", ok ? "works" : "FAILED",
         (unsigned long long)GetTickCount(), value, week, (unsigned)delay);
  return ok ? 0 : 1;
}
