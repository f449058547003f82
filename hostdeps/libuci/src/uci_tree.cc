// The in-memory tree: records, names, the editing primitives every change goes
// through (from the API or from a change file) and the pending-change list.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <new>
#include <string>

#include "uci_impl.h"

namespace rk {
namespace uci_impl {
namespace {

char *dup_str(const char *s) { return s ? strdup(s) : nullptr; }

void set_element(uci_element *e, uci_type type) {
  e->list.next = e->list.prev = nullptr;
  e->type = type;
}

bool linked(const uci_list *node) { return node->next != nullptr; }

// Swaps `fresh` into the list position of `old` (which is left unlinked).
void replace_in_list(uci_list *old, uci_list *fresh) {
  list_insert_before(fresh, old);
  list_unlink(old);
}

void free_items(uci_list *head) {
  uci_element *e, *tmp;
  uci_foreach_element_safe(head, tmp, e) {
    list_unlink(&e->list);
    free(e->name);
    free(e);
  }
}

}  // namespace

// ---- intrusive uci_list ------------------------------------------------------

void list_init(uci_list *head) { head->next = head->prev = head; }

void list_insert_before(uci_list *node, uci_list *pos) {
  node->next = pos;
  node->prev = pos->prev;
  pos->prev->next = node;
  pos->prev = node;
}

void list_unlink(uci_list *node) {
  if (!linked(node)) return;
  node->prev->next = node->next;
  node->next->prev = node->prev;
  node->next = node->prev = nullptr;
}

// ---- names -------------------------------------------------------------------

bool valid_name(const char *s) {
  if (!s || !*s) return false;
  for (; *s; ++s) {
    unsigned char c = static_cast<unsigned char>(*s);
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_'))
      return false;
  }
  return true;
}

bool valid_type(const char *s) {
  if (!s || !*s) return false;
  for (; *s; ++s) {
    unsigned char c = static_cast<unsigned char>(*s);
    if (c < 33 || c > 126) return false;
  }
  return true;
}

bool valid_package_name(const char *s) { return valid_type(s); }

bool valid_value(const char *s) {
  if (!s) return false;
  for (; *s; ++s) {
    unsigned char c = static_cast<unsigned char>(*s);
    if (c < 32 && c != '\t' && c != '\n' && c != '\r') return false;
    if (c == 127) return false;
  }
  return true;
}

std::string anonymous_name(int ordinal, const char *type) {
  uint32_t h = 5381;
  for (const unsigned char *c = reinterpret_cast<const unsigned char *>(type); *c; ++c)
    h = h * 33u + *c;
  h &= 0x7fffffffu;
  char buf[32];
  snprintf(buf, sizeof buf, "cfg%02x%04x", static_cast<unsigned>(ordinal), h & 0xffffu);
  return buf;
}

// ---- records -----------------------------------------------------------------

uci_package *package_new(uci_context *ctx, const char *name, const char *path) {
  auto *p = static_cast<uci_package *>(calloc(1, sizeof(uci_package)));
  if (!p) return nullptr;
  set_element(&p->e, UCI_TYPE_PACKAGE);
  list_init(&p->sections);
  list_init(&p->delta);
  list_init(&p->saved_delta);
  p->ctx = ctx;
  p->e.name = dup_str(name);
  p->path = dup_str(path);
  if (!p->e.name || (path && !p->path)) {
    package_free(p);
    return nullptr;
  }
  return p;
}

void package_free(uci_package *p) {
  if (!p) return;
  list_unlink(&p->e.list);
  uci_element *e, *tmp;
  uci_foreach_element_safe(&p->sections, tmp, e) section_free(uci_to_section(e));
  free_deltas(&p->delta);
  free_deltas(&p->saved_delta);
  free(p->path);
  free(p->e.name);
  free(p);
}

uci_section *section_find(uci_package *p, const char *name) {
  uci_element *e;
  uci_foreach_element(&p->sections, e) {
    if (strcmp(e->name, name) == 0) return uci_to_section(e);
  }
  return nullptr;
}

uci_option *option_find(uci_section *s, const char *name) {
  uci_element *e;
  uci_foreach_element(&s->options, e) {
    if (strcmp(e->name, name) == 0) return uci_to_option(e);
  }
  return nullptr;
}

namespace {

uci_section *section_alloc(uci_package *p, const char *type, const char *name, bool anonymous) {
  auto *s = static_cast<uci_section *>(calloc(1, sizeof(uci_section)));
  if (!s) return nullptr;
  set_element(&s->e, UCI_TYPE_SECTION);
  list_init(&s->options);
  s->package = p;
  s->anonymous = anonymous;
  s->type = dup_str(type);
  s->e.name = dup_str(name);
  if (!s->type || !s->e.name) {
    free(s->type);
    free(s->e.name);
    free(s);
    return nullptr;
  }
  return s;
}

uci_option *option_alloc(uci_section *s, const char *name, uci_option_type type) {
  auto *o = static_cast<uci_option *>(calloc(1, sizeof(uci_option)));
  if (!o) return nullptr;
  set_element(&o->e, UCI_TYPE_OPTION);
  o->section = s;
  o->type = type;
  if (type == UCI_TYPE_LIST) list_init(&o->v.list);
  o->e.name = dup_str(name);
  if (!o->e.name) {
    free(o);
    return nullptr;
  }
  return o;
}

}  // namespace

uci_section *section_add(uci_package *p, const char *type, const char *name, bool anonymous) {
  std::string generated;
  if (!name) {
    generated = anonymous_name(p->n_section + 1, type);
    name = generated.c_str();
    anonymous = true;
  }
  uci_section *s = section_alloc(p, type, name, anonymous);
  if (!s) return nullptr;
  p->n_section++;
  list_insert_before(&s->e.list, &p->sections);
  return s;
}

void section_free(uci_section *s) {
  if (!s) return;
  list_unlink(&s->e.list);
  uci_element *e, *tmp;
  uci_foreach_element_safe(&s->options, tmp, e) option_free(uci_to_option(e));
  free(s->type);
  free(s->e.name);
  free(s);
}

uci_option *option_add_string(uci_section *s, const char *name, const char *value, uci_list *pos) {
  uci_option *o = option_alloc(s, name, UCI_TYPE_STRING);
  if (!o) return nullptr;
  o->v.string = dup_str(value);
  if (!o->v.string) {
    option_free(o);
    return nullptr;
  }
  list_insert_before(&o->e.list, pos ? pos : &s->options);
  return o;
}

uci_option *option_add_list(uci_section *s, const char *name, uci_list *pos) {
  uci_option *o = option_alloc(s, name, UCI_TYPE_LIST);
  if (!o) return nullptr;
  list_insert_before(&o->e.list, pos ? pos : &s->options);
  return o;
}

bool option_append_item(uci_option *o, const char *value) {
  auto *item = static_cast<uci_element *>(calloc(1, sizeof(uci_element)));
  if (!item) return false;
  set_element(item, UCI_TYPE_ITEM);
  item->name = dup_str(value);
  if (!item->name) {
    free(item);
    return false;
  }
  list_insert_before(&item->list, &o->v.list);
  return true;
}

void option_free(uci_option *o) {
  if (!o) return;
  list_unlink(&o->e.list);
  if (o->type == UCI_TYPE_LIST)
    free_items(&o->v.list);
  else
    free(o->v.string);
  free(o->e.name);
  free(o);
}

// ---- editing primitives ------------------------------------------------------

EditResult set_option(uci_section *s, const char *name, const char *value, uci_option **out) {
  uci_option *old = option_find(s, name);
  if (old && old->type == UCI_TYPE_STRING) {
    if (strcmp(old->v.string, value) == 0) {
      *out = old;
      return kUnchanged;
    }
    if (strlen(old->v.string) == strlen(value)) {
      // Same length: the value is overwritten where it is.
      memcpy(old->v.string, value, strlen(value));
      *out = old;
      return kChanged;
    }
  }
  uci_option *o = option_add_string(s, name, value, old ? &old->e.list : nullptr);
  if (!o) return kNoMemory;
  option_free(old);
  *out = o;
  return kChanged;
}

EditResult set_section_type(uci_section **sp, const char *type) {
  uci_section *s = *sp;
  if (strcmp(s->type, type) == 0) return kUnchanged;
  if (strlen(s->type) == strlen(type)) {
    memcpy(s->type, type, strlen(type));
    return kChanged;
  }
  uci_section *n = section_alloc(s->package, type, s->e.name, s->anonymous);
  if (!n) return kNoMemory;
  // The options move over to the new record; the old one is freed.
  uci_element *e, *tmp;
  uci_foreach_element_safe(&s->options, tmp, e) {
    list_unlink(&e->list);
    list_insert_before(&e->list, &n->options);
    uci_to_option(e)->section = n;
  }
  replace_in_list(&s->e.list, &n->e.list);
  section_free(s);
  *sp = n;
  return kChanged;
}

EditResult add_list_item(uci_section *s, const char *name, const char *value, uci_option **out) {
  uci_option *old = option_find(s, name);
  if (old && old->type == UCI_TYPE_LIST) {
    if (!option_append_item(old, value)) return kNoMemory;
    *out = old;
    return kChanged;
  }
  uci_option *o = option_add_list(s, name, old ? &old->e.list : nullptr);
  if (!o) return kNoMemory;
  if ((old && !option_append_item(o, old->v.string)) || !option_append_item(o, value)) {
    option_free(o);
    return kNoMemory;
  }
  option_free(old);
  *out = o;
  return kChanged;
}

EditResult del_list_item(uci_option *o, const char *value) {
  if (o->type != UCI_TYPE_LIST) return kUnchanged;
  uci_element *e, *tmp;
  uci_foreach_element_safe(&o->v.list, tmp, e) {
    if (strcmp(e->name, value) == 0) {
      list_unlink(&e->list);
      free(e->name);
      free(e);
    }
  }
  return kChanged;
}

EditResult del_list_index(uci_option *o, const char *index) {
  char *end = nullptr;
  long want = strtol(index, &end, 10);
  if (end == index || *end != '\0' || want < 0) return kBadIndex;
  long i = 0;
  uci_element *e;
  uci_foreach_element(&o->v.list, e) {
    if (i++ == want) {
      list_unlink(&e->list);
      free(e->name);
      free(e);
      return kChanged;
    }
  }
  return kUnchanged;
}

void move_section(uci_section *s, int pos) {
  uci_package *p = s->package;
  list_unlink(&s->e.list);
  uci_list *at = p->sections.next;
  for (int i = 0; i < pos && at != &p->sections; ++i) at = at->next;
  list_insert_before(&s->e.list, at);
}

bool rename_element(uci_element *e, const char *name) {
  char *n = dup_str(name);
  if (!n) return false;
  free(e->name);
  e->name = n;
  if (e->type == UCI_TYPE_SECTION) uci_to_section(e)->anonymous = false;
  return true;
}

// ---- pending changes ---------------------------------------------------------

bool record_delta(uci_package *p, DeltaCmd cmd, const char *section, const char *option,
                  const char *value) {
  if (!p->has_delta) return true;
  auto *d = static_cast<Delta *>(calloc(1, sizeof(Delta)));
  if (!d) return false;
  set_element(&d->e, UCI_TYPE_DELTA);
  d->cmd = cmd;
  d->e.name = dup_str(option);
  d->section = dup_str(section);
  d->value = dup_str(value);
  if ((option && !d->e.name) || (section && !d->section) || (value && !d->value)) {
    free(d->e.name);
    free(d->section);
    free(d->value);
    free(d);
    return false;
  }
  list_insert_before(&d->e.list, &p->delta);
  return true;
}

void drop_last_delta(uci_package *p) {
  if (!p->has_delta || uci_list_empty(&p->delta)) return;
  uci_element *last = list_to_element(p->delta.prev);
  uci_list one;
  list_init(&one);
  list_unlink(&last->list);
  list_insert_before(&last->list, &one);
  free_deltas(&one);
}

void free_deltas(uci_list *head) {
  uci_element *e, *tmp;
  uci_foreach_element_safe(head, tmp, e) {
    Delta *d = container_of(e, Delta, e);
    list_unlink(&e->list);
    free(d->e.name);
    free(d->section);
    free(d->value);
    free(d);
  }
}

std::string pending_lines(const uci_package *p) {
  std::string out;
  uci_element *e;
  uci_foreach_element(&p->delta, e) {
    const Delta *d = container_of(e, Delta, e);
    DeltaRec r;
    r.cmd = d->cmd;
    r.section = d->section ? d->section : "";
    r.option = d->e.name ? d->e.name : "";
    r.has_value = d->value != nullptr;
    if (d->value) r.value = d->value;
    out += delta_line(p->e.name, r);
  }
  return out;
}

// A change that no memory is left for is not one that no longer fits: it
// fails the load (or commit) as a whole instead of being dropped.
template <typename T>
bool made(T result) {
  if (!result) throw std::bad_alloc();
  return true;
}

bool apply_delta(uci_package *p, const DeltaRec &d) {
  const char *sec = d.section.c_str();
  const char *opt = d.option.empty() ? nullptr : d.option.c_str();
  const char *val = d.value.c_str();
  uci_section *s = section_find(p, sec);
  uci_option *o = (s && opt) ? option_find(s, opt) : nullptr;
  switch (d.cmd) {
    case kDeltaAdd:
      if (s || !d.has_value || !valid_type(val)) return false;
      return made(section_add(p, val, sec, true));
    case kDeltaChange:
      if (!d.has_value) return false;
      if (!opt) {
        if (!valid_type(val)) return false;
        if (!s) return made(section_add(p, val, sec, false));
        return made(set_section_type(&s, val) != kNoMemory);
      }
      if (!s) return false;
      if (*val == '\0') {
        if (!o) return false;
        option_free(o);
        return true;
      }
      return made(set_option(s, opt, val, &o) != kNoMemory);
    case kDeltaRemove:
      if (!s) return false;
      if (!opt) {
        section_free(s);
        return true;
      }
      if (!o) return false;
      if (o->type == UCI_TYPE_LIST && d.has_value && !d.value.empty())
        return del_list_index(o, val) == kChanged;
      option_free(o);
      return true;
    case kDeltaListAdd:
      if (!s || !opt || !d.has_value) return false;
      return made(add_list_item(s, opt, val, &o) != kNoMemory);
    case kDeltaListDel:
      if (!o || !d.has_value) return false;
      return del_list_item(o, val) == kChanged;
    case kDeltaRename:
      if (!s || !d.has_value || !valid_name(val)) return false;
      if (opt) return o && made(rename_element(&o->e, val));
      return made(rename_element(&s->e, val));
    case kDeltaReorder: {
      if (!s || opt || !d.has_value) return false;
      char *end = nullptr;
      long pos = strtol(val, &end, 10);
      if (end == val || *end || pos < 0 || pos > 0x7fffffffL) return false;
      move_section(s, static_cast<int>(pos));
      return true;
    }
  }
  return false;
}

}  // namespace uci_impl
}  // namespace rk
