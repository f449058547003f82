/* A daemon built against an installed prefix: a uloop with a DNS client and
 * a log line, as a real one would start up. */
/* A daemon on Linux asks for POSIX; libubox's uloop.h needs struct sigaction. */
#define _POSIX_C_SOURCE 200809L
#include <routerkit/async_dns.h>
#include <routerkit/config.h>
#include <routerkit/log.h>

#include <stdio.h>

static void stop(struct uloop_timeout *t) {
  (void)t;
  uloop_end();
}

int main(void) {
  struct uloop_timeout guard = {.cb = stop};
  AsyncDnsContext *dns;
  if (uloop_init() != 0 || !(dns = asyncDns_create(NULL))) return 1;
  uloop_timeout_set(&guard, 10);
  uloop_run();
  asyncDns_destroy(dns);
  uloop_done();
  log_info("installed routerkit works");
  printf("installed routerkit works: tick %llu\n", (unsigned long long)GetTickCount());
  return 0;
}
