// Typed access on a package the daemon holds open: the test loads a real
// package from /etc/config into its own context and works on its records.
#include <routerkit/uci_access.h>

#include <climits>
#include <tuple>

#include "uci_testutil.h"

namespace rk::test {
namespace {

constexpr const char *kDevice =
    "config device 'main'\n\toption addr '1.2.3.4'\n\toption short '42'\n\toption enabled 'true'\n"
    "\toption ID '4294967295'\n\tlist dns '8.8.8.8'\n\tlist dns '1.1.1.1'\n"
    "config device 'off'\n\toption enabled 'false'\n"
    "config iface 'lan'\n\toption proto 'static'\n";

class OpenPackage : public UciFiles {
 protected:
  void SetUp() override {
    UciFiles::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    put("dev", kDevice);
    load("dev");
  }
};

TEST_F(OpenPackage, StringCopyLeavesTheLastByteToTheCaller) {
  // strncpy of size - 1: a text that fills the count gets no terminator, a
  // shorter one zeros up to the count; size 1 writes nothing, 0 is refused.
  const std::tuple<const char *, int, std::string> rows[] = {
      {"addr", 4, "0 1.2XXXXX"}, {"short", 8, std::string("0 42\0\0\0\0\0X", 10)},
      {"short", 1, "0 XXXXXXXX"}, {"short", 0, "-1 XXXXXXXX"}};
  for (const auto &[option, size, want] : rows) {
    char buf[8];
    memset(buf, 'X', sizeof buf);
    const int rc = uciGetString(ctx_, section("main"), option, buf, size);
    EXPECT_EQ(std::to_string(rc) + " " + std::string(buf, sizeof buf), want) << option << " " << size;
  }
}

TEST_F(OpenPackage, TypedReadersConvertLikeSscanf) {
  // The text nullptr: option missing; "<list>": a list option.
  const struct { const char *text, *u8, *u32, *i32, *boolean, *section_value; } rows[] = {
      // The byte gets the low 8 bits of the number, stored signed from 128 up.
      {"300", "0 44", "0 300", "0 300", "0 kept", "0 300"},
      {"-56", "0 200", "0 4294967240", "0 -56", "0 kept", "0 -56"},
      {"12abc", "0 12", "0 12", "0 12", "0 kept", "0 12"},
      // Booleans: only "true" and "1" write, and they write 1. No number: -1,
      // except the section-name reader, which still says 0.
      {"true", "-1 kept", "-1 kept", "-1 kept", "0 1", "0 kept"},
      {"1", "0 1", "0 1", "0 1", "0 1", "0 1"},
      {"false", "-1 kept", "-1 kept", "-1 kept", "0 kept", "0 kept"},
      {"TRUE", "-1 kept", "-1 kept", "-1 kept", "0 kept", "0 kept"},
      // Not readable at all.
      {nullptr, "-1 kept", "-1 kept", "-1 kept", "-1 kept", "3 kept"},
      {"<list>", "-1 kept", "-1 kept", "-1 kept", "-1 kept", "3 kept"},
  };
  std::string conf = "config values 'v'\n";  // one option per row: v0, v1, ...
  for (size_t i = 0; i < std::size(rows); ++i)
    if (const char *t = rows[i].text)
      conf += strcmp(t, "<list>") == 0 ? "\tlist v" + std::to_string(i) + " 'a'\n"
                                       : "\toption v" + std::to_string(i) + " '" + t + "'\n";
  put("values", conf);
  load("values");
  uci_section *s = section("v");
  for (size_t i = 0; i < std::size(rows); ++i) {
    const std::string name = "v" + std::to_string(i);
    const char *o = name.c_str();
    const auto &r = rows[i];
    EXPECT_EQ(Outcome<uint8_t>([&](uint8_t *v) { return uciGetUint8(ctx_, s, o, v); }) + "|" +
                  Outcome<uint32_t>([&](uint32_t *v) { return uciGetUint32(ctx_, s, o, v); }) + "|" +
                  Outcome<int>([&](int *v) { return uciGetInt32(ctx_, s, o, v); }) + "|" +
                  Outcome<uint8_t>([&](uint8_t *v) { return uciGetBoolean(ctx_, s, o, v); }) + "|" +
                  Outcome<int>([&](int *v) { return uciGetSectionOptionValue(ctx_, pkg_, "v", o, v); }),
              std::string(r.u8) + "|" + r.u32 + "|" + r.i32 + "|" + r.boolean + "|" + r.section_value)
        << (r.text ? r.text : "(missing)");
  }
}

TEST_F(OpenPackage, EnabledAndIdAreFixedOptionNames) {
  // "false" and a missing option both leave the caller's value alone.
  const auto enabled = [&](const char *sec) {
    return Outcome<uint8_t>([&](uint8_t *v) { return uciGetEnabled(ctx_, section(sec), v); });
  };
  EXPECT_EQ(enabled("main") + "|" + enabled("off") + "|" + enabled("lan"), "0 1|0 kept|-1 kept");
  const auto id = [&](const char *sec) {
    return Outcome<uint32_t>([&](uint32_t *v) { return uciGetID(ctx_, section(sec), v); });
  };
  EXPECT_EQ(id("main") + "|" + id("lan"), "0 4294967295|-1 kept");
}

TEST_F(OpenPackage, SettersStoreTheDocumentedText) {
  uci_section *s = section("lan");
  const std::tuple<const char *, int, const char *> rows[] = {
      {"u8_200", uciSetUint8(ctx_, pkg_, s, "u8_200", 200), "-56"},
      {"u32", uciSetUint32(ctx_, pkg_, s, "u32", 4294967295u), "4294967295"},
      {"i32min", uciSetInt32(ctx_, pkg_, s, "i32min", INT_MIN), "-2147483648"},
      {"b256", uciSetBoolean(ctx_, pkg_, s, "b256", 256), "true"},  // every bit of the int counts
      {"b0", uciSetBoolean(ctx_, pkg_, s, "b0", 0), "false"},
      {"str", uciSetString(ctx_, pkg_, s, "str", "a b'c"), "a b'c"},
      {"enabled", uciSetEnabled(ctx_, pkg_, s, 0), "false"},
      {"ID", uciSetID(ctx_, pkg_, s, 123), "123"},
  };
  for (const auto &[option, rc, stored_text] : rows)
    EXPECT_EQ(std::to_string(rc) + " " + text("lan", option), std::string("0 ") + stored_text) << option;
}

TEST_F(OpenPackage, RollbackRevertsTheSectionAndHandsBackThePackage) {
  ASSERT_EQ(uciSetString(ctx_, pkg_, section("lan"), "proto", "pppoe"), 0);
  ASSERT_EQ(uciSetString(ctx_, pkg_, section("main"), "short", "43"), 0);
  uci_package *ref = pkg_;
  ASSERT_EQ(uciRollback(ctx_, &ref, section("lan")), 0);
  ASSERT_NE(ref, nullptr);
  pkg_ = ref;  // the old records are gone; go on with the one handed back
  // Only the section named was reverted; nothing was saved.
  EXPECT_EQ(text("lan", "proto") + " " + text("main", "short") + " " + stored("dev", "lan", "proto"),
            "static 43 static");
}

TEST_F(OpenPackage, ListsAndSectionsByName) {
  EXPECT_EQ(publicUciAddList(ctx_, "dev", "main", "dns", "9.9.9.9"), 0);
  EXPECT_EQ(text("main", "dns"), "[8.8.8.8 1.1.1.1 9.9.9.9]");
  EXPECT_EQ(publicUciDelList(ctx_, "dev", "main", "dns", "8.8.8.8"), 0);
  EXPECT_EQ(text("main", "dns"), "[1.1.1.1 9.9.9.9]");
  EXPECT_EQ(publicUciAddList(ctx_, "dev", "lan", "ntp", "pool"), 0);  // made on the first add
  EXPECT_EQ(text("lan", "ntp"), "[pool]");
  // libuci's own error numbers come back unchanged: positive, not -1.
  EXPECT_EQ(publicUciAddList(ctx_, "dev", "nowhere", "dns", "x"), UCI_ERR_INVAL);
  EXPECT_EQ(publicUciDelList(ctx_, "dev", "nowhere", "dns", "x"), UCI_ERR_INVAL);
  EXPECT_EQ(publicUciAddList(ctx_, "nopkg", "main", "dns", "x"), UCI_ERR_NOTFOUND);

  EXPECT_EQ(setString(ctx_, pkg_, "lan", "proto", "pppoe"), 0);
  EXPECT_EQ(text("lan", "proto"), "pppoe");
  EXPECT_EQ(publicUciDelSection(ctx_, pkg_, "dev", "off"), 0);
  EXPECT_EQ(uci_lookup_section(ctx_, pkg_, "off"), nullptr);
  EXPECT_EQ(text("main", "addr"), "1.2.3.4");
}

TEST_F(OpenPackage, SectionNameFamilyAnswersZeroTwoThree) {
  char buf[8];
  memset(buf, 'X', sizeof buf);
  int v = 5;
  const auto get = [&](const char *sec, const char *opt, int size) {
    return uciGetSectionOptionString(ctx_, pkg_, sec, opt, buf, size);
  };
  const auto set = [&](const char *sec) { return uciSetSectionOptionString(ctx_, pkg_, sec, "proto", "dhcp"); };
  const auto value = [&](const char *sec) { return uciGetSectionOptionValue(ctx_, pkg_, sec, "short", &v); };
  // In this order; failures leave `buf` and `v` alone.
  const std::vector<int> results = {get("main", "addr", 4), get("nowhere", "addr", 8), get("main", "nothing", 8),
                                    get("main", "dns", 8),  set("lan"),  set("nowhere"), value("main"), value("nowhere")};
  EXPECT_EQ(results, (std::vector<int>{0, 3, 3, 3, 0, 3, 0, 3}));
  EXPECT_EQ(std::string(buf, 8) + " " + text("lan", "proto") + " " + std::to_string(v), "1.2XXXXX dhcp 42");
}

// Each pointer argument null in turn is refused before libuci is asked: -1,
// or 2 (libuci's "invalid") in the section-name family.
TEST_F(OpenPackage, MissingArgumentsAreRefused) {
  char b[8];
  int i = 0;
  uci_section *s = section("main");
  for (int n = 0; n < 5; ++n) {
    auto p = [n](int k, auto v) -> decltype(v) { return k == n ? nullptr : v; };
    if (n < 4) {
      EXPECT_EQ(-1, uciGetString(p(0, ctx_), p(1, s), p(2, "addr"), p(3, b), 8)) << n;
      EXPECT_EQ(-1, uciGetInt32(p(0, ctx_), p(1, s), p(2, "short"), p(3, &i))) << n;
      EXPECT_EQ(-1, publicUciDelSection(p(0, ctx_), p(1, pkg_), p(2, "dev"), p(3, "off"))) << n;
    }
    EXPECT_EQ(-1, uciSetString(p(0, ctx_), p(1, pkg_), p(2, s), p(3, "x"), p(4, "1"))) << n;
    EXPECT_EQ(-1, setString(p(0, ctx_), p(1, pkg_), p(2, "main"), p(3, "x"), p(4, "1"))) << n;
    EXPECT_EQ(-1, publicUciAddList(p(0, ctx_), p(1, "dev"), p(2, "main"), p(3, "dns"), p(4, "x"))) << n;
    EXPECT_EQ(UCI_ERR_INVAL, uciGetSectionOptionString(p(0, ctx_), p(1, pkg_), p(2, "main"), p(3, "addr"), p(4, b), 8)) << n;
    EXPECT_EQ(UCI_ERR_INVAL, uciSetSectionOptionString(p(0, ctx_), p(1, pkg_), p(2, "main"), p(3, "x"), p(4, "1"))) << n;
    EXPECT_EQ(UCI_ERR_INVAL, uciGetSectionOptionValue(p(0, ctx_), p(1, pkg_), p(2, "main"), p(3, "short"), p(4, &i))) << n;
  }
  EXPECT_EQ(text("main", "x"), "<absent>");
}

}  // namespace
}  // namespace rk::test
