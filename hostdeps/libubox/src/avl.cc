// AVL tree over caller-owned nodes.
//
// Every node is a full tree member, duplicates included: an equal key is
// inserted to the right of the equal keys already present, so the in-order
// sequence (mirrored by the node list) keeps equal keys in insertion order
// and a left-leaning search finds the first inserted one.
#include <libubox/avl-cmp.h>
#include <libubox/avl.h>

#include <cstring>

#include <cstddef>

// Same layout as the real library's records, on 32- and 64-bit targets:
// pointers, then the small fields, in the C declaration order.
namespace {
constexpr size_t kP = sizeof(void *);
}
static_assert(offsetof(avl_node, parent) == 2 * kP && offsetof(avl_node, left) == 3 * kP &&
                  offsetof(avl_node, right) == 4 * kP && offsetof(avl_node, key) == 5 * kP &&
                  offsetof(avl_node, balance) == 6 * kP && offsetof(avl_node, leader) == 6 * kP + 1 &&
                  sizeof(avl_node) == 7 * kP,
              "avl_node layout");
static_assert(offsetof(avl_tree, root) == 2 * kP && offsetof(avl_tree, count) == 3 * kP &&
                  offsetof(avl_tree, allow_dups) == 3 * kP + 4 &&
                  offsetof(avl_tree, comp) == (3 * kP + 5 + kP - 1) / kP * kP &&
                  offsetof(avl_tree, cmp_ptr) == offsetof(avl_tree, comp) + kP &&
                  sizeof(avl_tree) == offsetof(avl_tree, cmp_ptr) + kP,
              "avl_tree layout");

namespace rk {
namespace {

int compare(const avl_tree *tree, const void *a, const void *b) noexcept {
  return tree->comp(a, b, tree->cmp_ptr);
}

// Puts replacement where node hangs from its parent (or at the root).
void replace_child(avl_tree *tree, avl_node *parent, const avl_node *node,
                   avl_node *replacement) noexcept {
  if (!parent)
    tree->root = replacement;
  else if (parent->left == node)
    parent->left = replacement;
  else
    parent->right = replacement;
  if (replacement)
    replacement->parent = parent;
}

// balance = height(right) - height(left). The updates below hold for any
// balances, so both insertion and deletion use the same two rotations.
avl_node *rotate_left(avl_tree *tree, avl_node *x) noexcept {
  avl_node *y = x->right;
  replace_child(tree, x->parent, x, y);
  x->right = y->left;
  if (x->right)
    x->right->parent = x;
  y->left = x;
  x->parent = y;
  int xb = x->balance - 1 - (y->balance > 0 ? y->balance : 0);
  int yb = y->balance - 1 + (xb < 0 ? xb : 0);
  x->balance = static_cast<signed char>(xb);
  y->balance = static_cast<signed char>(yb);
  return y;
}

avl_node *rotate_right(avl_tree *tree, avl_node *x) noexcept {
  avl_node *y = x->left;
  replace_child(tree, x->parent, x, y);
  x->left = y->right;
  if (x->left)
    x->left->parent = x;
  y->right = x;
  x->parent = y;
  int xb = x->balance + 1 - (y->balance < 0 ? y->balance : 0);
  int yb = y->balance + 1 + (xb > 0 ? xb : 0);
  x->balance = static_cast<signed char>(xb);
  y->balance = static_cast<signed char>(yb);
  return y;
}

// Restores |balance| <= 1 at a node whose balance reached +-2; returns the
// new root of that subtree.
avl_node *rebalance(avl_tree *tree, avl_node *x) noexcept {
  if (x->balance > 0) {
    if (x->right->balance < 0)
      rotate_right(tree, x->right);
    return rotate_left(tree, x);
  }
  if (x->left->balance > 0)
    rotate_left(tree, x->left);
  return rotate_right(tree, x);
}

// After node was linked as a leaf: walks up while subtree heights grow.
void retrace_insert(avl_tree *tree, avl_node *node) noexcept {
  for (avl_node *parent = node->parent; parent; node = parent, parent = node->parent) {
    parent->balance += (node == parent->left) ? -1 : 1;
    if (parent->balance == 0)
      return;
    if (parent->balance == 2 || parent->balance == -2) {
      rebalance(tree, parent);  // an insertion rotation restores the old height
      return;
    }
  }
}

// After the subtree on one side of parent got one level lower.
void retrace_delete(avl_tree *tree, avl_node *parent, bool left_side) noexcept {
  while (parent) {
    parent->balance += left_side ? 1 : -1;
    if (parent->balance == 1 || parent->balance == -1)
      return;  // height unchanged
    if (parent->balance != 0) {
      parent = rebalance(tree, parent);
      if (parent->balance != 0)
        return;  // a rotation around a balanced child keeps the height
    }
    avl_node *child = parent;
    parent = child->parent;
    if (parent)
      left_side = (parent->left == child);
  }
}

enum class Near { kLessEqual, kGreaterEqual };

// First inserted node of the run of nodes equal to node.
avl_node *first_of_run(const avl_tree *tree, avl_node *node) noexcept {
  while (node->list.prev != &tree->list_head) {
    avl_node *prev = container_of(node->list.prev, avl_node, list);
    if (compare(tree, prev->key, node->key) != 0)
      break;
    node = prev;
  }
  return node;
}

avl_node *find_near(const avl_tree *tree, const void *key, Near mode) noexcept {
  avl_node *exact = avl_find(tree, key);
  if (exact)
    return exact;
  avl_node *candidate = nullptr;
  for (avl_node *n = tree->root; n;) {
    int c = compare(tree, key, n->key);
    if (mode == Near::kLessEqual) {
      if (c > 0) {
        candidate = n;
        n = n->right;
      } else {
        n = n->left;
      }
    } else {
      if (c < 0) {
        candidate = n;
        n = n->left;
      } else {
        n = n->right;
      }
    }
  }
  // The greatest smaller node is the last of its run; hand out the first.
  if (candidate && mode == Near::kLessEqual)
    candidate = first_of_run(tree, candidate);
  return candidate;
}

}  // namespace
}  // namespace rk

extern "C" {

void avl_init(struct avl_tree *tree, avl_tree_comp comp, bool allow_dups, void *ptr) {
  INIT_LIST_HEAD(&tree->list_head);
  tree->root = nullptr;
  tree->count = 0;
  tree->allow_dups = allow_dups;
  tree->comp = comp;
  tree->cmp_ptr = ptr;
}

struct avl_node *avl_find(const struct avl_tree *tree, const void *key) {
  avl_node *found = nullptr;
  for (avl_node *n = tree->root; n;) {
    int c = rk::compare(tree, key, n->key);
    if (c == 0) {
      found = n;  // keep going left: earlier duplicates sit there
      n = n->left;
    } else {
      n = c < 0 ? n->left : n->right;
    }
  }
  return found;
}

struct avl_node *avl_find_lessequal(const struct avl_tree *tree, const void *key) {
  return rk::find_near(tree, key, rk::Near::kLessEqual);
}

struct avl_node *avl_find_greaterequal(const struct avl_tree *tree, const void *key) {
  return rk::find_near(tree, key, rk::Near::kGreaterEqual);
}

int avl_insert(struct avl_tree *tree, struct avl_node *node) {
  avl_node *parent = nullptr;
  bool left = false;
  bool duplicate = false;
  for (avl_node *n = tree->root; n;) {
    int c = rk::compare(tree, node->key, n->key);
    if (c == 0) {
      if (!tree->allow_dups)
        return -1;
      duplicate = true;
    }
    parent = n;
    left = c < 0;
    n = left ? n->left : n->right;
  }

  node->parent = parent;
  node->left = nullptr;
  node->right = nullptr;
  node->balance = 0;
  node->leader = !duplicate;
  if (!parent) {
    tree->root = node;
    list_add(&node->list, &tree->list_head);
  } else if (left) {
    parent->left = node;
    list_add_tail(&node->list, &parent->list);  // right before its parent
  } else {
    parent->right = node;
    list_add(&node->list, &parent->list);  // right after its parent
  }
  tree->count++;
  rk::retrace_insert(tree, node);
  return 0;
}

void avl_delete(struct avl_tree *tree, struct avl_node *node) {
  if (node->leader && node->list.next != &tree->list_head) {
    avl_node *next = container_of(node->list.next, avl_node, list);
    if (rk::compare(tree, next->key, node->key) == 0)
      next->leader = true;
  }

  avl_node *retrace_from;
  bool left_side;
  if (node->left && node->right) {
    // The in-order successor takes node's place and balance.
    avl_node *succ = node->right;
    while (succ->left)
      succ = succ->left;
    if (succ == node->right) {
      retrace_from = succ;
      left_side = false;
    } else {
      retrace_from = succ->parent;
      left_side = true;
      retrace_from->left = succ->right;
      if (succ->right)
        succ->right->parent = retrace_from;
      succ->right = node->right;
      succ->right->parent = succ;
    }
    succ->left = node->left;
    succ->left->parent = succ;
    succ->balance = node->balance;
    rk::replace_child(tree, node->parent, node, succ);
  } else {
    avl_node *child = node->left ? node->left : node->right;
    retrace_from = node->parent;
    left_side = retrace_from && retrace_from->left == node;
    rk::replace_child(tree, node->parent, node, child);
  }
  rk::retrace_delete(tree, retrace_from, left_side);

  list_del(&node->list);
  node->parent = nullptr;
  node->left = nullptr;
  node->right = nullptr;
  tree->count--;
}

int avl_strcmp(const void *k1, const void *k2, void *) {
  return std::strcmp(static_cast<const char *>(k1), static_cast<const char *>(k2));
}

}  // extern "C"
