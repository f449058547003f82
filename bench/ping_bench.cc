// The ping client side by side with iputils ping, liboping and a bare raw
// socket client. A small program with two modes:
//
//   ping_bench cpu [ROUNDS] [BURSTS]
//       CPU time (this thread: user + system) per echo reply handled, with a
//       burst of 64 requests in flight (127.0.0.1 .. 127.0.0.64, all answered
//       by the kernel). Four clients take turns, BURSTS bursts each per round:
//         routerkit  asyncPing4 on the uloop, one datagram per read event
//         unprivileged  the same on asyncPing_createUnprivileged's sockets
//                    (the process's group must be in ping_group_range)
//         liboping   ping_send() over the same 64 hosts (same payload size)
//         floor      a bare raw socket on the same uloop that reads one
//                    datagram per event and registers again, as routerkit must,
//                    and does nothing else
//       Prints the median of the rounds for each and the ratios.
//   ping_bench rtt ADDRESS [COUNT]
//       The round-trip time the callbacks report for COUNT requests, one at a
//       time (whole ms; microseconds from the reply callback on either kind
//       of socket), beside iputils ping's own figures for the same address.
//   ping_bench burst routerkit|unprivileged|liboping|floor BURSTS
//       BURSTS bursts of one client only, for whole-process timings.
//
// Needs raw sockets; run it through bench/run-ping-bench.sh (private
// namespaces, with a veth peer for the rtt mode).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <oping.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <routerkit/async_ping.h>
#include <routerkit/log.h>

namespace {

constexpr int kInFlight = 64;
constexpr int kBurstTimeoutMs = 2000;  // a burst with a lost reply ends here and counts what came
constexpr double kMicrosecondsPerMs = 1000;

uint64_t threadCpuNs() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

double median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

std::vector<std::string> burstTargets() {
  std::vector<std::string> out;
  for (int i = 1; i <= kInFlight; i++) out.push_back("127.0.0." + std::to_string(i));
  return out;
}

// Each client runs one burst and tells how many replies it handled.
class Client {
 public:
  virtual ~Client() = default;
  virtual bool ok() const = 0;
  virtual uint64_t burst() = 0;
};

uint64_t g_replies = 0;
uint64_t g_want = 0;
std::vector<uint32_t> g_delays;

void countReply() { ++g_replies; }

// Runs the loop until g_want replies are in, or the burst's time is up
// (a run with a timeout handles one event, as libubox's does).
void runBurst() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const int64_t end = ts.tv_sec * 1000 + ts.tv_nsec / 1000000 + kBurstTimeoutMs;
  for (int64_t now = 0; g_replies < g_want; uloop_run_timeout(static_cast<int>(end - now))) {
    clock_gettime(CLOCK_MONOTONIC, &ts);
    now = ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
    if (now >= end) break;
  }
}

class Routerkit : public Client {
 public:
  // Raw or unprivileged sockets; the reply callback's microseconds when `timed`.
  explicit Routerkit(bool unprivileged = false, bool timed = false)
      : ctx_(unprivileged ? asyncPing_createUnprivileged(&Routerkit::onReply) : asyncPing_create(&Routerkit::onReply)),
        targets_(burstTargets()) {
    if (ctx_ != nullptr && timed) asyncPing_setReplyCallback(ctx_, &Routerkit::onTimedReply);
  }
  ~Routerkit() override { asyncPing_destroy(ctx_); }
  bool ok() const override { return ctx_ != nullptr; }
  uint64_t burst() override {
    const uint64_t before = g_replies;
    g_want = g_replies + targets_.size();
    for (const auto &t : targets_) asyncPing4(ctx_, t.c_str());
    runBurst();
    return g_replies - before;
  }
  // One request, its reply's delay into g_delays.
  bool once(const char *address) {
    g_want = g_replies + 1;
    const int sent = strchr(address, ':') ? asyncPing6(ctx_, address) : asyncPing4(ctx_, address);
    if (sent < 0) return false;
    runBurst();
    return g_replies == g_want;
  }

 private:
  static int onReply(AsyncPingContext *, const char *, uint32_t delay) {
    g_delays.push_back(delay);
    countReply();
    return 0;
  }
  static void onTimedReply(AsyncPingContext *, const char *, uint16_t, uint32_t microseconds) {
    g_delays.push_back(microseconds);
    countReply();
  }
  AsyncPingContext *ctx_;
  std::vector<std::string> targets_;
};

class Liboping : public Client {
 public:
  Liboping() : obj_(ping_construct()) {
    if (obj_ == nullptr) return;
    double timeout = kBurstTimeoutMs / 1000.0;
    int family = AF_INET;
    // 28 bytes of data: the same 36-byte request as routerkit's.
    char data[] = "0123456789012345678901234567";
    ping_setopt(obj_, PING_OPT_TIMEOUT, &timeout);
    ping_setopt(obj_, PING_OPT_AF, &family);
    ping_setopt(obj_, PING_OPT_DATA, data);
    ok_ = true;
    for (const auto &t : burstTargets()) ok_ = ok_ && ping_host_add(obj_, t.c_str()) == 0;
  }
  ~Liboping() override {
    if (obj_ != nullptr) ping_destroy(obj_);
  }
  bool ok() const override { return obj_ != nullptr && ok_; }
  uint64_t burst() override {
    const int n = ping_send(obj_);
    return n > 0 ? static_cast<uint64_t>(n) : 0;
  }

 private:
  pingobj_t *obj_;
  bool ok_ = false;
};

// The least a client of this shape does: a prepared request, one recvfrom
// per read event, type and identifier tested, the registration renewed.
class Floor : public Client {
 public:
  Floor() {
    ufd_.fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, IPPROTO_ICMP);
    const int32_t size = 0x20000;
    setsockopt(ufd_.fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    ufd_.cb = &Floor::onEvent;
    if (ufd_.fd >= 0) uloop_fd_add(&ufd_, ULOOP_READ);
    for (const auto &t : burstTargets()) {
      sockaddr_in a{};
      a.sin_family = AF_INET;
      inet_pton(AF_INET, t.c_str(), &a.sin_addr);
      targets_.push_back(a);
    }
    id_ = htons(static_cast<uint16_t>(getpid() ^ 0x5a5a));
  }
  ~Floor() override {
    uloop_fd_delete(&ufd_);
    if (ufd_.fd >= 0) close(ufd_.fd);
  }
  bool ok() const override { return ufd_.fd >= 0; }
  uint64_t burst() override {
    const uint64_t before = g_replies;
    g_want = g_replies + targets_.size();
    for (const auto &to : targets_) {
      uint8_t m[36] = {8};
      memcpy(m + 4, &id_, 2);
      const uint16_t seq = htons(seq_++);
      memcpy(m + 6, &seq, 2);
      uint32_t sum = 0;
      for (int i = 0; i < 36; i += 2) sum += static_cast<uint32_t>(m[i] << 8 | m[i + 1]);
      sum = (sum & 0xffff) + (sum >> 16);
      sum = ~(sum + (sum >> 16)) & 0xffff;
      m[2] = static_cast<uint8_t>(sum >> 8), m[3] = static_cast<uint8_t>(sum);
      sendto(ufd_.fd, m, sizeof m, 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
    }
    runBurst();
    return g_replies - before;
  }

 private:
  static void onEvent(uloop_fd *u, unsigned int events) {
    if (events & ULOOP_READ) {
      uint8_t b[128];
      sockaddr_in from;
      socklen_t len = sizeof from;
      const ssize_t n = recvfrom(u->fd, b, sizeof b, 0, reinterpret_cast<sockaddr *>(&from), &len);
      const size_t at = (b[0] & 15u) * 4;
      if (n >= static_cast<ssize_t>(at + 8) && b[at] == 0 && memcmp(b + at + 4, &id_, 2) == 0) countReply();
    }
    uloop_fd_add(u, ULOOP_READ);
  }
  static uint16_t id_;
  uloop_fd ufd_{};
  uint16_t seq_ = 0;
  std::vector<sockaddr_in> targets_;
};
uint16_t Floor::id_ = 0;

constexpr int kClientCount = 4;
const char *const kClients[kClientCount] = {"routerkit", "unprivileged", "liboping", "floor"};

// Only one client may hold a socket at a time: every raw socket reads every
// ICMP datagram, and another client's reading would count as this one's CPU.
std::unique_ptr<Client> makeClient(const std::string &name) {
  std::unique_ptr<Client> c;
  if (name == kClients[0]) c.reset(new Routerkit());
  if (name == kClients[1]) c.reset(new Routerkit(true));
  if (name == kClients[2]) c.reset(new Liboping());
  if (name == kClients[3]) c.reset(new Floor());
  if (c && !c->ok()) {
    fprintf(stderr, "%s: cannot start (raw sockets need root, unprivileged ones a group in ping_group_range)\n",
            name.c_str());
    c.reset();
  }
  return c;
}

int cpuMode(int rounds, int bursts) {
  std::vector<double> perReply[kClientCount];
  uint64_t lost[kClientCount] = {};
  for (int r = 0; r < rounds; r++) {
    for (int i = 0; i < kClientCount; i++) {
      std::unique_ptr<Client> c = makeClient(kClients[i]);
      if (!c) return 1;
      c->burst();  // warm up: sockets, caches, the kernel's routes
      uint64_t replies = 0;
      const uint64_t t0 = threadCpuNs();
      for (int b = 0; b < bursts; b++) replies += c->burst();
      const uint64_t t1 = threadCpuNs();
      lost[i] += static_cast<uint64_t>(bursts) * kInFlight - replies;
      if (replies > 0) perReply[i].push_back(static_cast<double>(t1 - t0) / static_cast<double>(replies));
    }
  }
  double m[kClientCount];
  for (int i = 0; i < kClientCount; i++) {
    m[i] = median(perReply[i]);
    printf("cpu per reply, %-12s %8.0f ns  (median of %d rounds of %d bursts of %d; %llu replies lost)\n", kClients[i],
           m[i], rounds, bursts, kInFlight, static_cast<unsigned long long>(lost[i]));
  }
  printf("ratio routerkit/liboping %.2f (target <= 1.00), routerkit/floor %.2f (target <= 1.15)\n", m[0] / m[2],
         m[0] / m[3]);
  printf("ratio unprivileged/routerkit %.2f, unprivileged/liboping %.2f, unprivileged/floor %.2f\n", m[1] / m[0],
         m[1] / m[2], m[1] / m[3]);
  return 0;
}

int burstMode(const std::string &which, int bursts) {
  std::unique_ptr<Client> c = makeClient(which);
  if (!c) return 1;
  uint64_t replies = 0;
  for (int b = 0; b < bursts; b++) replies += c->burst();
  printf("%s: %llu replies\n", which.c_str(), static_cast<unsigned long long>(replies));
  return replies > 0 ? 0 : 1;
}

// The median of COUNT round trips, one request at a time, in ms; one client
// at a time, so that no other socket's events come first.
double routerkitMedian(bool unprivileged, bool timed, const char *address, int count, size_t *got) {
  Routerkit client(unprivileged, timed);
  g_delays.clear();
  for (int i = 0; client.ok() && i < count; i++) {
    client.once(address);
    usleep(10000);
  }
  *got = g_delays.size();
  return median(std::vector<double>(g_delays.begin(), g_delays.end())) / (timed ? kMicrosecondsPerMs : 1);
}

int rttMode(const char *address, int count) {
  size_t n[3];
  const double a = routerkitMedian(false, false, address, count, &n[0]);
  const double us[2] = {routerkitMedian(false, true, address, count, &n[1]),
                        routerkitMedian(true, true, address, count, &n[2])};
  // iputils ping to the same address, its per-reply "time=" figures.
  const std::string cmd = std::string("ping -n -c ") + std::to_string(count) + " -i 0.01 " + address + " 2>&1";
  std::vector<double> theirs;
  if (FILE *p = popen(cmd.c_str(), "r")) {
    char line[512];
    while (fgets(line, sizeof line, p) != nullptr) {
      if (const char *t = strstr(line, "time=")) theirs.push_back(atof(t + 5));
    }
    pclose(p);
  }
  const double b = median(theirs);
  printf("rtt %-10s iputils ping median %.3f ms (%zu of %d)\n"
         "    routerkit whole ms %.3f ms (%zu)   difference %+.3f ms\n"
         "    routerkit microseconds, raw %.3f ms (%zu)   difference %+.3f ms\n"
         "    routerkit microseconds, unprivileged %.3f ms (%zu)   difference %+.3f ms\n",
         address, b, theirs.size(), count, a, n[0], a - b, us[0], n[1], us[0] - b, us[1], n[2], us[1] - b);
  return n[0] == 0 || n[1] == 0 || n[2] == 0 || theirs.empty();
}

}  // namespace

int main(int argc, char **argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  if (uloop_init() != 0) return 1;
  int status = 2;
  if (mode == "cpu") {
    status = cpuMode(argc > 2 ? atoi(argv[2]) : 21, argc > 3 ? atoi(argv[3]) : 50);
  } else if (mode == "rtt" && argc > 2) {
    status = rttMode(argv[2], argc > 3 ? atoi(argv[3]) : 200);
  } else if (mode == "burst" && argc > 3) {
    status = burstMode(argv[2], atoi(argv[3]));
  } else {
    fprintf(stderr, "usage: %s cpu [ROUNDS] [BURSTS] | rtt ADDRESS [COUNT] | burst CLIENT BURSTS\n", argv[0]);
  }
  uloop_done();
  return status;
}
