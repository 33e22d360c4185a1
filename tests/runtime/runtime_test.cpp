// The runtime foundation. The adaptor: the debug facility (topics with levels per module, the line prefix, the sink,
// the guard of VAEL_LOG) and its flags from the environment, the byte accounts, both fail-injection methods,
// tunables, the allocation helpers and the texts an operator reads. The list, its queue and stack uses, pools, the
// integer hash and the virtual buffer, each held against a model under random operations; illegal arguments to the
// buffer assert, then it goes on where defined and fails where it would follow a null pointer. Every allocating
// operation of the containers fails cleanly at each of its sites, both byte accounts back where they started. Many
// threads at once, as a host runs the library: eight workers change, expire and read handle tables through the
// registry while another thread creates and destroys tables, some while a reader is inside them; eight threads run
// over one PM while another compiles and destroys PMs of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "runtime/vael_alloc.h"
#include "runtime/vael_htab_internal.h"
#include "runtime/vael_runtime.h"
#include "tests/pm/pm_test_util.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "vael/vael_apps.h"
#include "vael/vael_list.h"
#include "vael/vael_us_adaptor.h"
#include "vael/vael_vbuf.h"

namespace {

using vael_pm_test::Hits;
using vael_pm_test::collect;
using vael_test::LogCapture;
using vael_test::Pattern;
using vael_test::ScopedGlobal;
using vael_test::ScopedTopic;
using vael_test::list_values;

// Sets or unsets one environment variable for the scope.
class ScopedEnv {
  public:
    ScopedEnv(const char *name, const char *value) : name_(name) {
        if (const char *old = std::getenv(name))
            old_ = old;
        value ? setenv(name, value, 1) : unsetenv(name);
    }
    ~ScopedEnv() { old_ ? setenv(name_, old_->c_str(), 1) : unsetenv(name_); }

  private:
    const char *name_;
    std::optional<std::string> old_;
};

int level_of(const char *topic) {
    int level = 0;
    while (level < 16 && tdTopicsPrintable(level + 1, topic, VAEL_DBG_MODULE, " |"))
        level++;
    return level;
}

constexpr int kModule = VAEL_DBG_MODULE;

// Each test starts with no topics and leaves the library's defaults behind.
class DebugFacility : public ::testing::Test {
  protected:
    void SetUp() override { tdResetTopics(); }
    void TearDown() override {
        tdResetTopics();
        vael_us_adaptor_debug_init();
    }
};

TEST_F(DebugFacility, EnvironmentTurnsTopicsOnAtTheLevelNamed) {
    const struct { const char *debug, *level_word, *flow; std::vector<const char *> topics; int level; } cases[] = {
        {"pm dfa", "INFO", nullptr, {"K_PM", "K_DFA"}, 4},  {"pm dfa", "LOUD", nullptr, {"K_PM", "K_DFA"}, 3},
        {"Pm,dfa\tREM\r\nhtab", "err", nullptr, {"K_PM", "K_DFA", "K_REM", "K_HTAB"}, 1},
        {",, kw ,", "Wrn", nullptr, {"K_KW"}, 2},           {"pcre", "none", nullptr, {"K_PCRE"}, 0},
        {nullptr, "err", "pm all", {"FL_PM", "FL_ALL"}, 4},  // flow topics are at INFO
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.debug ? c.debug : c.flow) + " / " + c.level_word);
        tdResetTopics();
        ScopedEnv debug("VAEL_DEBUG", c.debug), word("VAEL_DEBUG_LEVEL", c.level_word), flow("VAEL_DEBUG_FLOW", c.flow);
        vael_us_adaptor_debug_init();
        for (const char *topic : c.topics)
            EXPECT_EQ(level_of(topic), c.level) << topic;
        // Errors and warnings are on from the start, whatever was asked.
        EXPECT_EQ(std::make_tuple(level_of("K_ERROR"), level_of("K_WARNING"), level_of("K_THINNFA")),
                  std::make_tuple(3, 3, 0));
    }
    tdResetTopics();
    vael_us_adaptor_set_debug_flags("memory misc", "info", "K_");
    EXPECT_EQ(level_of("K_MEMORY") + level_of("K_MISC"), 8);
}

// One allocation at a fixed site; true when it succeeded.
bool allocate_at(const char *caller, int line, size_t size = 8) {
    void *p = qx_kmalloc_ex_(size, caller, 0, "sites.c", line);
    qx_kfree_(p, size);
    return p != nullptr;
}

TEST(FailInjection, FirstMethodComparesTheAllocationNumber) {
    // succeeds: the calls numbered 1, 2, ...
    const struct { int method, pct; std::vector<bool> succeeds; } cases[] = {
        {1, 3, {true, true, false, true, true}},         // the third only
        {2, 2, {true, true, false, false, false}},       // all after the second
        {3, 3, {true, true, false, true, true, false}},  // every third
        {3, -3, {true, true, false, true}},              // signed modulo
        {2, -1, {false, false}},                         // signed compare
        {1, 0, {true, true, true}},                      // threshold 0 is off
        {4, 3, {true, true, true, true}},                // unknown methods fail nothing
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("method " + std::to_string(c.method) + " pct " + std::to_string(c.pct));
        std::vector<bool> got;
        ScopedGlobal number(alloc_number, 0), method(fail_mem_method, c.method), pct(global_pct, c.pct);
        for (size_t i = 0; i < c.succeeds.size(); i++)
            got.push_back(allocate_at("first", 1));
        EXPECT_EQ(got, c.succeeds);
    }
}

TEST(FailInjection, SecondMethodFailsEachSiteAtItsCallNumberThresholdPlusOne) {
    static const char kA[] = "site_a", kB[] = "site_b", kSame[] = "site_a";  // told apart by address
    // calls: caller, line, succeeds.
    using Call = std::tuple<const char *, int, bool>;
    const struct { const char *name; int mode, value; std::vector<Call> calls; } cases[] = {
        {"mode 2: first call of each site", 2, 99,
         {{kA, 1, false}, {kA, 1, true}, {kB, 1, false}, {kSame, 1, false}, {kA, 2, false}, {kA, 2, true}}},
        {"mode 3 value 1: second call", 3, 1, {{kA, 1, true}, {kA, 1, false}, {kA, 1, true}, {kB, 1, true}}},
        {"mode 3 value 0 is mode 2", 3, 0, {{kB, 9, false}, {kB, 9, true}}},
        {"unknown mode is off", 7, 0, {{kB, 9, true}}}, {"random 100%", 1, 100, {{kA, 1, false}, {kA, 1, false}}},
        {"random 0%", 1, 0, {{kA, 1, true}, {kA, 1, true}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vael_us_adaptor_failmem_set(c.mode, c.value);  // also forgets the sites seen
        int failures = 0;
        for (const auto &[caller, line, succeeds] : c.calls) {
            EXPECT_EQ(allocate_at(caller, line), succeeds) << caller << ":" << line;
            failures += !succeeds;
        }
        EXPECT_EQ(vael_us_adaptor_num_failures(), failures);
    }
    // Sites of one slot are kept apart by probing; with the table full a site with no slot fails every time.
    vael_us_adaptor_failmem_set(2, 0);
    for (int line = 0; line < 2000; line++)
        ASSERT_FALSE(allocate_at(kB, line * 2000 % 7919)) << line;
    EXPECT_FALSE(allocate_at(kB, 9000));
    EXPECT_FALSE(allocate_at(kB, 9000));
    EXPECT_TRUE(allocate_at(kB, 2000));
    vael_us_adaptor_failmem_set(0, 0);
}

TEST(Tunables, ReadInBaseTenFromTheEnvironment) {
    // env null: not in the environment.
    const struct { const char *name; int *global; const char *env; int expected; } cases[] = {
        {"vael_dfa_state_limit", &vael_dfa_state_limit, "12", 12},
        {"vael_dfa_should_limit_states", &vael_dfa_should_limit_states, "abc", 0},
        {"vael_pm_min_lss_size", &vael_pm_min_lss_size, "-3", -3},
        {"vael_thin_nfa_full_tiers_num", &vael_thin_nfa_full_tiers_num, "0x10", 0},
        {"vael_thin_nfa_max_partial_trans", &vael_thin_nfa_max_partial_trans, "010", 10},
        {"vael_thin_nfa_optimize_contig_chars", &vael_thin_nfa_optimize_contig_chars, "", 0},
        {"vael_pm_pcre_use_dfa_exec", &vael_pm_pcre_use_dfa_exec, nullptr, 1},
        {"vael_pm_stats_take_exec_time", &vael_pm_stats_take_exec_time, " +5", 5},
    };
    std::vector<std::unique_ptr<ScopedGlobal>> saved;
    std::vector<std::unique_ptr<ScopedEnv>> env;
    std::string expected_log;
    for (const auto &c : cases) {
        saved.push_back(std::make_unique<ScopedGlobal>(*c.global, *c.global));
        env.push_back(std::make_unique<ScopedEnv>(c.name, c.env));
        if (c.env)
            expected_log += "vael[5]: Setting global parameter " + std::string(c.name) + " to " +
                            std::to_string(c.expected) + "\n";
    }
    ScopedTopic misc("K_MISC", VAEL_DBG_NOTICE);
    LogCapture log;
    vael_us_adaptor_globals_init();
    for (const auto &c : cases)
        EXPECT_EQ(*c.global, c.expected) << c.name;
    EXPECT_EQ(log.text(), expected_log);
}

// The texts an operator reads: fail injection, leaks, assertions.
std::string lines(std::initializer_list<std::string> ls) {
    std::string out;
    for (const auto &l : ls)
        out += "vael[5]: " + l + "\n";
    return out;
}

void *const kAddrA = reinterpret_cast<void *>(0x1000), *const kAddrB = reinterpret_cast<void *>(0x2000);

TEST(OperatorTexts, Table) {
    static const char caller[] = "walker";
    const struct { const char *name; std::function<void()> act; std::string want; } cases[] = {
        {"failmem random failure",
         [] { vael_us_adaptor_failmem_set(1, 100), allocate_at(caller, 12, 24), vael_us_adaptor_failmem_set(0, 0); },
         lines({"vael_us_adapator_failmem_set: Randomly fail 100% of allocations",
                "failmem_decide: Random failure for walker (100%)",
                "qx_kmalloc_ex: Failed to allocate 24 bytes for walker"})},
        {"leaks",
         [] {
             insert_alloc_info(kAddrA, 16, "make_a", "a.c", 10), insert_alloc_info(kAddrB, 32, "make_b", "b.c", 20);
             print_leaks();
             remove_alloc_info(kAddrA, 16), remove_alloc_info(kAddrB, 32);
         },
         lines({"Leaks in: addr  size  caller   file   line", "Leak in: 0x2000 32 make_b b.c 20",
                "Leak reason: not freed", "Leak in: 0x1000 16 make_a a.c 10", "Leak reason: not freed"})},
        {"leak freed with a wrong size",
         [] {
             insert_alloc_info(kAddrA, 16, "make_a", "a.c", 10), remove_alloc_info(kAddrA, 12), print_leaks();
             remove_alloc_info(kAddrA, 16), remove_alloc_info(kAddrA, 16);
         },
         lines({"remove_alloc_info: Error size given to qx_kfree 12 (alllocated 16)",
                "Leaks in: addr  size  caller   file   line", "Leak in: 0x1000 16 make_a a.c 10",
                "Leak reason: wrong size was given to free 12",
                "remove_alloc_info: PROBLEM can not FIND allocation in leaks list"})},
        {"PM account", [] { vael_pmglob_memory_check_leaks(0, 1); }, lines({"PM: NO memory Leaks."})},
        // The assertion names its line, two above its text here.
        {"assertion",
         [] {
             ScopedGlobal off(qx_assert_on, 0);
             VAEL_ASSERT(1 + 1 == 3, "Illegal arguments");
         },
         lines({"Assert at (" + std::string(__FILE__) + ":" + std::to_string(__LINE__ - 2) + ")",
                "Illegal arguments"})},
    };
    ScopedTopic memory("K_MEMORY", VAEL_DBG_NOTICE);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(leaks, nullptr);
        LogCapture log;
        c.act();
        EXPECT_EQ(log.text(), c.want);
    }
    vael_us_adaptor_failmem_set(0, 0);
}

TEST_F(DebugFacility, TopicsAreWantedUpToTheirLevelInTheirModule) {
    ASSERT_EQ(tdAddTopic("K_PM", 3, kModule), 0);
    ASSERT_EQ(tdAddTopic("K_DFA", 4, kModule), 0);
    ASSERT_EQ(tdAddTopic("K_DFA", 1, kModule), 0);  // adding again sets the level either way
    ASSERT_EQ(tdAddTopic("K_REM", 4, 6), 0);
    const std::string longest(31, 'T');
    ASSERT_EQ(tdAddTopic(longest.c_str(), 3, kModule), 0);
    const struct { int level; const char *topics; int module; bool printable; } queries[] = {
        {3, "K_PM", kModule, true},         {4, "K_PM", kModule, false},  {1, "K_DFA", kModule, true},
        {2, "K_DFA", kModule, false},       {3, "K_DFA | K_PM", kModule, true},  // any topic will do
        {3, "  K_KW |  | K_PM  ", kModule, true}, {1, "K_PMX", kModule, false},  // whole names only
        {1, "K_P", kModule, false},         {1, "K_REM", kModule, false},  // another module's topic
        {4, "K_REM", 6, true},              {1, "", kModule, false},      {1, "K_PM", 99, false},
        {3, longest.c_str(), kModule, true},
    };
    for (const auto &q : queries)
        EXPECT_EQ(tdTopicsPrintable(q.level, q.topics, q.module, " |") != 0, q.printable)
            << q.level << " '" << q.topics << "' module " << q.module;
    // What the table cannot hold is refused.
    for (const char *bad : {"", "TTTTTTTTTTTTTTTTTTTTTTTTTTTTTTTT"})
        EXPECT_EQ(tdAddTopic(bad, 3, kModule), -1) << bad;
    EXPECT_EQ(tdAddTopic("K_PM", 3, 16), -1);
    tdResetTopics();
    for (int i = 0; i < 64; i++)
        ASSERT_EQ(tdAddTopic(("T" + std::to_string(i)).c_str(), 2, kModule), 0) << i;
    EXPECT_EQ(tdAddTopic("ONE_TOO_MANY", 2, kModule), -1);
    EXPECT_EQ(tdAddTopic("T5", 4, kModule), 0) << "a known topic still takes a new level";
}

int g_evaluated;
int costly() { return ++g_evaluated; }
void log_from_here() { VAEL_LOG(VAEL_DBG_NOTICE, "K_KW | K_PM", "%s: value %d\n", costly()); }

TEST_F(DebugFacility, LinesGuardsAndSinks) {
    LogCapture log;
    g_evaluated = 0;
    log_from_here();                              // no topic: the arguments are not computed
    tdAddTopic("K_PM", VAEL_DBG_ERR, kModule);    // below the message's level
    log_from_here();
    EXPECT_EQ(g_evaluated, 0);
    tdAddTopic("K_KW", VAEL_DBG_NOTICE, kModule);
    log_from_here();
    tdFunc(kModule, 65535, 0, "two: ");
    tdFunc(kModule, 65535, 1, "%s\n", "piece");
    tdFunc(7, 65535, 0, "seven\n");
    vael_us_adaptor_kdprintf("%s: %u\n", "f", 12u);
    EXPECT_EQ(log.text(), "vael[5]: log_from_here: value 1\nvael[5]: two: piece\nvael[7]: seven\nvael[5]: f: 12\n");

    // A sink gets lines cut at the facility's line size; the standard error stream gets them whole.
    const std::string body(3000, 'z');
    log.clear();
    tdFunc(kModule, 65535, 0, "%s\n", body.c_str());
    EXPECT_EQ(log.text().size(), 1023u);
    tdSetSink(nullptr, nullptr);
    ::testing::internal::CaptureStderr();
    tdFunc(kModule, 65535, 0, "%s\n", body.c_str());
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "vael[5]: " + body + "\n");
}

void note_release(void *data, uint32_t len, void *ctx) {
    static_cast<std::vector<std::string> *>(ctx)->emplace_back(static_cast<char *>(data), len);
}

// Every read of `v` against the blocks it should hold.
void expect_reads(vael_vbuf *v, const std::deque<std::string> &blocks, std::mt19937 &rng) {
    vael_test::LogCapture quiet;  // reads at the end assert, by design
    std::string flat;
    for (const auto &b : blocks)
        flat += b;
    const auto size = (uint32_t)flat.size();
    ASSERT_EQ(vael_vbuf_size(v), size);
    const uint32_t last_start = blocks.empty() ? 0 : size - (uint32_t)blocks.back().size();
    for (uint32_t off = 0; off <= size; off++) {
        SCOPED_TRACE(off);
        ASSERT_EQ(vael_vbuf_get_char_at(v, off), off < size ? (unsigned char)flat[off] : 0u);
        ASSERT_EQ(vael_vbuf_is_in_last_buffer(v, off) != 0, off < size && off >= last_start);
        // A walk from `off`: the rest of its block, then whole blocks.
        std::string walked;
        vael_vbuf_iter it = {nullptr, 0};
        const unsigned char *data;
        uint32_t len;
        for (int piece = 0; vael_vbuf_iterate(v, &it, off, &data, &len); piece++) {
            uint32_t start = 0, b = 0;
            for (; piece == 0 && start + blocks[b].size() <= off; b++)
                start += (uint32_t)blocks[b].size();
            if (piece == 0) {
                ASSERT_EQ(it.offset, off - start);
            }
            walked.append(reinterpret_cast<const char *>(data), len);
        }
        ASSERT_EQ(walked, flat.substr(std::min(off, size)));
        const uint32_t want = rng() % 12, room = rng() % 12;
        char out[16];
        const uint32_t n = vael_vbuf_defrag(v, off, want, out, room);
        ASSERT_EQ(std::string(out, n), off < size ? flat.substr(off, std::min(want, room)) : "");
    }
    // Sequential reads in random chunks: the last one ends the walk with a
    // null and error 0 when it is exact, error 2 when it is short.
    vael_vbuf_iter it = {nullptr, 0};
    vael_vbuf_iter *cur = &it;
    int err = -1;
    char out[16];
    for (uint32_t pos = 0; cur;) {
        const uint32_t n = 1 + rng() % 8;
        cur = vael_vbuf_get_next_data2(v, cur, out, n, &err);
        if (size == 0) {
            ASSERT_EQ(err, 1);
            break;
        }
        ASSERT_EQ(err, pos + n <= size ? 0 : 2) << pos << "+" << n;
        ASSERT_EQ(cur != nullptr, pos + n < size);
        if (pos + n <= size) {
            ASSERT_EQ(std::string(out, n), flat.substr(pos, n));
        }
        pos += n;
    }
    EXPECT_EQ(vael_vbuf_compare_to_buffer(v, flat.data(), size, 0), 1);
    if (size) {
        flat[size / 2] ^= 1;
        EXPECT_EQ(vael_vbuf_compare_to_buffer(v, flat.data(), size, 0), 0);
        EXPECT_EQ(vael_vbuf_compare_to_buffer(v, flat.data(), size - 1, 0), 0);
    }
}

TEST(Vbuf, RandomBlocksAgreeWithAModel) {
    const intptr_t start = qx_kmem_get_alloc_total();
    for (uint32_t seed = 1; seed <= 30; seed++) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        const uint32_t max = 1 + rng() % 40;
        std::deque<std::string> store, blocks;  // store keeps every block's bytes alive
        std::vector<std::string> released, want_released;
        vael_vbuf *v = vael_vbuf_create(max, 0);
        for (int step = 0; step < 12; step++) {
            std::string s;
            for (uint32_t n = 1 + rng() % (max + 3); n > 0; n--)
                s += (char)('a' + rng() % 26);
            store.push_back(s);
            const int rc = vael_vbuf_add_buffer_ex(v, store.back().data(), (uint32_t)s.size(), note_release, &released);
            if (s.size() > max) {
                ASSERT_EQ(rc, -1) << "a block above the maximum is refused";
            } else {
                ASSERT_EQ(rc, 0);
                size_t total = s.size();
                for (const auto &b : blocks)
                    total += b.size();
                while (total > max) {  // whole blocks, oldest first, as few as make room
                    total -= blocks.front().size();
                    want_released.push_back(blocks.front());
                    blocks.pop_front();
                }
                blocks.push_back(s);
            }
            ASSERT_EQ(released, want_released);
            expect_reads(v, blocks, rng);
        }
        vael_vbuf_destroy(v);
        want_released.insert(want_released.end(), blocks.begin(), blocks.end());
        EXPECT_EQ(released, want_released) << "destroy releases what is left, in order";
    }
    EXPECT_EQ(qx_kmem_get_alloc_total(), start);
}

TEST(Vbuf, ConcatMayExceedTheMaximumUntilTheNextAdd) {
    std::string a = "abcdefgh", b = "ijklmn", c = "xy";
    vael_vbuf *f = vael_vbuf_create(10, 0), *g = vael_vbuf_create(10, 0);
    vael_vbuf_add_buffer_ex(f, a.data(), 8, nullptr, nullptr);
    vael_vbuf_add_buffer_ex(g, b.data(), 6, nullptr, nullptr);
    vael_vbuf_concat(f, g);  // consumes g
    std::mt19937 rng(1);
    expect_reads(f, {a, b}, rng);
    ASSERT_EQ(vael_vbuf_add_buffer_ex(f, c.data(), 2, nullptr, nullptr), 0);
    expect_reads(f, {b, c}, rng);
    vael_vbuf_reset(f);
    expect_reads(f, {}, rng);
    vael_vbuf_destroy(f);
}

// The copy-in chunk tunable is held to its bounds.
TEST(Vbuf, CopyinChunkBounds) {
    const uint32_t saved = vael_vbuf_copyin_chunk_size;
    const uint32_t cases[][2] = {{0, 0}, {32768, 32768}, {0x400000, 0x400000}, {32767, 0x20000}, {0x400001, 0x20000}};
    for (auto [set, after] : cases) {
        vael_vbuf_copyin_chunk_size = set;
        vael_vbuf_copyin_chunk_size_cb();
        EXPECT_EQ(vael_vbuf_copyin_chunk_size, after) << set;
    }
    vael_vbuf_copyin_chunk_size = saved;
}

TEST(VbufConformance, IllegalArgumentsAssertAndGoOnWhereDefined) {
    vael_test::ScopedGlobal assert_on(qx_assert_on, 1);
    char a[] = "abc", b[] = "de", dest[8] = {};
    std::vector<std::string> released;
    vael_vbuf *vbuf = vael_vbuf_create(100, 0);
    ASSERT_NE(vbuf, nullptr);
    auto add = [&](char *data, uint32_t n) { return vael_vbuf_add_buffer_ex(vbuf, data, n, note_release, &released); };
    ASSERT_EQ(add(a, 3), 0);

    struct Row { const char *call; int want_rc; bool want_assert; };  // assert: "Illegal arguments" was raised
    auto run = [&](const Row &row, auto &&call) {
        SCOPED_TRACE(row.call);
        vael_test::LogCapture log;
        EXPECT_EQ(call(), row.want_rc);
        EXPECT_EQ(log.contains("Illegal arguments"), row.want_assert) << log.text();
    };
    // An empty block is added (with or without data) and handed back at the
    // end like any other; bytes that cannot be read are refused.
    run({"add empty block", 0, true}, [&] { return add(b, 0); });
    run({"add empty null block", 0, true}, [&] { return add(nullptr, 0); });
    run({"add unreadable block", -1, true}, [&] { return add(nullptr, 2); });
    run({"add to no buffer", -1, true}, [&] { return vael_vbuf_add_buffer_ex(nullptr, b, 2, nullptr, nullptr); });
    run({"add after empty blocks", 0, false}, [&] { return add(b, 2); });
    EXPECT_EQ(vael_vbuf_size(vbuf), 5u);

    // A copy of nothing goes on and copies nothing; a copy into nowhere fails.
    run({"defrag of nothing into nowhere", 0, true}, [&] { return (int)vael_vbuf_defrag(vbuf, 0, 0, nullptr, 0); });
    run({"defrag into nowhere", 0, true}, [&] { return (int)vael_vbuf_defrag(vbuf, 0, 5, nullptr, 5); });
    run({"defrag across empty blocks", 5, false}, [&] { return (int)vael_vbuf_defrag(vbuf, 0, 5, dest, 8); });
    EXPECT_EQ(std::string(dest, 5), "abcde");

    // A sequential read of nothing moves to the first block and reads on
    // from there; a read into nowhere fails with error 1.
    vael_vbuf_iter iter = {nullptr, 0};
    int err = -1;
    run({"read nothing", 1, true}, [&] { return vael_vbuf_get_next_data2(vbuf, &iter, dest, 0, &err) == &iter; });
    EXPECT_EQ(err, 0);
    run({"read into nowhere", 1, true},
        [&] { return vael_vbuf_get_next_data2(vbuf, &iter, nullptr, 2, &err) == nullptr && err == 1; });
    run({"read on over empty blocks", 1, false}, [&] {
        return vael_vbuf_get_next_data2(vbuf, &iter, dest, 5, &err) == nullptr && err == 0;
    });
    EXPECT_EQ(std::string(dest, 5), "abcde");

    vael_vbuf_destroy(vbuf);
    EXPECT_EQ(released, (std::vector<std::string>{"abc", "", "", "de"}));
}

// The library's comparator convention: 1 equal, 0 greater, -1 less.
int cmp_words(uintptr_t a, uintptr_t b) { return a == b ? 1 : (a > b ? 0 : -1); }
std::vector<uintptr_t> destroyed;
void record_destroy(uintptr_t v) { destroyed.push_back(v); }

TEST(List, RandomOperationsAgreeWithAModel) {
    for (uint32_t seed = 1; seed <= 20; seed++) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        destroyed.clear();
        lst_list *l = lst_create_destr(record_destroy);
        lst_set_comparator(l, cmp_words);
        std::deque<uintptr_t> m;
        const bool ascending = seed % 2;  // sorted inserts keep one order per list
        for (int step = 0; step < 300; step++) {
            const uintptr_t v = 1 + rng() % 9;
            uintptr_t got = 77;
            switch (rng() % 7) {
            case 0: ASSERT_NE(lst_insert(l, v), 0); m.push_back(v); break;
            case 1: ASSERT_NE(lst_insert_at_start(l, v), 0); m.push_front(v); break;
            case 2: {
                // Sorted inserts are defined on a sorted list only.
                if (!std::is_sorted(m.begin(), m.end(), [&](auto a, auto b) { return ascending ? a < b : a > b; }))
                    break;
                ASSERT_NE(ascending ? lst_insert_ascending(l, v) : lst_insert_descending(l, v), 0);
                auto at = ascending ? std::upper_bound(m.begin(), m.end(), v)
                                    : std::upper_bound(m.begin(), m.end(), v, std::greater<>());
                m.insert(at, v);
                break;
            }
            case 3:
                ASSERT_EQ(lst_remove_at_start(l, &got), m.empty() ? 0 : 1);
                ASSERT_EQ(got, m.empty() ? 77 : m.front());
                if (!m.empty()) m.pop_front();
                break;
            case 4: {
                auto it = std::find(m.begin(), m.end(), v);
                ASSERT_EQ(lst_delete_val_one(l, v) == 0, it != m.end());
                if (it != m.end()) { m.erase(it); ASSERT_EQ(destroyed.back(), v); }
                break;
            }
            case 5: {
                // Lookup from behind a cursor finds each equal value in turn.
                size_t found = 0;
                for (lst_cursor c = lst_lookup(l, nullptr, v, &got); c; c = lst_lookup(l, c, v, &got)) {
                    found++;
                    ASSERT_EQ(got, v);
                }
                ASSERT_EQ(found, (size_t)std::count(m.begin(), m.end(), v));
                break;
            }
            case 6: {
                lst_list *tail = lst_create();
                lst_insert(tail, v);
                lst_insert(tail, v + 10);
                lst_concat(l, tail);  // consumes tail
                m.push_back(v), m.push_back(v + 10);
                break;
            }
            }
            ASSERT_EQ(list_values(l), std::vector<uintptr_t>(m.begin(), m.end())) << "step " << step;
            ASSERT_EQ(lst_nelements(l), (intptr_t)m.size());
            ASSERT_EQ(lst_data(lst_last(l)), m.empty() ? 0 : m.back()) << "tail after step " << step;
        }
        const size_t before = destroyed.size();
        lst_destroy(l);
        EXPECT_EQ(destroyed.size() - before, m.size()) << "destroy runs the destructor on what is left";
    }
}

TEST(List, PoolIsReusedAcrossThreadsAndDrains) {
    uintptr_t pool = 0;
    const intptr_t start = qx_kmem_get_alloc_total();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&pool] {
            for (int round = 0; round < 200; round++) {
                lst_list *l = lst_create_with_pool(&pool, nullptr);
                for (uintptr_t i = 0; i < 50; i++)
                    lst_insert(l, i);
                uintptr_t sum = 0;
                while (lst_nelements(l) > 0)
                    sum += lst_dequeue(l);
                EXPECT_EQ(sum, 49u * 50u / 2u);
                lst_destroy(l);
            }
        });
    for (auto &t : threads)
        t.join();
    // A warm pool serves a fill without new memory.
    lst_list *l = lst_create_with_pool(&pool, nullptr);
    const intptr_t warm = qx_kmem_get_alloc_total();
    for (uintptr_t i = 0; i < 50; i++)
        lst_insert(l, i);
    EXPECT_EQ(qx_kmem_get_alloc_total(), warm);
    lst_destroy(l);
    lst_pool_drain(&pool);
    EXPECT_EQ(qx_kmem_get_alloc_total(), start);
}

TEST(Hash, IntegerKeys) {
    hash_table *h = _hash_create(0, hash_intvalue, hash_intcmp, 0, __FILE__, __LINE__);
    ASSERT_NE(h, nullptr);
    for (uintptr_t k = 1; k <= 1000; k++)
        ASSERT_NE(hash_insert(h, k * 7, k), 0);
    for (uintptr_t k = 1; k <= 7000; k++)
        ASSERT_EQ(hash_lookup(h, k), k % 7 ? 0 : k / 7) << k;
    hash_destroy(h);
}

// The buffer's bytes, read without allocating (the check runs while allocations are being failed).
std::string flat(vael_vbuf *v) {
    char out[64];
    const uint32_t n = vael_vbuf_size(v) ? vael_vbuf_defrag(v, 0, vael_vbuf_size(v), out, sizeof out) : 0;
    return std::string(out, n);
}

TEST(ContainerFailmem, EveryOperationFailsCleanly) {
    uintptr_t pool = 0;
    std::string a = "abcd", b = "efgh";
    lst_list *l = nullptr;
    hash_table *h = nullptr;
    vael_vbuf *v = nullptr;
    auto fresh_list = [&] {
        l = lst_create();
        lst_set_comparator(l, cmp_words);
        lst_insert(l, 10), lst_insert(l, 30);
    };
    auto add = [&](std::string &bytes) { return vael_vbuf_add_buffer_ex(v, bytes.data(), 4, nullptr, nullptr); };
    auto fresh_vbuf = [&] { v = vael_vbuf_create(8, 0), add(a); };
    auto list_unchanged = [&] { return list_values(l) == std::vector<uintptr_t>{10, 30}; };
    auto no_list = [&] { return !l; };
    auto new_hash = [] { return _hash_create(16, hash_intvalue, hash_intcmp, 0, "f", 1); };
    // rounds: allocation sites + 1.
    struct Case { const char *name; std::function<void()> setup; std::function<bool()> attempt, clean; int rounds; };
    const std::vector<Case> cases = {
        {"lst_create", [] {}, [&] { return (l = lst_create()) != nullptr; }, no_list, 2},
        {"vael_stack_create", [] {}, [&] { return (l = vael_stack_create(nullptr)) != nullptr; }, no_list, 2},
        {"lst_create_with_pool", [] {}, [&] { return (l = lst_create_with_pool(&pool, nullptr)) != nullptr; }, no_list,
         2},
        {"lst_insert", fresh_list, [&] { return lst_insert(l, 20) != 0; }, list_unchanged, 2},
        {"lst_insert_at_start", fresh_list, [&] { return lst_insert_at_start(l, 20) != 0; }, list_unchanged, 2},
        {"lst_insert_ascending", fresh_list, [&] { return lst_insert_ascending(l, 20) != 0; }, list_unchanged, 2},
        {"lst_insert_descending", fresh_list, [&] { return lst_insert_descending(l, 20) != 0; }, list_unchanged, 2},
        {"vael_enqueue", fresh_list, [&] { return vael_enqueue(l, 1) == 0; }, list_unchanged, 2},
        {"_hash_create", [] {}, [&] { return (h = new_hash()) != nullptr; }, [&] { return !h; }, 2},
        {"hash_insert", [&] { h = new_hash(), hash_insert(h, 1, 100); }, [&] { return hash_insert(h, 2, 200) != 0; },
         [&] { return hash_lookup(h, 2) == 0 && hash_lookup(h, 1) == 100; }, 2},
        {"vael_vbuf_create", [] {}, [&] { return (v = vael_vbuf_create(8, 0)) != nullptr; }, [&] { return !v; }, 3},
        {"vael_vbuf_add_buffer_ex", fresh_vbuf, [&] { return add(b) == 0; }, [&] { return flat(v) == "abcd"; }, 3},
        // Out of memory in the compare reads as "not equal".
        {"vael_vbuf_compare_to_buffer", fresh_vbuf, [&] { return vael_vbuf_compare_to_buffer(v, "abcd", 4, 0) != 0; },
         [] { return true; }, 2},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        l = nullptr, h = nullptr, v = nullptr;
        c.setup();
        auto w = vael_test::failmem_walk(c.attempt, c.clean);
        EXPECT_EQ(w.rounds, c.rounds);
        lst_destroy(l);
        hash_destroy(h);
        if (v)
            vael_vbuf_destroy(v);
    }
    lst_pool_drain(&pool);
}

// Evicting reuses the victim's record, so only the list cell can fail.
TEST(ContainerFailmem, FailedAddAfterEvictionLeavesAnEmptyBuffer) {
    std::string a = "abcd", c = "ij";
    vael_vbuf *v = vael_vbuf_create(4, 0);
    ASSERT_EQ(vael_vbuf_add_buffer_ex(v, a.data(), 4, nullptr, nullptr), 0);
    const intptr_t start = qx_kmem_get_alloc_total();
    vael_us_adaptor_failmem_set(2, 0);
    EXPECT_EQ(vael_vbuf_add_buffer_ex(v, c.data(), 2, nullptr, nullptr), -1);
    EXPECT_EQ(vael_us_adaptor_num_failures(), 1);
    vael_us_adaptor_failmem_set(0, 0);
    EXPECT_EQ(vael_vbuf_size(v), 0u);
    EXPECT_LT(qx_kmem_get_alloc_total(), start) << "the evicted record is freed";
    EXPECT_EQ(vael_vbuf_add_buffer_ex(v, c.data(), 2, nullptr, nullptr), 0);
    EXPECT_EQ(flat(v), "ij");
    vael_vbuf_destroy(v);
}

using Key = std::vector<uint32_t>;

constexpr int kWorkers = 8, kOpsPerWorker = 6000;

struct Worker {
    vael_mutex *lock = nullptr;
    int id = -1;
    // Entries without a timer, which nothing but the worker changes.
    std::map<Key, uint32_t> lasting;
    int mismatches = 0;
};

int count_entries(int, vael_htab *, vael_htab_entry *, void *ctx) {
    ++*static_cast<int *>(ctx);
    return 1;
}

void work(Worker &w, int n, const std::atomic<bool> &churn_running) {
    const uint32_t flags[] = {0, VAEL_HTAB_EXPIRE, VAEL_HTAB_EXPIRE_GRADUAL | VAEL_HTAB_REFRESH, VAEL_HTAB_EXPIRE};
    const std::string name = "worker" + std::to_string(n);
    if (vael_htab_create(name.c_str(), 64, flags[n % 4], nullptr, nullptr, nullptr, &w.lock, &w.id, nullptr) != 0)
        return;
    std::mt19937 rng((unsigned)n);
    for (int op = 0; op < kOpsPerWorker; op++) {
        // Keys of even first word never get a timer; odd ones may expire.
        const Key k{(uint32_t)(rng() % 64), (uint32_t)n};
        const bool lasting = k[0] % 2 == 0;
        const uint32_t v = rng();
        MtMutexLock(w.lock);
        switch (rng() % 4) {
        case 0:
        case 1:
            if (vael_htab_set(w.id, k.data(), 2, &v, 1, lasting ? 0 : 1 + rng() % 2, nullptr) == 0 && lasting)
                w.lasting[k] = v;
            break;
        case 2: {
            uint32_t got = 0;
            int len = 1, result = 0;
            const bool found = vael_htab_get(w.id, k.data(), 2, &got, &len, 1, &result) == 0;
            w.mismatches += lasting && (found != (w.lasting.count(k) != 0) || (found && got != w.lasting[k]));
            break;
        }
        default:
            if (vael_htab_del(w.id, k.data(), 2, "worker") == 0 && lasting)
                w.lasting.erase(k);
            break;
        }
        MtMutexUnLock(w.lock);
        // Never while holding the own lock: both take table locks.
        if (op % 4 == 0)
            vael_htab_expire();
        if (op % 64 == 0 && churn_running) {
            int entries = 0;
            vael_htab_get_table(nullptr, (int)(rng() % VAEL_HTAB_MAX_TABLES), nullptr, count_entries, &entries);
            vael_htab_get_table("churn", -1, nullptr, count_entries, &entries);
        }
    }
}

void release_lock(void *lock) {
    tqlock_lock_term(static_cast<vael_mutex **>(lock));
    delete static_cast<vael_mutex **>(lock);
}

// Creates and destroys tables; the pending callback of a destroy that found
// a reader inside releases that table's lock.
void churn(std::atomic<bool> &running) {
    std::mt19937 rng(99);
    for (int round = 0; round < 400; round++) {
        auto *lock = new vael_mutex *(nullptr);
        int id = -1;
        const uint32_t flags = (round % 3 == 0) ? VAEL_HTAB_EXPIRE_GRADUAL : (round % 3 == 1 ? VAEL_HTAB_EXPIRE : 0);
        EXPECT_EQ(tqlock_lock_init(lock), 0);
        EXPECT_EQ(vael_htab_create("churn", 16, flags, nullptr, nullptr, nullptr, lock, &id, nullptr), 0);
        MtMutexLock(*lock);
        for (uint32_t i = 0; i < 8; i++) {
            const uint32_t k[] = {i, (uint32_t)round};
            vael_htab_set(id, k, 2, k, 2, flags ? 1 + rng() % 3 : 0, nullptr);
        }
        const int rc = vael_htab_destroy_ex(id, release_lock, lock);
        MtMutexUnLock(*lock);
        if (rc == 1)
            release_lock(lock);
        if (round % 16 == 0)
            std::this_thread::yield();
    }
    running = false;
}

TEST(HtabThreads, WorkersAndChurnKeepEveryTableWhole) {
    const intptr_t kmem = qx_kmem_get_alloc_total();
    std::vector<Worker> workers(kWorkers);
    for (auto &w : workers)
        ASSERT_EQ(tqlock_lock_init(&w.lock), 0);
    std::atomic<bool> churn_running{true};
    std::vector<std::thread> threads;
    for (int n = 0; n < kWorkers; n++)
        threads.emplace_back(work, std::ref(workers[n]), n, std::cref(churn_running));
    threads.emplace_back(churn, std::ref(churn_running));
    for (auto &t : threads)
        t.join();

    for (auto &w : workers) {
        ASSERT_GE(w.id, 0);
        EXPECT_EQ(w.mismatches, 0);
        // Every lasting entry is there with its last value.
        for (const auto &[k, v] : w.lasting) {
            uint32_t got = 0;
            int len = 1;
            EXPECT_TRUE(vael_htab_get(w.id, k.data(), 2, &got, &len, 0, nullptr) == 0 && got == v) << k[0];
        }
        EXPECT_EQ(vael_htab_destroy(w.id), 1);
        tqlock_lock_term(&w.lock);
    }
    EXPECT_EQ(vael_htab_find("churn"), -1) << "every pending table was freed by its last reader";
    EXPECT_EQ(qx_kmem_get_alloc_total(), kmem);
}

TEST(Threads, EightScannersOnOnePmWhileAnotherThreadCompilesAndDestroys) {
    constexpr int kScanners = 8;
    constexpr int kRounds = 40;
    const std::vector<Pattern> patterns = {{"he", 1}, {"she", 2}, {"his", 3}, {"hers", 4}, {"sh", 5}, {"ushe", 6}};
    std::string text;
    for (int i = 0; i < 400; i++)
        text += "ushers his shell, she sells; ";
    Hits want;
    for (const auto &h : vael_test::brute_force_all(patterns, text, 0))
        want.push_back({h.id, h.offset});
    std::sort(want.begin(), want.end());

    vael_pm_handle *pm = vael_pm_test::compile_strings(patterns, collect, 0, nullptr, "threads");
    ASSERT_NE(pm, nullptr);
    std::atomic<int> scanners_left{kScanners};
    std::vector<int> wrong(kScanners, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kScanners; t++) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < kRounds; round++)
                wrong[t] += vael_pm_test::run(pm, text, VAEL_PM_EXEC_ALL_MATCHES) != want;
            scanners_left--;
        });
    }
    int compiled = 0, compile_failures = 0;
    threads.emplace_back([&] {
        // At least a few PMs, then as many as the scanners leave time for.
        for (int i = 0; i < 4 || scanners_left > 0; i++) {
            const std::vector<Pattern> others = {{"other" + std::to_string(i), i}, {"sh", 100}};
            vael_pm_handle *other = vael_pm_test::compile_strings(others, collect);
            if (!other) {
                compile_failures++;
                continue;
            }
            compile_failures += vael_pm_test::run(other, "sh", 0) != Hits{{100, 1}};
            vael_pm_destroy(other);
            compiled++;
        }
    });
    for (auto &th : threads)
        th.join();

    for (int t = 0; t < kScanners; t++)
        EXPECT_EQ(wrong[t], 0) << "scanner " << t;
    EXPECT_EQ(compile_failures, 0);
    EXPECT_GE(compiled, 4);
    // Counts may be lost when runs meet; none may be made up.
    uint64_t matches = 0, tier1_matches = 0;
    for (uint32_t i = 0; i < pm->num_tier2; i++) {
        matches += pm->pm_array[i].matches;
        tier1_matches += pm->pm_array[i].tier1_matches;
    }
    EXPECT_LE(tier1_matches, (uint64_t)kScanners * kRounds * want.size());
    EXPECT_GT(matches, 0u);
    EXPECT_LE(matches, (uint64_t)kScanners * kRounds * want.size());
    vael_pm_destroy(pm);
}

}  // namespace
