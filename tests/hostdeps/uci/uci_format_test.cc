// Reading configuration files: words and quoting, sections and generated
// names, the keywords' rules, load results, and files that must not load.
#include <sys/stat.h>

#include "../../config/uci_testutil.h"

namespace rk::test {
namespace {

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
  // Every option of package `text` as "section.option=value", lists as
  // "=[item item]"; "<parse error>" when it does not load, and then nothing
  // half-loaded stands in the way of a good file of that name.
  std::string Dump(const std::string &text) {
    WriteFile(conf_ + "/f", text);
    uci_package *p = reinterpret_cast<uci_package *>(this);  // untouched on failure
    if (const int rc = uci_load(ctx_, "f", &p); rc != UCI_OK) {
      EXPECT_EQ(rc, UCI_ERR_PARSE);
      EXPECT_TRUE(p == reinterpret_cast<uci_package *>(this) && !uci_lookup_package(ctx_, "f"));
      WriteFile(conf_ + "/f", "config t 's'\n");
      EXPECT_EQ(UCI_OK, uci_load(ctx_, "f", &p));
      uci_unload(ctx_, p);
      return "<parse error>";
    }
    std::string out;
    uci_element *se, *oe;
    uci_foreach_element(&p->sections, se) uci_foreach_element(&uci_to_section(se)->options, oe)
      out += (out.empty() ? "" : " ") + std::string(se->name) + "." + oe->name + "=" +
             optionText(ctx_, p, se->name, oe->name);
    uci_unload(ctx_, p);
    return out;
  }
  TempDir dir_;
  std::string conf_ = dir_ / "config";
  uci_context *ctx_ = uci_alloc_context();
};

TEST_F(UciTest, Quoting) {
  const struct { const char *label, *line /* after "\toption v " */, *value; } rows[] = {
      {"plain", "abc", "abc"}, {"single", "'a b  c'", "a b  c"}, {"single keeps backslash", "'a\\b'", "a\\b"},
      {"double, escaped quote", "\"say \\\"hi\\\"\"", "say \"hi\""},
      {"double, escaped backslash", "\"a\\\\b\"", "a\\b"}, {"double, backslash n is n", "\"a\\nb\"", "anb"},
      {"adjacent pieces", "'ab'\"cd\"ef", "abcdef"}, {"shell-style apostrophe", "'it'\\''s'", "it's"},
      {"# in quotes", "'a#b'", "a#b"}, {"# ends an unquoted word", "a#b", "a"}, {"comment", "'x y' # note", "x y"},
      {"multi-line single", "'one\ntwo'", "one\ntwo"}, {"multi-line double", "\"one\n two\"", "one\n two"},
      {"line continuation", "foo\\\nbar", "foobar"}, {"CR LF", "'v'\r", "v"}, {"tabs around", "\t'v'\t", "v"}};
  for (const auto &r : rows) {
    SCOPED_TRACE(r.label);
    EXPECT_EQ(Dump(std::string("config t 's'\n\toption v ") + r.line + "\n\toption after 'x'\n"),
              std::string("s.v=") + r.value + " s.after=x");
  }
}

TEST_F(UciTest, Files) {
  const struct { const char *label, *text, *dump = "<parse error>"; } rows[] = {
      // Hand edits: a list item without a value is an empty one (and turns
      // an option into a list); a backslash before the line break joins
      // the next line, in double quotes too, and outside quotes it makes a
      // word, which the next line's indent ends; ';' ends a statement, and
      // after a word written without quotes or backslashes, the line.
      {"list without value", "config t 's'\n\toption o 'v'\n\tlist o\n", "s.o=[v ]"},
      {"backslash then indent", "config t 's'\n\toption o \\\n\t'v'\n"},
      {"backslash in double quotes", "config t 's'\n\toption o \"a\\\nb\"\n", "s.o=ab"},
      {"backslash after config", "config t 's' \\\n\toption o 'a'\n", "s.o=a"},
      {"semicolons", "config t 's'\n\toption o a;b\n\toption p 'b'; option q c\n", "s.o=a s.p=b s.q=c"},
      {"option before config", "option a b\n"}, {"list before config", "list a b\nconfig t\n"},
      {"config without type", "config\n"}, {"config, too many words", "config t n extra\n"},
      {"section name with -", "config t 'bad-name'\n"}, {"section name with .", "config t a.b\n"},
      {"type with a blank", "config 'a b'\n"}, {"same name, other type", "config a 'x'\nconfig b 'x'\n"},
      {"option name with -", "config t\n\toption bad-name v\n"}, {"empty option name", "config t\n\toption '' v\n"},
      {"option, too many words", "config t\n\toption a b c\n"}, {"list, too many words", "config t\n\tlist a b c\n"},
      {"unknown keyword", "config t\n\tvalue a b\n"}, {"unterminated single", "config t\n\toption a 'open\n"},
      {"unterminated double", "config t\n\toption a \"open\n"},
      {"error after good lines", "config t 'n'\n\toption a b\n\nconfig u 'm'\nbogus\n"},
      {"package, too many words", "package a b\n"}};
  for (const auto &r : rows) {
    SCOPED_TRACE(r.label);
    EXPECT_EQ(Dump(r.text), r.dump);
  }
}

}  // namespace
}  // namespace rk::test
