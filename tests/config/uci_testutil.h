// Fixtures for the UCI tests: packages as real files under /etc/config, read
// back through a fresh libuci context. These tests run only inside the
// private namespace of rk-ns-run, where /etc and /tmp are throw-away.
#pragma once

#include <sys/mount.h>

#include <gtest/gtest.h>
#include <uci.h>

#include "rk_test.h"

#include <cstring>
#include <filesystem>

namespace rk::test {

constexpr const char *kConfDir = "/etc/config";
constexpr const char *kSaveDir = "/tmp/.uci";

inline std::string conf_path(const std::string &package) { return std::string(kConfDir) + "/" + package; }

// The option's text in `ctx`, a list's items as "[a b]", or "<absent>".
inline std::string optionText(uci_context *ctx, uci_package *p, const char *section, const char *option) {
  uci_section *s = uci_lookup_section(ctx, p, section);
  uci_option *o = s ? uci_lookup_option(ctx, s, option) : nullptr;
  if (o == nullptr) return "<absent>";
  if (o->type == UCI_TYPE_STRING) return o->v.string;
  std::string items;
  uci_element *e;
  uci_foreach_element(&o->v.list, e) items += (items.empty() ? "" : " ") + std::string(e->name);
  return "[" + items + "]";
}

// What a fresh context sees of one option.
inline std::string stored(const char *package, const char *section, const char *option) {
  uci_context *ctx = uci_alloc_context();
  uci_package *p = nullptr;
  std::string out = uci_load(ctx, package, &p) == 0 && p ? optionText(ctx, p, section, option) : "<no package>";
  uci_free_context(ctx);
  return out;
}

// "<result> <value>" of one read into `out` preset to 0xA5 in every byte;
// the value "kept" when the reader did not write it.
template <typename T, typename Call>
std::string Outcome(Call call) {
  T preset, v;
  memset(&preset, 0xA5, sizeof preset);
  v = preset;
  const int rc = call(&v);
  return std::to_string(rc) + " " + (v == preset ? "kept" : std::to_string(+v));
}

// Empty /etc/config and no saved changes, as on a freshly booted device;
// load() opens a package in a context of the test's own.
class UciFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    RK_REQUIRE_NAMESPACE();
    std::filesystem::remove_all(kSaveDir);
    clearConfig();
  }
  void TearDown() override {
    if (ctx_ != nullptr) uci_free_context(ctx_);
  }
  static void clearConfig() {
    std::filesystem::remove_all(kConfDir);
    std::filesystem::create_directories(kConfDir);
  }
  void put(const std::string &package, const std::string &text) { ASSERT_TRUE(WriteFile(conf_path(package), text)); }
  void load(const char *name) {
    if (ctx_ != nullptr) uci_free_context(ctx_);
    ctx_ = uci_alloc_context();
    pkg_ = nullptr;
    ASSERT_EQ(uci_load(ctx_, name, &pkg_), 0);
    ASSERT_NE(pkg_, nullptr);
  }
  uci_section *section(const char *name) {
    uci_section *s = uci_lookup_section(ctx_, pkg_, name);
    EXPECT_NE(s, nullptr) << name;
    return s;
  }
  std::string text(const char *sec, const char *option) { return optionText(ctx_, pkg_, sec, option); }

  uci_context *ctx_ = nullptr;
  uci_package *pkg_ = nullptr;
};

// A read-only bind of `path` onto itself (as root, permissions wouldn't stop
// a write); `flags` 0 makes a writable one.
inline bool Bind(const std::string &path, unsigned long flags = MS_RDONLY) {
  return mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
         mount(nullptr, path.c_str(), nullptr, MS_REMOUNT | MS_BIND | flags, nullptr) == 0;
}
// Makes directory `dir` read-only for the life of the object but for
// `writable_file`, if given, which stays writable on a bind of its own.
struct ReadOnlyDir {
  explicit ReadOnlyDir(std::string d, std::string f = "") : dir(std::move(d)), writable_file(std::move(f)) {}
  std::string dir, writable_file;
  bool ok = Bind(dir) && (writable_file.empty() || Bind(writable_file, 0));
  ~ReadOnlyDir() {
    if (!writable_file.empty()) umount2(writable_file.c_str(), MNT_DETACH);
    umount2(dir.c_str(), MNT_DETACH);
  }
};

}  // namespace rk::test
