// Fixtures for the UCI tests: packages as real files under /etc/config, read
// back through a fresh libuci context. These tests run only inside the
// private namespace of rk-ns-run, where /etc and /tmp are throw-away.
#pragma once

#include <sys/mount.h>

#include <gtest/gtest.h>
#include <uci.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace rktest {

constexpr const char *kConfDir = "/etc/config";
constexpr const char *kSaveDir = "/tmp/.uci";

// True inside rk-ns-run: /etc and /tmp are its overlay and tmpfs.
inline bool in_private_namespace() {
  std::ifstream mounts("/proc/self/mountinfo");
  std::string line;
  bool etc = false, tmp = false;
  while (std::getline(mounts, line)) {
    if (line.find(" /etc ") != std::string::npos && line.find(" rk-etc ") != std::string::npos)
      etc = true;
    if (line.find(" /tmp ") != std::string::npos && line.find(" rk-tmp ") != std::string::npos)
      tmp = true;
  }
  return etc && tmp;
}

inline void write_file(const std::string &path, const std::string &text) {
  std::ofstream f(path, std::ios::binary | std::ios::trunc);
  f << text;
  ASSERT_TRUE(f.good()) << path;
}

inline std::string read_file(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  std::ostringstream s;
  s << f.rdbuf();
  return s.str();
}

inline std::string conf_path(const std::string &package) {
  return std::string(kConfDir) + "/" + package;
}

// Empty /etc/config and no saved changes, as on a freshly booted device.
class UciFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(in_private_namespace())
        << "UCI tests write /etc/config and /tmp/.uci; run them through ctest (rk-ns-run)";
    std::filesystem::remove_all(kSaveDir);
    std::filesystem::remove_all(kConfDir);
    std::filesystem::create_directories(kConfDir);
  }
  void put(const std::string &package, const std::string &text) {
    write_file(conf_path(package), text);
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

}  // namespace rktest
