// The intrusive list: order of insertion, unlinking, and walks that remove.
#include <gtest/gtest.h>

#include <vector>

extern "C" {
#include <libubox/list.h>
}

namespace {

struct Entry {
  int v;
  list_head link;
};

std::vector<int> values(list_head *head) {
  std::vector<int> out;
  Entry *e;
  list_for_each_entry(e, head, link) out.push_back(e->v);
  return out;
}

TEST(List, AddPutsAtTheFrontAndAddTailAtTheEnd) {
  LIST_HEAD(head);
  EXPECT_TRUE(list_empty(&head));
  Entry a{1, {}}, b{2, {}}, c{3, {}};
  list_add_tail(&a.link, &head);
  list_add_tail(&b.link, &head);
  list_add(&c.link, &head);
  EXPECT_EQ(values(&head), (std::vector<int>{3, 1, 2}));
  EXPECT_EQ(list_first_entry(&head, Entry, link), &c);
  EXPECT_EQ(list_entry(b.link.prev, Entry, link), &a);
  EXPECT_EQ(container_of(&b.link, Entry, link), &b);
}

TEST(List, DeleteUnlinksAndClearsLinks) {
  list_head head;
  INIT_LIST_HEAD(&head);
  Entry a{1, {}}, b{2, {}};
  list_add_tail(&a.link, &head);
  list_add_tail(&b.link, &head);
  list_del(&a.link);
  EXPECT_EQ(a.link.next, nullptr);
  EXPECT_EQ(a.link.prev, nullptr);
  EXPECT_EQ(values(&head), std::vector<int>{2});
  list_del_init(&b.link);
  EXPECT_TRUE(list_empty(&b.link));
  EXPECT_TRUE(list_empty(&head));
}

TEST(List, SafeWalkMayRemoveTheCurrentEntry) {
  LIST_HEAD(head);
  std::vector<Entry> entries(6);
  for (int i = 0; i < 6; i++) {
    entries[static_cast<size_t>(i)].v = i;
    list_add_tail(&entries[static_cast<size_t>(i)].link, &head);
  }
  Entry *e, *tmp;
  list_for_each_entry_safe(e, tmp, &head, link) {
    if (e->v % 2 == 0)
      list_del(&e->link);
  }
  EXPECT_EQ(values(&head), (std::vector<int>{1, 3, 5}));
}

}  // namespace
