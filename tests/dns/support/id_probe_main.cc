// A fresh process for the identifier test: its first context must carry
// getpid() and the second getpid() + 1. Makes two contexts one after the
// other and looks up "first.id" and "second.id" at 127.0.0.1.
#include <initializer_list>

#include <routerkit/async_dns.h>

int main() {
  for (const char *name : {"first.id", "second.id"}) {
    AsyncDnsContext *c = asyncDns_create(nullptr);
    if (!c || asyncDns_AddServer(c, "127.0.0.1") != 0 || asyncLookup(c, name) != 0) return 1;
    asyncDns_destroy(c);
  }
  return 0;
}
