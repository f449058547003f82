// The two text formats: configuration files (parsed at load, written at
// commit) and change files (one change per statement, applied at load).
// Both share one tokenizer, so a quoted value may span lines in either.
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "uci_impl.h"

namespace rk {
namespace uci_impl {
namespace {

struct Word {
  std::string text;
  int line = 0;
  int byte = 0;
};

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; }

// Splits text into statements of words. A statement ends at an unquoted
// newline; '#' outside quotes comments out the rest of the line (also in the
// middle of a word); "'...'" is literal; in "\"...\"" a backslash takes the
// next character literally; pieces next to each other join into one word;
// a backslash at the end of a line continues the statement.
class Lexer {
 public:
  explicit Lexer(const std::string &text) : s_(text) {}

  // Reads the next non-empty statement. Returns false at the end of the
  // text, or on an unterminated quote (then `error()` is set).
  bool next(std::vector<Word> *words) {
    words->clear();
    while (pos_ < s_.size()) {
      char c = s_[pos_];
      if (c == '\n') {
        newline(pos_ + 1);
        if (!words->empty()) return true;
        continue;
      }
      if (is_blank(c)) {
        ++pos_;
        continue;
      }
      if (c == '#') {
        while (pos_ < s_.size() && s_[pos_] != '\n') ++pos_;
        continue;
      }
      if (continuation()) continue;
      Word w;
      if (!word(&w)) return false;
      words->push_back(std::move(w));
    }
    return !words->empty();
  }

  const std::string &error() const { return error_; }
  int line() const { return line_; }
  int byte() const { return static_cast<int>(pos_ - line_start_); }

  // Skips to the start of the next line (used to resync after an error).
  void skip_line() {
    while (pos_ < s_.size() && s_[pos_] != '\n') ++pos_;
    if (pos_ < s_.size()) newline(pos_ + 1);
  }

 private:
  void newline(size_t next) {
    pos_ = next;
    ++line_;
    line_start_ = next;
  }

  // A backslash right before the end of a line joins the next line.
  bool continuation() {
    if (s_[pos_] != '\\') return false;
    size_t n = pos_ + 1;
    if (n < s_.size() && s_[n] == '\r') ++n;
    if (n < s_.size() && s_[n] == '\n') {
      newline(n + 1);
      return true;
    }
    return false;
  }

  // Appends one character of a quoted piece, keeping track of lines.
  void take(std::string *out, size_t at) {
    out->push_back(s_[at]);
    if (s_[at] == '\n') {
      ++line_;
      line_start_ = at + 1;
    }
  }

  bool word(Word *w) {
    w->line = line_;
    w->byte = byte();
    while (pos_ < s_.size()) {
      char c = s_[pos_];
      if (c == '\n' || is_blank(c) || c == '#') break;
      if (continuation()) continue;
      if (c == '\\') {
        if (pos_ + 1 < s_.size()) take(&w->text, pos_ + 1);
        pos_ += 2;
        continue;
      }
      if (c == '\'') {
        size_t i = pos_ + 1;
        while (i < s_.size() && s_[i] != '\'') take(&w->text, i++);
        if (i >= s_.size()) return fail("unterminated '");
        pos_ = i + 1;
        continue;
      }
      if (c == '"') {
        size_t i = pos_ + 1;
        while (i < s_.size() && s_[i] != '"') {
          if (s_[i] == '\\' && i + 1 < s_.size()) ++i;
          take(&w->text, i++);
        }
        if (i >= s_.size()) return fail("unterminated \"");
        pos_ = i + 1;
        continue;
      }
      w->text.push_back(c);
      ++pos_;
    }
    return true;
  }

  bool fail(const char *why) {
    error_ = why;
    pos_ = s_.size();
    return false;
  }

  const std::string &s_;
  size_t pos_ = 0;
  int line_ = 1;
  size_t line_start_ = 0;
  std::string error_;
};

bool keyword(const std::string &w, const char *full) {
  return w == full || (w.size() == 1 && w[0] == full[0]);
}

// Carries out one statement of a configuration file on `p`.
class ConfigParser {
 public:
  explicit ConfigParser(uci_package *p) : p_(p) {}

  // Returns nullptr on success, else the reason.
  const char *statement(const std::vector<Word> &w) {
    const std::string &k = w[0].text;
    if (keyword(k, "package")) {
      if (w.size() != 2) return w.size() < 2 ? "package name missing" : "too many arguments";
      if (!valid_package_name(w[1].text.c_str())) return "invalid package name";
      return nullptr;
    }
    if (keyword(k, "config")) return config(w);
    if (keyword(k, "option")) return option(w, false);
    if (keyword(k, "list")) return option(w, true);
    return "invalid command";
  }

 private:
  const char *config(const std::vector<Word> &w) {
    if (w.size() < 2) return "section type missing";
    if (w.size() > 3) return "too many arguments";
    const char *type = w[1].text.c_str();
    if (!valid_type(type)) return "invalid section type";
    if (w.size() == 3 && !w[2].text.empty()) {
      const char *name = w[2].text.c_str();
      if (!valid_name(name)) return "invalid section name";
      uci_section *s = section_find(p_, name);
      if (s) {
        // A repeated name continues that section, if the type agrees.
        if (strcmp(s->type, type) != 0) return "section of different type overwrites prior section";
        section_ = s;
        return nullptr;
      }
      section_ = section_add(p_, type, name, false);
    } else {
      section_ = section_add(p_, type, nullptr, true);
    }
    return section_ ? nullptr : "out of memory";
  }

  const char *option(const std::vector<Word> &w, bool list) {
    if (!section_) return "option/list command found before the first section";
    if (w.size() < 2) return "option name missing";
    if (w.size() > 3) return "too many arguments";
    const char *name = w[1].text.c_str();
    if (!valid_name(name)) return "invalid option name";
    if (w.size() < 3) return nullptr;  // nothing to set
    const char *value = w[2].text.c_str();
    uci_option *o = nullptr;
    if (list) return add_list_item(section_, name, value, &o) == kNoMemory ? "out of memory" : nullptr;
    if (!*value) return nullptr;  // an empty option is no option
    return set_option(section_, name, value, &o) == kNoMemory ? "out of memory" : nullptr;
  }

  uci_package *p_;
  uci_section *section_ = nullptr;
};

const char kDeltaPrefixes[] = "\0+-@^|~";

}  // namespace

bool parse_config(uci_package *p, const std::string &text, bool strict, ParseError *err) {
  // A NUL byte has no place in a text file and would cut names short.
  size_t nul = text.find('\0');
  if (nul != std::string::npos) {
    err->reason = "invalid character";
    err->line = 1 + static_cast<int>(std::count(text.begin(), text.begin() + nul, '\n'));
    size_t bol = text.rfind('\n', nul);
    err->byte = static_cast<int>(bol == std::string::npos ? nul : nul - bol - 1);
    return false;
  }
  Lexer lex(text);
  ConfigParser parser(p);
  std::vector<Word> words;
  for (;;) {
    if (!lex.next(&words)) {
      if (lex.error().empty()) return true;
      err->reason = lex.error();
      err->line = lex.line();
      err->byte = lex.byte();
      return false;
    }
    const char *why = parser.statement(words);
    if (why) {
      if (strict || strcmp(why, "out of memory") == 0) {
        err->reason = why;
        err->line = words[0].line;
        err->byte = words[0].byte;
        return false;
      }
    }
  }
}

std::string quote(const char *value) {
  std::string out = "'";
  for (const char *c = value; *c; ++c) {
    if (*c == '\'')
      out += "'\\''";
    else
      out.push_back(*c);
  }
  out.push_back('\'');
  return out;
}

std::string write_config(const uci_package *p) {
  std::string out;
  uci_element *se;
  uci_foreach_element(&p->sections, se) {
    uci_section *s = uci_to_section(se);
    out += "\nconfig ";
    out += s->type;
    if (!s->anonymous) {
      out += ' ';
      out += quote(s->e.name);
    }
    out += '\n';
    uci_element *oe;
    uci_foreach_element(&s->options, oe) {
      uci_option *o = uci_to_option(oe);
      if (o->type == UCI_TYPE_STRING) {
        out += "\toption ";
        out += o->e.name;
        out += ' ';
        out += quote(o->v.string);
        out += '\n';
        continue;
      }
      uci_element *item;
      uci_foreach_element(&o->v.list, item) {
        out += "\tlist ";
        out += o->e.name;
        out += ' ';
        out += quote(item->name);
        out += '\n';
      }
    }
  }
  out += '\n';
  return out;
}

std::string delta_line(const char *package, const DeltaRec &d) {
  std::string out;
  char prefix = kDeltaPrefixes[d.cmd];
  if (prefix) out.push_back(prefix);
  out += package;
  out += '.';
  out += d.section;
  if (!d.option.empty()) {
    out += '.';
    out += d.option;
  }
  if (d.has_value) {
    out += '=';
    out += quote(d.value.c_str());
  }
  out += '\n';
  return out;
}

std::vector<DeltaRec> parse_deltas(const std::string &text, const char *package) {
  std::vector<DeltaRec> out;
  // Whatever follows a NUL byte is not text any more.
  const std::string body = text.substr(0, text.find('\0'));
  Lexer lex(body);
  std::vector<Word> words;
  const size_t plen = strlen(package);
  while (lex.next(&words)) {
    if (words.size() != 1) continue;
    const std::string &w = words[0].text;
    DeltaRec d;
    size_t at = 0;
    const char *hit = w.empty() ? nullptr : strchr(kDeltaPrefixes + 1, w[0]);
    d.cmd = kDeltaChange;
    if (hit && *hit) {
      d.cmd = static_cast<DeltaCmd>(hit - kDeltaPrefixes);
      at = 1;
    }
    // The package name may itself hold dots: match it as a whole.
    if (w.compare(at, plen, package) != 0 || w.size() <= at + plen || w[at + plen] != '.') continue;
    at += plen + 1;
    size_t eq = w.find('=', at);
    std::string path = w.substr(at, eq == std::string::npos ? std::string::npos : eq - at);
    if (eq != std::string::npos) {
      d.has_value = true;
      d.value = w.substr(eq + 1);
    }
    size_t dot = path.find('.');
    d.section = path.substr(0, dot);
    if (dot != std::string::npos) {
      d.option = path.substr(dot + 1);
      if (!valid_name(d.option.c_str())) continue;
    }
    if (!valid_name(d.section.c_str())) continue;
    if (d.has_value && !valid_value(d.value.c_str())) continue;
    out.push_back(std::move(d));
  }
  return out;
}

}  // namespace uci_impl
}  // namespace rk
