// blobmsg's checks meant for data from other processes: they refuse what is
// cut or corrupt and never read past the length they are given. (The bytes
// the writers produce are pinned through the library's own conversions.)
// Hostile input is copied into a heap block of exactly its size, so an
// over-read shows up under AddressSanitizer.
extern "C" {
#include <libubox/blobmsg.h>
}

#include <gtest/gtest.h>

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
  HeapCopy(const void *src, size_t n) : bytes(new uint8_t[n]), len(n) {
    if (n)
      std::memcpy(bytes.get(), src, n);
  }
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

blob_attr *first_child(blob_attr *container) {
  return static_cast<blob_attr *>(blobmsg_data(container));
}

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

// Builds one attribute, lets `corrupt` damage a copy and checks the result.
struct CorruptCase {
  const char *what;
  void (*build)(blob_buf *);
  void (*corrupt)(uint8_t *bytes, size_t len);
};

void put_be32(uint8_t *p, uint32_t v) {
  v = cpu_to_be32(v);
  std::memcpy(p, &v, 4);
}

TEST(BlobUntrusted, CorruptAttributesAreRejected) {
  const CorruptCase cases[] = {
      {"string without NUL", [](blob_buf *b) { blobmsg_add_string(b, "s", "ab"); },
       [](uint8_t *p, size_t) { p[10] = 'c'; }},
      {"int32 with two bytes",
       [](blob_buf *b) { blobmsg_add_field(b, BLOBMSG_TYPE_INT32, "i", "\1\2", 2); },
       [](uint8_t *, size_t) {}},
      {"int64 with four bytes",
       [](blob_buf *b) { blobmsg_add_field(b, BLOBMSG_TYPE_INT64, "i", "\1\2\3\4", 4); },
       [](uint8_t *, size_t) {}},
      {"name longer than the attribute", [](blob_buf *b) { blobmsg_add_u32(b, "n", 1); },
       [](uint8_t *p, size_t) { p[5] = 0x40; }},
      {"name without NUL", [](blob_buf *b) { blobmsg_add_u32(b, "n", 1); },
       [](uint8_t *p, size_t) { p[7] = 'x'; }},
      {"length beyond the buffer", [](blob_buf *b) { blobmsg_add_u32(b, "n", 1); },
       [](uint8_t *p, size_t) { put_be32(p, BLOB_ATTR_EXTENDED | (5u << 24) | 0xffffff); }},
      {"length shorter than a header", [](blob_buf *b) { blobmsg_add_u32(b, "n", 1); },
       [](uint8_t *p, size_t) { put_be32(p, BLOB_ATTR_EXTENDED | (5u << 24) | 2); }},
      {"length cutting the name header", [](blob_buf *b) { blobmsg_add_u32(b, "n", 1); },
       [](uint8_t *p, size_t) { put_be32(p, BLOB_ATTR_EXTENDED | (5u << 24) | 5); }},
      {"unknown type", [](blob_buf *b) { blobmsg_add_u32(b, "n", 1); },
       [](uint8_t *p, size_t) { p[0] = 0x80 | 0x0f; }},
  };
  for (const CorruptCase &c : cases) {
    Buf buf;
    ASSERT_EQ(blob_buf_init(&buf.b, 0), 0);
    c.build(&buf.b);
    blob_attr *attr = first_child(buf.b.head);
    HeapCopy copy(attr, blob_pad_len(attr));
    c.corrupt(copy.bytes.get(), copy.len);
    EXPECT_FALSE(blobmsg_check_attr_len(copy.attr(), false, copy.len)) << c.what;
    if (blob_raw_len(copy.attr()) <= copy.len && blob_raw_len(copy.attr()) >= 4) {
      EXPECT_FALSE(blobmsg_check_attr(copy.attr(), false)) << c.what;
    }
  }
}

}  // namespace
}  // namespace rk::test
