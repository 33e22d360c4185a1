// vael_list.cpp - the lst_* list and its queue uses.
//
// A singly linked list of word-sized values with a tail pointer and a count,
// so that appending, taking the front, and the size are constant time: the
// match queues of a run use exactly those. Cells come from the accounting
// allocator.

#include "runtime/vael_runtime.h"
#include "vael/vael_list.h"

struct lst_elem {
    lst_elem *next;
    uintptr_t value;
};

struct lst_list {
    lst_elem *head;
    lst_elem *tail;
    intptr_t count;
    lst_destr_fn destr;
    lst_cmp_fn cmp;
};

namespace {

lst_elem *new_cell(uintptr_t value) {
    auto *e = static_cast<lst_elem *>(VAEL_KMALLOC(sizeof(lst_elem)));
    if (e) {
        e->next = nullptr;
        e->value = value;
    }
    return e;
}

bool take_front(lst_list *list, uintptr_t *value) {
    if (!list || !list->head)
        return false;
    lst_elem *e = list->head;
    list->head = e->next;
    if (!list->head)
        list->tail = nullptr;
    list->count--;
    *value = e->value;
    VAEL_KFREE(e, sizeof(lst_elem));
    return true;
}

}  // namespace

extern "C" lst_list *lst_create_destr(lst_destr_fn destr) {
    auto *l = static_cast<lst_list *>(VAEL_KMALLOC(sizeof(lst_list)));
    if (!l)
        return nullptr;
    *l = lst_list{nullptr, nullptr, 0, destr, nullptr};
    return l;
}

extern "C" lst_list *lst_create(void) { return lst_create_destr(nullptr); }

extern "C" lst_list *lst_create_with_pool(uintptr_t *pool, lst_destr_fn destr) { return lst_create_destr(destr); }

extern "C" void lst_set_comparator(lst_list *list, lst_cmp_fn cmp) {
    if (list)
        list->cmp = cmp;
}

extern "C" void lst_destroy(lst_list *list) {
    if (!list)
        return;
    lst_elem *e = list->head;
    while (e) {
        lst_elem *next = e->next;
        if (list->destr)
            list->destr(e->value);
        VAEL_KFREE(e, sizeof(lst_elem));
        e = next;
    }
    VAEL_KFREE(list, sizeof(lst_list));
}

extern "C" int lst_insert_at_end(lst_list *list, uintptr_t value) {
    if (!list)
        return 0;
    lst_elem *e = new_cell(value);
    if (!e)
        return 0;
    if (list->tail)
        list->tail->next = e;
    else
        list->head = e;
    list->tail = e;
    list->count++;
    return 1;
}

extern "C" int lst_insert(lst_list *list, uintptr_t value) { return lst_insert_at_end(list, value); }

extern "C" int lst_insert_at_start(lst_list *list, uintptr_t value) {
    if (!list)
        return 0;
    lst_elem *e = new_cell(value);
    if (!e)
        return 0;
    e->next = list->head;
    list->head = e;
    if (!list->tail)
        list->tail = e;
    list->count++;
    return 1;
}

extern "C" uintptr_t lst_dequeue(lst_list *list) {
    uintptr_t value = 0;
    take_front(list, &value);
    return value;
}

extern "C" int lst_dequeue2(lst_list *list, uintptr_t *value) { return take_front(list, value) ? 1 : 0; }

extern "C" int lst_remove_at_start(lst_list *list, uintptr_t *value) { return take_front(list, value) ? 1 : 0; }

extern "C" lst_cursor lst_first(lst_list *list) { return list ? list->head : nullptr; }

extern "C" uintptr_t lst_data(lst_cursor cursor) { return cursor ? cursor->value : 0; }

extern "C" lst_cursor lst_iterate(lst_list *list, lst_cursor cursor, uintptr_t *value) {
    if (!list)
        return nullptr;
    lst_elem *e = cursor ? cursor->next : list->head;
    if (e)
        *value = e->value;
    return e;
}

extern "C" lst_cursor lst_lookup(lst_list *list, lst_cursor cursor, uintptr_t key, uintptr_t *value) {
    if (!list || !list->cmp)
        return nullptr;
    for (lst_elem *e = cursor ? cursor->next : list->head; e; e = e->next) {
        if (list->cmp(e->value, key) == 1) {
            *value = e->value;
            return e;
        }
    }
    return nullptr;
}

extern "C" intptr_t lst_nelements(lst_list *list) { return list ? list->count : 0; }

// ---------------------------------------------------------------- queue names

extern "C" lst_list *vael_queue_create(void) { return lst_create(); }
extern "C" lst_list *vael_queue_create_destr(lst_destr_fn destr) { return lst_create_destr(destr); }
extern "C" lst_list *vael_queue_create_with_pool(uintptr_t *pool, lst_destr_fn destr) {
    return lst_create_with_pool(pool, destr);
}
extern "C" int vael_enqueue(lst_list *q, uintptr_t value) { return lst_insert_at_end(q, value) ? 0 : -1; }
extern "C" uintptr_t vael_dequeue(lst_list *q) { return lst_dequeue(q); }
extern "C" intptr_t vael_queue_size(lst_list *q) { return lst_nelements(q); }
extern "C" void vael_queue_cleanup(lst_list *q) { lst_destroy(q); }
extern "C" void vael_queue_set_comparator(lst_list *q, lst_cmp_fn cmp) { lst_set_comparator(q, cmp); }
extern "C" lst_cursor vael_queue_lookup(lst_list *q, lst_cursor cursor, uintptr_t key, uintptr_t *value) {
    return lst_lookup(q, cursor, key, value);
}
