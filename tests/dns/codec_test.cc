// The DNS client's wire conversions: name to labels, labels to name, label
// reversal, and the layout of the queries built from them.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "dns/codec.h"
#include "rk_test.h"

namespace rk::test {
namespace {

using rk::dns::WireView;
using Bytes = std::vector<uint8_t>;

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

TEST(DnsLabelEncoder, FullSizeTable) {
  struct Row {
    const char *name;
    const char *expected;
  };
  const Row rows[] = {
      {"aaa.bbbbbbb.ccc", "03 'aaa 07 'bbbbbbb 03 'ccc 00"},
      {"aaa.bbbbbbb.ccc.", "03 'aaa 07 'bbbbbbb 03 'ccc 00 00"},
      {"a..b", "01 'a 00 01 'b 00"},
      {".abc", "00 03 'abc 00"},
      {".", "00 00 00"},
  };
  for (const Row &row : rows) {
    const std::string name = row.name;
    const Bytes expected = Hex(row.expected);
    EXPECT_EQ(expected.size(), name.size() + 2) << name;
    EXPECT_EQ(ToHex(encode(name, static_cast<int32_t>(name.size() + 2))), ToHex(expected)) << name;
  }
}

TEST(DnsLabelEncoder, SmallSizeCutsTheLastLabel) {
  struct Row {
    int32_t size;
    const char *expected;
  };
  const Row rows[] = {
      {1, "00"},
      {5, "03 'aaa 00"},
      {7, "03 'aaa 01 'b 00"},
      {16, "03 'aaa 07 'bbbbbbb 02 'cc 00"},
  };
  for (const Row &row : rows) {
    const Bytes expected = Hex(row.expected);
    Bytes got = encode("aaa.bbbbbbb.ccc", row.size);
    got.resize(expected.size());
    EXPECT_EQ(ToHex(got), ToHex(expected)) << "size " << row.size;
  }
}

std::string decode(const Bytes &labels) {
  // An exact-size heap copy: the decoder must stop at the zero byte.
  std::unique_ptr<uint8_t[]> copy(new uint8_t[labels.size()]);
  memcpy(copy.get(), labels.data(), labels.size());
  char out[rk::dns::kNameBufferSize];
  memset(out, kUntouched, sizeof out);
  rk::dns::ChangeLabelsToDnsName(out, copy.get());
  return out;
}

TEST(DnsLabelDecoder, Table) {
  struct Row {
    const char *labels;
    std::string text;
  };
  const Row rows[] = {
      {"03 'aaa 07 'bbbbbbb 03 'ccc 00", "aaa.bbbbbbb.ccc"},
      {"00", ""},
      {"05 'ab 00", "ab"},  // a zero byte ends the text inside a label
      {"c0 00", ""},       // c0 reads as a label length, not as a pointer
      {"c0 0c 00", "\x0c"},
      {"03 'aaa c0 0c 00", "aaa.\x0c"},
  };
  for (const Row &row : rows) EXPECT_EQ(decode(Hex(row.labels)), row.text) << row.labels;
}

TEST(DnsLabelDecoder, ReadsAtMost254BytesAndWritesAtMost254) {
  // No terminator anywhere: the decoder must stop at index 254 by itself.
  Bytes labels(rk::dns::kNameDecodeSpan, 'x');
  labels[0] = 63;
  labels[64] = 63;
  labels[128] = 63;
  labels[192] = 200;
  std::unique_ptr<uint8_t[]> copy(new uint8_t[labels.size()]);
  memcpy(copy.get(), labels.data(), labels.size());
  char out[rk::dns::kNameBufferSize];
  memset(out, kUntouched, sizeof out);
  rk::dns::ChangeLabelsToDnsName(out, copy.get());
  EXPECT_EQ(strlen(out), 253u);
  EXPECT_EQ(static_cast<uint8_t>(out[254]), kUntouched);
  EXPECT_EQ(static_cast<uint8_t>(out[255]), kUntouched);
}

std::string reverse(const std::string &text, int32_t length, char *out = nullptr) {
  char local[300];
  if (out == nullptr) {
    memset(local, 0, sizeof local);
    out = local;
  }
  rk::dns::ReverseDnsName(out, text.c_str(), length);
  return out;
}

TEST(DnsReverseName, Table) {
  struct Row {
    const char *text;
    int32_t length;
    const char *output;
  };
  const Row rows[] = {
      {"1.2.3.4", 7, "4.3.2.1"},
      {"aaa.bbbbbbb.ccc", 15, "ccc.bbbbbbb.aaa"},
      {"4.3.2.1.in-addr.arpa", 7, "1.2.3.4"},
      {"abc", 3, "abc"},
      {"a..b", 4, ".b.a"},
      {".abc", 4, ".abc"},
      {"", 0, ""},
      {"abc", 0, ""},
  };
  for (const Row &row : rows) EXPECT_EQ(reverse(row.text, row.length), row.output) << row.text;
}


}  // namespace
}  // namespace rk::test
