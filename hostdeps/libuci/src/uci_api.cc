// The exported UCI entry points: contexts and their directories, loading,
// pointer resolution, the editing operations and the change life cycle
// (pending in memory -> saved in a change file -> committed into the file).
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "uci_impl.h"

// Details of the last parse error of a context, for uci_perror().
struct uci_parse_context {
  std::string reason;
  int line = 0;
  int byte = 0;
};

namespace rk {
namespace uci_impl {
namespace {

using PtrFlags = decltype(uci_ptr::flags);

const char *const kErrors[] = {
    "Success",     "Out of memory", "Invalid argument", "Entry not found",
    "I/O error",   "Parse error",   "Duplicate entry",  "Unknown error",
};

struct PackageDeleter {
  void operator()(uci_package *p) const { package_free(p); }
};
using PackagePtr = std::unique_ptr<uci_package, PackageDeleter>;


bool empty(const char *s) { return !s || !*s; }

std::string join(const char *dir, const char *name) { return std::string(dir) + "/" + name; }

std::string error_text(uci_context *ctx, const char *prefix) {
  int err = ctx->err;
  if (err < 0 || err >= UCI_ERR_LAST) err = UCI_ERR_UNKNOWN;
  std::string out;
  if (prefix) {
    out += prefix;
    out += ": ";
  }
  out += kErrors[err];
  if (err == UCI_ERR_PARSE && ctx->pctx && !ctx->pctx->reason.empty()) {
    char where[64];
    snprintf(where, sizeof where, " at line %d, byte %d", ctx->pctx->line, ctx->pctx->byte);
    out += " (" + ctx->pctx->reason + ")" + where;
  }
  return out;
}

// Records the outcome of an operation in the context and returns it.
int finish(uci_context *ctx, const char *func, int err) {
  ctx->err = err;
  ctx->func = func;
  if (err != UCI_OK && (ctx->flags & UCI_FLAG_PERROR))
    fprintf(stderr, "%s\n", error_text(ctx, func).c_str());
  return err;
}

// Runs an operation; no C++ exception leaves the library.
template <typename F>
int guarded(uci_context *ctx, const char *func, F body) {
  if (!ctx) return UCI_ERR_INVAL;
  int err;
  try {
    err = body();
  } catch (const std::bad_alloc &) {
    err = UCI_ERR_MEM;
  } catch (...) {
    err = UCI_ERR_UNKNOWN;
  }
  return finish(ctx, func, err);
}

void note_parse_error(uci_context *ctx, const ParseError &pe) {
  if (!ctx->pctx) ctx->pctx = new (std::nothrow) uci_parse_context;
  if (!ctx->pctx) return;
  ctx->pctx->reason = pe.reason;
  ctx->pctx->line = pe.line;
  ctx->pctx->byte = pe.byte;
}

uci_package *find_loaded(uci_context *ctx, const char *name) {
  uci_element *e;
  uci_foreach_element(&ctx->root, e) {
    if (strcmp(e->name, name) == 0) return uci_to_package(e);
  }
  return nullptr;
}

// ---- directories -------------------------------------------------------------

int replace_dir(char **slot, const char *dir) {
  char *copy = strdup(dir);
  if (!copy) return UCI_ERR_MEM;
  free(*slot);
  *slot = copy;
  return UCI_OK;
}

uci_element *find_path(uci_context *ctx, const char *dir) {
  uci_element *e;
  uci_foreach_element(&ctx->delta_path, e) {
    if (strcmp(e->name, dir) == 0) return e;
  }
  return nullptr;
}

uci_element *new_path(const char *dir) {
  auto *e = static_cast<uci_element *>(calloc(1, sizeof(uci_element)));
  if (!e) return nullptr;
  e->type = UCI_TYPE_PATH;
  e->name = strdup(dir);
  if (!e->name) {
    free(e);
    return nullptr;
  }
  return e;
}

void free_path(uci_element *e) {
  list_unlink(&e->list);
  free(e->name);
  free(e);
}

// ---- loading -----------------------------------------------------------------

// Applies the change files of every directory on the delta path, in order.
// `held_dir`/`held_text`: a change file the caller has already read under
// its own lock (taking a second lock on it here would wait for ourselves).
int apply_change_files(uci_context *ctx, uci_package *p, const char *held_dir,
                       const std::string *held_text) {
  int applied = 0;
  uci_element *e;
  uci_foreach_element(&ctx->delta_path, e) {
    std::string text;
    if (held_dir && strcmp(e->name, held_dir) == 0) {
      if (!held_text) continue;
      text = *held_text;
    } else if (read_locked(join(e->name, p->e.name).c_str(), LOCK_SH, &text) != kReadOk) {
      continue;
    }
    for (const DeltaRec &d : parse_deltas(text, p->e.name)) {
      // A change that no longer fits (its section is gone...) is skipped.
      if (apply_delta(p, d)) ++applied;
    }
  }
  return applied;
}

// Parses `text` into a new package, applies the change files when it tracks
// changes and adds it to the context. Nothing is kept on failure.
int build_package(uci_context *ctx, const char *name, const char *path, const std::string &text,
                  bool has_delta, bool conf2, const char *held_dir, const std::string *held_text,
                  uci_package **out, int *applied) {
  PackagePtr p(package_new(ctx, name, path));
  if (!p) return UCI_ERR_MEM;
  p->has_delta = has_delta;
  p->uses_conf2 = conf2;
  ParseError pe;
  if (!parse_config(p.get(), text, (ctx->flags & UCI_FLAG_STRICT) != 0, &pe)) {
    if (pe.reason == "out of memory") return UCI_ERR_MEM;
    note_parse_error(ctx, pe);
    return UCI_ERR_PARSE;
  }
  int n = has_delta ? apply_change_files(ctx, p.get(), held_dir, held_text) : 0;
  list_insert_before(&p->e.list, &ctx->root);
  *out = p.release();
  if (applied) *applied = n;
  return UCI_OK;
}

bool is_regular(const std::string &path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

int load_package(uci_context *ctx, const char *name, uci_package **out) {
  if (empty(name)) return UCI_ERR_INVAL;
  std::string path;
  const char *pkg = name;
  bool has_delta = true;
  bool conf2 = false;
  if (name[0] == '/' || strncmp(name, "./", 2) == 0) {
    // A file named by path: no change tracking, named after its last part.
    path = name;
    pkg = strrchr(name, '/') + 1;
    has_delta = false;
  } else if (name[0] == '.') {
    return UCI_ERR_NOTFOUND;
  } else {
    if (!valid_package_name(name)) return UCI_ERR_INVAL;
    if (!empty(ctx->conf2dir)) {
      path = join(ctx->conf2dir, name);
      conf2 = is_regular(path);
    }
    if (!conf2) path = join(ctx->confdir, name);
  }
  if (find_loaded(ctx, pkg)) return UCI_ERR_DUPLICATE;
  std::string text;
  switch (read_locked(path.c_str(), LOCK_SH, &text)) {
    case kReadOk:
      break;
    case kReadMissing:
      return UCI_ERR_NOTFOUND;
    default:
      return UCI_ERR_IO;
  }
  if (!*pkg) return UCI_ERR_NOTFOUND;
  return build_package(ctx, pkg, path.c_str(), text, has_delta, conf2, nullptr, nullptr, out,
                       nullptr);
}

// ---- pointers ----------------------------------------------------------------

int parse_ptr(uci_ptr *ptr, char *str) {
  memset(ptr, 0, sizeof *ptr);
  if (!str) return UCI_ERR_INVAL;
  char *eq = strchr(str, '=');
  if (eq) {
    *eq = '\0';
    ptr->value = eq + 1;
  }
  ptr->package = str;
  char *dot = strchr(str, '.');
  if (dot) {
    *dot = '\0';
    ptr->section = dot + 1;
    char *dot2 = strchr(dot + 1, '.');
    if (dot2) {
      *dot2 = '\0';
      ptr->option = dot2 + 1;
    }
  }
  if (empty(ptr->package) || (ptr->section && !*ptr->section) ||
      (ptr->option && (!*ptr->option || strchr(ptr->option, '.'))))
    return UCI_ERR_PARSE;
  ptr->target = ptr->option ? UCI_TYPE_OPTION : ptr->section ? UCI_TYPE_SECTION : UCI_TYPE_PACKAGE;
  return UCI_OK;
}

// "@type[i]": the i-th section of that type (negative: from the end).
int lookup_extended(uci_package *p, const char *selector, uci_section **out) {
  *out = nullptr;
  const char *open = strchr(selector, '[');
  if (!open) return UCI_ERR_INVAL;
  std::string type(selector + 1, open);
  char *end = nullptr;
  long idx = strtol(open + 1, &end, 10);
  if (end == open + 1 || strcmp(end, "]") != 0) return UCI_ERR_INVAL;
  long count = 0;
  uci_element *e;
  uci_foreach_element(&p->sections, e) {
    if (type.empty() || type == uci_to_section(e)->type) ++count;
  }
  if (idx < 0) idx += count;
  if (idx < 0 || idx >= count) return UCI_OK;
  uci_foreach_element(&p->sections, e) {
    if (!type.empty() && type != uci_to_section(e)->type) continue;
    if (idx-- == 0) {
      *out = uci_to_section(e);
      break;
    }
  }
  return UCI_OK;
}

// Fills in p, s, o and last from the names (and the records already set),
// loading the package when it is not loaded yet.
int resolve(uci_context *ctx, uci_ptr *ptr) {
  bool extended = (ptr->flags & uci_ptr::UCI_LOOKUP_EXTENDED) != 0;
  bool complete = true;
  if (!ptr->p) {
    if (empty(ptr->package)) return UCI_ERR_INVAL;
    ptr->p = find_loaded(ctx, ptr->package);
    if (!ptr->p) {
      int err = load_package(ctx, ptr->package, &ptr->p);
      if (err) {
        ptr->p = nullptr;
        return err;
      }
    }
  }
  if (!ptr->s && !empty(ptr->section)) {
    if (extended && ptr->section[0] == '@') {
      int err = lookup_extended(ptr->p, ptr->section, &ptr->s);
      if (err) return err;
      if (ptr->s) ptr->section = ptr->s->e.name;
    } else {
      ptr->s = section_find(ptr->p, ptr->section);
    }
    if (!ptr->s) complete = false;
  }
  ptr->o = nullptr;
  if (!empty(ptr->option)) {
    if (ptr->s) ptr->o = option_find(ptr->s, ptr->option);
    if (!ptr->o) complete = false;
  }
  ptr->last = ptr->o ? &ptr->o->e : ptr->s ? &ptr->s->e : &ptr->p->e;
  if (empty(ptr->package)) ptr->package = ptr->p->e.name;
  if (empty(ptr->section) && ptr->s) ptr->section = ptr->s->e.name;
  if (!empty(ptr->option)) ptr->target = UCI_TYPE_OPTION;
  else if (!empty(ptr->section) || ptr->s) ptr->target = UCI_TYPE_SECTION;
  else ptr->target = UCI_TYPE_PACKAGE;
  ptr->flags = static_cast<PtrFlags>(uci_ptr::UCI_LOOKUP_DONE |
                                     (complete ? uci_ptr::UCI_LOOKUP_COMPLETE : 0));
  return UCI_OK;
}

int ensure_resolved(uci_context *ctx, uci_ptr *ptr) {
  if (!ptr) return UCI_ERR_INVAL;
  if (ptr->flags & uci_ptr::UCI_LOOKUP_DONE) return ptr->p ? UCI_OK : UCI_ERR_INVAL;
  return resolve(ctx, ptr);
}

bool names_section(const uci_ptr *ptr) { return ptr->s || !empty(ptr->section); }

// The section named by `ptr` is about to be freed: its name must not be
// reachable from the pointer afterwards.
void forget_section(uci_ptr *ptr) {
  if (ptr->s && ptr->section == ptr->s->e.name) ptr->section = nullptr;
  ptr->s = nullptr;
  ptr->o = nullptr;
  ptr->last = &ptr->p->e;
}

// ---- editing -----------------------------------------------------------------

int remove_named(uci_ptr *ptr) {
  uci_package *p = ptr->p;
  if (ptr->o) {
    if (!record_delta(p, kDeltaRemove, ptr->s->e.name, ptr->o->e.name, nullptr))
      return UCI_ERR_MEM;
    option_free(ptr->o);
    ptr->o = nullptr;
    ptr->last = &ptr->s->e;
    return UCI_OK;
  }
  if (!record_delta(p, kDeltaRemove, ptr->s->e.name, nullptr, nullptr)) return UCI_ERR_MEM;
  uci_section *s = ptr->s;
  forget_section(ptr);
  section_free(s);
  return UCI_OK;
}

int do_set(uci_context *ctx, uci_ptr *ptr) {
  int err = ensure_resolved(ctx, ptr);
  if (err) return err;
  if (!ptr->value) return UCI_ERR_INVAL;
  uci_package *p = ptr->p;
  const bool has_opt = !empty(ptr->option);
  if (!*ptr->value) {
    // An empty value deletes what is named, if it is all there.
    if (has_opt ? (ptr->o != nullptr) : (ptr->s != nullptr)) return remove_named(ptr);
    return UCI_OK;
  }
  if (!ptr->s) {
    if (has_opt || empty(ptr->section)) return UCI_ERR_INVAL;
    if (!valid_type(ptr->value)) return UCI_ERR_INVAL;
    uci_section *s = section_add(p, ptr->value, ptr->section, false);
    if (!s || !record_delta(p, kDeltaChange, s->e.name, nullptr, ptr->value)) {
      section_free(s);
      return UCI_ERR_MEM;
    }
    ptr->s = s;
    ptr->last = &s->e;
    return UCI_OK;
  }
  // Each change is recorded before it is made: one that cannot be recorded
  // is not made, and one that cannot be made (or makes no change) takes its
  // record back.
  if (has_opt) {
    if (!record_delta(p, kDeltaChange, ptr->s->e.name, ptr->option, ptr->value)) return UCI_ERR_MEM;
    uci_option *o = nullptr;
    switch (set_option(ptr->s, ptr->option, ptr->value, &o)) {
      case kNoMemory:
        drop_last_delta(p);
        return UCI_ERR_MEM;
      case kUnchanged:
        drop_last_delta(p);
        break;
      default:
        break;
    }
    ptr->o = o;
    ptr->last = &o->e;
    return UCI_OK;
  }
  if (!valid_type(ptr->value)) return UCI_ERR_INVAL;
  const char *old_name = ptr->s->e.name;
  uci_section *s = ptr->s;
  if (!record_delta(p, kDeltaChange, s->e.name, nullptr, ptr->value)) return UCI_ERR_MEM;
  switch (set_section_type(&s, ptr->value)) {
    case kNoMemory:
      drop_last_delta(p);
      return UCI_ERR_MEM;
    case kUnchanged:
      drop_last_delta(p);
      break;
    default:
      if (ptr->section == old_name) ptr->section = s->e.name;
      ptr->s = s;
  }
  ptr->last = &s->e;
  return UCI_OK;
}

int do_add_list(uci_context *ctx, uci_ptr *ptr) {
  int err = ensure_resolved(ctx, ptr);
  if (err) return err;
  if (!ptr->s || !ptr->value || empty(ptr->option)) return UCI_ERR_INVAL;
  if (!record_delta(ptr->p, kDeltaListAdd, ptr->s->e.name, ptr->option, ptr->value)) return UCI_ERR_MEM;
  uci_option *o = nullptr;
  if (add_list_item(ptr->s, ptr->option, ptr->value, &o) == kNoMemory) {
    drop_last_delta(ptr->p);
    return UCI_ERR_MEM;
  }
  ptr->o = o;
  ptr->last = &o->e;
  return UCI_OK;
}

int do_del_list(uci_context *ctx, uci_ptr *ptr) {
  int err = ensure_resolved(ctx, ptr);
  if (err) return err;
  if (!ptr->s || !ptr->value || empty(ptr->option)) return UCI_ERR_INVAL;
  if (!ptr->o || ptr->o->type != UCI_TYPE_LIST) return UCI_OK;
  if (!record_delta(ptr->p, kDeltaListDel, ptr->s->e.name, ptr->o->e.name, ptr->value))
    return UCI_ERR_MEM;
  del_list_item(ptr->o, ptr->value);
  return UCI_OK;
}

int do_delete(uci_context *ctx, uci_ptr *ptr) {
  int err = ensure_resolved(ctx, ptr);
  if (err) return err;
  if (!names_section(ptr)) return UCI_ERR_INVAL;
  if (!ptr->s) return UCI_ERR_NOTFOUND;
  if (!empty(ptr->option)) {
    uci_option *o = ptr->o;
    if (!o) return UCI_ERR_NOTFOUND;
    if (o->type == UCI_TYPE_LIST && !empty(ptr->value)) {
      // On a list, a value is the index of the one item to remove.
      if (!record_delta(ptr->p, kDeltaRemove, ptr->s->e.name, o->e.name, ptr->value))
        return UCI_ERR_MEM;
      switch (del_list_index(o, ptr->value)) {
        case kBadIndex:
          drop_last_delta(ptr->p);
          return UCI_ERR_MEM;
        case kUnchanged:
          drop_last_delta(ptr->p);
          return UCI_ERR_NOTFOUND;
        default:
          return UCI_OK;
      }
    }
  }
  return remove_named(ptr);
}

int do_rename(uci_context *ctx, uci_ptr *ptr) {
  int err = ensure_resolved(ctx, ptr);
  if (err) return err;
  if (!names_section(ptr) || !ptr->value) return UCI_ERR_INVAL;
  if (!ptr->s || (!empty(ptr->option) && !ptr->o)) return UCI_ERR_NOTFOUND;
  if (!valid_name(ptr->value)) return UCI_ERR_INVAL;
  uci_element *e = ptr->o ? &ptr->o->e : &ptr->s->e;
  const char *old = e->name;
  if (!record_delta(ptr->p, kDeltaRename, ptr->s->e.name, ptr->o ? ptr->o->e.name : nullptr,
                    ptr->value))
    return UCI_ERR_MEM;
  if (!rename_element(e, ptr->value)) {
    drop_last_delta(ptr->p);
    return UCI_ERR_MEM;
  }
  if (ptr->section == old) ptr->section = e->name;
  if (ptr->option == old) ptr->option = e->name;
  ptr->last = e;
  return UCI_OK;
}

// ---- save, commit, revert ----------------------------------------------------

// Moves the pending changes of `p` into its change file in the savedir.
int save_pending(uci_context *ctx, uci_package *p) {
  if (uci_list_empty(&p->delta)) return UCI_OK;
  if (!append_change_file(ctx->savedir, p->e.name, pending_lines(p))) return UCI_ERR_IO;
  free_deltas(&p->delta);
  return UCI_OK;
}

// Removes from `<savedir>/<package>` the changes of one section (and
// option), or all of them when `section` is nullptr.
bool filter_change_file(uci_context *ctx, const char *package, const char *section,
                        const char *option) {
  Fd fd(open(join(ctx->savedir, package).c_str(), O_RDWR | O_CLOEXEC));
  if (fd.get() < 0) return errno == ENOENT;
  if (flock(fd.get(), LOCK_EX) < 0) return false;
  std::string keep;
  if (section) {
    std::string text;
    if (!read_fd(fd.get(), &text)) return false;
    for (const DeltaRec &d : parse_deltas(text, package)) {
      if (d.section == section && (!option || d.option == option)) continue;
      keep += delta_line(package, d);
    }
  }
  if (ftruncate(fd.get(), 0) < 0 || lseek(fd.get(), 0, SEEK_SET) < 0) return false;
  return keep.empty() || write(fd.get(), keep.data(), keep.size()) == static_cast<ssize_t>(keep.size());
}

// Counts the entries of every change file of the package.
int count_changes(uci_context *ctx, const char *package, const std::string *held_text) {
  int n = 0;
  uci_element *e;
  uci_foreach_element(&ctx->delta_path, e) {
    std::string text;
    if (strcmp(e->name, ctx->savedir) == 0) {
      if (!held_text) continue;
      text = *held_text;
    } else if (read_locked(join(e->name, package).c_str(), LOCK_SH, &text) != kReadOk) {
      continue;
    }
    n += static_cast<int>(parse_deltas(text, package).size());
  }
  return n;
}

int do_commit(uci_context *ctx, uci_package **pp, bool overwrite) {
  if (!pp || !*pp) return UCI_ERR_INVAL;
  uci_package *p = *pp;
  // The exclusive lock on the file keeps other writers out until the new
  // file has been renamed into place.
  Fd fd(open(p->path, O_RDWR | O_CLOEXEC));
  if (fd.get() < 0 || flock(fd.get(), LOCK_EX) < 0) return UCI_ERR_IO;
  struct stat st;
  if (fstat(fd.get(), &st) < 0) return UCI_ERR_IO;
  const std::string name = p->e.name;
  const std::string path = p->path;
  const bool conf2 = p->uses_conf2;
  const char *tmpdir = conf2 && !empty(ctx->conf2dir) ? ctx->conf2dir : ctx->confdir;

  if (!p->has_delta) {
    if (!replace_file(tmpdir, name.c_str(), path.c_str(), write_config(p), st.st_mode))
      return UCI_ERR_IO;
    free_deltas(&p->delta);
    return UCI_OK;
  }

  if (!overwrite) {
    int err = save_pending(ctx, p);
    if (err) return err;
  }
  // Our own change file is read and emptied under one lock, so that no
  // change another process appends in between is lost.
  Fd cf(open(join(ctx->savedir, name.c_str()).c_str(), O_RDWR | O_CLOEXEC));
  std::string ctext;
  const bool have_cf = cf.get() >= 0 && flock(cf.get(), LOCK_EX) == 0 && read_fd(cf.get(), &ctext);

  if (overwrite) {
    if (count_changes(ctx, name.c_str(), have_cf ? &ctext : nullptr) == 0) return UCI_OK;
    if (!replace_file(tmpdir, name.c_str(), path.c_str(), write_config(p), st.st_mode))
      return UCI_ERR_IO;
    if (have_cf && ftruncate(cf.get(), 0) < 0) return UCI_ERR_IO;
    free_deltas(&p->delta);
    return UCI_OK;
  }

  std::string text;
  if (!read_fd(fd.get(), &text)) return UCI_ERR_IO;
  // The package is rebuilt from the file and all change files: that is what
  // gets written, and what the caller holds from now on.
  package_free(p);
  *pp = nullptr;
  uci_package *fresh = nullptr;
  int applied = 0;
  int err = build_package(ctx, name.c_str(), path.c_str(), text, true, conf2, ctx->savedir,
                          have_cf ? &ctext : nullptr, &fresh, &applied);
  if (err) return err;
  *pp = fresh;
  if (have_cf && ftruncate(cf.get(), 0) < 0) return UCI_ERR_IO;
  if (applied == 0) return UCI_OK;
  if (!replace_file(tmpdir, name.c_str(), path.c_str(), write_config(fresh), st.st_mode))
    return UCI_ERR_IO;
  return UCI_OK;
}

int do_revert(uci_context *ctx, uci_ptr *ptr) {
  int err = ensure_resolved(ctx, ptr);
  if (err) return err;
  uci_package *p = ptr->p;
  if (!p->has_delta) return UCI_ERR_INVAL;
  err = save_pending(ctx, p);
  if (err) return err;

  const std::string name = p->e.name;
  const bool has_sec = names_section(ptr);
  const bool has_opt = has_sec && (ptr->o || !empty(ptr->option));
  const std::string section = !has_sec ? "" : ptr->s ? ptr->s->e.name : ptr->section;
  const std::string option = !has_opt ? "" : ptr->o ? ptr->o->e.name : ptr->option;
  // Names that point into the records being freed are re-pointed below.
  const bool own_pkg = ptr->package == p->e.name;
  const bool own_sec = ptr->s && ptr->section == ptr->s->e.name;
  const bool own_opt = ptr->o && ptr->option == ptr->o->e.name;

  package_free(p);
  ptr->p = nullptr;
  ptr->s = nullptr;
  ptr->o = nullptr;
  ptr->last = nullptr;
  if (own_pkg) ptr->package = nullptr;
  if (own_sec) ptr->section = nullptr;
  if (own_opt) ptr->option = nullptr;

  bool filtered = filter_change_file(ctx, name.c_str(), has_sec ? section.c_str() : nullptr,
                                     has_opt ? option.c_str() : nullptr);
  uci_package *fresh = nullptr;
  err = load_package(ctx, name.c_str(), &fresh);
  if (err) return err;
  ptr->p = fresh;
  if (own_pkg) ptr->package = fresh->e.name;
  bool complete = true;
  if (has_sec) {
    ptr->s = section_find(fresh, section.c_str());
    if (ptr->s && own_sec) ptr->section = ptr->s->e.name;
    complete = ptr->s != nullptr;
  }
  if (has_opt) {
    ptr->o = ptr->s ? option_find(ptr->s, option.c_str()) : nullptr;
    if (ptr->o && own_opt) ptr->option = ptr->o->e.name;
    complete = complete && ptr->o != nullptr;
  }
  ptr->last = ptr->o ? &ptr->o->e : ptr->s ? &ptr->s->e : &fresh->e;
  ptr->flags = static_cast<PtrFlags>(uci_ptr::UCI_LOOKUP_DONE |
                                     (complete ? uci_ptr::UCI_LOOKUP_COMPLETE : 0));
  return filtered ? UCI_OK : UCI_ERR_IO;
}

int list_configs(uci_context *ctx, char ***out) {
  if (!out) return UCI_ERR_INVAL;
  DIR *dir = opendir(ctx->confdir);
  if (!dir) return UCI_ERR_NOTFOUND;
  std::vector<std::string> names;
  try {
    while (dirent *d = readdir(dir)) {
      if (d->d_name[0] == '.') continue;
      if (is_regular(join(ctx->confdir, d->d_name))) names.push_back(d->d_name);
    }
  } catch (...) {
    closedir(dir);
    throw;
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  // One block: the pointer array, then the strings; the caller frees it.
  size_t size = (names.size() + 1) * sizeof(char *);
  for (const std::string &n : names) size += n.size() + 1;
  auto **list = static_cast<char **>(malloc(size));
  if (!list) return UCI_ERR_MEM;
  char *text = reinterpret_cast<char *>(list + names.size() + 1);
  for (size_t i = 0; i < names.size(); ++i) {
    list[i] = text;
    memcpy(text, names[i].c_str(), names[i].size() + 1);
    text += names[i].size() + 1;
  }
  list[names.size()] = nullptr;
  *out = list;
  return UCI_OK;
}

}  // namespace
}  // namespace uci_impl
}  // namespace rk

using namespace rk::uci_impl;

extern "C" {

struct uci_context *uci_alloc_context(void) {
  auto *ctx = static_cast<uci_context *>(calloc(1, sizeof(uci_context)));
  if (!ctx) return nullptr;
  list_init(&ctx->root);
  list_init(&ctx->backends);
  list_init(&ctx->delta_path);
  ctx->flags = static_cast<uci_flags>(UCI_FLAG_STRICT | UCI_FLAG_SAVED_DELTA);
  ctx->confdir = strdup(UCI_CONFDIR);
  ctx->savedir = strdup(UCI_SAVEDIR);
  ctx->conf2dir = strdup(UCI_CONF2DIR);
  uci_element *path = new_path(UCI_SAVEDIR);
  if (path) list_insert_before(&path->list, &ctx->delta_path);
  if (!ctx->confdir || !ctx->savedir || !ctx->conf2dir || !path) {
    uci_free_context(ctx);
    return nullptr;
  }
  return ctx;
}

void uci_free_context(struct uci_context *ctx) {
  if (!ctx) return;
  while (!uci_list_empty(&ctx->root)) package_free(uci_to_package(list_to_element(ctx->root.next)));
  while (!uci_list_empty(&ctx->delta_path)) free_path(list_to_element(ctx->delta_path.next));
  delete ctx->pctx;
  free(ctx->confdir);
  free(ctx->savedir);
  free(ctx->conf2dir);
  free(ctx);
}

int uci_set_confdir(struct uci_context *ctx, const char *dir) {
  return guarded(ctx, __func__, [&]() -> int { return dir ? replace_dir(&ctx->confdir, dir) : UCI_ERR_INVAL; });
}

int uci_set_savedir(struct uci_context *ctx, const char *dir) {
  return guarded(ctx, __func__, [&]() -> int {
    if (!dir) return UCI_ERR_INVAL;
    // The savedir is always the last place changes are read from.
    uci_element *e = new_path(dir);
    if (!e || replace_dir(&ctx->savedir, dir) != UCI_OK) {
      if (e) free_path(e);
      return UCI_ERR_MEM;
    }
    if (uci_element *old = find_path(ctx, dir)) free_path(old);
    list_insert_before(&e->list, &ctx->delta_path);
    return UCI_OK;
  });
}

int uci_set_conf2dir(struct uci_context *ctx, const char *dir) {
  if (!ctx) return UCI_ERR_INVAL;
  if (empty(dir)) {
    free(ctx->conf2dir);
    ctx->conf2dir = nullptr;
    return finish(ctx, __func__, UCI_OK);
  }
  return guarded(ctx, __func__, [&]() -> int { return replace_dir(&ctx->conf2dir, dir); });
}

int uci_add_delta_path(struct uci_context *ctx, const char *dir) {
  return guarded(ctx, __func__, [&]() -> int {
    if (!dir) return UCI_ERR_INVAL;
    if (find_path(ctx, dir)) return UCI_ERR_DUPLICATE;
    uci_element *e = new_path(dir);
    if (!e) return UCI_ERR_MEM;
    // Keep the savedir last.
    uci_element *save = find_path(ctx, ctx->savedir);
    list_insert_before(&e->list, save ? &save->list : &ctx->delta_path);
    return UCI_OK;
  });
}

void uci_perror(struct uci_context *ctx, const char *prefix) {
  if (!ctx) return;
  try {
    fprintf(stderr, "%s\n", error_text(ctx, prefix).c_str());
  } catch (...) {
  }
}

void uci_get_errorstr(struct uci_context *ctx, char **dest, const char *prefix) {
  if (!ctx) return;
  try {
    std::string text = error_text(ctx, prefix);
    if (dest)
      *dest = strdup(text.c_str());
    else
      fprintf(stderr, "%s\n", text.c_str());
  } catch (...) {
    if (dest) *dest = nullptr;
  }
}

int uci_load(struct uci_context *ctx, const char *name, struct uci_package **package) {
  return guarded(ctx, __func__, [&]() -> int {
    uci_package *p = nullptr;
    int err = load_package(ctx, name, &p);
    if (err == UCI_OK && package) *package = p;
    return err;
  });
}

int uci_unload(struct uci_context *ctx, struct uci_package *p) {
  return guarded(ctx, __func__, [&]() -> int {
    if (!p) return UCI_ERR_INVAL;
    package_free(p);
    return UCI_OK;
  });
}

int uci_list_configs(struct uci_context *ctx, char ***list) {
  return guarded(ctx, __func__, [&]() -> int { return list_configs(ctx, list); });
}

int uci_lookup_next(struct uci_context *ctx, struct uci_element **e, struct uci_list *list,
                    const char *name) {
  return guarded(ctx, __func__, [&]() -> int {
    if (!e) return UCI_ERR_INVAL;
    *e = nullptr;
    if (!list || !name) return UCI_ERR_INVAL;
    uci_element *it;
    uci_foreach_element(list, it) {
      if (it->name && strcmp(it->name, name) == 0) {
        *e = it;
        return UCI_OK;
      }
    }
    return UCI_ERR_NOTFOUND;
  });
}

int uci_parse_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str) {
  return guarded(ctx, __func__, [&]() -> int { return ptr ? parse_ptr(ptr, str) : UCI_ERR_INVAL; });
}

int uci_lookup_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str, bool extended) {
  return guarded(ctx, __func__, [&]() -> int {
    if (!ptr) return UCI_ERR_INVAL;
    if (str) {
      int err = parse_ptr(ptr, str);
      if (err) return err;
    }
    ptr->flags = static_cast<PtrFlags>(extended ? uci_ptr::UCI_LOOKUP_EXTENDED : 0);
    return resolve(ctx, ptr);
  });
}

int uci_add_section(struct uci_context *ctx, struct uci_package *p, const char *type,
                    struct uci_section **res) {
  return guarded(ctx, __func__, [&]() -> int {
    if (!p || !valid_type(type)) return UCI_ERR_INVAL;
    uci_section *s = section_add(p, type, nullptr, true);
    if (!s || !record_delta(p, kDeltaAdd, s->e.name, nullptr, type)) {
      section_free(s);
      return UCI_ERR_MEM;
    }
    if (res) *res = s;
    return UCI_OK;
  });
}

int uci_set(struct uci_context *ctx, struct uci_ptr *ptr) {
  return guarded(ctx, __func__, [&]() -> int { return do_set(ctx, ptr); });
}

int uci_add_list(struct uci_context *ctx, struct uci_ptr *ptr) {
  return guarded(ctx, __func__, [&]() -> int { return do_add_list(ctx, ptr); });
}

int uci_del_list(struct uci_context *ctx, struct uci_ptr *ptr) {
  return guarded(ctx, __func__, [&]() -> int { return do_del_list(ctx, ptr); });
}

int uci_rename(struct uci_context *ctx, struct uci_ptr *ptr) {
  return guarded(ctx, __func__, [&]() -> int { return do_rename(ctx, ptr); });
}

int uci_reorder_section(struct uci_context *ctx, struct uci_section *s, int pos) {
  return guarded(ctx, __func__, [&]() -> int {
    if (!s || pos < 0) return UCI_ERR_INVAL;
    std::string where = std::to_string(pos);
    if (!record_delta(s->package, kDeltaReorder, s->e.name, nullptr, where.c_str()))
      return UCI_ERR_MEM;
    move_section(s, pos);
    return UCI_OK;
  });
}

int uci_delete(struct uci_context *ctx, struct uci_ptr *ptr) {
  return guarded(ctx, __func__, [&]() -> int { return do_delete(ctx, ptr); });
}

int uci_save(struct uci_context *ctx, struct uci_package *p) {
  return guarded(ctx, __func__, [&]() -> int {
    if (!p) return UCI_ERR_INVAL;
    if (!p->has_delta) return do_commit(ctx, &p, false);
    return save_pending(ctx, p);
  });
}

int uci_commit(struct uci_context *ctx, struct uci_package **p, bool overwrite) {
  return guarded(ctx, __func__, [&]() -> int { return do_commit(ctx, p, overwrite); });
}

int uci_revert(struct uci_context *ctx, struct uci_ptr *ptr) {
  return guarded(ctx, __func__, [&]() -> int { return do_revert(ctx, ptr); });
}

}  // extern "C"
