// Reading configuration files: words and quoting, sections and generated
// names, the keywords' rules, load results, and files that must not load.
#include <sys/stat.h>

#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <uci.h>

#include "rk_test.h"

namespace rk::test {
namespace {

// The value of string option `opt` of section `sec`, or "<none>".
std::string Get(uci_context *ctx, uci_package *p, const char *sec, const char *opt) {
  uci_section *s = uci_lookup_section(ctx, p, sec);
  const char *v = s ? uci_lookup_option_string(ctx, s, opt) : nullptr;
  return v ? v : "<none>";
}

// A fresh configuration directory under /tmp and a context pointed at it.
class UciTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, mkdir(conf_.c_str(), 0755));
    ASSERT_NE(nullptr, ctx_);
    ASSERT_EQ(UCI_OK, uci_set_confdir(ctx_, conf_.c_str()));
    ASSERT_EQ(UCI_OK, uci_set_savedir(ctx_, (dir_ / "save").c_str()));
  }
  void TearDown() override { uci_free_context(ctx_); }
  std::string Conf(const std::string &name) const { return conf_ + "/" + name; }
  uci_package *Load(const char *name) {
    uci_package *p = nullptr;
    EXPECT_EQ(UCI_OK, uci_load(ctx_, name, &p)) << name;
    return p;
  }
  TempDir dir_;
  std::string conf_ = dir_ / "config";
  uci_context *ctx_ = uci_alloc_context();
};

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

// Every option of `p` as "section.option=value", lists as "=[item,item]".
std::string Dump(uci_package *p) {
  std::string out;
  uci_element *se, *oe, *ie;
  uci_foreach_element(&p->sections, se) {
    uci_foreach_element(&uci_to_section(se)->options, oe) {
      uci_option *o = uci_to_option(oe);
      out += (out.empty() ? "" : " ") + std::string(se->name) + "." + oe->name + "=";
      if (o->type == UCI_TYPE_STRING) {
        out += o->v.string;
        continue;
      }
      const char *sep = "";
      out += '[';
      uci_foreach_element(&o->v.list, ie) {
        out = out + sep + ie->name;
        sep = ",";
      }
      out += ']';
    }
  }
  return out;
}

struct FileCase {
  const char *label;
  const char *text;
  const char *dump = nullptr;  // as Dump() prints it; nullptr: the file must not load
};

void PrintTo(const FileCase &c, std::ostream *os) { *os << c.label; }

class UciFiles : public UciTest, public ::testing::WithParamInterface<FileCase> {};

TEST_P(UciFiles, LoadAsExpected) {
  const FileCase &c = GetParam();
  WriteFile(Conf("f"), c.text);
  uci_package *p = reinterpret_cast<uci_package *>(this);  // untouched on failure
  if (c.dump) {
    ASSERT_EQ(UCI_OK, uci_load(ctx_, "f", &p));
    EXPECT_EQ(c.dump, Dump(p));
    return;
  }
  EXPECT_EQ(UCI_ERR_PARSE, uci_load(ctx_, "f", &p));
  EXPECT_EQ(reinterpret_cast<uci_package *>(this), p);
  EXPECT_EQ(nullptr, uci_lookup_package(ctx_, "f"));
  // Nothing half-loaded stands in the way of a good file of that name.
  WriteFile(Conf("f"), "config t 's'\n");
  EXPECT_EQ(UCI_OK, uci_load(ctx_, "f", &p));
}

INSTANTIATE_TEST_SUITE_P(
    Files, UciFiles,
    ::testing::Values(
        // Hand edits: a list item without a value is an empty one (and turns
        // an option into a list); a backslash before the line break joins
        // the next line, in double quotes too, and outside quotes it makes a
        // word, which the next line's indent ends; ';' ends a statement, and
        // after a word written without quotes or backslashes, the line.
        FileCase{"list_without_value", "config t 's'\n\toption o 'v'\n\tlist o\n", "s.o=[v,]"},
        FileCase{"backslash_then_indent", "config t 's'\n\toption o \\\n\t'v'\n"},
        FileCase{"backslash_in_double_quotes", "config t 's'\n\toption o \"a\\\nb\"\n", "s.o=ab"},
        FileCase{"backslash_after_config", "config t 's' \\\n\toption o 'a'\n", "s.o=a"},
        FileCase{"semicolons", "config t 's'\n\toption o a;b\n\toption p 'b'; option q c\n",
                 "s.o=a s.p=b s.q=c"},
        FileCase{"option_before_config", "option a b\n"},
        FileCase{"list_before_config", "list a b\nconfig t\n"},
        FileCase{"config_without_type", "config\n"},
        FileCase{"config_too_many_words", "config t n extra\n"},
        FileCase{"section_name_with_dash", "config t 'bad-name'\n"},
        FileCase{"section_name_with_dot", "config t a.b\n"},
        FileCase{"type_with_space", "config 'a b'\n"},
        FileCase{"same_name_other_type", "config a 'x'\nconfig b 'x'\n"},
        FileCase{"option_name_with_dash", "config t\n\toption bad-name v\n"},
        FileCase{"option_empty_name", "config t\n\toption '' v\n"},
        FileCase{"option_too_many_words", "config t\n\toption a b c\n"},
        FileCase{"list_too_many_words", "config t\n\tlist a b c\n"},
        FileCase{"unknown_keyword", "config t\n\tvalue a b\n"},
        FileCase{"unterminated_single", "config t\n\toption a 'open\n"},
        FileCase{"unterminated_double", "config t\n\toption a \"open\n"},
        FileCase{"error_after_good_lines", "config t 'n'\n\toption a b\n\nconfig u 'm'\nbogus\n"},
        FileCase{"package_too_many_words", "package a b\n"}),
    [](const ::testing::TestParamInfo<FileCase> &info) { return std::string(info.param.label); });

}  // namespace
}  // namespace rk::test
