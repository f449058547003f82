// Contexts, lookups, pointer resolution and the in-memory effect of the
// editing operations, including the ones that free records a caller may
// still hold.
#include <stddef.h>
#include <string.h>

#include <string>

#include <gtest/gtest.h>
#include <uci.h>

#include "uci_test_util.h"

namespace ucitest {
namespace {

const char kNetwork[] =
    "config interface 'lan'\n"
    "\toption proto 'static'\n"
    "\toption ipaddr '192.168.1.1'\n"
    "\tlist dns '8.8.8.8'\n"
    "\tlist dns '1.1.1.1'\n"
    "\tlist dns '8.8.8.8'\n"
    "\toption mtu '1500'\n"
    "\n"
    "config interface 'wan'\n"
    "\toption proto 'dhcp'\n"
    "\n"
    "config rule\n"
    "\toption src 'lan'\n";

class UciEdit : public UciTest {
 protected:
  void SetUp() override {
    UciTest::SetUp();
    WriteFile(Conf("network"), kNetwork);
    p_ = Load("network");
    ASSERT_NE(nullptr, p_);
    lan_ = uci_lookup_section(ctx_, p_, "lan");
    ASSERT_NE(nullptr, lan_);
  }

  // A zeroed pointer naming a package, section and option by string.
  static uci_ptr Named(const char *pkg, const char *sec, const char *opt, const char *value) {
    uci_ptr ptr;
    memset(&ptr, 0, sizeof ptr);
    ptr.package = pkg;
    ptr.section = sec;
    ptr.option = opt;
    ptr.value = value;
    return ptr;
  }

  // A pointer on the loaded package and section records.
  uci_ptr On(uci_section *s, const char *opt, const char *value) {
    uci_ptr ptr;
    memset(&ptr, 0, sizeof ptr);
    ptr.p = p_;
    ptr.s = s;
    ptr.option = opt;
    ptr.value = value;
    return ptr;
  }

  uci_package *p_ = nullptr;
  uci_section *lan_ = nullptr;
};

TEST(UciRecords, PublicLayout) {
  // Code built against either libuci steps through these fields directly.
  EXPECT_EQ(32u, sizeof(uci_element));
  EXPECT_EQ(0u, offsetof(uci_element, list));
  EXPECT_EQ(16u, offsetof(uci_element, type));
  EXPECT_EQ(24u, offsetof(uci_element, name));
  EXPECT_EQ(72u, sizeof(uci_ptr));
  EXPECT_EQ(0u, offsetof(uci_ptr, target));
  EXPECT_EQ(4u, offsetof(uci_ptr, flags));
  EXPECT_EQ(8u, offsetof(uci_ptr, p));
  EXPECT_EQ(16u, offsetof(uci_ptr, s));
  EXPECT_EQ(24u, offsetof(uci_ptr, o));
  EXPECT_EQ(32u, offsetof(uci_ptr, last));
  EXPECT_EQ(40u, offsetof(uci_ptr, package));
  EXPECT_EQ(48u, offsetof(uci_ptr, section));
  EXPECT_EQ(56u, offsetof(uci_ptr, option));
  EXPECT_EQ(64u, offsetof(uci_ptr, value));
  EXPECT_EQ(0u, offsetof(uci_package, e));
  EXPECT_LT(offsetof(uci_package, sections), offsetof(uci_package, ctx));
  EXPECT_LT(offsetof(uci_package, ctx), offsetof(uci_package, has_delta));
  EXPECT_LT(offsetof(uci_package, has_delta), offsetof(uci_package, path));
  EXPECT_EQ(0u, offsetof(uci_section, e));
  EXPECT_LT(offsetof(uci_section, options), offsetof(uci_section, package));
  EXPECT_LT(offsetof(uci_section, anonymous), offsetof(uci_section, type));
  EXPECT_EQ(0u, offsetof(uci_option, e));
  EXPECT_LT(offsetof(uci_option, section), offsetof(uci_option, type));
  EXPECT_LT(offsetof(uci_option, type), offsetof(uci_option, v));
  EXPECT_EQ(8, UCI_ERR_LAST);
  EXPECT_EQ(7, UCI_TYPE_ITEM);
}

TEST(UciContext, Defaults) {
  uci_context *ctx = uci_alloc_context();
  ASSERT_NE(nullptr, ctx);
  EXPECT_STREQ("/etc/config", ctx->confdir);
  EXPECT_STREQ("/tmp/.uci", ctx->savedir);
  EXPECT_EQ(9, static_cast<int>(ctx->flags));
  EXPECT_TRUE(uci_list_empty(&ctx->root));
  ASSERT_FALSE(uci_list_empty(&ctx->delta_path));
  EXPECT_STREQ("/tmp/.uci", list_to_element(ctx->delta_path.next)->name);

  // A new savedir goes to the end of the delta path; the default stays.
  EXPECT_EQ(UCI_OK, uci_set_savedir(ctx, "/tmp/elsewhere"));
  EXPECT_STREQ("/tmp/elsewhere", ctx->savedir);
  EXPECT_STREQ("/tmp/.uci", list_to_element(ctx->delta_path.next)->name);
  EXPECT_STREQ("/tmp/elsewhere", list_to_element(ctx->delta_path.prev)->name);

  char dir[] = "/tmp/conf-copy";
  EXPECT_EQ(UCI_OK, uci_set_confdir(ctx, dir));
  dir[0] = 'X';  // the context keeps its own copy
  EXPECT_STREQ("/tmp/conf-copy", ctx->confdir);
  EXPECT_EQ(UCI_ERR_INVAL, uci_set_confdir(ctx, nullptr));
  EXPECT_EQ(UCI_ERR_INVAL, uci_set_savedir(ctx, nullptr));
  EXPECT_EQ(UCI_ERR_INVAL, uci_set_confdir(nullptr, "/x"));
  uci_free_context(ctx);
}

TEST(UciContext, NullContextGivesInval) {
  uci_ptr ptr;
  memset(&ptr, 0, sizeof ptr);
  uci_element *e = nullptr;
  uci_list list = {&list, &list};
  uci_package *p = nullptr;
  EXPECT_EQ(UCI_ERR_INVAL, uci_load(nullptr, "x", &p));
  EXPECT_EQ(UCI_ERR_INVAL, uci_unload(nullptr, p));
  EXPECT_EQ(UCI_ERR_INVAL, uci_lookup_next(nullptr, &e, &list, "x"));
  EXPECT_EQ(UCI_ERR_INVAL, uci_set(nullptr, &ptr));
  EXPECT_EQ(UCI_ERR_INVAL, uci_add_list(nullptr, &ptr));
  EXPECT_EQ(UCI_ERR_INVAL, uci_del_list(nullptr, &ptr));
  EXPECT_EQ(UCI_ERR_INVAL, uci_delete(nullptr, &ptr));
  EXPECT_EQ(UCI_ERR_INVAL, uci_revert(nullptr, &ptr));
  EXPECT_EQ(UCI_ERR_INVAL, uci_save(nullptr, p));
  EXPECT_EQ(UCI_ERR_INVAL, uci_commit(nullptr, &p, false));
}

TEST_F(UciEdit, LookupNextClearsTheResultWhenAbsent) {
  uci_element *e = &lan_->e;
  EXPECT_EQ(UCI_ERR_NOTFOUND, uci_lookup_next(ctx_, &e, &p_->sections, "nope"));
  EXPECT_EQ(nullptr, e);
  EXPECT_EQ(UCI_OK, uci_lookup_next(ctx_, &e, &p_->sections, "wan"));
  ASSERT_NE(nullptr, e);
  EXPECT_STREQ("wan", e->name);
  EXPECT_EQ(UCI_ERR_NOTFOUND, uci_lookup_next(ctx_, &e, &lan_->options, "gateway"));
  EXPECT_EQ(nullptr, e);
  EXPECT_EQ(p_, uci_lookup_package(ctx_, "network"));
  EXPECT_EQ(nullptr, uci_lookup_package(ctx_, "firewall"));
  EXPECT_EQ(nullptr, uci_lookup_section(ctx_, p_, "dmz"));
}

TEST_F(UciEdit, LookupPtrParsesInPlaceAndResolves) {
  Ptr full("network.lan.proto");
  ASSERT_EQ(UCI_OK, full.Lookup(ctx_));
  EXPECT_EQ(uci_ptr::UCI_LOOKUP_DONE | uci_ptr::UCI_LOOKUP_COMPLETE, static_cast<int>(full->flags));
  EXPECT_EQ(p_, full->p);
  EXPECT_EQ(lan_, full->s);
  ASSERT_NE(nullptr, full->o);
  EXPECT_STREQ("static", full->o->v.string);
  EXPECT_EQ(&full->o->e, full->last);
  EXPECT_STREQ("network", full->package);
  EXPECT_STREQ("lan", full->section);
  EXPECT_STREQ("proto", full->option);
  EXPECT_EQ(nullptr, full->value);

  Ptr with_value("network.lan.proto=dhcp");
  ASSERT_EQ(UCI_OK, with_value.Lookup(ctx_));
  EXPECT_STREQ("dhcp", with_value->value);
  EXPECT_STREQ("proto", with_value->option);

  Ptr missing_opt("network.lan.gateway");
  ASSERT_EQ(UCI_OK, missing_opt.Lookup(ctx_));
  EXPECT_FALSE(missing_opt->flags & uci_ptr::UCI_LOOKUP_COMPLETE);
  EXPECT_EQ(lan_, missing_opt->s);
  EXPECT_EQ(nullptr, missing_opt->o);
  EXPECT_EQ(&lan_->e, missing_opt->last);

  Ptr missing_sec("network.dmz.proto");
  ASSERT_EQ(UCI_OK, missing_sec.Lookup(ctx_));
  EXPECT_FALSE(missing_sec->flags & uci_ptr::UCI_LOOKUP_COMPLETE);
  EXPECT_EQ(nullptr, missing_sec->s);
  EXPECT_EQ(&p_->e, missing_sec->last);

  Ptr no_pkg("nosuch.a.b");
  EXPECT_EQ(UCI_ERR_NOTFOUND, no_pkg.Lookup(ctx_));
}

TEST_F(UciEdit, ExtendedSectionSyntax) {
  Ptr first("network.@interface[0].proto");
  ASSERT_EQ(UCI_OK, first.Lookup(ctx_, true));
  EXPECT_EQ(lan_, first->s);
  EXPECT_STREQ("static", first->o->v.string);
  Ptr last("network.@interface[-1]");
  ASSERT_EQ(UCI_OK, last.Lookup(ctx_, true));
  ASSERT_NE(nullptr, last->s);
  EXPECT_STREQ("wan", last->s->e.name);
  Ptr anon("network.@rule[0].src");
  ASSERT_EQ(UCI_OK, anon.Lookup(ctx_, true));
  ASSERT_NE(nullptr, anon->o);
  EXPECT_STREQ("lan", anon->o->v.string);
  Ptr beyond("network.@interface[2]");
  ASSERT_EQ(UCI_OK, beyond.Lookup(ctx_, true));
  EXPECT_EQ(nullptr, beyond->s);
}

TEST_F(UciEdit, ResolutionLoadsThePackageAndKeepsIt) {
  WriteFile(Conf("system"), "config system\n\toption hostname 'gw'\n");
  uci_ptr ptr = Named("system", "cfg01e48a", "hostname", "router");
  ASSERT_EQ(UCI_OK, uci_set(ctx_, &ptr));
  uci_package *sys = uci_lookup_package(ctx_, "system");
  ASSERT_NE(nullptr, sys);
  EXPECT_EQ(sys, ptr.p);
  EXPECT_EQ("router", Get(ctx_, sys, "cfg01e48a", "hostname"));

  uci_ptr none = Named("absent", "s", "o", "v");
  EXPECT_EQ(UCI_ERR_NOTFOUND, uci_set(ctx_, &none));
}

TEST_F(UciEdit, SetSameLengthOverwritesInPlace) {
  uci_option *o = uci_lookup_option(ctx_, lan_, "proto");
  char *buf = o->v.string;
  uci_ptr ptr = On(lan_, "proto", "dynami");  // same length as "static"
  ASSERT_EQ(UCI_OK, uci_set(ctx_, &ptr));
  EXPECT_EQ(o, uci_lookup_option(ctx_, lan_, "proto"));
  EXPECT_EQ(buf, o->v.string);
  EXPECT_STREQ("dynami", o->v.string);
}

TEST_F(UciEdit, SetOtherLengthReplacesTheOptionAtItsPlace) {
  // The uci_option held before the call is freed: take the new one from the
  // pointer (or look it up again).
  uci_ptr ptr = On(lan_, "ipaddr", "10.0.0.1");
  ASSERT_EQ(UCI_OK, uci_set(ctx_, &ptr));
  uci_option *now = uci_lookup_option(ctx_, lan_, "ipaddr");
  EXPECT_EQ(now, ptr.o);
  EXPECT_STREQ("10.0.0.1", now->v.string);
  EXPECT_EQ(
      "interface lan\n  proto='static'\n  ipaddr='10.0.0.1'\n  dns=['8.8.8.8','1.1.1.1','8.8.8.8']\n"
      "  mtu='1500'\n",
      Dump(p_).substr(0, Dump(p_).find("interface wan")));
}

TEST_F(UciEdit, SetTurnsAListIntoAString) {
  uci_ptr ptr = On(lan_, "dns", "9.9.9.9");
  ASSERT_EQ(UCI_OK, uci_set(ctx_, &ptr));
  uci_option *dns = uci_lookup_option(ctx_, lan_, "dns");
  ASSERT_NE(nullptr, dns);
  EXPECT_EQ(UCI_TYPE_STRING, dns->type);
  EXPECT_EQ("9.9.9.9", Get(ctx_, p_, "lan", "dns"));
}

TEST_F(UciEdit, SetWithEmptyValueDeletes) {
  uci_ptr ptr = On(lan_, "ipaddr", "");
  ASSERT_EQ(UCI_OK, uci_set(ctx_, &ptr));
  EXPECT_EQ(nullptr, uci_lookup_option(ctx_, lan_, "ipaddr"));
  uci_ptr again = On(lan_, "ipaddr", "");  // nothing left to delete
  EXPECT_EQ(UCI_OK, uci_set(ctx_, &again));
  uci_ptr sec = Named("network", "wan", nullptr, "");
  ASSERT_EQ(UCI_OK, uci_set(ctx_, &sec));
  EXPECT_EQ(nullptr, uci_lookup_section(ctx_, p_, "wan"));
  EXPECT_EQ(2, CountSections(p_));
}

TEST_F(UciEdit, SetOnSections) {
  // No option: a missing section is created, an existing one retyped.
  uci_ptr create = Named("network", "guest", nullptr, "interface");
  ASSERT_EQ(UCI_OK, uci_set(ctx_, &create));
  uci_section *guest = uci_lookup_section(ctx_, p_, "guest");
  ASSERT_NE(nullptr, guest);
  EXPECT_STREQ("interface", guest->type);
  EXPECT_FALSE(guest->anonymous);
  EXPECT_EQ(guest, create.s);

  uci_ptr retype = Named("network", "lan", nullptr, "device");
  ASSERT_EQ(UCI_OK, uci_set(ctx_, &retype));
  uci_section *lan = uci_lookup_section(ctx_, p_, "lan");
  EXPECT_STREQ("device", lan->type);
  EXPECT_EQ("static", Get(ctx_, p_, "lan", "proto"));
  // Same place in the package; the options came along.
  EXPECT_STREQ("lan", list_to_element(p_->sections.next)->name);
}

TEST_F(UciEdit, MissingSectionResults) {
  uci_ptr set = Named("network", "dmz", "proto", "static");
  EXPECT_EQ(UCI_ERR_INVAL, uci_set(ctx_, &set));
  uci_ptr add = Named("network", "dmz", "dns", "1.1.1.1");
  EXPECT_EQ(UCI_ERR_INVAL, uci_add_list(ctx_, &add));
  uci_ptr del = Named("network", "dmz", "dns", "1.1.1.1");
  EXPECT_EQ(UCI_ERR_INVAL, uci_del_list(ctx_, &del));
  uci_ptr rm = Named("network", "dmz", nullptr, nullptr);
  EXPECT_EQ(UCI_ERR_NOTFOUND, uci_delete(ctx_, &rm));
  uci_ptr rm_opt = Named("network", "lan", "gateway", nullptr);
  EXPECT_EQ(UCI_ERR_NOTFOUND, uci_delete(ctx_, &rm_opt));
  uci_ptr rm_pkg = Named("network", nullptr, nullptr, nullptr);
  EXPECT_EQ(UCI_ERR_INVAL, uci_delete(ctx_, &rm_pkg));
  uci_ptr no_value = Named("network", "lan", "proto", nullptr);
  EXPECT_EQ(UCI_ERR_INVAL, uci_set(ctx_, &no_value));
  uci_ptr no_pkg = Named("nosuch", "s", "o", "v");
  EXPECT_EQ(UCI_ERR_NOTFOUND, uci_add_list(ctx_, &no_pkg));
  EXPECT_EQ(nullptr, uci_lookup_section(ctx_, p_, "dmz"));
}

TEST_F(UciEdit, AddList) {
  uci_ptr fresh = On(lan_, "ntp", "pool.ntp.org");
  ASSERT_EQ(UCI_OK, uci_add_list(ctx_, &fresh));
  uci_ptr dup = On(lan_, "dns", "1.1.1.1");
  ASSERT_EQ(UCI_OK, uci_add_list(ctx_, &dup));
  uci_ptr from_string = On(lan_, "proto", "dhcp");
  ASSERT_EQ(UCI_OK, uci_add_list(ctx_, &from_string));
  EXPECT_EQ(
      "interface lan\n"
      "  proto=['static','dhcp']\n"
      "  ipaddr='192.168.1.1'\n"
      "  dns=['8.8.8.8','1.1.1.1','8.8.8.8','1.1.1.1']\n"
      "  mtu='1500'\n"
      "  ntp=['pool.ntp.org']\n",
      Dump(p_).substr(0, Dump(p_).find("interface wan")));
}

TEST_F(UciEdit, DelListRemovesEveryMatchAndLeavesStringsAlone) {
  uci_ptr del = On(lan_, "dns", "8.8.8.8");
  ASSERT_EQ(UCI_OK, uci_del_list(ctx_, &del));
  uci_ptr on_string = On(lan_, "proto", "static");
  ASSERT_EQ(UCI_OK, uci_del_list(ctx_, &on_string));
  uci_ptr absent = On(lan_, "ntp", "x");
  ASSERT_EQ(UCI_OK, uci_del_list(ctx_, &absent));
  EXPECT_EQ(
      "interface lan\n  proto='static'\n  ipaddr='192.168.1.1'\n  dns=['1.1.1.1']\n  mtu='1500'\n",
      Dump(p_).substr(0, Dump(p_).find("interface wan")));
  // A list left empty stays in memory, empty.
  uci_ptr last = On(lan_, "dns", "1.1.1.1");
  ASSERT_EQ(UCI_OK, uci_del_list(ctx_, &last));
  uci_option *dns = uci_lookup_option(ctx_, lan_, "dns");
  ASSERT_NE(nullptr, dns);
  EXPECT_TRUE(uci_list_empty(&dns->v.list));
}

TEST_F(UciEdit, DeleteClearsThePointer) {
  uci_ptr opt = On(lan_, "mtu", nullptr);
  ASSERT_EQ(UCI_OK, uci_delete(ctx_, &opt));
  EXPECT_EQ(nullptr, opt.o);
  EXPECT_EQ(nullptr, uci_lookup_option(ctx_, lan_, "mtu"));
  uci_ptr sec = Named("network", "wan", nullptr, nullptr);
  ASSERT_EQ(UCI_OK, uci_delete(ctx_, &sec));
  EXPECT_EQ(nullptr, sec.s);
  EXPECT_EQ(nullptr, uci_lookup_section(ctx_, p_, "wan"));
  EXPECT_EQ(2, CountSections(p_));
}

TEST_F(UciEdit, AddSectionMakesAnAnonymousSection) {
  uci_section *s = nullptr;
  ASSERT_EQ(UCI_OK, uci_add_section(ctx_, p_, "rule", &s));
  ASSERT_NE(nullptr, s);
  EXPECT_TRUE(s->anonymous);
  EXPECT_STREQ("rule", s->type);
  EXPECT_EQ(s, uci_lookup_section(ctx_, p_, s->e.name));
  uci_ptr ptr = On(s, "name", "added");
  ASSERT_EQ(UCI_OK, uci_set(ctx_, &ptr));
  ASSERT_EQ(UCI_OK, uci_commit(ctx_, &p_, false));
  // Read back, its name follows the rule for anonymous sections in files.
  const std::string committed = FreshDump("network");
  EXPECT_EQ("rule cfg0392bd(anon)\n  src='lan'\nrule cfg0492bd(anon)\n  name='added'\n",
            committed.substr(committed.find("rule ")));
}

}  // namespace
}  // namespace ucitest
