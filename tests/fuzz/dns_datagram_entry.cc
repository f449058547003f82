// Fuzz entry for the DNS client's answer processing: arbitrary bytes as a
// received datagram, handed to a real context's datagram processing (the
// socket read in front of it is the kernel's and the end-to-end tests').
// Shared by the libFuzzer target and the plain corpus replay that runs in
// every build.
//
// Input layout: byte 0 chooses the sender, the rest is the datagram.
//   bits 0-1  0 or 3: 127.0.0.1   1: ::1   2: no sender (AF_UNSPEC)
//   bit 2     afterwards look the last delivered name up again, so the
//             cache is read with the names the datagram produced
//
// The context's identifier is pinned to 12 34, so inputs replay the same in
// every process. The callback checks what the daemon relies on: a name of
// at most 253 characters, 1 to 16 slots from a datagram (up to 73 from the
// cache), families 2 and 10 only.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#include <memory>
#include <string>

#include "dns/answer.h"
#include "rk_test.h"

#include <routerkit/async_dns.h>

namespace {

AsyncDnsContext *ctx;  // one for the process, made by the first input
std::string lastName;  // the name the last callback from a datagram delivered
bool fromCache = false;

[[noreturn]] void fail(const char *what) {
  fprintf(stderr, "dns fuzz: %s\n", what);
  abort();
}

int onAnswer(AsyncDnsContext *context, const char *name, DnsResult *result) {
  if (context != ctx) fail("callback with a foreign context");
  if (!name || !result) fail("callback without name or result");
  size_t len = strnlen(name, 256);
  if (len > 253) fail("name longer than 253 characters");
  const int32_t maxSlots = fromCache ? 73 : 16;
  if (result->count < 1 || result->count > maxSlots) fail("slot count out of range");
  unsigned sum = 0;
  for (int32_t i = 0; i < result->count; ++i) {
    const DnsAddressEntry &e = result->slots[i];
    if (e.family != AF_INET && e.family != AF_INET6) fail("slot of an unknown family");
    const auto *bytes = reinterpret_cast<const uint8_t *>(&e);
    for (size_t b = 0; b < sizeof e; ++b) sum += bytes[b];
  }
  if (!fromCache) lastName.assign(name, len);
  return static_cast<int>(sum & 1);
}

AsyncDnsContext *start() {
  // The library logs every refused datagram; inside the test namespace
  // syslog goes nowhere (the messages are still formatted), outside of it
  // we refuse to run rather than flood the machine's log.
  if (!rk::test::SilenceSyslog()) fail("run this through tests/support/rk-ns-run");
  uloop_init();
  AsyncDnsContext *made = asyncDns_create(&onAnswer);
  if (!made) fail("asyncDns_create failed");
  made->id = htons(0x1234);
  return made;
}

sockaddr_storage senderOf(unsigned way) {
  sockaddr_storage ss{};
  const sockaddr_in v4{AF_INET, htons(53), {htonl(INADDR_LOOPBACK)}, {}};
  const sockaddr_in6 v6{AF_INET6, htons(53), 0, IN6ADDR_LOOPBACK_INIT, 0};
  if (way == 0 || way == 3) memcpy(&ss, &v4, sizeof v4);
  if (way == 1) memcpy(&ss, &v6, sizeof v6);
  return ss;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  if (!ctx) ctx = start();
  const size_t len = size - 1;
  lastName.clear();

  // An exact-size heap copy, so that any read past the datagram is caught.
  std::unique_ptr<uint8_t[]> copy(new uint8_t[len ? len : 1]);
  memcpy(copy.get(), data + 1, len);
  const sockaddr_storage from = senderOf(data[0] & 3);
  const int rc = rk::dns::processDatagram(ctx, copy.get(), len, &from);
  if (rc != 0 && rc != -1) fail("processDatagram result");

  if ((data[0] & 4) && !lastName.empty()) {
    // No servers: a miss sends nothing, a hit runs the callback inside.
    fromCache = true;
    if (asyncLookup(ctx, lastName.c_str()) != 0) fail("asyncLookup of a delivered name failed");
    fromCache = false;
  }
  asyncDns_cleanCache(ctx);
  return 0;
}
