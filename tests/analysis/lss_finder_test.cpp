// The LSS finder: the strings and anchors found per expression, and allocation failures.
#include <gtest/gtest.h>

#include <cstring>
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
        uint32_t anchors = 0;
        bool digitless_mark = false;
    };
    const uint32_t dl = VAEL_PM_DIGITLESS, ci = VAEL_PM_CASELESS;
    const Row rows[] = {
        {"abc", 0, kMulti, {"abc"}}, {"abc|def", 0, kMulti, {"abc", "def"}}, {"ab{3}c", 0, kMulti, {"abbbc"}},
        {"a\\.b\\x41", 0, kMulti, {"a.bA"}}, {"^abc$", 0, kMulti, {"abc"}, 0xC0000}, {"abc\\$", 0, kMulti, {"abc$"}},
        {"ABC|Def", ci, kMulti, {"abc", "def"}}, {"ab7", dl, kMulti, {"ab0"}, 0, true},  // 7 is not all ten digits
        {"ab[0-9]", dl, kMulti, {"ab0"}}, {"(abc|def)x", 0, kRegular, {"x"}}, {"xabcy.|zabcw", 0, kRegular, {"abc"}},
        {"ab{2,3}c", 0, kRegular, {"bbc"}}, {"ab*cd", 0, kRegular, {"cd"}}, {"a+", 0, kRegular, {"a"}},
        {"(ab)+c", 0, kRegular, {"abc"}}, {"a(b|c)d", 0, kRegular, {"a"}}, {"\\d+abc[xy]", 0, kRegular, {"abc"}},
        // Of equal lengths the string most recently joined at the right end wins.
        {"(foo|xfoox)bar", 0, kRegular, {"bar"}}, {"(xfoo|foo)bar", 0, kRegular, {"foobar"}},
        {"^.*abc", 0, kRegular, {"abc"}, 0x80000}, {"abc.$", 0, kRegular, {"abc"}, 0x40000},
        {"\\bword", 0, kRegular, {"word"}},  // an escaped letter is no candidate
        {"abc|xyz.", 0, kNone, {}}, {"a{0,3}", 0, kNone, {}}, {"", 0, kNone, {}},
        {"(ab", 0, kRefused, {"Missing a closing ')'"}},
        {"a||b", 0, kRefused, {"Not enough operands for the operator"}},
        {"a{x", 0, kRefused, {"Illegal sequence beginning with '{': '{' must be followed by a digit"}},
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
        std::string pattern; uint32_t len; const char *head;
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
