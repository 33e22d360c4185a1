// The frame of the pattern matcher: compile and its errors, what stays in the caller's error record when the frame
// itself fails, run and delivery, the PM's life (refcount, magic, the PM list), masks, memory accounts, the functions
// the shared library exports. A PM's copies: loaded from its image or duplicated, they scan as the PM they came from;
// a broken image (cut, flipped, wrong magics, absurd sizes) is refused or loads to a PM that validates and scans.
#include <gtest/gtest.h>
#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "rem/vael_dfa_internal.h"
#include "tests/pm/pm_test_util.h"
#include "tests/support/failmem_walk.h"
#include "tier1/vael_thin_nfa_internal.h"
#include "tier1/vael_wm.h"

namespace {

using vael_test::Hit;
using vael_test::LogCapture;
using vael_test::Pattern;
using vael_test::ScopedGlobal;
using vael_pm_test::collect;
using vael_pm_test::Hits;
using vael_pm_test::Rec;
using vael_pm_test::run;
using Image = std::vector<unsigned char>;

constexpr uint32_t kAll = VAEL_PM_EXEC_ALL_MATCHES;

// What a callback saw, and how it should answer.
struct Recorder {
    std::vector<Hit> hits;
    std::vector<uint32_t> starts;  // extra[1] of the extended callback
    bool stop = false;             // write 0 to *keep_going
    bool args_ok = true;           // the run's pm and buffer came back, keep_going was 1
    vael_pm_handle *pm = nullptr;
    const unsigned char *buf = nullptr;
};

int record(vael_pm_handle *pm, int32_t id, void *arg, const unsigned char *buf, uint32_t, uint32_t offset,
           vael_vbuf *vbuf, int *keep_going) {
    auto *r = static_cast<Recorder *>(arg);
    r->hits.push_back(Hit{id, offset});
    r->args_ok = r->args_ok && pm == r->pm && buf == r->buf && !vbuf && *keep_going == 1;
    if (r->stop)
        *keep_going = 0;
    return 0;
}

int record_ext(vael_pm_handle *pm, int32_t id, void *arg, const unsigned char *buf, uint32_t len, uint32_t offset,
               vael_vbuf *vbuf, int *keep_going, uint32_t *extra) {
    static_cast<Recorder *>(arg)->starts.push_back(extra[1]);
    return record(pm, id, arg, buf, len, offset, vbuf, keep_going);
}

// A compiled PM that destroys itself.
class Pm {
  public:
    explicit Pm(const std::vector<Pattern> &patterns, uint32_t flags = 0, const char *name = "frame test") {
        LogCapture quiet;
        pm_ = vael_pm_test::compile_strings(patterns, record, flags, nullptr, name);
    }
    ~Pm() { vael_pm_destroy(pm_); }
    vael_pm_handle *get() const { return pm_; }

    int exec(const std::string &text, Recorder *r, uint32_t flags = 0, vael_pm_mask *mask = nullptr) const {
        r->hits.clear(), r->starts.clear();
        r->pm = pm_;
        r->buf = reinterpret_cast<const unsigned char *>(text.data());
        return vael_pm_exec_ex(pm_, r->buf, (uint32_t)text.size(), nullptr, mask, r, flags);
    }
    std::vector<Hit> hits(const std::string &text, uint32_t flags = 0, vael_pm_mask *mask = nullptr) const {
        Recorder r;
        EXPECT_EQ(exec(text, &r, flags, mask), 0);
        EXPECT_TRUE(r.args_ok);
        return r.hits;
    }

  private:
    vael_pm_handle *pm_ = nullptr;
};

TEST(FrameCompile, RefusalsGiveTheExactErrorAndHoldNoMemory) {
    const char *kNoLss = "Error while trying to find LSS for pattern. Verify that pattern contains LSS";
    const char *kWord = "Invalid arguments (not valid utf8 or only delimiters phrase)";
    const char *kShort = "The pattern's LSS is too short";
    const uint32_t S = VAEL_PM_CASELESS;
    // The records get ids 1, 2, ...; the id blamed is 0 when the list compiles, -1 when it is refused with no message.
    const struct {
        const char *name; std::vector<vael_pm_test::Rec> records; uint32_t compile_flags; int min_lss; int32_t id;
        const char *error;
    } cases[] = {
        {"EmptyList", {}, 0, 1, -1, nullptr},
        {"LssTooShort", {{'s', "abc"}, {'s', "ab"}, {'s', "xy"}}, 0, 3, 2, kShort},
        {"ShortLssFlag", {{'s', "abc"}, {'s', "{shortlss}:ab"}}, 0, 3, 0, nullptr},
        {"WordOfDelimitersOnly", {{'s', "abc"}, {'w', "--"}}, 0, 1, 2, kWord},
        {"RegexBound", {{'p', "{bound}:ab+c"}}, 0, 1, 0, nullptr},
        {"RegexLssTooShort", {{'p', "ab[0-9]+"}}, 0, 3, 1, kShort},
        {"RegexWithoutLss", {{'s', "abc"}, {'p', "[a-z]+"}}, 0, 1, 2, kNoLss},
        {"RegexBadSyntax", {{'s', "abc"}, {'p', "abc(d"}}, 0, 1, 2, "Missing a closing ')'"},
        {"KwRule", {{'s', "abc", S}, {'k', "data: \"abc\";", 0, "abc"}}, 0, 1, 0, nullptr},
        {"KwRuleRefused", {{'s', "abc", S}, {'k', "data:abc;", 0, "abc"}}, 0, 1, 2,
         "Content needs to be enclosed in quotation marks (\") in data keyword"},
        {"Bound", {{'s', "abc"}, {'s', "{bound}:def"}}, 0, 1, 2, "Error while trying to process a bounded pattern."},
        {"WordAfterACaseSensitiveString", {{'s', "abc", S}, {'s', "def"}, {'w', "w,"}}, 0, 1, 0, nullptr},
        {"BadWordAfterStrings", {{'s', "abc", S}, {'s', "def"}, {'w', "\xFF"}}, 0, 1, 3, kWord},
        // A case-sensitive string among caseless ones is checked by a second tier.
        {"CaseSensitiveAmongCaseless", {{'s', "abc", S}, {'s', "def"}}, 0, 1, 0, nullptr},
        {"CaselessByCompileFlags", {{'s', "abc", S}, {'s', "def"}}, VAEL_PM_CASELESS, 1, 0, nullptr},
        // The first record refused in list order is blamed; words are compiled
        // after the loop over the records, so a bad phrase only when no other is.
        {"ShortLssBeforeWord", {{'s', "ab"}, {'w', "word"}}, 0, 3, 1, kShort},
        {"RegexBeforeWord", {{'s', "abcd"}, {'p', "x+y"}, {'w', "w"}}, 0, 3, 2, kShort},
        {"BadWordBeforeShortLss", {{'w', "--"}, {'s', "ab"}}, 0, 3, 2, kShort},
        {"ShortLssOfARegexBeforeTheSecondTier", {{'p', "{LSS(ab)}:ab[0-9]"}}, 0, 3, 1, kShort},
        {"CaseCheckedStringBeforeShortLss", {{'s', "abcd"}, {'s', "ab", S}}, 0, 3, 2, kShort},
    };
    // The word matcher's process-wide buffer outlives every PM; made here, it is no growth of the accounts below.
    ASSERT_EQ(vael_wm_validate_phrase_temp_buffer(64), 0);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        ScopedGlobal min_lss(vael_pm_min_lss_size, c.min_lss);
        vael_pm_patterns *list = vael_pm_test::make_list(c.records);
        const intptr_t pm_mem = vael_pmglob_memory_get_alloc_total(), all_mem = qx_kmem_get_alloc_total();
        vael_pm_error err = {123, 0, "stale", 9};
        LogCapture quiet;
        vael_pm_handle *pm = vael_pm_compile(list, nullptr, c.compile_flags, &err, "frame test");
        EXPECT_EQ(pm != nullptr, c.id == 0);
        EXPECT_EQ(err.pattern_id, c.id == 0 ? -1 : c.id);
        EXPECT_STREQ(err.error_string, c.error);
        EXPECT_EQ(err.error_type, c.id > 0 ? (uint32_t)VAEL_PM_ERROR_ILLEGAL : (uint32_t)VAEL_PM_ERROR_INTERNAL);
        vael_pm_destroy(pm);
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_mem);
        EXPECT_EQ(qx_kmem_get_alloc_total(), all_mem);
        vael_pm_patterns_destroy(list);
    }
    LogCapture quiet;
    EXPECT_EQ(vael_pm_compile(nullptr, record, 0, nullptr, "frame test"), nullptr);
}

TEST(FrameExec, DeliversUserIdsAndHonoursAnchors) {
    const auto kStart = VAEL_PM_LSS_START_ANCHOR, kEnd = VAEL_PM_LSS_END_ANCHOR;
    const struct {
        const char *name; std::vector<Pattern> patterns; std::string text; uint32_t flags; std::vector<Hit> expected;
    } cases[] = {
        {"same user id twice", {{"abc", 9}, {"xyz", 9}}, "abc xyz", 0, {{9, 2}, {9, 6}}},
        {"anchors", {{"ab", 1, kStart}, {"cd", 2, kEnd}, {"ab", 3}, {"cd", 4}}, "ab cd ab cd", kAll,
         {{1, 1}, {3, 1}, {4, 4}, {3, 7}, {2, 10}, {4, 10}}},
        {"anchors away from the ends", {{"ab", 1, kStart}, {"cd", 2, kEnd}, {"ab", 3}, {"cd", 4}}, "xab cdx", kAll,
         {{3, 2}, {4, 5}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Pm pm(c.patterns);
        ASSERT_NE(pm.get(), nullptr);
        EXPECT_EQ(pm.hits(c.text, c.flags), c.expected);
    }
}

TEST(FrameExec, RefusedRunsDeliverNothing) {
    Pm pm({{"ab", 1}}), stranger({{"ab", 1}});
    vael_pm_mask *theirs = vael_pm_mask_create(stranger.get());
    vael_pm_mask_set(theirs, 1);
    const unsigned char data[] = "ab";
    const struct {
        const char *name; vael_pm_handle *pm; const unsigned char *buf; uint32_t len; vael_pm_mask *mask;
    } cases[] = {
        {"null pm", nullptr, data, 2, nullptr},   {"null buffer", pm.get(), nullptr, 2, nullptr},
        {"no bytes", pm.get(), data, 0, nullptr}, {"mask of another PM", pm.get(), data, 2, theirs},
        {"dead magic", pm.get(), data, 2, nullptr},
    };
    LogCapture quiet;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        if (c.name == std::string("dead magic"))
            pm.get()->magic = VAEL_PM_MAGIC_DEAD;
        Recorder r;
        EXPECT_EQ(vael_pm_exec_ex(c.pm, c.buf, c.len, nullptr, c.mask, &r, 0), -1);
        EXPECT_TRUE(r.hits.empty());
    }
    // A destroy refused for the magic leaves the PM alone.
    vael_pm_destroy(pm.get());
    EXPECT_EQ(stranger.get()->next, pm.get()) << "still in the PM list";
    pm.get()->magic = VAEL_PM_MAGIC_ALIVE;
    EXPECT_EQ(pm.hits("ab"), (std::vector<Hit>{{1, 1}}));
    vael_pm_mask_destroy(theirs);
}

TEST(FrameExec, MatchStartGoesToTheExtendedCallbackWhenAsked) {
    Pm pm({{"abc", 1}, {"c", 2}, {"bcab", 3}});
    ASSERT_EQ(vael_pm_set_extended_match_cb(pm.get(), record_ext), 0);
    Recorder r;
    ASSERT_EQ(pm.exec("abcabc", &r, kAll | VAEL_PM_EXEC_MATCH_START), 0);
    EXPECT_EQ(r.hits, (std::vector<Hit>{{1, 2}, {2, 2}, {3, 4}, {1, 5}, {2, 5}}));
    EXPECT_EQ(r.starts, (std::vector<uint32_t>{0, 2, 1, 3, 5}));
    ASSERT_EQ(pm.exec("abc", &r, 0), 0);
    EXPECT_EQ(r.starts, (std::vector<uint32_t>{0, 0})) << "no start unless asked";
    ASSERT_EQ(vael_pm_set_extended_match_cb(pm.get(), nullptr), 0);
    ASSERT_EQ(pm.exec("abc", &r, VAEL_PM_EXEC_MATCH_START), 0);
    EXPECT_TRUE(r.starts.empty()) << "a null extended callback switches back";
}

TEST(FrameLifecycle, PmListRefcountAndEveryByteBack) {
    lst_pool_drain(&vael_pmglob_match_data_lst_elems_pool);  // match queues keep cells for the next run
    vael_pm_handle *const before = *vael_pm_global_data.list;
    const intptr_t pm_mem = vael_pmglob_memory_get_alloc_total(), all_mem = qx_kmem_get_alloc_total();
    {
        // Compiled and destroyed on many threads: the list stays whole.
        std::vector<int> failures(4, 0);
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; t++)
            threads.emplace_back([&, t] {
                for (int i = 0; i < 50; i++) {
                    Pm pm({{"thread" + std::to_string(t), t}, {"run" + std::to_string(i), i}});
                    failures[t] += !pm.get() || pm.hits("xthread" + std::to_string(t)) != std::vector<Hit>{{t, 7}};
                }
            });
        for (auto &th : threads)
            th.join();
        EXPECT_EQ(failures, std::vector<int>(4, 0));
        EXPECT_EQ(*vael_pm_global_data.list, before);

        Pm a({{"ab", 1}}, 0, "first"), b({{"ab", 1}}, 0, "second");
        EXPECT_EQ(*vael_pm_global_data.list, b.get()) << "newest first";
        EXPECT_EQ(b.get()->next, a.get());
        EXPECT_NE(std::memcmp(a.get()->uuid, b.get()->uuid, sizeof a.get()->uuid), 0);
        b.get()->refcount = 2;
        vael_pm_destroy(b.get());  // another holder keeps it
        EXPECT_EQ(b.get()->refcount, 1u);
        EXPECT_EQ(b.hits("ab"), (std::vector<Hit>{{1, 1}}));

        // A run stopped with hits left in the queue, and a mask, give all back.
        std::vector<Pattern> patterns;
        for (int i = 0; i < 100; i++)
            patterns.push_back({"pattern-" + std::to_string(i * 7919), i});
        Pm big(patterns);
        vael_pm_mask *mask = vael_pm_mask_create(big.get());
        vael_pm_mask_set(mask, 3);
        Recorder r;
        r.stop = true;
        EXPECT_EQ(big.exec("pattern-0 pattern-7919 pattern-15838", &r, kAll), 0);
        EXPECT_EQ(big.hits("pattern-23757", 0, mask), (std::vector<Hit>{{3, 12}}));
        vael_pm_mask_destroy(mask);
    }
    lst_pool_drain(&vael_pmglob_match_data_lst_elems_pool);
    EXPECT_EQ(*vael_pm_global_data.list, before);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_mem);
    EXPECT_EQ(qx_kmem_get_alloc_total(), all_mem);
}

TEST(FrameMask, BitsFollowUserIds) {
    Pm pm({{"aa", 10}, {"bb", 20}, {"cc", 30}, {"dd", 10}}), stranger({{"aa", 1}});
    const std::string text = "aa bb cc dd";
    vael_pm_mask *mask = vael_pm_mask_create(pm.get()), *copy = nullptr;
    vael_pm_mask *other = vael_pm_mask_create(pm.get()), *theirs = vael_pm_mask_create(stranger.get());
    vael_pm_mask_set(other, 20), vael_pm_mask_set(other, 30);
    LogCapture quiet;
    // Steps on the mask in order, and the hits it lets through after each.
    const struct { const char *name; std::function<int()> step; int rc; std::vector<Hit> hits; } steps[] = {
        {"fresh mask silences everything", [] { return 0; }, 0, {}},
        {"set", [&] { return vael_pm_mask_set(mask, 20) + vael_pm_mask_set(mask, 30); }, 0, {{20, 4}, {30, 7}}},
        {"unset", [&] { return vael_pm_mask_unset(mask, 30); }, 0, {{20, 4}}},
        {"unknown id", [&] { return vael_pm_mask_set(mask, 99) + vael_pm_mask_unset(mask, 99); }, -2, {{20, 4}}},
        // Of two entries with one user id only the first is reachable.
        {"duplicate user id", [&] { return vael_pm_mask_set(mask, 10); }, 0, {{10, 1}, {20, 4}}},
        {"dup", [&] { return (copy = vael_pm_mask_dup(mask)) ? 0 : -1; }, 0, {{10, 1}, {20, 4}}},
        {"and into the copy", [&] { return vael_pm_mask_and(copy, other); }, 0, {{10, 1}, {20, 4}}},
        {"and with another PM's mask", [&] { return vael_pm_mask_and(mask, theirs); }, -1, {{10, 1}, {20, 4}}},
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(s.name);
        EXPECT_EQ(s.step(), s.rc);
        EXPECT_EQ(pm.hits(text, 0, mask), s.hits);
    }
    EXPECT_EQ(pm.hits(text, 0, copy), (std::vector<Hit>{{20, 4}}));
    for (vael_pm_mask *m : {mask, copy, other, theirs})
        vael_pm_mask_destroy(m);
}

int never_valid(void *) { return 0; }

// A failure of the frame's own (no pattern at fault) leaves the caller's
// record as init left it; the log names the failure.
TEST(ConformanceError, FrameFailuresLeaveTheRecordAsInitLeftIt) {
    const vael_pm_tier1_funcs saved = pm_tier1_funcs[VAEL_PM_TIER1_STRING];
    // null_record: the list holds a null record behind "abc".
    const struct { const char *name; std::function<void()> fault; bool null_record; const char *log; } rows[] = {
        {"the string engine's handle fails validation",
         [] { pm_tier1_funcs[VAEL_PM_TIER1_STRING].is_valid = never_valid; }, false,
         "vael_pm_validate: Thin NFA handle is NOT valid\n"},
        {"no string engine in row 1 at all", [] { pm_tier1_funcs[VAEL_PM_TIER1_STRING] = vael_pm_tier1_funcs{}; },
         false, ""},
        {"a null record", [] {}, true, "vael_pm_compile_ex: Illegal number of words -1\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        vael_pm_patterns *list = vael_pm_test::pattern_list({{"abc", 7}});
        if (row.null_record) {
            ASSERT_NE(lst_insert(list, 0), 0);
        }
        vael_pm_error err;
        row.fault();
        LogCapture log;
        EXPECT_EQ(vael_pm_compile(list, nullptr, 0, &err, "conformance"), nullptr);
        pm_tier1_funcs[VAEL_PM_TIER1_STRING] = saved;
        EXPECT_TRUE(log.contains(row.log)) << log.text();
        EXPECT_EQ(err.error_string, nullptr) << err.error_string;
        EXPECT_EQ(err.pattern_id, -1);
        EXPECT_EQ(err.error_type, (uint32_t)VAEL_PM_ERROR_INTERNAL);
        EXPECT_EQ(err.error_index, 0u);
        vael_pm_patterns_destroy(list);
    }
}

// The Thin NFA's run functions and the control side leave the shared library under their C names.
TEST(ConformanceExports, RunAndControlFunctionsLeaveTheSharedLibrary) {
    void *lib = dlopen(VAEL_SHARED_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
    for (const char *name :
         {"vael_thin_nfa_exec", "vael_thin_nfa_exec_one_buf", "vael_thin_nfa_exec_one_buf_xlate",
          "vael_thin_nfa_exec_one_buf_ex", "vael_thin_nfa_handle_match", "vael_thin_nfa_enqueue_match",
          "vael_thin_nfa_get_next_state", "vael_thin_nfa_stats_init", "vael_thin_nfa_stats_free",
          "vael_thin_nfa_create", "vael_thin_nfa_destroy", "vael_thin_nfa_get_common_stats",
          "vael_params_user_ctl_get", "vael_params_user_ctl_set", "vael_params_user_get_param_int",
          "vael_params_user_get_param_int_multik", "vael_params_request", "vael_handles_get_data",
          "vael_stat_aggregate_data_from_all_instances", "vael_stat_aggregate_add_all_ints64",
          "vael_stat_aggregate_add_all_ints_wrapper", "vael_stat_aggregate_add_all_ints64_wrapper",
          "qxstat_aggregate_handle_stats", "pm_callback_test_compile_lss", "pm_callback_test_compile_cb",
          "pm_callback_test_buffer_cb", "pm_callback_test_match_func", "pm_callback_test_reset_test"})
        EXPECT_NE(dlsym(lib, name), nullptr) << name;
    dlclose(lib);
}

// The exported scan entries agree with the run they serve: one piece, with and without a translation table, from a
// run state as the run makes it (without a candidate search).
TEST(ConformanceExports, OnePieceScansMatchTheRun) {
    for (uint32_t flags : {0u, (uint32_t)VAEL_PM_CASELESS}) {
        vael_test::ThinNfa nfa({{"he", 1}, {"she", 2}}, flags);
        ASSERT_NE(nfa.get(), nullptr);
        const std::string text = "uSHErs";
        std::vector<vael_test::Hit> want;
        ASSERT_EQ(nfa.exec(text, &want), 0);
        for (int entry = 0; entry < 2; entry++) {
            lst_list *queue = nullptr;
            vael_thin_nfa_run_state run = {nfa.get(), nfa.get()->bnfa, &queue, nullptr, 0, nullptr};
            auto *r = &run;
            const auto *data = reinterpret_cast<const unsigned char *>(text.data());
            bool xlate = nfa.get()->flags & THIN_NFA_FLAG_XLATION;
            int rc = entry == 0 ? vael_thin_nfa_exec_one_buf_ex(r, data, (uint32_t)text.size(), 1, xlate,
                                                                nfa.get()->xlation_tab)
                                : (xlate ? vael_thin_nfa_exec_one_buf_xlate : vael_thin_nfa_exec_one_buf)(
                                      r, data, (uint32_t)text.size(), 1);
            EXPECT_EQ(rc, 0);
            EXPECT_EQ(vael_test::drain_queue(queue), want) << "flags " << flags << ", entry " << entry;
        }
    }
}

vael_pm_handle *compile(const std::vector<Rec> &recs) { return vael_pm_test::compile(recs, 100, "image test"); }

Image save(vael_pm_handle *pm) {
    unsigned char *buf = nullptr;
    uint32_t size = 0;
    EXPECT_EQ(vael_pm_serialize(pm, &buf, &size), 0);
    Image image(buf, buf + size);
    if (buf)
        vael_pmglob_memory_kfree_ex_(buf, size, __func__, __FILE__, __LINE__);
    return image;
}

vael_pm_handle *load(const Image &image) {
    return vael_pm_deserialize(image.data(), (uint32_t)image.size(), collect, "image test load");
}

// Texts made of pieces that each kind of PM below finds, or nearly finds.
std::vector<std::string> texts() {
    const std::vector<std::string> pieces = {"GET /", "HOST:", "host:", "password", "abc123de", "abcde", "user=ab;",
                                             "cmd.exe", "axab", "k=1 ", "k=9 ", " free ", "money", "Free Money",
                                             " ", "\n", "a", "1", "\xff", std::string("\0", 1)};
#if defined(__SANITIZE_ADDRESS__)
    const int n = 25;
#else
    const int n = 60;
#endif
    std::mt19937 rng(11);
    std::vector<std::string> out(n);
    for (std::string &t : out)
        for (int k = rng() % 24; k > 0; k--)
            t += pieces[rng() % pieces.size()];
    return out;
}

struct RoundTrip { const char *name; std::vector<Rec> recs; };

// One row per kind of PM.
const std::vector<RoundTrip> kRoundTrips = {
    {"strings", {{'s', "GET /"}, {'s', "password"}, {'s', "abc"}, {'s', "a"}}},
    {"caseless", {{'s', "host:", VAEL_PM_CASELESS}, {'s', "PassWord", VAEL_PM_CASELESS}}},
    {"regex by PCRE", {{'p', "abc[0-9]+de"}, {'p', "user=[a-z]{2,5};"}, {'p', "(cmd|exec)\\.exe"}}},
    {"regex by REM", {{'r', "abc[0-9]+de"}, {'r', "user=[a-z]{2,5};"}, {'r', "x[^y]*yz"}}},
    {"keyword rules",
     {{'k', R"(data: "a", relative; data: "b", relative, depth 1;)", 0, "ax"},
      {'k', R"(data: "k="; test: 1, =, 0x39, 0, relative;)", 0, "k="}}},
    {"words", {{'w', "free money"}, {'w', "password"}}},
    {"mixed",
     {{'s', "GET /"}, {'s', "host:", VAEL_PM_CASELESS}, {'p', "x[^y]*yz", VAEL_PM_CASELESS},
      {'p', "abc[0-9]+de"}, {'r', "(cmd|exec)\\.exe"}, {'w', "money"},
      {'k', R"(data: "k="; test: 1, =, 0x39, 0, relative;)", 0, "k="}}},
};

TEST(PmImage, LoadedAndDuplicatedPmsScanLikeTheOriginal) {
    const auto all = texts();
    vael_test::ScopedGlobal sanity(vael_pm_serialize_during_sanity_check, 0);
    for (const RoundTrip &row : kRoundTrips) {
        SCOPED_TRACE(row.name);
        vael_pm_handle *pm = compile(row.recs);
        ASSERT_NE(pm, nullptr);
        std::vector<Hits> want;
        for (const std::string &t : all)
            for (uint32_t flags : {0u, VAEL_PM_EXEC_ALL_MATCHES})
                want.push_back(run(pm, t, flags));
        const Image image = save(pm);
        ASSERT_FALSE(image.empty());
        vael_pm_serialize_during_sanity_check = 1;
        const Image sane = save(pm);
        vael_pm_serialize_during_sanity_check = 0;
        const vael_pm_handle before = *pm;
        // The copy is a PM of its own, with its own handles and texts.
        vael_pm_handle *copy = vael_pm_duplicate(pm, "the copy");
        ASSERT_NE(copy, nullptr);
        EXPECT_NE(std::memcmp(copy->uuid, pm->uuid, 16), 0) << "a copy is a PM of its own";
        // The original goes first: while it lives, a load of its image is it.
        vael_pm_destroy(pm);
        vael_pm_handle *loaded = load(image);
        ASSERT_NE(loaded, nullptr);
        EXPECT_EQ(std::memcmp(loaded->uuid, before.uuid, 16), 0);
        EXPECT_EQ(loaded->stats.compile_time, before.stats.compile_time);  // the sane image leaves times out
        size_t k = 0;
        for (const std::string &t : all)
            for (uint32_t flags : {0u, VAEL_PM_EXEC_ALL_MATCHES}) {
                ASSERT_EQ(run(loaded, t, flags), want[k]) << t;
                ASSERT_EQ(run(copy, t, flags), want[k++]) << "copy: " << t;
            }
        // The loaded PM writes the image it came from, but for its times.
        vael_pm_serialize_during_sanity_check = 1;
        EXPECT_EQ(save(loaded), sane);
        vael_pm_serialize_during_sanity_check = 0;
        vael_pm_destroy(loaded);
        vael_pm_destroy(copy);
    }
}

// A hit is counted from 0 after a load; a second load of a loaded image is
// the same PM, holding one more reference and taking the new callback.
TEST(PmImage, SameImageIsOnePm) {
    vael_pm_handle *pm = compile(kRoundTrips[0].recs);
    ASSERT_NE(pm, nullptr);
    run(pm, "GET / password", 0);
    const Image image = save(pm);
    vael_pm_destroy(pm);  // the uuid is free again: the next load builds
    vael_pm_handle *a = load(image);
    ASSERT_NE(a, nullptr);
    for (uint32_t i = 0; i < a->num_tier2; i++)
        EXPECT_EQ(a->pm_array[i].tier1_matches + a->pm_array[i].matches, 0u);
    const intptr_t pm_before = vael_pmglob_memory_get_alloc_total();
    vael_pm_handle *b = vael_pm_deserialize(image.data(), (uint32_t)image.size(), nullptr, "second holder");
    EXPECT_EQ(b, a);
    EXPECT_EQ(a->refcount, 2u);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_before);
    EXPECT_EQ(a->match_cb[vael_multik_this_instance_num], nullptr);
    vael_pm_destroy(b);
    EXPECT_EQ(a->magic, VAEL_PM_MAGIC_ALIVE);
    EXPECT_EQ(a->refcount, 1u);
    vael_pm_destroy(a);
}

// Every cut and every single-byte change of a small image: refused, or a PM that validates and scans; the accounts
// end where they started.
TEST(PmImage, CutsAndFlipsAreSafe) {
    LogCapture quiet;
    // One full state (the root) is enough of that kind; the image stays small,
    // and every byte of it is cut at and flipped.
    vael_test::ScopedGlobal one_full_tier(vael_thin_nfa_full_tiers_num, 1);
    vael_pm_handle *pm = compile({{'s', "he"},
                                  {'k', R"(data: "s"; data: "h", relative, depth 1;)", 0, "sh"},
                                  {'p', "s[eh]l+s"}});
    ASSERT_NE(pm, nullptr);
    Image image = save(pm);
    vael_pm_destroy(pm);
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
    // The word matcher's fold buffer is shared and kept at its largest; a
    // phrase of a load is never longer than the image.
    ASSERT_EQ(vael_wm_validate_phrase_temp_buffer((uint32_t)image.size()), 0);
    lst_pool_drain(&vael_pmglob_match_data_lst_elems_pool);  // cells kept by earlier runs
    auto kmem = [] { return qx_kmem_get_alloc_total(); };
    const intptr_t kmem_start = kmem();
    for (size_t cut = 0; cut < image.size(); cut++) {
        // A copy of exactly the cut size, so that ASan sees a read past it.
        Image part(image.begin(), image.begin() + (long)cut);
        EXPECT_EQ(vael_pm_deserialize(part.empty() ? nullptr : part.data(), (uint32_t)cut, collect, "cut"), nullptr)
            << cut;
    }
    // The stored PCRE program: PCRE's magic word, its size in front.
    const uint32_t pcre_magic = 0x50435245u;
    const auto program = std::search(image.begin(), image.end(), reinterpret_cast<const unsigned char *>(&pcre_magic),
                                     reinterpret_cast<const unsigned char *>(&pcre_magic) + 4);
    ASSERT_NE(program, image.end());
    uint32_t program_size;
    std::memcpy(&program_size, &*(program - 4), 4);
    const size_t program_at = (size_t)(program - image.begin());
    int loaded = 0;
    const std::string text = "she sells his hers shi he";
    for (size_t at = 0; at < image.size(); at++) {
        for (unsigned char x : {0x01, 0xff}) {
            Image bad = image;
            bad[at] ^= x;
            vael_pm_handle *p = load(bad);
            if (!p)
                continue;
            EXPECT_FALSE(at >= program_at && at < program_at + program_size) << "a changed PCRE program loads: " << at;
            loaded++;
            EXPECT_EQ(vael_pm_validate(p), 0);
            // A run may refuse what the rule now says (-1); it must not fault.
            Hits hits;
            for (uint32_t flags : {0u, VAEL_PM_EXEC_ALL_MATCHES})
                vael_pm_exec_ex(p, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(),
                                nullptr, nullptr, &hits, flags);
            vael_pm_destroy(p);
        }
    }
    EXPECT_GT(loaded, 0);  // flips in ids and statistics load
    lst_pool_drain(&vael_pmglob_match_data_lst_elems_pool);
    EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
    EXPECT_EQ(kmem(), kmem_start);
}

// Refusals by the field at fault: the line in the log and no PM.
TEST(PmImage, BrokenFieldsAreRefusedWithTheirText) {
    vael_pm_handle *pm = compile({{'s', "abc"}, {'p', "de[0-9]f"}});
    ASSERT_NE(pm, nullptr);
    const Image good = save(pm);
    vael_pm_destroy(pm);
    const uint32_t rec0 = 32;  // the first record follows the header
    const uint32_t end = (uint32_t)good.size();
    // A row writes `value` at `at`; UINT32_MAX appends it instead.
    const struct { const char *name; uint32_t at, value; const char *text; } cases[] = {
        {"image magic", 0, 0x12345678u, "Wrong serialization magic (12345678)"},
        {"PM magic", 20, 0x706d6665u, "Wrong PM magic (706d6665) at the buffer"},
        {"count absurd", 28, 0x7fffffffu, "No space left in the buffer after vael_ex_tier2_deserialize"},
        {"count zero", 28, 0, "Number of patterns (num_tier2) in the buffer is 0 (illegal)"},
        {"record magic", rec0, 0x53525A44u, "Wrong serialization magic (53525a44) at the buffer"},
        {"LSS size zero", rec0 + 12, 0, "Illegal LSS size in the buffer"},
        {"LSS size absurd", rec0 + 12, 0xfffffff0u, "Wrong serialization magic (0) at the buffer"},
        {"statistics magic", end - 32, 0x53525A4Eu, "Wrong serialization magic (53525a4e) at the buffer (2)"},
        {"extra bytes", UINT32_MAX, 0, "wrong serialization buffer size, left 4 bytes"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        Image bad = good;
        if (c.at == UINT32_MAX)
            bad.insert(bad.end(), 4, 0);
        else
            std::memcpy(bad.data() + c.at, &c.value, 4);
        LogCapture log;
        vael_test::ScopedTopic topic("K_PM", VAEL_DBG_INFO);
        EXPECT_EQ(load(bad), nullptr);
        EXPECT_TRUE(log.contains(c.text)) << log.text();
    }
}

// The run indexes patterns by what the first tier reports unchecked: an image whose first tier names an id past the
// pattern count is refused at load, the last id is not, under either string engine.
TEST(PmImage, FirstTierIdsAreCheckedOnceAtLoad) {
    // The id written over the one "abc" reports, and the refusal (null: the image loads).
    const struct { const char *name; uint32_t id; const char *text; } cases[] = {
        {"the last pattern", 1, nullptr},
        {"one past the count", 2, "First tier reports pattern id 2, but the PM has 2 patterns\n"},
        {"the largest id", UINT32_MAX, "First tier reports pattern id 4294967294, but the PM has 2 patterns\n"},
    };
    // Rewrites every record of internal id 0 in the engine's states.
    auto rewrite_thin = [](void *h, uint32_t id) {
        auto *nfa = static_cast<vael_thin_nfa *>(h);
        for (uint32_t state = 0; state < nfa->state_num; state++)
            for (vael_thin_nfa_pattern_id *p = nfa->pattern_ids[state]; p; p = p->next)
                if (p->id == 0)
                    p->id = id;
    };
    auto rewrite_sm = [](void *h, uint32_t id) {
        auto *dfa = static_cast<vael_dfa *>(h);
        for (uint32_t state = 0; state < dfa->current_state_id; state++)
            for (vael_dfa_pattern_id *p = vael_dfa_state_get_by_id(dfa, state)->patterns; p; p = p->next)
                if (p->pattern_id == 0)
                    p->pattern_id = (int32_t)id;
    };
    const struct { int thin; void (*rewrite)(void *, uint32_t); } engines[] = {{1, rewrite_thin}, {0, rewrite_sm}};
    const int saved = vael_pm_tier1_use_thin_nfa;
    for (const auto &engine : engines) {
        vael_apps_fini();
        vael_pm_tier1_use_thin_nfa = engine.thin;
        ASSERT_EQ(vael_apps_init(nullptr), 0);
        for (const auto &c : cases) {
            SCOPED_TRACE(std::string(c.name) + (engine.thin ? ", Thin NFA" : ", SM"));
            vael_pm_handle *pm = compile({{'s', "abc"}, {'s', "de"}});
            ASSERT_NE(pm, nullptr);
            ASSERT_EQ(pm->tier1[0].tier1_type, (uint32_t)VAEL_PM_TIER1_STRING);
            engine.rewrite(pm->tier1[0].tier1_h, c.id);
            const Image image = save(pm);
            vael_pm_destroy(pm);
            const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();
            LogCapture log;
            vael_test::ScopedTopic pm_topic("K_PM", VAEL_DBG_ERR);
            vael_test::ScopedTopic thin_topic("K_THINNFA", VAEL_DBG_NOTICE);
            vael_pm_handle *loaded = load(image);
            EXPECT_EQ(loaded == nullptr, c.text != nullptr);
            if (c.text) {
                EXPECT_TRUE(log.contains(std::string("vael_tier1_deserialize: ") + c.text)) << log.text();
            }
            const size_t proof = log.text().find("validation succeeded");
            if (engine.thin) {
                EXPECT_NE(proof, std::string::npos) << log.text();
                EXPECT_EQ(log.text().find("validation succeeded", proof + 1), std::string::npos) << "proven once";
            }
            if (loaded) {
                // "abc" now reports the second pattern, whose user id is 101.
                EXPECT_EQ(run(loaded, "xabcx", 0), (Hits{{101, 3}}));
                vael_pm_destroy(loaded);
            }
            EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_start);
        }
    }
    vael_apps_fini();
    vael_pm_tier1_use_thin_nfa = saved;
    ASSERT_EQ(vael_apps_init(nullptr), 0);
}

// Every allocation of the writer, the reader and the duplicate fails once.
TEST(PmImage, FailInjectionWalks) {
    std::vector<Rec> recs = kRoundTrips.back().recs;
    recs.push_back({'s', "a long string, " + std::string(200, 'x')});
    vael_pm_handle *pm = compile(recs);
    ASSERT_NE(pm, nullptr);
    unsigned char *buf = nullptr;
    uint32_t size = 0;
    auto w = vael_test::failmem_walk_each_allocation([&] { return vael_pm_serialize(pm, &buf, &size) == 0; },
                                                     [&] { return buf == nullptr && size == 0; });
    EXPECT_GE(w.rounds, 2);
    const Image image(buf, buf + size);
    vael_pmglob_memory_kfree_ex_(buf, size, __func__, __FILE__, __LINE__);
    const std::string text = "GET / k=9 abc12de";
    const Hits want = run(pm, text, 0);
    EXPECT_EQ(want.size(), 3u);

    vael_pm_handle *copy = nullptr;
    w = vael_test::failmem_walk_each_allocation([&] { return (copy = vael_pm_duplicate(pm, "walk")) != nullptr; },
                                                [&] { return copy == nullptr; });
    EXPECT_GT(w.rounds, 10);
    EXPECT_EQ(run(copy, text, 0), want);
    vael_pm_destroy(copy);
    vael_pm_destroy(pm);

    vael_pm_handle *loaded = nullptr;
    w = vael_test::failmem_walk_each_allocation([&] { return (loaded = load(image)) != nullptr; },
                                                [&] { return loaded == nullptr; });
    EXPECT_GT(w.rounds, 10);
    EXPECT_EQ(run(loaded, text, 0), want);
    vael_pm_destroy(loaded);
}

// The vbuf reader takes an image split in blocks of any size.
TEST(PmImage, LoadsFromVbuf) {
    vael_pm_handle *pm = compile(kRoundTrips.back().recs);
    ASSERT_NE(pm, nullptr);
    Image image = save(pm);
    const Hits want = run(pm, "GET / k=9 xAyz money", VAEL_PM_EXEC_ALL_MATCHES);
    vael_pm_destroy(pm);
    for (uint32_t block : {1u, 3u, 64u, 100000u}) {
        SCOPED_TRACE(block);
        vael_vbuf *vbuf = vael_vbuf_create(UINT32_MAX, 0);
        for (size_t at = 0; at < image.size(); at += block)
            vael_vbuf_add_buffer_ex(vbuf, image.data() + at, (uint32_t)std::min<size_t>(block, image.size() - at),
                                    nullptr, nullptr);
        vael_pm_handle *p = vael_pm_deserialize_vbuf(vbuf, (uint32_t)image.size(), collect, "vbuf");
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(run(p, "GET / k=9 xAyz money", VAEL_PM_EXEC_ALL_MATCHES), want);
        vael_pm_destroy(p);
        LogCapture quiet;
        EXPECT_EQ(vael_pm_deserialize_vbuf(vbuf, (uint32_t)image.size() - 1, collect, "vbuf cut"), nullptr);
        vael_vbuf_destroy(vbuf);
    }
}

}  // namespace
