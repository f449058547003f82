/* Intrusive doubly linked lists: the head is a sentinel of a circular list,
 * records embed a struct list_head and are found back with container_of. */
#ifndef LIBUBOX_LIST_H
#define LIBUBOX_LIST_H

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef container_of
/* The enclosing record of a member pointer. The typed temporary makes the
 * compiler check that ptr really points to such a member. */
#define container_of(ptr, type, member)                                        \
	(__extension__({                                                           \
		const __typeof__(((type *)NULL)->member) *container_of_mptr_ = (ptr);  \
		(type *)((char *)container_of_mptr_ - offsetof(type, member));         \
	}))
#endif

struct list_head {
	struct list_head *next;
	struct list_head *prev;
};

#define LIST_HEAD_INIT(name) { &(name), &(name) }
#undef LIST_HEAD
#define LIST_HEAD(name) struct list_head name = LIST_HEAD_INIT(name)

static inline void INIT_LIST_HEAD(struct list_head *list)
{
	list->next = list;
	list->prev = list;
}

static inline bool list_empty(const struct list_head *head)
{
	return head->next == head;
}

static inline bool list_is_first(const struct list_head *list, const struct list_head *head)
{
	return list->prev == head;
}

static inline bool list_is_last(const struct list_head *list, const struct list_head *head)
{
	return list->next == head;
}

static inline void list_link_between_(struct list_head *entry, struct list_head *prev,
                                      struct list_head *next)
{
	next->prev = entry;
	entry->next = next;
	entry->prev = prev;
	prev->next = entry;
}

static inline void list_unlink_(struct list_head *entry)
{
	entry->next->prev = entry->prev;
	entry->prev->next = entry->next;
}

/* Inserts entry right after head (stack order). */
static inline void list_add(struct list_head *entry, struct list_head *head)
{
	list_link_between_(entry, head, head->next);
}

/* Inserts entry right before head, i.e. at the end of the list. */
static inline void list_add_tail(struct list_head *entry, struct list_head *head)
{
	list_link_between_(entry, head->prev, head);
}

/* Unlinks entry; its links become NULL so a second delete faults loudly. */
static inline void list_del(struct list_head *entry)
{
	list_unlink_(entry);
	entry->next = NULL;
	entry->prev = NULL;
}

/* Unlinks entry and leaves it as an empty list, safe to delete again. */
static inline void list_del_init(struct list_head *entry)
{
	list_unlink_(entry);
	INIT_LIST_HEAD(entry);
}

static inline void list_move(struct list_head *entry, struct list_head *head)
{
	list_unlink_(entry);
	list_add(entry, head);
}

static inline void list_move_tail(struct list_head *entry, struct list_head *head)
{
	list_unlink_(entry);
	list_add_tail(entry, head);
}

static inline void list_splice_between_(const struct list_head *list, struct list_head *prev,
                                        struct list_head *next)
{
	struct list_head *first, *last;

	if (list_empty(list))
		return;
	first = list->next;
	last = list->prev;
	first->prev = prev;
	prev->next = first;
	last->next = next;
	next->prev = last;
}

/* Moves all entries of list to the front of head; list itself is left stale. */
static inline void list_splice(const struct list_head *list, struct list_head *head)
{
	list_splice_between_(list, head, head->next);
}

static inline void list_splice_tail(struct list_head *list, struct list_head *head)
{
	list_splice_between_(list, head->prev, head);
}

static inline void list_splice_init(struct list_head *list, struct list_head *head)
{
	list_splice_between_(list, head, head->next);
	INIT_LIST_HEAD(list);
}

static inline void list_splice_tail_init(struct list_head *list, struct list_head *head)
{
	list_splice_between_(list, head->prev, head);
	INIT_LIST_HEAD(list);
}

#define list_entry(ptr, type, field) container_of(ptr, type, field)
#define list_first_entry(ptr, type, field) list_entry((ptr)->next, type, field)
#define list_last_entry(ptr, type, field) list_entry((ptr)->prev, type, field)

#define list_for_each(p, head) for ((p) = (head)->next; (p) != (head); (p) = (p)->next)

#define list_for_each_safe(p, n, head)                                         \
	for ((p) = (head)->next, (n) = (p)->next; (p) != (head); (p) = (n), (n) = (p)->next)

#define list_for_each_prev(p, head) for ((p) = (head)->prev; (p) != (head); (p) = (p)->prev)

#define list_for_each_prev_safe(p, n, head)                                    \
	for ((p) = (head)->prev, (n) = (p)->prev; (p) != (head); (p) = (n), (n) = (p)->prev)

#define list_for_each_entry(p, head, field)                                    \
	for ((p) = list_first_entry(head, __typeof__(*(p)), field);               \
	     &(p)->field != (head);                                                \
	     (p) = list_entry((p)->field.next, __typeof__(*(p)), field))

#define list_for_each_entry_reverse(p, head, field)                            \
	for ((p) = list_last_entry(head, __typeof__(*(p)), field);                \
	     &(p)->field != (head);                                                \
	     (p) = list_entry((p)->field.prev, __typeof__(*(p)), field))

/* The current entry may be unlinked and freed inside the body. */
#define list_for_each_entry_safe(p, n, head, field)                            \
	for ((p) = list_first_entry(head, __typeof__(*(p)), field),               \
	     (n) = list_entry((p)->field.next, __typeof__(*(p)), field);           \
	     &(p)->field != (head);                                                \
	     (p) = (n), (n) = list_entry((n)->field.next, __typeof__(*(n)), field))

#ifdef __cplusplus
}
#endif

#endif /* LIBUBOX_LIST_H */
