// The DNS client's wire conversions: name to labels, labels to name, label
// reversal, and the layout of the queries built from them.
#include <gtest/gtest.h>
#include <string.h>

#include <string>

#include "dns/codec.h"
#include "dns_test.h"
#include "rk_test.h"

namespace rk::test {
namespace {

constexpr uint8_t kUntouched = 0xEE;

// Runs the encoder into a buffer with a guard zone behind `size`, and
// returns what it wrote within `size`, checking nothing lies behind.
Bytes encode(const std::string &name, int32_t size) {
  const size_t room = size > 0 ? static_cast<size_t>(size) : 1;
  Bytes out(room + 16, kUntouched);
  rk::dns::ChangeNameToDnsLabels(out.data(), name.c_str(), size);
  for (size_t i = room; i < out.size(); ++i) {
    EXPECT_EQ(out[i], kUntouched) << "wrote behind size at " << i << " for '" << name << "'";
  }
  out.resize(room);
  return out;
}

TEST(DnsLabelEncoder, Table) {
  // Size 0: the name's length + 2, room for it all; a smaller size cuts the last label.
  const struct { const char *name; int32_t size; const char *expected; } rows[] = {
      {"aaa.bbbbbbb.ccc", 0, "03 'aaa 07 'bbbbbbb 03 'ccc 00"}, {"a..b", 0, "01 'a 00 01 'b 00"},
      {"aaa.bbbbbbb.ccc.", 0, "03 'aaa 07 'bbbbbbb 03 'ccc 00 00"}, {".abc", 0, "00 03 'abc 00"}, {".", 0, "00 00 00"},
      {"aaa.bbbbbbb.ccc", 1, "00"}, {"aaa.bbbbbbb.ccc", 5, "03 'aaa 00"}, {"aaa.bbbbbbb.ccc", 7, "03 'aaa 01 'b 00"},
      {"aaa.bbbbbbb.ccc", 16, "03 'aaa 07 'bbbbbbb 02 'cc 00"}};
  for (const auto &row : rows) {
    const std::string name = row.name;
    const int32_t size = row.size ? row.size : static_cast<int32_t>(name.size() + 2);
    EXPECT_EQ(ToHex(encode(name, size)), ToHex(Hex(row.expected))) << name << " in " << size;
  }
}

// Decodes an exact-size heap copy of `labels` (the decoder must stop at the
// zero byte) into `out`, filled with kUntouched first.
std::string decode(const Bytes &labels, char (&out)[rk::dns::kNameBufferSize]) {
  memset(out, kUntouched, sizeof out);
  rk::dns::ChangeLabelsToDnsName(out, HeapCopy(labels).get());
  return out;
}

TEST(DnsLabelDecoder, Table) {
  const struct { const char *labels; std::string text; } rows[] = {
      {"03 'aaa 07 'bbbbbbb 03 'ccc 00", "aaa.bbbbbbb.ccc"}, {"00", ""}, {"c0 0c 00", "\x0c"},
      {"03 'aaa c0 0c 00", "aaa.\x0c"},
      {"05 'ab 00", "ab"},  // a zero byte ends the text inside a label
      {"c0 00", ""}};       // c0 reads as a label length, not as a pointer
  char out[rk::dns::kNameBufferSize];
  for (const auto &row : rows) EXPECT_EQ(decode(Hex(row.labels), out), row.text) << row.labels;
  // 255 labels of one byte: cut at 253 characters.
  std::string a255, text = "a";
  for (int i = 0; i < 255; ++i) a255 += "01 'a ", text += i < 126 ? ".a" : "";
  EXPECT_EQ(decode(Hex(a255 + "00"), out), text);
}

TEST(DnsLabelDecoder, ReadsAtMost254BytesAndWritesAtMost254) {
  // No terminator anywhere: the decoder must stop at index 254 by itself.
  Bytes labels(rk::dns::kNameDecodeSpan, 'x');
  labels[0] = labels[64] = labels[128] = 63;
  labels[192] = 200;
  char out[rk::dns::kNameBufferSize];
  EXPECT_EQ(decode(labels, out).size(), 253u);
  EXPECT_EQ(static_cast<uint8_t>(out[254]), kUntouched);
  EXPECT_EQ(static_cast<uint8_t>(out[255]), kUntouched);
}

TEST(DnsReverseName, Table) {
  const struct { const char *text; int32_t length; const char *output; } rows[] = {
      {"aaa.bbbbbbb.ccc", 15, "ccc.bbbbbbb.aaa"}, {"4.3.2.1.in-addr.arpa", 7, "1.2.3.4"}, {"abc", 3, "abc"},
      {"a..b", 4, ".b.a"}, {".abc", 4, ".abc"}, {"abc", 0, ""}};
  for (const auto &row : rows) {
    char out[300] = {};
    rk::dns::ReverseDnsName(out, row.text, row.length);
    EXPECT_STREQ(out, row.output) << row.text;
  }
}

}  // namespace
}  // namespace rk::test
