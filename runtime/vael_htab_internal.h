// vael_htab_internal.h - the handle table as its three source files share it:
// the table record, the timer record and ring slot, the registry calls that
// expiry needs, and the clock that expiry reads.
//
// vael_htab.cpp holds the registry and the entries, vael_htab_expire.cpp the
// timers and vael_htab_expire, vael_htab_user.cpp the user side of the
// control channel. Everything here has C++ linkage and stays inside the
// library.
#ifndef VAEL_HTAB_INTERNAL_H
#define VAEL_HTAB_INTERNAL_H

#include <cstdint>

#include "vael/vael_defs.h"
#include "vael/vael_htab.h"

// The timer of one entry. prev is a slot number when the entry is its slot's
// head (every slot number is below 3600, and no entry lives at such a low
// address), else the address of the entry in front of it.
struct vael_htab_timer {
    vael_htab_entry *next;
    uintptr_t prev;
    uint16_t timeout;
    uint16_t slot;
};

// One second of the ring. count is what the gradual rate is computed from.
struct vael_htab_slot {
    vael_htab_entry *head;
    uint32_t count;
};

// state bit 0: a user function of this table is running.
constexpr uint32_t kHtabStateUser = 0x1;

struct vael_htab {
    // size chain heads; in an expiring table the 3600 slots follow in the same
    // block.
    vael_htab_entry **bins;
    uint32_t flags;
    int32_t nents;
    uint32_t size;
    vael_htab_free_fn free_func;
    uint32_t state;
    void *opaque;
    uint32_t last_expire_time;
    vael_htab_slot *slots;
    uint32_t current_slot;
    vael_htab_exp_fn exp_func;
    char name[VAEL_HTAB_NAME_SIZE];
    vael_htab_print_fn print_func;
    size_t bins_bytes; // the size the bins block was allocated with
};

namespace vael_htab_detail {

constexpr uint32_t kExpiring = VAEL_HTAB_EXPIRE | VAEL_HTAB_EXPIRE_GRADUAL;

// The clock of expiry: whole seconds, qx_abstime unless replaced. Tests and
// benchmarks put a clock of their own in to step through seconds; the old
// one is returned.
using clock_fn = uint32_t (*)();
clock_fn set_clock(clock_fn clock);
uint32_t now();

// ---- registry, vael_htab.cpp

enum class expire_mode { regular, gradual };

// The table of id with users raised and its lock noted, or null when the id
// has no table, or (with expiring_only) no expiring one. Every table fetched
// so is handed back to release.
vael_htab *acquire(int id, bool expiring_only, vael_mutex **lock_out);
void release(int id);
// Entry removal as vael_htab_del does it, by key, with the table's lock held.
int del_entry(vael_htab *table, const uint32_t *key, int nkeys, int expired, const char *reason);
// The i-th id of the ring order, read without the lock; -1 past the end.
int expire_id_at(int i);
// Entries of a table's chains in traversal order; for the remaining seconds.
uint32_t remaining_seconds(const vael_htab *table, const vael_htab_entry *entry);
uint32_t entry_timeout(const vael_htab_entry *entry);

// Test access: users of an id (raised by vael_htab_get_table and expiry),
// and the hash seed.
int users_of(int id);
const uint32_t *hash_seed();

// ---- timers, vael_htab_expire.cpp

int ex_counters_init();
void ex_counters_fini();
// Places, moves or cancels the entry's timer (see VAEL_HTAB_TMO_KEEP). spare
// is a timer record allocated by the caller beforehand, used when the entry
// has none and freed when not used; null allocates here. 0 or -1.
int set_expire(vael_htab *table, vael_htab_entry *entry, uint32_t timeout, vael_htab_timer *spare);
// Unlinks and frees the entry's timer, if any.
void del_expire(vael_htab *table, vael_htab_entry *entry);
// Moves the timer to current_slot + timeout, unless it is there already.
void refresh(vael_htab *table, vael_htab_entry *entry);
vael_htab_timer *alloc_timer();
void free_timer(vael_htab_timer *timer);
// Forgets the gradual rate of a freed id.
void clear_gradual_rate(int id);

}  // namespace vael_htab_detail

#endif  // VAEL_HTAB_INTERNAL_H
