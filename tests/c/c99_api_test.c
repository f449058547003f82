/* Built with -std=c99 -pedantic-errors: includes every public header and
 * calls into each family through the shared library. Runs in a private
 * namespace, so what it writes is throw-away. */
/* A daemon on Linux asks for POSIX; libubox's uloop.h needs struct sigaction. */
#define _POSIX_C_SOURCE 200809L
#include "rk_all_headers.h"

#include <stdio.h>
#include <string.h>

static int failures;
#define CHECK(ok) ((ok) ? (void)0 : (void)(fprintf(stderr, "FAILED: %s\n", #ok), failures++))

int main(void) {
  char value[32] = {0};
  uint32_t delay = 0;
  AsyncDnsContext *dns;

  /* log, network_helper */
  CHECK(log_setLevel(3) == 0 && log_isLevelEnabled(3) == 1 && log_isLevelEnabled(4) == 0);
  CHECK(LC_SystemCall("exit %d", 3) == 768);
  CHECK(setInternetDelay("c99", 5) == 0 && getInternetDelay(&delay) == 0 && delay == 5);
  /* config, uci_access */
  CHECK(getValueFromFile("/tmp/no-such-file", "k", value, (int)sizeof value) == -1);
  CHECK(config_getLocalDomain(value, 0) == 0);
  CHECK(uciGetOptionString("c99", NULL, "main", "hostname", value, (int)sizeof value) == -1);
  CHECK(getWeekString(value, (int)sizeof value, 0x22) == 8 && strcmp(value, "Mon,Fri") == 0);
  /* async_dns, async_ping */
  CHECK(uloop_init() == 0);
  dns = asyncDns_create(NULL);
  CHECK(dns != NULL && asyncDns_AddServer(dns, "127.0.0.1") == 0 && asyncLookup(dns, "example.lan") == 0);
  CHECK(asyncDns_destroy(dns) == 0 && asyncPing_destroy(asyncPing_create(NULL)) == 0);
  uloop_done();
  /* lua_helper, data_bridge */
  luaHelperDestroy(NULL);
  CHECK(luaHelperCall(NULL, "f", NULL) == -1);
  CHECK(blob_to_lua(NULL, NULL, 0) == -1 && blob_to_json(NULL) == NULL);
  CHECK(GetTickCount() > 0);
  return failures ? 1 : 0;
}
