// Fixtures for the UCI tests: packages as real files under /etc/config, read
// back through a fresh libuci context. These tests run only inside the
// private namespace of rk-ns-run, where /etc and /tmp are throw-away.
#pragma once

#include <sys/mount.h>

#include <gtest/gtest.h>
#include <uci.h>

#include "rk_test.h"

#include <filesystem>
#include <string>

namespace rk::test {

constexpr const char *kConfDir = "/etc/config";
constexpr const char *kSaveDir = "/tmp/.uci";

inline std::string conf_path(const std::string &package) {
  return std::string(kConfDir) + "/" + package;
}

// Empty /etc/config and no saved changes, as on a freshly booted device.
class UciFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    RK_REQUIRE_NAMESPACE();
    std::filesystem::remove_all(kSaveDir);
    std::filesystem::remove_all(kConfDir);
    std::filesystem::create_directories(kConfDir);
  }
  void put(const std::string &package, const std::string &text) {
    ASSERT_TRUE(WriteFile(conf_path(package), text));
  }
};

// What a fresh context sees of one option: its text, "<list>" or "<absent>".
inline std::string stored(const char *package, const char *section, const char *option) {
  uci_context *ctx = uci_alloc_context();
  if (ctx == nullptr) return "<no context>";
  std::string out = "<absent>";
  uci_package *p = nullptr;
  if (uci_load(ctx, package, &p) == 0 && p != nullptr) {
    uci_section *s = uci_lookup_section(ctx, p, section);
    uci_option *o = s ? uci_lookup_option(ctx, s, option) : nullptr;
    if (o != nullptr) out = o->type == UCI_TYPE_STRING ? std::string(o->v.string) : "<list>";
  } else {
    out = "<no package>";
  }
  uci_free_context(ctx);
  return out;
}

// Makes a directory read-only for the life of the object: a bind mount of
// it onto itself, remounted read-only (as root, permissions wouldn't stop a
// write). `writable_file`, if given, stays writable on a bind of its own.
class ReadOnlyDir {
 public:
  explicit ReadOnlyDir(const std::string &dir, const std::string &writable_file = "")
      : dir_(dir), file_(writable_file) {
    ok_ = mount(dir_.c_str(), dir_.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
          mount(nullptr, dir_.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) == 0;
    if (ok_ && !file_.empty())
      ok_ = mount(file_.c_str(), file_.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
            mount(nullptr, file_.c_str(), nullptr, MS_REMOUNT | MS_BIND, nullptr) == 0;
  }
  ~ReadOnlyDir() {
    if (!file_.empty()) umount2(file_.c_str(), MNT_DETACH);
    umount2(dir_.c_str(), MNT_DETACH);
  }
  ReadOnlyDir(const ReadOnlyDir &) = delete;
  ReadOnlyDir &operator=(const ReadOnlyDir &) = delete;
  bool ok() const { return ok_; }

 private:
  std::string dir_, file_;
  bool ok_ = false;
};

}  // namespace rk::test
