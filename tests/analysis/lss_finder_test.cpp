// The LSS finder: a table of expressions with the strings and anchors found,
// the candidate order of the single pass, the trim, the anchor flags, the
// alternation text, and allocation failures.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "analysis/vael_pm_lss_finder.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"

namespace {

struct LssDeleter {
    void operator()(vael_pm_lss *l) const { vael_pm_lss_destroy(l); }
};
using Lss = std::unique_ptr<vael_pm_lss, LssDeleter>;

const unsigned char *bytes(const std::string &s) { return reinterpret_cast<const unsigned char *>(s.data()); }
const unsigned char *bytes(const char *s) { return reinterpret_cast<const unsigned char *>(s); }

std::vector<std::string> strings_of(const vael_pm_lss *lss) {
    std::vector<std::string> out;
    if (!lss)
        return out;
    for (uintptr_t v : vael_test::list_values(vael_pm_lss_get_candidates_list(lss))) {
        const auto *c = reinterpret_cast<const vael_pm_lss_candidate *>(v);
        out.emplace_back(reinterpret_cast<const char *>(c->str), c->len);
    }
    return out;
}

using Strings = std::vector<std::string>;

enum Kind { kMulti, kRegular, kNone, kRefused };

TEST(LssFinder, ExpressionsAndWhatTheyMustContain) {
    struct Row {
        const char *pattern;
        uint32_t flags;
        Kind kind;
        Strings strings;  // or the refusal's text
        uint32_t anchors;
        bool digitless_mark;
    };
    const uint32_t dl = VAEL_PM_DIGITLESS, ci = VAEL_PM_CASELESS;
    const Row rows[] = {
        {"abc", 0, kMulti, {"abc"}, 0, false}, {"abc|def", 0, kMulti, {"abc", "def"}, 0, false},
        {"ab{3}c", 0, kMulti, {"abbbc"}, 0, false}, {"a\\.b\\x41", 0, kMulti, {"a.bA"}, 0, false},
        {"^abc$", 0, kMulti, {"abc"}, 0xC0000, false}, {"abc\\$", 0, kMulti, {"abc$"}, 0, false},
        {"ABC|Def", ci, kMulti, {"abc", "def"}, 0, false},
        {"ab7", dl, kMulti, {"ab0"}, 0, true},  // 7 alone is not all ten digits
        {"ab[0-9]", dl, kMulti, {"ab0"}, 0, false}, {"(abc|def)x", 0, kRegular, {"x"}, 0, false},
        {"xabcy.|zabcw", 0, kRegular, {"abc"}, 0, false}, {"ab{2,3}c", 0, kRegular, {"bbc"}, 0, false},
        {"ab*cd", 0, kRegular, {"cd"}, 0, false}, {"a+", 0, kRegular, {"a"}, 0, false},
        {"(ab)+c", 0, kRegular, {"abc"}, 0, false}, {"a(b|c)d", 0, kRegular, {"a"}, 0, false},
        {"\\d+abc[xy]", 0, kRegular, {"abc"}, 0, false},
        // Of equal lengths the string most recently joined at the right end wins.
        {"(foo|xfoox)bar", 0, kRegular, {"bar"}, 0, false}, {"(xfoo|foo)bar", 0, kRegular, {"foobar"}, 0, false},
        {"^.*abc", 0, kRegular, {"abc"}, 0x80000, false}, {"abc.$", 0, kRegular, {"abc"}, 0x40000, false},
        {"\\bword", 0, kRegular, {"word"}, 0, false},  // an escaped letter is no candidate
        {"abc|xyz.", 0, kNone, {}, 0, false}, {"a{0,3}", 0, kNone, {}, 0, false}, {"", 0, kNone, {}, 0, false},
        {"a||b", 0, kRefused, {"Not enough operands for the operator"}, 0, false},
        {"a{x", 0, kRefused, {"Illegal sequence beginning with '{': '{' must be followed by a digit"}, 0, false},
        {"(ab", 0, kRefused, {"Missing a closing ')'"}, 0, false},
    };
    vael_test::LogCapture quiet;
    for (const Row &row : rows) {
        SCOPED_TRACE(std::string("pattern '") + row.pattern + "'");
        vael_pm_error err;
        vael_pm_error_init(&err);
        uint32_t anchors = 0xdead;
        Lss lss(vael_pm_lss_find(bytes(row.pattern), (uint32_t)std::strlen(row.pattern), row.flags, &err, &anchors));
        switch (row.kind) {
        case kMulti:
        case kRegular:
            ASSERT_NE(lss, nullptr);
            EXPECT_EQ(vael_pm_lss_can_be_used_instead_of_RE(lss.get()) != 0, row.kind == kMulti);
            EXPECT_EQ(strings_of(lss.get()), row.strings);
            EXPECT_EQ(anchors, row.anchors);
            EXPECT_EQ(vael_pm_lss_digitless_is_need_second_tier(lss.get()) != 0, row.digitless_mark);
            break;
        case kNone:
            EXPECT_EQ(lss, nullptr);
            EXPECT_EQ(err.error_string, nullptr);
            break;
        case kRefused:
            EXPECT_EQ(lss, nullptr);
            EXPECT_STREQ(err.error_string, row.strings[0].c_str());
            break;
        }
    }
}

// A repeat is unrolled up to its bound; a long literal is joined up to the
// bound, then goes on as a new string, and multi mode, needing the whole
// string, gives up.
TEST(LssFinder, RepeatsAndJoinsAreBounded) {
    const std::string literal(5000, 'x');
    const struct {
        std::string pattern;
        uint32_t len;
        const char *head;
    } rows[] = {{"x(ab){4000000000}", VAEL_PM_LSS_MAX_REPEAT_BYTES + 1, "xabab"},
                {literal, VAEL_PM_LSS_MAX_JOIN_BYTES, "xxxxx"}};
    vael_test::LogCapture quiet;
    for (const auto &row : rows) {
        Lss lss(vael_pm_lss_find(bytes(row.pattern), (uint32_t)row.pattern.size(), 0, nullptr, nullptr));
        ASSERT_NE(lss, nullptr);
        EXPECT_FALSE(vael_pm_lss_can_be_used_instead_of_RE(lss.get()));
        EXPECT_EQ(lss->longest_can->len, row.len);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(lss->longest_can->str), 5), row.head);
    }
}

// An alternation of two strings keeps what both contain: its longest string
// is their longest common substring, found here by brute force.
TEST(LssFinder, AlternationKeepsTheLongestCommonSubstring) {
    std::mt19937 rng(47);
    for (int round = 0; round < 2000; round++) {
        std::string a(1 + rng() % 30, 'a'), b(1 + rng() % 30, 'a');
        for (char &c : a)
            c = "abc"[rng() % 3];
        for (char &c : b)
            c = "abc"[rng() % 3];
        size_t best = 0;
        for (size_t i = 0; i < a.size(); i++)
            for (size_t len = best + 1; i + len <= a.size(); len++)
                if (b.find(a.substr(i, len)) != std::string::npos)
                    best = len;
        const std::string re = a + "|" + b;
        Lss lss(vael_pm_lss_find_single(bytes(re), (uint32_t)re.size(), 0, nullptr));
        ASSERT_NE(lss, nullptr) << re;
        if (best == 0) {
            EXPECT_EQ(lss->longest_can, nullptr) << re;
            continue;
        }
        ASSERT_NE(lss->longest_can, nullptr) << re;
        const std::string found(reinterpret_cast<char *>(lss->longest_can->str), lss->longest_can->len);
        EXPECT_EQ(found.size(), best) << re;
        EXPECT_NE(a.find(found), std::string::npos) << re;
        EXPECT_NE(b.find(found), std::string::npos) << re;
    }
    // Long alternatives cost no cubic search.
    std::string a(600, 'a'), b(600, 'a');
    for (char &c : a)
        c = "abcdefgh"[rng() % 8];
    for (char &c : b)
        c = "abcdefgh"[rng() % 8];
    const std::string re = "(" + a + "|" + b + ").";
    Lss lss(vael_pm_lss_find_single(bytes(re), (uint32_t)re.size(), 0, nullptr));
    ASSERT_NE(lss, nullptr);
}

// The whole single-pass result where more than the longest is kept: the
// candidates in their order.
TEST(LssFinder, SinglePassCandidatesInOrder) {
    const std::pair<const char *, Strings> rows[] = {
        {"ab{2,3}c", {"bbc", "abb"}}, {"ab*cd", {"cd", "a"}},
        {"abab|ab", {"ab", "ab"}},  // a start and an end: neither covers the other
    };
    for (const auto &[pattern, candidates] : rows) {
        Lss lss(vael_pm_lss_find_single(bytes(pattern), (uint32_t)std::strlen(pattern), 0, nullptr));
        ASSERT_NE(lss, nullptr) << pattern;
        EXPECT_EQ(strings_of(lss.get()), candidates) << pattern;
    }
}

TEST(LssFinder, Trim) {
    struct Row { const char *pattern; uint32_t flags; int result; const char *trimmed; uint32_t anchors; };
    const Row rows[] = {
        {"^abc", 0, 0, "abc", 0x80000},
        {"^.*abc", 0, 0, ".*abc", 0x80000},  // no leading .* after ^
        {".*abc", 0, 0, "abc", 0}, {"abc$", 0, 0, "abc", 0x40000},
        {"abc.*$", 0, 0, "abc.*", 0x40000},  // no trailing .* before $
        {"abc\\$", 0, 0, "abc\\$", 0},
        {"abc\\\\$", 0, 0, "abc\\\\$", 0},  // only the one byte before is looked at
        {".*", 0, 0, "", 0}, {"$", 0, 0, "", 0x40000}, {"^abc$", VAEL_PM_LSS_KEEP_ANCHORS, 0, "^abc$", 0},
        {"^", 0, -1, "", 0},
    };
    vael_test::LogCapture quiet;
    for (const Row &row : rows) {
        const unsigned char *p = bytes(row.pattern);
        uint32_t len = (uint32_t)std::strlen(row.pattern), anchors = 0;
        int rc = vael_pm_lss_trim_patttern(&p, &len, &anchors, row.flags);
        EXPECT_EQ(rc, row.result) << row.pattern;
        if (rc == 0) {
            EXPECT_EQ(std::string(reinterpret_cast<const char *>(p), len), row.trimmed) << row.pattern;
            EXPECT_EQ(anchors, row.anchors) << row.pattern;
        }
    }
}

Lss one_string(const std::string &s) {
    Lss lss(vael_pm_lss_create("test"));
    vael_pm_lss_candidate *c = vael_pm_lss_candidate_create_simple(bytes(s), (uint32_t)s.size());
    EXPECT_EQ(vael_pm_lss_add_candidate(lss.get(), &c), 0);
    EXPECT_EQ(c, nullptr);
    return lss;
}

TEST(LssFinder, AnchorFlags) {
    struct Row { const char *with, *plain; int result; uint32_t anchors; };
    const Row rows[] = {
        {"^abc", "abc", 0, 0x80000},  {"abc$", "abc", 0, 0x40000},  {"^abc$", "abc", 0, 0xC0000},
        {"^ab$", "ab$", 0, 0x80000},  {"^ab$$", "ab$", 0, 0},       {"xabc", "abc", 0, 0},
        {"abcd", "abc", 0, 0},        {"^xyz", "abc", 0, 0},        {"abc", "abc", 0, 0},
        {"", "abc", -1, 0},           {"abc", "", -1, 0},
    };
    for (const Row &row : rows) {
        Lss with = one_string(row.with), plain = one_string(row.plain);
        uint32_t anchors = 0xdead;
        EXPECT_EQ(vael_pm_lss_get_anchor_flags(with.get(), plain.get(), &anchors), row.result) << row.with;
        if (row.result == 0) {
            EXPECT_EQ(anchors, row.anchors) << row.with << " / " << row.plain;
        }
    }
}

TEST(LssFinder, AlternationText) {
    Lss lss(vael_pm_lss_create("test"));
    for (const char *s : {"abc", "de"}) {
        vael_pm_lss_candidate *c = vael_pm_lss_candidate_create_simple(bytes(s), (uint32_t)std::strlen(s));
        ASSERT_EQ(vael_pm_lss_add_candidate(lss.get(), &c), 0);
    }
    struct Row { uint32_t flags; const char *text; };
    for (const Row &row : {Row{0, "abc|de"}, Row{0x80000, "^abc|de"}, Row{0x40000, "abc|de$"},
                           Row{0xC0000, "^abc|de$"}}) {
        uint32_t len = 0;
        unsigned char *text = vael_pm_lss_create_str(lss.get(), row.flags, 5, &len);
        ASSERT_NE(text, nullptr);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(text), len), row.text);
        qx_kfree_(text, len);
    }
}

TEST(LssFinder, AllocationFailuresEndInNoResult) {
    struct Case { const char *pattern; Strings expected; };
    const Case cases[] = {
        {"abc|def", {"abc", "def"}}, {"(abc|def)x", {"x"}}, {"xabcy.|zabcw", {"abc"}}, {"ab{2,3}c", {"bbc"}},
        {"(ab)+c[0-9]*d{3}", {"abc"}},
    };
    vael_test::LogCapture quiet;
    for (const Case &c : cases) {
        Lss found;
        vael_pm_error err;
        auto attempt = [&] {
            vael_pm_error_init(&err);
            found.reset(vael_pm_lss_find(bytes(c.pattern), (uint32_t)std::strlen(c.pattern), 0, &err, nullptr));
            return found != nullptr;
        };
        auto clean = [&] { return found == nullptr; };
        vael_test::FailmemWalk w = vael_test::failmem_walk_each_allocation(attempt, clean);
        EXPECT_GT(w.rounds, 10) << c.pattern;
        EXPECT_EQ(strings_of(found.get()), c.expected) << c.pattern;
    }
}

}  // namespace
