// One-shot access by package name, on real packages in /etc/config (with
// changes under /tmp/.uci), both private to the test's namespace.
#include <routerkit/uci_access.h>

#include <climits>

#include "uci_testutil.h"

namespace rk::test {
namespace {

constexpr const char *kNetwork =
    "config interface 'wan'\n\toption proto 'dhcp'\n"
    "config interface\n\toption proto 'static'\n\toption ipaddr '192.168.1.1'\n"
    "config interface 'lan'\n\toption proto 'static'\n\toption ipaddr '10.0.0.1'\n\toption addr '1.2.3.4'\n"
    "config switch 'sw0'\n\toption ipaddr '10.9.9.9'\n"
    "config host 'h1'\n\tlist mac 'aa'\n"
    "config host 'h2'\n\toption mac 'bb'\n";

class OneShot : public UciFiles {
 protected:
  void SetUp() override {
    UciFiles::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    put("network", kNetwork);
  }
  // The option's text, or "<-1>" when the call fails.
  static std::string get(const char *type, const char *name, const char *option) {
    char buf[64] = {};
    return uciGetOptionString("network", type, name, option, buf, sizeof buf) == 0 ? buf : "<-1>";
  }
};

TEST_F(OneShot, SelectorPicksTheFirstSectionThatHasTheOption) {
  const struct { const char *type, *name, *option, *want; } rows[] = {
      // By type: the first match in list order wins, and a match without the
      // option doesn't end the walk ('wan' has no ipaddr, the next one has).
      {"interface", nullptr, "proto", "dhcp"}, {"interface", nullptr, "ipaddr", "192.168.1.1"},
      // By name alone, whatever the type; both: they must hold for one section.
      {nullptr, "sw0", "ipaddr", "10.9.9.9"},
      {"interface", "lan", "ipaddr", "10.0.0.1"}, {"interface", "sw0", "ipaddr", "<-1>"},
      // A list is passed over like a missing option.
      {"host", nullptr, "mac", "bb"}, {nullptr, "h1", "mac", "<-1>"},
      // Exact, case-sensitive comparison; nothing matching at all.
      {"Interface", nullptr, "proto", "<-1>"}, {"interface", nullptr, "nothing", "<-1>"},
  };
  for (const auto &r : rows)
    EXPECT_EQ(get(r.type, r.name, r.option), r.want)
        << (r.type ? r.type : "-") << "/" << (r.name ? r.name : "-") << "/" << r.option;
}

TEST_F(OneShot, StringFollowsTheCallerTerminatedContract) {
  char buf[8];
  memset(buf, 'X', sizeof buf);
  EXPECT_EQ(uciGetOptionString("network", nullptr, "lan", "addr", buf, 4), 0);
  EXPECT_EQ(std::string(buf, 4), "1.2X");
  memset(buf, 'X', sizeof buf);
  EXPECT_EQ(uciGetOptionString("network", nullptr, "lan", "ipaddr", buf, 1), 0);
  // Size 1 writes nothing; on failure `out` is untouched.
  EXPECT_EQ(uciGetOptionString("network", nullptr, "lan", "nothing", buf, 8), -1);
  EXPECT_EQ(uciGetOptionString("network", nullptr, "lan", "addr", buf, 0), -1);
  EXPECT_EQ(uciGetOptionString("network", nullptr, "lan", "addr", nullptr, 8), -1);
  EXPECT_EQ(std::string(buf, 8), "XXXXXXXX");
}

TEST_F(OneShot, OneLineOfOneMebibyteReadsAsAnyOther) {
  put("big", "config big 'b'; option long '" + std::string(1 << 20, 'x') + "'; option ok 'yes'");
  char text[8] = {}, ok[8] = {};
  EXPECT_EQ(uciGetOptionString("big", nullptr, "b", "long", text, 8) + uciGetOptionString("big", nullptr, "b", "ok", ok, 8), 0);
  EXPECT_EQ(std::string(text) + " " + ok, "xxxxxxx yes");
}

// A reader on option `option` of section 'v' in "types": "<result> <value>".
using Reader = std::string (*)(const char *option);
template <typename T, int (*read)(const char *, const char *, const char *, const char *, T *)>
std::string Read(const char *option) {
  return Outcome<T>([&](T *v) { return read("types", nullptr, "v", option, v); });
}
constexpr Reader kU32 = Read<uint32_t, uciGetOptionUint32>, kI32 = Read<int32_t, uciGetOptionInt32>,
                 kU64 = Read<uint64_t, uciGetOptionUint64>, kU16 = Read<uint16_t, uciGetOptionUint16>,
                 kU8 = Read<uint8_t, uciGetOptionUint8>, kBool = Read<uint8_t, uciGetOptionBoolean>;

std::string Zeros7(size_t zeros) { return std::string(zeros, '0') + "7"; }

TEST_F(OneShot, TypedReadersConvertTheirOwnBufferOnly) {
  // Each reader copies the text into a buffer of its own: 30 characters for
  // Uint32, 14 for Int32, 22 for Uint64; a longer text is cut there.
  const struct { Reader read; std::string text; const char *want; } rows[] = {  // text "": option missing
      {kU32, "4294967295", "0 4294967295"}, {kU32, "abc", "-1 kept"}, {kU32, Zeros7(29), "0 7"},
      {kU32, Zeros7(30), "0 0"}, {kU32, "", "-1 kept"},
      // Int32 and Uint64 don't look at sscanf's count: 0, out left alone.
      {kI32, "-2147483648", "0 -2147483648"}, {kI32, "abc", "0 kept"}, {kI32, Zeros7(13), "0 7"},
      {kI32, Zeros7(15), "0 0"}, {kI32, "", "-1 kept"},
      {kU64, "18446744073709551615", "0 18446744073709551615"}, {kU64, "abc", "0 kept"},
      {kU64, Zeros7(21), "0 7"}, {kU64, Zeros7(22), "0 0"}, {kU64, "", "-1 kept"},
      {kU16, "65535", "0 65535"}, {kU16, "abc", "-1 kept"}, {kU16, "", "-1 kept"},
      // Signed format, low 8 bits kept.
      {kU8, "300", "0 44"}, {kU8, "-56", "0 200"}, {kU8, "abc", "-1 kept"}, {kU8, "", "-1 kept"},
      // Every readable text stores something; only "true" and "1" store 1.
      {kBool, "true", "0 1"}, {kBool, "TRUE", "0 0"}, {kBool, "", "-1 kept"},
  };
  std::string conf = "config values 'v'\n\toption enabled '1'\n";
  for (size_t i = 0; i < std::size(rows); ++i)
    if (!rows[i].text.empty()) conf += "\toption t" + std::to_string(i) + " '" + rows[i].text + "'\n";
  put("types", conf);
  for (size_t i = 0; i < std::size(rows); ++i)
    EXPECT_EQ(rows[i].read(("t" + std::to_string(i)).c_str()), rows[i].want) << i << ": " << rows[i].text;
  uint32_t u = 0;
  uint8_t b = 0;
  EXPECT_EQ(uciGetOptionUint32("types", nullptr, "v", "t0", nullptr), -1);
  EXPECT_EQ(uciGetOptionUint32(nullptr, nullptr, "v", "t0", &u), -1);
  EXPECT_EQ(uciGetOptionBoolean("types", nullptr, "v", "t0", nullptr), -1);
  EXPECT_EQ(uciGetOptionBoolean("types", nullptr, "v", nullptr, &b), -1);
  EXPECT_EQ(uciGetOptionEnabled("types", nullptr, "v", &b), 0);
  EXPECT_EQ(b, 1);
}

TEST_F(OneShot, WriteIsCommittedToTheFirstMatchingSection) {
  // The option didn't exist anywhere: it goes into the first match only.
  EXPECT_EQ(uciSetOptionString("network", "interface", nullptr, "mtu", "1400", 4), 0);
  EXPECT_EQ(stored("network", "wan", "mtu") + " " + stored("network", "lan", "mtu"), "1400 <absent>");
  EXPECT_EQ(uciSetOptionString("network", nullptr, "lan", "proto", "dhcp", 1), 0);
  EXPECT_EQ(stored("network", "lan", "proto"), "dhcp");
  // Committed to the file itself, with nothing left pending.
  const std::string text = ReadFile(conf_path("network"));
  EXPECT_NE(text.find("config interface 'wan'\n\toption proto 'dhcp'\n\toption mtu '1400'\n"), std::string::npos)
      << text;
  EXPECT_NE(text.find("config interface 'lan'\n\toption proto 'dhcp'\n"), std::string::npos) << text;
  EXPECT_EQ(ReadFile(std::string(kSaveDir) + "/network"), "");
}

TEST_F(OneShot, TypedWritersStoreTheirText) {
  const struct { const char *option; int rc; const char *want; } rows[] = {
      {"min", uciSetOptionInt32("network", nullptr, "sw0", "min", INT_MIN), "-2147483648"},
      {"yes", uciSetOptionBoolean("network", nullptr, "sw0", "yes", 1), "true"},
      {"no", uciSetOptionBoolean("network", nullptr, "sw0", "no", 0), "false"},
      {"enabled", uciSetOptionEnabled("network", nullptr, "sw0", 0x80), "true"},
      // Refused: no value, or no length for it.
      {"empty", uciSetOptionString("network", nullptr, "sw0", "empty", "x", 0) + 1, "<absent>"},
      {"null", uciSetOptionString("network", nullptr, "sw0", "null", nullptr, 1) + 1, "<absent>"},
  };
  for (const auto &r : rows)
    EXPECT_EQ(std::to_string(r.rc) + " " + stored("network", "sw0", r.option), std::string("0 ") + r.want) << r.option;
}

TEST_F(OneShot, FailedCommitRevertsAndReportsFailure) {
  // Changes saved earlier by someone else: only those of the section written
  // here ('lan', the third) go with the revert.
  ASSERT_EQ(mkdir(kSaveDir, 0700), 0);
  ASSERT_TRUE(WriteFile(std::string(kSaveDir) + "/network", "network.wan.mtu='1400'\nnetwork.lan.mtu='1500'\n"));
  const std::string before = ReadFile(conf_path("network"));
  {
    ReadOnlyDir ro{kConfDir};
    ASSERT_TRUE(ro.ok);
    EXPECT_EQ(uciSetOptionString("network", nullptr, "lan", "proto", "pppoe", 5), -1);
    EXPECT_EQ(uciSetOptionInt32("network", nullptr, "lan", "mtu", 1492), -1);
  }
  EXPECT_EQ(ReadFile(conf_path("network")), before);
  // Nothing of the change survives: not in the file, not pending for a later
  // context.
  EXPECT_EQ(stored("network", "lan", "proto") + " " + stored("network", "lan", "mtu") + " " +
                stored("network", "wan", "mtu"), "static <absent> 1400");
  EXPECT_EQ(ReadFile(std::string(kSaveDir) + "/network").find("lan"), std::string::npos);
}

TEST_F(OneShot, CommitFailingAfterTheReloadStillReverts) {
  // The file itself stays writable but its directory doesn't: libuci gets
  // as far as reloading the package (freeing the one the section came from)
  // before writing the new file fails.
  const std::string before = ReadFile(conf_path("network"));
  {
    ReadOnlyDir ro{kConfDir, conf_path("network")};
    ASSERT_TRUE(ro.ok);
    EXPECT_EQ(uciSetOptionString("network", "interface", nullptr, "proto", "pppoe", 5), -1);
  }
  EXPECT_EQ(ReadFile(conf_path("network")), before);
  EXPECT_EQ(stored("network", "wan", "proto"), "dhcp");
}

}  // namespace
}  // namespace rk::test
