// AVL tree (placeholder bodies).
#include <libubox/avl-cmp.h>
#include <libubox/avl.h>

#include <cstring>

extern "C" {

void avl_init(struct avl_tree *tree, avl_tree_comp comp, bool allow_dups, void *ptr) {
  INIT_LIST_HEAD(&tree->list_head);
  tree->root = nullptr;
  tree->count = 0;
  tree->allow_dups = allow_dups;
  tree->comp = comp;
  tree->cmp_ptr = ptr;
}
struct avl_node *avl_find(const struct avl_tree *, const void *) { return nullptr; }
struct avl_node *avl_find_lessequal(const struct avl_tree *, const void *) { return nullptr; }
struct avl_node *avl_find_greaterequal(const struct avl_tree *, const void *) { return nullptr; }
int avl_insert(struct avl_tree *, struct avl_node *) { return -1; }
void avl_delete(struct avl_tree *, struct avl_node *) {}
int avl_strcmp(const void *k1, const void *k2, void *) {
  return std::strcmp(static_cast<const char *>(k1), static_cast<const char *>(k2));
}

}  // extern "C"
