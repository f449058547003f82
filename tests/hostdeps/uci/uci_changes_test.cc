// A commit that fails after libuci has already loaded the package again:
// the caller gets the new package, holding the change, and the old file stays.
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

namespace rk::test {
namespace {

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
};

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
    if (InTestNamespace()) umount2(conf_.c_str(), MNT_DETACH);
    UciChanges::TearDown();
  }
};

TEST_F(UciReadOnly, FailureAfterReloadStillReplacesThePackage) {
  RK_REQUIRE_NAMESPACE();
  // The file itself stays writable (a bind mount of a file elsewhere); only
  // the directory that would take the new file is read-only.
  const char kText[] = "config interface 'lan'\n\toption proto static\n";
  MakeReadOnlyConf("network", kText);
  const std::string src = dir_ / "network.src";
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

}  // namespace
}  // namespace rk::test
