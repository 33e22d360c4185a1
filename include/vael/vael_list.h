/*
 * vael_list.h - the one list of the library, its queue and stack uses, and a
 * small hash for integer keys.
 *
 * A list is an opaque handle (null means no list) holding word-sized values,
 * normally pointers to records of the caller's. It may own a destructor, run
 * on every value still held at lst_destroy, and a comparator with the
 * library's own convention: 1 when equal, 0 when the first value is greater,
 * -1 when it is less.
 *
 * Iteration is a cursor walk: start with a null cursor and pass each result
 * back in; a null result ends the walk and leaves the value unwritten. A walk
 * must not remove elements; a kept cursor stays valid across appends.
 *
 * A pool is a word that starts zeroed; lists created on it take their element
 * cells from it, so a list that fills and drains on every packet allocates
 * nothing once the pool is warm. A pool is safe for lists on many threads.
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

/* Creation; null when out of memory. */
lst_list *lst_create(void);
lst_list *lst_create_destr(lst_destr_fn destr);
lst_list *lst_create_with_pool(uintptr_t *pool, lst_destr_fn destr);
/* Frees the cells a pool keeps for reuse; lists on it stay usable. */
void lst_pool_drain(uintptr_t *pool);
void lst_set_comparator(lst_list *list, lst_cmp_fn cmp);
/* Runs the destructor on each remaining value, front to back, then frees the
 * list. Null is allowed. */
void lst_destroy(lst_list *list);

/* Insertion: non-zero on success, 0 when out of memory. */
int lst_insert(lst_list *list, uintptr_t value); /* at the end */
int lst_insert_at_end(lst_list *list, uintptr_t value);
int lst_insert_at_start(lst_list *list, uintptr_t value);
/* Before the first element that is not less than the value. */
int lst_insert_ascending(lst_list *list, uintptr_t value);
/* Before the first element that is not greater than the value. */
int lst_insert_descending(lst_list *list, uintptr_t value);

/* Removal from the front; the destructor is not run: the caller owns the
 * value. lst_dequeue cannot tell a stored 0 from an empty list. */
uintptr_t lst_dequeue(lst_list *list);
int lst_dequeue2(lst_list *list, uintptr_t *value);       /* non-zero if removed */
int lst_remove_at_start(lst_list *list, uintptr_t *value); /* 1 if removed */
/* Removes the first element holding exactly `value` and runs the destructor
 * on it; 0 or more on success, negative when the value is not there. */
int lst_delete_val_one(lst_list *list, uintptr_t value);

lst_cursor lst_first(lst_list *list);
lst_cursor lst_last(lst_list *list);
uintptr_t lst_data(lst_cursor cursor); /* 0 for a null cursor */
lst_cursor lst_iterate(lst_list *list, lst_cursor cursor, uintptr_t *value);
/* Walks forward from behind the cursor (the front for null) to the first
 * value the comparator finds equal to key. */
lst_cursor lst_lookup(lst_list *list, lst_cursor cursor, uintptr_t key, uintptr_t *value);
/* Number of elements; a null list gives 0. */
intptr_t lst_nelements(lst_list *list);
/* Appends all of source to target in order and consumes the source handle. */
void lst_concat(lst_list *target, lst_list *source);

/* Queue and stack disciplines: plain forwarders, no checks, no locks. */
lst_list *vael_queue_create(void);
lst_list *vael_queue_create_destr(lst_destr_fn destr);
lst_list *vael_queue_create_with_pool(uintptr_t *pool, lst_destr_fn destr);
int vael_enqueue(lst_list *q, uintptr_t value); /* 0 or -1 */
uintptr_t vael_dequeue(lst_list *q);
intptr_t vael_queue_size(lst_list *q);
void vael_queue_cleanup(lst_list *q);
void vael_queue_set_comparator(lst_list *q, lst_cmp_fn cmp);
lst_cursor vael_queue_lookup(lst_list *q, lst_cursor cursor, uintptr_t key, uintptr_t *value);

lst_list *vael_stack_create(lst_destr_fn destr);
int vael_stack_push(lst_list *s, uintptr_t value); /* 0 or -1 */
uintptr_t vael_stack_pop(lst_list *s);             /* 0 when empty */
uintptr_t vael_stack_top(lst_list *s);             /* 0 when empty */
intptr_t vael_stack_size(lst_list *s);
void vael_stack_cleanup(lst_list *s);

/* A hash table of word keys to word values. */
typedef struct hash_table hash_table;
typedef uintptr_t (*hash_value_fn)(uintptr_t key);
typedef int (*hash_cmp_fn)(uintptr_t a, uintptr_t b); /* non-zero when equal */
hash_table *_hash_create(uint32_t size, hash_value_fn value_fn, hash_cmp_fn cmp_fn, uintptr_t unused,
                         const char *file, int line);
uintptr_t hash_intvalue(uintptr_t key);
int hash_intcmp(uintptr_t a, uintptr_t b);
int hash_insert(hash_table *table, uintptr_t key, uintptr_t value); /* non-zero on success */
uintptr_t hash_lookup(hash_table *table, uintptr_t key);            /* 0 when absent */
void hash_destroy(hash_table *table);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_LIST_H */
