// vael_htab_expire.cpp - timers of handle table entries and their expiry.
//
// An expiring table keeps a ring of 3600 slots, one per second; an entry with
// a timeout of t seconds sits in slot current_slot + t, at the head, linked
// to its neighbours through its timer record. vael_htab_expire advances each
// ring by the seconds of clock time since its last call, emptying every slot
// it leaves. A gradual table also gives up the head of its present slot
// every p-th call within a second, p being the power of two that spreads the
// slot's entries over the calls of the second before; what is left goes at
// the change of second.
//
// The ring moves only on clock time that passed between two calls, at most
// 900 seconds; a larger jump either way is taken for a change of the clock,
// and the ring stays where it is.

#include <atomic>
#include <cstring>

#include "runtime/vael_htab_internal.h"
#include "runtime/vael_runtime.h"

using namespace vael_htab_detail;

uint32_t last_ex_opportunity_time = 0;
uint32_t ex_opportunities_in_current_sec = 0;

namespace {

constexpr uint32_t kSlots = VAEL_HTAB_SLOTS;
// A clock that moved by more than this, either way, was set.
constexpr uint32_t kMaxStep = 900;
constexpr const char kTopic[] = "K_HTAB";

struct ex_counters_t {
    vael_mutex *lock; // "htab_ex_counters_lock"; covers the change of second
    uint32_t ex_opportunities_in_prev_sec;
    // Per id: take an entry when the call count of the second is a multiple
    // of this power of two; 0 takes none.
    uint32_t ex_opportunities_per_gradual[VAEL_HTAB_MAX_TABLES];
};

ex_counters_t htab_ex_counters;

std::atomic<clock_fn> g_clock{&qx_abstime};

// The counters are a rate estimate read and bumped without a lock; a lost
// count is harmless, so relaxed words are enough.
template <class T>
T load(const T &word) {
    return __atomic_load_n(&word, __ATOMIC_RELAXED);
}
template <class T>
void store(T &word, T value) {
    __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

vael_htab_timer *timer_of(const vael_htab_entry *e) { return static_cast<vael_htab_timer *>(e->expire); }

// Head of the slot, in front of the old head.
void place(vael_htab *t, vael_htab_entry *e, uint32_t timeout) {
    vael_htab_timer *tm = timer_of(e);
    uint32_t slot = (t->current_slot + timeout) % kSlots;
    vael_htab_slot &s = t->slots[slot];
    tm->timeout = (uint16_t)timeout;
    tm->slot = (uint16_t)slot;
    tm->next = s.head;
    tm->prev = slot;
    if (s.head)
        timer_of(s.head)->prev = (uintptr_t)e;
    s.head = e;
    s.count++;
}

void unlink(vael_htab *t, vael_htab_entry *e) {
    vael_htab_timer *tm = timer_of(e);
    if (tm->next)
        timer_of(tm->next)->prev = tm->prev;
    if (tm->prev > kSlots - 1)
        timer_of(reinterpret_cast<vael_htab_entry *>(tm->prev))->next = tm->next;
    else
        t->slots[tm->prev].head = tm->next;
    t->slots[tm->slot].count--;
}

void vael_htab_set_gradual_expiration_rate(int id, uint32_t nents_to_expire) {
    uint32_t rate = 0;
    if ((int32_t)nents_to_expire > 0) {
        uint32_t q = load(htab_ex_counters.ex_opportunities_in_prev_sec) / nents_to_expire;
        // The smallest power of two not below q; 0 stays 0.
        q--;
        q |= q >> 1;
        q |= q >> 2;
        q |= q >> 4;
        q |= q >> 8;
        q |= q >> 16;
        rate = q + 1;
    }
    store(htab_ex_counters.ex_opportunities_per_gradual[id], rate);
}

void vael_htab_do_expire_one(int id, vael_htab *t, vael_htab_entry *e) {
    uint32_t timeout = timer_of(e)->timeout;
    if (t->exp_func) {
        uint32_t saved = t->state;
        t->state |= kHtabStateUser;
        int answer = t->exp_func(e->words, e->nkeys, e->words + e->nkeys, e->nvals, &timeout, t->opaque);
        t->state = saved;
        if (answer == 1) {
            set_expire(t, e, timeout, nullptr);
            VAEL_LOG_AS("vael_htab_do_expire_one", VAEL_DBG_INFO, kTopic, "%s: \"%s\":%d resched entry %p (now=%u)",
                        t->name, id, (void *)e, now());
            return;
        }
        // Any other answer leaves the entry where it is.
        if (answer != 0)
            return;
    }
    VAEL_LOG_AS("vael_htab_do_expire_one", VAEL_DBG_INFO, kTopic, "%s: \"%s\":%d expire entry %p (now=%u)",
                t->name, id, (void *)e, now());
    del_expire(t, e);
    del_entry(t, e->words, e->nkeys, 1, "expiration");
}

// Under the table's lock.
void vael_htab_do_expire(int id, vael_htab *t, expire_mode mode) {
    static const char kName[] = "vael_htab_do_expire";
    const uint32_t now_s = now();
    const uint32_t last = t->last_expire_time;
    if (now_s == last) {
        if (mode == expire_mode::regular) {
            VAEL_LOG_AS(kName, VAEL_DBG_INFO, kTopic,
                        "%s: seconds not switched but expiration is gradual => exiting expiration of \"%s\" id %d\n",
                        t->name, id);
            return;
        }
        // One entry per opportunity, no more.
        if (vael_htab_entry *head = t->slots[t->current_slot].head)
            vael_htab_do_expire_one(id, t, head);
        return;
    }
    const uint32_t diff = now_s - last;
    if (diff + kMaxStep >= 2 * kMaxStep + 1) {
        VAEL_LOG_AS(kName, VAEL_DBG_NOTICE, kTopic,
                    "%s: Assuming clock change occurred (table \"%s\" id %d, current time=%u ,last_expire_time=%u)\n",
                    t->name, id, now_s, last);
        t->last_expire_time = now_s;
        return;
    }
    // A small step back moves nothing.
    if ((int32_t)diff > 0) {
        for (uint32_t step = 0; step < diff; step++) {
            vael_htab_slot &s = t->slots[t->current_slot];
            while (s.head)
                vael_htab_do_expire_one(id, t, s.head);
            t->current_slot = (t->current_slot + 1) % kSlots;
        }
    }
    vael_htab_set_gradual_expiration_rate(id, t->slots[t->current_slot].count);
    t->last_expire_time = now_s;
}

void vael_htab_expire_table(int id, expire_mode mode) {
    vael_mutex *lock = nullptr;
    vael_htab *t = acquire(id, true, &lock);
    if (!t)
        return;
    MtMutexLock(lock);
    vael_htab_do_expire(id, t, mode);
    MtMutexUnLock(lock);
    release(id);
}

// Starts a new second of the counters. False when another caller started it
// already, which then counts as an opportunity of that second.
bool vael_htab_update_ex_counters(uint32_t now_s) {
    static const char kName[] = "vael_htab_update_ex_counters";
    MtMutexLock(htab_ex_counters.lock);
    const uint32_t diff = now_s - load(last_ex_opportunity_time);
    if (diff == 0) {
        store(ex_opportunities_in_current_sec, load(ex_opportunities_in_current_sec) + 1);
        MtMutexUnLock(htab_ex_counters.lock);
        return false;
    }
    store(last_ex_opportunity_time, now_s);
    if (diff + kMaxStep < 2 * kMaxStep + 1) {
        // A step back gives a huge unsigned diff, hence a rate of 1.
        uint32_t rate = load(ex_opportunities_in_current_sec) / diff;
        store(htab_ex_counters.ex_opportunities_in_prev_sec, rate ? rate : 1u);
        store(ex_opportunities_in_current_sec, 1u);
        MtMutexUnLock(htab_ex_counters.lock);
    } else {
        MtMutexUnLock(htab_ex_counters.lock);
        VAEL_LOG_AS(kName, VAEL_DBG_NOTICE, kTopic, "%s: Assuming clock change occurred (now=%u)\n", now_s);
    }
    return true;
}

} // namespace

namespace vael_htab_detail {

clock_fn set_clock(clock_fn clock) { return g_clock.exchange(clock ? clock : &qx_abstime); }

uint32_t now() { return g_clock.load(std::memory_order_relaxed)(); }

int ex_counters_init() {
    std::memset(&htab_ex_counters, 0, sizeof htab_ex_counters);
    store(ex_opportunities_in_current_sec, 0u);
    store(last_ex_opportunity_time, now());
    if (tqlock_lock_init(&htab_ex_counters.lock) != 0) {
        VAEL_LOG_AS("vael_htab_ex_counters_init", VAEL_DBG_ERR, "K_ERROR",
                    "%s: Failed to initialize htab expiration counters lock\n");
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

void ex_counters_fini() {
    if (htab_ex_counters.lock)
        tqlock_lock_term(&htab_ex_counters.lock);
    std::memset(&htab_ex_counters, 0, sizeof htab_ex_counters);
    store(ex_opportunities_in_current_sec, 0u);
    store(last_ex_opportunity_time, 0u);
}

vael_htab_timer *alloc_timer() { return static_cast<vael_htab_timer *>(VAEL_KMALLOC(sizeof(vael_htab_timer))); }

void free_timer(vael_htab_timer *timer) { VAEL_KFREE(timer, sizeof(vael_htab_timer)); }

int set_expire(vael_htab *t, vael_htab_entry *e, uint32_t timeout, vael_htab_timer *spare) {
    if (timeout == VAEL_HTAB_TMO_KEEP || timeout == 0 || timeout > VAEL_HTAB_MAX_TIMEOUT) {
        free_timer(spare);
        if (timeout == 0)
            del_expire(t, e);
        return timeout > VAEL_HTAB_MAX_TIMEOUT && timeout != VAEL_HTAB_TMO_KEEP ? VAEL_ERROR : VAEL_OK;
    }
    if (e->expire) {
        free_timer(spare);
        unlink(t, e);
    } else {
        e->expire = spare ? spare : alloc_timer();
        if (!e->expire)
            return VAEL_ERROR;
    }
    place(t, e, timeout);
    return VAEL_OK;
}

void del_expire(vael_htab *t, vael_htab_entry *e) {
    if (!e->expire)
        return;
    unlink(t, e);
    free_timer(timer_of(e));
    e->expire = nullptr;
}

void refresh(vael_htab *t, vael_htab_entry *e) {
    vael_htab_timer *tm = timer_of(e);
    if (!tm || tm->slot == (t->current_slot + tm->timeout) % kSlots)
        return;
    unlink(t, e);
    place(t, e, tm->timeout);
}

uint32_t entry_timeout(const vael_htab_entry *e) { return e->expire ? timer_of(e)->timeout : 0; }

uint32_t remaining_seconds(const vael_htab *t, const vael_htab_entry *e) {
    const vael_htab_timer *tm = timer_of(e);
    if (!tm)
        return 0;
    return tm->slot - t->current_slot + (t->current_slot > tm->slot ? kSlots : 0);
}

void clear_gradual_rate(int id) { store(htab_ex_counters.ex_opportunities_per_gradual[id], 0u); }

} // namespace vael_htab_detail

extern "C" void vael_htab_expire(void) {
    const uint32_t now_s = now();
    if (now_s == load(last_ex_opportunity_time)) {
        const uint32_t opportunity = load(ex_opportunities_in_current_sec) + 1;
        store(ex_opportunities_in_current_sec, opportunity);
        for (int i = 0;; i++) {
            int id = expire_id_at(i);
            if (id < 0 || i >= load(gradual_expire_count))
                break;
            uint32_t p = load(htab_ex_counters.ex_opportunities_per_gradual[id]);
            if (p && (opportunity & (p - 1)) == 0)
                vael_htab_expire_table(id, expire_mode::gradual);
        }
        return;
    }
    if (!vael_htab_update_ex_counters(now_s))
        return;
    // Gradual tables too: what their calls left of the slot goes now. The
    // count is read anew each step, as a table may go meanwhile.
    for (int i = 0;; i++) {
        int id = expire_id_at(i);
        if (id < 0)
            break;
        vael_htab_expire_table(id, expire_mode::regular);
    }
}
