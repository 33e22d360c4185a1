// vael_alloc.h - typed allocation for the C++ side of the library.
//
// Records are plain structs allocated through the accounting allocator, so
// byte figures and fail injection see them. The helpers here zero a record,
// name the call site (function, file, line: the key of fail injection), and
// give an owner that frees with the size allocated, so a builder with many
// early exits frees what it made on every road and hands the record on with
// release() only when it is complete.
//
//   auto rec = VAEL_PM_MAKE_OWNED(vael_thing);
//   if (!rec) return nullptr;
//   if (fill(rec.get()) != 0) return nullptr;   // rec is freed here
//   return rec.release();
#ifndef VAEL_ALLOC_H
#define VAEL_ALLOC_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

#include "vael/vael_us_adaptor.h"

// Which account a block is counted in: general memory, or memory owned by a
// PM or an engine (counted in both).
enum class vael_account { kmem, pm };

inline void *vael_alloc_bytes(vael_account account, size_t size, const char *caller, const char *file, int line) {
    return account == vael_account::pm ? vael_pmglob_memory_kmalloc_ex_(size, caller, 0, file, line)
                                       : qx_kmalloc_ex_(size, caller, 0, file, line);
}

inline void vael_free_bytes(vael_account account, void *ptr, size_t size) {
    if (account == vael_account::pm)
        vael_pmglob_memory_kfree_ex_(ptr, size, __func__, __FILE__, __LINE__);
    else
        qx_kfree_(ptr, size);
}

// `count` zeroed records of T; null when out of memory or when the size
// would overflow. Only records with nothing to destroy are allocated this way:
// the free runs no destructor.
template <class T>
T *vael_alloc_zeroed(vael_account account, size_t count, const char *caller, const char *file, int line) {
    static_assert(std::is_trivially_destructible_v<T>, "records freed by size run no destructor");
    static_assert(std::is_default_constructible_v<T>, "records start from their zero state");
    if (count == 0 || count > SIZE_MAX / sizeof(T))
        return nullptr;
    void *p = vael_alloc_bytes(account, sizeof(T) * count, caller, file, line);
    if (!p)
        return nullptr;
    // Zero bytes first, padding included, so a record written out whole
    // carries no stale heap bytes.
    std::memset(p, 0, sizeof(T) * count);
    T *first = static_cast<T *>(p);
    for (size_t i = 0; i < count; i++)
        ::new (static_cast<void *>(first + i)) T{};
    return first;
}

// Frees with the size the block was allocated with.
struct vael_sized_free {
    vael_account account = vael_account::kmem;
    size_t size = 0;
    void operator()(void *ptr) const { vael_free_bytes(account, ptr, size); }
};

// The owner of one block of records.
template <class T>
using vael_owned = std::unique_ptr<T, vael_sized_free>;

template <class T>
vael_owned<T> vael_make_owned(vael_account account, size_t count, const char *caller, const char *file, int line) {
    T *p = vael_alloc_zeroed<T>(account, count, caller, file, line);
    return vael_owned<T>(p, vael_sized_free{account, p ? sizeof(T) * count : 0});
}

#define VAEL_NEW_ZEROED(T) vael_alloc_zeroed<T>(vael_account::kmem, 1, __func__, __FILE__, __LINE__)
#define VAEL_PM_NEW_ZEROED(T) vael_alloc_zeroed<T>(vael_account::pm, 1, __func__, __FILE__, __LINE__)
#define VAEL_NEW_ZEROED_ARRAY(T, n) vael_alloc_zeroed<T>(vael_account::kmem, (n), __func__, __FILE__, __LINE__)
#define VAEL_PM_NEW_ZEROED_ARRAY(T, n) vael_alloc_zeroed<T>(vael_account::pm, (n), __func__, __FILE__, __LINE__)

#define VAEL_MAKE_OWNED(T) vael_make_owned<T>(vael_account::kmem, 1, __func__, __FILE__, __LINE__)
#define VAEL_PM_MAKE_OWNED(T) vael_make_owned<T>(vael_account::pm, 1, __func__, __FILE__, __LINE__)
#define VAEL_MAKE_OWNED_ARRAY(T, n) vael_make_owned<T>(vael_account::kmem, (n), __func__, __FILE__, __LINE__)
#define VAEL_PM_MAKE_OWNED_ARRAY(T, n) vael_make_owned<T>(vael_account::pm, (n), __func__, __FILE__, __LINE__)

#endif  // VAEL_ALLOC_H
