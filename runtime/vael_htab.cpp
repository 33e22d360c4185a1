// vael_htab.cpp - handle tables: the registry of 200 ids, creation and
// destruction (also while somebody is inside a table), the entries and every
// operation on them, traversal, and the printers.
//
// The registry lock guards ids, names, users, pending frees and the ring
// order of expiring tables; it is never held together with a table's lock,
// and no user function runs under it. Entry operations take no lock: the
// caller holds the table's. The timers live in vael_htab_expire.cpp.

#include <cstddef>
#include <cstdio>
#include <cstring>

#include "runtime/vael_htab_internal.h"
#include "runtime/vael_runtime.h"

using namespace vael_htab_detail;

int gradual_expire_count = 0;
int regular_expire_count = 0;

namespace {

constexpr int kMaxTables = VAEL_HTAB_MAX_TABLES;
constexpr const char kTopic[] = "K_HTAB";

// Masks of vael_htab_assert: 0x1 the table must exist; 0x8 with 0x2 or 0x4:
// the operation may not run in user context.
constexpr uint32_t kCheckExists = 0x1;
constexpr uint32_t kCheckWrite = 0xB;
constexpr uint32_t kCheckRead = 0x5;
constexpr uint32_t kCheckRefresh = 0xA;

struct htab_db_id {
    vael_mutex **lock;
    vael_mutex **rwlock;
    int users;
    int pending_free;
    vael_htab_destroyed_fn pending_free_func;
    void *pending_free_arg;
};

struct htab_db_t {
    vael_mutex *lock; // "htab_db_lock"
    htab_db_id ids[kMaxTables];
    // First gradual_expire_count gradual ids, then regular_expire_count ids of
    // tables that expire on the second change only.
    int expire_ids[kMaxTables];
    vael_htab *tables[kMaxTables]; // null marks a free id
};

htab_db_t htab_db;

// Drawn once per process; tables of every start share it.
uint32_t htab_seed[VAEL_HTAB_SEED_WORDS];
int htab_seed_draws = 0;

// Readers outside the registry lock (the owner of a table, the expiry fast
// path) see the words relaxed: a stale id is checked again under the lock.
template <class T>
T load(const T &word) {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}
template <class T>
void store(T &word, T value) {
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

class DbLock {
  public:
    DbLock() { MtMutexLock(htab_db.lock); }
    ~DbLock() { MtMutexUnLock(htab_db.lock); }
    DbLock(const DbLock &) = delete;
    DbLock &operator=(const DbLock &) = delete;
};

vael_mutex *lock_of(int id) {
    const htab_db_id &slot = htab_db.ids[id];
    return slot.lock ? *slot.lock : *slot.rwlock;
}

size_t entry_bytes(int nkeys, int nvals) {
    return offsetof(vael_htab_entry, words) + ((size_t)nkeys + (size_t)nvals) * sizeof(uint32_t);
}

vael_htab_entry *alloc_entry(int nkeys, int nvals) {
    return static_cast<vael_htab_entry *>(VAEL_KMALLOC(entry_bytes(nkeys, nvals)));
}

void free_entry(vael_htab_entry *e) { VAEL_KFREE(e, entry_bytes(e->nkeys, e->nvals)); }

__attribute__((always_inline)) inline uint32_t bin_fold(uint64_t acc, uint32_t size) {
    return ((uint32_t)acc ^ (uint32_t)(acc >> 32)) & (size - 1);
}

// Bins count in powers of two; a key longer than the seed reuses it from its
// start (the subset construction keys states by sets of any length).
__attribute__((always_inline)) inline uint32_t bin_of(const vael_htab *t, const uint32_t *key, int nkeys) {
    const uint32_t *r = htab_seed;
    constexpr int kSeedMask = VAEL_HTAB_SEED_WORDS - 1;
    uint64_t acc = 0;
    int i = 0;
    if (nkeys == 2) // the common key, without the loop
        return bin_fold((uint64_t)(key[0] + r[0]) * (uint32_t)(key[1] + r[1]), t->size);
    if (nkeys & 1) {
        // Signed seed words, zero-extended key word; unsigned arithmetic gives
        // the same 64 bits without overflow.
        uint64_t r0 = (uint64_t)(int64_t)(int32_t)r[0];
        uint64_t rn = (uint64_t)(int64_t)(int32_t)r[nkeys & kSeedMask];
        acc = ((uint64_t)key[0] + r0) * rn;
        i = 1;
    }
    for (; i + 1 < nkeys; i += 2) {
        uint32_t a = key[i] + r[i & kSeedMask];
        uint32_t b = key[i + 1] + r[(i + 1) & kSeedMask];
        acc += (uint64_t)a * b;
    }
    return bin_fold(acc, t->size);
}

// The first word rejects almost every other entry of a chain.
__attribute__((always_inline)) inline bool same_key(const vael_htab_entry *e, const uint32_t *key, int nkeys) {
    if (e->nkeys != nkeys || e->words[0] != key[0])
        return false;
    for (int i = 1; i < nkeys; i++)
        if (e->words[i] != key[i])
            return false;
    return true;
}

// The link that points at the entry of key, or the null link at the end of
// its chain.
__attribute__((always_inline)) inline vael_htab_entry **find_link(vael_htab *t, const uint32_t *key,
                                                                    int nkeys) {
    vael_htab_entry **link = &t->bins[bin_of(t, key, nkeys)];
    while (*link && !same_key(*link, key, nkeys))
        link = &(*link)->next;
    return link;
}

uint32_t *vals_of(vael_htab_entry *e) { return e->words + e->nkeys; }

// Runs f with the table marked as being in user context; a nested call
// keeps the outer mark.
template <class F>
auto in_user_context(vael_htab *t, F &&f) {
    uint32_t saved = t->state;
    t->state |= kHtabStateUser;
    auto r = f();
    t->state = saved;
    return r;
}

bool invalid(const char *func, const char *reason) {
    if (qx_assert_on)
        vael_soft_assert_fail(func, reason, __FILE__, __LINE__);
    return true;
}

// vael_htab_assert: the table of id (or the one given) when the operation
// may run on it, else null after the report.
vael_htab *vael_htab_assert(int id, vael_htab *table, uint32_t mask, const char *function, const char *file,
                            int line) {
    static const char kName[] = "vael_htab_assert";
    static thread_local char reason[64];
    if (!table && (uint32_t)id < (uint32_t)kMaxTables)
        table = load(htab_db.tables[id]);
    const char *what = nullptr;
    if ((mask & kCheckExists) && !table)
        what = "invalid";
    else if (table && (mask & 0x8) && (mask & 0x6) && (table->state & kHtabStateUser))
        what = "in user context";
    if (!what)
        return table;
    VAEL_LOG_AS(kName, VAEL_DBG_ERR, "K_HTAB | K_ERROR", "%s: fatal error in %s: vael htab(%d) is %s (%s:%d)\n",
                function, id, what, file, line);
    std::snprintf(reason, sizeof reason, "%s: vael htab(%d) is %s!", function, id, what);
    if (qx_assert_on)
        qx_panic_ex(reason);
    return nullptr;
}

#define HTAB_CHECK(id, table, mask) vael_htab_assert((id), (table), (mask), __func__, __FILE__, __LINE__)

// ---------------------------------------------------------------- printing

// Prints a word list as "%x" joined by ",", continuing the current line.
void print_words(const uint32_t *w, int n) {
    for (int i = 0; i < n; i++)
        vael_us_adaptor_kdprintf_no_prefix(i ? ",%x" : "%x", w[i]);
}

void print_entry(vael_htab *t, vael_htab_entry *e) {
    int timeout = (int)entry_timeout(e);
    int remaining = (int)remaining_seconds(t, e);
    if (t->print_func) {
        in_user_context(t, [&] {
            t->print_func(e->words, e->nkeys, vals_of(e), e->nvals, timeout, remaining, t->opaque);
            return 0;
        });
        return;
    }
    vael_us_adaptor_kdprintf("<");
    print_words(e->words, e->nkeys);
    if (e->nvals > 0) {
        vael_us_adaptor_kdprintf_no_prefix("; ");
        print_words(vals_of(e), e->nvals);
    }
    if (timeout != 0)
        vael_us_adaptor_kdprintf_no_prefix("; %d/%d", remaining, timeout);
    vael_us_adaptor_kdprintf_no_prefix(">\n");
}

// The key of a failed operation, ending a trace line.
void trace_key(const uint32_t *key, int nkeys) {
    vael_us_adaptor_kdprintf_no_prefix("<");
    print_words(key, nkeys);
    vael_us_adaptor_kdprintf_no_prefix(">\n");
}

// ---------------------------------------------------------------- entries

// Takes the entry at *link off its chain and out of the table.
void remove_at(vael_htab *t, vael_htab_entry **link, int expired, const char *reason) {
    vael_htab_entry *e = *link;
    *link = e->next;
    del_expire(t, e);
    if (t->free_func) {
        in_user_context(t, [&] {
            t->free_func(e->words, e->nkeys, vals_of(e), e->nvals, expired, reason, t->opaque);
            return 0;
        });
    }
    free_entry(e);
    t->nents--;
}

// Releases a chain that has left the table, with its timers, calling no
// user function.
void drop_chain(vael_htab *t, vael_htab_entry *e) {
    while (e) {
        vael_htab_entry *next = e->next;
        del_expire(t, e);
        free_entry(e);
        e = next;
    }
}

bool bad_key(const uint32_t *key, int nkeys) { return !key || nkeys < 1; }

// ---------------------------------------------------------------- registry

void expire_ids_add(int id, uint32_t flags) {
    int g = gradual_expire_count;
    int r = regular_expire_count;
    if (flags & VAEL_HTAB_EXPIRE_GRADUAL) {
        // The first regular id moves to the end to make room.
        if (r > 0)
            store(htab_db.expire_ids[g + r], htab_db.expire_ids[g]);
        store(htab_db.expire_ids[g], id);
        store(gradual_expire_count, g + 1);
    } else if (flags & VAEL_HTAB_EXPIRE) {
        store(htab_db.expire_ids[g + r], id);
        store(regular_expire_count, r + 1);
    }
}

void expire_ids_remove(int id) {
    int g = gradual_expire_count;
    int r = regular_expire_count;
    int *ids = htab_db.expire_ids;
    for (int i = 0; i < g + r; i++) {
        if (ids[i] != id)
            continue;
        if (i < g) {
            store(ids[i], ids[g - 1]);
            if (r > 0)
                store(ids[g - 1], ids[g + r - 1]);
            store(gradual_expire_count, g - 1);
        } else {
            store(ids[i], ids[g + r - 1]);
            store(regular_expire_count, r - 1);
        }
        return;
    }
}

void free_record(vael_htab *t) {
    VAEL_KFREE(t->bins, t->bins_bytes);
    VAEL_KFREE(t, sizeof(vael_htab));
}

// vael_htab_free_table, under the registry lock.
void vael_htab_free_table(int id) {
    vael_htab *t = htab_db.tables[id];
    if (htab_db.ids[id].users > 0) {
        VAEL_ASSERT(0, "It is not allowed to free this table!");
        return;
    }
    if (t->flags & kExpiring)
        expire_ids_remove(id);
    // A pending table is empty unless a registry user filled it meanwhile;
    // what is left goes without callbacks, none may run here.
    for (uint32_t b = 0; b < t->size; b++)
        drop_chain(t, t->bins[b]);
    clear_gradual_rate(id);
    store(htab_db.tables[id], (vael_htab *)nullptr);
    htab_db.ids[id] = htab_db_id{};
    free_record(t);
}

int lowest_id_named(const char *name) {
    for (int i = 0; i < kMaxTables; i++) {
        const vael_htab *t = htab_db.tables[i];
        if (t && std::strncmp(t->name, name, VAEL_HTAB_NAME_SIZE) == 0)
            return i;
    }
    return -1;
}

int vael_htab_create_internal(const char *name, int size, uint32_t flags, vael_htab_free_fn free_func,
                              vael_htab_print_fn print_func, vael_htab_exp_fn exp_func, vael_mutex **lock,
                              vael_mutex **rwlock, int *id_out, void *opaque, const char *caller, int line) {
    static const char kName[] = "vael_htab_create";
    if (id_out)
        *id_out = -1;
    vael_mutex **given = lock ? lock : rwlock;
    if (!name || !id_out || !lock == !rwlock || !*given) {
        invalid(kName, "Invalid parameters");
        return VAEL_ERROR;
    }
    if (strnlen(name, VAEL_HTAB_NAME_SIZE) >= VAEL_HTAB_NAME_SIZE) {
        VAEL_LOG_AS(kName, VAEL_DBG_ERR, kTopic, "%s: table name %s too long\n", name);
        return VAEL_ERROR;
    }
    auto *t = static_cast<vael_htab *>(qx_kmalloc_ex_(sizeof(vael_htab), caller, 0, __FILE__, line));
    if (!t) {
        VAEL_LOG_AS(kName, VAEL_DBG_ERR, kTopic, "%s: failed to allocate memory for table %s\n", name);
        return VAEL_ERROR;
    }
    std::memset(t, 0, sizeof *t);

    uint32_t nbins = 1;
    while (size > 1 && nbins < (uint32_t)size && nbins < VAEL_HTAB_MAX_BINS)
        nbins <<= 1;
    const size_t slots_bytes = (flags & kExpiring) ? VAEL_HTAB_SLOTS * sizeof(vael_htab_slot) : 0;
    // Short of memory, a table works with fewer bins, down to 257.
    for (;;) {
        size_t bytes = nbins * sizeof(vael_htab_entry *) + slots_bytes;
        t->bins = static_cast<vael_htab_entry **>(qx_kmalloc_ex_(bytes, caller, 0, __FILE__, line + 1));
        if (t->bins) {
            std::memset(t->bins, 0, bytes);
            t->bins_bytes = bytes;
            break;
        }
        nbins /= 2;
        if (nbins < 257) {
            VAEL_LOG_AS(kName, VAEL_DBG_ERR, kTopic, "%s: failed to allocate memory for entries of table %s\n",
                        name);
            VAEL_KFREE(t, sizeof *t);
            return VAEL_ERROR;
        }
    }
    t->size = nbins;
    t->flags = flags;
    t->free_func = free_func;
    t->print_func = print_func;
    t->exp_func = exp_func;
    t->opaque = opaque;
    std::memcpy(t->name, name, std::strlen(name) + 1);
    if (flags & kExpiring) {
        t->slots = reinterpret_cast<vael_htab_slot *>(t->bins + nbins);
        t->last_expire_time = now();
    }

    int id = -1;
    {
        DbLock db;
        for (int i = 0; i < kMaxTables && id < 0; i++)
            if (!htab_db.tables[i])
                id = i;
        if (id >= 0) {
            htab_db.ids[id] = htab_db_id{lock, rwlock, 0, 0, nullptr, nullptr};
            clear_gradual_rate(id);
            if (flags & kExpiring)
                expire_ids_add(id, flags);
            store(htab_db.tables[id], t);
        }
    }
    if (id < 0) {
        VAEL_LOG_AS(kName, VAEL_DBG_ERR, kTopic, "%s: reached the maximum number of tables\n");
        free_record(t);
        return VAEL_ERROR;
    }
    *id_out = id;
    return VAEL_OK;
}

} // namespace

// ---------------------------------------------------------------- shared with expiry

namespace vael_htab_detail {

vael_htab *acquire(int id, bool expiring_only, vael_mutex **lock_out) {
    if ((uint32_t)id >= (uint32_t)kMaxTables)
        return nullptr;
    DbLock db;
    vael_htab *t = htab_db.tables[id];
    if (!t || (expiring_only && !(t->flags & kExpiring)))
        return nullptr;
    htab_db.ids[id].users++;
    *lock_out = lock_of(id);
    return t;
}

void release(int id) {
    vael_htab_destroyed_fn func = nullptr;
    void *arg = nullptr;
    {
        DbLock db;
        htab_db_id &slot = htab_db.ids[id];
        slot.users--;
        if (slot.pending_free && slot.users < 1) {
            func = slot.pending_free_func;
            arg = slot.pending_free_arg;
            vael_htab_free_table(id);
        }
    }
    if (func)
        func(arg);
}

int del_entry(vael_htab *table, const uint32_t *key, int nkeys, int expired, const char *reason) {
    vael_htab_entry **link = find_link(table, key, nkeys);
    if (!*link)
        return VAEL_ERROR;
    remove_at(table, link, expired, reason);
    return VAEL_OK;
}

int expire_id_at(int i) {
    if (i < 0 || i >= load(gradual_expire_count) + load(regular_expire_count) || i >= kMaxTables)
        return -1;
    return load(htab_db.expire_ids[i]);
}

int users_of(int id) {
    DbLock db;
    return htab_db.ids[id].users;
}

const uint32_t *hash_seed() { return htab_seed; }

} // namespace vael_htab_detail

// ---------------------------------------------------------------- start and stop

extern "C" int vael_htab_ini(void) {
    std::memset(&htab_db, 0, sizeof htab_db);
    gradual_expire_count = 0;
    regular_expire_count = 0;
    if (tqlock_lock_init(&htab_db.lock) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, "K_ERROR", "%s: Failed to initialize htab db lock\n");
        return VAEL_ERROR;
    }
    if (ex_counters_init() != 0) {
        VAEL_LOG(VAEL_DBG_ERR, "K_ERROR", "%s: Failed to initialize htab expiration counters\n");
        tqlock_lock_term(&htab_db.lock);
        std::memset(&htab_db, 0, sizeof htab_db);
        return VAEL_ERROR;
    }
    if (htab_seed_draws++ == 0)
        vael_krand_gen(htab_seed, sizeof htab_seed);
    return VAEL_OK;
}

extern "C" int vael_htab_fini(void) {
    ex_counters_fini();
    if (htab_db.lock)
        tqlock_lock_term(&htab_db.lock);
    std::memset(&htab_db, 0, sizeof htab_db);
    gradual_expire_count = 0;
    regular_expire_count = 0;
    return VAEL_OK;
}

// ---------------------------------------------------------------- tables

extern "C" int vael_htab_create(const char *name, int size, uint32_t flags, vael_htab_free_fn free_func,
                                vael_htab_print_fn print_func, vael_htab_exp_fn exp_func, vael_mutex **lock,
                                int *id_out, void *opaque) {
    return vael_htab_create_internal(name, size, flags, free_func, print_func, exp_func, lock, nullptr, id_out,
                                     opaque, __func__, __LINE__);
}

extern "C" int vael_htab_create_rw(const char *name, int size, uint32_t flags, vael_htab_free_fn free_func,
                                   vael_htab_print_fn print_func, vael_htab_exp_fn exp_func, vael_mutex **rwlock,
                                   int *id_out, void *opaque) {
    return vael_htab_create_internal(name, size, flags, free_func, print_func, exp_func, nullptr, rwlock, id_out,
                                     opaque, __func__, __LINE__);
}

// A kernel releases its global lock around the allocation here; in user
// space only the call site that fail injection sees differs.
extern "C" int vael_htab_create_release_qx_lock(const char *name, int size, uint32_t flags,
                                                vael_htab_free_fn free_func, vael_htab_print_fn print_func,
                                                vael_htab_exp_fn exp_func, vael_mutex **lock, int *id_out,
                                                void *opaque) {
    return vael_htab_create_internal(name, size, flags, free_func, print_func, exp_func, lock, nullptr, id_out,
                                     opaque, __func__, __LINE__);
}

extern "C" int vael_htab_create_rw_release_qx_lock(const char *name, int size, uint32_t flags,
                                                   vael_htab_free_fn free_func, vael_htab_print_fn print_func,
                                                   vael_htab_exp_fn exp_func, vael_mutex **rwlock, int *id_out,
                                                   void *opaque) {
    return vael_htab_create_internal(name, size, flags, free_func, print_func, exp_func, nullptr, rwlock, id_out,
                                     opaque, __func__, __LINE__);
}

extern "C" int vael_htab_destroy_ex(int id, vael_htab_destroyed_fn free_func, void *arg) {
    if (!HTAB_CHECK(id, nullptr, kCheckWrite) || vael_htab_delete_all(id) != 0)
        return 1;
    DbLock db;
    htab_db_id &slot = htab_db.ids[id];
    if (slot.users >= 1) {
        // The last user's release frees it and makes the call.
        slot.pending_free = 1;
        slot.pending_free_func = free_func;
        slot.pending_free_arg = arg;
        return 0;
    }
    vael_htab_free_table(id);
    return 1;
}

extern "C" int vael_htab_destroy(int id) { return vael_htab_destroy_ex(id, nullptr, nullptr); }

extern "C" int vael_htab_find(const char *name) {
    if (!name)
        return -1;
    DbLock db;
    return lowest_id_named(name);
}

extern "C" int vael_htab_nents(int id) {
    vael_htab *t = HTAB_CHECK(id, nullptr, kCheckRead);
    return t ? t->nents : 0;
}

// ---------------------------------------------------------------- entries

extern "C" int vael_htab_set(int id, const uint32_t *key, int nkeys, const uint32_t *vals, int nvals,
                             uint32_t timeout, int *result_out) {
    if (bad_key(key, nkeys) || !vals || nvals < 1) {
        invalid(__func__, "Invalid arguments");
        return VAEL_ERROR;
    }
    vael_htab *t = HTAB_CHECK(id, nullptr, kCheckWrite);
    if (!t)
        return VAEL_ERROR;
    int result = VAEL_HTAB_SET_UPDATED;
    auto fail = [&](int reason) {
        if (result_out)
            *result_out = reason;
        if (vael_us_adaptor_printable(VAEL_DBG_NOTICE, kTopic)) {
            vael_us_adaptor_kdprintf("%s: failed \"%s\":%d reason: %d ", "vael_htab_set", t->name, id, reason);
            trace_key(key, nkeys);
        }
        return VAEL_ERROR;
    };

    vael_htab_entry **link = find_link(t, key, nkeys);
    vael_htab_entry *e = *link;
    if (e && (t->flags & VAEL_HTAB_NO_UPDATE))
        return fail(VAEL_HTAB_SET_EXISTS);

    // A timer record that the entry will need is taken before anything
    // changes, so running out of memory leaves the table as it was.
    const bool expiring = t->flags & kExpiring;
    const bool arms = expiring && timeout >= 1 && timeout <= VAEL_HTAB_MAX_TIMEOUT;
    vael_htab_timer *spare = nullptr;
    if (arms && (!e || !e->expire || e->nvals != nvals)) {
        spare = alloc_timer();
        if (!spare)
            return fail(VAEL_HTAB_SET_NOMEM);
    }

    if (!e) {
        e = alloc_entry(nkeys, nvals);
        if (!e) {
            free_timer(spare);
            return fail(VAEL_HTAB_SET_NOMEM);
        }
        e->next = nullptr;
        e->expire = nullptr;
        e->nkeys = nkeys;
        std::memcpy(e->words, key, (size_t)nkeys * sizeof(uint32_t));
        *link = e;
        t->nents++;
        result = VAEL_HTAB_SET_NEW;
    } else if (e->nvals != nvals) {
        // Same place in the chain, a new record of the right size; the values
        // change, so the free function is not told.
        vael_htab_entry *resized = alloc_entry(nkeys, nvals);
        if (!resized) {
            free_timer(spare);
            return fail(VAEL_HTAB_SET_NOMEM);
        }
        resized->next = e->next;
        resized->expire = nullptr;
        resized->nkeys = nkeys;
        std::memcpy(resized->words, e->words, (size_t)nkeys * sizeof(uint32_t));
        del_expire(t, e);
        free_entry(e);
        *link = e = resized;
    }
    e->nvals = nvals;
    std::memcpy(vals_of(e), vals, (size_t)nvals * sizeof(uint32_t));

    if (expiring && set_expire(t, e, timeout, spare) != 0) {
        // A refused timeout costs the entry and the rest of its chain, and the
        // count is not corrected: callers check a timeout before passing it.
        // What leaves is released here, with its timers.
        *link = nullptr;
        drop_chain(t, e);
        return fail(VAEL_HTAB_SET_BAD_TMO);
    }
    if (result_out)
        *result_out = result;
    return VAEL_OK;
}

extern "C" int vael_htab_set_tmo(int id, const uint32_t *key, int nkeys, uint32_t timeout) {
    if (bad_key(key, nkeys)) {
        invalid(__func__, "Invalid arguments");
        return VAEL_ERROR;
    }
    vael_htab *t = HTAB_CHECK(id, nullptr, kCheckWrite);
    if (!t)
        return VAEL_ERROR;
    vael_htab_entry *e = *find_link(t, key, nkeys);
    const char *why = nullptr;
    if (!e)
        why = "entry not found";
    else if (!(t->flags & kExpiring) || set_expire(t, e, timeout, nullptr) != 0)
        why = "timeout refused";
    if (!why)
        return VAEL_OK;
    if (vael_us_adaptor_printable(VAEL_DBG_NOTICE, kTopic)) {
        vael_us_adaptor_kdprintf("%s: \"%s\":%d failed to set timeout %d: %s ", __func__, t->name, id, (int)timeout,
                                 why);
        trace_key(key, nkeys);
    }
    return VAEL_ERROR;
}

namespace {

// The lookup of get and in, with the refresh step. Result 0 with the entry,
// -1 missing (entry null), -3 refused.
int lookup(int id, vael_htab *t, const uint32_t *key, int nkeys, int refresh_asked, vael_htab_entry **out) {
    vael_htab_entry *e = *find_link(t, key, nkeys);
    *out = e;
    if (!e)
        return -1;
    if (refresh_asked && (t->flags & VAEL_HTAB_REFRESH) && e->expire) {
        if (!HTAB_CHECK(id, t, kCheckRefresh))
            return -3;
        refresh(t, e);
    }
    return 0;
}

} // namespace

namespace {

// vael_htab_get with every check in order and every report; the fast path
// below comes here for anything but a plain hit or miss.
__attribute__((noinline, cold)) int get_checked(int id, const uint32_t *key, int nkeys, uint32_t *dest,
                                                int *len_inout, int refresh, int *result_out) {
    static const char kName[] = "vael_htab_get";
    auto answer = [&](int rc, int result) {
        if (result_out)
            *result_out = result;
        return rc;
    };
    if (bad_key(key, nkeys) || !dest || !len_inout || *len_inout < 1) {
        invalid(kName, "Invalid arguments");
        return answer(VAEL_ERROR, VAEL_HTAB_GET_INVALID);
    }
    vael_htab *t = vael_htab_assert(id, nullptr, kCheckRead, kName, __FILE__, __LINE__);
    if (!t)
        return answer(VAEL_ERROR, VAEL_HTAB_GET_INVALID);
    vael_htab_entry *e = *find_link(t, key, nkeys);
    if (!e)
        return answer(VAEL_ERROR, VAEL_HTAB_GET_MISSING);
    if (*len_inout < e->nvals) {
        if (vael_us_adaptor_printable(VAEL_DBG_NOTICE, kTopic)) {
            vael_us_adaptor_kdprintf("%s: \"%s\": cannot copy vals of ", kName, t->name);
            vael_us_adaptor_kdprintf_no_prefix("<");
            print_words(key, nkeys);
            vael_us_adaptor_kdprintf_no_prefix(">. buffer too short (%d < %d)\n", *len_inout, e->nvals);
        }
        return answer(VAEL_ERROR, VAEL_HTAB_GET_NO_ROOM);
    }
    if (refresh && (t->flags & VAEL_HTAB_REFRESH) && e->expire) {
        if (!vael_htab_assert(id, t, kCheckRefresh, kName, __FILE__, __LINE__))
            return answer(VAEL_ERROR, VAEL_HTAB_GET_INVALID);
        vael_htab_detail::refresh(t, e);
    }
    std::memcpy(dest, vals_of(e), (size_t)e->nvals * sizeof(uint32_t));
    *len_inout = e->nvals;
    return answer(VAEL_OK, VAEL_HTAB_GET_OK);
}

} // namespace

// The lookup of a packet path: a key of two words and one value word, the
// common shape. A loop of lookups waits on memory, not on code, and how many
// of them the processor keeps in flight at once depends on how few
// instructions each takes; so this path makes no call, saves no register, and
// tests the key as one 64-bit word. Every other shape, and every failure but a
// missing key, goes on to the checked road with the arguments untouched.
extern "C" int vael_htab_get(int id, const uint32_t *key, int nkeys, uint32_t *dest, int *len_inout, int refresh,
                             int *result_out) {
    // Bitwise ors: one branch for all the rare cases.
    if (__builtin_expect(((uint32_t)id >= (uint32_t)kMaxTables) | (nkeys != 2) | (refresh != 0) | !key | !dest |
                             !len_inout,
                         0))
        return get_checked(id, key, nkeys, dest, len_inout, refresh, result_out);
    const vael_htab *t = load(htab_db.tables[id]);
    if (__builtin_expect(!t || *len_inout < 1, 0))
        return get_checked(id, key, nkeys, dest, len_inout, refresh, result_out);
    uint64_t k;
    std::memcpy(&k, key, sizeof k);
    const uint64_t acc = (uint64_t)((uint32_t)k + htab_seed[0]) * (uint32_t)((uint32_t)(k >> 32) + htab_seed[1]);
    const vael_htab_entry *e = t->bins[bin_fold(acc, t->size)];
    for (; e; e = e->next) {
        uint64_t w;
        std::memcpy(&w, e->words, sizeof w);
        if (e->nkeys == 2 && w == k)
            break;
    }
    if (!e) {
        if (result_out)
            *result_out = VAEL_HTAB_GET_MISSING;
        return VAEL_ERROR;
    }
    if (__builtin_expect(e->nvals != 1, 0))
        return get_checked(id, key, nkeys, dest, len_inout, refresh, result_out);
    dest[0] = e->words[2];
    *len_inout = 1;
    if (result_out)
        *result_out = VAEL_HTAB_GET_OK;
    return VAEL_OK;
}

namespace {

// The entry of key in a table that nobody changes meanwhile, from the head of
// its chain; N is the key width when known at compile time, else 0.
template <int N>
__attribute__((always_inline)) inline const vael_htab_entry *chain_find(const vael_htab_entry *e,
                                                                        const uint32_t *key, int nkeys) {
    if constexpr (N == 2) {
        uint64_t k;
        std::memcpy(&k, key, sizeof k);
        for (; e; e = e->next) {
            uint64_t w;
            std::memcpy(&w, e->words, sizeof w);
            if (w == k && e->nkeys == 2)
                return e;
        }
        return nullptr;
    } else {
        while (e && !same_key(e, key, nkeys))
            e = e->next;
        return e;
    }
}

// Lookups of many keys, overlapped: a key's bin is fetched ahead by kAhead
// keys, its chain head by kAhead / 2 and the second entry of its chain by
// kAhead / 4 (a full table has two entries a bin on average), so the misses
// of several keys are under way while one key's chain is compared.
template <int N>
int get_many(const vael_htab *t, const uint32_t *keys, int nkeys, int count, uint32_t *dest, int dest_words,
             int *results) {
    constexpr int kAhead = 32;
    constexpr int kHalf = kAhead / 2;
    constexpr int kQuarter = kAhead / 4;
    const int width = N ? N : nkeys;
    uint32_t bin[kAhead];
    const vael_htab_entry *head[kAhead];
    auto key_at = [&](int i) { return keys + (size_t)i * (size_t)width; };
    auto fetch_bin = [&](int i) {
        uint32_t b = bin_of(t, key_at(i), width);
        bin[i % kAhead] = b;
        __builtin_prefetch(&t->bins[b]);
    };
    auto fetch_head = [&](int i) {
        const vael_htab_entry *e = t->bins[bin[i % kAhead]];
        head[i % kAhead] = e;
        if (e)
            __builtin_prefetch(e);
    };
    auto fetch_second = [&](int i) {
        const vael_htab_entry *e = head[i % kAhead];
        if (e && e->next)
            __builtin_prefetch(e->next);
    };
    for (int i = 0; i < count && i < kAhead; i++)
        fetch_bin(i);
    for (int i = 0; i < count && i < kHalf; i++)
        fetch_head(i);
    for (int i = 0; i < count && i < kQuarter; i++)
        fetch_second(i);
    int found = 0;
    for (int i = 0; i < count; i++) {
        const vael_htab_entry *e = chain_find<N>(head[i % kAhead], key_at(i), width);
        if (i + kQuarter < count)
            fetch_second(i + kQuarter);
        if (i + kHalf < count)
            fetch_head(i + kHalf);
        if (i + kAhead < count)
            fetch_bin(i + kAhead);
        if (!e) {
            results[i] = VAEL_HTAB_GET_MISSING;
        } else if (e->nvals > dest_words) {
            results[i] = VAEL_HTAB_GET_NO_ROOM;
        } else {
            std::memcpy(dest + (size_t)i * (size_t)dest_words, e->words + e->nkeys,
                        (size_t)e->nvals * sizeof(uint32_t));
            results[i] = e->nvals;
            found++;
        }
    }
    return found;
}

} // namespace

extern "C" int vael_htab_get_many(int id, const uint32_t *keys, int nkeys, int count, uint32_t *dest,
                                  int dest_words, int *results) {
    if (!keys || nkeys < 1 || count < 0 || !dest || dest_words < 1 || !results) {
        invalid(__func__, "Invalid arguments");
        return VAEL_ERROR;
    }
    const vael_htab *t = HTAB_CHECK(id, nullptr, kCheckRead);
    if (!t)
        return VAEL_ERROR;
    return nkeys == 2 ? get_many<2>(t, keys, nkeys, count, dest, dest_words, results)
                      : get_many<0>(t, keys, nkeys, count, dest, dest_words, results);
}

extern "C" int vael_htab_in(int id, const uint32_t *key, int nkeys, int *found_out, int refresh) {
    if (bad_key(key, nkeys) || !found_out) {
        invalid(__func__, "Invalid arguments");
        return VAEL_ERROR;
    }
    vael_htab *t = HTAB_CHECK(id, nullptr, kCheckRead);
    if (!t)
        return VAEL_ERROR;
    *found_out = 0;
    vael_htab_entry *e = nullptr;
    int rc = lookup(id, t, key, nkeys, refresh, &e);
    if (rc == -3)
        return VAEL_ERROR;
    *found_out = e != nullptr;
    return VAEL_OK;
}

extern "C" int vael_htab_del(int id, const uint32_t *key, int nkeys, const char *caller) {
    if (bad_key(key, nkeys)) {
        invalid(__func__, "Invalid arguments");
        return VAEL_ERROR;
    }
    vael_htab *t = HTAB_CHECK(id, nullptr, kCheckWrite);
    if (!t)
        return VAEL_ERROR;
    if (del_entry(t, key, nkeys, 0, caller) == 0)
        return VAEL_OK;
    if (vael_us_adaptor_printable(VAEL_DBG_NOTICE, kTopic)) {
        vael_us_adaptor_kdprintf("%s (from %s): \"%s\":%d failed to delete: entry not found ", __func__,
                                 caller ? caller : "", t->name, id);
        trace_key(key, nkeys);
    }
    return VAEL_ERROR;
}

extern "C" int vael_htab_delete_all(int id) {
    vael_htab *t = HTAB_CHECK(id, nullptr, kCheckWrite);
    if (!t)
        return VAEL_ERROR;
    for (uint32_t b = 0; b < t->size; b++)
        while (t->bins[b])
            remove_at(t, &t->bins[b], 0, "del all");
    t->nents = 0;
    return VAEL_OK;
}

namespace {

// The walk of traverse and of vael_htab_get_table: bins in rising order,
// each chain from its head, f in user context; f's 0 ends it.
template <class F>
void walk(vael_htab *t, F &&f) {
    for (uint32_t b = 0; b < t->size; b++) {
        for (vael_htab_entry *e = t->bins[b]; e; e = e->next) {
            if (in_user_context(t, [&] { return f(e); }) == 0)
                return;
        }
    }
}

} // namespace

extern "C" int vael_htab_traverse(int id, vael_htab_iter_fn iter_func, int read_only, void *ctx) {
    vael_htab *t = HTAB_CHECK(id, nullptr, read_only ? kCheckRead : kCheckWrite);
    if (!t)
        return VAEL_ERROR;
    if (!iter_func) {
        invalid(__func__, "iter_func is NULL !");
        return VAEL_ERROR;
    }
    walk(t, [&](vael_htab_entry *e) {
        return iter_func(e->words, e->nkeys, vals_of(e), e->nvals, (int)entry_timeout(e),
                         (int)remaining_seconds(t, e), ctx);
    });
    return VAEL_OK;
}

// ---------------------------------------------------------------- from outside

extern "C" int vael_htab_get_table(const char *name, int id, vael_htab_table_fn table_func,
                                   vael_htab_entry_fn entry_func, void *ctx) {
    if ((!name && (uint32_t)id >= (uint32_t)kMaxTables) || (!table_func && !entry_func)) {
        invalid(__func__, "Invalid arguments");
        return 0;
    }
    vael_mutex *lock = nullptr;
    {
        DbLock db;
        if (name)
            id = lowest_id_named(name);
        if (id < 0 || !htab_db.tables[id])
            return 0;
        htab_db.ids[id].users++;
        lock = lock_of(id);
    }
    int found = 0;
    MtMutexLock(lock);
    // users keeps the record alive while the lock was awaited; the name may
    // have been given to another table meanwhile.
    vael_htab *t = htab_db.tables[id];
    if (!name || std::strncmp(t->name, name, VAEL_HTAB_NAME_SIZE) == 0) {
        if (table_func)
            table_func(id, t, ctx);
        else
            walk(t, [&](vael_htab_entry *e) { return entry_func(id, t, e, ctx); });
        found = 1;
    }
    MtMutexUnLock(lock);
    release(id);
    return found;
}

extern "C" int vael_htab_print(int id) {
    vael_htab *t = HTAB_CHECK(id, nullptr, kCheckRead);
    if (!t)
        return VAEL_ERROR;
    for (uint32_t b = 0; b < t->size; b++)
        for (vael_htab_entry *e = t->bins[b]; e; e = e->next)
            print_entry(t, e);
    return VAEL_OK;
}

extern "C" int vael_htab_print_table(const char *name, int summary) {
    if (!name)
        return VAEL_ERROR;
    auto print = [](int id, vael_htab *t, void *ctx) {
        if (*static_cast<int *>(ctx)) {
            vael_us_adaptor_kdprintf("Table '%s' has %d entries\n", t->name, t->nents);
        } else {
            for (uint32_t b = 0; b < t->size; b++)
                for (vael_htab_entry *e = t->bins[b]; e; e = e->next)
                    print_entry(t, e);
        }
        return 0;
    };
    if (vael_htab_get_table(name, -1, print, nullptr, &summary))
        return VAEL_OK;
    vael_us_adaptor_kdprintf("%s: Table '%s' not found\n", __func__, name);
    return VAEL_ERROR;
}

extern "C" void vael_htab_print_stats(void) {
    // One caller at a time: the counts are static.
    static uint32_t chain_lengths[256];
    for (int id = 0; id < kMaxTables; id++) {
        vael_htab_get_table(nullptr, id,
                            [](int id, vael_htab *t, void *) {
                                std::memset(chain_lengths, 0, sizeof chain_lengths);
                                for (uint32_t b = 0; b < t->size; b++) {
                                    uint32_t n = 0;
                                    for (const vael_htab_entry *e = t->bins[b]; e; e = e->next)
                                        n++;
                                    chain_lengths[n < 255 ? n : 255]++;
                                }
                                vael_us_adaptor_kdprintf("table: %d %s ", id, t->name);
                                for (int c = 0; c < 256; c++)
                                    if (chain_lengths[c])
                                        vael_us_adaptor_kdprintf_no_prefix("[%d] %d\t", c, (int)chain_lengths[c]);
                                vael_us_adaptor_kdprintf_no_prefix("\n");
                                return 0;
                            },
                            nullptr, nullptr);
    }
}
