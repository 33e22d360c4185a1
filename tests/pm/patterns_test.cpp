// Pattern lists: the metadata language in front of a pattern, the records
// each add operation makes, NUL bytes in patterns, the compile's refusal of
// records this build cannot match exactly, the list dump, case folding of
// strings, and the allocation failures of every add.
#include <gtest/gtest.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "pm/vael_pm_internal.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"

namespace {

using namespace std::string_literals;
using vael_test::LogCapture;
using vael_test::ScopedGlobal;
using vael_test::ScopedTopic;

constexpr uint32_t kCaseless = VAEL_PM_CASELESS;
constexpr uint32_t kLiteral = VAEL_PM_LITERAL;

// One line of the debug log as the library prints it.
std::string logline(const char *func, const std::string &rest) { return "vael[5]: "s + func + ": " + rest; }
const char kParse[] = "vael_pm_patterns_parse_metadata";
const char kIgnoring[] = "ignoring metadata flag\n";
const char kInvalid[] = "invalid metadata\n";
const char kNoEnding[] = "metadata ending was not found\n";
const char kNoClose[] = "no closing braces for LSS flag\n";

std::string str_of(const vael_pmglob_string *s) {
    return std::string(reinterpret_cast<const char *>(s->pattern), s->size);
}

std::vector<vael_pm_one_pattern *> records(vael_pm_patterns *list) {
    std::vector<vael_pm_one_pattern *> out;
    uintptr_t v;
    for (lst_cursor c = lst_iterate(list, nullptr, &v); c; c = lst_iterate(list, c, &v))
        out.push_back(reinterpret_cast<vael_pm_one_pattern *>(v));
    return out;
}

// ---------------------------------------------------------------- metadata

struct ParseCase {
    std::string text;
    int allow_lss;
    uint32_t flags_in;
    int rc;
    std::string rest;                // the pattern after the metadata
    std::optional<std::string> lss;  // an LSS( item, when one was found
    uint32_t flags_out;
    std::string log;                 // exact log, K_PM at NOTICE
};

TEST(MetadataParse, Table) {
    const std::vector<ParseCase> cases = {
        {"{literal;caseless}:abc", 1, 0, 0, "abc", {}, kLiteral | kCaseless, ""},
        {"{LSS(abc)}:a.*bc", 1, 0, 0, "a.*bc", "abc", 0, ""},
        {"{LSS(abc)}:x", 0, 0, 0, "x", {}, 0, logline(kParse, kIgnoring)},
        {"{caseless}", 1, 0, -1, "", {}, 0, logline(kParse, kNoEnding)},
        // "caseless" needs a byte behind it, but "case" matches by prefix.
        {"{caseless", 1, 0, -1, "", {}, 0, logline(kParse, kNoEnding)},
        {"{literal", 1, 0, -1, "", {}, 0, logline(kParse, kInvalid)},
        {"{cas", 1, 0, -1, "", {}, 0, logline(kParse, kInvalid)},
        {"{caseless}:", 1, 0, 0, "", {}, kCaseless, ""},
        {"{", 1, 0, -1, "", {}, 0, logline(kParse, kInvalid)},
        {"{casefold}:x", 1, 0, -1, "", {}, 0, logline(kParse, kNoEnding)},
        {"{foo}:x", 1, 0, 0, "x", {}, 0, logline(kParse, kIgnoring)},
        {"{foo;literal}:x", 1, 0, 0, "x", {}, kLiteral, logline(kParse, kIgnoring)},
        {"{;caseless}:x", 1, 0, 0, "x", {}, kCaseless, logline(kParse, kIgnoring)},
        {"{case}:x", 1, kCaseless | kLiteral, 0, "x", {}, kLiteral, ""},
        {"{caseless;case}:x", 1, 0, 0, "x", {}, 0, ""},
        {"{bound;shortlss}:w", 1, 0x1000, 0, "w", {}, 0x1000 | VAEL_PM_BOUND | VAEL_PM_SHORT_LSS, ""},
        {"{LSS(abc}:x", 1, 0, -1, "", {}, 0, logline(kParse, kNoClose)},
        {"{LSS(ab", 1, 0, -1, "", {}, 0, logline(kParse, kNoClose)},
        {"{LSS(abc}:x)", 1, 0, -1, "", {}, 0, logline(kParse, kNoEnding)},
        {"{LSS(ab)c}:x", 1, 0, -1, "", {}, 0, logline(kParse, kNoEnding)},
        // Four bytes are too few for an LSS( item; it is no known name either.
        {"{LSS(", 1, 0, -1, "", {}, 0, logline(kParse, kInvalid)},
        {"{LSS()}:x", 1, 0, 0, "x", "", 0, ""},
        {"{LSS(a);LSS(b)}:x", 1, 0, 0, "x", "a", 0, logline(kParse, kIgnoring)},
        {"{caseless;LSS(a b)}:x{", 1, 0, 0, "x{", "a b", kCaseless, ""},
        {"abc", 1, kLiteral, 0, "abc", {}, kLiteral, ""},
        {"", 1, 0, 0, "", {}, 0, ""},
        {"x{caseless}:y", 1, 0, 0, "x{caseless}:y", {}, 0, ""},
        {"{literal}:{abc", 0, 0, 0, "{abc", {}, kLiteral, ""},
    };
    ScopedTopic topic("K_PM", VAEL_DBG_NOTICE);
    for (const auto &c : cases) {
        SCOPED_TRACE("text '" + c.text + "', allow_lss " + std::to_string(c.allow_lss));
        const char *pattern = c.text.data();
        uint32_t len = (uint32_t)c.text.size();
        const char *lss = nullptr;
        uint32_t lss_len = 12345;
        uint32_t flags = c.flags_in;
        LogCapture log;
        int rc = vael_pm_patterns_parse_metadata(&lss, &lss_len, &pattern, &len, &flags, c.allow_lss);
        EXPECT_EQ(rc, c.rc);
        EXPECT_EQ(log.text(), c.log);
        if (rc != 0)
            continue;
        EXPECT_EQ(std::string(pattern, len), c.rest);
        EXPECT_EQ(pattern + len, c.text.data() + c.text.size()) << "the rest points into the caller's text";
        EXPECT_EQ(flags, c.flags_out);
        if (c.lss) {
            ASSERT_NE(lss, nullptr);
            EXPECT_EQ(std::string(lss, lss_len), *c.lss);
        } else {
            EXPECT_EQ(lss, nullptr);
            EXPECT_EQ(lss_len, 12345u);
        }
    }
}

TEST(MetadataParse, LssItemNeedsBothPointers) {
    std::string text = "{LSS(abc)}:x";
    const char *pattern = text.data();
    uint32_t len = (uint32_t)text.size(), flags = 0;
    EXPECT_EQ(vael_pm_patterns_parse_metadata(nullptr, nullptr, &pattern, &len, &flags, 1), 0);
    EXPECT_EQ(std::string(pattern, len), "x");
}

TEST(MetadataParse, IgnoredItemIsANoticeOnly) {
    for (int level : {VAEL_DBG_WRN, VAEL_DBG_NOTICE}) {
        ScopedTopic pm("K_PM", level);
        LogCapture log;
        std::string text = "{foo}:x";
        const char *pattern = text.data();
        uint32_t len = (uint32_t)text.size(), flags = 0;
        EXPECT_EQ(vael_pm_patterns_parse_metadata(nullptr, nullptr, &pattern, &len, &flags, 0), 0);
        EXPECT_EQ(log.text(), level == VAEL_DBG_NOTICE ? logline(kParse, kIgnoring) : "");
    }
}

TEST(MetadataHas, Table) {
    const char *kHas = "vael_pm_pattern_has_metadata";
    struct Case {
        std::string text;
        int rc;
        int has;
        std::string log;
    };
    const std::vector<Case> cases = {
        {"{case}:abc", 0, 0, ""},
        {"{caseless}:abc", 0, 1, ""},
        {"{bound}:abc", 0, 1, ""},
        {"{LSS(x)}:y", 0, 1, ""},
        {"{LSS()}:y", 0, 0, ""},
        {"{caseless;case}:y", 0, 0, ""},
        {"abc", 0, 0, ""},
        {"{foo}:x", 0, 0, ""},
        {"{casefold}:x", -1, 7, logline(kParse, kNoEnding) + logline(kHas, "failed to parse metadata\n")},
        // The copy stops at a NUL and fills zeros, so the ')' is lost.
        {"{LSS(a\0b)}:y"s, -1, 7, logline(kParse, kNoClose) + logline(kHas, "failed to parse metadata\n")},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        std::string text = c.text;
        int has = 7;
        LogCapture log;
        EXPECT_EQ(vael_pm_pattern_has_metadata(text.data(), (uint32_t)text.size(), &has), c.rc);
        EXPECT_EQ(has, c.has);
        EXPECT_EQ(log.text(), c.log);
        EXPECT_EQ(text, c.text) << "the caller's text is not touched";
    }
    int has = 7;
    const std::string bad = logline(kHas, "invalid arguments given");
    LogCapture log;
    EXPECT_EQ(vael_pm_pattern_has_metadata(nullptr, 3, &has), -1);
    EXPECT_EQ(log.text(), bad);
    log.clear();
    EXPECT_EQ(vael_pm_pattern_has_metadata("{caseless}:a", 0, &has), -1);
    EXPECT_EQ(log.text(), bad);
    log.clear();
    EXPECT_EQ(vael_pm_pattern_has_metadata("{caseless}:a", 12, nullptr), -1);
    EXPECT_EQ(log.text(), bad);
    EXPECT_EQ(has, 7);
}

// ---------------------------------------------------------------- add operations

enum class Op { kSimple, kPattern, kWithLss, kWord, kKw, kKwNoHistory };

struct AddCase {
    const char *name;
    Op op;
    std::string text;            // str, re, word or rule
    std::optional<std::string> lss;  // the lss argument of kWithLss and kKw*
    uint32_t flags;
    int rc;
    // The record made, when rc is 0.
    std::optional<std::string> want_lss;
    std::optional<std::string> want_re;
    uint32_t want_flags;
    uint32_t want_match_len;
    uint32_t want_type;
};

int add(vael_pm_patterns *list, const AddCase &c, int32_t id) {
    const char *lss = c.lss ? c.lss->data() : nullptr;
    auto lss_len = (uint32_t)(c.lss ? c.lss->size() : 0);
    auto len = (uint32_t)c.text.size();
    switch (c.op) {
    case Op::kSimple:
        return vael_pm_patterns_add_simple_pattern(list, c.text.data(), len, id, c.flags);
    case Op::kPattern:
        return vael_pm_patterns_add_pattern(list, c.text.data(), len, id, c.flags);
    case Op::kWithLss:
        return vael_pm_patterns_add_pattern_with_LSS(list, lss, lss_len, c.text.data(), len, id, c.flags);
    case Op::kWord:
        return vael_pm_patterns_add_word(list, c.text.data(), len, id, c.flags);
    case Op::kKw:
        return vael_pm_patterns_add_pattern_kw(list, lss, lss_len, c.text.c_str(), id);
    case Op::kKwNoHistory:
        return vael_pm_patterns_add_pattern_kw_nohistory(list, lss, lss_len, c.text.c_str(), id);
    }
    return -2;
}

void expect_record(const vael_pm_one_pattern *p, const AddCase &c, int32_t id) {
    EXPECT_EQ(p->id, id);
    EXPECT_EQ(p->flags, c.want_flags);
    EXPECT_EQ(p->match_len, c.want_match_len);
    EXPECT_EQ(p->type, c.want_type);
    for (auto [s, want] : {std::pair{p->lss, c.want_lss}, std::pair{p->re, c.want_re}}) {
        if (!want) {
            EXPECT_EQ(s, nullptr);
            continue;
        }
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(str_of(s), *want);
        EXPECT_EQ(s->pattern[s->size], '\0');
        EXPECT_EQ(s->id, -1);
        EXPECT_EQ(s->flags, c.want_flags);
    }
}

std::vector<AddCase> add_cases() {
    const uint32_t nh = VAEL_PM_NO_HISTORY;
    const std::nullopt_t none = std::nullopt;
    return {
        {"MetadataFlags", Op::kPattern, "{literal;caseless}:abc", none, 0, 0, none, "abc", kLiteral | kCaseless, 0, 0},
        {"MetadataLss", Op::kPattern, "{LSS(abc)}:a.*bc", none, 0, 0, "abc", "a.*bc", 0, 0, 0},
        {"SimpleIgnoresLss", Op::kSimple, "{LSS(abc)}:x", none, 0, 0, "x", none, 0, 1, 0},
        {"SimpleFlags", Op::kSimple, "{caseless}:Abc", none, kLiteral, 0, "Abc", none, kLiteral | kCaseless, 3, 0},
        {"SimpleCaseClearsArgument", Op::kSimple, "{case}:ab", none, kCaseless, 0, "ab", none, 0, 2, 0},
        {"SimpleNoHistory", Op::kSimple, "abcd", none, nh, 0, "abcd", none, nh, 0, 0},
        {"SimpleBrace", Op::kSimple, "{abc", none, 0, -1, none, none, 0, 0, 0},
        {"SimpleBraceBehindMetadata", Op::kSimple, "{literal}:{abc", none, 0, 0, "{abc", none, kLiteral, 4, 0},
        {"SimpleEmptyAfterMetadata", Op::kSimple, "{caseless}:", none, 0, -1, none, none, 0, 0, 0},
        {"SimpleEmpty", Op::kSimple, "", none, 0, -1, none, none, 0, 0, 0},
        {"PatternEmptyAfterMetadata", Op::kPattern, "{caseless}:", none, 0, -1, none, none, 0, 0, 0},
        {"PatternBadMetadata", Op::kPattern, "{LSS(abc}:x", none, 0, -1, none, none, 0, 0, 0},
        {"PatternNoHistory", Op::kPattern, "a.*b", none, nh, 0, none, "a.*b", nh, 0, 0},
        {"WithLss", Op::kWithLss, "ab.*cd", "cd", kCaseless, 0, "cd", "ab.*cd", kCaseless, 0, 0},
        {"WithLssReplacedByMetadata", Op::kWithLss, "{LSS(ab)}:ab.*cd", "cd", 0, 0, "ab", "ab.*cd", 0, 0, 0},
        {"WithLssEmptyLssItem", Op::kWithLss, "{LSS()}:x", "ab", 0, 0, none, "x", 0, 0, 0},
        {"WithLssOnly", Op::kWithLss, "", "abc", 0, 0, "abc", none, 0, 0, 0},
        {"WithLssNullLss", Op::kWithLss, "{shortlss}:x+", none, 0, 0, none, "x+", VAEL_PM_SHORT_LSS, 0, 0},
        {"Word", Op::kWord, "two words", none, VAEL_PM_CONTINUOUS_WORD, 0, "two words", none,
         VAEL_PM_CONTINUOUS_WORD, 9, 2},
        {"WordHasNoMetadata", Op::kWord, "{caseless}:x", none, 0, 0, "{caseless}:x", none, 0, 12, 2},
        {"WordNoHistory", Op::kWord, "word", none, nh, 0, "word", none, nh, 0, 2},
        {"Kw", Op::kKw, "data:abc;", "abc", 0, 0, "abc", "data:abc;", 0, 0, 1},
        {"KwNullLss", Op::kKw, "{caseless}:x", none, 0, 0, none, "{caseless}:x", 0, 0, 1},
        {"KwNoHistory", Op::kKwNoHistory, "data:abc;", "ab", 0, 0, "ab", "data:abc;", nh, 0, 1},
        {"KwNoHistoryNullLss", Op::kKwNoHistory, "len>3;", none, 0, 0, none, "len>3;", nh, 0, 1},
        {"KwEmpty", Op::kKw, "", none, 0, -1, none, none, 0, 0, 0},
    };
}

TEST(PatternAdd, RecordsOfEachOperation) {
    for (const auto &c : add_cases()) {
        SCOPED_TRACE(c.name);
        vael_pm_patterns *list = vael_pm_patterns_create();
        ASSERT_EQ(vael_pm_patterns_add_word(list, "first", 5, 1, 0), 0);
        const auto before = records(list);
        AddCase scratch = c;  // the caller's memory, scribbled over after the add
        {
            LogCapture quiet;
            EXPECT_EQ(add(list, scratch, 42), c.rc);
        }
        scratch.text.assign(scratch.text.size(), 'Z');
        if (scratch.lss)
            scratch.lss->assign(scratch.lss->size(), 'Z');
        auto after = records(list);
        if (c.rc != 0) {
            EXPECT_EQ(after, before) << "a failed add leaves the list as it was";
        } else {
            ASSERT_EQ(after.size(), 2u);
            EXPECT_EQ(after[0], before[0]);
            expect_record(after[1], c, 42);
        }
        vael_pm_patterns_destroy(list);
    }
}

TEST(PatternAdd, EntryCheckLogsItsArgumentsUnderError) {
    auto entry_log = [](const void *list, uint32_t lss_len, const void *lss, uint32_t re_len, const void *re) {
        char text[256];
        std::snprintf(text, sizeof text,
                      "vael[5]: vael_pm_patterns_add_pattern_with_LSS_ex: Invalid arguments: pattern: %p, "
                      "LSS_len: %u, LSS: %p, RE_len: %u, RE: %p\n",
                      list, lss_len, lss, re_len, re);
        return std::string(text);
    };
    // Only K_ERROR is on: the entry check speaks under it alone.
    ScopedTopic error("K_ERROR", VAEL_DBG_ERR);
    ScopedTopic pm("K_PM", VAEL_DBG_NONE);
    vael_pm_patterns *list = vael_pm_patterns_create();
    const char text[] = "{caseless}:";
    LogCapture log;
    EXPECT_EQ(vael_pm_patterns_add_simple_pattern(list, text, 11, 1, 0), -1);
    EXPECT_EQ(log.text(), entry_log(list, 0, text + 11, 0, nullptr));
    log.clear();
    EXPECT_EQ(vael_pm_patterns_add_pattern(list, text, 11, 1, 0), -1);
    EXPECT_EQ(log.text(), entry_log(list, 0, nullptr, 0, text + 11));
    log.clear();
    const char word[] = "w";
    EXPECT_EQ(vael_pm_patterns_add_word(nullptr, word, 1, 1, 0), -1);
    EXPECT_EQ(log.text(), entry_log(nullptr, 1, word, 0, nullptr));
    log.clear();
    EXPECT_EQ(vael_pm_patterns_add_pattern_kw(list, word, 0, nullptr, 1), -1);
    EXPECT_EQ(log.text(), entry_log(list, 0, word, 0, nullptr));
    EXPECT_EQ(lst_nelements(list), 0);
    vael_pm_patterns_destroy(list);
}

TEST(PatternAdd, RecordAccessors) {
    vael_pm_patterns *list = vael_pm_patterns_create();
    ASSERT_EQ(vael_pm_patterns_add_pattern(list, "{LSS(bc)}:abc+", 14, 1, 0), 0);
    ASSERT_EQ(vael_pm_patterns_add_word(list, "w", 1, 2, 0), 0);
    auto r = records(list);
    auto text = [](const unsigned char *t) { return std::string(reinterpret_cast<const char *>(t)); };
    EXPECT_EQ(text(vael_pm_one_pattern_get_lss_str(r[0])) + std::to_string(vael_pm_one_pattern_get_lss_size(r[0])) +
                  text(vael_pm_one_pattern_get_re_str(r[0])) + std::to_string(vael_pm_one_pattern_get_re_size(r[0])),
              "bc2abc+4");
    EXPECT_EQ(vael_pm_one_pattern_get_re_str(r[1]), nullptr);
    EXPECT_EQ(vael_pm_one_pattern_get_re_size(r[1]), 0u);
    LogCapture log;
    EXPECT_EQ(vael_pm_one_pattern_get_lss_str(nullptr), nullptr);
    EXPECT_NE(log.text().find("Assert at ("), std::string::npos);
    EXPECT_NE(log.text().find("Ilegal arguments"), std::string::npos);
    vael_pm_patterns_destroy(list);
}

// ---------------------------------------------------------------- NUL bytes

TEST(PatternNul, LssKeepsItsBytesAndRegexGetsEscapes) {
    const char *kCreate = "vael_pm_patterns_one_pattern_create";
    const std::string lss_note =
        logline(kCreate, "NULL character is not supported in LSS - please use \\x00 instead. problematic LSS: ");
    const std::string re_note =
        logline(kCreate, "NULL character is not supported in RE - please use \\x00 instead. problematic RE: ");
    const std::string illegal = logline("vael_pmglob_string_create_replace_nulls", "Found illegal '\\0' in the string\n") +
                                logline("vael_pm_patterns_add_pattern_with_LSS_ex", "Error creating one_pattern\n");
    struct Case {
        Op op;
        std::string text;
        int allow_null;
        int rc;
        std::string stored;  // lss of a simple pattern, re of a regex
        std::string log;
    };
    const std::vector<Case> cases = {
        {Op::kSimple, "a\0b"s, 0, 0, "a\0b"s, lss_note + "a\\x00b\n"},
        {Op::kSimple, "a\0b"s, 1, 0, "a\0b"s, ""},
        {Op::kPattern, "a\0b"s, 0, 0, "a\\x00b", re_note + "a\\x00b\n"},
        {Op::kPattern, "\0"s, 1, 0, "\\x00", ""},
        {Op::kPattern, "a\\\0"s, 0, -1, "", re_note + "a\\\\x00\n" + illegal},
        {Op::kPattern, "a\\\0"s, 1, -1, "", illegal},
        {Op::kPattern, "a\\\\\0"s, 1, 0, "a\\\\\\x00", ""},
        {Op::kPattern, "\\\\\\\0"s, 1, -1, "", illegal},
        {Op::kPattern, "\\a\0"s, 1, 0, "\\a\\x00", ""},
        {Op::kPattern, "\0\0"s, 1, 0, "\\x00\\x00", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.text) + " allow " + std::to_string(c.allow_null));
        ScopedGlobal allow(vael_pm_allow_null_in_pattern, c.allow_null);
        vael_pm_patterns *list = vael_pm_patterns_create();
        LogCapture log;
        AddCase a{"", c.op, c.text, std::nullopt, 0, 0, {}, {}, 0, 0, 0};
        EXPECT_EQ(add(list, a, 5), c.rc);
        EXPECT_EQ(log.text(), c.log);
        auto r = records(list);
        ASSERT_EQ(r.size(), c.rc == 0 ? 1u : 0u);
        if (c.rc == 0) {
            EXPECT_EQ(str_of(c.op == Op::kSimple ? r[0]->lss : r[0]->re), c.stored);
        }
        vael_pm_patterns_destroy(list);
    }
}

TEST(PatternNul, ReplaceNullsKeepsIdAndFlagsAndLogsAFailedBuffer) {
    const unsigned char bytes[] = {'x', 0, 'y'};
    vael_pmglob_string *s = nullptr;
    std::vector<std::string> logs;
    auto w = vael_test::failmem_walk_each_allocation(
        [&] {
            LogCapture log;
            s = vael_pmglob_string_create_replace_nulls(bytes, 3, 77, kCaseless);
            logs.push_back(log.text());
            return s != nullptr;
        },
        [&] { return s == nullptr; });
    EXPECT_EQ(w.rounds, 4);  // the buffer, then the string's record and bytes
    ASSERT_FALSE(logs.empty());
    EXPECT_EQ(logs[0], logline("vael_pmglob_string_create_replace_nulls", "Failed to allocate buffer size 6\n"));
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(str_of(s), "x\\x00y");
    EXPECT_EQ(s->id, 77);
    EXPECT_EQ(s->flags, kCaseless);
    vael_pmglob_string_destroy(s);
}

// ---------------------------------------------------------------- compile refusals

TEST(PatternCompile, RecordsWithoutAnExactStringAreRefused) {
    struct Case {
        const char *name;
        std::vector<AddCase> adds;  // added with ids 1, 2, ...
        uint32_t compile_flags;
        int32_t refused_id;         // 0: the compile succeeds
    };
    auto simple = [](const char *t, uint32_t f = 0) { return AddCase{"", Op::kSimple, t, {}, f, 0, {}, {}, 0, 0, 0}; };
    auto of = [](Op op, const char *t, std::optional<std::string> lss = {}) {
        return AddCase{"", op, t, lss, 0, 0, {}, {}, 0, 0, 0};
    };
    const std::vector<Case> cases = {
        {"Word", {simple("abc"), of(Op::kWord, "word")}, 0, 2},
        {"Regex", {simple("abc"), of(Op::kPattern, "a.*b")}, 0, 2},
        {"RegexWithLss", {simple("abc"), of(Op::kPattern, "{LSS(ab)}:ab+")}, 0, 2},
        {"KwRule", {simple("abc", kCaseless), of(Op::kKw, "data:abc;", "abc")}, 0, 2},
        // Records are refused in list order: a string that a later record (a
        // keyword rule, a caseless string) makes case-checked comes first.
        {"StringMadeCaselessByALaterKwRule", {simple("abc"), of(Op::kKwNoHistory, "data:abc;")}, 0, 1},
        {"CaseSensitiveStringBeforeAWord", {simple("abc", kCaseless), simple("def"), of(Op::kWord, "w")}, 0, 2},
        {"Bound", {simple("abc"), simple("{bound}:def")}, 0, 2},
        {"CaseSensitiveAmongCaseless", {simple("abc", kCaseless), simple("def")}, 0, 2},
        {"CaseSensitiveFirst", {simple("def"), simple("{caseless}:abc")}, 0, 1},
        {"AllSimple", {simple("abc"), simple("{literal}:def"), simple("ghi")}, 0, 0},
        {"AllCaseless", {simple("abc", kCaseless), simple("{caseless}:def")}, 0, 0},
        {"CaselessByCompileFlags", {simple("abc", kCaseless), simple("def")}, kCaseless, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vael_pm_patterns *list = vael_pm_patterns_create();
        int32_t id = 1;
        for (const auto &a : c.adds)
            ASSERT_EQ(add(list, a, id++), 0);
        const intptr_t pm_bytes = vael_pmglob_memory_get_alloc_total();
        vael_pm_error err;
        vael_pm_handle *pm;
        {
            LogCapture quiet;
            pm = vael_pm_compile(list, nullptr, c.compile_flags, &err, "patterns-test");
        }
        if (c.refused_id == 0) {
            EXPECT_NE(pm, nullptr);
            EXPECT_EQ(err.error_string, nullptr);
            vael_pm_destroy(pm);
        } else {
            EXPECT_EQ(pm, nullptr);
            EXPECT_EQ(err.pattern_id, c.refused_id);
            EXPECT_EQ(err.error_type, (uint32_t)VAEL_PM_ERROR_ILLEGAL);
            ASSERT_NE(err.error_string, nullptr);
            EXPECT_GT(std::string(err.error_string).size(), 10u);
        }
        EXPECT_EQ(vael_pmglob_memory_get_alloc_total(), pm_bytes);
        vael_pm_patterns_destroy(list);
    }
}

// ---------------------------------------------------------------- dump and case folding

TEST(PatternDump, ExactText) {
    vael_pm_patterns *list = vael_pm_patterns_create();
    ASSERT_EQ(vael_pm_patterns_add_simple_pattern(list, "{caseless}:abc", 14, 3, 0), 0);
    ASSERT_EQ(vael_pm_patterns_add_pattern(list, "a\n.*b", 5, -4, VAEL_PM_USE_REM), 0);
    ASSERT_EQ(vael_pm_patterns_add_pattern(list, "{LSS(xy)}:xy+", 13, 5, 0), 0);
    const std::string dashes(44, '-');
    char head[128];
    std::snprintf(head, sizeof head, "vael[5]: \n----- DUMPING PM_PATTERNS at %p -----\n", (void *)list);
    const std::string p = "vael[5]: ";
    const std::string want = head + p + "Number of patterns in this pm_patterns is: 3\n" +
                             p + dashes + "\n" + p + "     Pattern num: 1\n" + p + "     LSS: abc\n" + p +
                             "     RE: NULL\n" + p + "     Pattern id: 3, flags: 0x10000000\n" +
                             p + dashes + "\n" + p + "     Pattern num: 2\n" + p +
                             "     LSS: NULL (we'll try to find it during PM compilation)\n" + p +
                             "     RE: a\\x0a.*b\n" + p + "     Pattern id: -4, flags: 0x02000000\n" +
                             p + dashes + "\n" + p + "     Pattern num: 3\n" + p + "     LSS: xy\n" + p +
                             "     RE: xy+\n" + p + "     Pattern id: 5, flags: 0x00000000\n" + p + dashes + "\n";
    LogCapture log;
    vael_pm_patterns_dump(list);
    EXPECT_EQ(log.text(), want);
    vael_pm_patterns_destroy(list);

    vael_pm_patterns *empty = vael_pm_patterns_create();
    std::snprintf(head, sizeof head, "vael[5]: \n----- DUMPING PM_PATTERNS at %p -----\n", (void *)empty);
    log.clear();
    vael_pm_patterns_dump(empty);
    EXPECT_EQ(log.text(), head + p + "Number of patterns in this pm_patterns is: 0\n" + p + dashes + "\n");
    vael_pm_patterns_destroy(empty);
}

TEST(PatternLowerCase, CaselessAndDigitless) {
    const std::string in = "AbZ09@[`{\xc1\xe1 x5";
    const std::vector<std::pair<uint32_t, std::string>> cases = {
        {0, in},
        {VAEL_PM_LITERAL | VAEL_PM_BOUND, in},
        {kCaseless, "abz09@[`{\xc1\xe1 x5"},
        {VAEL_PM_DIGITLESS, "AbZ00@[`{\xc1\xe1 x0"},
        {kCaseless | VAEL_PM_DIGITLESS, "abz00@[`{\xc1\xe1 x0"},
    };
    auto bytes = reinterpret_cast<const unsigned char *>(in.data());
    for (const auto &[flags, out] : cases) {
        SCOPED_TRACE(flags);
        vael_pmglob_string *s = vael_pmglob_string_create(bytes, (uint32_t)in.size(), 9, 0);
        vael_pmglob_string_convert_to_lower_case(s, flags);
        EXPECT_EQ(str_of(s), out);
        vael_pmglob_string_destroy(s);

        vael_pmglob_patterns *list = vael_pmglob_patterns_create();
        for (int i = 0; i < 2; i++) {
            s = vael_pmglob_string_create(bytes, (uint32_t)in.size(), i, 0);
            ASSERT_EQ(vael_pmglob_patterns_add(list, s), 0);
            vael_pmglob_string_destroy(s);
        }
        vael_pmglob_patterns_convert_all_patts_to_lower(list, flags);
        uintptr_t v;
        for (lst_cursor cur = lst_iterate(list, nullptr, &v); cur; cur = lst_iterate(list, cur, &v))
            EXPECT_EQ(str_of(reinterpret_cast<vael_pmglob_string *>(v)), out);
        vael_pmglob_patterns_destroy(list);
    }
    vael_pmglob_string_convert_to_lower_case(nullptr, kCaseless);
}

// ---------------------------------------------------------------- allocation failures

TEST(PatternAddWalk, EveryFailureLeavesTheListAsItWas) {
    const std::string nuls = "a\0b\\\\\0c"s;
    const std::vector<AddCase> cases = {
        {"Simple", Op::kSimple, "{caseless;literal}:abc", {}, 0, 0, "abc", {}, kCaseless | kLiteral, 3, 0},
        {"PatternLss", Op::kPattern, "{LSS(abc)}:a.*bc", {}, 0, 0, "abc", "a.*bc", 0, 0, 0},
        {"WithLss", Op::kWithLss, "ab.*c", "ab", 0, 0, "ab", "ab.*c", 0, 0, 0},
        {"Word", Op::kWord, "hello world", {}, 0, 0, "hello world", {}, 0, 11, 2},
        {"Kw", Op::kKw, "data:abc;", "abc", 0, 0, "abc", "data:abc;", 0, 0, 1},
        {"KwNoHistory", Op::kKwNoHistory, "data:x;", {}, 0, 0, {}, "data:x;", VAEL_PM_NO_HISTORY, 0, 1},
        {"RegexWithNuls", Op::kWithLss, nuls, "a", 0, 0, "a", "a\\x00b\\\\\\x00c", 0, 0, 0},
    };
    ScopedGlobal allow(vael_pm_allow_null_in_pattern, 1);
    for (const auto &c : cases) {
        for (int walker = 0; walker < 2; walker++) {
            SCOPED_TRACE(std::string(c.name) + (walker ? " each allocation" : " sites"));
            vael_pm_patterns *list = vael_pm_patterns_create();
            ASSERT_EQ(vael_pm_patterns_add_simple_pattern(list, "zz", 2, 1, 0), 0);
            const auto before = records(list);
            int rc = 0;
            LogCapture quiet;
            auto attempt = [&] { return (rc = add(list, c, 9)) == 0; };
            auto clean = [&] { return rc == -1 && records(list) == before; };
            auto w = walker ? vael_test::failmem_walk_each_allocation(attempt, clean)
                            : vael_test::failmem_walk(attempt, clean);
            EXPECT_GT(w.rounds, 2);
            EXPECT_EQ(w.injected, w.rounds - 1);
            auto after = records(list);
            ASSERT_EQ(after.size(), 2u);
            expect_record(after[1], c, 9);
            vael_pm_patterns_destroy(list);
        }
    }
}

TEST(PatternAddWalk, HasMetadataFailsCleanly) {
    int has = 0, rc = 0;
    std::string text = "{LSS(abc)}:x";
    LogCapture log;
    auto w = vael_test::failmem_walk(
        [&] { return (rc = vael_pm_pattern_has_metadata(text.data(), (uint32_t)text.size(), &has)) == 0; },
        [&] { return rc == -1; });
    EXPECT_EQ(w.rounds, 2);
    EXPECT_EQ(has, 1);
    EXPECT_NE(log.text().find(logline("vael_pm_pattern_has_metadata", "failed to duplicate RE\n")), std::string::npos);
}

}  // namespace
