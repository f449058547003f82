// Internals of the UCI stand-in shared by its translation units: the
// in-memory tree (packages, sections, options, list items, pending changes),
// the text formats (configuration files and change files) and the file
// handling (locks, change files, atomic replacement).
#pragma once

#include <stddef.h>

#include <string>
#include <vector>

#include <uci.h>

namespace rk {
namespace uci_impl {

// ---- intrusive uci_list ------------------------------------------------------

void list_init(uci_list *head);
// Inserts `node` just before `pos` (at the end when `pos` is the head).
void list_insert_before(uci_list *node, uci_list *pos);
void list_unlink(uci_list *node);

// ---- names -------------------------------------------------------------------

// Section and option names: letters, digits and '_' only, not empty.
bool valid_name(const char *s);
// Section types: printable ASCII 33..126, not empty.
bool valid_type(const char *s);
// Package names: printable ASCII 33..126, not empty.
bool valid_package_name(const char *s);
// Values that can live in a change file: no control characters other than
// tab, newline and carriage return.
bool valid_value(const char *s);
// "cfg" + ordinal (at least two hex digits) + four hex digits of a hash of
// the type; options play no part because they are not known yet.
std::string anonymous_name(int ordinal, const char *type);

// ---- records -----------------------------------------------------------------

// All records are malloc'd C structures (users free nothing themselves, but
// they see the fields); constructors return nullptr when out of memory.
uci_package *package_new(uci_context *ctx, const char *name, const char *path);
void package_free(uci_package *p);  // also unlinks it from the context

uci_section *section_find(uci_package *p, const char *name);
uci_option *option_find(uci_section *s, const char *name);

// New section appended to `p`, counted in the package's ordinal; `name`
// nullptr makes an anonymous one with a generated name.
uci_section *section_add(uci_package *p, const char *type, const char *name, bool anonymous);
void section_free(uci_section *s);  // unlinks, frees its options

// New options are inserted before `pos` (nullptr: appended).
uci_option *option_add_string(uci_section *s, const char *name, const char *value,
                              uci_list *pos = nullptr);
uci_option *option_add_list(uci_section *s, const char *name, uci_list *pos = nullptr);
bool option_append_item(uci_option *o, const char *value);
void option_free(uci_option *o);  // unlinks, frees its items

// ---- editing primitives (shared by the API and by change files) -------------

enum EditResult { kChanged = 0, kUnchanged = 1, kNoMemory = 2, kBadIndex = 3 };

// Sets string option `name` of `s`: creates it, keeps it (equal value),
// overwrites it in place (same length) or replaces it at its position (other
// length, or a list). `*o` is the option afterwards.
EditResult set_option(uci_section *s, const char *name, const char *value, uci_option **o);
// Changes the type of `*s`; a type of another length replaces the record.
EditResult set_section_type(uci_section **s, const char *type);
// Appends `value` to list `name` (creating it; a string becomes [old, new]).
EditResult add_list_item(uci_section *s, const char *name, const char *value, uci_option **o);
// Removes every item equal to `value` from a list option; strings are kept.
EditResult del_list_item(uci_option *o, const char *value);
// Removes the item whose decimal index is `index` from a list option.
EditResult del_list_index(uci_option *o, const char *index);
void move_section(uci_section *s, int pos);
bool rename_element(uci_element *e, const char *name);

// ---- pending changes ---------------------------------------------------------

enum DeltaCmd {
  kDeltaChange,   // pkg.sec[.opt]='value'
  kDeltaAdd,      // +pkg.sec='type'
  kDeltaRemove,   // -pkg.sec[.opt]
  kDeltaRename,   // @pkg.sec[.opt]='name'
  kDeltaReorder,  // ^pkg.sec='pos'
  kDeltaListAdd,  // |pkg.sec.opt='value'
  kDeltaListDel,  // ~pkg.sec.opt='value'
};

struct Delta {
  uci_element e;  // e.name: the option, or nullptr
  DeltaCmd cmd;
  char *section;
  char *value;  // nullptr when the command has none
};

struct DeltaRec {
  DeltaCmd cmd;
  std::string section;
  std::string option;  // empty: the section itself
  bool has_value = false;
  std::string value;
};

// Appends a change to `p`'s pending list when the package tracks changes.
bool record_delta(uci_package *p, DeltaCmd cmd, const char *section, const char *option,
                  const char *value);
// Takes back the change recorded last, when the package tracks changes.
void drop_last_delta(uci_package *p);
void free_deltas(uci_list *head);
// The change-file line for one change, newline included.
std::string delta_line(const char *package, const DeltaRec &d);
std::string pending_lines(const uci_package *p);
// Reads the statements of a change file; entries for other packages and
// malformed ones are skipped.
std::vector<DeltaRec> parse_deltas(const std::string &text, const char *package);
// Applies one change to the tree; false when it does not fit, std::bad_alloc
// when memory runs out.
bool apply_delta(uci_package *p, const DeltaRec &d);

// ---- configuration text ------------------------------------------------------

struct ParseError {
  std::string reason;
  int line = 0;
  int byte = 0;
};

// Fills `p` from the file text; false (with `err`) on the first error when
// `strict`, otherwise bad statements are skipped.
bool parse_config(uci_package *p, const std::string &text, bool strict, ParseError *err);
std::string write_config(const uci_package *p);
// `'...'` with every ' written as '\''.
std::string quote(const char *value);

// ---- files -------------------------------------------------------------------

// A descriptor closed at the end of its scope.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd();
  Fd(const Fd &) = delete;
  Fd &operator=(const Fd &) = delete;
  int get() const { return fd_; }
  int release() {
    int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  int fd_;
};

enum ReadResult { kReadOk = 0, kReadMissing = 1, kReadFailed = 2 };

// Reads all of an open descriptor from its start.
bool read_fd(int fd, std::string *out);
// Opens, locks (flock `lockop`) and reads a regular file.
ReadResult read_locked(const char *path, int lockop, std::string *out);
// Appends `text` to `<dir>/<name>` under an exclusive lock, creating the
// directory (one level) and the file when missing.
bool append_change_file(const char *dir, const char *name, const std::string &text);
// Writes `text` to a fresh `.<name>.uci-XXXXXX` in `tmpdir` with mode `mode`
// and renames it over `path`; the old file stays on any failure.
bool replace_file(const char *tmpdir, const char *name, const char *path, const std::string &text,
                  unsigned mode);

}  // namespace uci_impl
}  // namespace rk
