/* Ready-made comparators for struct avl_tree. */
#ifndef LIBUBOX_AVL_CMP_H
#define LIBUBOX_AVL_CMP_H

#ifdef __cplusplus
extern "C" {
#endif

/* strcmp of two NUL-terminated keys; ptr is ignored. */
int avl_strcmp(const void *k1, const void *k2, void *ptr);

#ifdef __cplusplus
}
#endif

#endif /* LIBUBOX_AVL_CMP_H */
