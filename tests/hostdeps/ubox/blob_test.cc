// blobmsg's checks meant for data from other processes: they refuse what is
// cut or corrupt and never read past the length they are given. (The bytes
// the writers produce are pinned through the library's own conversions.)
// Hostile input is copied into a heap block of exactly its size, so an
// over-read shows up under AddressSanitizer.
extern "C" {
#include <libubox/blobmsg.h>
}

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "rk_test.h"

namespace rk::test {
namespace {

// A blob_buf that starts zeroed and is freed on scope exit.
struct Buf {
  blob_buf b{};
  ~Buf() { blob_buf_free(&b); }
};

// Exactly len bytes on the heap (a zero-length block for len 0).
struct HeapCopy {
  std::unique_ptr<uint8_t[]> bytes;
  size_t len;
  HeapCopy(const void *src, size_t n) : bytes(new uint8_t[n]), len(n) { std::memcpy(bytes.get(), src, n); }
  blob_attr *attr() { return reinterpret_cast<blob_attr *>(bytes.get()); }
};

// root (blobmsg table) { "tab": { "s": "ab", "arr": [ true, "named-in-array": true ] },
//                        "num": 7, "list": [ "x", "yz" ] }
void build_sample(blob_buf *b) {
  blobmsg_buf_init(b);
  void *tab = blobmsg_open_table(b, "tab");
  blobmsg_add_string(b, "s", "ab");
  void *arr = blobmsg_open_array(b, "arr");
  blobmsg_add_u8(b, nullptr, 1);
  blobmsg_add_u8(b, "named-in-array", 1);
  blobmsg_close_array(b, arr);
  blobmsg_close_table(b, tab);
  blobmsg_add_u32(b, "num", 7);
  void *list = blobmsg_open_array(b, "list");
  blobmsg_add_string(b, nullptr, "x");
  blobmsg_add_string(b, nullptr, "yz");
  blobmsg_close_array(b, list);
}

blob_attr *first_child(blob_attr *container) { return static_cast<blob_attr *>(blobmsg_data(container)); }

TEST(BlobUntrusted, TruncatedAttributesAreRejected) {
  Buf buf;
  build_sample(&buf.b);
  blob_attr *tab = first_child(buf.b.head);
  blob_attr *str = first_child(tab);
  blob_attr *arr = blob_next(str);
  blob_attr *num = blob_next(tab);
  for (blob_attr *attr : {tab, str, arr, num}) {
    const size_t full = blob_pad_len(attr);
    for (size_t len = 0; len < blob_raw_len(attr); len++) {
      HeapCopy copy(attr, len);
      EXPECT_FALSE(blobmsg_check_attr_len(copy.attr(), false, len)) << "len " << len;
      EXPECT_EQ(blobmsg_check_array_len(copy.attr(), BLOBMSG_TYPE_UNSPEC, len), -1);
    }
    HeapCopy whole(attr, full);
    EXPECT_TRUE(blobmsg_check_attr_len(whole.attr(), true, full));
  }
  HeapCopy whole_arr(arr, blob_pad_len(arr));
  EXPECT_EQ(blobmsg_check_array_len(whole_arr.attr(), BLOBMSG_TYPE_UNSPEC, whole_arr.len), 2);
  EXPECT_EQ(blobmsg_check_array_len(whole_arr.attr(), BLOBMSG_TYPE_BOOL, whole_arr.len), 2);
  EXPECT_EQ(blobmsg_check_array_len(whole_arr.attr(), BLOBMSG_TYPE_STRING, whole_arr.len), -1);
  EXPECT_EQ(blobmsg_check_array(tab, BLOBMSG_TYPE_UNSPEC), 2);
  EXPECT_TRUE(blobmsg_check_attr_list(arr, BLOBMSG_TYPE_INT8));
  EXPECT_FALSE(blobmsg_check_attr_list(arr, BLOBMSG_TYPE_INT32));
}

TEST(BlobUntrusted, CorruptAttributesAreRejected) {
  // One attribute named "n" (blob header, name length at 4, name at 6, data
  // at 8), with `patch` written over a copy of it at `at`.
  const char *one = "\0\0\0\1";
  const struct { const char *what; int type; const char *data; int len; size_t at; const char *patch; } cases[] = {
      {"string without NUL", BLOBMSG_TYPE_STRING, "ab", 3, 10, "'c"},
      {"int32 with two bytes", BLOBMSG_TYPE_INT32, "\1\2", 2, 0, ""},
      {"int64 with four bytes", BLOBMSG_TYPE_INT64, "\1\2\3\4", 4, 0, ""},
      {"name longer than the attribute", BLOBMSG_TYPE_INT32, one, 4, 5, "40"},
      {"name without NUL", BLOBMSG_TYPE_INT32, one, 4, 7, "'x"},
      // The extended bit, type 5 (int32) and 24 bits of length.
      {"length beyond the buffer", BLOBMSG_TYPE_INT32, one, 4, 0, "85ffffff"},
      {"length shorter than a header", BLOBMSG_TYPE_INT32, one, 4, 0, "85000002"},
      {"length cutting the name header", BLOBMSG_TYPE_INT32, one, 4, 0, "85000005"},
      {"unknown type", BLOBMSG_TYPE_INT32, one, 4, 0, "8f"},
  };
  for (const auto &c : cases) {
    Buf buf;
    ASSERT_EQ(blob_buf_init(&buf.b, 0), 0);
    blobmsg_add_field(&buf.b, c.type, "n", c.data, c.len);
    blob_attr *attr = first_child(buf.b.head);
    HeapCopy copy(attr, blob_pad_len(attr));
    const std::vector<uint8_t> patch = Hex(c.patch);
    std::copy(patch.begin(), patch.end(), copy.bytes.get() + c.at);
    EXPECT_FALSE(blobmsg_check_attr_len(copy.attr(), false, copy.len)) << c.what;
    // blobmsg_check_attr believes the length: only asked when that is safe.
    const size_t claimed = blob_raw_len(copy.attr());
    EXPECT_FALSE(claimed <= copy.len && claimed >= 4 && blobmsg_check_attr(copy.attr(), false)) << c.what;
  }
}

}  // namespace
}  // namespace rk::test
