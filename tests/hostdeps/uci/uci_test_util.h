// Helpers for the libuci tests: a private configuration and save directory
// per test, file helpers, and a printed form of a package that makes "same
// tree except for this change" a string comparison. Only the public API is
// used, so the tests hold against the platform's libuci as well.
#pragma once

#include <ftw.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <uci.h>

namespace ucitest {

inline std::string ReadFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline bool Exists(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0;
}

inline void WriteFile(const std::string &path, const std::string &text, mode_t mode = 0644) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  out.close();
  ASSERT_TRUE(out.good()) << path;
  ASSERT_EQ(0, chmod(path.c_str(), mode));
}

inline ino_t Inode(const std::string &path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return 0;
  return st.st_ino;
}

inline mode_t Mode(const std::string &path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return 0;
  return st.st_mode & 07777;
}

inline void RemoveTree(const std::string &dir) {
  nftw(
      dir.c_str(),
      [](const char *path, const struct stat *, int, struct FTW *) { return remove(path); }, 16,
      FTW_DEPTH | FTW_PHYS);
}

// "type name(anon)" per section, "  opt=value" / "  opt=[a,b]" per option.
inline std::string Dump(uci_package *p) {
  std::string out;
  uci_element *se;
  uci_foreach_element(&p->sections, se) {
    uci_section *s = uci_to_section(se);
    out += std::string(s->type) + " " + se->name + (s->anonymous ? "(anon)" : "") + "\n";
    uci_element *oe;
    uci_foreach_element(&s->options, oe) {
      uci_option *o = uci_to_option(oe);
      out += std::string("  ") + oe->name + "=";
      if (o->type == UCI_TYPE_STRING) {
        out += std::string("'") + o->v.string + "'";
      } else {
        out += "[";
        uci_element *item;
        bool first = true;
        uci_foreach_element(&o->v.list, item) {
          out += std::string(first ? "" : ",") + "'" + item->name + "'";
          first = false;
        }
        out += "]";
      }
      out += "\n";
    }
  }
  return out;
}

inline int CountSections(uci_package *p) {
  int n = 0;
  uci_element *e;
  uci_foreach_element(&p->sections, e) ++n;
  return n;
}

inline int CountPackages(uci_context *ctx) {
  int n = 0;
  uci_element *e;
  uci_foreach_element(&ctx->root, e) ++n;
  return n;
}

// The value of string option `opt` of section `sec`, or "<none>".
inline std::string Get(uci_context *ctx, uci_package *p, const char *sec, const char *opt) {
  uci_section *s = uci_lookup_section(ctx, p, sec);
  if (!s) return "<no section>";
  const char *v = uci_lookup_option_string(ctx, s, opt);
  return v ? v : "<none>";
}

// A uci_ptr over its own writable copy of "pkg.sec.opt=value".
class Ptr {
 public:
  explicit Ptr(const std::string &path) : buf_(path.begin(), path.end()) {
    buf_.push_back('\0');
    memset(&ptr_, 0, sizeof ptr_);
  }
  int Lookup(uci_context *ctx, bool extended = false) {
    return uci_lookup_ptr(ctx, &ptr_, buf_.data(), extended);
  }
  uci_ptr *operator->() { return &ptr_; }
  uci_ptr *get() { return &ptr_; }

 private:
  std::vector<char> buf_;
  uci_ptr ptr_;
};

// A fresh confdir and savedir under /tmp (the test namespace's own tmpfs)
// and a context pointed at them.
class UciTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/uci-test-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    root_ = tmpl;
    conf_ = root_ + "/config";
    save_ = root_ + "/save";
    ASSERT_EQ(0, mkdir(conf_.c_str(), 0755));
    ctx_ = NewContext();
    ASSERT_NE(nullptr, ctx_);
  }

  void TearDown() override {
    if (ctx_) uci_free_context(ctx_);
    RemoveTree(root_);
  }

  uci_context *NewContext() {
    uci_context *ctx = uci_alloc_context();
    if (ctx) {
      EXPECT_EQ(UCI_OK, uci_set_confdir(ctx, conf_.c_str()));
      EXPECT_EQ(UCI_OK, uci_set_savedir(ctx, save_.c_str()));
    }
    return ctx;
  }

  std::string Conf(const std::string &name) const { return conf_ + "/" + name; }
  std::string Saved(const std::string &name) const { return save_ + "/" + name; }

  uci_package *Load(const char *name) {
    uci_package *p = nullptr;
    EXPECT_EQ(UCI_OK, uci_load(ctx_, name, &p)) << name;
    return p;
  }

  // Loads `name` in a context of its own and prints it.
  std::string FreshDump(const char *name) {
    uci_context *ctx = NewContext();
    uci_package *p = nullptr;
    std::string out = "<load failed>";
    if (uci_load(ctx, name, &p) == UCI_OK) out = Dump(p);
    uci_free_context(ctx);
    return out;
  }

  std::string root_, conf_, save_;
  uci_context *ctx_ = nullptr;
};

}  // namespace ucitest
