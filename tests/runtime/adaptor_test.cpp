// The runtime adaptor: the debug facility (topics with levels per module, the line prefix, the sink, the guard of
// VAEL_LOG) and its flags from the environment, the byte accounts, both fail-injection methods, tunables, the
// allocation helpers, and the texts an operator reads.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "runtime/vael_alloc.h"
#include "runtime/vael_runtime.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_test::LogCapture;
using vael_test::ScopedGlobal;
using vael_test::ScopedTopic;

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

}  // namespace
