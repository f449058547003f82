// Helpers for the libuci tests: a private configuration and save directory
// per test and a printed form of a package that makes "same tree except for
// this change" a string comparison. Only the public API is used, so the
// tests hold against the platform's libuci as well.
#pragma once

#include <sys/stat.h>

#include <string>

#include <gtest/gtest.h>
#include <uci.h>

#include "rk_test.h"

namespace rk::test {

// The value of string option `opt` of section `sec`, or "<none>".
inline std::string Get(uci_context *ctx, uci_package *p, const char *sec, const char *opt) {
  uci_section *s = uci_lookup_section(ctx, p, sec);
  if (!s) return "<no section>";
  const char *v = uci_lookup_option_string(ctx, s, opt);
  return v ? v : "<none>";
}

// A fresh confdir and savedir under /tmp and a context pointed at them.
class UciTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, mkdir(conf_.c_str(), 0755));
    ctx_ = NewContext();
    ASSERT_NE(nullptr, ctx_);
  }
  void TearDown() override {
    if (ctx_) uci_free_context(ctx_);
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
  TempDir dir_;
  std::string conf_ = dir_ / "config", save_ = dir_ / "save";
  uci_context *ctx_ = nullptr;
};

}  // namespace rk::test
