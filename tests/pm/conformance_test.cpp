// The frame and the Thin NFA held to their contracts where an easy reading goes wrong: what stays in the caller's
// error record (also for a malformed pattern list), a destroy too many, the exported functions.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/pm/pm_test_util.h"

namespace {

using vael_test::LogCapture;

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
