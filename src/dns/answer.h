// The answer side of the DNS client: reading one datagram from a socket and
// judging it. Not exported; tests and the fuzzer reach it through the object
// library.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

#include "common/deps.h"
#include <routerkit/async_dns.h>

namespace rk::dns {

constexpr size_t kDnsReceiveBufferSize = 65535;  // the largest UDP payload
constexpr int kMaxAnswers = 16;                  // answers looked at per datagram

// Reads one datagram from `fd` into a 65535-byte buffer and hands it
// to processDatagram. -1 for a null context, a negative descriptor or a
// failed read ("error recvfrom"); otherwise processDatagram's result.
int checkDnsSocket(AsyncDnsContext *context, int fd) noexcept;

// Judges one received datagram of exactly `len` bytes and delivers its
// addresses: size, identifier and question count tests, at most 16 answers,
// cache insertion for A/AAAA with a non-zero TTL, one callback at the end when
// a slot was filled. `from` (may be null) is used only for the " from %s"
// variants of the messages, which name checkDnsSocket as their origin.
// Every read stays inside [data, data + len); bytes behind the end read as
// zero. 0 when the answer loop ran to its end, else -1.
int processDatagram(AsyncDnsContext *context, const uint8_t *data, size_t len,
                    const struct sockaddr_storage *from) noexcept;

}  // namespace rk::dns
