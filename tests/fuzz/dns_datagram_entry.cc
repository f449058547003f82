// Fuzz entry for the DNS client's answer processing: arbitrary bytes as a
// received datagram, handed to a real context's datagram processing (the
// socket read in front of it is the kernel's and the end-to-end tests').
// Shared by the libFuzzer target and the plain corpus replay that runs in
// every build.
//
// Input layout: byte 0 chooses the sender and the context, the rest is the
// datagram.
//   bits 0-1  0 or 3: 127.0.0.1   1: ::1   2: no sender (AF_UNSPEC)
//   bit 2     afterwards look the last delivered name up again, so the
//             cache is read with the names the datagram produced
//   bit 3     a checked context instead (every check, a failure callback,
//             servers 127.0.0.1 and ::1) with a lookup of aaa.bbbbbbb.ccc in
//             flight; its queries carry random identifiers
//   bit 4     with bit 3: the datagram's first two bytes become the
//             identifier of the A query in flight, so inputs get past the
//             identifier check
//
// The plain context's identifier is pinned to 12 34, so inputs replay the
// same in every process. The callback checks what the daemon relies on: a
// name of at most 253 characters, 1 to 16 slots from a datagram (up to 73
// from the cache), families 2 and 10 only; the failure callback a known
// reason and a name.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "dns/answer.h"
#include "dns/tracker.h"
#include "rk_test.h"

#include <routerkit/async_dns.h>

namespace {

constexpr char kInFlight[] = "aaa.bbbbbbb.ccc";

struct FuzzState {
  AsyncDnsContext *ctx = nullptr;
  AsyncDnsContext *checked = nullptr;
  std::string lastName;
  bool fromCache = false;
};

FuzzState &state();

[[noreturn]] void fail(const char *what) {
  fprintf(stderr, "dns fuzz: %s\n", what);
  abort();
}

int onAnswer(AsyncDnsContext *context, const char *name, DnsResult *result) {
  FuzzState &s = state();
  if (context != s.ctx && context != s.checked) fail("callback with a foreign context");
  if (!name || !result) fail("callback without name or result");
  size_t len = strnlen(name, 256);
  if (len > 253) fail("name longer than 253 characters");
  const int32_t maxSlots = s.fromCache ? 73 : 16;
  if (result->count < 1 || result->count > maxSlots) fail("slot count out of range");
  unsigned sum = 0;
  for (int32_t i = 0; i < result->count; ++i) {
    const DnsAddressEntry &e = result->slots[i];
    if (e.family != AF_INET && e.family != AF_INET6) fail("slot of an unknown family");
    const auto *bytes = reinterpret_cast<const uint8_t *>(&e);
    for (size_t b = 0; b < sizeof e; ++b) sum += bytes[b];
  }
  if (!s.fromCache) s.lastName.assign(name, len);
  return static_cast<int>(sum & 1);
}

void onFailure(AsyncDnsContext *context, const char *name, int reason) {
  if (context != state().checked) fail("failure report from a foreign context");
  if (!name || strnlen(name, 256) > 253) fail("failure report without a name");
  if (reason < ASYNC_DNS_NXDOMAIN || reason > ASYNC_DNS_TIMEOUT) fail("failure report with an unknown reason");
}

// Exactly one lookup of kInFlight on the checked context: the table is
// forgotten and the lookup made anew when answers or look-ups changed it.
void keepOneLookup(AsyncDnsContext *c) {
  const rk::dns::Tracker *tracker = rk::dns::extensionOf(c)->tracker;  // none before the first set-up
  if (tracker != nullptr && __builtin_popcountll(tracker->used) == 1) return;
  asyncDns_setChecks(c, 0);
  asyncDns_setFailureCallback(c, nullptr);
  if (asyncDns_setChecks(c, ASYNC_DNS_CHECK_SENDER | ASYNC_DNS_CHECK_QUESTION | ASYNC_DNS_RANDOM_ID) != 0 ||
      asyncDns_setFailureCallback(c, onFailure) != 0 || asyncLookup(c, kInFlight) != 0) {
    fail("checked context set-up");
  }
}

uint16_t idInFlight(AsyncDnsContext *c) {
  const rk::dns::Tracker *tracker = rk::dns::extensionOf(c)->tracker;
  return tracker->ids[__builtin_ctzll(tracker->used)][0];
}

FuzzState &state() {
  static FuzzState s = [] {
    FuzzState f;
    // The library logs every refused datagram; inside the test namespace
    // syslog goes nowhere (the messages are still formatted), outside of it
    // we refuse to run rather than flood the machine's log.
    if (!rk::test::SilenceSyslog()) fail("run this through tests/support/rk-ns-run");
    uloop_init();
    f.ctx = asyncDns_create(&onAnswer);
    if (!f.ctx) fail("asyncDns_create failed");
    f.ctx->id = htons(0x1234);
    f.checked = asyncDns_create(&onAnswer);
    if (!f.checked || asyncDns_AddServer(f.checked, "127.0.0.1") != 0 || asyncDns_AddServer6(f.checked, "::1") != 0)
      fail("checked context");
    f.checked->id = htons(0x1234);
    return f;
  }();
  return s;
}

sockaddr_storage senderOf(unsigned way) {
  sockaddr_storage ss{};
  if (way == 0 || way == 3)
    reinterpret_cast<sockaddr_in &>(ss) = {AF_INET, htons(53), {htonl(INADDR_LOOPBACK)}, {}};
  else if (way == 1)
    reinterpret_cast<sockaddr_in6 &>(ss) = {AF_INET6, htons(53), 0, in6addr_loopback, 0};
  return ss;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  FuzzState &s = state();
  const unsigned way = data[0] & 3;
  const bool lookUpAgain = data[0] & 4;
  const bool checked = data[0] & 8;
  AsyncDnsContext *ctx = checked ? s.checked : s.ctx;
  if (checked) keepOneLookup(ctx);
  const size_t len = size - 1;
  s.lastName.clear();
  s.fromCache = false;

  // An exact-size heap copy, so that any read past the datagram is caught.
  std::unique_ptr<uint8_t[]> copy(new uint8_t[len ? len : 1]);
  if (len) memcpy(copy.get(), data + 1, len);
  if (checked && (data[0] & 16) && len >= 2) {
    const uint16_t id = idInFlight(ctx);
    memcpy(copy.get(), &id, sizeof id);
  }
  sockaddr_storage from = senderOf(way);
  int rc = checked ? rk::dns::processTrackedDatagram(ctx, copy.get(), len, &from)
                   : rk::dns::processDatagram(ctx, copy.get(), len, &from);
  if (rc != 0 && rc != -1) fail("processDatagram result");

  if (lookUpAgain && !s.lastName.empty()) {
    // No servers: a miss sends nothing, a hit runs the callback inside.
    s.fromCache = true;
    if (asyncLookup(ctx, s.lastName.c_str()) != 0) fail("asyncLookup of a delivered name failed");
    s.fromCache = false;
  }
  asyncDns_cleanCache(ctx);
  return 0;
}
