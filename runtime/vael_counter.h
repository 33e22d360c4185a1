// vael_counter.h - statistics counters that runs on many threads write.
//
// A counter is a plain word of a shared record (a PM entry, an engine's
// statistics). Runs over one PM may go on in parallel and may lose counts,
// which the library allows; what they may not do is race in the sense of the
// language, which is undefined behaviour and hides real races from the
// thread checkers. So a counter is read and written as a relaxed atomic: a
// plain load and a plain store on x86, no locked instruction, and a count
// lost when two runs meet is the whole cost.
#ifndef VAEL_COUNTER_H
#define VAEL_COUNTER_H

#include <atomic>
#include <cstdint>

template <class T>
inline void vael_counter_add(T &counter, T n) {
    static_assert(std::atomic_ref<T>::is_always_lock_free, "a counter is one plain word");
    std::atomic_ref<T> c(counter);
    c.store(c.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}

#endif  // VAEL_COUNTER_H
