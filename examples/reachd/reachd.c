/*
 * reachd: a small reachability daemon built on routerkit, to copy from.
 *
 *   reachd [-c PACKAGE] [-1 | -n ROUNDS]
 *
 * Reads its settings and targets from the UCI package PACKAGE (default
 * "reachd"), then, each round, on one uloop:
 *   1. resolves the targets that are names with the async DNS client, which
 *      takes answers only from its servers, only to its own questions and
 *      with the random identifier of their query, sends a query again when
 *      half of TIMEOUT has passed, and says why a name got no address,
 *   2. pings every target COUNT times, INTERVAL ms apart, with the async
 *      ping client (on unprivileged ICMP sockets where the daemon's group is
 *      in net.ipv4.ping_group_range, else on raw ones), and waits TIMEOUT ms
 *      for late replies; a reply counts once, for a request of this round,
 *   3. records each target's mean round trip in the internet delay record,
 *      logs a line per target, and calls the Lua hook's on_round() with the
 *      results.
 * The ping client has no timer: the rounds' deadlines are the daemon's own
 * uloop_timeouts. With -1 (or option period 0) it runs one round and exits:
 * 0 when every target answered, 1 otherwise. With -n ROUNDS it runs that
 * many rounds back to back, without the period between them, and exits 0
 * (a soak run: bench/run-footprint.sh and bench/run-longrun.sh measure its
 * memory so).
 *
 * The package (see reachd.config):
 *   config reachd 'main'
 *       option count '3'          echo requests per target and round
 *       option interval '1000'    ms between them
 *       option timeout '1000'     ms to wait for names, and for late replies
 *       option period '60'        s between rounds; 0 runs one round
 *       option hook '/etc/reachd/hook.lua'
 *       option dns '127.0.0.1 ::1'  DNS servers; default /etc/resolv.conf
 *   config target
 *       option host 'example.com' a name or an IPv4/IPv6 address
 *       option label 'web'        1 to 15 characters, no blanks
 */
#define _POSIX_C_SOURCE 200809L

#include <routerkit/async_dns.h>
#include <routerkit/async_ping.h>
#include <routerkit/log.h>
#include <routerkit/lua_helper.h>
#include <routerkit/network_helper.h>
#include <routerkit/uci_access.h>

#include <arpa/inet.h>
#include <json-c/json.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#define MAX_TARGETS 32
#define TEXT 128
/* The DNS client's own deadline ends a lookup; the daemon's comes this much later. */
#define BACKSTOP_MS 100

struct target {
  char host[TEXT];
  char label[16];
  char address[INET6_ADDRSTRLEN]; /* empty until known */
  const char *failure;            /* why the name got no address, or NULL */
  int family;
  unsigned sent, received;
  unsigned long long rtt_sum; /* microseconds */
};

/* The daemon's state is one static record; both clients hand it back as
 * their user data. */
struct reachd {
  const char *package;
  uint32_t count, interval, timeout, period;
  char hook_path[TEXT];
  struct target targets[MAX_TARGETS];
  int ntargets;
  AsyncDnsContext *dns;
  AsyncPingContext *ping;
  LuaHelper *hook;
  uint32_t sends_done;
  uint16_t first_seq;                  /* the ping client's first sequence number of the round */
  unsigned char answered[65536 / 8];   /* a bit per sequence number: replied to */
  unsigned long rounds, rounds_done; /* -n; 0: no end */
  struct uloop_timeout resolve_deadline, send_timer, round_end, next_round;
  int once, failed;
};
static struct reachd d;

static int text_family(const char *text, char *canonical) {
  unsigned char buf[16];
  int families[2] = {AF_INET, AF_INET6};
  int i;
  for (i = 0; i < 2; i++)
    if (inet_pton(families[i], text, buf) == 1) {
      inet_ntop(families[i], buf, canonical, INET6_ADDRSTRLEN);
      return families[i];
    }
  return 0;
}

/* ---- configuration ---------------------------------------------------- */

static void read_setting(const char *option, uint32_t *value, uint32_t fallback) {
  *value = fallback;
  uciGetOptionUint32(d.package, "reachd", NULL, option, value); /* one-shot */
}

/* The targets: every section of type "target", read on the open package. */
static int read_targets(void) {
  struct uci_context *ctx = uci_alloc_context();
  struct uci_package *pkg = NULL;
  struct uci_element *e;
  if (!ctx) return -1;
  if (uci_load(ctx, d.package, &pkg) != 0 || !pkg) {
    uci_free_context(ctx);
    return -1;
  }
  uci_foreach_element(&pkg->sections, e) {
    struct uci_section *s = uci_to_section(e);
    struct target *t = &d.targets[d.ntargets];
    if (strcmp(s->type, "target") != 0 || d.ntargets == MAX_TARGETS) continue;
    memset(t, 0, sizeof *t); /* the readers never write the last byte */
    if (uciGetString(ctx, s, "host", t->host, sizeof t->host) != 0) continue;
    if (uciGetString(ctx, s, "label", t->label, sizeof t->label) != 0)
      strncpy(t->label, t->host, sizeof t->label - 1);
    d.ntargets++;
  }
  uci_unload(ctx, pkg);
  uci_free_context(ctx);
  return 0;
}

static void add_server(const char *address) {
  if (strchr(address, ':'))
    asyncDns_AddServer6(d.dns, address);
  else
    asyncDns_AddServer(d.dns, address);
}

static void add_servers(void) {
  char list[TEXT] = "", line[256], word[64], *tok, *save = NULL;
  FILE *f;
  if (uciGetOptionString(d.package, "reachd", NULL, "dns", list, sizeof list) == 0) {
    for (tok = strtok_r(list, " ", &save); tok; tok = strtok_r(NULL, " ", &save)) add_server(tok);
    return;
  }
  f = fopen("/etc/resolv.conf", "r");
  if (!f) return;
  while (fgets(line, sizeof line, f))
    if (sscanf(line, "nameserver %63s", word) == 1) add_server(word);
  fclose(f);
}

/* ---- the clients' callbacks -------------------------------------------- */

/* Every name has an address or has failed: go on with the pings. */
static void check_names(struct reachd *r) {
  int i, waiting = 0;
  for (i = 0; i < r->ntargets; i++) waiting += !r->targets[i].address[0] && !r->targets[i].failure;
  if (!waiting && r->resolve_deadline.pending) uloop_timeout_set(&r->resolve_deadline, 0);
}

static int on_dns(AsyncDnsContext *ctx, const char *name, DnsResult *result) {
  struct reachd *r = asyncDns_getUserData(ctx);
  int i, j;
  for (i = 0; i < r->ntargets; i++) {
    struct target *t = &r->targets[i];
    if (t->address[0] || strcasecmp(t->host, name) != 0) continue;
    for (j = 0; j < result->count && !t->address[0]; j++) {
      const DnsAddressEntry *a = &result->slots[j];
      t->family = a->family;
      inet_ntop(a->family, a->family == AF_INET ? (const void *)&a->ipv4 : (const void *)&a->ipv6, t->address,
                sizeof t->address);
    }
  }
  check_names(r);
  return 0;
}

static void on_dns_failure(AsyncDnsContext *ctx, const char *name, int reason) {
  static const char *const reasons[] = {"?", "NXDOMAIN", "NODATA", "SERVFAIL", "REFUSED", "timeout"};
  struct reachd *r = asyncDns_getUserData(ctx);
  int i;
  for (i = 0; i < r->ntargets; i++) {
    struct target *t = &r->targets[i];
    if (!t->address[0] && strcasecmp(t->host, name) == 0)
      t->failure = reasons[reason >= ASYNC_DNS_NXDOMAIN && reason <= ASYNC_DNS_TIMEOUT ? reason : 0];
  }
  check_names(r);
}

static void on_reply(AsyncPingContext *ctx, const char *address, uint16_t seq, uint32_t us) {
  struct reachd *self = asyncPing_getUserData(ctx);
  unsigned char bit = (unsigned char)(1u << seq % 8);
  int i;
  /* Sequence numbers tell a duplicate, and a late reply to an earlier round. */
  if ((uint16_t)(seq - self->first_seq) >= (uint16_t)(ctx->seq - self->first_seq) || self->answered[seq / 8] & bit)
    return;
  self->answered[seq / 8] |= bit;
  for (i = 0; i < self->ntargets; i++) {
    struct target *t = &self->targets[i];
    /* Targets may share an address (a name and its address both listed):
     * the reply goes to one that still waits for it. */
    if (strcmp(t->address, address) != 0 || t->received >= t->sent) continue;
    t->received++;
    t->rtt_sum += us;
    break;
  }
}

/* ---- the Lua hook ------------------------------------------------------ */

static int hook_log(struct json_object *request, struct json_object *response) {
  struct json_object *msg, *level;
  const char *lv = json_object_object_get_ex(request, "level", &level) ? json_object_get_string(level) : "info";
  if (json_object_object_get_ex(request, "message", &msg)) {
    if (strcmp(lv, "warn") == 0)
      log_warn("hook: %s", json_object_get_string(msg));
    else
      log_info("hook: %s", json_object_get_string(msg));
  }
  (void)response;
  return 0;
}

static int hook_delay(struct json_object *request, struct json_object *response) {
  uint32_t mean;
  (void)request;
  if (getInternetDelay(&mean) == 0) json_object_object_add(response, "mean", json_object_new_int64(mean));
  return 0;
}

static const LuaHelperFunction hook_api[] = {{"log", hook_log}, {"delay", hook_delay}, {NULL, NULL}};

/* ---- a round ----------------------------------------------------------- */

static void end_round(struct uloop_timeout *timer) {
  struct json_object *round = json_object_new_object(), *list = json_object_new_array();
  int i;
  (void)timer;
  d.failed = 0;
  for (i = 0; i < d.ntargets; i++) {
    struct target *t = &d.targets[i];
    struct json_object *o = json_object_new_object();
    double avg = t->received ? (double)t->rtt_sum / t->received / 1000 : 0; /* ms */
    if (!t->address[0]) {
      log_warn("%s: %s not resolved: %s", t->label, t->host, t->failure ? t->failure : "timeout");
    } else if (!t->received) {
      log_warn("%s: %s (%s) no reply to %u requests", t->label, t->host, t->address, t->sent);
    } else {
      log_info("%s: %s (%s) %u/%u replies, %.3f ms", t->label, t->host, t->address, t->received, t->sent, avg);
      setInternetDelay(t->label, (uint32_t)avg); /* whole ms */
    }
    d.failed |= t->received == 0;
    json_object_object_add(o, "label", json_object_new_string(t->label));
    json_object_object_add(o, "host", json_object_new_string(t->host));
    json_object_object_add(o, "address", t->address[0] ? json_object_new_string(t->address) : NULL);
    json_object_object_add(o, "sent", json_object_new_int((int)t->sent));
    json_object_object_add(o, "received", json_object_new_int((int)t->received));
    json_object_object_add(o, "avg_ms", t->received ? json_object_new_double(avg) : NULL);
    json_object_array_add(list, o);
  }
  json_object_object_add(round, "targets", list);
  if (d.hook) luaHelperCall(d.hook, "on_round", round);
  json_object_put(round);
  if (d.once || (d.rounds && ++d.rounds_done == d.rounds))
    uloop_end();
  else
    uloop_timeout_set(&d.next_round, d.rounds ? 0 : (int)(d.period * 1000));
}

static void send_round(struct uloop_timeout *timer) {
  int i;
  for (i = 0; i < d.ntargets; i++) {
    struct target *t = &d.targets[i];
    uint16_t seq = d.ping->seq; /* the one this request carries */
    if (!t->address[0]) continue;
    d.answered[seq / 8] &= (unsigned char)~(1u << seq % 8);
    if ((t->family == AF_INET6 ? asyncPing6(d.ping, t->address) : asyncPing4(d.ping, t->address)) >= 0) t->sent++;
  }
  if (++d.sends_done < d.count)
    uloop_timeout_set(timer, (int)d.interval);
  else
    uloop_timeout_set(&d.round_end, (int)d.timeout);
}

static void names_done(struct uloop_timeout *timer) {
  (void)timer;
  d.sends_done = 0;
  d.first_seq = d.ping->seq;
  uloop_timeout_set(&d.send_timer, 0);
}

static void start_round(struct uloop_timeout *timer) {
  int i, names = 0;
  (void)timer;
  for (i = 0; i < d.ntargets; i++) {
    struct target *t = &d.targets[i];
    t->sent = t->received = 0;
    t->rtt_sum = 0;
    t->failure = NULL;
    t->family = text_family(t->host, t->address);
    if (!t->family) {
      t->address[0] = '\0';
      asyncLookup(d.dns, t->host); /* a cached name answers inside the call */
      names++;
    }
  }
  /* Names get until the timeout to resolve (or fail); pings go out then, or
   * at once when the cache answered every name inside asyncLookup. */
  uloop_timeout_set(&d.resolve_deadline, names ? (int)d.timeout + BACKSTOP_MS : 0);
  if (names) check_names(&d);
}

int main(int argc, char **argv) {
  int i;
  d.package = "reachd";
  for (i = 1; i < argc; i++) {
    if (strcmp(argv[i], "-1") == 0)
      d.once = 1;
    else if (strcmp(argv[i], "-c") == 0 && i + 1 < argc)
      d.package = argv[++i];
    else if (strcmp(argv[i], "-n") == 0 && i + 1 < argc)
      d.rounds = strtoul(argv[++i], NULL, 10);
    else {
      fprintf(stderr, "usage: reachd [-c PACKAGE] [-1 | -n ROUNDS]\n");
      return 2;
    }
  }
  read_setting("count", &d.count, 3);
  read_setting("interval", &d.interval, 1000);
  read_setting("timeout", &d.timeout, 1000);
  read_setting("period", &d.period, 60);
  if (d.count == 0) d.count = 1;
  if (d.period == 0) d.once = 1;
  if (read_targets() != 0 || d.ntargets == 0) {
    log_error("no targets in the package %s", d.package);
    fprintf(stderr, "reachd: no targets in the package %s\n", d.package);
    return 1;
  }

  if (uloop_init() != 0) return 1;
  d.dns = asyncDns_create(on_dns);
  d.ping = asyncPing_createUnprivileged(NULL); /* EACCES: the group is not let in */
  if (!d.ping) d.ping = asyncPing_create(NULL); /* raw sockets: root or CAP_NET_RAW */
  if (!d.dns || !d.ping) {
    fprintf(stderr, "reachd: cannot open the DNS or ICMP sockets (ICMP needs a group in "
                    "net.ipv4.ping_group_range, or root)\n");
    return 1;
  }
  asyncPing_setReplyCallback(d.ping, on_reply);
  asyncPing_setUserData(d.ping, &d);
  add_servers();
  asyncDns_setUserData(d.dns, &d);
  if (asyncDns_setChecks(d.dns, ASYNC_DNS_CHECK_SENDER | ASYNC_DNS_CHECK_QUESTION | ASYNC_DNS_RANDOM_ID) != 0 ||
      asyncDns_setRetry(d.dns, d.timeout / 2 ? d.timeout / 2 : 1, 2) != 0 ||
      asyncDns_setFailureCallback(d.dns, on_dns_failure) != 0) {
    fprintf(stderr, "reachd: cannot set up the DNS client's checks\n");
    return 1;
  }
  if (uciGetOptionString(d.package, "reachd", NULL, "hook", d.hook_path, sizeof d.hook_path) == 0) {
    d.hook = CreateLuaHelper(d.hook_path); /* failures are logged by the library */
    if (d.hook) luaHelperRegister(d.hook, "reachd", hook_api);
  }
  log_info("watching %d targets, %u requests each per round", d.ntargets, d.count);

  d.resolve_deadline.cb = names_done;
  d.send_timer.cb = send_round;
  d.round_end.cb = end_round;
  d.next_round.cb = start_round;
  uloop_timeout_set(&d.next_round, 0);
  uloop_run();

  uloop_timeout_cancel(&d.resolve_deadline);
  uloop_timeout_cancel(&d.send_timer);
  uloop_timeout_cancel(&d.round_end);
  uloop_timeout_cancel(&d.next_round);
  luaHelperDestroy(d.hook);
  asyncPing_destroy(d.ping);
  asyncDns_destroy(d.dns);
  uloop_done();
  return d.once && d.failed ? 1 : 0;
}
