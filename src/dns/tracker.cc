// The queries a tracked context has in flight: entering a lookup, finding
// the query an answer belongs to, the one timer that sends again and ends
// what got no answer, identifiers from the kernel, and the settings that
// make a context tracked.
#include <routerkit/async_dns.h>
#include <routerkit/log.h>  // GetTickCount

#include <arpa/inet.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <unistd.h>

#include <type_traits>

#include "diag/logmsg.h"
#include "dns/query.h"
#include "dns/tracker.h"

static_assert(std::is_standard_layout_v<rk::dns::ContextBox>, "the record is the box");
static_assert(offsetof(rk::dns::ContextBox, record) == 0, "the record is the box");
static_assert(std::is_trivially_copyable_v<rk::dns::Tracker>, "the table is plain memory");
static_assert(rk::dns::kMaxLookupsInFlight == 64, "one bit per lookup in Tracker::used");

namespace rk::dns {
namespace {

constexpr size_t kQueryBufferSize = kTrackedNameMax + kQueryOverhead;
constexpr char kRandomDevice[] = "/dev/urandom";

AsyncDnsContext *contextOfTimer(struct uloop_timeout *t) noexcept {
  auto *ext = reinterpret_cast<ContextExtension *>(reinterpret_cast<char *>(t) - offsetof(ContextExtension, timer));
  return &reinterpret_cast<ContextBox *>(reinterpret_cast<char *>(ext) - offsetof(ContextBox, ext))->record;
}

uint32_t waitMs(const ContextExtension *ext) noexcept {
  return ext->settings.retryMs != 0 ? ext->settings.retryMs : kDefaultQueryWaitMs;
}

uint32_t sendingsAllowed(const ContextExtension *ext) noexcept {
  return ext->settings.retryMs != 0 && ext->settings.attempts > 1 ? ext->settings.attempts : 1;
}

// The servers a sending reaches: those of each family whose socket is open.
uint32_t serversAsked(AsyncDnsContext *context) noexcept {
  uint32_t n = 0;
  struct list_head *p;
  if (context->dnsSock.fd >= 0) list_for_each(p, &context->servers) ++n;
  if (context->dns6Sock.fd >= 0) list_for_each(p, &context->servers6) ++n;
  return n;
}

// The kernel's random bytes: getrandom without waiting for the pool to be
// ready (a daemon's loop must not stall at boot), else /dev/urandom.
bool fillRandom(void *out, size_t size) noexcept {
  if (getrandom(out, size, GRND_NONBLOCK) == static_cast<ssize_t>(size)) return true;
  const int fd = open(kRandomDevice, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = read(fd, out, size) == static_cast<ssize_t>(size);
  close(fd);
  return ok;
}

// The lookups in flight, as bits of a copy of `used` (the table may change
// while a caller walks it: re-check the bit before use).
int nextLookup(uint64_t *bits) noexcept {
  const int i = __builtin_ctzll(*bits);
  *bits &= *bits - 1;
  return i;
}

size_t bucketIndex(uint16_t id) noexcept { return static_cast<uint8_t>(id ^ id >> 8); }

// The open query with identifier `id`, as lookup * 2 + query, or -1.
int openQueryWithId(const Tracker *tracker, uint16_t id) noexcept {
  for (uint8_t n = tracker->idBucket[bucketIndex(id)]; n != 0; n = tracker->idNext[n - 1]) {
    const int ref = n - 1;
    if (tracker->ids[ref / kQueriesPerLookup][ref % kQueriesPerLookup] == id) return ref;
  }
  return -1;
}

void openQuery(Tracker *tracker, int i, int q, uint16_t id) noexcept {
  const int ref = i * kQueriesPerLookup + q;
  tracker->ids[i][q] = id;
  tracker->open[i] = static_cast<uint8_t>(tracker->open[i] | 1u << q);
  uint8_t &head = tracker->idBucket[bucketIndex(id)];
  tracker->idNext[ref] = head;
  head = static_cast<uint8_t>(ref + 1);
}

void closeQuery(Tracker *tracker, int i, int q) noexcept {
  const uint8_t mine = static_cast<uint8_t>(i * kQueriesPerLookup + q + 1);
  tracker->open[i] = static_cast<uint8_t>(tracker->open[i] & ~(1u << q));
  for (uint8_t *link = &tracker->idBucket[bucketIndex(tracker->ids[i][q])]; *link != 0; link = &tracker->idNext[*link - 1]) {
    if (*link == mine) {
      *link = tracker->idNext[mine - 1];
      return;
    }
  }
}

bool idInFlight(const Tracker *tracker, uint16_t id) noexcept { return openQueryWithId(tracker, id) >= 0; }

// An identifier no query in flight has, nor the context's own (which a
// forger can predict); false when the kernel gives no random bytes.
bool drawId(AsyncDnsContext *context, Tracker *tracker, uint16_t *out) noexcept {
  for (;;) {
    if (tracker->idsLeft == 0) {
      if (!fillRandom(tracker->idPool, sizeof tracker->idPool)) return false;
      tracker->idsLeft = kIdPoolSize;
    }
    const uint16_t id = tracker->idPool[--tracker->idsLeft];
    if (id != context->id && !idInFlight(tracker, id)) {
      *out = id;
      return true;
    }
  }
}

void armTimer(ContextExtension *ext, uint64_t deadline, uint64_t now) noexcept {
  if (ext->timer.pending && ext->timerDeadline <= deadline) return;
  ext->timerDeadline = deadline;
  const uint64_t wait = deadline > now ? deadline - now : 0;
  uloop_timeout_set(&ext->timer, wait > INT32_MAX ? INT32_MAX : static_cast<int>(wait));
}

// Sends the queries of lookup `i` whose bits are in `which`, all in one
// batch per family: the first is built, the others are copies with their
// own identifier and type.
void sendQueries(AsyncDnsContext *context, const Tracker *tracker, int i, unsigned which) noexcept {
  const TrackedLookup &lookup = tracker->lookups[i];
  const size_t size = lookup.nameLength + kQueryOverhead;
  uint8_t buffers[kQueriesPerLookup][kQueryBufferSize];
  struct iovec queries[kQueriesPerLookup];
  int count = 0;
  for (int q = 0; q < kQueriesPerLookup; ++q) {
    if ((which & (1u << q)) == 0) continue;
    uint8_t *buffer = buffers[count];
    if (count == 0) {
      memset(buffer, 0, size);
      buildQuery(buffer, tracker->ids[i][q], lookup.name, lookup.nameLength, lookup.queries[q].type);
    } else {
      memcpy(buffer, buffers[0], size);
      memcpy(buffer, &tracker->ids[i][q], sizeof tracker->ids[i][q]);
      setQueryType(buffer, lookup.nameLength, lookup.queries[q].type);
    }
    queries[count++] = {buffer, size};
  }
  sendBatchToAll(context, queries, count);
}

// Frees lookup `i`, none of whose queries is open, and says how it ended.
void endLookup(Tracker *tracker, int i, LookupEnd *end) noexcept {
  const TrackedLookup &lookup = tracker->lookups[i];
  end->failed = !lookup.gotAddress;
  end->reason = lookup.reason != 0 ? lookup.reason : ASYNC_DNS_TIMEOUT;
  memcpy(end->name, lookup.name, lookup.nameLength + 1);
  tracker->used &= ~(uint64_t{1} << i);
}

// Sends again what waited long enough and may be sent again, ends what may
// not, reports the lookups that ended so, and arms the timer for what is
// left. A failure callback may start lookups meanwhile: they have later
// deadlines, and the walk re-checks each lookup before it looks at it.
void onDeadline(struct uloop_timeout *t) {
  AsyncDnsContext *context = contextOfTimer(t);
  ContextExtension *ext = extensionOf(context);
  Tracker *tracker = ext->tracker;
  if (tracker == nullptr) return;
  const uint64_t now = GetTickCount();
  for (uint64_t bits = tracker->used; bits != 0;) {
    const int i = nextLookup(&bits);
    if ((tracker->used & (uint64_t{1} << i)) == 0) continue;
    TrackedLookup &lookup = tracker->lookups[i];
    unsigned again = 0;
    for (int q = 0; q < kQueriesPerLookup; ++q) {
      TrackedQuery &query = lookup.queries[q];
      if ((tracker->open[i] & (1u << q)) == 0 || query.deadline > now) continue;
      if (query.sendings < sendingsAllowed(ext)) {
        ++query.sendings;
        query.awaiting = serversAsked(context);
        query.deadline = now + waitMs(ext);
        again |= 1u << q;
      } else {
        closeQuery(tracker, i, q);
      }
    }
    if (again != 0) sendQueries(context, tracker, i, again);
    if (tracker->open[i] != 0) continue;
    LookupEnd end;
    endLookup(tracker, i, &end);
    reportEnd(context, end);
  }
  uint64_t earliest = UINT64_MAX;
  for (uint64_t bits = tracker->used; bits != 0;) {
    const int i = nextLookup(&bits);
    for (int q = 0; q < kQueriesPerLookup; ++q) {
      const uint64_t deadline = tracker->lookups[i].queries[q].deadline;
      if ((tracker->open[i] & (1u << q)) != 0 && deadline < earliest) earliest = deadline;
    }
  }
  if (earliest != UINT64_MAX) armTimer(ext, earliest, GetTickCount());
}

// Whether the encoded name at the start of `wire` is `name` as buildQuery
// encodes it (a length byte where each dot was, the root's zero at the
// end), the letters of labels compared without regard to case.
bool sameEncodedName(WireView wire, const char *name, size_t length) noexcept {
  if (wire.size() < length + 2 || wire[length + 1] != 0) return false;
  const uint8_t *w = wire.at(0);
  // Each length byte but the first stands where the name has a dot, and
  // there are as many dots as that: then every other byte is a letter.
  size_t labels = 0;
  for (size_t p = 0;;) {
    const size_t next = p + w[p] + 1;
    ++labels;
    if (next == length + 1) break;
    if (next > length || name[next - 1] != '.') return false;
    p = next;
  }
  size_t dots = 0;
  for (size_t i = 0; i < length; ++i) {
    uint8_t a = w[i + 1];
    uint8_t b = static_cast<uint8_t>(name[i]);
    if (b == '.') {
      ++dots;
      continue;
    }
    if (a == b) continue;  // servers echo the question as asked
    if (a >= 'A' && a <= 'Z') a = static_cast<uint8_t>(a - 'A' + 'a');
    if (b >= 'A' && b <= 'Z') b = static_cast<uint8_t>(b - 'A' + 'a');
    if (a != b) return false;
  }
  return dots + 1 == labels;
}

// Makes the table when a setting first asks for it; on a context that stops
// being tracked, forgets what was in flight (no report follows for it).
int applySettings(ContextExtension *ext, const TrackSettings &wanted, const char *origin) noexcept {
  if (isTracked(wanted) && ext->tracker == nullptr) {
    ext->tracker = static_cast<Tracker *>(calloc(1, sizeof(Tracker)));
    if (ext->tracker == nullptr) {
      RK_LOG_AS(error, origin, "calloc error");
      return -1;
    }
  }
  ext->settings = wanted;
  if (!isTracked(ext) && ext->tracker != nullptr) {
    uloop_timeout_cancel(&ext->timer);
    ext->tracker->used = 0;
    memset(ext->tracker->open, 0, sizeof ext->tracker->open);
    memset(ext->tracker->idBucket, 0, sizeof ext->tracker->idBucket);
  }
  return 0;
}

int setChecks(AsyncDnsContext *context, unsigned checks) noexcept {
  if ((checks & ~kKnownChecks) != 0) return -1;
  ContextExtension *ext = extensionOf(context);
  TrackSettings wanted = ext->settings;
  wanted.checks = checks;
  return applySettings(ext, wanted, "asyncDns_setChecks");
}

int setRetry(AsyncDnsContext *context, uint32_t timeoutMs, uint32_t attempts) noexcept {
  ContextExtension *ext = extensionOf(context);
  TrackSettings wanted = ext->settings;
  wanted.retryMs = timeoutMs;
  wanted.attempts = attempts;
  return applySettings(ext, wanted, "asyncDns_setRetry");
}

int setFailureCallback(AsyncDnsContext *context, AsyncDnsFailureCallback callback) noexcept {
  ContextExtension *ext = extensionOf(context);
  TrackSettings wanted = ext->settings;
  wanted.failure = callback;
  return applySettings(ext, wanted, "asyncDns_setFailureCallback");
}

}  // namespace

int startTrackedLookup(AsyncDnsContext *context, const char *name, size_t length, const uint16_t *types,
                       int typeCount, const char *origin) noexcept {
  ContextExtension *ext = extensionOf(context);
  Tracker *tracker = ext->tracker;
  if (length > kTrackedNameMax) {
    RK_LOG_AS(error, origin, "error name(%d)", static_cast<int>(length));
    return -1;
  }
  if (~tracker->used == 0) {
    RK_LOG_AS(error, origin, "error in flight(%d)", kMaxLookupsInFlight);
    return -1;
  }
  const int i = __builtin_ctzll(~tracker->used);
  TrackedLookup &lookup = tracker->lookups[i];
  lookup.gotAddress = false;
  lookup.reason = 0;
  lookup.nameLength = length;
  memcpy(lookup.name, name, length);
  lookup.name[length] = '\0';
  const uint64_t now = GetTickCount();
  const uint32_t servers = serversAsked(context);
  // Open from here, so that the identifier of the A query counts as in
  // flight when the AAAA query's is drawn.
  tracker->open[i] = 0;
  tracker->used |= uint64_t{1} << i;
  for (int q = 0; q < kQueriesPerLookup; ++q) {
    TrackedQuery &query = lookup.queries[q];
    query.type = q < typeCount ? types[q] : 0;
    if (query.type == 0) continue;
    uint16_t id = context->id;
    if ((ext->settings.checks & ASYNC_DNS_RANDOM_ID) != 0 && !drawId(context, tracker, &id)) {
      RK_LOG_AS(error, origin, "error getrandom");
      for (int opened = 0; opened < q; ++opened) {
        if ((tracker->open[i] & (1u << opened)) != 0) closeQuery(tracker, i, opened);
      }
      tracker->used &= ~(uint64_t{1} << i);
      return -1;
    }
    openQuery(tracker, i, q, id);
    query.sendings = 1;
    query.awaiting = servers;
    query.deadline = now + waitMs(ext);
  }
  sendQueries(context, tracker, i, tracker->open[i]);
  armTimer(ext, now + waitMs(ext), now);
  return 0;
}

QueryRef findQueryById(ContextExtension *ext, uint16_t id) noexcept {
  const int ref = openQueryWithId(ext->tracker, id);
  if (ref < 0) return {nullptr, 0, 0};
  return {ext->tracker, ref / kQueriesPerLookup, ref % kQueriesPerLookup};
}

bool asksQuestion(const QueryRef &ref, WireView question) noexcept {
  const TrackedLookup &lookup = ref.tracker->lookups[ref.lookup];
  const size_t length = lookup.nameLength;
  return question.u16(length + 2) == lookup.queries[ref.query].type && question.u16(length + 4) == kClassIn &&
         sameEncodedName(question, lookup.name, length);
}

QueryRef findQueryByQuestion(ContextExtension *ext, WireView question) noexcept {
  Tracker *tracker = ext->tracker;
  for (uint64_t bits = tracker->used; bits != 0;) {
    const int i = nextLookup(&bits);
    for (int q = 0; q < kQueriesPerLookup; ++q) {
      const QueryRef ref{tracker, i, q};
      if ((tracker->open[i] & (1u << q)) != 0 && asksQuestion(ref, question)) return ref;
    }
  }
  return {nullptr, 0, 0};
}

void answerQuery(const QueryRef &ref, bool gotAddress, int reason, bool perServer, LookupEnd *end) noexcept {
  Tracker *tracker = ref.tracker;
  TrackedLookup &lookup = tracker->lookups[ref.lookup];
  if (gotAddress) lookup.gotAddress = true;
  if (reason != 0 && lookup.reason == 0) lookup.reason = reason;
  TrackedQuery &query = lookup.queries[ref.query];
  if (perServer && query.awaiting > 1) {
    --query.awaiting;
    return;
  }
  closeQuery(tracker, ref.lookup, ref.query);
  if (tracker->open[ref.lookup] == 0) endLookup(tracker, ref.lookup, end);
}

void reportEnd(AsyncDnsContext *context, const LookupEnd &end) noexcept {
  if (!end.failed) return;
  const AsyncDnsFailureCallback failure = extensionOf(context)->settings.failure;
  if (failure != nullptr) failure(context, end.name, end.reason);
}

bool fromServer(AsyncDnsContext *context, const struct sockaddr_storage *from) noexcept {
  if (from == nullptr) return false;
  if (from->ss_family == AF_INET) {
    struct sockaddr_in sender;
    memcpy(&sender, from, sizeof sender);
    if (sender.sin_port != htons(kDnsPort)) return false;
    const DnsServer *server;
    list_for_each_entry(server, &context->servers, list) {
      if (server->addr.sin_addr.s_addr == sender.sin_addr.s_addr) return true;
    }
  } else if (from->ss_family == AF_INET6) {
    struct sockaddr_in6 sender;
    memcpy(&sender, from, sizeof sender);
    if (sender.sin6_port != htons(kDnsPort)) return false;
    const DnsServer6 *server;
    list_for_each_entry(server, &context->servers6, list) {
      if (memcmp(&server->addr.sin6_addr, &sender.sin6_addr, sizeof sender.sin6_addr) == 0) return true;
    }
  }
  return false;
}

void releaseExtension(ContextExtension *ext) noexcept {
  uloop_timeout_cancel(&ext->timer);
  free(ext->tracker);
  ext->tracker = nullptr;
}

void initExtension(ContextExtension *ext) noexcept { ext->timer.cb = onDeadline; }

}  // namespace rk::dns

extern "C" {

int asyncDns_setChecks(AsyncDnsContext *context, unsigned checks) {
  if (context == nullptr) return -1;
  return rk::dns::setChecks(context, checks);
}

int asyncDns_setRetry(AsyncDnsContext *context, uint32_t timeoutMs, uint32_t attempts) {
  if (context == nullptr) return -1;
  return rk::dns::setRetry(context, timeoutMs, attempts);
}

int asyncDns_setFailureCallback(AsyncDnsContext *context, AsyncDnsFailureCallback callback) {
  if (context == nullptr) return -1;
  return rk::dns::setFailureCallback(context, callback);
}

void asyncDns_setUserData(AsyncDnsContext *context, void *userData) {
  if (context != nullptr) rk::dns::extensionOf(context)->userData = userData;
}

void *asyncDns_getUserData(const AsyncDnsContext *context) {
  if (context == nullptr) return nullptr;
  return rk::dns::extensionOf(const_cast<AsyncDnsContext *>(context))->userData;
}

}  // extern "C"
