// Shared helpers of the libubox tests.
#pragma once

extern "C" {
#include <libubox/blobmsg.h>
}

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace ubox_test {

// Big-endian bytes spelled as hex ("8500000c 0001 ..."), spaces ignored.
inline std::vector<uint8_t> hex(const std::string &text) {
  std::vector<uint8_t> out;
  std::string digits;
  for (char c : text) {
    if (c != ' ')
      digits += c;
  }
  for (size_t i = 0; i + 1 < digits.size(); i += 2)
    out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return out;
}

inline std::vector<uint8_t> bytes_of(const blob_attr *attr, size_t len) {
  const auto *p = reinterpret_cast<const uint8_t *>(attr);
  return std::vector<uint8_t>(p, p + len);
}

// The whole message of a closed buffer, root header included.
inline std::vector<uint8_t> message(const blob_buf &b) {
  return bytes_of(b.head, blob_pad_len(b.head));
}

// A blob_buf that starts zeroed and is freed on scope exit.
struct Buf {
  blob_buf b;
  Buf() { std::memset(&b, 0, sizeof(b)); }
  ~Buf() { blob_buf_free(&b); }
  Buf(const Buf &) = delete;
  Buf &operator=(const Buf &) = delete;
};

}  // namespace ubox_test
