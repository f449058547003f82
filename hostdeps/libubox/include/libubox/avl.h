/* AVL tree of caller-owned nodes. Besides the tree links every node sits on
 * an ordered list, so walking in key order is a plain list walk. */
#ifndef LIBUBOX_AVL_H
#define LIBUBOX_AVL_H

#include <stdbool.h>
#include <stddef.h>

#include "list.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Negative, zero or positive like strcmp; ptr is the tree's cmp_ptr. */
typedef int (*avl_tree_comp)(const void *k1, const void *k2, void *ptr);

struct avl_node {
	/* Links all nodes of the tree in key order; must stay the first member. */
	struct list_head list;
	struct avl_node *parent;
	struct avl_node *left;
	struct avl_node *right;
	/* Set by the caller before avl_insert; compared by the tree's comp. */
	const void *key;
	/* Height of the right subtree minus that of the left one. */
	signed char balance;
	/* With duplicates: true for the first node of a run of equal keys. */
	bool leader;
};

struct avl_tree {
	struct list_head list_head; /* all nodes in key order */
	struct avl_node *root;      /* NULL when empty */
	unsigned int count;
	bool allow_dups;
	avl_tree_comp comp;
	void *cmp_ptr;
};

/* Compare modes of the searching helpers. */
enum avl_find_mode {
	AVL_FIND_EQUAL,
	AVL_FIND_LESSEQUAL,
	AVL_FIND_GREATEREQUAL
};

#define AVL_TREE_INIT(name, comp_fn, dups, ptr)                                \
	{ LIST_HEAD_INIT((name).list_head), NULL, 0, (dups), (comp_fn), (ptr) }

#define AVL_TREE(name, comp_fn, dups, ptr)                                     \
	struct avl_tree name = AVL_TREE_INIT(name, comp_fn, dups, ptr)

void avl_init(struct avl_tree *tree, avl_tree_comp comp, bool allow_dups, void *ptr);
/* The node equal to key (the first inserted one among duplicates), or NULL. */
struct avl_node *avl_find(const struct avl_tree *tree, const void *key);
/* The greatest node not above / the least node not below key, or NULL. */
struct avl_node *avl_find_lessequal(const struct avl_tree *tree, const void *key);
struct avl_node *avl_find_greaterequal(const struct avl_tree *tree, const void *key);
/* 0, or -1 when an equal key exists and duplicates are not allowed. */
int avl_insert(struct avl_tree *tree, struct avl_node *node);
void avl_delete(struct avl_tree *tree, struct avl_node *node);

static inline bool avl_is_empty(const struct avl_tree *tree)
{
	return tree->count == 0;
}

static inline bool avl_is_first(const struct avl_tree *tree, const struct avl_node *node)
{
	return tree->list_head.next == &node->list;
}

static inline bool avl_is_last(const struct avl_tree *tree, const struct avl_node *node)
{
	return tree->list_head.prev == &node->list;
}

/* The record holding node at byte offset off, NULL for NULL. */
static inline void *avl_node_to_element_(const struct avl_node *node, size_t off)
{
	return node ? (void *)((const char *)node - off) : NULL;
}

#define avl_find_element(tree, key, element, node_member)                      \
	((__typeof__(*(element)) *)avl_node_to_element_(                           \
		avl_find(tree, key), offsetof(__typeof__(*(element)), node_member)))

#define avl_find_le_element(tree, key, element, node_member)                   \
	((__typeof__(*(element)) *)avl_node_to_element_(                           \
		avl_find_lessequal(tree, key), offsetof(__typeof__(*(element)), node_member)))

#define avl_find_ge_element(tree, key, element, node_member)                   \
	((__typeof__(*(element)) *)avl_node_to_element_(                           \
		avl_find_greaterequal(tree, key), offsetof(__typeof__(*(element)), node_member)))

/* Not valid on an empty tree. */
#define avl_first_element(tree, element, node_member)                          \
	container_of((tree)->list_head.next, __typeof__(*(element)), node_member.list)

#define avl_last_element(tree, element, node_member)                           \
	container_of((tree)->list_head.prev, __typeof__(*(element)), node_member.list)

/* Not valid past the end. */
#define avl_next_element(element, node_member)                                 \
	container_of((&(element)->node_member.list)->next, __typeof__(*(element)), node_member.list)

#define avl_prev_element(element, node_member)                                 \
	container_of((&(element)->node_member.list)->prev, __typeof__(*(element)), node_member.list)

#define avl_for_each_element(tree, element, node_member)                       \
	for ((element) = avl_first_element(tree, element, node_member);            \
	     &(element)->node_member.list != &(tree)->list_head;                   \
	     (element) = avl_next_element(element, node_member))

#define avl_for_each_element_reverse(tree, element, node_member)               \
	for ((element) = avl_last_element(tree, element, node_member);             \
	     &(element)->node_member.list != &(tree)->list_head;                   \
	     (element) = avl_prev_element(element, node_member))

/* The current element may be avl_delete'd and freed inside the body. */
#define avl_for_each_element_safe(tree, element, node_member, ptr)             \
	for ((element) = avl_first_element(tree, element, node_member),            \
	     (ptr) = avl_next_element(element, node_member);                       \
	     &(element)->node_member.list != &(tree)->list_head;                   \
	     (element) = (ptr), (ptr) = avl_next_element(ptr, node_member))

/* Empties the tree in one pass without rebalancing. The tree is reset to
 * empty on entry; the body sees each old element once and should free it.
 * The body must not call avl_delete and must not break out of the loop:
 * count is what drives the walk. Nothing is dereferenced on an empty tree. */
#define avl_remove_all_elements(tree, element, node_member, ptr)               \
	for ((element) = (tree)->count > 0 ? avl_first_element(tree, element, node_member) : NULL, \
	     (ptr) = (tree)->count > 1 ? avl_next_element(element, node_member) : NULL,           \
	     INIT_LIST_HEAD(&(tree)->list_head), (tree)->root = NULL;              \
	     (tree)->count > 0;                                                    \
	     (tree)->count--, (element) = (ptr),                                   \
	     (ptr) = (tree)->count > 1 ? avl_next_element(ptr, node_member) : NULL)

#ifdef __cplusplus
}
#endif

#endif /* LIBUBOX_AVL_H */
