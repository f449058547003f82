/*
 * Host stand-in for libuci: the UCI configuration files of a router, loaded
 * into packages of sections of options, edited in memory, with pending
 * changes kept in change files and committed back into the files.
 *
 * This is the subset the routerkit library, its tests and its example
 * daemons use, source-compatible with the platform's own <uci.h>: the same
 * record layouts for the public fields, the same result numbers, the same
 * file formats. Only field names of the public parts may be relied upon; the
 * private tail of every record differs between releases.
 *
 * Conventions: every operation returns one of the UCI_ERR_* numbers (0 on
 * success) and records it in the context; a NULL context gives
 * UCI_ERR_INVAL. Nothing is printed unless uci_perror() is called.
 */
#ifndef UCI_H
#define UCI_H

#include "uci_config.h"

#include <setjmp.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef UCI_CONFDIR
#define UCI_CONFDIR "/etc/config"
#endif
#ifndef UCI_SAVEDIR
#define UCI_SAVEDIR "/tmp/.uci"
#endif
#ifndef UCI_CONF2DIR
#define UCI_CONF2DIR "/var/run/uci"
#endif
#define UCI_DIRMODE 0700
#define UCI_FILEMODE 0600

enum {
  UCI_OK = 0,
  UCI_ERR_MEM,
  UCI_ERR_INVAL,
  UCI_ERR_NOTFOUND,
  UCI_ERR_IO,
  UCI_ERR_PARSE,
  UCI_ERR_DUPLICATE,
  UCI_ERR_UNKNOWN,
  UCI_ERR_LAST
};

enum uci_type {
  UCI_TYPE_UNSPEC = 0,
  UCI_TYPE_DELTA = 1,
  UCI_TYPE_PACKAGE = 2,
  UCI_TYPE_SECTION = 3,
  UCI_TYPE_OPTION = 4,
  UCI_TYPE_PATH = 5,
  UCI_TYPE_BACKEND = 6,
  UCI_TYPE_ITEM = 7,
  UCI_TYPE_HOOK = 8
};

enum uci_option_type {
  UCI_TYPE_STRING = 0,
  UCI_TYPE_LIST = 1
};

enum uci_flags {
  UCI_FLAG_STRICT = (1 << 0),      /* parse errors are fatal */
  UCI_FLAG_PERROR = (1 << 1),      /* print errors as they happen */
  UCI_FLAG_EXPORT_NAME = (1 << 2), /* export the package line too */
  UCI_FLAG_SAVED_DELTA = (1 << 3)  /* keep the applied change files in memory */
};

struct uci_context;
struct uci_backend;
struct uci_parse_context;

/* Circular list with a sentinel head, like list_head but its own type. */
struct uci_list {
  struct uci_list *next;
  struct uci_list *prev;
};

/* Common head of packages, sections, options and list items. */
struct uci_element {
  struct uci_list list;
  enum uci_type type;
  char *name;
};

struct uci_package {
  struct uci_element e; /* e.name: the package name */
  struct uci_list sections;
  struct uci_context *ctx;
  bool has_delta;  /* loaded by name: changes go through change files */
  bool uses_conf2; /* came from the conf2 directory */
  char *path;      /* the file it was loaded from */

  /* private */
  struct uci_backend *backend;
  void *priv;
  int n_section;
  struct uci_list delta;
  struct uci_list saved_delta;
};

struct uci_section {
  struct uci_element e; /* e.name: given, or generated for anonymous ones */
  struct uci_list options;
  struct uci_package *package;
  bool anonymous;
  char *type;
};

struct uci_option {
  struct uci_element e; /* e.name: the option name */
  struct uci_section *section;
  enum uci_option_type type;
  union {
    struct uci_list list; /* UCI_TYPE_LIST: elements of type UCI_TYPE_ITEM */
    char *string;         /* UCI_TYPE_STRING */
  } v;
};

struct uci_context {
  struct uci_list root; /* loaded packages */
  struct uci_parse_context *pctx;
  struct uci_backend *backend;
  struct uci_list backends;
  enum uci_flags flags;
  char *confdir;
  char *savedir;
  char *conf2dir;
  struct uci_list delta_path; /* directories searched for change files */

  /* private */
  int err;
  const char *func;
  jmp_buf trap;
  bool internal, nested;
  char *buf;
  int bufsz;
};

/*
 * A parsed "package[.section[.option]][=value]" and what it resolved to.
 * `package`, `section`, `option` and `value` point into the caller's string
 * (or into the records' names once resolved).
 */
struct uci_ptr {
  enum uci_type target;
  enum {
    UCI_LOOKUP_DONE = (1 << 0),
    UCI_LOOKUP_COMPLETE = (1 << 1),
    UCI_LOOKUP_EXTENDED = (1 << 2)
  } flags;

  struct uci_package *p;
  struct uci_section *s;
  struct uci_option *o;
  struct uci_element *last;

  const char *package;
  const char *section;
  const char *option;
  const char *value;
};

/* Context and directories. */
extern struct uci_context *uci_alloc_context(void);
extern void uci_free_context(struct uci_context *ctx);
extern int uci_set_confdir(struct uci_context *ctx, const char *dir);
extern int uci_set_savedir(struct uci_context *ctx, const char *dir);
extern int uci_set_conf2dir(struct uci_context *ctx, const char *dir);
extern int uci_add_delta_path(struct uci_context *ctx, const char *dir);

/* Errors: prints "<prefix>: <message>" (or just the message) to stderr. */
extern void uci_perror(struct uci_context *ctx, const char *prefix);
/* The same text, malloc'd into *dest (or printed when dest is NULL). */
extern void uci_get_errorstr(struct uci_context *ctx, char **dest, const char *prefix);

/* Loading. */
extern int uci_load(struct uci_context *ctx, const char *name, struct uci_package **package);
extern int uci_unload(struct uci_context *ctx, struct uci_package *p);
extern int uci_list_configs(struct uci_context *ctx, char ***list);

/* Lookups. */
extern int uci_lookup_next(struct uci_context *ctx, struct uci_element **e,
                           struct uci_list *list, const char *name);
extern int uci_parse_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str);
extern int uci_lookup_ptr(struct uci_context *ctx, struct uci_ptr *ptr, char *str, bool extended);

/* Editing. */
extern int uci_add_section(struct uci_context *ctx, struct uci_package *p, const char *type,
                           struct uci_section **res);
extern int uci_set(struct uci_context *ctx, struct uci_ptr *ptr);
extern int uci_add_list(struct uci_context *ctx, struct uci_ptr *ptr);
extern int uci_del_list(struct uci_context *ctx, struct uci_ptr *ptr);
extern int uci_rename(struct uci_context *ctx, struct uci_ptr *ptr);
extern int uci_reorder_section(struct uci_context *ctx, struct uci_section *s, int pos);
extern int uci_delete(struct uci_context *ctx, struct uci_ptr *ptr);

/* Changes. */
extern int uci_save(struct uci_context *ctx, struct uci_package *p);
extern int uci_commit(struct uci_context *ctx, struct uci_package **p, bool overwrite);
extern int uci_revert(struct uci_context *ctx, struct uci_ptr *ptr);

#ifndef container_of
#define container_of(ptr, type, member) ((type *)(void *)((char *)(ptr) - offsetof(type, member)))
#endif

#define list_to_element(ptr) container_of(ptr, struct uci_element, list)

/* Walks a uci_list; the current element must not be removed. */
#define uci_foreach_element(_list, _ptr)                   \
  for (_ptr = list_to_element((_list)->next);              \
       &(_ptr)->list != (_list);                           \
       _ptr = list_to_element((_ptr)->list.next))

/* Walks a uci_list; the current element may be removed. */
#define uci_foreach_element_safe(_list, _tmp, _ptr)        \
  for (_ptr = list_to_element((_list)->next),              \
       _tmp = list_to_element((_ptr)->list.next);          \
       &(_ptr)->list != (_list);                           \
       _ptr = _tmp, _tmp = list_to_element((_ptr)->list.next))

#define uci_list_empty(list) ((list)->next == (list))

#define uci_to_package(ptr) ((struct uci_package *)(ptr))
#define uci_to_section(ptr) ((struct uci_section *)(ptr))
#define uci_to_option(ptr) ((struct uci_option *)(ptr))

/* The loaded package called `name`, or NULL. */
static inline struct uci_package *uci_lookup_package(struct uci_context *ctx, const char *name)
{
  struct uci_element *e = NULL;
  if (uci_lookup_next(ctx, &e, &ctx->root, name) == 0)
    return uci_to_package(e);
  return NULL;
}

/* The section of `p` called `name`, or NULL. */
static inline struct uci_section *uci_lookup_section(struct uci_context *ctx,
                                                     struct uci_package *p, const char *name)
{
  struct uci_element *e = NULL;
  if (uci_lookup_next(ctx, &e, &p->sections, name) == 0)
    return uci_to_section(e);
  return NULL;
}

/* The option of `s` called `name`, or NULL. */
static inline struct uci_option *uci_lookup_option(struct uci_context *ctx,
                                                   struct uci_section *s, const char *name)
{
  struct uci_element *e = NULL;
  if (uci_lookup_next(ctx, &e, &s->options, name) == 0)
    return uci_to_option(e);
  return NULL;
}

/* The value of the string option `name` of `s`; NULL when absent or a list. */
static inline const char *uci_lookup_option_string(struct uci_context *ctx,
                                                   struct uci_section *s, const char *name)
{
  struct uci_option *o = uci_lookup_option(ctx, s, name);
  if (!o || o->type != UCI_TYPE_STRING)
    return NULL;
  return o->v.string;
}

#ifdef __cplusplus
}
#endif

#endif /* UCI_H */
