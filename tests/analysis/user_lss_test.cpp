// A user's LSS: random texts against the strings they were built from, refusals, allocation failures.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "analysis/vael_pm_special_chars.h"
#include "pm/vael_pm_internal.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"

namespace {

using Strings = std::vector<std::string>;

struct Read { bool ok = false; Strings strings; uint32_t anchors = 0; bool mark = false; };

Read read_lss(const std::string &text, bool literal, bool digitless, uint32_t string_flags = 0) {
    Read r;
    vael_pmglob_string *s = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(text.data()),
                                                      (uint32_t)text.size(), 1, string_flags);
    vael_test::LogCapture quiet;
    vael_pm_lss *lss = vael_pm_special_chars_create_normalized_lss(s, literal, digitless, &r.anchors);
    vael_pmglob_string_destroy(s);
    if (!lss)
        return r;
    r.ok = true;
    r.mark = vael_pm_lss_digitless_is_need_second_tier(lss) != 0;
    for (uintptr_t v : vael_test::list_values(vael_pm_lss_get_candidates_list(lss))) {
        const auto *c = reinterpret_cast<const vael_pm_lss_candidate *>(v);
        EXPECT_EQ(c->flags, 0u) << text;
        r.strings.emplace_back(reinterpret_cast<const char *>(c->str), c->len);
    }
    vael_pm_lss_destroy(lss);
    return r;
}

// Texts built from known strings: alternatives of pieces that are plain
// characters, escaped metacharacters or hex escapes, sometimes in a group of
// their own. Every accepted text gives exactly its strings; a text with one
// forbidden construct spliced in is refused.
TEST(UserLss, RandomTextsGiveExactlyTheirStrings) {
    std::mt19937 rng(2718);
    auto pick = [&](int n) { return (int)(rng() % (uint32_t)n); };
    const char *forbidden[] = {"*", "+", "?", "{2}", "{1,2}", "[ab]", ".", "\\d", "(x|y)"};
    for (int round = 0; round < 1500; round++) {
        std::string text;
        Strings want;
        const int alternatives = 1 + pick(3);
        bool ends_in_group = false;
        for (int a = 0; a < alternatives; a++) {
            std::string piece_text, piece;
            const int len = 1 + pick(5);
            for (int i = 0; i < len; i++) {
                switch (pick(4)) {
                case 0: {
                    const char c = "|.*+?()[]{}\\$^"[pick(14)];
                    piece_text += std::string("\\") + c;
                    piece += c;
                    break;
                }
                case 1: {
                    char hex[8];
                    const int b = 'A' + pick(26);
                    std::snprintf(hex, sizeof hex, "\\x%02x", b);
                    piece_text += hex;
                    piece += (char)b;
                    break;
                }
                default: {
                    const char c = "abcxyz0189-_"[pick(12)];
                    piece_text += c;
                    piece += c;
                }
                }
            }
            // A whole alternative may stand in a group: it is still one string.
            ends_in_group = pick(5) == 0;
            if (ends_in_group)
                piece_text = "(" + piece_text + ")";
            text += (a ? "|" : "") + piece_text;
            want.push_back(piece);
        }
        const Read r = read_lss(text, false, false);
        ASSERT_TRUE(r.ok) << text;
        EXPECT_EQ(r.strings, want) << text;
        EXPECT_EQ(r.anchors, 0u) << text;

        std::string bad = text;
        bad.insert(bad.size() - (ends_in_group ? 1 : 0), forbidden[pick(9)]);
        EXPECT_FALSE(read_lss(bad, false, false).ok) << bad;
    }
}

// The compile takes a pattern's own LSS through the reader: its strings go
// to the first tier, and a refused one fails with the pattern's id.
TEST(UserLss, CompileUsesTheReaderAndNamesARefusal) {
    const struct Row {
        const char *re;
        const char *lss;
        uint32_t flags;
        const char *saved_lss;  // or null for a refusal
    } rows[] = {
        {"a.*b(cd|ef)", "cd|ef", 0, "cd|ef"}, {"GET /[a-z]+", "GET\\x20/", 0, "GET /"}, {"a.*bc", "^a", 0, "^a"},
        {"x.*y\\*", "y\\*", VAEL_PM_LITERAL, "y\\*"}, {"a+bc", "a+b", 0, nullptr}, {"(a|b)c", "(a|b)c", 0, nullptr},
        {"abc", "[ab]", 0, nullptr},
    };
    for (const Row &row : rows) {
        vael_pm_patterns *list = vael_pm_patterns_create();
        ASSERT_EQ(vael_pm_patterns_add_pattern_with_LSS(list, row.lss, (uint32_t)strlen(row.lss), row.re,
                                                        (uint32_t)strlen(row.re), 42, row.flags),
                  0);
        vael_pm_error err;
        vael_pm_error_init(&err);
        vael_test::LogCapture quiet;
        vael_pm_handle *pm = vael_pm_compile(list, nullptr, 0, &err, "user lss");
        if (row.saved_lss) {
            ASSERT_NE(pm, nullptr) << row.lss << ": " << (err.error_string ? err.error_string : "");
            const vael_pm_array_one_handle &e = pm->pm_array[0];
            EXPECT_EQ(std::string((const char *)e.lss_str, e.lss_size), row.saved_lss);
            vael_pm_destroy(pm);
        } else {
            EXPECT_EQ(pm, nullptr) << row.lss;
            EXPECT_STREQ(err.error_string, "LSS given by user is illegal") << row.lss;
            EXPECT_EQ(err.pattern_id, 42) << row.lss;
            EXPECT_EQ(err.error_type, (uint32_t)VAEL_PM_ERROR_ILLEGAL) << row.lss;
        }
        vael_pm_patterns_destroy(list);
    }
}

TEST(UserLss, AllocationFailuresLeaveNothingBehind) {
    for (const char *text : {"ab\\x41|cd|^e", "a|b|c|d"}) {
        vael_pmglob_string *s =
            vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(text), (uint32_t)strlen(text), 1, 0);
        vael_pm_lss *lss = nullptr;
        uint32_t anchors = 0;
        vael_test::LogCapture quiet;
        auto attempt = [&] { return (lss = vael_pm_special_chars_create_normalized_lss(s, 0, 1, &anchors)) != nullptr; };
        auto clean = [&] { return lss == nullptr; };
        vael_test::FailmemWalk w = vael_test::failmem_walk_each_allocation(attempt, clean);
        EXPECT_TRUE(w.succeeded) << text;
        EXPECT_GT(w.rounds, 5) << text;
        vael_pm_lss_destroy(lss);
        vael_pmglob_string_destroy(s);
    }
    // The compile with a user's LSS, through every failure of its own.
    vael_pm_patterns *list = vael_pm_patterns_create();
    ASSERT_EQ(vael_pm_patterns_add_pattern(list, "{LSS(ab|cd)}:x(ab|cd)y", 22, 3, 0), 0);
    vael_pm_handle *pm = nullptr;
    vael_pm_error err;
    vael_test::LogCapture quiet;
    auto attempt = [&] {
        vael_pm_error_init(&err);
        return (pm = vael_pm_compile(list, nullptr, 0, &err, "walk")) != nullptr;
    };
    auto clean = [&] { return pm == nullptr && (err.pattern_id == -1 || err.pattern_id == 3); };
    EXPECT_TRUE(vael_test::failmem_walk(attempt, clean).succeeded);
    vael_pm_destroy(pm);
    vael_pm_patterns_destroy(list);
}

}  // namespace
