// What the UCI accessors ask of libuci: which calls, in which order, with
// which uci_ptr. The program is linked with -Wl,--wrap for libuci's entry
// points, so every call from the library lands in a recorder here first and
// then (unless a fault is planted) in the real libuci. Packages are real
// files in /etc/config, private to the test's namespace.
#include <routerkit/uci_access.h>

#include <gtest/gtest.h>
#include <uci.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "uci_testutil.h"

extern "C" {
uci_context *__real_uci_alloc_context(void);
void __real_uci_free_context(uci_context *ctx);
int __real_uci_load(uci_context *ctx, const char *name, uci_package **package);
int __real_uci_unload(uci_context *ctx, uci_package *p);
int __real_uci_commit(uci_context *ctx, uci_package **p, bool overwrite);
int __real_uci_set(uci_context *ctx, uci_ptr *ptr);
int __real_uci_add_list(uci_context *ctx, uci_ptr *ptr);
int __real_uci_del_list(uci_context *ctx, uci_ptr *ptr);
int __real_uci_delete(uci_context *ctx, uci_ptr *ptr);
int __real_uci_revert(uci_context *ctx, uci_ptr *ptr);
int __real_uci_lookup_next(uci_context *ctx, uci_element **e, uci_list *list, const char *name);

uci_context *__wrap_uci_alloc_context(void);
void __wrap_uci_free_context(uci_context *ctx);
int __wrap_uci_load(uci_context *ctx, const char *name, uci_package **package);
int __wrap_uci_unload(uci_context *ctx, uci_package *p);
int __wrap_uci_commit(uci_context *ctx, uci_package **p, bool overwrite);
int __wrap_uci_set(uci_context *ctx, uci_ptr *ptr);
int __wrap_uci_add_list(uci_context *ctx, uci_ptr *ptr);
int __wrap_uci_del_list(uci_context *ctx, uci_ptr *ptr);
int __wrap_uci_delete(uci_context *ctx, uci_ptr *ptr);
int __wrap_uci_revert(uci_context *ctx, uci_ptr *ptr);
int __wrap_uci_lookup_next(uci_context *ctx, uci_element **e, uci_list *list, const char *name);
}

namespace {

// ---- recorder ------------------------------------------------------------

struct Call {
  std::string fn;
  std::string ptr;              // the uci_ptr as handed in, in words (see describe)
  uci_ptr in{};                 // ... and as bytes
  const void *arg = nullptr;    // package of unload/commit (before the call)
  const void *after = nullptr;  // package after commit, ptr->p after revert
  std::string section_name;     // name of ptr->s when handed in
  int rc = 0;
};

// A planted failure: the nth call (1-based) of `fn` returns `rc`, without
// calling libuci, or after calling it when `call_real` is set.
struct Fault {
  std::string fn;
  int nth;
  int rc;
  bool call_real = false;
};

std::vector<Call> g_calls;
std::vector<Fault> g_faults;
bool g_fail_alloc = false;

std::string text_or_null(const char *s) { return s ? "'" + std::string(s) + "'" : "NULL"; }

std::string describe(const uci_ptr &p) {
  char head[160];
  snprintf(head, sizeof head, "target=%d flags=%d p=%p s=%p o=%p last=%p", static_cast<int>(p.target),
           static_cast<int>(p.flags), static_cast<void *>(p.p), static_cast<void *>(p.s),
           static_cast<void *>(p.o), static_cast<void *>(p.last));
  return std::string(head) + " package=" + text_or_null(p.package) +
         " section=" + text_or_null(p.section) + " option=" + text_or_null(p.option) +
         " value=" + text_or_null(p.value);
}

Call &record(const char *fn) {
  g_calls.push_back(Call{});
  g_calls.back().fn = fn;
  return g_calls.back();
}

Call &record_ptr(const char *fn, const uci_ptr *ptr) {
  Call &c = record(fn);
  if (ptr != nullptr) {
    c.in = *ptr;
    c.ptr = describe(*ptr);
    if (ptr->s != nullptr && ptr->s->e.name != nullptr) c.section_name = ptr->s->e.name;
  }
  return c;
}

// The planted fault for this call of `fn`, if any.
const Fault *fault_for(const std::string &fn) {
  int n = 0;
  for (const Call &c : g_calls) n += c.fn == fn;
  for (const Fault &f : g_faults)
    if (f.fn == fn && f.nth == n) return &f;
  return nullptr;
}

template <typename Real>
int run(Call &c, const std::string &fn, Real real) {
  const Fault *f = fault_for(fn);
  if (f == nullptr) return c.rc = real();
  if (f->call_real) real();
  return c.rc = f->rc;
}

// Names of the calls made, lookups left out, separated by blanks.
std::string sequence() {
  std::string s;
  for (const Call &c : g_calls) {
    if (c.fn == "uci_lookup_next") continue;
    s += (s.empty() ? "" : " ") + c.fn;
  }
  return s;
}

std::vector<const Call *> calls_of(const std::string &fn) {
  std::vector<const Call *> v;
  for (const Call &c : g_calls)
    if (c.fn == fn) v.push_back(&c);
  return v;
}

void reset_recorder() {
  g_calls.clear();
  g_faults.clear();
  g_fail_alloc = false;
}

}  // namespace

extern "C" {

uci_context *__wrap_uci_alloc_context(void) {
  record("uci_alloc_context");
  return g_fail_alloc ? nullptr : __real_uci_alloc_context();
}
void __wrap_uci_free_context(uci_context *ctx) {
  record("uci_free_context").arg = ctx;
  __real_uci_free_context(ctx);
}
int __wrap_uci_load(uci_context *ctx, const char *name, uci_package **package) {
  Call &c = record("uci_load");
  c.rc = __real_uci_load(ctx, name, package);
  return c.rc;
}
int __wrap_uci_unload(uci_context *ctx, uci_package *p) {
  Call &c = record("uci_unload");
  c.arg = p;
  return c.rc = __real_uci_unload(ctx, p);
}
int __wrap_uci_commit(uci_context *ctx, uci_package **p, bool overwrite) {
  Call &c = record("uci_commit");
  c.arg = p ? *p : nullptr;
  c.section_name = overwrite ? "overwrite" : "";
  int rc = run(c, "uci_commit", [&] { return __real_uci_commit(ctx, p, overwrite); });
  g_calls.back().after = p ? *p : nullptr;
  return rc;
}
int __wrap_uci_set(uci_context *ctx, uci_ptr *ptr) {
  Call &c = record_ptr("uci_set", ptr);
  return run(c, "uci_set", [&] { return __real_uci_set(ctx, ptr); });
}
int __wrap_uci_add_list(uci_context *ctx, uci_ptr *ptr) {
  Call &c = record_ptr("uci_add_list", ptr);
  return run(c, "uci_add_list", [&] { return __real_uci_add_list(ctx, ptr); });
}
int __wrap_uci_del_list(uci_context *ctx, uci_ptr *ptr) {
  Call &c = record_ptr("uci_del_list", ptr);
  return run(c, "uci_del_list", [&] { return __real_uci_del_list(ctx, ptr); });
}
int __wrap_uci_delete(uci_context *ctx, uci_ptr *ptr) {
  Call &c = record_ptr("uci_delete", ptr);
  return run(c, "uci_delete", [&] { return __real_uci_delete(ctx, ptr); });
}
int __wrap_uci_revert(uci_context *ctx, uci_ptr *ptr) {
  Call &c = record_ptr("uci_revert", ptr);
  int rc = run(c, "uci_revert", [&] { return __real_uci_revert(ctx, ptr); });
  g_calls.back().after = ptr->p;
  return rc;
}
int __wrap_uci_lookup_next(uci_context *ctx, uci_element **e, uci_list *list, const char *name) {
  record("uci_lookup_next");
  return __real_uci_lookup_next(ctx, e, list, name);
}

}  // extern "C"

namespace {

constexpr const char *kDev =
    "config device 'main'\n"
    "\toption addr '1.2.3.4'\n"
    "\tlist dns '8.8.8.8'\n"
    "\n"
    "config device 'off'\n"
    "\toption enabled 'false'\n";

constexpr const char *kNetwork =
    "config interface 'wan'\n"
    "\toption proto 'dhcp'\n"
    "\n"
    "config interface\n"
    "\toption proto 'static'\n"
    "\n"
    "config interface 'lan'\n"
    "\toption proto 'static'\n";

class UciCalls : public rktest::UciFiles {
 protected:
  void SetUp() override {
    UciFiles::SetUp();
    if (HasFatalFailure()) return;
    put("dev", kDev);
    put("network", kNetwork);
    put("empty", "");
    open_dev();
    reset_recorder();
  }
  void TearDown() override {
    if (ctx_ != nullptr) uci_free_context(ctx_);
    reset_recorder();
  }
  void open_dev() {
    if (ctx_ != nullptr) uci_free_context(ctx_);
    ctx_ = uci_alloc_context();
    ASSERT_NE(ctx_, nullptr);
    pkg_ = nullptr;
    ASSERT_EQ(uci_load(ctx_, "dev", &pkg_), 0);
    main_ = uci_lookup_section(ctx_, pkg_, "main");
    ASSERT_NE(main_, nullptr);
  }

  uci_context *ctx_ = nullptr;
  uci_package *pkg_ = nullptr;
  uci_section *main_ = nullptr;
};

uci_ptr record_with(std::function<void(uci_ptr &)> fill) {
  uci_ptr p;
  memset(&p, 0, sizeof p);
  fill(p);
  return p;
}

// ---- the uci_ptr of each writer ---------------------------------------------

TEST_F(UciCalls, WritersFillOnlyTheFieldsOfTheirRow) {
  struct Row {
    const char *name;
    const char *libuci;
    std::function<int()> call;
    std::function<uci_ptr()> want;
  };
  uci_package *ref = nullptr;
  const Row rows[] = {
      {"uciSetString", "uci_set", [&] { return uciSetString(ctx_, pkg_, main_, "opt", "v"); },
       [&] {
         return record_with([&](uci_ptr &p) {
           p.p = pkg_, p.s = main_, p.option = "opt", p.value = "v";
         });
       }},
      {"setString", "uci_set", [&] { return setString(ctx_, pkg_, "main", "opt", "v"); },
       [&] {
         return record_with([&](uci_ptr &p) {
           p.p = pkg_, p.section = "main", p.option = "opt", p.value = "v";
         });
       }},
      {"uciSetUint8", "uci_set", [&] { return uciSetUint8(ctx_, pkg_, main_, "b", 200); },
       [&] {
         return record_with([&](uci_ptr &p) {
           p.p = pkg_, p.s = main_, p.option = "b", p.value = "-56";
         });
       }},
      {"uciSetUint32", "uci_set", [&] { return uciSetUint32(ctx_, pkg_, main_, "u", 4294967295u); },
       [&] {
         return record_with([&](uci_ptr &p) {
           p.p = pkg_, p.s = main_, p.option = "u", p.value = "4294967295";
         });
       }},
      {"uciSetInt32", "uci_set", [&] { return uciSetInt32(ctx_, pkg_, main_, "i", INT_MIN); },
       [&] {
         return record_with([&](uci_ptr &p) {
           p.p = pkg_, p.s = main_, p.option = "i", p.value = "-2147483648";
         });
       }},
      {"uciSetEnabled", "uci_set", [&] { return uciSetEnabled(ctx_, pkg_, main_, 256); },
       [&] {
         return record_with([&](uci_ptr &p) {
           p.p = pkg_, p.s = main_, p.option = "enabled", p.value = "true";
         });
       }},
      {"uciSetID", "uci_set", [&] { return uciSetID(ctx_, pkg_, main_, 7); },
       [&] {
         return record_with([&](uci_ptr &p) {
           p.p = pkg_, p.s = main_, p.option = "ID", p.value = "7";
         });
       }},
      {"uciSetSectionOptionString", "uci_set",
       [&] { return uciSetSectionOptionString(ctx_, pkg_, "main", "opt", "v"); },
       [&] {
         return record_with([&](uci_ptr &p) {
           p.p = pkg_, p.s = main_, p.option = "opt", p.value = "v";
         });
       }},
      {"publicUciAddList", "uci_add_list",
       [&] { return publicUciAddList(ctx_, "dev", "main", "dns", "v"); },
       [&] {
         return record_with([&](uci_ptr &p) {
           p.package = "dev", p.section = "main", p.option = "dns", p.value = "v";
         });
       }},
      {"publicUciDelList", "uci_del_list",
       [&] { return publicUciDelList(ctx_, "dev", "main", "dns", "8.8.8.8"); },
       [&] {
         return record_with([&](uci_ptr &p) {
           p.package = "dev", p.section = "main", p.option = "dns", p.value = "8.8.8.8";
         });
       }},
      {"publicUciDelSection", "uci_delete",
       [&] { return publicUciDelSection(ctx_, pkg_, "dev", "off"); },
       [&] {
         return record_with([&](uci_ptr &p) {
           p.p = pkg_, p.package = "dev", p.section = "off";
         });
       }},
      {"uciRollback", "uci_revert",
       [&] {
         ref = pkg_;
         return uciRollback(ctx_, &ref, main_);
       },
       [&] { return record_with([&](uci_ptr &p) { p.p = pkg_, p.s = main_; }); }},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.name);
    open_dev();
    uci_ptr want = row.want();  // before the call: it may free pkg_ and main_
    reset_recorder();
    EXPECT_EQ(row.call(), 0);
    EXPECT_EQ(sequence(), row.libuci);
    auto made = calls_of(row.libuci);
    ASSERT_EQ(made.size(), 1u);
    EXPECT_EQ(made[0]->ptr, describe(want));
    // Zeroed whole: no stray bytes anywhere in the record.
    uci_ptr bytes = made[0]->in;
    bytes.package = want.package, bytes.section = want.section;
    bytes.option = want.option, bytes.value = want.value;
    EXPECT_EQ(memcmp(&bytes, &want, sizeof want), 0);
  }
}

TEST_F(UciCalls, LibuciResultsAreHandedOnOrMapped) {
  g_faults = {{"uci_add_list", 1, 6}, {"uci_del_list", 1, 1}, {"uci_delete", 1, 5},
              {"uci_set", 1, 7},      {"uci_set", 2, 7},      {"uci_set", 3, 7}};
  EXPECT_EQ(publicUciAddList(ctx_, "dev", "main", "dns", "v"), 6);
  EXPECT_EQ(publicUciDelList(ctx_, "dev", "main", "dns", "v"), 1);
  EXPECT_EQ(publicUciDelSection(ctx_, pkg_, "dev", "off"), -1);
  EXPECT_EQ(uciSetString(ctx_, pkg_, main_, "x", "v"), -1);
  EXPECT_EQ(setString(ctx_, pkg_, "main", "x", "v"), -1);
  // The section was found: that is the success, whatever the set said.
  EXPECT_EQ(uciSetSectionOptionString(ctx_, pkg_, "main", "x", "v"), 0);
  EXPECT_EQ(sequence(), "uci_add_list uci_del_list uci_delete uci_set uci_set uci_set");
}

TEST_F(UciCalls, RollbackFollowsThePackageThatRevertLeaves) {
  uci_package *ref = pkg_;
  ASSERT_EQ(uciRollback(ctx_, &ref, main_), 0);
  auto revert = calls_of("uci_revert");
  ASSERT_EQ(revert.size(), 1u);
  EXPECT_EQ(ref, revert[0]->after);
  pkg_ = ref;

  // A failing revert leaves the caller's pointer alone.
  main_ = uci_lookup_section(ctx_, pkg_, "main");
  reset_recorder();
  g_faults = {{"uci_revert", 1, UCI_ERR_IO}};
  uci_package *kept = pkg_;
  EXPECT_EQ(uciRollback(ctx_, &kept, main_), -1);
  EXPECT_EQ(kept, pkg_);

  // A NULL section goes into the record as it is.
  reset_recorder();
  kept = pkg_;
  EXPECT_EQ(uciRollback(ctx_, &kept, nullptr), 0);
  pkg_ = kept;
  ASSERT_EQ(calls_of("uci_revert").size(), 1u);
  EXPECT_EQ(calls_of("uci_revert")[0]->in.s, nullptr);
}

// ---- one-shot lifecycle ------------------------------------------------------

TEST_F(UciCalls, OneShotReaderFreesWhatItTook) {
  char buf[16] = {};
  EXPECT_EQ(uciGetOptionString("network", "interface", nullptr, "proto", buf, sizeof buf), 0);
  EXPECT_EQ(sequence(), "uci_alloc_context uci_load uci_unload uci_free_context");

  reset_recorder();
  EXPECT_EQ(uciGetOptionString("empty", "interface", nullptr, "proto", buf, sizeof buf), -1);
  EXPECT_EQ(sequence(), "uci_alloc_context uci_load uci_unload uci_free_context");

  // Nothing loaded, nothing to unload.
  reset_recorder();
  EXPECT_EQ(uciGetOptionString("missing", "interface", nullptr, "proto", buf, sizeof buf), -1);
  EXPECT_EQ(sequence(), "uci_alloc_context uci_load uci_free_context");

  reset_recorder();
  uint32_t v = 0;
  EXPECT_EQ(uciGetOptionUint32("network", nullptr, "lan", "nothing", &v), -1);
  EXPECT_EQ(sequence(), "uci_alloc_context uci_load uci_unload uci_free_context");
}

TEST_F(UciCalls, ContextAllocationFailureIsTheOneMessage) {
  g_fail_alloc = true;
  char buf[8] = "keep";
  uint8_t b = 3;

  testing::internal::CaptureStderr();
  EXPECT_EQ(uciGetOptionString("network", "interface", nullptr, "proto", buf, sizeof buf), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "error uci_alloc_context");

  testing::internal::CaptureStderr();
  EXPECT_EQ(uciSetOptionString("network", "interface", nullptr, "proto", "x", 1), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "error uci_alloc_context");

  testing::internal::CaptureStderr();
  EXPECT_EQ(uciGetOptionBoolean("network", "interface", nullptr, "proto", &b), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "error uci_alloc_context");

  EXPECT_EQ(sequence(), "uci_alloc_context uci_alloc_context uci_alloc_context");
  EXPECT_STREQ(buf, "keep");
  EXPECT_EQ(b, 3);
}

TEST_F(UciCalls, OneShotWriterCommitsAndUnloadsTheNewPackage) {
  EXPECT_EQ(uciSetOptionString("network", "interface", nullptr, "mtu", "1400", 4), 0);
  EXPECT_EQ(sequence(),
            "uci_alloc_context uci_load uci_set uci_commit uci_unload uci_free_context");
  auto commit = calls_of("uci_commit");
  ASSERT_EQ(commit.size(), 1u);
  EXPECT_EQ(commit[0]->section_name, "");  // overwrite false
  // The package the commit left behind is the one unloaded.
  EXPECT_EQ(calls_of("uci_unload")[0]->arg, commit[0]->after);
  EXPECT_EQ(calls_of("uci_set")[0]->section_name, "wan");
}

TEST_F(UciCalls, WriterMovesOnWhenASetFails) {
  g_faults = {{"uci_set", 1, UCI_ERR_INVAL}};
  EXPECT_EQ(uciSetOptionString("network", "interface", nullptr, "mtu", "1400", 4), 0);
  EXPECT_EQ(sequence(),
            "uci_alloc_context uci_load uci_set uci_set uci_commit uci_unload uci_free_context");
  // 'wan' refused it; the anonymous interface took it and it was committed.
  EXPECT_EQ(rktest::stored("network", "wan", "mtu"), "<absent>");
  char buf[8] = {};
  EXPECT_EQ(uciGetOptionString("network", "interface", nullptr, "mtu", buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "1400");
}

TEST_F(UciCalls, FailedCommitRevertsTheSectionJustSet) {
  g_faults = {{"uci_commit", 1, UCI_ERR_IO}};
  EXPECT_EQ(uciSetOptionString("network", nullptr, "lan", "proto", "pppoe", 5), -1);
  EXPECT_EQ(sequence(),
            "uci_alloc_context uci_load uci_set uci_commit uci_revert uci_unload uci_free_context");
  const Call *set = calls_of("uci_set")[0];
  const Call *revert = calls_of("uci_revert")[0];
  EXPECT_EQ(revert->in.p, set->in.p);
  EXPECT_EQ(revert->in.s, set->in.s);
  EXPECT_EQ(revert->section_name, "lan");
  // What the revert left in the record is what gets unloaded.
  EXPECT_EQ(calls_of("uci_unload")[0]->arg, revert->after);
  EXPECT_EQ(rktest::stored("network", "lan", "proto"), "static");

  // The revert's own result doesn't change the answer.
  reset_recorder();
  g_faults = {{"uci_commit", 1, UCI_ERR_IO}, {"uci_revert", 1, UCI_ERR_IO}};
  EXPECT_EQ(uciSetOptionString("network", nullptr, "lan", "proto", "pppoe", 5), -1);
  EXPECT_EQ(sequence(),
            "uci_alloc_context uci_load uci_set uci_commit uci_revert uci_unload uci_free_context");
}

TEST_F(UciCalls, CommitFailingAfterReloadRevertsALiveSection) {
  // The commit goes through in libuci (replacing the package and freeing
  // the section that was set) and then reports failure.
  g_faults = {{"uci_commit", 1, UCI_ERR_IO, true}};
  EXPECT_EQ(uciSetOptionString("network", "interface", "lan", "mtu", "1400", 4), -1);
  auto revert = calls_of("uci_revert");
  ASSERT_EQ(revert.size(), 1u);
  const Call *commit = calls_of("uci_commit")[0];
  EXPECT_EQ(revert[0]->in.p, commit->after);
  // The section handed to the revert belongs to the package it reverts.
  EXPECT_EQ(revert[0]->section_name, "lan");
  EXPECT_EQ(calls_of("uci_unload")[0]->arg, revert[0]->after);
}

TEST_F(UciCalls, TypedWritersHandTheirTextOn) {
  const struct {
    int rc;
    const char *option, *value;
  } rows[] = {
      {uciSetOptionInt32("network", nullptr, "lan", "mtu", INT_MIN), "mtu", "-2147483648"},
      {uciSetOptionInt32("network", nullptr, "lan", "mtu", INT_MAX), "mtu", "2147483647"},
      {uciSetOptionBoolean("network", nullptr, "lan", "on", static_cast<uint8_t>(0x100)), "on",
       "false"},
      {uciSetOptionBoolean("network", nullptr, "lan", "on", 0xff), "on", "true"},
      {uciSetOptionEnabled("network", nullptr, "lan", 1), "enabled", "true"},
  };
  auto sets = calls_of("uci_set");
  ASSERT_EQ(sets.size(), std::size(rows));
  for (size_t i = 0; i < std::size(rows); ++i) {
    EXPECT_EQ(rows[i].rc, 0) << i;
    EXPECT_NE(sets[i]->ptr.find("option='" + std::string(rows[i].option) + "' value='" +
                                rows[i].value + "'"),
              std::string::npos)
        << sets[i]->ptr;
  }
}

// ---- bad arguments: the stated result before any call ------------------------

TEST_F(UciCalls, BadArgumentsAreRefusedBeforeAnyLibuciCall) {
  uci_context *c = ctx_;
  uci_package *p = pkg_;
  uci_section *s = main_;
  uci_package *none = nullptr;
  char buf[8] = "keep";
  uint8_t u8 = 1;
  uint16_t u16 = 1;
  uint32_t u32 = 1;
  uint64_t u64 = 1;
  int i32 = 1;
  const char *n = nullptr;

  struct Row {
    const char *call;
    int want;
    std::function<int()> run;
  };
  const Row rows[] = {
      {"uciGetString ctx", -1, [&] { return uciGetString(nullptr, s, "addr", buf, 8); }},
      {"uciGetString section", -1, [&] { return uciGetString(c, nullptr, "addr", buf, 8); }},
      {"uciGetString option", -1, [&] { return uciGetString(c, s, n, buf, 8); }},
      {"uciGetString out", -1, [&] { return uciGetString(c, s, "addr", nullptr, 8); }},
      {"uciGetString size 0", -1, [&] { return uciGetString(c, s, "addr", buf, 0); }},
      {"uciGetString size -1", -1, [&] { return uciGetString(c, s, "addr", buf, -1); }},
      {"uciSetString ctx", -1, [&] { return uciSetString(nullptr, p, s, "x", "v"); }},
      {"uciSetString package", -1, [&] { return uciSetString(c, nullptr, s, "x", "v"); }},
      {"uciSetString section", -1, [&] { return uciSetString(c, p, nullptr, "x", "v"); }},
      {"uciSetString option", -1, [&] { return uciSetString(c, p, s, n, "v"); }},
      {"uciSetString value", -1, [&] { return uciSetString(c, p, s, "x", n); }},
      {"setString ctx", -1, [&] { return setString(nullptr, p, "main", "x", "v"); }},
      {"setString package", -1, [&] { return setString(c, nullptr, "main", "x", "v"); }},
      {"setString sectionName", -1, [&] { return setString(c, p, n, "x", "v"); }},
      {"setString option", -1, [&] { return setString(c, p, "main", n, "v"); }},
      {"setString value", -1, [&] { return setString(c, p, "main", "x", n); }},
      {"uciGetUint8 ctx", -1, [&] { return uciGetUint8(nullptr, s, "addr", &u8); }},
      {"uciGetUint8 out", -1, [&] { return uciGetUint8(c, s, "addr", nullptr); }},
      {"uciSetUint8 ctx", -1, [&] { return uciSetUint8(nullptr, p, s, "x", 1); }},
      {"uciSetUint8 package", -1, [&] { return uciSetUint8(c, nullptr, s, "x", 1); }},
      {"uciSetUint8 section", -1, [&] { return uciSetUint8(c, p, nullptr, "x", 1); }},
      {"uciSetUint8 option", -1, [&] { return uciSetUint8(c, p, s, n, 1); }},
      {"uciGetUint32 section", -1, [&] { return uciGetUint32(c, nullptr, "addr", &u32); }},
      {"uciGetUint32 out", -1, [&] { return uciGetUint32(c, s, "addr", nullptr); }},
      {"uciSetUint32 option", -1, [&] { return uciSetUint32(c, p, s, n, 1); }},
      {"uciGetInt32 option", -1, [&] { return uciGetInt32(c, s, n, &i32); }},
      {"uciGetInt32 out", -1, [&] { return uciGetInt32(c, s, "addr", nullptr); }},
      {"uciSetInt32 package", -1, [&] { return uciSetInt32(c, nullptr, s, "x", 1); }},
      {"uciGetBoolean ctx", -1, [&] { return uciGetBoolean(nullptr, s, "addr", &u8); }},
      {"uciGetBoolean out", -1, [&] { return uciGetBoolean(c, s, "addr", nullptr); }},
      {"uciSetBoolean section", -1, [&] { return uciSetBoolean(c, p, nullptr, "x", 1); }},
      {"uciGetEnabled section", -1, [&] { return uciGetEnabled(c, nullptr, &u8); }},
      {"uciGetEnabled out", -1, [&] { return uciGetEnabled(c, s, nullptr); }},
      {"uciSetEnabled ctx", -1, [&] { return uciSetEnabled(nullptr, p, s, 1); }},
      {"uciGetID out", -1, [&] { return uciGetID(c, s, nullptr); }},
      {"uciSetID package", -1, [&] { return uciSetID(c, nullptr, s, 1); }},
      {"uciRollback ctx", -1, [&] { return uciRollback(nullptr, &p, s); }},
      {"uciRollback packageRef", -1, [&] { return uciRollback(c, nullptr, s); }},
      {"uciRollback *packageRef", -1, [&] { return uciRollback(c, &none, s); }},
      {"publicUciAddList ctx", -1,
       [&] { return publicUciAddList(nullptr, "dev", "main", "dns", "v"); }},
      {"publicUciAddList packageName", -1,
       [&] { return publicUciAddList(c, n, "main", "dns", "v"); }},
      {"publicUciAddList sectionName", -1,
       [&] { return publicUciAddList(c, "dev", n, "dns", "v"); }},
      {"publicUciAddList option", -1, [&] { return publicUciAddList(c, "dev", "main", n, "v"); }},
      {"publicUciAddList value", -1, [&] { return publicUciAddList(c, "dev", "main", "dns", n); }},
      {"publicUciDelList ctx", -1,
       [&] { return publicUciDelList(nullptr, "dev", "main", "dns", "v"); }},
      {"publicUciDelList packageName", -1,
       [&] { return publicUciDelList(c, n, "main", "dns", "v"); }},
      {"publicUciDelList sectionName", -1,
       [&] { return publicUciDelList(c, "dev", n, "dns", "v"); }},
      {"publicUciDelList option", -1, [&] { return publicUciDelList(c, "dev", "main", n, "v"); }},
      {"publicUciDelList value", -1, [&] { return publicUciDelList(c, "dev", "main", "dns", n); }},
      {"publicUciDelSection ctx", -1, [&] { return publicUciDelSection(nullptr, p, "dev", "off"); }},
      {"publicUciDelSection package", -1,
       [&] { return publicUciDelSection(c, nullptr, "dev", "off"); }},
      {"publicUciDelSection packageName", -1, [&] { return publicUciDelSection(c, p, n, "off"); }},
      {"publicUciDelSection sectionName", -1, [&] { return publicUciDelSection(c, p, "dev", n); }},
      {"uciGetSectionOptionString ctx", 2,
       [&] { return uciGetSectionOptionString(nullptr, p, "main", "addr", buf, 8); }},
      {"uciGetSectionOptionString package", 2,
       [&] { return uciGetSectionOptionString(c, nullptr, "main", "addr", buf, 8); }},
      {"uciGetSectionOptionString sectionName", 2,
       [&] { return uciGetSectionOptionString(c, p, n, "addr", buf, 8); }},
      {"uciGetSectionOptionString option", 2,
       [&] { return uciGetSectionOptionString(c, p, "main", n, buf, 8); }},
      {"uciGetSectionOptionString out", 2,
       [&] { return uciGetSectionOptionString(c, p, "main", "addr", nullptr, 8); }},
      {"uciSetSectionOptionString ctx", 2,
       [&] { return uciSetSectionOptionString(nullptr, p, "main", "x", "v"); }},
      {"uciSetSectionOptionString package", 2,
       [&] { return uciSetSectionOptionString(c, nullptr, "main", "x", "v"); }},
      {"uciSetSectionOptionString sectionName", 2,
       [&] { return uciSetSectionOptionString(c, p, n, "x", "v"); }},
      {"uciSetSectionOptionString option", 2,
       [&] { return uciSetSectionOptionString(c, p, "main", n, "v"); }},
      {"uciSetSectionOptionString value", 2,
       [&] { return uciSetSectionOptionString(c, p, "main", "x", n); }},
      {"uciGetSectionOptionValue ctx", 2,
       [&] { return uciGetSectionOptionValue(nullptr, p, "main", "addr", &i32); }},
      {"uciGetSectionOptionValue package", 2,
       [&] { return uciGetSectionOptionValue(c, nullptr, "main", "addr", &i32); }},
      {"uciGetSectionOptionValue sectionName", 2,
       [&] { return uciGetSectionOptionValue(c, p, n, "addr", &i32); }},
      {"uciGetSectionOptionValue option", 2,
       [&] { return uciGetSectionOptionValue(c, p, "main", n, &i32); }},
      {"uciGetSectionOptionValue out", 2,
       [&] { return uciGetSectionOptionValue(c, p, "main", "addr", nullptr); }},

      {"uciGetOptionString config", -1,
       [&] { return uciGetOptionString(n, "interface", n, "proto", buf, 8); }},
      {"uciGetOptionString no selector", -1,
       [&] { return uciGetOptionString("network", n, n, "proto", buf, 8); }},
      {"uciGetOptionString option", -1,
       [&] { return uciGetOptionString("network", "interface", n, n, buf, 8); }},
      {"uciGetOptionString out", -1,
       [&] { return uciGetOptionString("network", "interface", n, "proto", nullptr, 8); }},
      {"uciGetOptionString size 0", -1,
       [&] { return uciGetOptionString("network", "interface", n, "proto", buf, 0); }},
      {"uciGetOptionString size -1", -1,
       [&] { return uciGetOptionString("network", "interface", n, "proto", buf, -1); }},
      {"uciSetOptionString config", -1,
       [&] { return uciSetOptionString(n, "interface", n, "proto", "x", 1); }},
      {"uciSetOptionString no selector", -1,
       [&] { return uciSetOptionString("network", n, n, "proto", "x", 1); }},
      {"uciSetOptionString option", -1,
       [&] { return uciSetOptionString("network", "interface", n, n, "x", 1); }},
      {"uciSetOptionString value", -1,
       [&] { return uciSetOptionString("network", "interface", n, "proto", n, 1); }},
      {"uciSetOptionString valueLen 0", -1,
       [&] { return uciSetOptionString("network", "interface", n, "proto", "x", 0); }},
      {"uciSetOptionString valueLen -1", -1,
       [&] { return uciSetOptionString("network", "interface", n, "proto", "x", -1); }},
      {"uciSetOptionInt32 no selector", -1,
       [&] { return uciSetOptionInt32("network", n, n, "mtu", 5); }},
      {"uciSetOptionInt32 option", -1,
       [&] { return uciSetOptionInt32("network", "interface", n, n, 5); }},
      {"uciSetOptionBoolean config", -1,
       [&] { return uciSetOptionBoolean(n, "interface", n, "x", 1); }},
      {"uciSetOptionEnabled no selector", -1,
       [&] { return uciSetOptionEnabled("network", n, n, 1); }},
      {"uciGetOptionUint32 out", -1,
       [&] { return uciGetOptionUint32("network", "interface", n, "proto", nullptr); }},
      {"uciGetOptionUint32 no selector", -1,
       [&] { return uciGetOptionUint32("network", n, n, "proto", &u32); }},
      {"uciGetOptionInt32 out", -1,
       [&] { return uciGetOptionInt32("network", "interface", n, "proto", nullptr); }},
      {"uciGetOptionInt32 config", -1,
       [&] { return uciGetOptionInt32(n, "interface", n, "proto", &i32); }},
      {"uciGetOptionUint64 out", -1,
       [&] { return uciGetOptionUint64("network", "interface", n, "proto", nullptr); }},
      {"uciGetOptionUint64 option", -1,
       [&] { return uciGetOptionUint64("network", "interface", n, n, &u64); }},
      {"uciGetOptionUint16 out", -1,
       [&] { return uciGetOptionUint16("network", "interface", n, "proto", nullptr); }},
      {"uciGetOptionUint16 no selector", -1,
       [&] { return uciGetOptionUint16("network", n, n, "proto", &u16); }},
      {"uciGetOptionUint8 out", -1,
       [&] { return uciGetOptionUint8("network", "interface", n, "proto", nullptr); }},
      {"uciGetOptionUint8 config", -1,
       [&] { return uciGetOptionUint8(n, "interface", n, "proto", &u8); }},
      {"uciGetOptionBoolean out", -1,
       [&] { return uciGetOptionBoolean("network", "interface", n, "proto", nullptr); }},
      {"uciGetOptionBoolean no selector", -1,
       [&] { return uciGetOptionBoolean("network", n, n, "proto", &u8); }},
      {"uciGetOptionEnabled out", -1,
       [&] { return uciGetOptionEnabled("network", "interface", n, nullptr); }},
      {"uciGetOptionEnabled no selector", -1,
       [&] { return uciGetOptionEnabled("network", n, n, &u8); }},
  };
  for (const Row &row : rows) {
    reset_recorder();
    EXPECT_EQ(row.run(), row.want) << row.call;
    EXPECT_EQ(g_calls.size(), 0u) << row.call << " called " << sequence();
  }
  EXPECT_STREQ(buf, "keep");
  EXPECT_EQ(u8, 1);
  EXPECT_EQ(u16, 1);
  EXPECT_EQ(u32, 1u);
  EXPECT_EQ(u64, 1u);
  EXPECT_EQ(i32, 1);
  EXPECT_EQ(p, pkg_);
}

}  // namespace
