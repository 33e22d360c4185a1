// pm_test_util.h - a user's pattern list made from rows, and runs that give
// the hits sorted, for the tests of the pattern matcher's frame.
#ifndef VAEL_TESTS_PM_PM_TEST_UTIL_H
#define VAEL_TESTS_PM_PM_TEST_UTIL_H

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "pm/vael_pm_internal.h"
#include "tests/support/vael_test_support.h"

namespace vael_pm_test {

using Hits = std::vector<std::pair<int32_t, uint32_t>>;

// One record, added through the call its kind needs: 's' a string, 'p' an expression, 'r' an expression for the REM
// machine, 'l' an expression with the LSS given, 'k' a keyword rule behind its LSS, 'w' a word.
struct Rec { char kind; std::string text; uint32_t flags = 0; std::string lss = ""; };

// The records get the ids first_id, first_id + 1, ...
inline vael_pm_patterns *make_list(const std::vector<Rec> &recs, int32_t first_id = 1) {
    vael_pm_patterns *list = vael_pm_patterns_create();
    int32_t id = first_id;
    for (const Rec &r : recs) {
        const auto len = (uint32_t)r.text.size(), lss_len = (uint32_t)r.lss.size();
        const char *t = r.text.c_str();
        const int rc = r.kind == 's'   ? vael_pm_patterns_add_simple_pattern(list, t, len, id, r.flags)
                       : r.kind == 'p' ? vael_pm_patterns_add_pattern(list, t, len, id, r.flags)
                       : r.kind == 'r' ? vael_pm_patterns_add_pattern(list, t, len, id, r.flags | VAEL_PM_USE_REM)
                       : r.kind == 'l' ? vael_pm_patterns_add_pattern_with_LSS(list, r.lss.data(), lss_len, t, len,
                                                                               id, r.flags)
                       : r.kind == 'k' ? vael_pm_patterns_add_pattern_kw(list, r.lss.data(), lss_len, t, id)
                                       : vael_pm_patterns_add_word(list, t, len, id, r.flags);
        EXPECT_EQ(rc, 0) << r.text;
        id++;
    }
    return list;
}

// Plain strings with the ids and flags the rows give.
inline vael_pm_patterns *pattern_list(const std::vector<vael_test::Pattern> &patterns) {
    vael_pm_patterns *list = vael_pm_patterns_create();
    for (const auto &p : patterns)
        EXPECT_EQ(vael_pm_patterns_add_simple_pattern(list, p.text.data(), (uint32_t)p.text.size(), p.id, p.flags), 0);
    return list;
}

inline vael_pm_handle *compile_strings(const std::vector<vael_test::Pattern> &patterns, vael_pm_match_cb cb,
                                       uint32_t flags = 0, vael_pm_error *err = nullptr, const char *name = "test") {
    vael_pm_patterns *list = pattern_list(patterns);
    vael_pm_handle *pm = vael_pm_compile(list, cb, flags, err, name);
    vael_pm_patterns_destroy(list);
    return pm;
}

inline int collect(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset,
                   vael_vbuf *, int *) {
    static_cast<Hits *>(arg)->push_back({id, offset});
    return 0;
}

inline vael_pm_handle *compile(const std::vector<Rec> &recs, int32_t first_id, const char *name,
                               uint32_t compile_flags = 0, vael_pm_match_cb cb = collect) {
    vael_pm_patterns *list = make_list(recs, first_id);
    vael_pm_error err;
    vael_pm_handle *pm = vael_pm_compile(list, cb, compile_flags, &err, name);
    vael_pm_patterns_destroy(list);
    return pm;
}

// The hits of a run with `collect` as the callback, sorted; a run over no bytes is not made.
inline Hits run(vael_pm_handle *pm, const std::string &text, uint32_t flags) {
    Hits hits;
    if (!text.empty()) {
        EXPECT_GE(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(),
                                  nullptr, nullptr, &hits, flags),
                  0);
    }
    std::sort(hits.begin(), hits.end());
    return hits;
}

}  // namespace vael_pm_test

#endif  // VAEL_TESTS_PM_PM_TEST_UTIL_H
