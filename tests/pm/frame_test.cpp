// The frame of the pattern matcher: compile and its errors, what stays in the caller's error record when the frame
// itself fails, run and delivery, the PM's life (refcount, magic, the PM list), masks, memory accounts, and the
// functions the shared library exports.
#include <gtest/gtest.h>
#include <dlfcn.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "tests/pm/pm_test_util.h"
#include "tier1/vael_wm.h"

namespace {

using vael_test::Hit;
using vael_test::LogCapture;
using vael_test::Pattern;
using vael_test::ScopedGlobal;

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

}  // namespace
