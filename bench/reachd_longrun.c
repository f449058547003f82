/* reachd's rounds with longrun.h's samples taken inside the daemon: reachd.c
 * itself, compiled here with its main renamed. Its loop's start takes the
 * "before" sample (set-up done, no round yet); its hook call counts a round
 * and arms a sample for when the round's JSON is released (a timeout of 0
 * ms, due before the next round's); the loop's end takes the last. The
 * hook's Lua garbage is collected before each sample.
 *
 *   reachd_longrun -c PACKAGE -n ROUNDS   (reachd's own arguments) */
#define _GNU_SOURCE
#include <routerkit/async_dns.h>
#include <routerkit/lua_helper.h>

#include <lua.h>
#include <stdlib.h>
#include <string.h>

#include "longrun.h"

static LongRun run;
static unsigned long rounds;
static struct uloop_timeout sampler;

static int countedHookCall(LuaHelper *hook, const char *path, struct json_object *arg);
int reachdMain(int argc, char **argv);

#define main reachdMain
#define luaHelperCall countedHookCall
#define uloop_run()                                                                                 \
  (longRunBegin(&run, "reachd rounds", d.rounds), uloop_run(), uloop_timeout_cancel(&sampler), \
   longRunStep(&run, rounds))
#include "../examples/reachd/reachd.c"
#undef main
#undef luaHelperCall

#define MAX_COUNTED MAX_TARGETS
static unsigned long replied[MAX_COUNTED], unresolved[MAX_COUNTED];

static void collectGarbage(void *unused) {
  (void)unused;
  if (d.hook) lua_gc(d.hook->state, LUA_GCCOLLECT, 0);
}

static void sampleRound(struct uloop_timeout *timer) {
  (void)timer;
  longRunStep(&run, rounds);
}

static int countedHookCall(LuaHelper *hook, const char *path, struct json_object *arg) {
  int i, status = luaHelperCall(hook, path, arg);
  for (i = 0; i < d.ntargets; i++) {
    replied[i] += d.targets[i].received > 0;
    unresolved[i] += !d.targets[i].address[0];
  }
  ++rounds;
  uloop_timeout_set(&sampler, 0);
  return status;
}

int main(int argc, char **argv) {
  int i, status;
  run.settle = collectGarbage;
  sampler.cb = sampleRound;
  status = reachdMain(argc, argv);
  printf("reachd rounds: %lu rounds;", rounds);
  for (i = 0; i < d.ntargets; i++)
    printf(" %s replied in %lu, unresolved in %lu;", d.targets[i].host, replied[i], unresolved[i]);
  printf("\n");
  return status;
}
