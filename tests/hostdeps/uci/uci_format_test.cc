// Reading configuration files: words and quoting, sections and generated
// names, the keywords' rules, load results, and files that must not load.
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <uci.h>

#include "uci_test_util.h"

namespace ucitest {
namespace {

struct QuotingCase {
  const char *label;
  const char *line;  // the part after "\toption v "
  const char *value;
};

// Printed in test listings instead of the bytes of the record.
void PrintTo(const QuotingCase &c, std::ostream *os) { *os << c.label; }

class UciQuoting : public UciTest, public ::testing::WithParamInterface<QuotingCase> {};

TEST_P(UciQuoting, ValueReadsAsExpected) {
  const QuotingCase &c = GetParam();
  WriteFile(Conf("q"), std::string("config t 's'\n\toption v ") + c.line + "\n\toption after 'x'\n");
  uci_package *p = Load("q");
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(c.value, Get(ctx_, p, "s", "v"));
  EXPECT_EQ("x", Get(ctx_, p, "s", "after"));
}

INSTANTIATE_TEST_SUITE_P(
    Words, UciQuoting,
    ::testing::Values(
        QuotingCase{"plain", "abc", "abc"}, QuotingCase{"single", "'a b  c'", "a b  c"},
        QuotingCase{"single_keeps_backslash", "'a\\b'", "a\\b"},
        QuotingCase{"double_escaped_quote", "\"say \\\"hi\\\"\"", "say \"hi\""},
        QuotingCase{"double_escaped_backslash", "\"a\\\\b\"", "a\\b"},
        QuotingCase{"double_backslash_n_is_n", "\"a\\nb\"", "anb"},
        QuotingCase{"adjacent_pieces", "'ab'\"cd\"ef", "abcdef"},
        QuotingCase{"shell_style_apostrophe", "'it'\\''s'", "it's"},
        QuotingCase{"hash_in_quotes", "'a#b'", "a#b"},
        QuotingCase{"hash_ends_unquoted_word", "a#b", "a"},
        QuotingCase{"trailing_comment", "'x y' # note", "x y"},
        QuotingCase{"multi_line_single", "'one\ntwo'", "one\ntwo"},
        QuotingCase{"multi_line_double", "\"one\n two\"", "one\n two"},
        QuotingCase{"line_continuation", "foo\\\nbar", "foobar"},
        QuotingCase{"crlf", "'v'\r", "v"}, QuotingCase{"tabs_around", "\t'v'\t", "v"}),
    [](const ::testing::TestParamInfo<QuotingCase> &info) { return std::string(info.param.label); });

TEST_F(UciTest, StructureOfAFile) {
  WriteFile(Conf("net"),
            "# leading comment\n"
            "package net\n"
            "\n"
            "config interface 'lan'\n"
            "\toption proto static\n"
            "\toption proto 'dhcp'    # a repeated option replaces\n"
            "\toption empty ''\n"
            "\toption missing\n"
            "\tlist dns 1.1.1.1\n"
            "\tlist dns 1.1.1.1\n"
            "\toption ifname eth0\n"
            "\tlist ifname eth1\n"
            "c zone\n"
            "\to name wan\n"
            "\tl network wan\n"
            "config interface lan\n"
            "\toption mtu 1500\n"
            "   config    rule   ''\n"
            "\toption src '*'");  // no final newline
  uci_package *p = Load("net");
  ASSERT_NE(nullptr, p);
  EXPECT_STREQ("net", p->e.name);
  EXPECT_EQ(UCI_TYPE_PACKAGE, p->e.type);
  EXPECT_TRUE(p->has_delta);
  EXPECT_EQ(Conf("net"), p->path);
  EXPECT_EQ(
      "interface lan\n"
      "  proto='dhcp'\n"
      "  dns=['1.1.1.1','1.1.1.1']\n"
      "  ifname=['eth0','eth1']\n"
      "  mtu='1500'\n"
      "zone cfg02dc81(anon)\n"
      "  name='wan'\n"
      "  network=['wan']\n"
      "rule cfg0392bd(anon)\n"
      "  src='*'\n",
      Dump(p));
  uci_section *lan = uci_lookup_section(ctx_, p, "lan");
  ASSERT_NE(nullptr, lan);
  EXPECT_EQ(p, lan->package);
  EXPECT_FALSE(lan->anonymous);
  uci_option *dns = uci_lookup_option(ctx_, lan, "dns");
  ASSERT_NE(nullptr, dns);
  EXPECT_EQ(UCI_TYPE_LIST, dns->type);
  EXPECT_EQ(lan, dns->section);
  EXPECT_EQ(UCI_TYPE_ITEM, list_to_element(dns->v.list.next)->type);
  EXPECT_EQ(nullptr, uci_lookup_option_string(ctx_, lan, "dns"));
  EXPECT_EQ(nullptr, uci_lookup_option(ctx_, lan, "empty"));
  EXPECT_EQ(nullptr, uci_lookup_option(ctx_, lan, "missing"));
}

struct AnonCase {
  const char *file;
  std::vector<const char *> names;
};

void PrintTo(const AnonCase &c, std::ostream *os) { *os << c.names.back(); }

class UciAnonymousNames : public UciTest, public ::testing::WithParamInterface<AnonCase> {};

TEST_P(UciAnonymousNames, HashTypeAndCountEverySection) {
  WriteFile(Conf("anon"), GetParam().file);
  uci_package *p = Load("anon");
  ASSERT_NE(nullptr, p);
  std::vector<std::string> got;
  uci_element *e;
  uci_foreach_element(&p->sections, e) got.push_back(e->name);
  std::vector<std::string> want(GetParam().names.begin(), GetParam().names.end());
  EXPECT_EQ(want, got);
}

INSTANTIATE_TEST_SUITE_P(
    Names, UciAnonymousNames,
    ::testing::Values(
        AnonCase{"config system\n\toption hostname a\n", {"cfg01e48a"}},
        // Options are not part of the hash.
        AnonCase{"config system\n\toption hostname b\n\toption zonename UTC\n", {"cfg01e48a"}},
        AnonCase{"config rule\n", {"cfg0192bd"}}, AnonCase{"config host\n", {"cfg01fe63"}},
        AnonCase{"config interface\n", {"cfg016d96"}}, AnonCase{"config zone\n", {"cfg01dc81"}},
        AnonCase{"config a\n", {"cfg01b606"}},
        AnonCase{"config a\nconfig a\n", {"cfg01b606", "cfg02b606"}},
        // Named sections count; continuing one does not.
        AnonCase{"config a 'x'\nconfig a\n", {"x", "cfg02b606"}},
        AnonCase{"config a 'x'\nconfig a 'x'\nconfig a\n", {"x", "cfg02b606"}},
        AnonCase{"config a ''\nconfig zone\n", {"cfg01b606", "cfg02dc81"}},
        AnonCase{"config a\nconfig a\nconfig a\nconfig a\nconfig a\nconfig a\nconfig a\n"
                 "config a\nconfig a\nconfig a\nconfig a\nconfig a\nconfig a\nconfig a\n"
                 "config a\nconfig a\nconfig a\n",
                 {"cfg01b606", "cfg02b606", "cfg03b606", "cfg04b606", "cfg05b606", "cfg06b606",
                  "cfg07b606", "cfg08b606", "cfg09b606", "cfg0ab606", "cfg0bb606", "cfg0cb606",
                  "cfg0db606", "cfg0eb606", "cfg0fb606", "cfg10b606", "cfg11b606"}}));

struct BadFile {
  const char *label;
  const char *text;
};

void PrintTo(const BadFile &c, std::ostream *os) { *os << c.label; }

class UciMalformed : public UciTest, public ::testing::WithParamInterface<BadFile> {};

TEST_P(UciMalformed, GivesParseErrorAndLoadsNothing) {
  WriteFile(Conf("bad"), GetParam().text);
  uci_package *p = reinterpret_cast<uci_package *>(this);  // must stay untouched
  EXPECT_EQ(UCI_ERR_PARSE, uci_load(ctx_, "bad", &p));
  EXPECT_EQ(reinterpret_cast<uci_package *>(this), p);
  EXPECT_EQ(nullptr, uci_lookup_package(ctx_, "bad"));
  EXPECT_EQ(0, CountPackages(ctx_));
  // Nothing half-loaded stands in the way of a good file of that name.
  WriteFile(Conf("bad"), "config t 's'\n");
  EXPECT_EQ(UCI_OK, uci_load(ctx_, "bad", &p));
}

INSTANTIATE_TEST_SUITE_P(
    Files, UciMalformed,
    ::testing::Values(
        BadFile{"option_before_config", "option a b\n"},
        BadFile{"list_before_config", "list a b\nconfig t\n"},
        BadFile{"config_without_type", "config\n"},
        BadFile{"config_too_many_words", "config t n extra\n"},
        BadFile{"section_name_with_dash", "config t 'bad-name'\n"},
        BadFile{"section_name_with_dot", "config t a.b\n"},
        BadFile{"type_with_space", "config 'a b'\n"},
        BadFile{"same_name_other_type", "config a 'x'\nconfig b 'x'\n"},
        BadFile{"option_name_with_dash", "config t\n\toption bad-name v\n"},
        BadFile{"option_empty_name", "config t\n\toption '' v\n"},
        BadFile{"option_too_many_words", "config t\n\toption a b c\n"},
        BadFile{"list_too_many_words", "config t\n\tlist a b c\n"},
        BadFile{"unknown_keyword", "config t\n\tvalue a b\n"},
        BadFile{"unterminated_single", "config t\n\toption a 'open\n"},
        BadFile{"unterminated_double", "config t\n\toption a \"open\n"},
        BadFile{"error_after_good_lines", "config t 'n'\n\toption a b\n\nconfig u 'm'\nbogus\n"},
        BadFile{"package_too_many_words", "package a b\n"}),
    [](const ::testing::TestParamInfo<BadFile> &info) { return std::string(info.param.label); });

TEST_F(UciTest, LoadResults) {
  WriteFile(Conf("good"), "config t 's'\n");
  WriteFile(Conf("empty"), "");
  ASSERT_EQ(0, mkdir(Conf("adir").c_str(), 0755));

  uci_package *p = nullptr;
  EXPECT_EQ(UCI_ERR_NOTFOUND, uci_load(ctx_, "absent", &p));
  EXPECT_EQ(UCI_ERR_NOTFOUND, uci_load(ctx_, "adir", &p));
  EXPECT_EQ(UCI_ERR_NOTFOUND, uci_load(ctx_, ".hidden", &p));
  EXPECT_EQ(UCI_ERR_INVAL, uci_load(ctx_, "", &p));
  EXPECT_EQ(nullptr, p);
  EXPECT_EQ(UCI_ERR_INVAL, uci_load(nullptr, "good", &p));

  // `out` may be NULL: the package is still kept in the context.
  EXPECT_EQ(UCI_OK, uci_load(ctx_, "good", nullptr));
  p = uci_lookup_package(ctx_, "good");
  ASSERT_NE(nullptr, p);
  uci_package *again = nullptr;
  EXPECT_EQ(UCI_ERR_DUPLICATE, uci_load(ctx_, "good", &again));
  EXPECT_EQ(nullptr, again);

  uci_package *e = Load("empty");
  ASSERT_NE(nullptr, e);
  EXPECT_TRUE(uci_list_empty(&e->sections));

  EXPECT_EQ(UCI_OK, uci_unload(ctx_, p));
  EXPECT_EQ(nullptr, uci_lookup_package(ctx_, "good"));
  EXPECT_EQ(UCI_ERR_INVAL, uci_unload(ctx_, nullptr));
  EXPECT_EQ(UCI_OK, uci_load(ctx_, "good", &p));
}

TEST_F(UciTest, LoadByPathHasNoChangeTracking) {
  WriteFile(root_ + "/standalone", "config t 's'\n\toption o v\n");
  uci_package *p = nullptr;
  ASSERT_EQ(UCI_OK, uci_load(ctx_, (root_ + "/standalone").c_str(), &p));
  EXPECT_STREQ("standalone", p->e.name);
  EXPECT_FALSE(p->has_delta);
  EXPECT_EQ("v", Get(ctx_, p, "s", "o"));
  EXPECT_EQ(UCI_ERR_NOTFOUND, uci_load(ctx_, (root_ + "/nothing").c_str(), &p));

  ASSERT_EQ(0, chdir(root_.c_str()));
  WriteFile(root_ + "/rel", "config t 'r'\n");
  uci_package *r = nullptr;
  ASSERT_EQ(UCI_OK, uci_load(ctx_, "./rel", &r));
  EXPECT_STREQ("rel", r->e.name);
  EXPECT_FALSE(r->has_delta);
  ASSERT_EQ(0, chdir("/"));
}

}  // namespace
}  // namespace ucitest
