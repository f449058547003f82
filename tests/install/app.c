/* A daemon built against an installed prefix: runs a uloop with a DNS
 * client and reads a key/value file, as a real one would at start-up. */
/* A daemon on Linux asks for POSIX; libubox's uloop.h needs struct sigaction. */
#define _POSIX_C_SOURCE 200809L
#include <routerkit/async_dns.h>
#include <routerkit/config.h>
#include <routerkit/log.h>

#include <stdio.h>
#include <string.h>

static void stop(struct uloop_timeout *t) {
  (void)t;
  uloop_end();
}

int main(void) {
  struct uloop_timeout guard;
  AsyncDnsContext *dns;
  char name[64];
  char dir[256];
  FILE *f = fopen("/tmp/app-version", "w");

  if (!f) return 1;
  fputs("product_name: app\n", f);
  fclose(f);
  memset(name, 0, sizeof name);
  if (getValueFromFile("/tmp/app-version", "product_name", name, (int)sizeof name) != 3) return 2;

  memset(dir, 0, sizeof dir);
  memset(name, 0, sizeof name);
  if (get_executable_path(dir, sizeof dir - 1, name, sizeof name - 1) < 1 || strcmp(name, "app") != 0)
    return 3;

  if (uloop_init() != 0) return 4;
  dns = asyncDns_create(NULL);
  if (!dns) return 5;
  memset(&guard, 0, sizeof guard);
  guard.cb = stop;
  uloop_timeout_set(&guard, 10);
  uloop_run();
  asyncDns_destroy(dns);
  uloop_done();
  printf("installed routerkit works: tick %llu\n", (unsigned long long)GetTickCount());
  return 0;
}
