// Keyword rules through the PM: a first-tier hit on the rule's LSS starts
// the rule over the whole data; the flat buffer of a run with history; no
// history; refusals carry the user's id.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "keywords/vael_kw_mgr.h"
#include "tests/keywords/kw_fake.h"
#include "tests/support/vael_test_support.h"

namespace {

using vael_test::Hit;
using vael_test::LogCapture;

struct Seen {
    std::vector<Hit> hits;
    int answer = 0;
};

int on_match(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset, vael_vbuf *,
             int *) {
    auto *seen = static_cast<Seen *>(arg);
    seen->hits.push_back(Hit{id, offset});
    return seen->answer;
}

struct Rules {
    std::string lss;
    std::string rule;
    int32_t id;
    bool no_history;
};

vael_pm_handle *compile(const std::vector<Rules> &rules, vael_pm_error *err) {
    vael_pm_patterns *list = vael_pm_patterns_create();
    for (const auto &r : rules) {
        const int rc = r.no_history ? vael_pm_patterns_add_pattern_kw_nohistory(list, r.lss.data(),
                                                                                (uint32_t)r.lss.size(),
                                                                                r.rule.c_str(), r.id)
                                    : vael_pm_patterns_add_pattern_kw(list, r.lss.data(), (uint32_t)r.lss.size(),
                                                                      r.rule.c_str(), r.id);
        EXPECT_EQ(rc, 0);
    }
    LogCapture quiet;
    vael_pm_handle *pm = vael_pm_compile(list, on_match, 0, err, "kw test");
    vael_pm_patterns_destroy(list);
    return pm;
}

std::vector<Hit> run(vael_pm_handle *pm, const std::string &history, const std::string &present, int *rc = nullptr,
                     int answer = 0) {
    Seen seen;
    seen.answer = answer;
    vael_vbuf *vbuf = nullptr;
    if (!history.empty()) {
        vbuf = vael_vbuf_create(1u << 20, 0);
        EXPECT_EQ(vael_vbuf_add_buffer_ex(vbuf, const_cast<char *>(history.data()), (uint32_t)history.size(), nullptr,
                                          nullptr),
                  0);
    }
    LogCapture quiet;
    const int result = vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(present.data()),
                                       (uint32_t)present.size(), vbuf, nullptr, &seen, 0);
    if (rc)
        *rc = result;
    else
        EXPECT_EQ(result, 0);
    vael_vbuf_destroy(vbuf);
    return seen.hits;
}

TEST(KwPm, RulesEndToEnd) {
    kw_fake::Install fakes;
    vael_pm_error err;
    vael_pm_handle *pm = compile({{"ab", R"(data: "ab", relative; data: "cd", relative, depth 2;)", 7, false},
                                  {"ab", R"(data: "ab"; data: "cd", relative, depth 2;)", 8, true},
                                  {"zz", R"(data: "x";)", 9, false}},
                                 &err);
    ASSERT_NE(pm, nullptr) << (err.error_string ? err.error_string : "");
    struct Case {
        std::string history, present;
        std::vector<Hit> hits;
    };
    const Case cases[] = {
        // The rule runs over the whole data at the LSS's hit and goes back.
        {"", "abxxabcd", {{7, 7}, {8, 7}}},
        // A hit whose rule fails reports nothing.
        {"", "abxxab", {}},
        // No hit of the LSS, no run of the rule, though the rule would match.
        {"", "xx", {}},
        // With history the rule sees one flat buffer, in the run's numbering;
        // the rule without history sees the present buffer alone, and
        // counts in it.
        {"xxab", "cd", {{7, 5}}},
        {"xxab", "abcd", {{7, 7}, {8, 3}}},
    };
    for (const auto &c : cases)
        EXPECT_EQ(run(pm, c.history, c.present), c.hits) << c.history << "|" << c.present;

    // A callback's answer ends the run and is its result.
    int rc = 0;
    EXPECT_EQ(run(pm, "", "abcd", &rc, 5).size(), 1u);
    EXPECT_EQ(rc, 5);
    vael_pm_destroy(pm);
}

TEST(KwPm, RefusedRuleNamesTheUsersId) {
    kw_fake::Install fakes;
    struct Case {
        std::string rule;
        const char *text;
    };
    const Case cases[] = {
        {R"(data: "ab"; pcre: "/a/";)", "Rule contains a keyword that is not in this build"},
        {R"(data: "ab")", "Keyword rule given by the user is illegal"},
        {R"(data: refuse;)", kw_fake::kFakeRefused},
    };
    for (const auto &c : cases) {
        const intptr_t before = vael_pmglob_memory_get_alloc_total();
        vael_pm_error err;
        vael_pm_handle *pm = compile({{"zz", R"(data: "zz";)", 1, false}, {"ab", c.rule, 42, false}}, &err);
        EXPECT_EQ(pm, nullptr) << c.rule;
        EXPECT_EQ(err.pattern_id, 42) << c.rule;
        ASSERT_NE(err.error_string, nullptr) << c.rule;
        EXPECT_STREQ(err.error_string, c.text) << c.rule;
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), before) << c.rule;
    }
}

}  // namespace
