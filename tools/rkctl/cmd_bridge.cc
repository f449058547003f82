// rkctl bridge-addr: the LAN bridge address the library chooses for a peer.
#include <arpa/inet.h>
#include <stdio.h>

#include <string>

#include <routerkit/network_helper.h>

#include "rkctl.h"

namespace rkctl {
namespace {

int run(Invocation &inv) {
  if (!inv.Parse({})) return kUsage;
  if (inv.positional.size() != 1) return UsageError(inv, "expected one PEER address");
  const std::string &peer_text = inv.positional[0];
  int family = AddressFamily(peer_text);
  if (!family) return UsageError(inv, "PEER is an IPv4 or IPv6 address, not '%s'", peer_text.c_str());
  unsigned char peer[16] = {}, out[16] = {};
  inet_pton(family, peer_text.c_str(), peer);
  if (networkHelper_getBridgeAddr(static_cast<uint8_t>(family), peer, out) != 1)
    return Fail(inv, "no running br-lan bridge with an %s address", family == AF_INET ? "IPv4" : "IPv6");
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(family, out, text, sizeof text);
  if (inv.json) {
    Json o(json_object_new_object());
    json_object_object_add(o.get(), "peer", JsonString(peer_text));
    json_object_object_add(o.get(), "address", JsonString(text));
    PrintJson(o.get());
  } else {
    printf("%s\n", text);
  }
  return kOk;
}

const Registrar registrar({"bridge-addr", "PEER", "the LAN bridge address chosen for a peer",
                           "Prints the address of the running LAN bridge (an interface whose name begins\n"
                           "with br-lan) that the library chooses for PEER: one in PEER's own subnet if\n"
                           "there is one; otherwise, for IPv4, the first outside the default LAN's\n"
                           "subnet (else the last), for IPv6 the first link-local one (else the last).\n"
                           "Exit 1 when no running bridge has an address of PEER's family.\n"
                           "JSON: {\"peer\": PEER, \"address\": ADDR}.\n",
                           75, run});

}  // namespace
}  // namespace rkctl
