// Helpers of the handle table tests: a table with its own lock that records
// what its free function was told, and a clock the test steps by hand.
#ifndef VAEL_TESTS_RUNTIME_HTAB_SUPPORT_H
#define VAEL_TESTS_RUNTIME_HTAB_SUPPORT_H

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <cstdint>
#include <string>
#include <vector>

#include "runtime/vael_htab_internal.h"
#include "vael/vael_apps.h"

namespace htab_test {

using Key = std::vector<uint32_t>;

struct Freed {
    Key key;
    std::vector<uint32_t> vals;
    int expired;
    std::string reason;
    bool operator==(const Freed &o) const {
        return key == o.key && vals == o.vals && expired == o.expired && reason == o.reason;
    }
    bool operator<(const Freed &o) const { return key < o.key; }
};

// A table and its lock, destroyed together.
class Table {
  public:
    Table(const std::string &name, int size, uint32_t flags, vael_htab_exp_fn exp_func = nullptr,
          vael_htab_print_fn print_func = nullptr) {
        EXPECT_EQ(tqlock_lock_init(&lock_), 0);
        rc_ = vael_htab_create(name.c_str(), size, flags, &Table::on_free, print_func, exp_func, &lock_, &id_, this);
    }
    ~Table() {
        if (id_ >= 0) {
            EXPECT_EQ(vael_htab_destroy(id_), 1);
        }
        tqlock_lock_term(&lock_);
    }
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;

    int id() const { return id_; }
    int create_rc() const { return rc_; }
    vael_mutex *lock() const { return lock_; }
    vael_htab *record() const { return id_ >= 0 ? htab_db_table(id_) : nullptr; }

    int set(const Key &k, const std::vector<uint32_t> &v, uint32_t timeout = VAEL_HTAB_TMO_KEEP,
            int *result = nullptr) {
        return vael_htab_set(id_, k.data(), (int)k.size(), v.data(), (int)v.size(), timeout, result);
    }
    // The values of k, or an empty vector when it is missing.
    std::vector<uint32_t> get(const Key &k, int refresh = 0) {
        uint32_t out[64];
        int len = 64, result = 5;
        if (vael_htab_get(id_, k.data(), (int)k.size(), out, &len, refresh, &result) != 0) {
            EXPECT_EQ(result, VAEL_HTAB_GET_MISSING);
            return {};
        }
        return std::vector<uint32_t>(out, out + len);
    }
    int del(const Key &k, const char *why = "test") { return vael_htab_del(id_, k.data(), (int)k.size(), why); }
    int set_tmo(const Key &k, uint32_t timeout) { return vael_htab_set_tmo(id_, k.data(), (int)k.size(), timeout); }

    struct Row { Key key; std::vector<uint32_t> vals; int timeout; int remaining; };
    // Every entry in traversal order.
    std::vector<Row> rows() {
        std::vector<Row> out;
        EXPECT_EQ(vael_htab_traverse(
                      id_,
                      [](const uint32_t *k, int nk, uint32_t *v, int nv, int tmo, int rem, void *ctx) {
                          static_cast<std::vector<Row> *>(ctx)->push_back(
                              Row{Key(k, k + nk), std::vector<uint32_t>(v, v + nv), tmo, rem});
                          return 1;
                      },
                      1, &out),
                  0);
        return out;
    }

    std::vector<Freed> freed;
    // Called from within the free function, in user context.
    std::function<void(const Freed &)> on_freed;

  private:
    static vael_htab *htab_db_table(int id);
    static void on_free(const uint32_t *key, int nkeys, const uint32_t *vals, int nvals, int expired,
                        const char *reason, void *opaque) {
        auto *self = static_cast<Table *>(opaque);
        Freed f{Key(key, key + nkeys), std::vector<uint32_t>(vals, vals + nvals), expired, reason ? reason : ""};
        if (self->on_freed)
            self->on_freed(f);
        self->freed.push_back(std::move(f));
    }

    vael_mutex *lock_ = nullptr;
    int id_ = -1;
    int rc_ = -1;
};

// The table record of an id, read under the table's lock by the registry.
inline vael_htab *Table::htab_db_table(int id) {
    vael_htab *out = nullptr;
    vael_htab_get_table(
        nullptr, id,
        [](int, vael_htab *t, void *ctx) {
            *static_cast<vael_htab **>(ctx) = t;
            return 0;
        },
        nullptr, &out);
    return out;
}

// A clock stepped by the test; it starts at the real second so that the expiry counters see no clock change.
class FakeClock {
  public:
    FakeClock() {
        now_.store(qx_abstime());
        saved_ = vael_htab_detail::set_clock(&FakeClock::read);
        // The counters take this second, so the next step is a change of
        // second whatever the clock of an earlier test left behind.
        vael_htab_expire();
    }
    ~FakeClock() { vael_htab_detail::set_clock(saved_); }
    FakeClock(const FakeClock &) = delete;
    FakeClock &operator=(const FakeClock &) = delete;

    uint32_t now() const { return now_.load(); }
    void set(uint32_t t) { now_.store(t); }
    void step(int32_t seconds) { now_.store(now_.load() + (uint32_t)seconds); }

  private:
    static uint32_t read() { return now_.load(); }
    static inline std::atomic<uint32_t> now_{0};
    vael_htab_detail::clock_fn saved_;
};

// Ids that hold a table now.
inline int live_tables() {
    int n = 0;
    for (int id = 0; id < VAEL_HTAB_MAX_TABLES; id++)
        n += vael_htab_get_table(nullptr, id, [](int, vael_htab *, void *) { return 0; }, nullptr, nullptr);
    return n;
}

}  // namespace htab_test

#endif  // VAEL_TESTS_RUNTIME_HTAB_SUPPORT_H
