// What a context keeps beside its published record: the daemon's pointer,
// the checks it asked for, and the table of queries in flight that checks,
// retries and failure reports need. Not exported; the socket handlers, the
// lookups, the tests and the fuzzer reach it through the object library.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#include "common/deps.h"
#include "dns/codec.h"
#include <routerkit/async_dns.h>

namespace rk::dns {

constexpr int kMaxLookupsInFlight = 64;           // one bit each in Tracker::used
constexpr int kQueriesPerLookup = 2;              // A and AAAA; a PTR lookup uses one
constexpr size_t kTrackedNameMax = 253;           // the longest name an answer can carry
constexpr uint32_t kDefaultQueryWaitMs = 5000;    // without a retry: one sending, this long
constexpr unsigned kDrainPerEvent = 16;           // datagrams one read event takes at most
constexpr size_t kDrainDatagramSize = 4096;       // the longest a tracked context takes
constexpr size_t kIdPoolSize = 64;                // random identifiers fetched per getrandom
constexpr unsigned kKnownChecks = ASYNC_DNS_CHECK_SENDER | ASYNC_DNS_CHECK_QUESTION | ASYNC_DNS_RANDOM_ID;

struct TrackedQuery {
  uint16_t type;      // QTYPE; 0 for an unused slot
  uint32_t sendings;  // done so far
  uint32_t awaiting;  // servers of the last sending that may still answer
  uint64_t deadline;  // GetTickCount at which the current sending's wait ends
};

struct TrackedLookup {
  bool gotAddress;  // an answer delivered an address
  int reason;       // the first failure an answer gave, 0 for none
  TrackedQuery queries[kQueriesPerLookup];
  size_t nameLength;
  char name[kTrackedNameMax + 1];  // as asked
};

// The lookups in flight. What answers are matched by (which lookups are in
// use, which queries are open, their identifiers) is kept apart in small
// arrays, so that a search touches a few cache lines, not every lookup.
constexpr size_t kIdBuckets = 256;  // open queries hashed by the low byte of their identifier

struct Tracker {
  uint64_t used;                                      // bit i: lookups[i] is in flight
  uint8_t open[kMaxLookupsInFlight];                  // bit q: its query q awaits an answer
  uint16_t ids[kMaxLookupsInFlight][kQueriesPerLookup];  // as on the wire
  // Every open query, by identifier: chains of query numbers (lookup * 2 +
  // query) plus one, 0 ending a chain.
  uint8_t idBucket[kIdBuckets];
  uint8_t idNext[kMaxLookupsInFlight * kQueriesPerLookup];
  TrackedLookup lookups[kMaxLookupsInFlight];
  uint16_t idPool[kIdPoolSize];
  size_t idsLeft;
};

// What the daemon opted into.
struct TrackSettings {
  unsigned checks;
  uint32_t retryMs;  // 0: no retry
  uint32_t attempts;
  AsyncDnsFailureCallback failure;
};

struct ContextExtension {
  TrackSettings settings;
  void *userData;
  Tracker *tracker;             // made when first needed, kept until destroy
  struct uloop_timeout timer;   // armed for the earliest deadline in flight
  uint64_t timerDeadline;
};

// The allocation behind every context asyncDns_create makes. The record
// comes first, so the context pointer is the box's; daemons see only the
// record, whose layout is fixed.
struct ContextBox {
  AsyncDnsContext record;
  ContextExtension ext;
};

// Only for contexts made by asyncDns_create: a record a test fills by hand
// has no extension behind it, and the plain path (processDatagram,
// checkDnsSocket) never asks for one.
inline ContextExtension *extensionOf(AsyncDnsContext *context) noexcept {
  return &reinterpret_cast<ContextBox *>(context)->ext;
}

// Checks, a retry or a failure callback: the table is in use.
inline bool isTracked(const TrackSettings &settings) noexcept {
  return settings.checks != 0 || settings.retryMs != 0 || settings.failure != nullptr;
}
inline bool isTracked(const ContextExtension *ext) noexcept { return isTracked(ext->settings); }

// The query an answer belongs to, or none.
struct QueryRef {
  Tracker *tracker;
  int lookup;
  int query;
  explicit operator bool() const noexcept { return tracker != nullptr; }
};

// A lookup that an answer or a deadline ended: what its failure report
// needs, copied out of the table before any callback runs.
struct LookupEnd {
  bool failed;
  int reason;
  char name[kTrackedNameMax + 1];
};

// Sends the queries of a tracked lookup of `name` (L = `length` bytes), one
// per type of `types`, and enters them in the table. -1 (logged as
// `origin`) when the name is too long, the table is full or no random
// identifier can be had; else 0.
int startTrackedLookup(AsyncDnsContext *context, const char *name, size_t length, const uint16_t *types,
                       int typeCount, const char *origin) noexcept;

// The open query with wire identifier `id`.
QueryRef findQueryById(ContextExtension *ext, uint16_t id) noexcept;
// The open query whose question (encoded name, QTYPE, class IN) begins
// `question`; with `ref` given, whether it is that query's.
QueryRef findQueryByQuestion(ContextExtension *ext, WireView question) noexcept;
bool asksQuestion(const QueryRef &ref, WireView question) noexcept;

// Enters an answer to `ref`'s query: `reason` 0 for one that delivered an
// address, else the failure it gives. An error response (`perServer`)
// closes the query only when every server asked has given one. `end` is
// filled when this ends the lookup, whose slot is then free again.
void answerQuery(const QueryRef &ref, bool gotAddress, int reason, bool perServer, LookupEnd *end) noexcept;
// Runs the failure callback for an ended lookup that failed.
void reportEnd(AsyncDnsContext *context, const LookupEnd &end) noexcept;

// True when `from` is port 53 of a server of the list of its family.
bool fromServer(AsyncDnsContext *context, const struct sockaddr_storage *from) noexcept;

// Judges one datagram for a tracked context: the checks, the table, the
// response code, then the answers as processDatagram reads them. 0 when it
// was taken, -1 when refused.
int processTrackedDatagram(AsyncDnsContext *context, const uint8_t *data, size_t len,
                           const struct sockaddr_storage *from) noexcept;
// Reads what has arrived, up to kDrainPerEvent datagrams in one call, and
// judges each as above; nothing there is no error. A datagram longer than
// kDrainDatagramSize is refused ("error size(LENGTH)"). -1 after a failed
// read ("error recvfrom", as checkDnsSocket logs it).
int drainDnsSocket(AsyncDnsContext *context, int fd) noexcept;

// Set-up of a new context's extension (which calloc has zeroed).
void initExtension(ContextExtension *ext) noexcept;
// The extension's teardown inside destroy: the timer off the loop, the table freed.
void releaseExtension(ContextExtension *ext) noexcept;

}  // namespace rk::dns
