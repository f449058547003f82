// The life of a change: pending in memory, saved into a change file, applied
// at load, committed into the configuration file or reverted; and the
// failures a commit must survive without losing the old file.
#include <dirent.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <string>

#include <gtest/gtest.h>
#include <uci.h>

#include "uci_test_util.h"

namespace ucitest {
namespace {

// Tests that mount file systems or use the system's fixed paths run only in
// the private namespace the test runner provides.
bool InPrivateNamespace() { return getenv("RK_NS_KEEP") != nullptr; }

#define REQUIRE_NAMESPACE()                                              \
  if (!InPrivateNamespace()) GTEST_SKIP() << "needs tests/support/rk-ns-run"

const char kTricky[] =
    "# a router's network\n"
    "package network\n"
    "\n"
    "config interface 'lan'\n"
    "\toption proto \"static\"\n"
    "\toption descr 'it'\\''s \"quoted\"'\n"
    "\toption multi 'line one\n"
    "line two'\n"
    "\tlist dns 8.8.8.8 # trailing comment\n"
    "\tlist dns '1.1.1.1'\n"
    "\toption empty ''\n"
    "\n"
    "config rule\n"
    "\toption name 'a\\b'\n"
    "config rule ''\n"
    "\toption src \"x\\\"y\"\n";

const char kTrickyCommitted[] =
    "\n"
    "config interface 'lan'\n"
    "\toption proto 'dhcp'\n"
    "\toption descr 'it'\\''s \"quoted\"'\n"
    "\toption multi 'line one\n"
    "line two'\n"
    "\tlist dns '8.8.8.8'\n"
    "\tlist dns '1.1.1.1'\n"
    "\n"
    "config rule\n"
    "\toption name 'a\\b'\n"
    "\n"
    "config rule\n"
    "\toption src 'x\"y'\n"
    "\n";

class UciChanges : public UciTest {
 protected:
  uci_ptr On(uci_package *p, const char *sec, const char *opt, const char *value) {
    uci_ptr ptr;
    memset(&ptr, 0, sizeof ptr);
    ptr.p = p;
    ptr.section = sec;
    ptr.option = opt;
    ptr.value = value;
    return ptr;
  }

  void Set(uci_package *p, const char *sec, const char *opt, const char *value) {
    uci_ptr ptr = On(p, sec, opt, value);
    ASSERT_EQ(UCI_OK, uci_set(ctx_, &ptr)) << sec << "." << (opt ? opt : "") << "=" << value;
  }

  bool HasTempFiles(const std::string &dir) {
    bool found = false;
    if (DIR *d = opendir(dir.c_str())) {
      while (dirent *e = readdir(d)) found |= strstr(e->d_name, ".uci-") != nullptr;
      closedir(d);
    }
    return found;
  }
};

TEST_F(UciChanges, RoundTripChangesOnlyWhatWasSet) {
  WriteFile(Conf("network"), kTricky);
  uci_package *p = Load("network");
  ASSERT_NE(nullptr, p);
  const std::string before = Dump(p);
  Set(p, "lan", "proto", "dhcp");
  ASSERT_EQ(UCI_OK, uci_commit(ctx_, &p, false));
  EXPECT_EQ(kTrickyCommitted, ReadFile(Conf("network")));
  EXPECT_TRUE(Exists(Saved("network")));
  EXPECT_EQ("", ReadFile(Saved("network")));

  std::string want = before;
  want.replace(want.find("proto='static'"), strlen("proto='static'"), "proto='dhcp'");
  EXPECT_EQ(want, FreshDump("network"));
  EXPECT_EQ(want, Dump(p)) << "the caller's package after commit is the committed one";
  EXPECT_EQ(p, uci_lookup_package(ctx_, "network"));
}

TEST_F(UciChanges, CommittedTextAndQuoteEscaping) {
  WriteFile(Conf("system"), "config system\n\toption hostname gw\n");
  uci_package *p = Load("system");
  Set(p, "cfg01e48a", "motd", "it's 'here'");
  Set(p, "ntp", nullptr, "timeserver");
  uci_ptr add = On(p, "ntp", "server", "0.pool");
  ASSERT_EQ(UCI_OK, uci_add_list(ctx_, &add));
  add = On(p, "ntp", "server", "1.pool");
  ASSERT_EQ(UCI_OK, uci_add_list(ctx_, &add));
  ASSERT_EQ(UCI_OK, uci_commit(ctx_, &p, false));
  EXPECT_EQ(
      "\n"
      "config system\n"
      "\toption hostname 'gw'\n"
      "\toption motd 'it'\\''s '\\''here'\\'''\n"
      "\n"
      "config timeserver 'ntp'\n"
      "\tlist server '0.pool'\n"
      "\tlist server '1.pool'\n"
      "\n",
      ReadFile(Conf("system")));
  EXPECT_EQ("it's 'here'", Get(ctx_, p, "cfg01e48a", "motd"));
}

TEST_F(UciChanges, SaveAppendsChangeLinesAndKeepsThePackage) {
  WriteFile(Conf("network"), "config interface 'lan'\n\toption proto static\n"
                             "\toption ipaddr 1.2.3.4\n\tlist dns 8.8.8.8\n");
  uci_package *p = Load("network");
  Set(p, "lan", "proto", "dhcp");
  Set(p, "lan", "ipaddr", "");
  uci_ptr ptr = On(p, "lan", "dns", "9.9.9.9");
  ASSERT_EQ(UCI_OK, uci_add_list(ctx_, &ptr));
  ptr = On(p, "lan", "dns", "8.8.8.8");
  ASSERT_EQ(UCI_OK, uci_del_list(ctx_, &ptr));
  Set(p, "guest", nullptr, "interface");
  Set(p, "lan", "descr", "it's");
  const std::string mem = Dump(p);

  ASSERT_EQ(UCI_OK, uci_save(ctx_, p));
  const char kLines[] =
      "network.lan.proto='dhcp'\n"
      "-network.lan.ipaddr\n"
      "|network.lan.dns='9.9.9.9'\n"
      "~network.lan.dns='8.8.8.8'\n"
      "network.guest='interface'\n"
      "network.lan.descr='it'\\''s'\n";
  EXPECT_EQ(kLines, ReadFile(Saved("network")));
  EXPECT_EQ(mem, Dump(p));
  ASSERT_EQ(UCI_OK, uci_save(ctx_, p));  // nothing pending: nothing added
  EXPECT_EQ(kLines, ReadFile(Saved("network")));

  // Another context sees the saved changes; the file itself is untouched.
  EXPECT_EQ(mem, FreshDump("network"));
  EXPECT_EQ("config interface 'lan'\n\toption proto static\n\toption ipaddr 1.2.3.4\n"
            "\tlist dns 8.8.8.8\n",
            ReadFile(Conf("network")));
}

TEST_F(UciChanges, NoOpEditsRecordNothing) {
  WriteFile(Conf("network"), "config interface 'lan'\n\toption proto static\n");
  uci_package *p = Load("network");
  uci_ptr ptr = On(p, "lan", "proto", "static");
  ASSERT_EQ(UCI_OK, uci_del_list(ctx_, &ptr));  // a string: not a list
  Set(p, "lan", "proto", "static");             // equal value
  Set(p, "lan", "gateway", "");                 // nothing to delete
  ASSERT_EQ(UCI_OK, uci_save(ctx_, p));
  EXPECT_EQ("", ReadFile(Saved("network")));
  EXPECT_EQ("interface lan\n  proto='static'\n", Dump(p));
}

TEST_F(UciChanges, ChangeFilesAreAppliedAtLoadInPathOrder) {
  REQUIRE_NAMESPACE();
  WriteFile(Conf("network"), "config interface 'lan'\n\toption proto static\n\toption mtu 1500\n");
  // The built-in /tmp/.uci is read first even though the savedir is elsewhere.
  ASSERT_EQ(0, mkdir("/tmp/.uci", 0700));
  WriteFile("/tmp/.uci/network",
            "network.lan.proto='from_default'\nnetwork.lan.zone='lan'\n");
  ASSERT_EQ(0, mkdir(save_.c_str(), 0700));
  WriteFile(Saved("network"),
            "network.lan.proto='from_savedir'\n"
            "garbage without a dot\n"
            "network.lan.bad-name='x'\n"
            "-network.nosuch.opt\n"
            "other.lan.proto='x'\n"
            "network.lan.note='two\n"
            "lines'\n"
            "|network.lan.dns='1.1.1.1'\n");
  uci_package *p = Load("network");
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(
      "interface lan\n"
      "  proto='from_savedir'\n"
      "  mtu='1500'\n"
      "  zone='lan'\n"
      "  note='two\nlines'\n"
      "  dns=['1.1.1.1']\n",
      Dump(p));
}

TEST_F(UciChanges, CommitKeepsModeAndReplacesTheFile) {
  WriteFile(Conf("network"), "config interface 'lan'\n\toption proto static\n", 0640);
  const ino_t old_inode = Inode(Conf("network"));
  uci_package *p = Load("network");
  Set(p, "lan", "proto", "dhcp");
  ASSERT_EQ(UCI_OK, uci_commit(ctx_, &p, false));
  EXPECT_NE(old_inode, Inode(Conf("network")));
  EXPECT_EQ(0640u, Mode(Conf("network")));
  EXPECT_FALSE(HasTempFiles(conf_));
  EXPECT_EQ("\nconfig interface 'lan'\n\toption proto 'dhcp'\n\n", ReadFile(Conf("network")));
}

TEST_F(UciChanges, CommitAlwaysHandsBackAFreshPackage) {
  // With nothing to write the file stays as it is, yet the package is
  // re-read: what another context committed meanwhile shows up in *pp.
  const char kText[] = "config interface 'lan'   # odd spacing is kept\n\toption proto static\n";
  WriteFile(Conf("network"), kText);
  const ino_t inode = Inode(Conf("network"));
  uci_package *p = Load("network");

  uci_context *other = NewContext();
  uci_package *q = nullptr;
  ASSERT_EQ(UCI_OK, uci_load(other, "network", &q));
  uci_ptr ptr = On(q, "lan", "proto", "pppoe");
  ASSERT_EQ(UCI_OK, uci_set(other, &ptr));
  ASSERT_EQ(UCI_OK, uci_commit(other, &q, false));
  uci_free_context(other);
  const std::string committed = ReadFile(Conf("network"));
  const ino_t committed_inode = Inode(Conf("network"));
  EXPECT_NE(inode, committed_inode);

  ASSERT_EQ(UCI_OK, uci_commit(ctx_, &p, false));
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(p, uci_lookup_package(ctx_, "network"));
  EXPECT_EQ("pppoe", Get(ctx_, p, "lan", "proto"));
  EXPECT_EQ(committed_inode, Inode(Conf("network")));
  EXPECT_EQ(committed, ReadFile(Conf("network")));
  EXPECT_FALSE(Exists(Saved("network")) && !ReadFile(Saved("network")).empty());

  // Nothing pending at all: the file keeps its inode and its formatting.
  WriteFile(Conf("plain"), kText);
  const ino_t plain_inode = Inode(Conf("plain"));
  uci_package *plain = Load("plain");
  ASSERT_EQ(UCI_OK, uci_commit(ctx_, &plain, false));
  EXPECT_EQ(plain_inode, Inode(Conf("plain")));
  EXPECT_EQ(kText, ReadFile(Conf("plain")));
  EXPECT_EQ("static", Get(ctx_, plain, "lan", "proto"));
}

TEST_F(UciChanges, CommitRenumbersAnonymousSections) {
  WriteFile(Conf("fw"), "config rule\n\toption name a\nconfig rule\n\toption name b\n");
  uci_package *p = Load("fw");
  uci_ptr del = On(p, "cfg0192bd", nullptr, nullptr);
  ASSERT_EQ(UCI_OK, uci_delete(ctx_, &del));
  ASSERT_EQ(UCI_OK, uci_commit(ctx_, &p, false));
  EXPECT_EQ("rule cfg0292bd(anon)\n  name='b'\n", Dump(p));
  EXPECT_EQ("rule cfg0192bd(anon)\n  name='b'\n", FreshDump("fw"));
}

TEST_F(UciChanges, CommitDropsWhatAChangeFileCannotCarry) {
  WriteFile(Conf("network"), "config interface 'lan'\n\toption proto static\n");
  uci_package *p = Load("network");
  Set(p, "lan", "bad-name", "x");
  Set(p, "lan", "ctl", "a\x01z");
  Set(p, "lan", "note", "two\nlines\ttab");
  EXPECT_EQ("x", Get(ctx_, p, "lan", "bad-name"));  // accepted in memory
  ASSERT_EQ(UCI_OK, uci_commit(ctx_, &p, false));
  EXPECT_EQ("interface lan\n  proto='static'\n  note='two\nlines\ttab'\n", FreshDump("network"));
}

TEST_F(UciChanges, PackageLoadedByPathIsWrittenAsIs) {
  WriteFile(Conf("direct"), "config t 's'\n\toption a '1'\n");
  uci_package *p = nullptr;
  ASSERT_EQ(UCI_OK, uci_load(ctx_, Conf("direct").c_str(), &p));
  uci_package *held = p;
  Set(p, "s", "a", "22");
  ASSERT_EQ(UCI_OK, uci_commit(ctx_, &p, false));
  EXPECT_EQ(held, p);
  EXPECT_EQ("\nconfig t 's'\n\toption a '22'\n\n", ReadFile(Conf("direct")));
  EXPECT_FALSE(Exists(Saved("direct")));
  // Saving such a package writes the file too.
  Set(p, "s", "b", "3");
  ASSERT_EQ(UCI_OK, uci_save(ctx_, p));
  EXPECT_EQ("\nconfig t 's'\n\toption a '22'\n\toption b '3'\n\n", ReadFile(Conf("direct")));
}

TEST_F(UciChanges, OverwriteWritesOnlyWhenChangeFilesHaveEntries) {
  const char kText[] = "config interface 'lan'\n\toption proto static\n";
  WriteFile(Conf("network"), kText);
  uci_package *p = Load("network");
  uci_package *held = p;
  Set(p, "lan", "proto", "dhcp");
  // Pending changes alone are not saved first: nothing is written.
  ASSERT_EQ(UCI_OK, uci_commit(ctx_, &p, true));
  EXPECT_EQ(held, p);
  EXPECT_EQ(kText, ReadFile(Conf("network")));
  // Once saved, the package is written as it is in memory.
  ASSERT_EQ(UCI_OK, uci_save(ctx_, p));
  ASSERT_EQ(UCI_OK, uci_commit(ctx_, &p, true));
  EXPECT_EQ(held, p);
  EXPECT_EQ("\nconfig interface 'lan'\n\toption proto 'dhcp'\n\n", ReadFile(Conf("network")));
}

TEST_F(UciChanges, RevertOneSectionPersistsTheOthers) {
  WriteFile(Conf("network"), "config interface 'lan'\n\toption proto static\n\toption mtu 1500\n"
                             "config interface 'wan'\n\toption proto dhcp\n");
  uci_package *p = Load("network");
  Set(p, "lan", "proto", "dhcp");
  Set(p, "wan", "proto", "pppoe");

  uci_ptr ptr = On(p, "lan", nullptr, nullptr);
  ASSERT_EQ(UCI_OK, uci_revert(ctx_, &ptr));
  // The old package is gone; the new one comes back in ptr.p only.
  p = ptr.p;
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(p, uci_lookup_package(ctx_, "network"));
  EXPECT_EQ("static", Get(ctx_, p, "lan", "proto"));
  EXPECT_EQ("pppoe", Get(ctx_, p, "wan", "proto"));
  // wan's pending change became a saved one, visible to other contexts.
  EXPECT_EQ("network.wan.proto='pppoe'\n", ReadFile(Saved("network")));
  EXPECT_EQ("interface lan\n  proto='static'\n  mtu='1500'\ninterface wan\n  proto='pppoe'\n",
            FreshDump("network"));

  // Reverting one option leaves the section's other changes.
  Set(p, "lan", "proto", "dhcp");
  Set(p, "lan", "mtu", "1400");
  ptr = On(p, "lan", "mtu", nullptr);
  ASSERT_EQ(UCI_OK, uci_revert(ctx_, &ptr));
  p = ptr.p;
  EXPECT_EQ("dhcp", Get(ctx_, p, "lan", "proto"));
  EXPECT_EQ("1500", Get(ctx_, p, "lan", "mtu"));

  // The whole package: every change is dropped; the file never changed.
  ptr = On(p, nullptr, nullptr, nullptr);
  ASSERT_EQ(UCI_OK, uci_revert(ctx_, &ptr));
  p = ptr.p;
  EXPECT_EQ("", ReadFile(Saved("network")));
  EXPECT_EQ("interface lan\n  proto='static'\n  mtu='1500'\ninterface wan\n  proto='dhcp'\n",
            Dump(p));

  // A missing section is no error: the package is simply reloaded.
  ptr = On(p, "dmz", nullptr, nullptr);
  EXPECT_EQ(UCI_OK, uci_revert(ctx_, &ptr));
  EXPECT_NE(nullptr, ptr.p);
}

TEST_F(UciChanges, RevertNeedsChangeTracking) {
  WriteFile(Conf("direct"), "config t 's'\n");
  uci_package *p = nullptr;
  ASSERT_EQ(UCI_OK, uci_load(ctx_, Conf("direct").c_str(), &p));
  uci_ptr ptr = On(p, "s", nullptr, nullptr);
  EXPECT_EQ(UCI_ERR_INVAL, uci_revert(ctx_, &ptr));
}

// A read-only confdir: `dir` becomes a tmpfs holding `files`, then read-only.
class UciReadOnly : public UciChanges {
 protected:
  void MakeReadOnlyConf(const char *name, const std::string &text) {
    ASSERT_EQ(0, mount("rk-uci-ro", conf_.c_str(), "tmpfs", 0, "mode=0755")) << strerror(errno);
    WriteFile(Conf(name), text);
    ASSERT_EQ(0, mount(nullptr, conf_.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr))
        << strerror(errno);
  }
  void TearDown() override {
    if (InPrivateNamespace()) umount2(conf_.c_str(), MNT_DETACH);
    UciChanges::TearDown();
  }
};

TEST_F(UciReadOnly, CommitFailsAndKeepsTheOldFile) {
  REQUIRE_NAMESPACE();
  const char kText[] = "config interface 'lan'\n\toption proto static\n";
  MakeReadOnlyConf("network", kText);
  uci_package *p = Load("network");
  Set(p, "lan", "proto", "dhcp");
  EXPECT_EQ(UCI_ERR_IO, uci_commit(ctx_, &p, false));
  EXPECT_EQ(kText, ReadFile(Conf("network")));
  ASSERT_NE(nullptr, p);
  EXPECT_EQ("dhcp", Get(ctx_, p, "lan", "proto"));
  EXPECT_FALSE(HasTempFiles(conf_));
}

TEST_F(UciReadOnly, FailureAfterReloadStillReplacesThePackage) {
  REQUIRE_NAMESPACE();
  // The file itself stays writable (a bind mount of a file elsewhere); only
  // the directory that would take the new file is read-only.
  const char kText[] = "config interface 'lan'\n\toption proto static\n";
  MakeReadOnlyConf("network", kText);
  const std::string src = root_ + "/network.src";
  WriteFile(src, kText);
  ASSERT_EQ(0, mount(src.c_str(), Conf("network").c_str(), nullptr, MS_BIND, nullptr))
      << strerror(errno);
  uci_package *p = Load("network");
  Set(p, "lan", "proto", "dhcp");
  EXPECT_EQ(UCI_ERR_IO, uci_commit(ctx_, &p, false));
  // *pp is already the reloaded package; it holds the change, the file not.
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(p, uci_lookup_package(ctx_, "network"));
  EXPECT_EQ("dhcp", Get(ctx_, p, "lan", "proto"));
  EXPECT_EQ(kText, ReadFile(src));
  umount2(Conf("network").c_str(), MNT_DETACH);
}

TEST(UciDefaultPaths, OneShotUseReadsEtcConfigAndWritesTmpUci) {
  REQUIRE_NAMESPACE();
  mkdir("/etc/config", 0755);
  WriteFile("/etc/config/rkucitest", "config system\n\toption hostname gw\n");
  uci_context *ctx = uci_alloc_context();
  ASSERT_NE(nullptr, ctx);
  char path[] = "rkucitest.@system[0].hostname=router";
  uci_ptr ptr;
  ASSERT_EQ(UCI_OK, uci_lookup_ptr(ctx, &ptr, path, true));
  ASSERT_EQ(UCI_OK, uci_set(ctx, &ptr));
  ASSERT_EQ(UCI_OK, uci_save(ctx, ptr.p));
  EXPECT_EQ("rkucitest.cfg01e48a.hostname='router'\n", ReadFile("/tmp/.uci/rkucitest"));
  ASSERT_EQ(UCI_OK, uci_commit(ctx, &ptr.p, false));
  EXPECT_EQ("\nconfig system\n\toption hostname 'router'\n\n", ReadFile("/etc/config/rkucitest"));
  EXPECT_EQ("", ReadFile("/tmp/.uci/rkucitest"));
  uci_free_context(ctx);
  unlink("/etc/config/rkucitest");
}

TEST_F(UciChanges, PerrorNamesTheFailure) {
  uci_package *p = nullptr;
  ASSERT_EQ(UCI_ERR_NOTFOUND, uci_load(ctx_, "absent", &p));
  testing::internal::CaptureStderr();
  uci_perror(ctx_, "myprog");
  std::string text = testing::internal::GetCapturedStderr();
  EXPECT_EQ(0u, text.find("myprog")) << text;
  EXPECT_GT(text.size(), strlen("myprog: ")) << text;
}

}  // namespace
}  // namespace ucitest
