// blob/blobmsg building and reading: the bytes on the wire must be exactly
// what the real library writes, since messages cross process boundaries.
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <string>
#include <vector>

#include "ubox_test_util.h"

using ubox_test::Buf;
using ubox_test::bytes_of;
using ubox_test::hex;
using ubox_test::message;

namespace {

static_assert(sizeof(blob_attr) == 4, "blob_attr header");
static_assert(sizeof(blobmsg_hdr) == 2, "blobmsg_hdr");
static_assert(sizeof(blob_buf) == 32, "blob_buf");
static_assert(offsetof(blob_buf, head) == 0 && offsetof(blob_buf, grow) == 8 &&
                  offsetof(blob_buf, buflen) == 16 && offsetof(blob_buf, buf) == 24,
              "blob_buf field order");

// The two layers number their types differently; both are wire contract.
static_assert(BLOBMSG_TYPE_UNSPEC == 0 && BLOBMSG_TYPE_ARRAY == 1 && BLOBMSG_TYPE_TABLE == 2 &&
                  BLOBMSG_TYPE_STRING == 3 && BLOBMSG_TYPE_INT64 == 4 && BLOBMSG_TYPE_INT32 == 5 &&
                  BLOBMSG_TYPE_INT16 == 6 && BLOBMSG_TYPE_INT8 == 7 && BLOBMSG_TYPE_BOOL == 7 &&
                  BLOBMSG_TYPE_DOUBLE == 8 && __BLOBMSG_TYPE_LAST == 9 && BLOBMSG_TYPE_LAST == 8 &&
                  BLOBMSG_CAST_INT64 == 9,
              "blobmsg type numbers");
static_assert(BLOB_ATTR_UNSPEC == 0 && BLOB_ATTR_NESTED == 1 && BLOB_ATTR_BINARY == 2 &&
                  BLOB_ATTR_STRING == 3 && BLOB_ATTR_INT8 == 4 && BLOB_ATTR_INT16 == 5 &&
                  BLOB_ATTR_INT32 == 6 && BLOB_ATTR_INT64 == 7 && BLOB_ATTR_DOUBLE == 8 &&
                  BLOB_ATTR_LAST == 9,
              "raw blob ids");
static_assert(BLOB_COOKIE == 0x01234567 && BLOB_ATTR_EXTENDED == 0x80000000u &&
                  BLOB_ATTR_ID_MASK == 0x7f000000 && BLOB_ATTR_LEN_MASK == 0x00ffffff &&
                  BLOBMSG_PADDING(5) == 8,
              "header constants");

TEST(BlobmsgWire, NameHeaderLengths) {
  EXPECT_EQ(blobmsg_hdrlen(0), 4u);
  EXPECT_EQ(blobmsg_hdrlen(1), 4u);
  EXPECT_EQ(blobmsg_hdrlen(2), 8u);
  EXPECT_EQ(blobmsg_hdrlen(14), 20u);
}

TEST(BlobmsgWire, ScalarUnderRawRoot) {
  Buf buf;
  ASSERT_EQ(blob_buf_init(&buf.b, 0), 0);
  uint32_t value = cpu_to_be32(0x01020304);
  ASSERT_EQ(blobmsg_add_field(&buf.b, BLOBMSG_TYPE_INT32, "n", &value, 4), 0);
  EXPECT_EQ(message(buf.b), hex("00000010 8500000c 0001 6e 00 01020304"));
}

TEST(BlobmsgWire, TableWithStringAndArrayOfBools) {
  Buf buf;
  ASSERT_EQ(blobmsg_buf_init(&buf.b), 0);
  void *table = blobmsg_open_table(&buf.b, "tab");
  ASSERT_NE(table, nullptr);
  ASSERT_EQ(blobmsg_add_string(&buf.b, "s", "ab"), 0);
  void *array = blobmsg_open_array(&buf.b, nullptr);
  ASSERT_NE(array, nullptr);
  ASSERT_EQ(blobmsg_add_u8(&buf.b, nullptr, 1), 0);
  ASSERT_EQ(blobmsg_add_u8(&buf.b, "named-in-array", 1), 0);
  blobmsg_close_array(&buf.b, array);
  blobmsg_close_table(&buf.b, table);

  EXPECT_EQ(message(buf.b),
            hex("0200004c"                                    // root: table id, not extended
                "82000048 0003 746162 00 0000"                // table "tab", raw 72
                "8300000b 0001 73 00 616200 00"               // "s" = "ab", padded to 12
                "81000030 0000 00 00"                         // unnamed array, raw 48
                "87000009 0000 0000 01 000000"                // bool, raw 9
                "87000019 000e 6e616d65642d696e2d6172726179"  // bool "named-in-array", raw 25
                "00 000000 01 000000"));
}

// An array holding a table holding one int32: 28 bytes, every header with
// the extended flag, names padded, payload big-endian.
TEST(BlobmsgWire, ArrayOfTableOfInt32) {
  Buf buf;
  ASSERT_EQ(blobmsg_buf_init(&buf.b), 0);
  void *array = blobmsg_open_array(&buf.b, "");
  void *table = blobmsg_open_table(&buf.b, nullptr);
  ASSERT_EQ(blobmsg_add_u32(&buf.b, "v", 0x0a0b0c0d), 0);
  blobmsg_close_table(&buf.b, table);
  blobmsg_close_array(&buf.b, array);

  const blob_attr *arr = static_cast<const blob_attr *>(blob_data(buf.b.head));
  EXPECT_EQ(blob_raw_len(buf.b.head), 32u);
  EXPECT_EQ(bytes_of(arr, 28), hex("8100001c 00000000"
                                   "82000014 00000000"
                                   "8500000c 0001 76 00 0a0b0c0d"));
}

TEST(BlobmsgWire, IntegerAndDoubleHelpersWriteBigEndian) {
  Buf buf;
  ASSERT_EQ(blob_buf_init(&buf.b, 0), 0);
  ASSERT_EQ(blobmsg_add_u16(&buf.b, nullptr, 0x0102), 0);
  ASSERT_EQ(blobmsg_add_u64(&buf.b, nullptr, 0x0102030405060708ull), 0);
  ASSERT_EQ(blobmsg_add_double(&buf.b, nullptr, 1.0), 0);
  EXPECT_EQ(message(buf.b), hex("00000030"
                                "8600000a 00000000 0102 0000"
                                "84000010 00000000 0102030405060708"
                                "88000010 00000000 3ff0000000000000"));
}

TEST(BlobmsgWire, AddFieldCopiesBytesAsGivenAndNullNameIsEmpty) {
  Buf buf;
  ASSERT_EQ(blob_buf_init(&buf.b, 0), 0);
  const uint8_t raw[] = {0x04, 0x03, 0x02, 0x01};
  ASSERT_EQ(blobmsg_add_field(&buf.b, BLOBMSG_TYPE_INT32, nullptr, raw, 4), 0);
  ASSERT_EQ(blobmsg_add_field(&buf.b, BLOBMSG_TYPE_STRING, "e", nullptr, 0), 0);
  EXPECT_EQ(message(buf.b), hex("00000018"
                                "8500000c 00000000 04030201"
                                "83000008 0001 6500"));
}

TEST(BlobmsgRead, AccessorsReturnWhatWasAdded) {
  Buf buf;
  ASSERT_EQ(blobmsg_buf_init(&buf.b), 0);
  ASSERT_EQ(blobmsg_add_string(&buf.b, "str", "hello"), 0);
  ASSERT_EQ(blobmsg_add_u8(&buf.b, "flag", 1), 0);
  ASSERT_EQ(blobmsg_add_u16(&buf.b, "u16", 0xbeef), 0);
  ASSERT_EQ(blobmsg_add_u32(&buf.b, "u32", 0xdeadbeef), 0);
  ASSERT_EQ(blobmsg_add_u64(&buf.b, "u64", 0x1122334455667788ull), 0);
  ASSERT_EQ(blobmsg_add_double(&buf.b, "dbl", -2.5), 0);

  std::vector<std::string> names;
  blob_attr *cur;
  size_t rem;
  blobmsg_for_each_attr(cur, buf.b.head, rem) {
    names.push_back(blobmsg_name(cur));
    switch (blobmsg_type(cur)) {
      case BLOBMSG_TYPE_STRING:
        EXPECT_STREQ(blobmsg_get_string(cur), "hello");
        EXPECT_EQ(blobmsg_data_len(cur), 6u);
        break;
      case BLOBMSG_TYPE_INT8:
        EXPECT_TRUE(blobmsg_get_bool(cur));
        EXPECT_EQ(blobmsg_get_u8(cur), 1);
        break;
      case BLOBMSG_TYPE_INT16:
        EXPECT_EQ(blobmsg_get_u16(cur), 0xbeef);
        break;
      case BLOBMSG_TYPE_INT32:
        EXPECT_EQ(blobmsg_get_u32(cur), 0xdeadbeefu);
        break;
      case BLOBMSG_TYPE_INT64:
        EXPECT_EQ(blobmsg_get_u64(cur), 0x1122334455667788ull);
        break;
      case BLOBMSG_TYPE_DOUBLE:
        EXPECT_EQ(blobmsg_get_double(cur), -2.5);
        break;
      default:
        ADD_FAILURE() << "unexpected type " << blobmsg_type(cur);
    }
  }
  EXPECT_EQ(rem, 0u);
  EXPECT_EQ(names, (std::vector<std::string>{"str", "flag", "u16", "u32", "u64", "dbl"}));
  EXPECT_EQ(blobmsg_get_string(nullptr), nullptr);
  EXPECT_EQ(blobmsg_data(nullptr), nullptr);
  EXPECT_EQ(blobmsg_data_len(nullptr), 0u);
}

TEST(BlobmsgRead, LengthsOfAnAttribute) {
  Buf buf;
  ASSERT_EQ(blob_buf_init(&buf.b, 0), 0);
  ASSERT_EQ(blobmsg_add_string(&buf.b, "s", "ab"), 0);
  const blob_attr *a = static_cast<const blob_attr *>(blob_data(buf.b.head));
  EXPECT_TRUE(blob_is_extended(a));
  EXPECT_EQ(blob_id(a), static_cast<unsigned>(BLOBMSG_TYPE_STRING));
  EXPECT_EQ(blob_raw_len(a), 11u);
  EXPECT_EQ(blob_pad_len(a), 12u);
  EXPECT_EQ(blob_len(a), 7u);
  EXPECT_EQ(blobmsg_data_len(a), 3u);
  EXPECT_EQ(static_cast<const char *>(blobmsg_data(a)), a->data + 4);
  EXPECT_EQ(reinterpret_cast<const char *>(blob_next(a)), reinterpret_cast<const char *>(a) + 12);
}

TEST(BlobmsgRead, BothIterationMacrosVisitTheChildrenOfARawRoot) {
  Buf buf;
  ASSERT_EQ(blob_buf_init(&buf.b, 0), 0);
  blobmsg_add_u32(&buf.b, "a", 1);
  blobmsg_add_string(&buf.b, "b", "x");
  blobmsg_add_u8(&buf.b, "c", 0);

  std::vector<const blob_attr *> via_blob, via_blobmsg, via_run;
  blob_attr *cur;
  size_t rem;
  blob_for_each_attr(cur, buf.b.head, rem) via_blob.push_back(cur);
  blobmsg_for_each_attr(cur, buf.b.head, rem) via_blobmsg.push_back(cur);
  rem = blob_len(buf.b.head);
  __blob_for_each_attr(cur, blob_data(buf.b.head), rem) via_run.push_back(cur);
  EXPECT_EQ(via_blob.size(), 3u);
  EXPECT_EQ(via_blob, via_blobmsg);
  EXPECT_EQ(via_blob, via_run);

  blob_attr *none = nullptr;
  int visits = 0;
  blob_for_each_attr(cur, none, rem) visits++;
  blobmsg_for_each_attr(cur, none, rem) visits++;
  EXPECT_EQ(visits, 0);
}

TEST(BlobBuf, RootCookieAndCookiesSurviveReallocation) {
  Buf buf;
  ASSERT_EQ(blobmsg_buf_init(&buf.b), 0);
  EXPECT_EQ(buf.b.buflen, 256);
  void *outer = blobmsg_open_table(&buf.b, "outer");
  EXPECT_EQ(outer, reinterpret_cast<void *>(0x1234567));
  void *inner = blobmsg_open_array(&buf.b, "inner");
  ASSERT_NE(inner, nullptr);
  const std::string text(100, 'x');
  for (int i = 0; i < 40; i++)
    ASSERT_EQ(blobmsg_add_string(&buf.b, nullptr, text.c_str()), 0);
  EXPECT_GT(buf.b.buflen, 4000);
  EXPECT_EQ(buf.b.buflen % 256, 0);
  blobmsg_close_array(&buf.b, inner);
  ASSERT_EQ(blobmsg_add_u32(&buf.b, "after", 7), 0);
  blobmsg_close_table(&buf.b, outer);
  ASSERT_EQ(blobmsg_add_u8(&buf.b, "last", 1), 0);

  // Re-read the structure from the root: every length must be complete.
  EXPECT_EQ(buf.b.head, buf.b.buf);
  std::vector<std::string> top;
  int strings = 0;
  blob_attr *cur, *child, *leaf;
  size_t rem, rem2, rem3;
  blobmsg_for_each_attr(cur, buf.b.head, rem) {
    top.push_back(blobmsg_name(cur));
    if (blobmsg_type(cur) != BLOBMSG_TYPE_TABLE)
      continue;
    blobmsg_for_each_attr(child, cur, rem2) {
      if (blobmsg_type(child) == BLOBMSG_TYPE_ARRAY) {
        blobmsg_for_each_attr(leaf, child, rem3) {
          EXPECT_EQ(blobmsg_get_string(leaf), text);
          strings++;
        }
      } else {
        EXPECT_STREQ(blobmsg_name(child), "after");
        EXPECT_EQ(blobmsg_get_u32(child), 7u);
      }
    }
    EXPECT_EQ(rem2, 0u);
  }
  EXPECT_EQ(rem, 0u);
  EXPECT_EQ(top, (std::vector<std::string>{"outer", "last"}));
  EXPECT_EQ(strings, 40);
}

TEST(BlobBuf, InitReusesTheAllocationAndFreeKeepsGrow) {
  Buf buf;
  ASSERT_EQ(blobmsg_buf_init(&buf.b), 0);
  ASSERT_NE(buf.b.grow, nullptr);
  blobmsg_add_string(&buf.b, "k", "v");
  void *allocation = buf.b.buf;
  int size = buf.b.buflen;
  ASSERT_EQ(blob_buf_init(&buf.b, 0), 0);
  EXPECT_EQ(buf.b.buf, allocation);
  EXPECT_EQ(buf.b.buflen, size);
  EXPECT_EQ(blob_raw_len(buf.b.head), 4u);
  EXPECT_EQ(message(buf.b), hex("00000004"));

  blob_buf_free(&buf.b);
  EXPECT_EQ(buf.b.buf, nullptr);
  EXPECT_EQ(buf.b.head, nullptr);
  EXPECT_EQ(buf.b.buflen, 0);
  EXPECT_NE(buf.b.grow, nullptr);
  ASSERT_EQ(blobmsg_buf_init(&buf.b), 0);
  EXPECT_EQ(message(buf.b), hex("02000004"));
}

TEST(BlobBuf, AddStringBufferAndPrintf) {
  Buf buf;
  ASSERT_EQ(blob_buf_init(&buf.b, 0), 0);
  ASSERT_GE(blobmsg_printf(&buf.b, "p", "%d-%s", 42, "x"), 0);
  char *room = static_cast<char *>(blobmsg_alloc_string_buffer(&buf.b, "q", 16));
  ASSERT_NE(room, nullptr);
  std::strcpy(room, "abc");
  blobmsg_add_string_buffer(&buf.b);
  ASSERT_EQ(blobmsg_add_u8(&buf.b, "z", 9), 0);

  EXPECT_EQ(message(buf.b), hex("0000002c"
                                "8300000d 0001 70 00 34322d7800 000000"
                                "8300000c 0001 71 00 61626300"
                                "87000009 0001 7a 00 09 000000"));
}

TEST(BlobBuf, RawBlobPutAndParse) {
  Buf buf;
  ASSERT_EQ(blob_buf_init(&buf.b, 0), 0);
  ASSERT_NE(blob_put_u32(&buf.b, 1, 0x01020304), nullptr);
  ASSERT_NE(blob_put_string(&buf.b, 2, "hi"), nullptr);
  void *nest = blob_nest_start(&buf.b, 3);
  ASSERT_NE(nest, nullptr);
  ASSERT_NE(blob_put_u8(&buf.b, 1, 5), nullptr);
  blob_nest_end(&buf.b, nest);
  EXPECT_EQ(message(buf.b), hex("00000020"
                                "01000008 01020304"
                                "02000007 686900 00"
                                "0300000c 01000005 05 000000"));

  blob_attr *tb[4];
  const blob_attr_info info[4] = {
      {BLOB_ATTR_UNSPEC, 0, 0, nullptr},
      {BLOB_ATTR_INT32, 0, 0, nullptr},
      {BLOB_ATTR_STRING, 0, 0, nullptr},
      {BLOB_ATTR_NESTED, 0, 0, nullptr},
  };
  EXPECT_EQ(blob_parse(buf.b.head, tb, info, 4), 3);
  EXPECT_EQ(tb[0], nullptr);
  ASSERT_NE(tb[1], nullptr);
  EXPECT_EQ(blob_get_u32(tb[1]), 0x01020304u);
  ASSERT_NE(tb[2], nullptr);
  EXPECT_STREQ(blob_get_string(tb[2]), "hi");
  ASSERT_NE(tb[3], nullptr);
  EXPECT_EQ(blob_len(tb[3]), 8u);
}

TEST(BlobmsgParse, PolicyPicksByNameAndType) {
  Buf buf;
  ASSERT_EQ(blobmsg_buf_init(&buf.b), 0);
  blobmsg_add_string(&buf.b, "name", "eth0");
  blobmsg_add_u32(&buf.b, "mtu", 1500);
  blobmsg_add_string(&buf.b, "wrongtype", "x");
  blobmsg_add_u16(&buf.b, "small", 7);
  void *t = blobmsg_open_table(&buf.b, "opts");
  blobmsg_add_u8(&buf.b, "up", 1);
  blobmsg_close_table(&buf.b, t);

  enum { NAME, MTU, WRONG, SMALL, OPTS, MISSING, COUNT };
  const blobmsg_policy policy[COUNT] = {
      {"name", BLOBMSG_TYPE_STRING}, {"mtu", BLOBMSG_TYPE_INT32},
      {"wrongtype", BLOBMSG_TYPE_INT32}, {"small", BLOBMSG_CAST_INT64},
      {"opts", BLOBMSG_TYPE_TABLE}, {"missing", BLOBMSG_TYPE_UNSPEC},
  };
  blob_attr *tb[COUNT];
  ASSERT_EQ(blobmsg_parse(policy, COUNT, tb, blobmsg_data(buf.b.head),
                          static_cast<unsigned>(blobmsg_len(buf.b.head))),
            0);
  ASSERT_NE(tb[NAME], nullptr);
  EXPECT_STREQ(blobmsg_get_string(tb[NAME]), "eth0");
  ASSERT_NE(tb[MTU], nullptr);
  EXPECT_EQ(blobmsg_get_u32(tb[MTU]), 1500u);
  EXPECT_EQ(tb[WRONG], nullptr);
  ASSERT_NE(tb[SMALL], nullptr);
  EXPECT_EQ(blobmsg_get_u16(tb[SMALL]), 7);
  ASSERT_NE(tb[OPTS], nullptr);
  EXPECT_EQ(blobmsg_check_array(tb[OPTS], BLOBMSG_TYPE_INT8), 1);
  EXPECT_EQ(tb[MISSING], nullptr);
}

}  // namespace
