// Syntax questions of management tools: the migration answer, the older engine's validity, allocation failures.
#include <gtest/gtest.h>

#include <string>

#include "analysis/vael_pm_regexp_verifier.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"
#include "vael/vael_apps.h"

namespace {

using namespace std::string_literals;

constexpr uint32_t CL = VAEL_PM_CASELESS;
constexpr uint32_t NONE = VAEL_PM_REGEXP_NO_OFFSET;

const char *const kOk = "Success - pattern has identical meaning in new and old regular expression engines";
const char *const kPm = "Syntax verification failed for new regular expression engine (PM)";
const char *const kOld = "Syntax verification failed for old regular expression engine (Regexp)";
const char *const kFlags =
    "Compilation flags of new regular expression engine (PM) are not supported by old regular expression engine "
    "(Regexp)";

struct MeaningRow {
    std::string pattern;
    uint32_t compile_flags;
    uint32_t pattern_flags;
    int32_t code;
    uint32_t type;
    const char *text;
    uint32_t offset;
    const char *pm_error = nullptr;  // this library's own refusal text, for code -6
};

const MeaningRow kMeaning[] = {
    // The order in which the steps decide.
    {"ab", CL, 0, 0, 0, kOk, NONE},
    {"a(", 0, 0, -2, 3,
     "Old regular expression engine (Regexp) is caseless, but new regular expression engine (PM) is case-sensitive",
     NONE},
    {"a(", CL | 0x2, 0, -3, 2, kFlags, NONE}, {"ab", CL | 0x1, VAEL_PM_USE_REM, 0, 0, kOk, NONE},
    {"a(", CL, VAEL_PM_LITERAL, -4, 2, kFlags, NONE}, {"", CL, 0, -6, 1, "Empty pattern", NONE},
    {"(", CL, 0, -6, 1, kPm, NONE, "Missing a closing ')'"},
    {"[a", CL, 0, -6, 1, kPm, NONE, "Could not find closing bracket ']'"},
    {"\\", CL, 0, -6, 1, kPm, NONE, "Unexpected end of pattern"},
    {"{bogus", CL, 0, -6, 1, "Illegal metadata in pattern", NONE}, {"a\\1", CL, 0, -7, 2, kOld, NONE},
    {"a\0b"s, CL, 0, -7, 2, kOld, NONE},
    {"{caseless}:a\\d", CL, 0, -5, 2,
     "Found metadata. Metadata is not supported by old regular expression engine (Regexp)", NONE},
    // Metadata that sets nothing is plain text to the older engine.
    {"{}:a\\d", CL, 0, -21, 2, "Found quantifier special characters '{}'", 0},
    // Every row of the table, each by a small pattern; the offset is that of
    // the hit's last byte.
    {"a\\d", CL, 0, -8, 2, "Found decimal special character '\\d'", 2},
    {"a\\D", CL, 0, -9, 2, "Found non-decimal special character '\\D'", 2},
    {"a\\s", CL, 0, -10, 2, "Found whitespace special character '\\s'", 2},
    {"a\\S", CL, 0, -11, 2, "Found non-whitespace special character '\\S'", 2},
    {"a\\w", CL, 0, -12, 2, "Found word-char special character '\\w'", 2},
    {"a\\W", CL, 0, -13, 2, "Found non-word-char special character '\\W'", 2},
    {"\\x41", CL, 0, -14, 2, "Found hexadecimal special character '\\x'", 1},
    {"a\\07", CL, 0, -15, 2, "Found octal special character", 2},
    {"a[\\.]", CL, 0, -19, 2, "Found a preceding '\\' inside brackets", 4},
    {"a{2}", CL, 0, -21, 2, "Found quantifier special characters '{}'", 1},
    {"a^b", CL, 0, -22, 1, "Found anchor '^' in the middle of the pattern", 1},
    {"a$b", CL, 0, -23, 1, "Found anchor '$' in the middle of the pattern", 2},
    {"a\\a", CL, 0, -24, 2, "Found alarm special character '\\a'", 2},
    {"a\\cA", CL, 0, -25, 2, "Found control special character '\\c'", 2},
    {"a\\e", CL, 0, -26, 2, "Found escape special character '\\e'", 2},
    {"a\\f", CL, 0, -27, 2, "Found formfeed special character '\\f'", 2},
    {"a\\n", CL, 0, -28, 2, "Found newline special character '\\n'", 2},
    {"a\\r", CL, 0, -29, 2, "Found carriage-return special character '\\r'", 2},
    {"a\\t", CL, 0, -30, 2, "Found tab special character '\\t'", 2},
    // What must not hit: escaped braces and backslashes, anchors at the edges
    // and inside brackets.
    {"a\\{2", CL, 0, 0, 0, kOk, NONE}, {"a\\\\d", CL, 0, 0, 0, kOk, NONE},
    {"a\\\\\\d", CL, 0, -8, 2, "Found decimal special character '\\d'", 4}, {"^ab", CL, 0, 0, 0, kOk, NONE},
    {"ab$", CL, 0, 0, 0, kOk, NONE}, {"a[$]b", CL, 0, 0, 0, kOk, NONE},
    // The first hit in the text stands.
    {"a\\sb\\d", CL, 0, -10, 2, "Found whitespace special character '\\s'", 2},
};

TEST(Verify, IdenticalMeaningAnswers) {
    vael_pm_regexp_verify_handle *handle = vael_pm_regexp_verify_init();
    ASSERT_NE(handle, nullptr);
    vael_test::LogCapture quiet;
    for (const auto &row : kMeaning) {
        SCOPED_TRACE("pattern '" + row.pattern + "'");
        vael_pm_regexp_result r;
        const int rc = vael_pm_regexp_verify_identical_meaning(handle, row.pattern.data(), (uint32_t)row.pattern.size(),
                                                               row.compile_flags, row.pattern_flags, &r);
        EXPECT_EQ(rc, row.code == 0 ? 0 : -1);
        EXPECT_EQ(r.code, row.code);
        EXPECT_EQ(r.type, row.type);
        EXPECT_STREQ(r.text, row.text);
        EXPECT_EQ(r.offset, row.offset);
        if (row.pm_error) {
            EXPECT_STREQ(r.error.error_string, row.pm_error);
        }
    }
    vael_pm_regexp_verify_fini(handle);
}

TEST(VerifySyntax, OlderEngineAndWords) {
    vael_test::LogCapture quiet;
    const struct {
        const char *pattern;
        int rc;
    } regexps[] = {{"a{x", 0}, {"{2}", 0}, {"a(b|c)*", 0}, {"a(", -1}, {"[a", -1}, {"a\\1", -1}, {nullptr, -1}};
    for (const auto &row : regexps)
        EXPECT_EQ(vael_regexp_verify_syntax(row.pattern), row.rc) << (row.pattern ? row.pattern : "(null)");

    const char *const kArgs = "Invalid arguments (phrase or phrase length)";
    const char *const kUtf8 = "not valid utf8 char in the phrase";
    const char *const kWord = "The keyword must have at least one alphanumeric character.";
    const struct {
        const char *phrase;
        uint32_t length;
        const char *error;  // null: the phrase is taken
    } words[] = {
        {"foo bar", 7, nullptr}, {"\xC3\xA9t\xC3\xA9", 6, nullptr}, {"-x-", 3, nullptr}, {nullptr, 3, kArgs},
        {"foo", 0, kArgs},       {"a\xFF", 2, kUtf8},               {"ab\xC3", 3, kUtf8},  {"\x80" "ab", 3, kUtf8},
        {"  ,.;!", 6, kWord},    {"<>", 2, kWord},
        {"\xC2\xAB \xE3\x80\x82", 6, kWord},  // guillemet, space, ideographic full stop
    };
    for (const auto &row : words) {
        vael_pm_error err;
        EXPECT_EQ(vael_wm_verify_syntax(row.phrase, row.length, &err), row.error ? -1 : 0) << row.length;
        EXPECT_STREQ(err.error_string, row.error) << row.length;
        if (row.error) {
            EXPECT_EQ(err.error_type, (uint32_t)VAEL_PM_ERROR_ILLEGAL);
        }
    }
    EXPECT_EQ(vael_wm_verify_syntax(" ", 1, nullptr), -1);
}

TEST(VerifyFailmem, InitAndQuestionReturnTheirMemory) {
    vael_test::LogCapture quiet;
    vael_pm_regexp_verify_handle *h = nullptr;
    auto walk = vael_test::failmem_walk([&] { return (h = vael_pm_regexp_verify_init()) != nullptr; },
                                        [&] { return h == nullptr; });
    EXPECT_GT(walk.injected, 2);
    ASSERT_NE(h, nullptr);

    // A first run warms what the frame keeps for the process.
    vael_pm_regexp_result r;
    vael_pm_regexp_verify_identical_meaning(h, "a\\d", 3, CL, 0, &r);
    auto ask = vael_test::failmem_walk_each_allocation(
        [&] {
            return vael_pm_regexp_verify_identical_meaning(h, "ab{2}c\\d", 8, CL, 0, &r) == -1 && r.code == -21;
        },
        [&] { return r.code == -1 || (r.code == -6 && r.type == 1); });
    EXPECT_GT(ask.injected, 2);
    vael_pm_regexp_verify_fini(h);
}

}  // namespace
