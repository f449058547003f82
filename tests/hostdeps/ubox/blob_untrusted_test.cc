// Checks meant for data from other processes: given a length, they must
// never read past it, and truncated or corrupt input must be rejected. Each
// case copies the bytes into a heap block of exactly the stated size, so an
// over-read shows up under AddressSanitizer.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "ubox_test_util.h"

using ubox_test::Buf;

namespace {

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

// Walks a run the way a careful reader does: every child is checked with
// the bytes that remain before anything of it is read.
int careful_walk(blob_attr *data, size_t len, int depth = 0) {
  int visited = 0;
  blob_attr *cur;
  size_t rem = len;
  __blob_for_each_attr(cur, data, rem) {
    if (!blobmsg_check_attr_len(cur, false, rem))
      continue;
    visited++;
    int type = blobmsg_type(cur);
    if (type == BLOBMSG_TYPE_STRING)
      visited += static_cast<int>(std::strlen(blobmsg_get_string(cur)) > 1000);
    else if ((type == BLOBMSG_TYPE_TABLE || type == BLOBMSG_TYPE_ARRAY) && depth < 8)
      visited += careful_walk(static_cast<blob_attr *>(blobmsg_data(cur)), blobmsg_data_len(cur),
                              depth + 1);
  }
  return visited;
}

TEST(BlobUntrusted, CheckTypeTable) {
  struct Row {
    const char *bytes;
    unsigned len;
    int type;
    bool ok;
  };
  const Row rows[] = {
      {"ab", 3, BLOB_ATTR_STRING, true},  {"ab", 2, BLOB_ATTR_STRING, false},
      {"", 1, BLOB_ATTR_STRING, true},    {"\1", 1, BLOB_ATTR_INT8, true},
      {"\1\2", 2, BLOB_ATTR_INT16, true}, {"\1", 1, BLOB_ATTR_INT16, false},
      {"abcd", 4, BLOB_ATTR_INT32, true}, {"abc", 3, BLOB_ATTR_INT32, false},
      {"abcdefgh", 8, BLOB_ATTR_INT64, true}, {"abcd", 4, BLOB_ATTR_INT64, false},
      {"abcdefgh", 8, BLOB_ATTR_DOUBLE, true}, {"abc", 3, BLOB_ATTR_BINARY, true},
  };
  for (const Row &r : rows) {
    HeapCopy copy(r.bytes, r.len);
    EXPECT_EQ(blob_check_type(copy.bytes.get(), r.len, r.type), r.ok)
        << "type " << r.type << " len " << r.len;
  }
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

TEST(BlobUntrusted, ParseOfATruncatedRunTakesOnlyWholeAttributes) {
  Buf buf;
  build_sample(&buf.b);
  const size_t full = blobmsg_data_len(buf.b.head);
  const blobmsg_policy policy[] = {
      {"tab", BLOBMSG_TYPE_TABLE}, {"num", BLOBMSG_TYPE_INT32}, {"list", BLOBMSG_TYPE_ARRAY}};
  for (size_t len = 0; len <= full; len++) {
    HeapCopy copy(blobmsg_data(buf.b.head), len);
    blob_attr *tb[3];
    blobmsg_parse(policy, 3, tb, copy.bytes.get(), static_cast<unsigned>(len));
    for (blob_attr *a : tb) {
      if (!a)
        continue;
      const uint8_t *end = reinterpret_cast<const uint8_t *>(a) + blob_raw_len(a);
      EXPECT_LE(end, copy.bytes.get() + len) << "len " << len;
    }
    if (len == full) {
      EXPECT_NE(tb[0], nullptr);
      EXPECT_NE(tb[1], nullptr);
      ASSERT_NE(tb[2], nullptr);
      EXPECT_EQ(blobmsg_check_array(tb[2], BLOBMSG_TYPE_STRING), 2);
    }
    careful_walk(copy.attr(), len);
  }
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

TEST(BlobUntrusted, NameRequirement) {
  Buf buf;
  ASSERT_EQ(blob_buf_init(&buf.b, 0), 0);
  blobmsg_add_u32(&buf.b, nullptr, 1);
  blobmsg_add_u32(&buf.b, "n", 1);
  blob_attr *unnamed = first_child(buf.b.head);
  blob_attr *named = blob_next(unnamed);
  EXPECT_TRUE(blobmsg_check_attr(unnamed, false));
  EXPECT_FALSE(blobmsg_check_attr(unnamed, true));
  EXPECT_TRUE(blobmsg_check_attr(named, true));
}

TEST(BlobUntrusted, ContainerWithACorruptChildDoesNotCountIt) {
  Buf buf;
  blobmsg_buf_init(&buf.b);
  void *t = blobmsg_open_table(&buf.b, "t");
  blobmsg_add_u32(&buf.b, "a", 1);
  blobmsg_close_table(&buf.b, t);
  blob_attr *table = first_child(buf.b.head);
  HeapCopy copy(table, blob_pad_len(table));
  EXPECT_EQ(blobmsg_check_array_len(copy.attr(), BLOBMSG_TYPE_UNSPEC, copy.len), 1);
  // The child claims 0x40 bytes inside a table of 20.
  blob_attr *child = first_child(copy.attr());
  put_be32(reinterpret_cast<uint8_t *>(child), BLOB_ATTR_EXTENDED | (5u << 24) | 0x40);
  EXPECT_LT(blobmsg_check_array_len(copy.attr(), BLOBMSG_TYPE_UNSPEC, copy.len), 1);
  EXPECT_EQ(careful_walk(child, blobmsg_data_len(copy.attr())), 0);
}

// Random damage to a valid message: nothing may read out of bounds, and
// whatever the checks accept can be walked safely.
TEST(BlobUntrusted, RandomDamageStaysInBounds) {
  Buf buf;
  build_sample(&buf.b);
  const size_t full = blob_pad_len(buf.b.head);
  std::mt19937 rng(20240229);
  const blobmsg_policy policy[] = {
      {"tab", BLOBMSG_TYPE_TABLE}, {"num", BLOBMSG_TYPE_UNSPEC}, {"list", BLOBMSG_TYPE_ARRAY}};
  for (int round = 0; round < 3000; round++) {
    std::vector<uint8_t> bytes(reinterpret_cast<uint8_t *>(buf.b.head),
                               reinterpret_cast<uint8_t *>(buf.b.head) + full);
    int flips = 1 + static_cast<int>(rng() % 4);
    for (int i = 0; i < flips; i++)
      bytes[rng() % full] ^= static_cast<uint8_t>(1u << (rng() % 8));
    size_t len = full - rng() % 8;
    HeapCopy copy(bytes.data(), len);
    if (blobmsg_check_attr_len(copy.attr(), false, len))
      careful_walk(static_cast<blob_attr *>(blobmsg_data(copy.attr())),
                   blobmsg_data_len(copy.attr()));
    blobmsg_check_array_len(copy.attr(), BLOBMSG_TYPE_UNSPEC, len);
    if (len >= 8) {
      blob_attr *tb[3];
      blobmsg_parse(policy, 3, tb, copy.bytes.get() + 4, static_cast<unsigned>(len - 4));
      for (blob_attr *a : tb) {
        if (a) {
          EXPECT_LE(reinterpret_cast<uint8_t *>(a) + blob_raw_len(a), copy.bytes.get() + len);
        }
      }
    }
    careful_walk(reinterpret_cast<blob_attr *>(copy.bytes.get()), len);
  }
}

}  // namespace
