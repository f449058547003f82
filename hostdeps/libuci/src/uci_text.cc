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

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\f' || c == '\v'; }

bool keyword(const std::string &w, const char *full) {
  return w == full || (w.size() == 1 && w[0] == full[0]);
}

// The text as it is read: a NUL byte ends its line there, and what follows
// it on that line goes, line break included, so the next line carries on
// where the NUL stood.
std::string without_nul(const std::string &text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\0') {
      out.push_back(text[i]);
      continue;
    }
    i = text.find('\n', i);
    if (i == std::string::npos) break;
  }
  return out;
}

// Walks the text one line at a time. A statement is read from the line it
// starts on; a quote still open at the line break, or a backslash right
// before it, carries it on into the next line, which is then the current one.
class Cursor {
 public:
  explicit Cursor(const std::string &text) : s_(text), end_(line_end(0)) {}

  // Moves to the start of the next line; false at the end of the text.
  bool next_line() {
    if (last_line()) return false;
    enter_line(end_ + 1);
    return true;
  }

  void skip_blanks() {
    while (pos_ < end_ && is_blank(s_[pos_])) ++pos_;
  }
  // Between statements only spaces and tabs are skipped: a CR there makes
  // a keyword of its own.
  void skip_spaces() {
    while (pos_ < end_ && (s_[pos_] == ' ' || s_[pos_] == '\t')) ++pos_;
  }
  void skip_blank() {
    if (pos_ < end_ && is_blank(s_[pos_])) ++pos_;
  }
  bool at_end() const { return pos_ >= end_; }
  bool last_line() const { return end_ >= s_.size(); }
  bool at(char c) const { return pos_ < end_ && s_[pos_] == c; }
  void advance() { ++pos_; }
  void drop_rest() { pos_ = end_; }

  // A keyword is taken as written, up to a space or a tab.
  std::string keyword() {
    size_t from = pos_;
    while (pos_ < end_ && s_[pos_] != ' ' && s_[pos_] != '\t') ++pos_;
    return s_.substr(from, pos_ - from);
  }

  // Reads the word at the cursor (blanks before it skipped). Pieces join:
  // plain characters, '...' taken literally, "..." where a backslash takes
  // the next character, and a backslash outside quotes doing the same. A
  // backslash right before a line break, in double quotes or outside, joins
  // the next line without the break. '#' ends the line. ';' ends the word:
  // standing first it is consumed and the word is empty; after a word that
  // is exactly its text (no quote, no backslash) it also ends the line;
  // otherwise it stays for the statement's end to see. False on a quote
  // left open at the end of the text.
  bool word(std::string *out) {
    out->clear();
    if (at(';')) {
      ++pos_;
      return true;
    }
    bool verbatim = true;
    while (pos_ < end_) {
      char c = s_[pos_];
      if (is_blank(c)) break;
      if (c == '#' || c == ';') {
        if (c == '#' || verbatim) drop_rest();
        break;
      }
      if (c == '\'' || c == '"') {
        verbatim = false;
        if (!quoted(out)) return false;
      } else if (c == '\\') {
        verbatim = false;
        escape(out);
      } else {
        out->push_back(c);
        ++pos_;
      }
    }
    return true;
  }

  const char *error() const { return error_; }
  int line() const { return line_; }
  int byte() const { return static_cast<int>(pos_ - line_start_); }

 private:
  size_t line_end(size_t from) const {
    size_t n = s_.find('\n', from);
    return n == std::string::npos ? s_.size() : n;
  }

  void enter_line(size_t start) {
    pos_ = line_start_ = start;
    end_ = line_end(start);
    ++line_;
  }

  // At a backslash: when only the line break (CR LF counts) follows it,
  // moves to the next line and returns true.
  bool join() {
    size_t n = pos_ + 1;
    if (n + 1 == end_ && s_[n] == '\r') ++n;
    if (n != end_ || end_ >= s_.size()) return false;
    enter_line(end_ + 1);
    return true;
  }

  // A backslash: a line join, or the next character as it is (nothing at
  // the end of the text).
  void escape(std::string *out) {
    if (join()) return;
    if (pos_ + 1 < end_) out->push_back(s_[pos_ + 1]);
    pos_ = std::min(pos_ + 2, end_);
  }

  // A quoted piece from the quote at the cursor to its partner, line breaks
  // kept.
  bool quoted(std::string *out) {
    const char q = s_[pos_++];
    for (;;) {
      if (pos_ >= end_) {
        if (end_ >= s_.size()) return fail(q == '"' ? "unterminated \"" : "unterminated '");
        out->push_back('\n');
        enter_line(end_ + 1);
        continue;
      }
      char c = s_[pos_];
      if (c == q) {
        ++pos_;
        return true;
      }
      if (q == '"' && c == '\\') {
        escape(out);
        continue;
      }
      out->push_back(c);
      ++pos_;
    }
  }

  bool fail(const char *why) {
    error_ = why;
    return false;
  }

  const std::string &s_;
  size_t pos_ = 0;
  size_t end_;
  int line_ = 1;
  size_t line_start_ = 0;
  const char *error_ = nullptr;
};

// Carries out the statements of a configuration file on `p`.
class ConfigParser {
 public:
  ConfigParser(uci_package *p, bool strict) : p_(p), strict_(strict) {}

  // The statements of the line at the cursor (and of the lines they run on
  // into). Returns nullptr on success, else the reason.
  const char *line(Cursor *c) {
    c->skip_blanks();
    if (c->at_end()) return nullptr;
    for (;;) {
      // Where a statement must follow (after ';' or an empty word), a
      // comment will do, and so will the end of the text; a line break or a
      // CR is no statement.
      if (c->at('#') || (c->at_end() && c->last_line())) return nullptr;
      bool more = false;
      const char *why = statement(c, &more);
      if (why || !more) return why;
      c->skip_spaces();
    }
  }

 private:
  const char *statement(Cursor *c, bool *more) {
    const std::string k = c->keyword();
    const bool package = keyword(k, "package");
    if (!package && !keyword(k, "config") && !keyword(k, "option") && !keyword(k, "list"))
      return "invalid command";
    // package takes a name; the others two words, the second optional.
    std::string args[2];
    for (int i = 0; i < (package ? 1 : 2); ++i) {
      c->skip_blanks();
      if (!c->word(&args[i])) return c->error();
    }
    const char *why = package   ? package_name(args[0])
                      : k[0] == 'c' ? config(args[0], args[1])
                                    : option(args[0], args[1], k[0] == 'l');
    return why ? why : finish(c, more);
  }

  // After a statement's words: the end of the line, a comment, an empty
  // word, or ';'. The last two leave the rest of the line to another
  // statement, which after ';' must be there.
  const char *finish(Cursor *c, bool *more) {
    c->skip_blanks();
    if (c->at(';')) {
      c->advance();
      *more = true;
      return nullptr;
    }
    std::string extra;
    if (!c->word(&extra)) return c->error();
    if (!extra.empty()) {
      if (strict_) return "too many arguments";
      c->drop_rest();
    }
    if (c->at_end()) return nullptr;
    // The empty word takes the one blank after it along.
    c->skip_blank();
    *more = true;
    return nullptr;
  }

  const char *package_name(const std::string &name) {
    return valid_package_name(name.c_str()) ? nullptr : "invalid package name";
  }

  const char *config(const std::string &type, const std::string &name) {
    if (type.empty()) return "section type missing";
    if (!valid_type(type.c_str())) return "invalid section type";
    if (!name.empty()) {
      if (!valid_name(name.c_str())) return "invalid section name";
      uci_section *s = section_find(p_, name.c_str());
      if (s) {
        // A repeated name continues that section, if the type agrees.
        if (strcmp(s->type, type.c_str()) != 0)
          return "section of different type overwrites prior section";
        section_ = s;
        return nullptr;
      }
      section_ = section_add(p_, type.c_str(), name.c_str(), false);
    } else {
      section_ = section_add(p_, type.c_str(), nullptr, true);
    }
    return section_ ? nullptr : "out of memory";
  }

  // A missing value reads as an empty one: no option, but an empty list item.
  const char *option(const std::string &name, const std::string &value, bool list) {
    if (!section_) return "option/list command found before the first section";
    if (!valid_name(name.c_str())) return "invalid option name";
    uci_option *o = nullptr;
    if (list)
      return add_list_item(section_, name.c_str(), value.c_str(), &o) == kNoMemory ? "out of memory"
                                                                                     : nullptr;
    if (value.empty()) return nullptr;  // an empty option is no option
    return set_option(section_, name.c_str(), value.c_str(), &o) == kNoMemory ? "out of memory"
                                                                               : nullptr;
  }

  uci_package *p_;
  bool strict_;
  uci_section *section_ = nullptr;
};

const char kDeltaPrefixes[] = "\0+-@^|~";

}  // namespace

bool parse_config(uci_package *p, const std::string &text, bool strict, ParseError *err) {
  const std::string body = without_nul(text);
  Cursor c(body);
  ConfigParser parser(p, strict);
  do {
    const char *why = parser.line(&c);
    if (why && (strict || strcmp(why, "out of memory") == 0)) {
      err->reason = why;
      err->line = c.line();
      err->byte = c.byte();
      return false;
    }
  } while (c.next_line());
  return true;
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
  const std::string body = without_nul(text);
  Cursor c(body);
  std::string w;
  const size_t plen = strlen(package);
  do {
    // One word to a line; anything else is no change.
    c.skip_blanks();
    if (c.at_end()) continue;
    if (!c.word(&w)) break;
    c.skip_blanks();
    if (!c.at_end()) continue;
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
  } while (c.next_line());
  return out;
}

}  // namespace uci_impl
}  // namespace rk
