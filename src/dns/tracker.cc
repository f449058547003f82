// The queries a tracked context has in flight: entering a lookup, finding
// the query an answer belongs to, the one timer that sends again and ends
// what got no answer, identifiers from the kernel, and the settings that
// make a context tracked.
#include <routerkit/async_dns.h>
#include <routerkit/log.h>  // GetTickCount

#include <arpa/inet.h>
#include <errno.h>
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
static_assert(std::is_trivially_copyable_v<rk::dns::TrackedLookup>, "the table is plain memory");

namespace rk::dns {
namespace {

constexpr size_t kQueryBufferSize = kTrackedNameMax + kQueryOverhead;
constexpr char kRandomDevice[] = "/dev/urandom";

AsyncDnsContext *contextOfTimer(struct uloop_timeout *t) noexcept {
  auto *ext = reinterpret_cast<ContextExtension *>(reinterpret_cast<char *>(t) - offsetof(ContextExtension, timer));
  return &reinterpret_cast<ContextBox *>(reinterpret_cast<char *>(ext) - offsetof(ContextBox, ext))->record;
}

uint32_t waitMs(const ContextExtension *ext) noexcept { return ext->retryMs != 0 ? ext->retryMs : kDefaultQueryWaitMs; }

uint32_t sendingsAllowed(const ContextExtension *ext) noexcept {
  return ext->retryMs != 0 && ext->attempts > 1 ? ext->attempts : 1;
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

bool idInFlight(const Tracker *tracker, uint16_t id) noexcept {
  for (const TrackedLookup &l : tracker->lookups) {
    if (!l.used) continue;
    for (const TrackedQuery &q : l.queries) {
      if (q.type != 0 && q.open && q.id == id) return true;
    }
  }
  return false;
}

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

void sendQuery(AsyncDnsContext *context, const TrackedLookup &lookup, const TrackedQuery &query) noexcept {
  uint8_t buffer[kQueryBufferSize] = {};
  sendToAll(context, buffer, buildQuery(buffer, query.id, lookup.name, lookup.nameLength, query.type));
}

bool hasOpenQuery(const TrackedLookup &lookup) noexcept {
  for (const TrackedQuery &q : lookup.queries) {
    if (q.type != 0 && q.open) return true;
  }
  return false;
}

// Frees the slot of a lookup none of whose queries is open, and says how it ended.
void endLookup(TrackedLookup *lookup, LookupEnd *end) noexcept {
  end->failed = !lookup->gotAddress;
  end->reason = lookup->reason != 0 ? lookup->reason : ASYNC_DNS_TIMEOUT;
  memcpy(end->name, lookup->name, lookup->nameLength + 1);
  lookup->used = false;
}

// Sends again what waited long enough and may be sent again, ends what may
// not, reports the lookups that ended so, and arms the timer for what is
// left. A failure callback may start lookups meanwhile: they land in free
// slots with later deadlines, so the walk goes on safely.
void onDeadline(struct uloop_timeout *t) {
  AsyncDnsContext *context = contextOfTimer(t);
  ContextExtension *ext = extensionOf(context);
  if (ext->tracker == nullptr) return;
  const uint64_t now = GetTickCount();
  for (TrackedLookup &lookup : ext->tracker->lookups) {
    if (!lookup.used) continue;
    for (TrackedQuery &q : lookup.queries) {
      if (q.type == 0 || !q.open || q.deadline > now) continue;
      if (q.sendings < sendingsAllowed(ext)) {
        ++q.sendings;
        q.awaiting = serversAsked(context);
        q.deadline = now + waitMs(ext);
        sendQuery(context, lookup, q);
      } else {
        q.open = false;
      }
    }
    if (hasOpenQuery(lookup)) continue;
    LookupEnd end;
    endLookup(&lookup, &end);
    reportEnd(context, end);
  }
  uint64_t earliest = UINT64_MAX;
  for (const TrackedLookup &lookup : ext->tracker->lookups) {
    if (!lookup.used) continue;
    for (const TrackedQuery &q : lookup.queries) {
      if (q.type != 0 && q.open && q.deadline < earliest) earliest = q.deadline;
    }
  }
  if (earliest != UINT64_MAX) armTimer(ext, earliest, GetTickCount());
}

// Whether the encoded name at the start of `wire` is `name` as buildQuery
// encodes it: length bytes equal, the letters of labels without regard to case.
bool sameEncodedName(WireView wire, const char *name, size_t length) noexcept {
  size_t p = 0;
  for (;;) {
    const void *dot = memchr(name + p, '.', length - p);
    const size_t j = dot != nullptr ? static_cast<size_t>(static_cast<const char *>(dot) - name) : length;
    if (wire[p] != static_cast<uint8_t>(j - p)) return false;
    for (size_t i = p; i < j; ++i) {
      uint8_t a = wire[i + 1];
      uint8_t b = static_cast<uint8_t>(name[i]);
      if (a >= 'A' && a <= 'Z') a = static_cast<uint8_t>(a - 'A' + 'a');
      if (b >= 'A' && b <= 'Z') b = static_cast<uint8_t>(b - 'A' + 'a');
      if (a != b) return false;
    }
    if (j == length) break;
    p = j + 1;
  }
  return wire[length + 1] == 0;
}

// Makes the table when a setting first asks for it; on a context that stops
// being tracked, forgets what was in flight (no report follows for it).
int applySettings(ContextExtension *ext, const ContextExtension &wanted, const char *origin) noexcept {
  if (isTracked(&wanted) && ext->tracker == nullptr) {
    ext->tracker = static_cast<Tracker *>(calloc(1, sizeof(Tracker)));
    if (ext->tracker == nullptr) {
      RK_LOG_AS(error, origin, "calloc error");
      return -1;
    }
  }
  ext->checks = wanted.checks;
  ext->retryMs = wanted.retryMs;
  ext->attempts = wanted.attempts;
  ext->failure = wanted.failure;
  if (!isTracked(ext) && ext->tracker != nullptr) {
    uloop_timeout_cancel(&ext->timer);
    for (TrackedLookup &lookup : ext->tracker->lookups) lookup.used = false;
  }
  return 0;
}

int setChecks(AsyncDnsContext *context, unsigned checks) noexcept {
  if ((checks & ~kKnownChecks) != 0) return -1;
  ContextExtension *ext = extensionOf(context);
  ContextExtension wanted = *ext;
  wanted.checks = checks;
  return applySettings(ext, wanted, "asyncDns_setChecks");
}

int setRetry(AsyncDnsContext *context, uint32_t timeoutMs, uint32_t attempts) noexcept {
  ContextExtension *ext = extensionOf(context);
  ContextExtension wanted = *ext;
  wanted.retryMs = timeoutMs;
  wanted.attempts = attempts;
  return applySettings(ext, wanted, "asyncDns_setRetry");
}

int setFailureCallback(AsyncDnsContext *context, AsyncDnsFailureCallback callback) noexcept {
  ContextExtension *ext = extensionOf(context);
  ContextExtension wanted = *ext;
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
  TrackedLookup *lookup = nullptr;
  for (TrackedLookup &l : tracker->lookups) {
    if (!l.used) {
      lookup = &l;
      break;
    }
  }
  if (lookup == nullptr) {
    RK_LOG_AS(error, origin, "error in flight(%d)", static_cast<int>(kMaxLookupsInFlight));
    return -1;
  }
  memset(lookup, 0, sizeof *lookup);
  // In use from here, so that the A query's identifier counts as in flight
  // when the AAAA query's is drawn.
  lookup->used = true;
  const uint64_t now = GetTickCount();
  const uint32_t servers = serversAsked(context);
  for (int i = 0; i < typeCount && i < kQueriesPerLookup; ++i) {
    TrackedQuery &q = lookup->queries[i];
    if ((ext->checks & ASYNC_DNS_RANDOM_ID) == 0) {
      q.id = context->id;
    } else if (!drawId(context, tracker, &q.id)) {
      RK_LOG_AS(error, origin, "error getrandom");
      lookup->used = false;
      return -1;
    }
    q.type = types[i];
    q.open = true;
    q.sendings = 1;
    q.awaiting = servers;
    q.deadline = now + waitMs(ext);
  }
  lookup->nameLength = length;
  memcpy(lookup->name, name, length);
  lookup->name[length] = '\0';
  for (const TrackedQuery &q : lookup->queries) {
    if (q.type != 0) sendQuery(context, *lookup, q);
  }
  armTimer(ext, now + waitMs(ext), now);
  return 0;
}

QueryRef findQueryById(ContextExtension *ext, uint16_t id) noexcept {
  for (TrackedLookup &l : ext->tracker->lookups) {
    if (!l.used) continue;
    for (TrackedQuery &q : l.queries) {
      if (q.type != 0 && q.open && q.id == id) return {&l, &q};
    }
  }
  return {nullptr, nullptr};
}

bool asksQuestion(const QueryRef &ref, WireView question) noexcept {
  const size_t length = ref.lookup->nameLength;
  return question.u16(length + 2) == ref.query->type && question.u16(length + 4) == kClassIn &&
         sameEncodedName(question, ref.lookup->name, length);
}

QueryRef findQueryByQuestion(ContextExtension *ext, WireView question) noexcept {
  for (TrackedLookup &l : ext->tracker->lookups) {
    if (!l.used) continue;
    for (TrackedQuery &q : l.queries) {
      if (q.type == 0 || !q.open) continue;
      const QueryRef ref{&l, &q};
      if (asksQuestion(ref, question)) return ref;
    }
  }
  return {nullptr, nullptr};
}

void answerQuery(const QueryRef &ref, bool gotAddress, int reason, bool perServer, LookupEnd *end) noexcept {
  TrackedLookup *lookup = ref.lookup;
  if (gotAddress) lookup->gotAddress = true;
  if (reason != 0 && lookup->reason == 0) lookup->reason = reason;
  if (perServer && ref.query->awaiting > 1) {
    --ref.query->awaiting;
    return;
  }
  ref.query->open = false;
  if (!hasOpenQuery(*lookup)) endLookup(lookup, end);
}

void reportEnd(AsyncDnsContext *context, const LookupEnd &end) noexcept {
  if (!end.failed) return;
  const AsyncDnsFailureCallback failure = extensionOf(context)->failure;
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
