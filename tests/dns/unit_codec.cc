// The DNS client's wire conversions: name to labels, labels to name, label
// reversal, and the layout of the queries built from them.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "dns/codec.h"
#include "dns/internal.h"
#include "rk_test.h"

namespace rk::test {
namespace {

using rk::dns::WireView;
using Bytes = std::vector<uint8_t>;

Bytes bytes(const std::string &text) { return Hex(text); }
std::string hex(const uint8_t *p, size_t n) { return ToHex(p, n); }
std::string hex(const Bytes &b) { return ToHex(b); }

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
      {"a", "01 'a 00"},
      {"aaa.bbbbbbb.ccc.", "03 'aaa 07 'bbbbbbb 03 'ccc 00 00"},
      {"a..b", "01 'a 00 01 'b 00"},
      {".abc", "00 03 'abc 00"},
      {".", "00 00 00"},
      {"..", "00 00 00 00"},
  };
  for (const Row &row : rows) {
    const std::string name = row.name;
    const Bytes expected = bytes(row.expected);
    EXPECT_EQ(expected.size(), name.size() + 2) << name;
    EXPECT_EQ(hex(encode(name, static_cast<int32_t>(name.size() + 2))), hex(expected)) << name;
  }
}

TEST(DnsLabelEncoder, EmptyNameOrTinySizeWritesOneZeroByte) {
  EXPECT_EQ(hex(encode("", 2)), "00 ee");
  EXPECT_EQ(hex(encode("abc", 1)), "00");
  EXPECT_EQ(hex(encode("abc", 0)), "00");
  EXPECT_EQ(hex(encode("abc", -5)), "00");
}

TEST(DnsLabelEncoder, SmallSizeCutsTheLastLabel) {
  struct Row {
    int32_t size;
    const char *expected;
  };
  const Row rows[] = {
      {1, "00"},
      {2, "00 00"},
      {3, "01 'a 00"},
      {5, "03 'aaa 00"},
      {6, "03 'aaa 00 00"},
      {7, "03 'aaa 01 'b 00"},
      {16, "03 'aaa 07 'bbbbbbb 02 'cc 00"},
  };
  for (const Row &row : rows) {
    const Bytes expected = bytes(row.expected);
    Bytes got = encode("aaa.bbbbbbb.ccc", row.size);
    got.resize(expected.size());
    EXPECT_EQ(hex(got), hex(expected)) << "size " << row.size;
  }
}

TEST(DnsLabelEncoder, LabelLengthKeepsOnlyItsLowEightBits) {
  struct Row {
    size_t length;
    uint8_t lengthByte;
  };
  const Row rows[] = {{63, 0x3F}, {64, 0x40}, {192, 0xC0}, {256, 0x00}};
  for (const Row &row : rows) {
    const std::string name = std::string(row.length, 'x') + ".yz";
    const Bytes out = encode(name, static_cast<int32_t>(name.size() + 2));
    EXPECT_EQ(out[0], row.lengthByte) << row.length;
    EXPECT_EQ(std::string(out.begin() + 1, out.begin() + 1 + static_cast<long>(row.length)),
              std::string(row.length, 'x'))
        << "every character is written";
    EXPECT_EQ(hex(&out[row.length + 1], 4), "02 79 7a 00");
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
      {"01 'a 00", "a"},
      {"00", ""},
      {"05 'ab 00", "ab"},  // a zero byte ends the text inside a label
      {"c0 00", ""},       // c0 reads as a label length, not as a pointer
      {"c0 0c 00", "\x0c"},
      {"03 'aaa c0 0c 00", "aaa.\x0c"},
  };
  for (const Row &row : rows) EXPECT_EQ(decode(bytes(row.labels)), row.text) << row.labels;
}

Bytes labelsOf(const std::string &name) {
  Bytes out(name.size() + 2);
  rk::dns::ChangeNameToDnsLabels(out.data(), name.c_str(), static_cast<int32_t>(out.size()));
  return out;
}

TEST(DnsLabelDecoder, NamesUpTo253CharactersRoundTrip) {
  const std::string l63(63, 'a');
  const std::string name253 = l63 + "." + l63 + "." + l63 + "." + std::string(61, 'd');
  ASSERT_EQ(name253.size(), 253u);
  EXPECT_EQ(decode(labelsOf(name253)), name253);
  EXPECT_EQ(decode(labelsOf("aaa.bbbbbbb.ccc")), "aaa.bbbbbbb.ccc");

  // Longer names come back as their first 253 characters.
  const std::string name300 = name253 + std::string(47, 'e');
  std::string text = decode(labelsOf(name300));
  EXPECT_EQ(text, name300.substr(0, 253));
  const std::string longLabels = l63 + "." + l63 + "." + l63 + "." + l63 + "." + l63;
  EXPECT_EQ(decode(labelsOf(longLabels)), longLabels.substr(0, 253));
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

TEST(DnsLabelDecoder, BoundedViewReadsZerosBehindItsEnd) {
  struct Row {
    const char *labels;
    size_t viewSize;
    std::string text;
  };
  const Row rows[] = {
      {"05 'ab", 3, "ab"},
      {"03 'aaa 07 'bbb", 8, "aaa.bbb"},
      {"03 'aaa", 4, "aaa"},
      {"03 'aaa 02", 5, "aaa."},  // a length byte with nothing behind it ends inside the label
      {"03 'aaa c0 0c", 6, "aaa.\x0c"},
      {"", 0, ""},
  };
  for (const Row &row : rows) {
    const Bytes labels = bytes(row.labels);
    ASSERT_EQ(labels.size(), row.viewSize);
    std::unique_ptr<uint8_t[]> copy(new uint8_t[labels.size()]);
    if (!labels.empty()) memcpy(copy.get(), labels.data(), labels.size());
    char out[rk::dns::kNameBufferSize];
    const size_t length = rk::dns::ChangeLabelsToDnsName(out, WireView(copy.get(), row.viewSize));
    EXPECT_EQ(std::string(out), row.text) << row.labels;
    EXPECT_EQ(length, row.text.size()) << row.labels;
  }
}

// The decoding rules step by step, reading a buffer that is zero behind the
// datagram, as a receive buffer zeroed before each read would be.
std::string referenceDecode(const uint8_t *labels) {
  char out[256];
  size_t pos = 0;
  for (;;) {
    const uint8_t b = labels[pos];
    if (b == 0) {
      out[pos == 0 ? 0 : pos - 1] = '\0';
      break;
    }
    if (pos > 253) {
      out[pos - 1] = '\0';
      break;
    }
    if (pos != 0) out[pos - 1] = '.';
    bool ended = false;
    for (size_t j = pos + 1; j <= pos + b; ++j) {
      if (labels[j] == 0 || j > 253) {
        out[j - 1] = '\0';
        ended = true;
        break;
      }
      out[j - 1] = static_cast<char>(labels[j]);
    }
    if (ended) break;
    pos += b + 1u;
  }
  return out;
}

TEST(DnsLabelDecoder, BoundedDecoderMatchesTheRulesOnAZeroFilledBuffer) {
  // Random label soup, mostly small length bytes so that names get long,
  // cut at every length; the bounded decoder gets exact-size heap copies.
  uint32_t seed = 12345;
  auto next = [&seed]() {
    seed = seed * 1103515245u + 12345u;
    return static_cast<uint8_t>(seed >> 16);
  };
  int clipped = 0;
  int cutByEnd = 0;
  for (int round = 0; round < 3000; ++round) {
    Bytes input;
    if (round % 2 == 0) {
      // Label-shaped: lengths 1..63 with letters, now and then a stray zero
      // or pointer byte, cut at a random length.
      const size_t target = 1 + next() + next();
      while (input.size() < target) {
        const uint8_t length = static_cast<uint8_t>(1 + next() % 63);
        input.push_back(length);
        for (uint8_t i = 0; i < length; ++i) {
          const uint8_t r = next();
          input.push_back(r == 0 ? 0 : r == 1 ? 0xC0 : static_cast<uint8_t>('a' + r % 26));
        }
      }
      input.resize(next() % 2 ? target : input.size());
    } else {
      // Soup: mostly small length bytes, letters, rare zeros and pointer bytes.
      input.resize(next() + (round % 3 == 0 ? 200u : 0u));
      for (uint8_t &b : input) {
        const uint8_t r = next();
        b = r < 40 ? static_cast<uint8_t>(1 + r % 12) : r < 42 ? 0 : r < 46 ? 0xC0 : static_cast<uint8_t>('a' + r % 26);
      }
    }
    const size_t size = input.size();
    std::vector<uint8_t> padded(input);
    padded.resize(size + 600, 0);
    const std::string expected = referenceDecode(padded.data());
    clipped += expected.size() == 253;
    cutByEnd += size < rk::dns::kNameDecodeSpan && expected.size() + 1 >= size && size > 0;

    std::unique_ptr<uint8_t[]> copy(new uint8_t[size ? size : 1]);
    if (size) memcpy(copy.get(), input.data(), size);
    char out[rk::dns::kNameBufferSize];
    const size_t length = rk::dns::ChangeLabelsToDnsName(out, WireView(copy.get(), size));
    ASSERT_EQ(std::string(out), expected) << "round " << round << ": " << hex(input);
    ASSERT_EQ(length, expected.size()) << "round " << round;
    if (size >= rk::dns::kNameDecodeSpan) {
      char out2[rk::dns::kNameBufferSize];
      rk::dns::ChangeLabelsToDnsName(out2, copy.get());
      ASSERT_EQ(std::string(out2), expected) << "round " << round;
    }
  }
  EXPECT_GT(clipped, 50) << "names cut at 253 characters";
  EXPECT_GT(cutByEnd, 50) << "names cut by the end of the bytes";
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
      {"192.168.1.100", 13, "100.1.168.192"},
      {"aaa.bbbbbbb.ccc", 15, "ccc.bbbbbbb.aaa"},
      {"4.3.2.1.in-addr.arpa", 7, "1.2.3.4"},
      {"abc", 3, "abc"},
      {"a..b", 4, ".b.a"},
      {".abc", 4, ".abc"},
      {"", 0, ""},
      {"abc", 0, ""},
      {"abc", -3, ""},
  };
  for (const Row &row : rows) EXPECT_EQ(reverse(row.text, row.length), row.output) << row.text;
}

TEST(DnsReverseName, TrailingDotLeavesTheFirstByteAlone) {
  struct Row {
    const char *text;
    int32_t length;
    const char *fromIndexOne;
  };
  const Row rows[] = {
      {"aaa.bbbbbbb.ccc.", 16, "ccc.bbbbbbb.aaa"},
      {"4.3.2.1.in-addr.arpa", 8, "1.2.3.4"},
  };
  for (const Row &row : rows) {
    char out[64];
    memset(out, '#', sizeof out);
    rk::dns::ReverseDnsName(out, row.text, row.length);
    EXPECT_EQ(out[0], '#') << row.text;
    EXPECT_STREQ(out + 1, row.fromIndexOne) << row.text;
    EXPECT_EQ(out[row.length + 1], '#') << "writes at most length + 1 bytes";
  }
  // Callers hand in a zeroed buffer, so for them the text reads as empty.
  EXPECT_EQ(reverse("aaa.bbbbbbb.ccc.", 16), "");
}

std::string query(const char *name, uint16_t qtype, size_t *size) {
  uint8_t buf[rk::dns::kLookupBufferSize] = {};
  *size = rk::dns::BuildQuery(buf, htons(0x1234), name, strlen(name), qtype);
  return hex(buf, *size);
}

TEST(DnsQuery, LayoutOfAnAQueryAndItsAaaaTwin) {
  uint8_t buf[rk::dns::kLookupBufferSize] = {};
  const size_t size = rk::dns::BuildQuery(buf, htons(0x1234), "aaa.bbbbbbb.ccc", 15, rk::dns::kTypeA);
  ASSERT_EQ(size, 33u);
  EXPECT_EQ(hex(buf, size),
            "12 34 01 00 00 01 00 00 00 00 00 00 "
            "03 61 61 61 07 62 62 62 62 62 62 62 03 63 63 63 00 "
            "00 01 00 01");
  rk::dns::SetQueryType(buf, 15, rk::dns::kTypeAaaa);
  EXPECT_EQ(hex(buf + 29, 4), "00 1c 00 01");
  EXPECT_EQ(hex(buf + 2, 27),
            "01 00 00 01 00 00 00 00 00 00 03 61 61 61 07 62 62 62 62 62 62 62 03 63 63 63 00")
      << "only QTYPE changes";
}

TEST(DnsQuery, EmptyNameGivesAnEighteenByteQuery) {
  size_t size = 0;
  EXPECT_EQ(query("", rk::dns::kTypeA, &size), "12 34 01 00 00 01 00 00 00 00 00 00 00 00 00 01 00 01");
  EXPECT_EQ(size, 18u);
}

TEST(DnsQuery, PtrQueryForAnIpv4Address) {
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, "192.168.1.100", &address.sin_addr);
  char name[rk::dns::kPtrNameSize] = {};
  rk::dns::ChangeAddrToDnsName(&address, name);
  EXPECT_STREQ(name, "100.1.168.192.in-addr.arpa");

  size_t size = 0;
  const std::string q = query(name, rk::dns::kTypePtr, &size);
  EXPECT_EQ(size, 44u);
  EXPECT_EQ(q,
            "12 34 01 00 00 01 00 00 00 00 00 00 "
            "03 31 30 30 01 31 03 31 36 38 03 31 39 32 07 69 6e 2d 61 64 64 72 04 61 72 70 61 00 "
            "00 0c 00 01");

  // The same from a DnsAddressEntry; its family is not looked at.
  DnsAddressEntry entry = {};
  entry.family = 10;
  inet_pton(AF_INET, "1.2.3.4", &entry.ipv4);
  char name2[rk::dns::kPtrNameSize] = {};
  rk::dns::ChangeAddrToDnsName(&entry, name2);
  EXPECT_STREQ(name2, "4.3.2.1.in-addr.arpa");

  DnsAddressEntry zero = {};
  char name3[rk::dns::kPtrNameSize] = {};
  rk::dns::ChangeAddrToDnsName(&zero, name3);
  EXPECT_STREQ(name3, "0.0.0.0.in-addr.arpa");
}

}  // namespace
}  // namespace rk::test
