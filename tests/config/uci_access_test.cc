// Typed access on a package the daemon holds open: the test loads a real
// package from /etc/config into its own context and works on its records.
#include <routerkit/uci_access.h>

#include <gtest/gtest.h>
#include <uci.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "uci_testutil.h"

namespace rk::test {
namespace {


constexpr const char *kDevice =
    "config device 'main'\n"
    "\toption addr '1.2.3.4'\n"
    "\toption short '42'\n"
    "\toption enabled 'true'\n"
    "\toption ID '4294967295'\n"
    "\tlist dns '8.8.8.8'\n"
    "\tlist dns '1.1.1.1'\n"
    "\n"
    "config device 'off'\n"
    "\toption enabled 'false'\n"
    "\n"
    "config iface 'lan'\n"
    "\toption proto 'static'\n";

class OpenPackage : public UciFiles {
 protected:
  void SetUp() override {
    UciFiles::SetUp();
    if (HasFatalFailure()) return;
    put("dev", kDevice);
    load("dev");
  }
  void TearDown() override {
    if (ctx_ != nullptr) uci_free_context(ctx_);
  }
  void load(const char *name) {
    if (ctx_ != nullptr) uci_free_context(ctx_);
    ctx_ = uci_alloc_context();
    ASSERT_NE(ctx_, nullptr);
    pkg_ = nullptr;
    ASSERT_EQ(uci_load(ctx_, name, &pkg_), 0);
    ASSERT_NE(pkg_, nullptr);
  }
  uci_section *section(const char *name) {
    uci_section *s = uci_lookup_section(ctx_, pkg_, name);
    EXPECT_NE(s, nullptr) << name;
    return s;
  }
  // The option's text in this context, "<list>" or "<absent>".
  std::string text(const char *sec, const char *option) {
    uci_section *s = uci_lookup_section(ctx_, pkg_, sec);
    uci_option *o = s ? uci_lookup_option(ctx_, s, option) : nullptr;
    if (o == nullptr) return "<absent>";
    return o->type == UCI_TYPE_STRING ? o->v.string : "<list>";
  }
  std::vector<std::string> list(const char *sec, const char *option) {
    std::vector<std::string> items;
    uci_section *s = uci_lookup_section(ctx_, pkg_, sec);
    uci_option *o = s ? uci_lookup_option(ctx_, s, option) : nullptr;
    if (o == nullptr || o->type != UCI_TYPE_LIST) return items;
    uci_element *e;
    uci_foreach_element(&o->v.list, e) items.push_back(e->name);
    return items;
  }

  uci_context *ctx_ = nullptr;
  uci_package *pkg_ = nullptr;
};

// ---- string contract ------------------------------------------------------

TEST_F(OpenPackage, StringCopyLeavesTheLastByteToTheCaller) {
  uci_section *s = section("main");
  char buf[8];

  // A text that fills the count: three bytes, no terminator, byte 3 untouched.
  memset(buf, 'X', sizeof buf);
  EXPECT_EQ(uciGetString(ctx_, s, "addr", buf, 4), 0);
  EXPECT_EQ(std::string(buf, 4), "1.2X");

  // A shorter text is padded with zeros up to size - 1; the 8th byte is left.
  memset(buf, 'X', sizeof buf);
  EXPECT_EQ(uciGetString(ctx_, s, "short", buf, 8), 0);
  EXPECT_EQ(std::string(buf, 8), std::string("42\0\0\0\0\0X", 8));

  // size 1 writes nothing and still succeeds; size 0 or below is refused.
  memset(buf, 'X', sizeof buf);
  EXPECT_EQ(uciGetString(ctx_, s, "short", buf, 1), 0);
  EXPECT_EQ(uciGetString(ctx_, s, "short", buf, 0), -1);
  EXPECT_EQ(std::string(buf, 8), "XXXXXXXX");
}

// ---- numeric and boolean readers -------------------------------------------

// One expectation of a reader: its result, and the value it leaves in `out`
// (kKept: the preset value, i.e. nothing written).
constexpr long long kKept = LLONG_MIN;
struct Expect {
  int rc;
  long long value;
};
struct ReadRow {
  const char *text;  // nullptr: option missing; "<list>": a list option
  Expect u8, u32, i32, boolean, section_value;
};

constexpr Expect kFail{-1, kKept};
constexpr Expect kMissing{3, kKept};  // section-name family

// The presets: values none of the texts produce.
constexpr uint8_t kPresetU8 = 0xA5;
constexpr uint32_t kPresetU32 = 0xA5A5A5A5u;
constexpr int kPresetI32 = -12345;
constexpr uint8_t kPresetBool = 7;

const ReadRow kReadRows[] = {
    {"42", {0, 42}, {0, 42}, {0, 42}, {0, kKept}, {0, 42}},
    // The byte gets the low 8 bits of the number.
    {"300", {0, 44}, {0, 300}, {0, 300}, {0, kKept}, {0, 300}},
    // Bytes from 128 up are stored signed; both texts read as the same byte.
    {"200", {0, 200}, {0, 200}, {0, 200}, {0, kKept}, {0, 200}},
    {"-56", {0, 200}, {0, 4294967240LL}, {0, -56}, {0, kKept}, {0, -56}},
    {"12abc", {0, 12}, {0, 12}, {0, 12}, {0, kKept}, {0, 12}},
    // No number: -1, except the section-name reader, which still says 0.
    {"abc", kFail, kFail, kFail, {0, kKept}, {0, kKept}},
    // Booleans: only "true" and "1" write, and they write 1.
    {"true", kFail, kFail, kFail, {0, 1}, {0, kKept}},
    {"1", {0, 1}, {0, 1}, {0, 1}, {0, 1}, {0, 1}},
    {"false", kFail, kFail, kFail, {0, kKept}, {0, kKept}},
    {"TRUE", kFail, kFail, kFail, {0, kKept}, {0, kKept}},
    // Not readable at all.
    {nullptr, kFail, kFail, kFail, kFail, kMissing},
    {"<list>", kFail, kFail, kFail, kFail, kMissing},
};

template <typename T>
void expect_read(const char *what, const char *text, Expect e, int rc, T got, T preset) {
  SCOPED_TRACE(std::string(what) + " on " + (text ? text : "(missing)"));
  EXPECT_EQ(rc, e.rc);
  if (e.value == kKept)
    EXPECT_EQ(got, preset);
  else
    EXPECT_EQ(static_cast<long long>(got), e.value);
}

TEST_F(OpenPackage, TypedReadersConvertLikeSscanf) {
  // One section with one option per row: v0, v1, ...
  std::string conf = "config values 'v'\n";
  for (size_t i = 0; i < std::size(kReadRows); ++i) {
    const char *t = kReadRows[i].text;
    if (t == nullptr) continue;
    if (strcmp(t, "<list>") == 0)
      conf += "\tlist v" + std::to_string(i) + " 'a'\n";
    else
      conf += "\toption v" + std::to_string(i) + " '" + t + "'\n";
  }
  put("values", conf);
  load("values");
  uci_section *s = section("v");

  for (size_t i = 0; i < std::size(kReadRows); ++i) {
    const ReadRow &row = kReadRows[i];
    std::string name = "v" + std::to_string(i);
    const char *opt = name.c_str();

    // Each result is taken before `out` is looked at.
    uint8_t u8 = kPresetU8;
    int rc = uciGetUint8(ctx_, s, opt, &u8);
    expect_read("uciGetUint8", row.text, row.u8, rc, u8, kPresetU8);
    uint32_t u32 = kPresetU32;
    rc = uciGetUint32(ctx_, s, opt, &u32);
    expect_read("uciGetUint32", row.text, row.u32, rc, u32, kPresetU32);
    int i32 = kPresetI32;
    rc = uciGetInt32(ctx_, s, opt, &i32);
    expect_read("uciGetInt32", row.text, row.i32, rc, i32, kPresetI32);
    uint8_t b = kPresetBool;
    rc = uciGetBoolean(ctx_, s, opt, &b);
    expect_read("uciGetBoolean", row.text, row.boolean, rc, b, kPresetBool);
    int sv = kPresetI32;
    rc = uciGetSectionOptionValue(ctx_, pkg_, "v", opt, &sv);
    expect_read("uciGetSectionOptionValue", row.text, row.section_value, rc, sv, kPresetI32);
  }
}

TEST_F(OpenPackage, EnabledAndIdAreFixedOptionNames) {
  uint8_t on = 0;
  EXPECT_EQ(uciGetEnabled(ctx_, section("main"), &on), 0);
  EXPECT_EQ(on, 1);

  // "false" and a missing option both leave the caller's value alone.
  uint8_t off = 9;
  EXPECT_EQ(uciGetEnabled(ctx_, section("off"), &off), 0);
  EXPECT_EQ(off, 9);
  EXPECT_EQ(uciGetEnabled(ctx_, section("lan"), &off), -1);
  EXPECT_EQ(off, 9);

  uint32_t id = 0;
  EXPECT_EQ(uciGetID(ctx_, section("main"), &id), 0);
  EXPECT_EQ(id, 4294967295u);
  EXPECT_EQ(uciGetID(ctx_, section("lan"), &id), -1);
}

// ---- setters -------------------------------------------------------------

TEST_F(OpenPackage, SettersStoreTheDocumentedText) {
  uci_section *s = section("lan");
  struct {
    const char *option;
    int rc;
    const char *text;
  } const rows[] = {
      {"u8_200", uciSetUint8(ctx_, pkg_, s, "u8_200", 200), "-56"},
      {"u8_7", uciSetUint8(ctx_, pkg_, s, "u8_7", 7), "7"},
      {"u32", uciSetUint32(ctx_, pkg_, s, "u32", 4294967295u), "4294967295"},
      {"i32min", uciSetInt32(ctx_, pkg_, s, "i32min", INT_MIN), "-2147483648"},
      // Every bit of the int counts.
      {"b256", uciSetBoolean(ctx_, pkg_, s, "b256", 256), "true"},
      {"b0", uciSetBoolean(ctx_, pkg_, s, "b0", 0), "false"},
      {"str", uciSetString(ctx_, pkg_, s, "str", "a b'c"), "a b'c"},
  };
  for (const auto &row : rows) {
    EXPECT_EQ(row.rc, 0) << row.option;
    EXPECT_EQ(text("lan", row.option), row.text) << row.option;
  }

  EXPECT_EQ(uciSetEnabled(ctx_, pkg_, s, 0), 0);
  EXPECT_EQ(text("lan", "enabled"), "false");
  EXPECT_EQ(uciSetID(ctx_, pkg_, s, 123), 0);
  EXPECT_EQ(text("lan", "ID"), "123");
}

// ---- rollback --------------------------------------------------------------

TEST_F(OpenPackage, RollbackRevertsTheSectionAndHandsBackThePackage) {
  ASSERT_EQ(uciSetString(ctx_, pkg_, section("lan"), "proto", "pppoe"), 0);
  ASSERT_EQ(uciSetString(ctx_, pkg_, section("main"), "short", "43"), 0);

  uci_package *ref = pkg_;
  ASSERT_EQ(uciRollback(ctx_, &ref, section("lan")), 0);
  ASSERT_NE(ref, nullptr);
  pkg_ = ref;  // the old records are gone; go on with the one handed back
  EXPECT_EQ(text("lan", "proto"), "static");
  // Only the section named was reverted.
  EXPECT_EQ(text("main", "short"), "43");
  EXPECT_EQ(stored("dev", "lan", "proto"), "static");
}

// ---- lists and section deletion by name -----------------------------------

TEST_F(OpenPackage, ListEditsHandOnLibuciResults) {
  EXPECT_EQ(publicUciAddList(ctx_, "dev", "main", "dns", "9.9.9.9"), 0);
  EXPECT_EQ(list("main", "dns"), (std::vector<std::string>{"8.8.8.8", "1.1.1.1", "9.9.9.9"}));
  EXPECT_EQ(publicUciDelList(ctx_, "dev", "main", "dns", "8.8.8.8"), 0);
  EXPECT_EQ(list("main", "dns"), (std::vector<std::string>{"1.1.1.1", "9.9.9.9"}));
  // A new list option is made on the first add.
  EXPECT_EQ(publicUciAddList(ctx_, "dev", "lan", "ntp", "pool"), 0);
  EXPECT_EQ(list("lan", "ntp"), (std::vector<std::string>{"pool"}));

  // libuci's own error numbers come back unchanged: positive, not -1.
  EXPECT_EQ(publicUciAddList(ctx_, "dev", "nowhere", "dns", "x"), UCI_ERR_INVAL);
  EXPECT_EQ(publicUciDelList(ctx_, "dev", "nowhere", "dns", "x"), UCI_ERR_INVAL);
  EXPECT_EQ(publicUciAddList(ctx_, "nopkg", "main", "dns", "x"), UCI_ERR_NOTFOUND);
}

TEST_F(OpenPackage, WriteBySectionNameAndDeleteASection) {
  EXPECT_EQ(setString(ctx_, pkg_, "lan", "proto", "pppoe"), 0);
  EXPECT_EQ(text("lan", "proto"), "pppoe");
  EXPECT_EQ(publicUciDelSection(ctx_, pkg_, "dev", "off"), 0);
  EXPECT_EQ(uci_lookup_section(ctx_, pkg_, "off"), nullptr);
  EXPECT_EQ(text("main", "addr"), "1.2.3.4");
}

// ---- section-name family ---------------------------------------------------

TEST_F(OpenPackage, SectionNameFamilyAnswersZeroTwoThree) {
  char buf[8];
  memset(buf, 'X', sizeof buf);
  EXPECT_EQ(uciGetSectionOptionString(ctx_, pkg_, "main", "addr", buf, 4), 0);
  EXPECT_EQ(std::string(buf, 4), "1.2X");
  EXPECT_EQ(uciGetSectionOptionString(ctx_, pkg_, "nowhere", "addr", buf, 8), 3);
  EXPECT_EQ(uciGetSectionOptionString(ctx_, pkg_, "main", "nothing", buf, 8), 3);
  EXPECT_EQ(uciGetSectionOptionString(ctx_, pkg_, "main", "dns", buf, 8), 3);
  EXPECT_EQ(std::string(buf, 4), "1.2X");

  EXPECT_EQ(uciSetSectionOptionString(ctx_, pkg_, "lan", "proto", "dhcp"), 0);
  EXPECT_EQ(text("lan", "proto"), "dhcp");
  EXPECT_EQ(uciSetSectionOptionString(ctx_, pkg_, "nowhere", "proto", "dhcp"), 3);

  int v = 5;
  EXPECT_EQ(uciGetSectionOptionValue(ctx_, pkg_, "main", "short", &v), 0);
  EXPECT_EQ(v, 42);
  EXPECT_EQ(uciGetSectionOptionValue(ctx_, pkg_, "nowhere", "short", &v), 3);
  EXPECT_EQ(v, 42);
}

// Each argument left out in turn: refused before libuci is asked, with -1,
// or 2 (libuci's "invalid") in the section-name family.
TEST_F(OpenPackage, EachMissingArgumentIsRefused) {
  uci_section *m = section("main");
  uci_package *p = pkg_;
  uci_context *c = ctx_;
  char b[8];
  int i = 0;
  uint8_t u = 0;
  const int rows[][6] = {
      {uciGetString(nullptr, m, "addr", b, 8), uciGetString(c, nullptr, "addr", b, 8),
       uciGetString(c, m, nullptr, b, 8), uciGetString(c, m, "addr", nullptr, 8), -1, -1},
      {uciGetInt32(nullptr, m, "short", &i), uciGetInt32(c, nullptr, "short", &i), uciGetInt32(c, m, nullptr, &i),
       uciGetInt32(c, m, "short", nullptr), -1, -1},
      {uciGetBoolean(nullptr, m, "enabled", &u), uciGetBoolean(c, nullptr, "enabled", &u),
       uciGetBoolean(c, m, nullptr, &u), uciGetBoolean(c, m, "enabled", nullptr), -1, -1},
      {uciSetString(nullptr, p, m, "x", "1"), uciSetString(c, nullptr, m, "x", "1"), uciSetString(c, p, nullptr, "x", "1"),
       uciSetString(c, p, m, nullptr, "1"), uciSetString(c, p, m, "x", nullptr), uciSetInt32(nullptr, p, m, "x", 1)},
      {setString(nullptr, p, "main", "x", "1"), setString(c, nullptr, "main", "x", "1"),
       setString(c, p, nullptr, "x", "1"), setString(c, p, "main", nullptr, "1"), setString(c, p, "main", "x", nullptr),
       -1},
      {publicUciAddList(nullptr, "dev", "main", "dns", "x"), publicUciAddList(c, nullptr, "main", "dns", "x"),
       publicUciAddList(c, "dev", nullptr, "dns", "x"), publicUciAddList(c, "dev", "main", nullptr, "x"),
       publicUciAddList(c, "dev", "main", "dns", nullptr), -1},
  };
  for (const auto &row : rows)
    for (int rc : row) EXPECT_EQ(rc, -1);
  const int inval[] = {
      uciGetSectionOptionString(nullptr, p, "main", "addr", b, 8), uciGetSectionOptionString(c, nullptr, "main", "addr", b, 8),
      uciGetSectionOptionString(c, p, nullptr, "addr", b, 8), uciGetSectionOptionString(c, p, "main", nullptr, b, 8),
      uciGetSectionOptionString(c, p, "main", "addr", nullptr, 8), uciSetSectionOptionString(nullptr, p, "main", "x", "1"),
      uciSetSectionOptionString(c, nullptr, "main", "x", "1"), uciSetSectionOptionString(c, p, nullptr, "x", "1"),
      uciSetSectionOptionString(c, p, "main", nullptr, "1"), uciSetSectionOptionString(c, p, "main", "x", nullptr),
      uciGetSectionOptionValue(nullptr, p, "main", "short", &i), uciGetSectionOptionValue(c, nullptr, "main", "short", &i),
      uciGetSectionOptionValue(c, p, nullptr, "short", &i), uciGetSectionOptionValue(c, p, "main", nullptr, &i),
      uciGetSectionOptionValue(c, p, "main", "short", nullptr)};
  for (int rc : inval) EXPECT_EQ(rc, UCI_ERR_INVAL);
  EXPECT_EQ(text("main", "x"), "<absent>");
}

}  // namespace
}  // namespace rk::test
