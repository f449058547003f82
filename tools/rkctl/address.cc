// rkctl: address literals.
#include "address.h"

#include <arpa/inet.h>

namespace rkctl {

int addressFamily(const std::string &text, std::string *canonical) {
  unsigned char buf[sizeof(in6_addr)];
  char out[INET6_ADDRSTRLEN];
  for (int family : {AF_INET, AF_INET6}) {
    if (inet_pton(family, text.c_str(), buf) != 1) continue;
    if (canonical) *canonical = inet_ntop(family, buf, out, sizeof out) ? out : text;
    return family;
  }
  return 0;
}

}  // namespace rkctl
