// vael_list.cpp - the lst_* list, its pools, the queue and stack uses, and
// the integer hash.
//
// A list is singly linked with a tail pointer and a count: appending, taking
// the front, the size and concatenation are constant time, which is what the
// match queues, the parser stacks and the buffer lists run per item. Cells
// come from the accounting allocator, or from a pool that keeps freed cells
// for the next list.

#include <atomic>

#include "runtime/vael_runtime.h"
#include "vael/vael_list.h"

struct lst_elem {
    lst_elem *next;
    uintptr_t value;
};

namespace {

// A pool is the word itself: it holds the head of a stack of free cells, and
// its low bit (cells are word-aligned) is a spin lock. The head cell's value
// field counts the cells, so the pool needs no storage of its own.
class PoolLock {
  public:
    explicit PoolLock(uintptr_t *word) : word_(reinterpret_cast<std::atomic<uintptr_t> *>(word)) {
        uintptr_t w = word_->load(std::memory_order_relaxed);
        for (;;) {
            if (w & 1u) {
                w = word_->load(std::memory_order_relaxed);
                continue;
            }
            if (word_->compare_exchange_weak(w, w | 1u, std::memory_order_acquire, std::memory_order_relaxed))
                break;
        }
        head_ = reinterpret_cast<lst_elem *>(w);
    }
    ~PoolLock() { word_->store(reinterpret_cast<uintptr_t>(head_), std::memory_order_release); }
    PoolLock(const PoolLock &) = delete;
    PoolLock &operator=(const PoolLock &) = delete;

    lst_elem *&head() { return head_; }

  private:
    std::atomic<uintptr_t> *word_;
    lst_elem *head_;
};

// Beyond this a pool frees cells instead of keeping them: a burst of hits
// must not pin its peak for the life of the process.
constexpr uintptr_t kPoolMaxCells = 4096;

}  // namespace

struct lst_list {
    lst_elem *head;
    lst_elem *tail;
    intptr_t count;
    lst_destr_fn destr;
    lst_cmp_fn cmp;
    uintptr_t *pool; // null: cells come straight from the allocator
};

namespace {

lst_elem *cell_get(lst_list *list, uintptr_t value) {
    lst_elem *e = nullptr;
    if (list->pool) {
        PoolLock lock(list->pool);
        if ((e = lock.head())) {
            lock.head() = e->next;
            if (e->next)
                e->next->value = e->value - 1;
        }
    }
    if (!e && !(e = static_cast<lst_elem *>(VAEL_KMALLOC(sizeof(lst_elem)))))
        return nullptr;
    e->next = nullptr;
    e->value = value;
    return e;
}

void cell_put(lst_list *list, lst_elem *e) {
    if (list->pool) {
        PoolLock lock(list->pool);
        uintptr_t count = lock.head() ? lock.head()->value : 0;
        if (count < kPoolMaxCells) {
            e->next = lock.head();
            e->value = count + 1;
            lock.head() = e;
            return;
        }
    }
    VAEL_KFREE(e, sizeof(lst_elem));
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
    cell_put(list, e);
    return true;
}

// Links a new cell after `prev` (at the front for null).
int link_after(lst_list *list, lst_elem *prev, uintptr_t value) {
    if (!list)
        return 0;
    lst_elem *e = cell_get(list, value);
    if (!e)
        return 0;
    lst_elem **link = prev ? &prev->next : &list->head;
    e->next = *link;
    *link = e;
    if (list->tail == prev)
        list->tail = e;
    list->count++;
    return 1;
}

// Inserts before the first element for which stop(cmp(element, value)).
template <class Stop>
int insert_ordered(lst_list *list, uintptr_t value, Stop stop) {
    if (!list)
        return 0;
    lst_elem *prev = nullptr;
    for (lst_elem *e = list->head; e; prev = e, e = e->next)
        if (list->cmp && stop(list->cmp(e->value, value)))
            break;
    return link_after(list, prev, value);
}

}  // namespace

extern "C" lst_list *lst_create_destr(lst_destr_fn destr) {
    auto *l = static_cast<lst_list *>(VAEL_KMALLOC(sizeof(lst_list)));
    if (!l)
        return nullptr;
    *l = lst_list{nullptr, nullptr, 0, destr, nullptr, nullptr};
    return l;
}

extern "C" lst_list *lst_create(void) { return lst_create_destr(nullptr); }

extern "C" lst_list *lst_create_with_pool(uintptr_t *pool, lst_destr_fn destr) {
    lst_list *l = lst_create_destr(destr);
    if (l)
        l->pool = pool;
    return l;
}

extern "C" void lst_pool_drain(uintptr_t *pool) {
    if (!pool)
        return;
    lst_elem *e;
    {
        PoolLock lock(pool);
        e = lock.head();
        lock.head() = nullptr;
    }
    while (e) {
        lst_elem *next = e->next;
        VAEL_KFREE(e, sizeof(lst_elem));
        e = next;
    }
}

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
        cell_put(list, e);
        e = next;
    }
    VAEL_KFREE(list, sizeof(lst_list));
}

extern "C" int lst_insert_at_end(lst_list *list, uintptr_t value) {
    return list ? link_after(list, list->tail, value) : 0;
}

extern "C" int lst_insert(lst_list *list, uintptr_t value) { return lst_insert_at_end(list, value); }

extern "C" int lst_insert_at_start(lst_list *list, uintptr_t value) { return link_after(list, nullptr, value); }

extern "C" int lst_insert_ascending(lst_list *list, uintptr_t value) {
    return insert_ordered(list, value, [](int c) { return c != -1; });
}

extern "C" int lst_insert_descending(lst_list *list, uintptr_t value) {
    return insert_ordered(list, value, [](int c) { return c != 0; });
}

extern "C" uintptr_t lst_dequeue(lst_list *list) {
    uintptr_t value = 0;
    take_front(list, &value);
    return value;
}

extern "C" int lst_dequeue2(lst_list *list, uintptr_t *value) { return take_front(list, value) ? 1 : 0; }

extern "C" int lst_remove_at_start(lst_list *list, uintptr_t *value) { return take_front(list, value) ? 1 : 0; }

extern "C" int lst_delete_val_one(lst_list *list, uintptr_t value) {
    if (!list)
        return -1;
    lst_elem *prev = nullptr;
    for (lst_elem *e = list->head; e; prev = e, e = e->next) {
        if (e->value != value)
            continue;
        (prev ? prev->next : list->head) = e->next;
        if (list->tail == e)
            list->tail = prev;
        list->count--;
        if (list->destr)
            list->destr(value);
        cell_put(list, e);
        return 0;
    }
    return -1;
}

extern "C" lst_cursor lst_first(lst_list *list) { return list ? list->head : nullptr; }

extern "C" lst_cursor lst_last(lst_list *list) { return list ? list->tail : nullptr; }

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

extern "C" void lst_concat(lst_list *target, lst_list *source) {
    if (!source)
        return;
    if (!target) {
        lst_destroy(source);
        return;
    }
    // Cells stay where they are; when the two lists draw from different
    // pools, a moved cell returns to the target's pool, which is as good.
    if (source->head) {
        if (target->tail)
            target->tail->next = source->head;
        else
            target->head = source->head;
        target->tail = source->tail;
        target->count += source->count;
    }
    VAEL_KFREE(source, sizeof(lst_list));
}

// ---------------------------------------------------------------- queue and stack

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

extern "C" lst_list *vael_stack_create(lst_destr_fn destr) { return lst_create_destr(destr); }
extern "C" int vael_stack_push(lst_list *s, uintptr_t value) { return lst_insert_at_start(s, value) ? 0 : -1; }
extern "C" uintptr_t vael_stack_pop(lst_list *s) {
    uintptr_t value = 0;
    return lst_remove_at_start(s, &value) == 1 ? value : 0;
}
extern "C" uintptr_t vael_stack_top(lst_list *s) { return lst_data(lst_first(s)); }
extern "C" intptr_t vael_stack_size(lst_list *s) { return lst_nelements(s); }
extern "C" void vael_stack_cleanup(lst_list *s) { lst_destroy(s); }

// ---------------------------------------------------------------- hash

struct hash_entry {
    hash_entry *next;
    uintptr_t key;
    uintptr_t value;
};

struct hash_table {
    hash_entry **buckets;
    uint32_t size;
    hash_value_fn value_fn;
    hash_cmp_fn cmp_fn;
};

namespace {
constexpr uint32_t kHashDefaultSize = 256;
}

extern "C" uintptr_t hash_intvalue(uintptr_t key) { return key * 0x9e3779b97f4a7c15ull >> 17; }
extern "C" int hash_intcmp(uintptr_t a, uintptr_t b) { return a == b; }

extern "C" hash_table *_hash_create(uint32_t size, hash_value_fn value_fn, hash_cmp_fn cmp_fn, uintptr_t unused,
                                    const char *file, int line) {
    if (!value_fn || !cmp_fn)
        return nullptr;
    if (size == 0)
        size = kHashDefaultSize;
    auto *t = static_cast<hash_table *>(qx_kmalloc_ex_(sizeof(hash_table), __func__, 0, file, line));
    if (!t)
        return nullptr;
    size_t bytes = sizeof(hash_entry *) * size;
    t->buckets = static_cast<hash_entry **>(qx_kmalloc_ex_(bytes, __func__, 0, file, line));
    if (!t->buckets) {
        VAEL_KFREE(t, sizeof(hash_table));
        return nullptr;
    }
    for (uint32_t i = 0; i < size; i++)
        t->buckets[i] = nullptr;
    t->size = size;
    t->value_fn = value_fn;
    t->cmp_fn = cmp_fn;
    return t;
}

extern "C" int hash_insert(hash_table *table, uintptr_t key, uintptr_t value) {
    if (!table)
        return 0;
    auto *e = static_cast<hash_entry *>(VAEL_KMALLOC(sizeof(hash_entry)));
    if (!e)
        return 0;
    hash_entry **bucket = &table->buckets[table->value_fn(key) % table->size];
    *e = hash_entry{*bucket, key, value};
    *bucket = e;
    return 1;
}

extern "C" uintptr_t hash_lookup(hash_table *table, uintptr_t key) {
    if (!table)
        return 0;
    for (hash_entry *e = table->buckets[table->value_fn(key) % table->size]; e; e = e->next)
        if (table->cmp_fn(e->key, key))
            return e->value;
    return 0;
}

extern "C" void hash_destroy(hash_table *table) {
    if (!table)
        return;
    for (uint32_t i = 0; i < table->size; i++) {
        for (hash_entry *e = table->buckets[i]; e;) {
            hash_entry *next = e->next;
            VAEL_KFREE(e, sizeof(hash_entry));
            e = next;
        }
    }
    VAEL_KFREE(table->buckets, sizeof(hash_entry *) * table->size);
    VAEL_KFREE(table, sizeof(hash_table));
}
