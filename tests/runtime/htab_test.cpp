// Handle tables: the registry, entries, timers and expiry, held against the rules of their interface, a reference
// model, and the user-side reading through a host that answers from a table of this process; lookups of many keys at
// once against one lookup per key.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "runtime/vael_htab_internal.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "vael/vael_apps.h"

namespace {

using vael_test::LogCapture;

constexpr uint32_t KEEP = VAEL_HTAB_TMO_KEEP;

using Key = std::vector<uint32_t>;

struct Freed {
    Key key;
    std::vector<uint32_t> vals;
    int expired;
    std::string reason;
    bool operator==(const Freed &) const = default;
    bool operator<(const Freed &o) const { return key < o.key; }
};

// The table record of an id, read under the table's lock by the registry.
vael_htab *table_record(int id) {
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

// A table and its lock, destroyed together.
class Table {
  public:
    Table(const std::string &name, int size, uint32_t flags, vael_htab_exp_fn exp_func = nullptr) {
        EXPECT_EQ(tqlock_lock_init(&lock_), 0);
        EXPECT_EQ(vael_htab_create(name.c_str(), size, flags, on_free, nullptr, exp_func, &lock_, &id_, this), 0);
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
    vael_htab *record() const { return table_record(id_); }

    int set(const Key &k, const std::vector<uint32_t> &v, uint32_t timeout = KEEP, int *result = nullptr) {
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
};

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
    void step(int32_t seconds) { now_.store(now_.load() + (uint32_t)seconds); }

  private:
    static uint32_t read() { return now_.load(); }
    static inline std::atomic<uint32_t> now_{0};
    vael_htab_detail::clock_fn saved_;
};

// Ids that hold a table now.
int live_tables() {
    int n = 0;
    for (int id = 0; id < VAEL_HTAB_MAX_TABLES; id++)
        n += vael_htab_get_table(nullptr, id, [](int, vael_htab *, void *) { return 0; }, nullptr, nullptr);
    return n;
}

TEST(HtabCreate, BinCountIsAPowerOfTwoUpToTheLimit) {
    const std::pair<int, uint32_t> rows[] = {{INT_MIN, 1}, {0, 1},     {1, 1},           {2, 2},
                                             {3, 4},       {257, 512}, {0x80001, 0x80000}, {INT_MAX, 0x80000}};
    for (const auto &[size, bins] : rows) {
        Table t("bins", size, VAEL_HTAB_EXPIRE);
        ASSERT_GE(t.id(), 0) << size;
        EXPECT_EQ(t.record()->size, bins) << size;
    }
}

using CreateFn = int (*)(const char *, int, uint32_t, vael_htab_free_fn, vael_htab_print_fn, vael_htab_exp_fn,
                        vael_mutex **, int *, void *);

TEST(HtabCreate, EveryCreatorTakesAndRefusesTheSameArguments) {
    const CreateFn creators[] = {vael_htab_create, vael_htab_create_rw, vael_htab_create_release_qx_lock,
                                 vael_htab_create_rw_release_qx_lock};
    vael_mutex *lock = nullptr, *none = nullptr;
    ASSERT_EQ(tqlock_lock_init(&lock), 0);
    const std::string n99(99, 'n'), n100(100, 'n');
    const struct { const char *what, *name; vael_mutex **lock; bool id_out; int rc; } rows[] = {
        {"plain", "t", &lock, true, 0},          {"99 characters", n99.c_str(), &lock, true, 0},
        {"100 characters", n100.c_str(), &lock, true, -1}, {"null name", nullptr, &lock, true, -1},
        {"null id_out", "t", &lock, false, -1},          {"no lock", "t", nullptr, true, -1},
        {"a lock never made", "t", &none, true, -1}};
    const int before = live_tables();
    const intptr_t kmem = qx_kmem_get_alloc_total();
    vael_test::ScopedTopic topic("K_HTAB", VAEL_DBG_ERR);
    LogCapture log;
    for (CreateFn create : creators) {
        for (const auto &row : rows) {
            int id = 12345;
            int rc = create(row.name, 8, 0, nullptr, nullptr, nullptr, row.lock, row.id_out ? &id : nullptr, nullptr);
            EXPECT_EQ(rc, row.rc) << row.what;
            EXPECT_EQ(id, !row.id_out ? 12345 : rc ? -1 : vael_htab_find(row.name)) << row.what;
            EXPECT_EQ(rc == 0 ? vael_htab_destroy(id) : 1, 1);
        }
    }
    EXPECT_TRUE(log.contains("table name " + n100 + " too long"));
    EXPECT_EQ(live_tables(), before);
    EXPECT_EQ(qx_kmem_get_alloc_total(), kmem);
    tqlock_lock_term(&lock);
}

TEST(HtabCreate, TheRegistryHoldsTwoHundredAndReusesTheLowestId) {
    vael_mutex *lock = nullptr;
    ASSERT_EQ(tqlock_lock_init(&lock), 0);
    const int room = VAEL_HTAB_MAX_TABLES - live_tables();
    std::vector<int> ids;
    for (int id = 0; vael_htab_create("many", 1, 0, nullptr, nullptr, nullptr, &lock, &id, nullptr) == 0;)
        ids.push_back(id);
    EXPECT_EQ((int)ids.size(), room);
    // Two freed ids: the lower is given first.
    const int a = ids[ids.size() / 2], b = ids[ids.size() / 3];
    EXPECT_EQ(vael_htab_destroy(a) + vael_htab_destroy(b), 2);
    int id = -1;
    ASSERT_EQ(vael_htab_create("again", 1, 0, nullptr, nullptr, nullptr, &lock, &id, nullptr), 0);
    EXPECT_EQ(id, std::min(a, b));
    EXPECT_EQ(vael_htab_find("again"), id);
    // Names need not be unique; the lowest id wins.
    EXPECT_EQ(vael_htab_find("many"), *std::min_element(ids.begin(), ids.end()));
    EXPECT_EQ(vael_htab_find("absent"), -1);
    EXPECT_EQ(vael_htab_destroy(id), 1);
    for (int i : ids)
        EXPECT_EQ(i == a || i == b ? 1 : vael_htab_destroy(i), 1);
    tqlock_lock_term(&lock);
}


TEST(HtabEntries, GetCopiesOnlyWhatFits) {
    Table t("get", 4, 0);
    ASSERT_EQ(t.set({1, 2}, {7, 8, 9}), 0);
    const uint32_t k[] = {1, 2}, missing[] = {3, 4};
    const struct { const char *what; const uint32_t *key; int capacity, rc, result, len_after; bool copied; } rows[] = {
        {"room to spare", k, 5, 0, VAEL_HTAB_GET_OK, 3, true}, {"exact room", k, 3, 0, VAEL_HTAB_GET_OK, 3, true},
        {"one word short", k, 2, -1, VAEL_HTAB_GET_NO_ROOM, 2, false},
        {"missing", missing, 3, -1, VAEL_HTAB_GET_MISSING, 3, false},
        {"capacity 0, missing", missing, 0, -1, VAEL_HTAB_GET_INVALID, 0, false}};
    for (const auto &row : rows) {
        uint32_t dest[5] = {0, 0, 0, 0, 0};
        int len = row.capacity, result = 99;
        EXPECT_EQ(vael_htab_get(t.id(), row.key, 2, dest, &len, 0, &result), row.rc) << row.what;
        EXPECT_EQ(result, row.result) << row.what;
        EXPECT_EQ(len, row.len_after) << row.what;
        EXPECT_EQ(dest[0] == 7 && dest[2] == 9, row.copied) << row.what;
    }
}

TEST(HtabEntries, InvalidArgumentsAndTablesAreRefused) {
    Table t("args", 4, VAEL_HTAB_EXPIRE);
    ASSERT_EQ(t.set({1}, {1}), 0);
    const int id = t.id();
    const uint32_t k[] = {1}, v[] = {1};
    uint32_t dest[4];
    int len = 4, found = 7, result = 42;
    // Arguments out of their range: -1, and set leaves result_out alone.
    const int refused[] = {
        vael_htab_set(id, nullptr, 1, v, 1, KEEP, &result), vael_htab_set(id, k, 0, v, 1, KEEP, &result),
        vael_htab_set(id, k, 1, v, 0, KEEP, &result), vael_htab_traverse(id, nullptr, 1, nullptr),
        vael_htab_get_many(id, nullptr, 1, 1, dest, 1, &found), vael_htab_get_many(id, k, 0, 1, dest, 1, &found),
        vael_htab_get_many(id, k, 1, -1, dest, 1, &found), vael_htab_get_many(id, k, 1, 1, nullptr, 1, &found),
        vael_htab_get_many(id, k, 1, 1, dest, 0, &found), vael_htab_get_many(id, k, 1, 1, dest, 1, nullptr)};
    EXPECT_EQ(std::vector<int>(std::begin(refused), std::end(refused)), std::vector<int>(std::size(refused), -1));
    EXPECT_EQ(result, 42);
    EXPECT_EQ(vael_htab_get(id, k, 1, nullptr, &len, 0, &result), -1);
    EXPECT_EQ(result, VAEL_HTAB_GET_INVALID);
    LogCapture log;
    for (int bad : {-1, VAEL_HTAB_MAX_TABLES, id == 199 ? 198 : 199}) {
        result = 42;
        const int rcs[] = {vael_htab_set(bad, k, 1, v, 1, KEEP, &result), vael_htab_in(bad, k, 1, &found, 0),
                           vael_htab_del(bad, k, 1, "x"), vael_htab_set_tmo(bad, k, 1, 5),
                           vael_htab_delete_all(bad), vael_htab_print(bad), -vael_htab_destroy(bad),
                           vael_htab_nents(bad) - 1, vael_htab_get_many(bad, k, 1, 1, dest, 1, &found)};
        EXPECT_EQ(result, 42);
        EXPECT_EQ(vael_htab_get(bad, k, 1, dest, &len, 0, &result), -1);
        EXPECT_EQ(result, VAEL_HTAB_GET_INVALID);
        EXPECT_EQ(std::vector<int>(std::begin(rcs), std::end(rcs)), std::vector<int>(std::size(rcs), -1)) << bad;
    }
    EXPECT_TRUE(log.contains("vael_htab_assert: fatal error in vael_htab_set: vael htab(-1) is invalid ("));
    EXPECT_EQ(vael_htab_nents(id), 1);
}

// A user function may read its table but not change it; the free function is
// in user context too, and the mark of a nested walk does not end it.
int walk_on(const uint32_t *, int, uint32_t *, int, int, int, void *) { return 1; }

TEST(HtabEntries, UserFunctionsReadButDoNotChange) {
    Table t("user", 8, VAEL_HTAB_EXPIRE | VAEL_HTAB_REFRESH);
    ASSERT_EQ(t.set({1}, {10}, 5), 0);
    ASSERT_EQ(t.set({2}, {20}, 5), 0);
    const int id = t.id();
    const uint32_t k1[] = {1}, v[] = {3};
    uint32_t dest[4];
    int len = 4, found = 0, result = 0;
    const std::vector<std::pair<int, std::function<int()>>> calls = {  // expected rc, call
        {0, [&] { return vael_htab_get(id, k1, 1, dest, &len, 0, nullptr); }},
        {0, [&] { return vael_htab_in(id, k1, 1, &found, 0); }},
        {-1, [&] { return vael_htab_del(id, k1, 1, "x"); }},
        {-1, [&] { return vael_htab_delete_all(id); }},
        {-1, [&] { return vael_htab_destroy(id) == 1 ? -1 : 0; }},
        // A nested walk leaves the mark in place for the calls after it.
        {0, [&] { return vael_htab_traverse(id, walk_on, 1, nullptr); }},
        {-1, [&] { return vael_htab_get(id, k1, 1, dest, &len, 1, &result); }},
        {-1, [&] { return vael_htab_in(id, k1, 1, &found, 1); }},
        {-1, [&] { return vael_htab_set(id, k1, 1, v, 1, KEEP, nullptr); }},
        {-1, [&] { return vael_htab_set_tmo(id, k1, 1, 9); }},
        {-1, [&] { return vael_htab_traverse(id, walk_on, 0, nullptr); }},
    };
    LogCapture log;
    int runs = 0;
    auto run_all = [&] {
        runs++;
        for (size_t i = 0; i < calls.size(); i++)
            EXPECT_EQ(calls[i].second(), calls[i].first) << "call " << i << " in run " << runs;
    };
    // Inside a walk, then inside the free function.
    auto in_walk = [](const uint32_t *key, int, uint32_t *, int, int, int, void *run) {
        if (key[0] == 1)
            (*static_cast<decltype(run_all) *>(run))();
        return 1;
    };
    ASSERT_EQ(vael_htab_traverse(id, in_walk, 1, &run_all), 0);
    t.on_freed = [&](const Freed &) { run_all(); };
    EXPECT_EQ(t.del({2}), 0);
    t.on_freed = nullptr;
    EXPECT_EQ(runs, 2);
    EXPECT_EQ(result, VAEL_HTAB_GET_INVALID);
    EXPECT_TRUE(log.contains("fatal error in vael_htab_del: vael htab(" + std::to_string(id) + ") is in user context"));
    // Nothing changed, and outside the free function the same calls work again.
    EXPECT_EQ(t.get({1}), std::vector<uint32_t>{10});
    EXPECT_EQ(t.del({1}), 0);
}

// The timeout words, their limits, clock jumps and the ring's slots are held
// to the reference model below; here what it does not reach.

// A refused timeout costs the entry and the rest of its chain; the count is left as it was, and nothing leaks.
TEST(HtabTimers, ARefusedTimeoutCutsTheChain) {
    const intptr_t kmem = qx_kmem_get_alloc_total();
    {
        Table t("cut", 1, VAEL_HTAB_EXPIRE);
        for (uint32_t i = 1; i <= 4; i++)
            ASSERT_EQ(t.set({i}, {i}, i), 0);
        int result = 0;
        EXPECT_EQ(t.set({2}, {9}, 3600, &result), -1);
        EXPECT_EQ(result, VAEL_HTAB_SET_BAD_TMO);
        EXPECT_TRUE(t.rows().size() == 1 && t.rows()[0].key == Key{1});
        EXPECT_EQ(vael_htab_nents(t.id()), 4);
        // A new key goes at the end of the chain and only it is lost; the count keeps its rise.
        EXPECT_EQ(t.set({5}, {5}, 4000, &result), -1);
        EXPECT_EQ(result, VAEL_HTAB_SET_BAD_TMO);
        EXPECT_TRUE(t.rows().size() == 1 && t.rows()[0].key == Key{1});
        EXPECT_EQ(vael_htab_nents(t.id()), 5);
        EXPECT_TRUE(t.freed.empty());
        // The timers of what was lost left their slots.
        uint32_t in_slots = 0;
        for (uint32_t s = 0; s < VAEL_HTAB_SLOTS; s++)
            in_slots += t.record()->slots[s].count;
        EXPECT_EQ(in_slots, 1u);
    }
    EXPECT_EQ(qx_kmem_get_alloc_total(), kmem);
}

// A gradual table spreads a due slot over the calls of the second, at the
// rate the counters measured over the second before.
TEST(HtabExpiry, GradualRateSpreadsASlotOverTheSecond) {
    FakeClock clock;
    auto second_with_calls = [&](int n) { // the first call changes the second
        clock.step(1);
        for (int i = 0; i < n; i++)
            vael_htab_expire();
    };
    const struct { int calls_per_second, due; size_t gone_in_the_second; } rows[] = {
        {1000, 300, 250},  // q 3, p 4
        {1000, 1000, 999}, // q 1: every call but the one that changed the second
        {1000, 600, 600},  // q 1: the slot is empty before the second ends
        {100, 300, 0},     // q 0: all at the change of second
    };
    for (const auto &row : rows) {
        Table t("gradual", 1024, VAEL_HTAB_EXPIRE_GRADUAL);
        for (int i = 0; i < row.due; i++)
            ASSERT_EQ(t.set({(uint32_t)i, 77}, {(uint32_t)i}, 2), 0);
        second_with_calls(row.calls_per_second); // measures the rate; the ring reaches slot 1
        second_with_calls(row.calls_per_second); // the ring reaches the due slot
        EXPECT_EQ(t.freed.size(), row.gone_in_the_second) << row.due << " due, " << row.calls_per_second;
        second_with_calls(1);
        EXPECT_EQ(t.freed.size(), (size_t)row.due);
    }
}


// The table as the rules describe it: entries with their values and timers, the ring as one list per slot (back =
// head), the table's and the counters' last seconds.
struct Model {
    struct Entry { std::vector<uint32_t> vals; int timeout = 0, slot = 0; };  // timeout 0: no timer
    std::map<Key, Entry> entries;
    std::vector<std::vector<Key>> slots = std::vector<std::vector<Key>>(VAEL_HTAB_SLOTS);
    uint32_t current = 0, table_last = 0, counters_last = 0;
    std::vector<Freed> freed;

    void unlink(const Key &k) {
        Entry &e = entries.at(k);
        auto &s = slots[e.slot];
        s.erase(std::find(s.begin(), s.end(), k));
    }
    void place(const Key &k, int timeout) {
        Entry &e = entries.at(k);
        e.timeout = timeout;
        e.slot = (int)((current + timeout) % VAEL_HTAB_SLOTS);
        slots[e.slot].push_back(k);
    }
    // The timeout word on an existing entry; false when refused.
    bool set_timer(const Key &k, uint32_t t) {
        Entry &e = entries.at(k);
        if (t == KEEP)
            return true;
        if (t > 3599)
            return false;
        if (e.timeout)
            unlink(k);
        e.timeout = 0;
        if (t)
            place(k, (int)t);
        return true;
    }
    int set(const Key &k, const std::vector<uint32_t> &v, uint32_t t) {
        auto it = entries.find(k);
        int result = VAEL_HTAB_SET_UPDATED;
        if (it == entries.end()) {
            entries[k] = Entry{};
            result = VAEL_HTAB_SET_NEW;
        } else if (it->second.vals.size() != v.size() && it->second.timeout) {
            unlink(k);
            it->second.timeout = 0;
        }
        entries[k].vals = v;
        set_timer(k, t);
        return result;
    }
    void refresh(const Key &k) {
        Entry &e = entries.at(k);
        if (e.timeout && (uint32_t)e.slot != (current + e.timeout) % VAEL_HTAB_SLOTS) {
            unlink(k);
            place(k, e.timeout);
        }
    }
    void remove(const Key &k, int expired, const char *reason) {
        if (entries.at(k).timeout)
            unlink(k);
        freed.push_back(Freed{k, entries.at(k).vals, expired, reason});
        entries.erase(k);
    }
    void expire(uint32_t now) {
        if (now == counters_last)
            return;
        counters_last = now;
        if (now == table_last)
            return;
        const uint32_t diff = now - table_last;
        table_last = now;
        if (diff + 900 >= 1801 || (int32_t)diff <= 0)
            return;
        for (uint32_t step = 0; step < diff; step++) {
            auto &s = slots[current];
            while (!s.empty()) {
                const Key k = s.back();
                // The model's expiry function keeps keys whose first word is
                // a multiple of 4, for 20, 40 or 60 seconds more.
                if (k[0] % 4 == 0) {
                    unlink(k);
                    place(k, (int)(k[0] % 3) * 20 + 20);
                } else {
                    remove(k, 1, "expiration");
                }
            }
            current = (current + 1) % VAEL_HTAB_SLOTS;
        }
    }
};

int model_exp_func(const uint32_t *key, int, uint32_t *, int, uint32_t *timeout, void *) {
    if (key[0] % 4 != 0)
        return 0;
    *timeout = key[0] % 3 * 20 + 20;
    return 1;
}

TEST(HtabModel, RandomOperationsAgreeWithTheModel) {
    for (uint32_t seed : {1u, 2u, 3u, 4u}) {
        FakeClock clock;
        vael_htab_expire();
        Table t("model", seed == 1 ? 1 : 64, VAEL_HTAB_EXPIRE | VAEL_HTAB_REFRESH, model_exp_func);
        Model m;
        m.table_last = clock.now();
        m.counters_last = last_ex_opportunity_time;
        std::mt19937 rng(seed);
        auto pick = [&](int n) { return (int)(rng() % (uint32_t)n); };
        auto random_key = [&] {
            Key k(1 + pick(3) + (pick(50) == 0 ? 16 : 0));
            for (auto &w : k)
                w = (uint32_t)pick(6);
            return k;
        };
        const uint32_t timeouts[] = {KEEP, 0, 1, 1, 2, 3, 5, 3599};
        const int32_t jumps[] = {0, 0, 1, 1, 1, 2, 3, -1, -3, 900, 901, 1500, -901, -2000};
        size_t checked = 0; // free calls compared so far
        for (int op = 0; op < 3000; op++) {
            const Key k = random_key();
            const bool present = m.entries.count(k) != 0;
            SCOPED_TRACE("seed " + std::to_string(seed) + " op " + std::to_string(op));
            const int what = pick(10);
            switch (what < 3 ? 0 : what) {
            case 0: {
                std::vector<uint32_t> v(1 + pick(3), (uint32_t)op);
                const uint32_t tmo = timeouts[pick(8)];
                int result = 9;
                ASSERT_EQ(t.set(k, v, tmo, &result), 0);
                ASSERT_EQ(result, m.set(k, v, tmo));
                break;
            }
            case 3: {
                const uint32_t tmo = pick(4) == 0 ? 3600 + (uint32_t)pick(5) : timeouts[pick(8)];
                ASSERT_EQ(t.set_tmo(k, tmo), present && m.set_timer(k, tmo) ? 0 : -1) << tmo;
                break;
            }
            case 4: {
                const int refresh = pick(2);
                ASSERT_EQ(t.get(k, refresh), present ? m.entries[k].vals : std::vector<uint32_t>{});
                if (present && refresh)
                    m.refresh(k);
                break;
            }
            case 5:
                ASSERT_EQ(t.del(k, "model"), present ? 0 : -1);
                if (present)
                    m.remove(k, 0, "model");
                break;
            case 6:
                if (pick(40) == 0) {  // rarely: the model's table is the richer the longer it lives
                    ASSERT_EQ(vael_htab_delete_all(t.id()), 0);
                    // Bin order is the hash's: compare these as a set.
                    std::vector<Freed> got(t.freed.end() - (long)m.entries.size(), t.freed.end());
                    t.freed.resize(t.freed.size() - m.entries.size());
                    checked = std::min(checked, t.freed.size());
                    std::vector<Freed> want;
                    for (auto &[key, e] : m.entries)
                        want.push_back(Freed{key, e.vals, 0, "del all"});
                    std::sort(got.begin(), got.end());
                    ASSERT_EQ(got, want);
                    for (auto &s : m.slots)
                        s.clear();
                    m.entries.clear();
                }
                break;
            default:
                clock.step(jumps[pick(14)]);
                vael_htab_expire();
                m.expire(clock.now());
                break;
            }
            ASSERT_EQ(t.freed.size(), m.freed.size());
            for (; checked < m.freed.size(); checked++)
                ASSERT_EQ(t.freed[checked], m.freed[checked]) << checked;
            ASSERT_EQ(vael_htab_nents(t.id()), (int)m.entries.size());
            if (op % 50 == 0) {
                std::map<Key, Table::Row> rows;
                for (auto &r : t.rows())
                    rows[r.key] = r;
                ASSERT_EQ(rows.size(), m.entries.size());
                for (auto &[key, e] : m.entries) {
                    const Table::Row &r = rows.at(key);
                    ASSERT_EQ(r.vals, e.vals);
                    ASSERT_EQ(r.timeout, e.timeout);
                    ASSERT_EQ(e.timeout ? r.remaining : 0,
                              e.timeout ? (e.slot - (int)m.current + VAEL_HTAB_SLOTS) % VAEL_HTAB_SLOTS : 0);
                }
            }
        }
    }
}


TEST(HtabRegistry, DestroyWhileAReaderWaitsLeavesItToTheReader) {
    static int destroyed_calls = 0;
    destroyed_calls = 0;
    vael_mutex *lock = nullptr;
    ASSERT_EQ(tqlock_lock_init(&lock), 0);
    int id = -1;
    ASSERT_EQ(vael_htab_create("waited", 8, 0, nullptr, nullptr, nullptr, &lock, &id, nullptr), 0);
    const uint32_t k[] = {1}, v[] = {2};
    ASSERT_EQ(vael_htab_set(id, k, 1, v, 1, KEEP, nullptr), 0);

    MtMutexLock(lock);
    int found = 0, nents = -1;
    std::thread reader([&] {
        found = vael_htab_get_table(
            "waited", -1,
            [](int id, vael_htab *, void *ctx) {
                *static_cast<int *>(ctx) = vael_htab_nents(id);
                return 0;
            },
            nullptr, &nents);
    });
    while (vael_htab_detail::users_of(id) == 0)
        std::this_thread::yield();
    EXPECT_EQ(vael_htab_destroy_ex(id, [](void *arg) { ++*static_cast<int *>(arg); }, &destroyed_calls), 0);
    EXPECT_EQ(vael_htab_find("waited"), id) << "pending, still findable";
    EXPECT_EQ(destroyed_calls, 0);
    MtMutexUnLock(lock);
    reader.join();
    EXPECT_EQ(found, 1);
    EXPECT_EQ(nents, 0) << "the waiter finds it empty";
    EXPECT_EQ(destroyed_calls, 1) << "the waiter's release freed it";
    EXPECT_EQ(vael_htab_find("waited"), -1);
    tqlock_lock_term(&lock);
}


TEST(HtabFailmem, CreateFailsCleanlyOrShrinks) {
    vael_mutex *lock = nullptr;
    ASSERT_EQ(tqlock_lock_init(&lock), 0);
    // The bins' site fails once; a table that can shrink retries it at half
    // size in the same call, which then succeeds.
    const struct { int size; uint32_t flags; int rounds; uint32_t bins; } rows[] = {
        {16, 0, 3, 16},
        {1024, VAEL_HTAB_EXPIRE, 2, 512},
        {1024, VAEL_HTAB_EXPIRE_GRADUAL, 2, 512},
    };
    for (const auto &r : rows) {
        int id = -1;
        auto w = vael_test::failmem_walk(
            [&] { return !vael_htab_create("walk", r.size, r.flags, nullptr, nullptr, nullptr, &lock, &id, nullptr); },
            [&] { return id == -1 && vael_htab_find("walk") == -1; });
        EXPECT_EQ(w.rounds, r.rounds) << r.size;
        ASSERT_GE(id, 0);
        EXPECT_EQ(table_record(id)->size, r.bins) << r.size;
        EXPECT_EQ(vael_htab_destroy(id), 1);
    }
    tqlock_lock_term(&lock);
}

TEST(HtabFailmem, InsertAndResizeLeaveTheTableAsItWas) {
    FakeClock clock;
    Table t("walk", 4, VAEL_HTAB_EXPIRE);
    ASSERT_EQ(t.set({1}, {1}, 5), 0);
    ASSERT_EQ(t.set({2}, {2}), 0);
    const struct { const char *what; Key key; std::vector<uint32_t> vals; uint32_t timeout; int rounds; } rows[] = {
        {"new entry with a timer", {3}, {3}, 7, 3},
        {"new entry without a timer", {4}, {4}, 0, 2},
        {"resized entry keeping a timer", {1}, {1, 1}, 9, 3},
        {"timer on an entry that had none", {2}, {8}, 4, 2},
        {"same size, timer moved", {1}, {5, 5}, 2, 1},
    };
    for (const auto &row : rows) {
        const auto before = t.rows();
        const int nents = vael_htab_nents(t.id());
        int result = 0;
        auto w = vael_test::failmem_walk(
            [&] { return t.set(row.key, row.vals, row.timeout, &result) == 0; },
            [&] {
                const auto now = t.rows();
                bool same = now.size() == before.size() && vael_htab_nents(t.id()) == nents;
                for (size_t i = 0; same && i < now.size(); i++)
                    same = now[i].key == before[i].key && now[i].vals == before[i].vals &&
                           now[i].timeout == before[i].timeout;
                return same && result == VAEL_HTAB_SET_NOMEM;
            });
        EXPECT_EQ(w.rounds, row.rounds) << row.what;
        EXPECT_EQ(t.get(row.key), row.vals) << row.what;
    }
}


TEST(HtabMany, AgreesWithOneLookupPerKey) {
    // Bins (1 puts every entry in one chain), width of the looked-up keys, keys per call, row width of dest.
    struct Case { int bins, nkeys, count, dest_words; };
    const Case cases[] = {
        {1, 2, 0, 1},     {1, 2, 1, 1},     {1, 2, 17, 3},   {64, 2, 7, 1},    {64, 2, 16, 1},
        {64, 2, 33, 2},   {64, 1, 40, 1},   {64, 3, 40, 3},  {4096, 2, 500, 1}, {4096, 2, 500, 3},
        {4096, 17, 50, 2}, {4096, 1, 300, 2},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
        Table t("many", c.bins, 0);
        std::mt19937 rng((uint32_t)(c.count * 131 + c.nkeys));
        // Small words: keys of every width share leading words, so a chain
        // holds keys that differ only in their width or their last word.
        auto random_key = [&](int width) {
            Key k((size_t)width);
            for (auto &w : k)
                w = rng() % 4;
            return k;
        };
        for (int i = 0; i < 400; i++) {
            const int width = (int)(rng() % 3) + 1;
            std::vector<uint32_t> vals(rng() % 3 + 1, (uint32_t)i);
            ASSERT_EQ(t.set(random_key(i % 5 == 0 ? c.nkeys : width), vals), 0);
        }
        std::vector<uint32_t> keys;
        for (int i = 0; i < c.count; i++) {
            Key k = random_key(c.nkeys);
            keys.insert(keys.end(), k.begin(), k.end());
        }
        keys.push_back(0); // behind the last key: never a null array, never read

        const uint32_t kUntouched = 0xdeadbeef;
        std::vector<uint32_t> dest((size_t)c.count * (size_t)c.dest_words + 1, kUntouched);
        std::vector<int> results((size_t)c.count + 1, 99);
        const int found = vael_htab_get_many(t.id(), keys.data(), c.nkeys, c.count, dest.data(), c.dest_words,
                                             results.data());
        int want_found = 0;
        for (int i = 0; i < c.count; i++) {
            const Key k(keys.begin() + (long)i * c.nkeys, keys.begin() + (long)(i + 1) * c.nkeys);
            const std::vector<uint32_t> want = t.get(k);
            const uint32_t *row = dest.data() + (size_t)i * (size_t)c.dest_words;
            if (want.empty()) {
                ASSERT_EQ(results[(size_t)i], VAEL_HTAB_GET_MISSING) << i;
            } else if ((int)want.size() > c.dest_words) {
                ASSERT_EQ(results[(size_t)i], VAEL_HTAB_GET_NO_ROOM) << i;
                ASSERT_EQ(row[0], kUntouched) << i;
            } else {
                ASSERT_EQ(results[(size_t)i], (int)want.size()) << i;
                ASSERT_EQ(std::vector<uint32_t>(row, row + want.size()), want) << i;
                want_found++;
            }
        }
        EXPECT_EQ(found, want_found);
        EXPECT_EQ(dest.back(), kUntouched);
        EXPECT_EQ(results.back(), 99);
    }
}


// The host side of the request: answers from a table of this process, found
// by name, the way the kernel module answers from its own.
int host_ioctl(int number, void *record, int instance) {
    auto *r = static_cast<vael_ctl_record *>(record);
    if (number != 77 || r->command != VAEL_HTAB_CTL_COMMAND || r->data_len != sizeof(vael_htab_ctl_table))
        return -1;
    auto *block = static_cast<vael_htab_ctl_table *>(r->data);
    const int found = vael_htab_get_table(
        block->name, -1,
        [](int id, vael_htab *t, void *ctx) {
            auto *b = static_cast<vael_htab_ctl_table *>(ctx);
            b->id = (uint32_t)id;
            b->flags = t->flags;
            b->size = t->size;
            b->nents = (uint32_t)vael_htab_nents(id);
            b->returned = 0;
            if (b->capacity == 0)
                return 0;
            vael_htab_traverse(
                id,
                [](const uint32_t *k, int nk, uint32_t *v, int nv, int tmo, int rem, void *ctx) {
                    auto *b = static_cast<vael_htab_ctl_table *>(ctx);
                    auto *entries = reinterpret_cast<vael_htab_ctl_entry *>(
                        (uintptr_t)((uint64_t)b->entries[0] | (uint64_t)b->entries[1] << 32));
                    vael_htab_ctl_entry &e = entries[b->returned++];
                    e.nkeys = (uint32_t)std::min(nk, VAEL_HTAB_CTL_KEY_WORDS);
                    e.nvals = (uint32_t)std::min(nv, VAEL_HTAB_CTL_VAL_WORDS);
                    std::copy(k, k + e.nkeys, e.key);
                    std::copy(v, v + e.nvals, e.vals);
                    e.timeout = (uint32_t)tmo;
                    e.remaining = (uint32_t)rem;
                    return b->returned < b->capacity ? 1 : 0;
                },
                1, b);
            return 0;
        },
        nullptr, block);
    return found ? 0 : -1;
}

int host_ioctl_num() { return 77; }

class HtabUser : public ::testing::Test {
    vael_test::ScopedValue<vael_apps_ioctl_multik_fn> ioctl_{vael_ioctl_func_multik, host_ioctl};
    vael_test::ScopedValue<vael_apps_get_ioctl_num_fn> num_{vael_get_ioctl_num, host_ioctl_num};
};

TEST_F(HtabUser, SummaryAndEntriesComeThroughTheChannel) {
    FakeClock clock;
    Table t("remote", 1, VAEL_HTAB_EXPIRE | VAEL_HTAB_NO_UPDATE);
    for (uint32_t i = 1; i <= 5; i++)
        ASSERT_EQ(t.set({i, i + 0x100}, {i * 0x10}, i == 2 ? 30 : 0), 0);
    int id = -1, nents = -1;
    ASSERT_EQ(vael_htab_user_get_table_summary("remote", &id, &nents), 0);
    EXPECT_EQ(std::make_pair(id, nents), std::make_pair(t.id(), 5));

    const struct { int summary_only, max_entries; uint32_t returned; } rows[] = {
        {0, 0, 5}, {0, 2, 2}, {0, 100, 5}, {1, 0, 0}};
    for (const auto &row : rows) {
        vael_htab_user_table_data data;
        ASSERT_EQ(vael_htab_user_get_table_data("remote", &data, row.summary_only, row.max_entries, -1), 0);
        EXPECT_EQ(std::make_tuple(data.id, data.size, data.nents, data.expire, data.nattrs),
                  std::make_tuple(t.id(), 1u, 5u, 1, 2));
        EXPECT_STREQ(data.attrs[0], "expire");
        EXPECT_STREQ(data.attrs[1], "no update");
        ASSERT_EQ(data.returned, row.returned) << row.max_entries;
        for (uint32_t i = 0; i < data.returned; i++) {
            const vael_htab_ctl_entry &e = data.entries[i];
            EXPECT_TRUE(e.nkeys == 2 && e.key[1] == e.key[0] + 0x100 && e.vals[0] == e.key[0] * 0x10) << i;
        }
        vael_htab_user_free_table_data(&data);
        vael_htab_user_free_table_data(&data);
        EXPECT_EQ(data.entries, nullptr);
    }

    testing::internal::CaptureStdout();
    ASSERT_EQ(vael_htab_user_print_table("remote", 3, 0), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "-------- remote --------\n"
              "htab, id " + std::to_string(t.id()) + ", size 1, attributes: expire, no update, #vals 5\n"
              "<00000001, 00000101; 00000010>\n"
              "<00000002, 00000102; 00000020; 30/30>\n"
              "<00000003, 00000103; 00000030>\n"
              "...(2 More)\n");
}

TEST_F(HtabUser, RefusalsAndFailuresLeaveNothing) {
    Table t("remote2", 8, 0);
    ASSERT_EQ(t.set({1}, {1, 2}), 0);
    const intptr_t kmem = qx_kmem_get_alloc_total();
    int id = 0, nents = 0;
    vael_htab_user_table_data data;
    LogCapture log;
    EXPECT_EQ(vael_htab_user_get_table_summary_multik("remote2", &id, &nents, -2), -1);
    EXPECT_EQ(vael_htab_user_get_table_summary("remote2", nullptr, &nents), -1);
    EXPECT_EQ(vael_htab_user_get_table_summary("nosuch", &id, &nents), -1);
    EXPECT_EQ(vael_htab_user_get_table_data("nosuch", &data, 0, 0, -1), -1);
    EXPECT_EQ(vael_htab_user_print_table("nosuch", 0, 0), -1);
    EXPECT_EQ(qx_kmem_get_alloc_total(), kmem);

    auto w = vael_test::failmem_walk(
        [&] { return vael_htab_user_get_table_data("remote2", &data, 0, 0, -1) == 0; },
        [&] { return data.entries == nullptr && data.attrs == nullptr; });
    EXPECT_EQ(w.rounds, 3); // request block, entries array; no attributes to list
    EXPECT_EQ(data.returned, 1u);
    EXPECT_EQ(data.entries[0].nvals, 2u);
    vael_htab_user_free_table_data(&data);
}

}  // namespace
