/*
 * vael_list.h - the one list of the library, and its queue and stack uses.
 *
 * A list is an opaque handle (null means no list) holding word-sized values.
 * It may own a destructor, run on every value still held at lst_destroy, and a
 * comparator with the library's own convention: 1 when equal, 0 when the first
 * value is greater, -1 when it is less.
 *
 * Iteration is a cursor walk: start with a null cursor and pass each result
 * back in; a null result ends the walk.
 */
#ifndef VAEL_LIST_H
#define VAEL_LIST_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct lst_list lst_list;     /* opaque list handle */
typedef struct lst_elem *lst_cursor;  /* opaque, non-null position in a list */

typedef void (*lst_destr_fn)(uintptr_t value);
typedef int (*lst_cmp_fn)(uintptr_t a, uintptr_t b);

lst_list *lst_create(void);
lst_list *lst_create_destr(lst_destr_fn destr);
lst_list *lst_create_with_pool(uintptr_t *pool, lst_destr_fn destr);
void lst_set_comparator(lst_list *list, lst_cmp_fn cmp);
void lst_destroy(lst_list *list);

int lst_insert(lst_list *list, uintptr_t value);
int lst_insert_at_end(lst_list *list, uintptr_t value);
int lst_insert_at_start(lst_list *list, uintptr_t value);

uintptr_t lst_dequeue(lst_list *list);
int lst_dequeue2(lst_list *list, uintptr_t *value);
int lst_remove_at_start(lst_list *list, uintptr_t *value);

lst_cursor lst_first(lst_list *list);
uintptr_t lst_data(lst_cursor cursor);
lst_cursor lst_iterate(lst_list *list, lst_cursor cursor, uintptr_t *value);
lst_cursor lst_lookup(lst_list *list, lst_cursor cursor, uintptr_t key, uintptr_t *value);
intptr_t lst_nelements(lst_list *list);

/* Queue and stack disciplines: plain forwarders, no checks, no locks. */
lst_list *vael_queue_create(void);
lst_list *vael_queue_create_destr(lst_destr_fn destr);
lst_list *vael_queue_create_with_pool(uintptr_t *pool, lst_destr_fn destr);
int vael_enqueue(lst_list *q, uintptr_t value);
uintptr_t vael_dequeue(lst_list *q);
intptr_t vael_queue_size(lst_list *q);
void vael_queue_cleanup(lst_list *q);
void vael_queue_set_comparator(lst_list *q, lst_cmp_fn cmp);
lst_cursor vael_queue_lookup(lst_list *q, lst_cursor cursor, uintptr_t key, uintptr_t *value);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_LIST_H */
