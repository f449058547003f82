// AVL trees as the library uses them: keyed lookup, key-order walks, safe
// removal while walking, the fast clear, and staying balanced under churn.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>
#include <string>
#include <vector>

extern "C" {
#include <libubox/avl-cmp.h>
#include <libubox/avl.h>
}

namespace {

static_assert(sizeof(avl_node) == 56, "avl_node size");
static_assert(offsetof(avl_node, list) == 0 && offsetof(avl_node, parent) == 16 &&
                  offsetof(avl_node, left) == 24 && offsetof(avl_node, right) == 32 &&
                  offsetof(avl_node, key) == 40 && offsetof(avl_node, balance) == 48 &&
                  offsetof(avl_node, leader) == 49,
              "avl_node field order");
static_assert(sizeof(avl_tree) == 48, "avl_tree size");
static_assert(offsetof(avl_tree, list_head) == 0 && offsetof(avl_tree, root) == 16 &&
                  offsetof(avl_tree, count) == 24 && offsetof(avl_tree, allow_dups) == 28 &&
                  offsetof(avl_tree, comp) == 32 && offsetof(avl_tree, cmp_ptr) == 40,
              "avl_tree field order");

struct Item {
  int value;
  avl_node node;
};

struct Named {
  avl_node node;
  char name[16];
};

int cmp_int(const void *a, const void *b, void *ptr) {
  ++*static_cast<int *>(ptr);  // counts comparisons: proves ptr is handed through
  int x = *static_cast<const int *>(a), y = *static_cast<const int *>(b);
  return (x > y) - (x < y);
}

// Height of a subtree, or -1 as soon as some node is out of balance or has
// a wrong parent link.
int checked_height(const avl_node *n, const avl_node *parent, unsigned *nodes) {
  if (!n)
    return 0;
  if (n->parent != parent)
    return -1;
  ++*nodes;
  int l = checked_height(n->left, n, nodes);
  int r = checked_height(n->right, n, nodes);
  if (l < 0 || r < 0 || std::abs(l - r) > 1)
    return -1;
  return 1 + std::max(l, r);
}

std::vector<int> in_order(avl_tree *tree) {
  std::vector<int> out;
  Item *it;
  avl_for_each_element(tree, it, node) out.push_back(it->value);
  return out;
}

TEST(Avl, EmptyTree) {
  int calls = 0;
  avl_tree tree;
  avl_init(&tree, cmp_int, false, &calls);
  int key = 1;
  EXPECT_EQ(avl_find(&tree, &key), nullptr);
  EXPECT_TRUE(avl_is_empty(&tree));
  EXPECT_EQ(tree.root, nullptr);
  EXPECT_EQ(tree.count, 0u);
  Item *it, *tmp;
  int visits = 0;
  avl_for_each_element(&tree, it, node) visits++;
  avl_for_each_element_safe(&tree, it, node, tmp) visits++;
  avl_remove_all_elements(&tree, it, node, tmp) visits++;
  EXPECT_EQ(visits, 0);
  EXPECT_TRUE(avl_is_empty(&tree));
}

TEST(Avl, RandomInsertsAndDeletesStayOrderedAndBalanced) {
  int calls = 0;
  avl_tree tree;
  avl_init(&tree, cmp_int, false, &calls);
  std::vector<Item> items(4000);
  std::vector<int> values(items.size());
  std::mt19937 rng(7);
  for (size_t i = 0; i < items.size(); i++)
    values[i] = static_cast<int>(i) * 3;
  std::shuffle(values.begin(), values.end(), rng);

  std::set<int> model;
  for (size_t i = 0; i < items.size(); i++) {
    items[i].value = values[i];
    items[i].node.key = &items[i].value;
    ASSERT_EQ(avl_insert(&tree, &items[i].node), 0);
    model.insert(values[i]);
  }
  EXPECT_GT(calls, 0);
  Item dup{values[0], {}};
  dup.node.key = &dup.value;
  EXPECT_EQ(avl_insert(&tree, &dup.node), -1);  // no duplicates allowed
  EXPECT_EQ(tree.count, items.size());

  // Delete a random half, then re-insert a quarter of those.
  std::vector<size_t> order(items.size());
  for (size_t i = 0; i < order.size(); i++)
    order[i] = i;
  std::shuffle(order.begin(), order.end(), rng);
  for (size_t k = 0; k < order.size() / 2; k++) {
    Item &it = items[order[k]];
    avl_delete(&tree, &it.node);
    EXPECT_EQ(it.node.list.next, nullptr);
    EXPECT_EQ(it.node.list.prev, nullptr);
    model.erase(it.value);
    if (k % 500 == 0) {
      unsigned nodes = 0;
      ASSERT_GE(checked_height(tree.root, nullptr, &nodes), 0) << "after " << k << " deletes";
      EXPECT_EQ(nodes, tree.count);
    }
  }
  for (size_t k = 0; k < order.size() / 4; k++) {
    Item &it = items[order[k]];
    ASSERT_EQ(avl_insert(&tree, &it.node), 0);
    model.insert(it.value);
  }

  EXPECT_EQ(tree.count, model.size());
  unsigned nodes = 0;
  int height = checked_height(tree.root, nullptr, &nodes);
  ASSERT_GE(height, 0);
  EXPECT_EQ(nodes, tree.count);
  EXPECT_LE(height, 1.45 * std::log2(static_cast<double>(nodes) + 2));
  EXPECT_EQ(in_order(&tree), std::vector<int>(model.begin(), model.end()));

  for (int v : {0, 3, 2, 11997, 11998, 12000, -3}) {
    Item *found = avl_find_element(&tree, &v, found, node);
    if (model.count(v)) {
      ASSERT_NE(found, nullptr) << v;
      EXPECT_EQ(found->value, v);
    } else {
      EXPECT_EQ(found, nullptr) << v;
    }
  }
  Item *first = avl_first_element(&tree, first, node);
  Item *last = avl_last_element(&tree, last, node);
  EXPECT_EQ(first->value, *model.begin());
  EXPECT_EQ(last->value, *model.rbegin());
  EXPECT_TRUE(avl_is_first(&tree, &first->node));
  EXPECT_TRUE(avl_is_last(&tree, &last->node));
  Item *second = avl_next_element(first, node);
  EXPECT_EQ(second->value, *std::next(model.begin()));
}

TEST(Avl, SafeWalkMayDeleteTheCurrentElement) {
  int calls = 0;
  avl_tree tree;
  avl_init(&tree, cmp_int, false, &calls);
  for (int i = 0; i < 100; i++) {
    Item *it = new Item{i, {}};
    it->node.key = &it->value;
    ASSERT_EQ(avl_insert(&tree, &it->node), 0);
  }
  Item *it, *tmp;
  avl_for_each_element_safe(&tree, it, node, tmp) {
    if (it->value % 2) {
      avl_delete(&tree, &it->node);
      delete it;
    }
  }
  EXPECT_EQ(tree.count, 50u);
  std::vector<int> expected;
  for (int i = 0; i < 100; i += 2)
    expected.push_back(i);
  EXPECT_EQ(in_order(&tree), expected);
  unsigned nodes = 0;
  EXPECT_GE(checked_height(tree.root, nullptr, &nodes), 0);

  avl_remove_all_elements(&tree, it, node, tmp) delete it;
}

TEST(Avl, RemoveAllElementsVisitsEachOnceAndLeavesAReusableTree) {
  int calls = 0;
  avl_tree tree;
  avl_init(&tree, cmp_int, false, &calls);
  for (int i = 0; i < 1000; i++) {
    Item *it = new Item{(i * 7919) % 1000, {}};
    it->node.key = &it->value;
    ASSERT_EQ(avl_insert(&tree, &it->node), 0);
  }
  std::vector<int> seen;
  Item *it, *tmp;
  avl_remove_all_elements(&tree, it, node, tmp) {
    seen.push_back(it->value);
    delete it;  // freeing in the body is the point of this macro
  }
  EXPECT_EQ(seen.size(), 1000u);
  EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
  EXPECT_EQ(tree.count, 0u);
  EXPECT_EQ(tree.root, nullptr);
  EXPECT_TRUE(list_empty(&tree.list_head));

  Item again{5, {}};
  again.node.key = &again.value;
  ASSERT_EQ(avl_insert(&tree, &again.node), 0);
  EXPECT_EQ(in_order(&tree), std::vector<int>{5});
  avl_delete(&tree, &again.node);
  EXPECT_TRUE(avl_is_empty(&tree));
}

TEST(Avl, DuplicatesFindTheFirstInserted) {
  int calls = 0;
  avl_tree tree;
  avl_init(&tree, cmp_int, true, &calls);
  std::vector<Item> items(9);
  for (size_t i = 0; i < items.size(); i++) {
    items[i].value = static_cast<int>(i % 3);  // 0 1 2 0 1 2 ...
    items[i].node.key = &items[i].value;
    ASSERT_EQ(avl_insert(&tree, &items[i].node), 0);
  }
  EXPECT_EQ(tree.count, 9u);
  for (int v = 0; v < 3; v++)
    EXPECT_EQ(avl_find(&tree, &v), &items[static_cast<size_t>(v)].node);
  EXPECT_EQ(in_order(&tree), (std::vector<int>{0, 0, 0, 1, 1, 1, 2, 2, 2}));

  // Deleting the first of a run hands the lookup to the next one.
  avl_delete(&tree, &items[1].node);
  int one = 1;
  EXPECT_EQ(avl_find(&tree, &one), &items[4].node);
  EXPECT_EQ(tree.count, 8u);
}

TEST(Avl, NearestLookups) {
  int calls = 0;
  avl_tree tree;
  avl_init(&tree, cmp_int, false, &calls);
  std::vector<Item> items;
  for (int v : {10, 20, 30})
    items.push_back(Item{v, {}});
  for (Item &it : items) {
    it.node.key = &it.value;
    ASSERT_EQ(avl_insert(&tree, &it.node), 0);
  }
  struct Row {
    int key;
    int le;  // -1: none
    int ge;
  };
  const Row rows[] = {{5, -1, 10}, {10, 10, 10}, {15, 10, 20}, {30, 30, 30}, {35, 30, -1}};
  for (const Row &r : rows) {
    avl_node *le = avl_find_lessequal(&tree, &r.key);
    avl_node *ge = avl_find_greaterequal(&tree, &r.key);
    EXPECT_EQ(le ? *static_cast<const int *>(le->key) : -1, r.le) << r.key;
    EXPECT_EQ(ge ? *static_cast<const int *>(ge->key) : -1, r.ge) << r.key;
  }
}

TEST(Avl, StringKeysAreByteWiseAndCaseSensitive) {
  avl_tree tree;
  avl_init(&tree, avl_strcmp, false, nullptr);
  const char *names[] = {"eth0", "", "Eth0", "br-lan", "eth0.1", "wan"};
  std::vector<Named> items(6);
  for (size_t i = 0; i < items.size(); i++) {
    std::strcpy(items[i].name, names[i]);
    items[i].node.key = items[i].name;
    ASSERT_EQ(avl_insert(&tree, &items[i].node), 0) << names[i];
  }
  std::vector<std::string> order;
  Named *n;
  avl_for_each_element(&tree, n, node) order.push_back(n->name);
  EXPECT_EQ(order, (std::vector<std::string>{"", "Eth0", "br-lan", "eth0", "eth0.1", "wan"}));
  EXPECT_NE(avl_find(&tree, ""), nullptr);
  EXPECT_EQ(avl_find(&tree, "ETH0"), nullptr);
  Named *found = avl_find_element(&tree, "br-lan", found, node);
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found, &items[3]);
  EXPECT_EQ(avl_strcmp("a", "b", nullptr) < 0, true);
  EXPECT_EQ(avl_strcmp("b", "b", nullptr), 0);
}

}  // namespace
