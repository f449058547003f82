// First cut: every entry point exists so that dependants can compile and link.
#include <stdlib.h>
#include <string.h>

#include <uci.h>

extern "C" {

struct uci_context *uci_alloc_context(void) {
  struct uci_context *ctx = static_cast<struct uci_context *>(calloc(1, sizeof(struct uci_context)));
  if (ctx) {
    ctx->root.next = ctx->root.prev = &ctx->root;
    ctx->backends.next = ctx->backends.prev = &ctx->backends;
    ctx->delta_path.next = ctx->delta_path.prev = &ctx->delta_path;
  }
  return ctx;
}
void uci_free_context(struct uci_context *ctx) { free(ctx); }
int uci_set_confdir(struct uci_context *, const char *) { return UCI_ERR_UNKNOWN; }
int uci_set_savedir(struct uci_context *, const char *) { return UCI_ERR_UNKNOWN; }
int uci_set_conf2dir(struct uci_context *, const char *) { return UCI_ERR_UNKNOWN; }
int uci_add_delta_path(struct uci_context *, const char *) { return UCI_ERR_UNKNOWN; }
void uci_perror(struct uci_context *, const char *) {}
void uci_get_errorstr(struct uci_context *, char **, const char *) {}
int uci_load(struct uci_context *, const char *, struct uci_package **) { return UCI_ERR_UNKNOWN; }
int uci_unload(struct uci_context *, struct uci_package *) { return UCI_ERR_UNKNOWN; }
int uci_list_configs(struct uci_context *, char ***) { return UCI_ERR_UNKNOWN; }
int uci_lookup_next(struct uci_context *, struct uci_element **e, struct uci_list *, const char *) {
  *e = nullptr;
  return UCI_ERR_NOTFOUND;
}
int uci_parse_ptr(struct uci_context *, struct uci_ptr *, char *) { return UCI_ERR_UNKNOWN; }
int uci_lookup_ptr(struct uci_context *, struct uci_ptr *, char *, bool) { return UCI_ERR_UNKNOWN; }
int uci_add_section(struct uci_context *, struct uci_package *, const char *, struct uci_section **) {
  return UCI_ERR_UNKNOWN;
}
int uci_set(struct uci_context *, struct uci_ptr *) { return UCI_ERR_UNKNOWN; }
int uci_add_list(struct uci_context *, struct uci_ptr *) { return UCI_ERR_UNKNOWN; }
int uci_del_list(struct uci_context *, struct uci_ptr *) { return UCI_ERR_UNKNOWN; }
int uci_rename(struct uci_context *, struct uci_ptr *) { return UCI_ERR_UNKNOWN; }
int uci_reorder_section(struct uci_context *, struct uci_section *, int) { return UCI_ERR_UNKNOWN; }
int uci_delete(struct uci_context *, struct uci_ptr *) { return UCI_ERR_UNKNOWN; }
int uci_save(struct uci_context *, struct uci_package *) { return UCI_ERR_UNKNOWN; }
int uci_commit(struct uci_context *, struct uci_package **, bool) { return UCI_ERR_UNKNOWN; }
int uci_revert(struct uci_context *, struct uci_ptr *) { return UCI_ERR_UNKNOWN; }

}  // extern "C"
