/* Built with -std=c99 -pedantic-errors: includes every public header and
 * calls one function of each family through the shared library. Runs in a
 * private namespace, so the files it makes are throw-away. */
/* A daemon on Linux asks for POSIX; libubox's uloop.h needs struct sigaction. */
#define _POSIX_C_SOURCE 200809L
#include "rk_all_headers.h"

#include <errno.h>
#include <stdio.h>
#include <sys/stat.h>
#include <string.h>

static int failures;

static void check(int ok, const char *what) {
  if (!ok) {
    fprintf(stderr, "FAILED: %s\n", what);
    failures++;
  }
}

static int on_dns(AsyncDnsContext *context, const char *name, DnsResult *result) {
  (void)context;
  (void)name;
  (void)result;
  return 0;
}

int main(void) {
  char value[32];
  FILE *f;
  AsyncDnsContext *dns;
  uint32_t delay = 0;
  uint64_t t0 = GetTickCount();

  /* log */
  check(log_setLevel(3) == 0, "log_setLevel");
  check(log_isLevelEnabled(3) == 1 && log_isLevelEnabled(4) == 0, "log_isLevelEnabled");
  check(LC_SystemCall("exit %d", 3) == 768, "LC_SystemCall");

  /* network_helper */
  check(setInternetDelay("c99", 5) == 0 && getInternetDelay(&delay) == 0 && delay == 5, "delay record");

  /* config */
  f = fopen("/tmp/c99-version", "w");
  check(f != NULL, "fopen");
  if (f) {
    fputs("firmware_version = 1.2.3\n", f);
    fclose(f);
  }
  memset(value, 0, sizeof value);
  check(getValueFromFile("/tmp/c99-version", "firmware_version", value, (int)sizeof value) == 5,
        "getValueFromFile length");
  check(strcmp(value, "1.2.3") == 0, "getValueFromFile value");

  /* uci_access: a one-shot write, committed, read back */
  check(mkdir("/etc/config", 0755) == 0 || errno == EEXIST, "mkdir /etc/config");
  f = fopen("/etc/config/c99", "w");
  check(f != NULL, "fopen /etc/config/c99");
  if (f) {
    fputs("config system 'main'\n\toption hostname 'before'\n", f);
    fclose(f);
  }
  check(uciSetOptionString("c99", "system", NULL, "hostname", "after", 5) == 0, "uciSetOptionString");
  memset(value, 0, sizeof value);
  check(uciGetOptionString("c99", NULL, "main", "hostname", value, (int)sizeof value) == 0,
        "uciGetOptionString");
  check(strcmp(value, "after") == 0, "uciGetOptionString value");

  /* async_dns */
  check(uloop_init() == 0, "uloop_init");
  dns = asyncDns_create(on_dns);
  check(dns != NULL, "asyncDns_create");
  if (dns) {
    check(asyncDns_AddServer(dns, "127.0.0.1") == 0, "asyncDns_AddServer");
    check(asyncLookup(dns, "example.lan") == 0, "asyncLookup");
    check(asyncDns_destroy(dns) == 0, "asyncDns_destroy");
  }
  /* async_ping: both raw sockets open, and close again */
  check(asyncPing_destroy(asyncPing_create(NULL)) == 0, "asyncPing_create");
  uloop_done();

  check(GetTickCount() >= t0, "GetTickCount");
  /* lua_helper, weekdays, identity */
  luaHelperDestroy(NULL);
  check(luaHelperCall(NULL, "f", NULL) == -1, "luaHelperCall");
  check(getWeekString(value, (int)sizeof value, 0x22) == 8 && strcmp(value, "Mon,Fri") == 0,
        "getWeekString");
  check(config_getLocalDomain(value, 0) == 0, "config_getLocalDomain");

  /* data_bridge */
  check(blob_to_lua(NULL, NULL, 0) == -1 && blob_to_json(NULL) == NULL, "blob_to_lua");

  return failures ? 1 : 0;
}
