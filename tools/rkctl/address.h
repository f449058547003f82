// rkctl: address literals as the user gives them.
#pragma once

#include <string>

namespace rkctl {

// AF_INET or AF_INET6 for an address literal, else 0; `canonical` gets the
// text as inet_ntop writes it.
int addressFamily(const std::string &text, std::string *canonical = nullptr);

}  // namespace rkctl
