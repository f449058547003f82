// rkctl bridge-addr: the LAN bridge address the library chooses for a peer.
#include <arpa/inet.h>
#include <stdio.h>

#include <string>

#include <routerkit/network_helper.h>

#include "address.h"
#include "args.h"
#include "command.h"
#include "output.h"

namespace rkctl {
namespace {

int run(Invocation &inv) {
  if (!inv.parse({})) return kUsage;
  if (inv.positional.size() != 1) return usageError(inv, "expected one PEER address");
  const std::string &peerText = inv.positional[0];
  int family = addressFamily(peerText);
  if (!family) return usageError(inv, "PEER is an IPv4 or IPv6 address, not '%s'", peerText.c_str());
  unsigned char peer[sizeof(in6_addr)] = {}, out[sizeof(in6_addr)] = {};
  inet_pton(family, peerText.c_str(), peer);
  if (networkHelper_getBridgeAddr(static_cast<uint8_t>(family), peer, out) != 1)
    return fail(inv, "no running br-lan bridge with an %s address", family == AF_INET ? "IPv4" : "IPv6");
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(family, out, text, sizeof text);
  if (inv.json) {
    JsonPtr o(json_object_new_object());
    json_object_object_add(o.get(), "peer", jsonString(peerText));
    json_object_object_add(o.get(), "address", jsonString(text));
    printJson(o.get());
  } else {
    printf("%s\n", text);
  }
  return kOk;
}

}  // namespace

const Command kBridgeCommand = {
    "bridge-addr", "PEER", "the LAN bridge address chosen for a peer",
    "Prints the address of the running LAN bridge (an interface whose name begins\n"
    "with br-lan) that the library chooses for PEER: one in PEER's own subnet if\n"
    "there is one; otherwise, for IPv4, the first outside the default LAN's\n"
    "subnet (else the last), for IPv6 the first link-local one (else the last).\n"
    "Exit 1 when no running bridge has an address of PEER's family.\n"
    "JSON: {\"peer\": PEER, \"address\": ADDR}.\n",
    run};

}  // namespace rkctl
