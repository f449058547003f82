// The DNS client side by side with c-ares on the same uloop, against the
// same local responder (a thread that answers A and AAAA at once, so the
// responder's work is not counted as the client's CPU time).
//
// Google Benchmark runs:
//   BM_EndToEnd/<client>   lookups answered per second, 32 (or 1) in flight,
//                          A+AAAA each, unique names; routerkit untracked and
//                          checked (every check: sender, question, random
//                          identifiers, so a table of queries in flight and a
//                          drained socket), c-ares and a bare UDP client that
//                          only sends and reads (the floor), also in the
//                          untracked client's one-datagram-per-event shape
//   BM_CacheHit/<client>   routerkit answering from its cache inside
//                          asyncLookup; c-ares 1.18 has no cache, so its
//                          nearest local answer, the hosts file, stands beside it
//
// Probe modes for measurements outside Google Benchmark (one per process):
//   --probe=e2e-ours|e2e-checked|e2e-cares|e2e-floor|e2e-floor1|hit-ours|hit-cares --count=N [--ttl=S]
//        [--inflight=1..32]
//        warm up, then N lookups with callgrind collection switched on for
//        this thread only (run under valgrind --tool=callgrind
//        --collect-atstart=no); natively it just runs them
//   --probe=mem --count=N      malloc'd bytes per cached name with two addresses
//   --probe=churn --count=N    N answered lookups over contexts created and
//                              destroyed every 1000 lookups; prints the heap
//                              in use before and after (run under valgrind
//                              memcheck or LeakSanitizer for the leak verdict)
//
// Needs port 53 and a silenced /dev/log: run it through bench/run-dns-bench.sh.
#include <arpa/inet.h>
#include <ares.h>
#include <malloc.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#if __has_include(<valgrind/callgrind.h>)
#include <valgrind/callgrind.h>
#define RK_TOGGLE_COLLECT() CALLGRIND_TOGGLE_COLLECT
#else
#define RK_TOGGLE_COLLECT() ((void)0)
#endif

#include <routerkit/async_dns.h>

#include "dns_responder.h"
#include "rk_test.h"

namespace rk {
namespace bench {
namespace {

constexpr int kInFlight = 32;
constexpr uint64_t kBatch = 256;  // answered lookups per benchmark iteration
constexpr char kCachedName[] = "cached.bench.lan";
// c-ares 1.18 reads the fixed path for ares_getaddrinfo; main() runs only
// inside the private namespaces, where /etc is a throw-away overlay.
constexpr char kHostsFile[] = "/etc/hosts";
constexpr uint64_t kCacheCleanEvery = 65536;

uint64_t threadCpuNs() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

uint64_t wallNs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

// The responder every end-to-end run talks to: 127.0.0.1:53, TTL 300, so
// the routerkit client caches every answer as it would in a daemon.
struct ServingResponder : rk::test::DnsResponder {
  ServingResponder() {
    if (ok()) Serve("192.0.2.1", "2001:db8::1", 300);
  }
};

rk::test::DnsResponder &responder() {
  static ServingResponder r;
  return r;
}

struct ContextDeleter {
  void operator()(AsyncDnsContext *c) const { asyncDns_destroy(c); }
};
using ContextPtr = std::unique_ptr<AsyncDnsContext, ContextDeleter>;

// Ends a run that stopped making progress (a lost datagram would leave a
// lookup waiting for ever: neither client under test retries here).
class Watchdog {
 public:
  explicit Watchdog(const uint64_t *progress) : progress_(progress) {
    t_.cb = &Watchdog::fire;
    uloop_timeout_set(&t_, 2000);
  }
  ~Watchdog() { uloop_timeout_cancel(&t_); }
  bool stalled() const { return stalled_; }

 private:
  static void fire(uloop_timeout *t) {
    auto *w = reinterpret_cast<Watchdog *>(t);  // t_ is the first member
    if (*w->progress_ == w->last_) {
      w->stalled_ = true;
      uloop_end();
      return;
    }
    w->last_ = *w->progress_;
    uloop_timeout_set(t, 2000);
  }
  uloop_timeout t_{};  // first member
  const uint64_t *progress_;
  uint64_t last_ = ~0ull;
  bool stalled_ = false;
};

// Common shape of the three end-to-end clients: kInFlight lookup slots,
// each re-issued as soon as its lookup is complete.
class Driver {
 public:
  virtual ~Driver() = default;
  virtual bool ok() const = 0;

  // Lookups kept in flight, 1 to kInFlight; set before the first run.
  void setInFlight(int n) { inFlight_ = n < 1 ? 1 : n > kInFlight ? kInFlight : n; }

  // Runs the loop until `more` further lookups have been answered.
  bool run(uint64_t more) {
    target_ = answered_ + more;
    if (!started_) {
      started_ = true;
      for (int s = 0; s < inFlight_; ++s) issue(s);
    }
    Watchdog w(&answered_);
    while (answered_ < target_ && !w.stalled()) uloop_run();
    return !w.stalled();
  }
  uint64_t answered() const { return answered_; }

 protected:
  virtual void issue(int slot) = 0;

  // The name of the next lookup for `slot`, "s<slot>-<seq>.bench.lan":
  // unique, so no cache answers it. Formatted by hand, since every client
  // pays for it alike and printf would weigh more than the floor itself.
  const char *nextName(int slot) {
    char *p = name_;
    *p++ = 's';
    p = appendNumber(p, static_cast<uint64_t>(slot));
    *p++ = '-';
    p = appendNumber(p, seq_++);
    memcpy(p, ".bench.lan", sizeof ".bench.lan");
    return name_;
  }
  static int slotOf(const char *name) {
    int slot = 0;
    for (const char *p = name + 1; *p >= '0' && *p <= '9'; ++p) slot = slot * 10 + (*p - '0');
    return slot;
  }
  static char *appendNumber(char *p, uint64_t v) {
    char digits[20];
    int n = 0;
    do {
      digits[n++] = static_cast<char>('0' + v % 10);
      v /= 10;
    } while (v);
    while (n) *p++ = digits[--n];
    return p;
  }

  void completed(int slot) {
    ++answered_;
    issue(slot);
    if (answered_ >= target_) uloop_end();
  }

  uint64_t answered_ = 0;
  uint64_t target_ = 0;
  uint64_t seq_ = 0;
  int inFlight_ = kInFlight;
  bool started_ = false;
  char name_[64];
};

// routerkit: one A and one AAAA answer per lookup, each its own callback;
// `checked` turns every check on.
class OursDriver : public Driver {
 public:
  explicit OursDriver(bool checked = false) : ctx_(asyncDns_create(&OursDriver::onAnswer)) {
    instance_ = this;
    if (ctx_) asyncDns_AddServer(ctx_.get(), "127.0.0.1");
    if (ctx_ && checked &&
        asyncDns_setChecks(ctx_.get(), ASYNC_DNS_CHECK_SENDER | ASYNC_DNS_CHECK_QUESTION | ASYNC_DNS_RANDOM_ID) != 0)
      ctx_.reset();
  }
  ~OursDriver() override { instance_ = nullptr; }
  bool ok() const override { return ctx_ != nullptr; }
  AsyncDnsContext *context() { return ctx_.get(); }

 protected:
  void issue(int slot) override {
    pending_[slot] = 2;
    if (++sinceClean_ == kCacheCleanEvery) {
      asyncDns_cleanCache(ctx_.get());
      sinceClean_ = 0;
    }
    asyncLookup(ctx_.get(), nextName(slot));
  }

 private:
  static int onAnswer(AsyncDnsContext *, const char *name, DnsResult *) {
    OursDriver *d = instance_;
    int slot = slotOf(name);
    if (d && slot >= 0 && slot < kInFlight && --d->pending_[slot] == 0) d->completed(slot);
    return 0;
  }

  static OursDriver *instance_;
  ContextPtr ctx_;
  int pending_[kInFlight] = {};
  uint64_t sinceClean_ = 0;
};
OursDriver *OursDriver::instance_ = nullptr;

struct CheckedDriver : OursDriver {
  CheckedDriver() : OursDriver(true) {}
};

// c-ares: ares_getaddrinfo (AF_UNSPEC, so A and AAAA) with its sockets on
// the same uloop through the socket-state callback and ares_process_fd.
class CaresDriver : public Driver {
 public:
  explicit CaresDriver(const char *lookups = "b") {
    current_ = this;
    ares_options opts{};
    opts.sock_state_cb = &CaresDriver::sockState;
    opts.sock_state_cb_data = this;
    opts.lookups = const_cast<char *>(lookups);
    opts.flags = ARES_FLAG_NOSEARCH;
    int mask = ARES_OPT_SOCK_STATE_CB | ARES_OPT_LOOKUPS | ARES_OPT_FLAGS;
    ok_ = ares_init_options(&channel_, &opts, mask) == ARES_SUCCESS &&
          ares_set_servers_csv(channel_, "127.0.0.1") == ARES_SUCCESS;
    hints_.ai_family = AF_UNSPEC;
    // No RFC 6724 sorting: it would connect a socket per address, and the
    // routerkit client does not sort either.
    hints_.ai_flags = ARES_AI_NOSORT;
  }
  ~CaresDriver() override {
    // Cancelled first: c-ares 1.18 asserts in ares_destroy when a lookup of
    // both families is still half in flight.
    if (channel_) ares_cancel(channel_);
    if (channel_) ares_destroy(channel_);
    current_ = nullptr;
  }
  bool ok() const override { return ok_; }

  // One hosts-file lookup, answered inside the call.
  bool localLookup(const char *name) {
    bool answered = false;
    ares_getaddrinfo(channel_, name, nullptr, &hints_, &CaresDriver::onLocal, &answered);
    return answered;
  }

 protected:
  void issue(int slot) override {
    ares_getaddrinfo(channel_, nextName(slot), nullptr, &hints_, &CaresDriver::onResult,
                     reinterpret_cast<void *>(static_cast<intptr_t>(slot)));
  }

 private:
  struct Watch {
    uloop_fd ufd{};  // first member: the handler gets the Watch back
    CaresDriver *owner = nullptr;
  };

  static void sockState(void *data, ares_socket_t fd, int readable, int writable) {
    auto *d = static_cast<CaresDriver *>(data);
    auto it = d->watches_.find(fd);
    if (!readable && !writable) {
      if (it != d->watches_.end()) {
        uloop_fd_delete(&it->second->ufd);
        d->watches_.erase(it);
      }
      return;
    }
    if (it == d->watches_.end()) {
      auto w = std::make_unique<Watch>();
      w->ufd.fd = fd;
      w->ufd.cb = &CaresDriver::onEvent;
      w->owner = d;
      it = d->watches_.emplace(fd, std::move(w)).first;
    }
    uloop_fd_add(&it->second->ufd, (readable ? ULOOP_READ : 0) | (writable ? ULOOP_WRITE : 0));
  }

  static void onEvent(uloop_fd *u, unsigned int events) {
    // The Watch may be gone when this returns: read what is needed first.
    CaresDriver *d = reinterpret_cast<Watch *>(u)->owner;
    int fd = u->fd;
    ares_process_fd(d->channel_, (events & ULOOP_READ) ? fd : ARES_SOCKET_BAD,
                    (events & ULOOP_WRITE) ? fd : ARES_SOCKET_BAD);
  }

  static void onResult(void *arg, int status, int, ares_addrinfo *result) {
    if (result) ares_freeaddrinfo(result);
    if (status != ARES_SUCCESS) return;  // the watchdog ends a run that stops
    // One channel at a time, and its callbacks only come from ares_process_fd on our loop.
    current_->completed(static_cast<int>(reinterpret_cast<intptr_t>(arg)));
  }

  static void onLocal(void *arg, int status, int, ares_addrinfo *result) {
    *static_cast<bool *>(arg) = status == ARES_SUCCESS && result && result->nodes;
    if (result) ares_freeaddrinfo(result);
  }

 public:
  static CaresDriver *current_;

 private:
  ares_channel channel_ = nullptr;
  ares_addrinfo_hints hints_{};
  std::map<int, std::unique_ptr<Watch>> watches_;
  bool ok_ = false;
};
CaresDriver *CaresDriver::current_ = nullptr;

// The floor: one UDP socket on the loop that sends the same two queries per
// lookup and drains whatever has arrived on each read event, parsing
// nothing and keeping its registration as it is. With `OnePerEvent` it has
// the routerkit client's event shape instead: one datagram per read event,
// then the registration renewed; the lowest cost of that shape.
template <bool OnePerEvent>
class FloorDriver : public Driver {
 public:
  FloorDriver() {
    fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    to_.sin_family = AF_INET;
    to_.sin_port = htons(53);
    to_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ufd_.fd = fd_;
    ufd_.cb = &FloorDriver::onEvent;
    instance_ = this;
    uloop_fd_add(&ufd_, ULOOP_READ);
  }
  ~FloorDriver() override {
    uloop_fd_delete(&ufd_);
    if (fd_ >= 0) close(fd_);
    instance_ = nullptr;
  }
  bool ok() const override { return fd_ >= 0; }

 protected:
  void issue(int slot) override {
    const char *name = nextName(slot);
    uint8_t q[128] = {0x12, 0x34, 0x01, 0x00, 0x00, 0x01};
    size_t pos = 12;
    for (const char *label = name; *label;) {
      const char *dot = strchr(label, '.');
      size_t len = dot ? static_cast<size_t>(dot - label) : strlen(label);
      q[pos++] = static_cast<uint8_t>(len);
      memcpy(q + pos, label, len);
      pos += len;
      label += len + (dot ? 1 : 0);
    }
    q[pos++] = 0;
    q[pos + 1] = 1;  // QTYPE A
    q[pos + 3] = 1;  // QCLASS IN
    sendto(fd_, q, pos + 4, 0, reinterpret_cast<sockaddr *>(&to_), sizeof to_);
    q[pos + 1] = 28;  // QTYPE AAAA
    sendto(fd_, q, pos + 4, 0, reinterpret_cast<sockaddr *>(&to_), sizeof to_);
  }

 private:
  static void onEvent(uloop_fd *u, unsigned int) {
    FloorDriver *d = instance_;
    uint8_t buf[512];
    if (OnePerEvent) {
      if (recv(u->fd, buf, sizeof buf, 0) > 0 && (++d->received_ & 1) == 0) d->completed(0);
      uloop_fd_add(u, ULOOP_READ);
      return;
    }
    while (recv(u->fd, buf, sizeof buf, MSG_DONTWAIT) > 0) {
      if ((++d->received_ & 1) == 0) d->completed(0);
    }
  }

  static FloorDriver *instance_;
  int fd_ = -1;
  sockaddr_in to_{};
  uloop_fd ufd_{};
  uint64_t received_ = 0;
};
template <bool OnePerEvent>
FloorDriver<OnePerEvent> *FloorDriver<OnePerEvent>::instance_ = nullptr;

// routerkit with one name cached (an IPv4 and an IPv6 address).
class OursCacheHit {
 public:
  OursCacheHit() : ctx_(asyncDns_create(&OursCacheHit::onAnswer)) {
    if (!ctx_) return;
    DnsAddressEntry a{}, b{};
    a.family = AF_INET;
    inet_pton(AF_INET, "192.0.2.1", &a.ipv4);
    b.family = AF_INET6;
    inet_pton(AF_INET6, "2001:db8::1", &b.ipv6);
    DnsCache_Put(ctx_->cache, kCachedName, &a, 86400);
    DnsCache_Put(ctx_->cache, kCachedName, &b, 86400);
  }
  bool ok() const { return ctx_ != nullptr; }
  bool lookup() {
    const uint64_t before = hits_;
    asyncLookup(ctx_.get(), kCachedName);
    return hits_ == before + 1;
  }

 private:
  static int onAnswer(AsyncDnsContext *, const char *, DnsResult *r) {
    hits_ += r->count == 2;
    return 0;
  }
  static uint64_t hits_;
  ContextPtr ctx_;
};
uint64_t OursCacheHit::hits_ = 0;

bool writeHostsFile() {
  FILE *f = fopen(kHostsFile, "w");
  if (!f) return false;
  fprintf(f, "127.0.0.1 localhost\n192.0.2.1 %s\n2001:db8::1 %s\n", kCachedName, kCachedName);
  return fclose(f) == 0;
}

// One uloop for the length of a run.
struct LoopScope {
  LoopScope() { uloop_init(); }
  ~LoopScope() { uloop_done(); }
  LoopScope(const LoopScope &) = delete;
  LoopScope &operator=(const LoopScope &) = delete;
};

// ---- Google Benchmark runs -------------------------------------------------

template <typename D>
void endToEnd(benchmark::State &state) {
  if (!responder().ok()) return state.SkipWithError("responder: cannot bind 127.0.0.1:53");
  responder().SetTtl(static_cast<uint32_t>(state.range(0)));
  LoopScope loop;
  D driver;
  if (!driver.ok()) return state.SkipWithError("client setup failed");
  driver.setInFlight(static_cast<int>(state.range(1)));
  if (!driver.run(4 * kBatch)) return state.SkipWithError("warm-up stalled");
  const uint64_t first = driver.answered();
  const uint64_t cpu0 = threadCpuNs(), wall0 = wallNs();
  for (auto _ : state) {
    if (!driver.run(kBatch)) return state.SkipWithError("a lookup stalled");
  }
  const double lookups = static_cast<double>(driver.answered() - first);
  state.SetItemsProcessed(static_cast<int64_t>(lookups));
  state.counters["cpu_ns_per_lookup"] = static_cast<double>(threadCpuNs() - cpu0) / lookups;
  state.counters["wall_ns_per_lookup"] = static_cast<double>(wallNs() - wall0) / lookups;
}

void BM_EndToEnd_Routerkit(benchmark::State &state) { endToEnd<OursDriver>(state); }
void BM_EndToEnd_Checked(benchmark::State &state) { endToEnd<CheckedDriver>(state); }
void BM_EndToEnd_Cares(benchmark::State &state) { endToEnd<CaresDriver>(state); }
void BM_EndToEnd_BareUdpFloor(benchmark::State &state) { endToEnd<FloorDriver<false>>(state); }
void BM_EndToEnd_BareUdpOnePerEvent(benchmark::State &state) { endToEnd<FloorDriver<true>>(state); }

// What checkDnsSocket's zeroing of its 65535-byte receive buffer costs by
// itself, once per datagram.
void BM_ZeroReceiveBuffer(benchmark::State &state) {
  static uint8_t buffer[65535];
  for (auto _ : state) {
    memset(buffer, 0, sizeof buffer);
    benchmark::ClobberMemory();
  }
}

void BM_CacheHit_Routerkit(benchmark::State &state) {
  LoopScope loop;
  OursCacheHit hit;
  if (!hit.ok()) return state.SkipWithError("asyncDns_create failed");
  for (auto _ : state) {
    if (!hit.lookup()) return state.SkipWithError("no cache hit");
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void BM_CacheHit_CaresHostsFile(benchmark::State &state) {
  if (!writeHostsFile()) return state.SkipWithError("cannot write the hosts file");
  CaresDriver cares("f");
  if (!cares.ok()) return state.SkipWithError("ares_init_options failed");
  for (auto _ : state) {
    if (!cares.localLookup(kCachedName)) return state.SkipWithError("hosts file lookup failed");
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

// TTL 300: the routerkit client caches both answers of every lookup, as in a
// daemon; TTL 0: nothing is cached. c-ares and the floor cache nothing anyway.
// 32 lookups in flight, and 1 (each lookup waits for the one before).
BENCHMARK(BM_EndToEnd_Routerkit)->ArgNames({"ttl", "inflight"})->Args({300, 32})->Args({0, 32})->Args({300, 1})
    ->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_EndToEnd_Checked)->ArgNames({"ttl", "inflight"})->Args({300, 32})->Args({300, 1})->UseRealTime()
    ->MinTime(2.0);
BENCHMARK(BM_EndToEnd_Cares)->ArgNames({"ttl", "inflight"})->Args({300, 32})->Args({300, 1})->UseRealTime()
    ->MinTime(2.0);
BENCHMARK(BM_EndToEnd_BareUdpFloor)->ArgNames({"ttl", "inflight"})->Args({300, 32})->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_EndToEnd_BareUdpOnePerEvent)->ArgNames({"ttl", "inflight"})->Args({300, 32})->UseRealTime()
    ->MinTime(2.0);
BENCHMARK(BM_ZeroReceiveBuffer);
BENCHMARK(BM_CacheHit_Routerkit)->MinTime(1.0);
BENCHMARK(BM_CacheHit_CaresHostsFile)->MinTime(1.0);

// ---- probes ----------------------------------------------------------------

template <typename D>
int probeEndToEnd(uint64_t count, uint32_t ttl, int inFlight) {
  if (!responder().ok()) return 1;
  responder().SetTtl(ttl);
  LoopScope loop;
  D driver;
  if (!driver.ok()) return 1;
  driver.setInFlight(inFlight);
  if (!driver.run(2000)) return 1;
  RK_TOGGLE_COLLECT();
  bool ok = driver.run(count);
  RK_TOGGLE_COLLECT();
  return ok ? 0 : 1;
}

template <typename F>
int probeLoop(uint64_t count, F &&lookup) {
  for (int i = 0; i < 2000; ++i)
    if (!lookup()) return 1;
  RK_TOGGLE_COLLECT();
  for (uint64_t i = 0; i < count; ++i) lookup();
  RK_TOGGLE_COLLECT();
  return 0;
}

size_t heapInUse() { return mallinfo2().uordblks; }

// Bytes the heap holds per cached name with an IPv4 and an IPv6 address.
int probeMemory(uint64_t count) {
  LoopScope loop;
  ContextPtr ctx(asyncDns_create(nullptr));
  if (!ctx) return 1;
  DnsAddressEntry a{}, b{};
  a.family = AF_INET;
  b.family = AF_INET6;
  inet_pton(AF_INET6, "2001:db8::", &b.ipv6);
  char name[64];
  const size_t before = heapInUse();
  for (uint64_t i = 0; i < count; ++i) {
    snprintf(name, sizeof name, "host-%06llu.example.lan", static_cast<unsigned long long>(i));
    a.ipv4.s_addr = htonl(0x0a000000u + static_cast<uint32_t>(i));
    b.ipv6.s6_addr[15] = static_cast<uint8_t>(i);
    b.ipv6.s6_addr[14] = static_cast<uint8_t>(i >> 8);
    DnsCache_Put(ctx->cache, name, &a, 3600);
    DnsCache_Put(ctx->cache, name, &b, 3600);
  }
  const size_t after = heapInUse();
  asyncDns_cleanCache(ctx.get());
  const size_t cleaned = heapInUse();
  printf("memory: %llu names of %zu characters with two addresses each: %.1f bytes per name\n",
         static_cast<unsigned long long>(count), strlen(name),
         static_cast<double>(after - before) / static_cast<double>(count));
  printf("memory: heap after cleaning the cache: %+lld bytes\n",
         static_cast<long long>(cleaned) - static_cast<long long>(before));
  return 0;
}

// `count` answered lookups (A+AAAA, cached with TTL 300), a fresh context
// every 1000 of them.
int probeChurn(uint64_t count) {
  if (!responder().ok()) return 1;
  LoopScope loop;
  {
    OursDriver warm;  // lets the loop, the responder and stdio allocate first
    if (!warm.ok() || !warm.run(100)) return 1;
  }
  const size_t before = heapInUse();
  uint64_t done = 0;
  int contexts = 0;
  while (done < count) {
    OursDriver d;
    ++contexts;
    const uint64_t n = count - done < 1000 ? count - done : 1000;
    if (!d.ok() || !d.run(n)) return 1;
    // The lookups still in flight are dropped with the context, as a daemon
    // that destroys its client would drop them.
    done += d.answered();
  }
  const size_t after = heapInUse();
  printf("churn: %llu lookups answered over %d contexts; heap in use before %zu, after %zu (%+lld bytes)\n",
         static_cast<unsigned long long>(done), contexts, before, after,
         static_cast<long long>(after) - static_cast<long long>(before));
  return after == before ? 0 : 4;
}

int runProbe(const std::string &mode, uint64_t count, uint32_t ttl, int inFlight) {
  if (mode == "e2e-ours") return probeEndToEnd<OursDriver>(count, ttl, inFlight);
  if (mode == "e2e-checked") return probeEndToEnd<CheckedDriver>(count, ttl, inFlight);
  if (mode == "e2e-cares") return probeEndToEnd<CaresDriver>(count, ttl, inFlight);
  if (mode == "e2e-floor") return probeEndToEnd<FloorDriver<false>>(count, ttl, inFlight);
  if (mode == "e2e-floor1") return probeEndToEnd<FloorDriver<true>>(count, ttl, inFlight);
  if (mode == "hit-ours") {
    LoopScope loop;
    OursCacheHit hit;
    return hit.ok() ? probeLoop(count, [&] { return hit.lookup(); }) : 1;
  }
  if (mode == "hit-cares") {
    if (!writeHostsFile()) return 1;
    CaresDriver cares("f");
    return cares.ok() ? probeLoop(count, [&] { return cares.localLookup(kCachedName); }) : 1;
  }
  if (mode == "mem") return probeMemory(count);
  if (mode == "churn") return probeChurn(count);
  fprintf(stderr, "unknown probe %s\n", mode.c_str());
  return 2;
}

}  // namespace
}  // namespace bench
}  // namespace rk

int main(int argc, char **argv) {
  if (!rk::test::InTestNamespace()) {
    fprintf(stderr, "%s needs port 53 of its own: run it through bench/run-dns-bench.sh\n", argv[0]);
    return 2;
  }
  // The library logs every server it adds; nothing of that is measured.
  rk::test::SilenceSyslog();
  ares_library_init(ARES_LIB_INIT_ALL);
  std::string probe;
  uint64_t count = 10000;
  uint32_t ttl = 300;
  int inFlight = rk::bench::kInFlight;
  for (int i = 1; i < argc; ++i) {
    if (strncmp(argv[i], "--inflight=", 11) == 0) inFlight = atoi(argv[i] + 11);
    if (strncmp(argv[i], "--probe=", 8) == 0) probe = argv[i] + 8;
    if (strncmp(argv[i], "--count=", 8) == 0) count = strtoull(argv[i] + 8, nullptr, 10);
    if (strncmp(argv[i], "--ttl=", 6) == 0) ttl = static_cast<uint32_t>(strtoul(argv[i] + 6, nullptr, 10));
  }
  int rc;
  if (!probe.empty()) {
    rc = rk::bench::runProbe(probe, count, ttl, inFlight);
  } else {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    rc = 0;
  }
  ares_library_cleanup();
  return rc;
}
