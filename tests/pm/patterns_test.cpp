// Pattern lists: the metadata language in front of a pattern, the records each add operation makes, NUL bytes in
// patterns and the allocation failures of every add; the leaf functions beneath them: the error record, byte strings
// and ASCII classes held against the C library, and the translation tables of a caseless or digitless first tier.
// Statistics reports: a known PM after a known scan, read back from the text report and from the CSV report (the same
// numbers); the operator's flag language; the pattern order; the report's sort list under allocation failures.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "pm/vael_pm_strings.h"
#include "tests/pm/pm_test_util.h"
#include "tests/support/failmem_walk.h"
#include "vael/vael_apps.h"

namespace {

using namespace std::string_literals;
using vael_test::LogCapture;
using vael_test::ScopedGlobal;
using vael_test::ScopedTopic;

constexpr uint32_t kCaseless = VAEL_PM_CASELESS;
constexpr uint32_t kLiteral = VAEL_PM_LITERAL;

// The notices a user reads when a metadata item is ignored or refused.
std::string note(const std::string &text) { return "vael[5]: vael_pm_patterns_parse_metadata: " + text + "\n"; }
const std::string kIgnoring = note("ignoring metadata flag"), kInvalid = note("invalid metadata");
const std::string kNoEnding = note("metadata ending was not found"), kNoClose = note("no closing braces for LSS flag");

std::string str_of(const vael_pmglob_string *s) {
    return std::string(reinterpret_cast<const char *>(s->pattern), s->size);
}

std::vector<vael_pm_one_pattern *> records(vael_pm_patterns *list) {
    std::vector<vael_pm_one_pattern *> out;
    for (uintptr_t v : vael_test::list_values(list))
        out.push_back(reinterpret_cast<vael_pm_one_pattern *>(v));
    return out;
}

TEST(Metadata, ParseTable) {
    const struct {
        std::string text;
        int allow_lss;
        uint32_t flags_in;
        int rc;
        std::string rest;                // the pattern after the metadata
        std::optional<std::string> lss;  // an LSS( item, when one was found
        uint32_t flags_out;
        std::string log;                 // exact log, K_PM at NOTICE
        int has;                         // vael_pm_pattern_has_metadata, -1 when it fails
    } cases[] = {
        {"{literal;caseless}:abc", 1, 0, 0, "abc", {}, kLiteral | kCaseless, "", 1},
        {"{LSS(abc)}:a.*bc", 1, 0, 0, "a.*bc", "abc", 0, "", 1}, {"{LSS(abc)}:x", 0, 0, 0, "x", {}, 0, kIgnoring, 1},
        {"{caseless}", 1, 0, -1, "", {}, 0, kNoEnding, -1},
        // "caseless" needs a byte behind it, but "case" matches by prefix.
        {"{caseless", 1, 0, -1, "", {}, 0, kNoEnding, -1}, {"{literal", 1, 0, -1, "", {}, 0, kInvalid, -1},
        {"{cas", 1, 0, -1, "", {}, 0, kInvalid, -1}, {"{caseless}:", 1, 0, 0, "", {}, kCaseless, "", 1},
        {"{", 1, 0, -1, "", {}, 0, kInvalid, -1}, {"{casefold}:x", 1, 0, -1, "", {}, 0, kNoEnding, -1},
        {"{foo}:x", 1, 0, 0, "x", {}, 0, kIgnoring, 0}, {"{foo;literal}:x", 1, 0, 0, "x", {}, kLiteral, kIgnoring, 1},
        {"{;caseless}:x", 1, 0, 0, "x", {}, kCaseless, kIgnoring, 1},
        {"{case}:x", 1, kCaseless | kLiteral, 0, "x", {}, kLiteral, "", 0},
        {"{caseless;case}:x", 1, 0, 0, "x", {}, 0, "", 0},
        {"{bound;shortlss}:w", 1, 0x1000, 0, "w", {}, 0x1000 | VAEL_PM_BOUND | VAEL_PM_SHORT_LSS, "", 1},
        {"{shortlss}:w", 1, 0, 0, "w", {}, VAEL_PM_SHORT_LSS, "", 1},
        {"{bound}:w", 1, 0, 0, "w", {}, VAEL_PM_BOUND, "", 1}, {"{literal}:w", 1, 0, 0, "w", {}, kLiteral, "", 1},
        {"{LSS(abc}:x", 1, 0, -1, "", {}, 0, kNoClose, -1}, {"{LSS(ab", 1, 0, -1, "", {}, 0, kNoClose, -1},
        {"{LSS(abc}:x)", 1, 0, -1, "", {}, 0, kNoEnding, -1}, {"{LSS(ab)c}:x", 1, 0, -1, "", {}, 0, kNoEnding, -1},
        // Four bytes are too few for an LSS( item; it is no known name either.
        {"{LSS(", 1, 0, -1, "", {}, 0, kInvalid, -1}, {"{LSS()}:x", 1, 0, 0, "x", "", 0, "", 0},
        {"{LSS(a);LSS(b)}:x", 1, 0, 0, "x", "a", 0, kIgnoring, 1},
        {"{caseless;LSS(a b)}:x{", 1, 0, 0, "x{", "a b", kCaseless, "", 1},
        {"abc", 1, kLiteral, 0, "abc", {}, kLiteral, "", 0},
        {"x{caseless}:y", 1, 0, 0, "x{caseless}:y", {}, 0, "", 0},
        {"{literal}:{abc", 0, 0, 0, "{abc", {}, kLiteral, "", 1},
        // The copy the has-check makes stops at a NUL, so the ')' is lost.
        {"{LSS(a\0b)}:y"s, 1, 0, 0, "y", "a\0b"s, 0, "", -1},
    };
    ScopedTopic topic("K_PM", VAEL_DBG_NOTICE);
    for (const auto &c : cases) {
        SCOPED_TRACE("text '" + c.text + "', allow_lss " + std::to_string(c.allow_lss));
        const char *pattern = c.text.data();
        uint32_t len = (uint32_t)c.text.size(), lss_len = 12345, flags = c.flags_in;
        const char *lss = nullptr;
        LogCapture log;
        EXPECT_EQ(vael_pm_patterns_parse_metadata(&lss, &lss_len, &pattern, &len, &flags, c.allow_lss), c.rc);
        EXPECT_EQ(log.text(), c.log);
        if (c.rc == 0) {
            EXPECT_EQ(std::string(pattern, len), c.rest);
            EXPECT_EQ(pattern + len, c.text.data() + c.text.size()) << "the rest points into the caller's text";
            EXPECT_EQ(flags, c.flags_out);
            EXPECT_EQ(lss ? std::optional<std::string>(std::string(lss, lss_len)) : std::nullopt, c.lss);
        }
        int has = 7;
        std::string copy = c.text;
        EXPECT_EQ(vael_pm_pattern_has_metadata(copy.data(), (uint32_t)copy.size(), &has), c.has < 0 ? -1 : 0);
        EXPECT_EQ(has, c.has < 0 ? 7 : c.has);
    }
}


enum class Op { kSimple, kPattern, kWithLss, kWord, kKw, kKwNoHistory };

struct AddCase {
    const char *name;
    Op op;
    std::string text;                // str, re, word or rule
    std::optional<std::string> lss;  // the lss argument of kWithLss and kKw*
    uint32_t flags;
    int rc;
    // The record made, when rc is 0.
    std::optional<std::string> want_lss, want_re;
    uint32_t want_flags, want_match_len, want_type;
};

int add(vael_pm_patterns *list, const AddCase &c, int32_t id) {
    const char *lss = c.lss ? c.lss->data() : nullptr;
    const auto lss_len = (uint32_t)(c.lss ? c.lss->size() : 0), len = (uint32_t)c.text.size();
    switch (c.op) {
    case Op::kSimple: return vael_pm_patterns_add_simple_pattern(list, c.text.data(), len, id, c.flags);
    case Op::kPattern: return vael_pm_patterns_add_pattern(list, c.text.data(), len, id, c.flags);
    case Op::kWithLss: return vael_pm_patterns_add_pattern_with_LSS(list, lss, lss_len, c.text.data(), len, id, c.flags);
    case Op::kWord: return vael_pm_patterns_add_word(list, c.text.data(), len, id, c.flags);
    case Op::kKw: return vael_pm_patterns_add_pattern_kw(list, lss, lss_len, c.text.c_str(), id);
    case Op::kKwNoHistory: return vael_pm_patterns_add_pattern_kw_nohistory(list, lss, lss_len, c.text.c_str(), id);
    }
    return -2;
}

void expect_record(const vael_pm_one_pattern *p, const AddCase &c, int32_t id) {
    EXPECT_EQ(p->id, id);
    EXPECT_EQ(p->flags, c.want_flags);
    EXPECT_EQ(p->match_len, c.want_match_len);
    EXPECT_EQ(p->type, c.want_type);
    for (auto [s, want] : {std::pair{p->lss, c.want_lss}, std::pair{p->re, c.want_re}}) {
        EXPECT_EQ(s ? std::optional<std::string>(str_of(s)) : std::nullopt, want);
        if (s) {
            EXPECT_EQ((s->pattern[s->size] << 8) | s->flags, c.want_flags) << "NUL-terminated, with the flags";
        }
    }
}

const uint32_t nh = VAEL_PM_NO_HISTORY;
const std::nullopt_t none = std::nullopt;
const std::vector<AddCase> kAddCases = {
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
    {"PatternBadMetadata", Op::kPattern, "{LSS(abc}:x", none, 0, -1, none, none, 0, 0, 0},
    {"PatternNoHistory", Op::kPattern, "a.*b", none, nh, 0, none, "a.*b", nh, 0, 0},
    {"WithLss", Op::kWithLss, "ab.*cd", "cd", kCaseless, 0, "cd", "ab.*cd", kCaseless, 0, 0},
    {"WithLssReplacedByMetadata", Op::kWithLss, "{LSS(ab)}:ab.*cd", "cd", 0, 0, "ab", "ab.*cd", 0, 0, 0},
    {"WithLssEmptyLssItem", Op::kWithLss, "{LSS()}:x", "ab", 0, 0, none, "x", 0, 0, 0},
    {"WithLssOnly", Op::kWithLss, "", "abc", 0, 0, "abc", none, 0, 0, 0},
    {"WithLssNullLss", Op::kWithLss, "{shortlss}:x+", none, 0, 0, none, "x+", VAEL_PM_SHORT_LSS, 0, 0},
    {"Word", Op::kWord, "two words", none, VAEL_PM_CONTINUOUS_WORD, 0, "two words", none, VAEL_PM_CONTINUOUS_WORD,
     9, 2},
    {"WordHasNoMetadata", Op::kWord, "{caseless}:x", none, 0, 0, "{caseless}:x", none, 0, 12, 2},
    {"WordNoHistory", Op::kWord, "word", none, nh, 0, "word", none, nh, 0, 2},
    {"Kw", Op::kKw, "data:abc;", "abc", 0, 0, "abc", "data:abc;", 0, 0, 1},
    {"KwNullLss", Op::kKw, "{caseless}:x", none, 0, 0, none, "{caseless}:x", 0, 0, 1},
    {"KwNoHistory", Op::kKwNoHistory, "data:abc;", "ab", 0, 0, "ab", "data:abc;", nh, 0, 1},
    {"KwEmpty", Op::kKw, "", none, 0, -1, none, none, 0, 0, 0},
};

// Each add is tried plainly, then walked through its allocation failures:
// every failure leaves the list as it was, and the record made is the same.
TEST(PatternAdd, RecordsOfEachOperationAndTheirAllocationFailures) {
    for (const auto &c : kAddCases) {
        for (int walker = 0; walker < (c.rc == 0 ? 2 : 1); walker++) {
            SCOPED_TRACE(std::string(c.name) + " walker " + std::to_string(walker));
            vael_pm_patterns *list = vael_pm_patterns_create();
            ASSERT_EQ(vael_pm_patterns_add_word(list, "first", 5, 1, 0), 0);
            const auto before = records(list);
            AddCase scratch = c;  // the caller's memory, scribbled over after the add
            int rc = 0;
            LogCapture quiet;
            auto attempt = [&] { return (rc = add(list, scratch, 42)) == 0; };
            auto clean = [&] { return rc == -1 && records(list) == before; };
            if (walker == 0) {
                EXPECT_EQ(attempt(), c.rc == 0);
            } else {
                auto w = vael_test::failmem_walk_each_allocation(attempt, clean);
                EXPECT_GT(w.rounds, 1);
            }
            scratch.text.assign(scratch.text.size(), 'Z');
            if (scratch.lss)
                scratch.lss->assign(scratch.lss->size(), 'Z');
            const auto after = records(list);
            ASSERT_EQ(after.size(), c.rc == 0 ? 2u : 1u);
            if (c.rc == 0)
                expect_record(after[1], c, 42);
            vael_pm_patterns_destroy(list);
        }
    }
}

// A NUL byte in a plain string is kept; in a regular expression it becomes the escape \x00, unless it would be
// escaped itself.
TEST(PatternAdd, NulBytes) {
    const std::string create = "vael[5]: vael_pm_patterns_one_pattern_create: NULL character is not supported in ";
    const std::string lss_note = create + "LSS - please use \\x00 instead. problematic LSS: ";
    const std::string re_note = create + "RE - please use \\x00 instead. problematic RE: ";
    const std::string illegal =
        "vael[5]: vael_pmglob_string_create_replace_nulls: Found illegal '\\0' in the string\n"
        "vael[5]: vael_pm_patterns_add_pattern_with_LSS_ex: Error creating one_pattern\n";
    // stored: the lss of a simple pattern, the re of a regex.
    const struct { Op op; std::string text; int allow_null, rc; std::string stored, log; } cases[] = {
        {Op::kSimple, "a\0b"s, 0, 0, "a\0b"s, lss_note + "a\\x00b\n"}, {Op::kSimple, "a\0b"s, 1, 0, "a\0b"s, ""},
        {Op::kPattern, "a\0b"s, 0, 0, "a\\x00b", re_note + "a\\x00b\n"},
        {Op::kPattern, "a\\\0"s, 0, -1, "", re_note + "a\\\\x00\n" + illegal},
        {Op::kPattern, "a\\\\\0"s, 1, 0, "a\\\\\\x00", ""}, {Op::kPattern, "\\\\\\\0"s, 1, -1, "", illegal},
        {Op::kPattern, "\\a\0"s, 1, 0, "\\a\\x00", ""}, {Op::kPattern, "\0\0"s, 1, 0, "\\x00\\x00", ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.text) + " allow " + std::to_string(c.allow_null));
        ScopedGlobal allow(vael_pm_allow_null_in_pattern, c.allow_null);
        vael_pm_patterns *list = vael_pm_patterns_create();
        LogCapture log;
        EXPECT_EQ(add(list, AddCase{"", c.op, c.text, none, 0, 0, none, none, 0, 0, 0}, 5), c.rc);
        EXPECT_EQ(log.text(), c.log);
        const auto r = records(list);
        ASSERT_EQ(r.size(), c.rc == 0 ? 1u : 0u);
        if (c.rc == 0) {
            EXPECT_EQ(str_of(c.op == Op::kSimple ? r[0]->lss : r[0]->re), c.stored);
        }
        vael_pm_patterns_destroy(list);
    }
    // The rewrite walked through its allocation failures.
    ScopedGlobal allow(vael_pm_allow_null_in_pattern, 1);
    vael_pm_patterns *list = vael_pm_patterns_create();
    int rc = 0;
    LogCapture quiet;
    auto w = vael_test::failmem_walk_each_allocation(
        [&] { return (rc = vael_pm_patterns_add_pattern_with_LSS(list, "a", 1, "a\0b\\\\\0c", 7, 9, 0)) == 0; },
        [&] { return rc == -1 && lst_nelements(list) == 0; });
    EXPECT_GT(w.rounds, 3);
    EXPECT_EQ(str_of(records(list)[0]->re), "a\\x00b\\\\\\x00c");
    vael_pm_patterns_destroy(list);
}

TEST(StringsError, FirstMessageWinsAndTheIdIsAlwaysWritten) {
    static const char kA[] = "first", kB[] = "second";
    enum Kind { kDetails, kDetails2, kDetails3, kSetId };
    struct Step { Kind kind; uint32_t type; const char *text; int32_t id; uint32_t index; };
    const struct { const char *name; std::vector<Step> steps; vael_pm_error want; } cases[] = {
        {"Nothing", {}, {-1, 1, nullptr, 0}},
        {"DetailsThenDetails2", {{kDetails, 0, kA, 0, 0}, {kDetails2, 2, kB, 5, 0}}, {-1, 0, kA, 0}},
        {"Details2Twice", {{kDetails2, 0, kA, 5, 0}, {kDetails2, 2, kB, 6, 0}}, {5, 0, kA, 0}},
        {"Details3Twice", {{kDetails3, 2, kA, 7, 9}, {kDetails3, 0, kB, 8, 10}}, {7, 2, kA, 9}},
        {"SetIdAfterMessage", {{kDetails2, 0, kA, 5, 0}, {kSetId, 0, nullptr, 11, 0}}, {11, 0, kA, 0}},
        {"SetIdTwice", {{kSetId, 0, nullptr, 3, 0}, {kSetId, 0, nullptr, -1, 0}}, {-1, 1, nullptr, 0}},
        {"NullTextIsNoMessage", {{kDetails, 2, nullptr, 0, 0}, {kDetails2, 0, kB, 4, 0}}, {4, 0, kB, 0}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vael_pm_error err{123, 77, "stale", 99};
        vael_pm_error_init(&err);
        for (vael_pm_error *e : {&err, (vael_pm_error *)nullptr})  // a null record is harmless
            for (const Step &s : c.steps)
                s.kind == kDetails    ? vael_pm_error_set_details(e, s.type, s.text)
                : s.kind == kDetails2 ? vael_pm_error_set_details2(e, s.type, s.text, s.id)
                : s.kind == kDetails3 ? vael_pm_error_set_details3(e, s.type, s.text, s.id, s.index)
                                      : vael_pm_error_set_pattern_id(e, s.id);
        EXPECT_EQ(err.pattern_id, c.want.pattern_id);
        EXPECT_EQ(err.error_type, c.want.error_type);
        EXPECT_EQ(err.error_string, c.want.error_string);
        EXPECT_EQ(err.error_index, c.want.error_index);
    }
}

int sign(int v) { return (v > 0) - (v < 0); }

// Random short strings over a small alphabet with NUL and both cases, so
// that every border (empty, NUL inside, needle longer than hay) comes up.
TEST(StringsBytes, SearchesAndComparesAgreeWithAReference) {
    std::mt19937 rng(7);
    const std::string alphabet("abzABZ\0", 7);
    auto random_text = [&](size_t max) { return vael_test::random_word(rng, alphabet, 0, max); };
    for (int i = 0; i < 20000; i++) {
        const std::string h = random_text(8), n = random_text(3);
        SCOPED_TRACE(testing::PrintToString(h) + " / " + testing::PrintToString(n));
        const auto hl = (uint32_t)(rng() % (h.size() + 1)), nl = (uint32_t)n.size();
        // strnstr: an empty needle gives the hay; a match starts before the first NUL of the hay.
        const size_t at = std::string_view(h.data(), hl).find(n);
        const bool empty = nl == 0 || n[0] == '\0';
        ASSERT_EQ(pm_strnstr(h.data(), n.data(), hl, nl),
                  empty ? h.data() : at < strnlen(h.data(), hl) ? h.data() + at : nullptr);
        // memmem: bytes only.
        const size_t mat = std::string_view(h.data(), hl).find(std::string_view(n));
        ASSERT_EQ(pm_memmem(n.data(), nl, h.data(), hl), mat == std::string_view::npos ? nullptr : h.data() + mat);
        // strnchr: the first byte c among n bytes.
        const char c = "abA\0"[rng() % 4];
        const void *chr = std::memchr(h.data(), c, hl);
        ASSERT_EQ(pm_strnchr(h.data(), hl, c), chr);
        // strncmp and strnicmp as the C library compares in the C locale.
        const std::string a = h + "\0"s, b = n + random_text(8) + "\0"s;
        const auto len = (uint32_t)(rng() % 10);
        ASSERT_EQ(pm_strncmp(a.c_str(), b.c_str(), len), sign(std::strncmp(a.c_str(), b.c_str(), len)));
        ASSERT_EQ(pm_strnicmp(a.c_str(), b.c_str(), len), sign(strncasecmp(a.c_str(), b.c_str(), len)));
    }
}

TEST(StringsBytes, ClassesAgreeWithTheCLocale) {
    for (int b = 0; b < 256; b++) {
        SCOPED_TRACE(b);
        const auto c = (unsigned char)b;
        const bool ascii = b < 128;
        EXPECT_EQ(is_lower(c), ascii && std::islower(b));
        EXPECT_EQ(is_upper(c), ascii && std::isupper(b));
        EXPECT_EQ(is_digit(c), ascii && std::isdigit(b));
        EXPECT_EQ(is_xdigit(c), ascii && std::isxdigit(b));
        EXPECT_EQ(is_punct(c), ascii && std::ispunct(b));
        EXPECT_EQ(is_print(c), ascii && std::isprint(b));
        EXPECT_EQ(is_word_character(c), ascii && (std::isalnum(b) || b == '_'));
        EXPECT_EQ(to_lower(c), ascii ? std::tolower(b) : b);
        EXPECT_EQ(to_upper(c), ascii ? std::toupper(b) : b);
    }
}

TEST(StringsBytes, DupFailsCleanly) {
    // pm_strdup copies with pm_strncpy: bytes after a NUL become NULs.
    char *dst = nullptr;
    uint32_t dst_len = 0;
    int rc = 0;
    auto w = vael_test::failmem_walk([&] { return (rc = pm_strdup("a\0bc", 4, &dst, &dst_len)) == 0; },
                                     [&] { return rc == -1; });
    EXPECT_EQ(w.rounds, 2);
    EXPECT_EQ(std::string(dst, dst_len), "a\0\0\0"s);
    qx_kfree_(dst, dst_len);
}

// Each byte translates as folding says, and each ring of the reverse table
// holds exactly the bytes that share a translation.
TEST(StringsXlation, TablesAndRings) {
    for (uint32_t flags = 0; flags < 4; flags++) {
        SCOPED_TRACE(flags);
        unsigned char table[256], reverse[256];
        vael_pmglob_char_xlation_build(flags, table);
        vael_pmglob_char_xlation_build_reverse(table, reverse);
        for (int b = 0; b < 256; b++) {
            const uint32_t fold_flags = (flags & 1 ? VAEL_PM_CASELESS : 0) | (flags & 2 ? VAEL_PM_DIGITLESS : 0);
            ASSERT_EQ(table[b], vael_test::fold((unsigned char)b, fold_flags)) << b;
            std::vector<int> ring{b};
            for (int x = reverse[b]; x != b && ring.size() <= 256; x = reverse[x])
                ring.push_back(x);
            int sharing = 0;
            for (int o = 0; o < 256; o++)
                sharing += table[o] == table[b];
            ASSERT_EQ(ring.size(), (size_t)sharing) << b;
            for (int m : ring)
                ASSERT_EQ(table[m], table[b]) << b << " ring member " << m;
        }
    }
}

// Five patterns: two strings, a PCRE and a REM expression that match once,
// and a PCRE expression whose LSS hits without a match.
vael_pm_handle *known_pm() {
    vael_pm_handle *pm = vael_pm_test::compile({{'s', "abc"}, {'s', "xyz"}, {'l', "foo[0-9]+bar", 0, "foo"},
                                                {'l', "qq[a-z]+ww", VAEL_PM_USE_REM, "qq"}, {'l', "zzz[0-9]", 0, "zzz"}},
                                               1, "stats test");
    for (const char *text : {"abc xyz foo12bar qqabww", "abcabc foo bar zzzq", "nothing"})
        vael_pm_test::run(pm, text, 0);
    return pm;
}

struct PmOwner {
    vael_pm_handle *pm = known_pm();
    ~PmOwner() { vael_pm_destroy(pm); }
};

std::string report(vael_pm_handle *pm, const char *flags, int level = 2) {
    vael_pm_stats_attrs attrs;
    vael_pm_stats_attrs_set_defaults(&attrs);
    EXPECT_EQ(vael_pm_stats_pars_flags(flags, &attrs), 0);
    LogCapture log;
    vael_pm_stats_print_ex(pm, level, 1, &attrs);
    return log.text();
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// The value after the label on the n-th line that starts with it.
std::string value_after(const std::string &text, const std::string &label, int nth = 0) {
    for (const std::string &line : lines_of(text))
        if (line.rfind(label, 0) == 0 && nth-- == 0)
            return line.substr(label.size());
    return "<missing " + label + ">";
}

// A CSV reader: ';' ends every field, a field may be quoted with '"'; no field here holds a ';'.
std::vector<std::map<std::string, std::string>> read_csv(const std::string &text) {
    std::vector<std::vector<std::string>> rows;
    for (const std::string &line : lines_of(text)) {
        EXPECT_TRUE(line.ends_with(';')) << line;
        std::istringstream in(line);
        rows.emplace_back();
        for (std::string f; std::getline(in, f, ';');)
            rows.back().push_back(f.size() > 1 && f[0] == '"' && f.back() == '"' ? f.substr(1, f.size() - 2) : f);
    }
    std::vector<std::map<std::string, std::string>> records(rows.empty() ? 0 : rows.size() - 1);
    for (size_t r = 1; r < rows.size(); r++) {
        EXPECT_LE(rows[r].size(), rows[0].size()) << "row " << r;
        for (size_t f = 0; f < rows[r].size() && f < rows[0].size(); f++)
            records[r - 1][rows[0][f]] = rows[r][f];
    }
    return records;
}

// Per pattern: first-tier hits, true matches and ratio as the scan makes them.
struct PatternRow { int32_t id; const char *tier1, *matches, *ratio, *lss, *tier2; };
const PatternRow kPatterns[] = {
    {1, "2", "2", "1/1", "abc", "FALSE"}, {2, "1", "1", "1/1", "xyz", "FALSE"},
    {3, "2", "1", "1/2", "foo", "TRUE"},  {4, "1", "1", "1/1", "qq", "TRUE"}, {5, "1", "0", "0", "zzz", "TRUE"},
};

TEST(StatsReport, TextAndCsvOfAKnownScanAgree) {
    PmOwner owner;
    ASSERT_TRUE(owner.pm);
    const std::string text = report(owner.pm, "");
    // The PM's own table.
    const std::map<std::string, std::string> kLines = {
        {"Number of patterns in PM: ", "5"}, {"Number of compiled second tiers in PM: ", "3"},
        {"Number of matches in first tier: ", "7"}, {"Maximal number of matches in one buffer in first tier: ", "4"},
        {"Number of second tiers which ran is: ", "3"},
        {"Printing PM ", std::to_string(owner.pm->pm_id) + " stats ( stats test )"},
        {"TIER1 type: ", "Thin NFA"},      {"Number of executed buffers is ", "3"},
        {"Max buffer length is ", "23"},   {"Avg buffer length is ", "16"},
        {"Avg execution time is ", "0 ns for PM, 0 ns for callbacks."},
    };
    for (const auto &[label, value] : kLines)
        EXPECT_EQ(value_after(text, label), value) << label;
    EXPECT_TRUE(text.find("TIER2 type: PCRE\n") != std::string::npos && text.find("TIER2 type: REM\n") != std::string::npos);

    // The same numbers as CSV, one table at a time; the pattern table both ways.
    auto pm_csv = read_csv(report(owner.pm, "/FORMAT=CSV,LEVEL=PM"));
    ASSERT_EQ(pm_csv.size(), 1u);
    EXPECT_EQ(pm_csv[0]["Patterns #"], value_after(text, "Number of patterns in PM: "));
    EXPECT_EQ(pm_csv[0]["Tier1 matches #"], value_after(text, "Number of matches in first tier: "));
    EXPECT_EQ(pm_csv[0]["Tier2 matches #"], value_after(text, "Number of matches in second tier: "));
    EXPECT_EQ(pm_csv[0]["Tier2 that ran #"], value_after(text, "Number of second tiers which ran is: "));
    auto t1_csv = read_csv(report(owner.pm, "/FORMAT=CSV,LEVEL=TIER1"));
    ASSERT_EQ(t1_csv.size(), 1u);
    EXPECT_EQ(t1_csv[0]["Matches #"], "7");
    EXPECT_EQ(t1_csv[0]["Avg buffer length"], "16");
    auto t2_csv = read_csv(report(owner.pm, "/FORMAT=CSV,LEVEL=TIER2"));
    ASSERT_EQ(t2_csv.size(), std::size(kPatterns));
    for (size_t i = 0; i < std::size(kPatterns); i++) {
        const PatternRow &p = kPatterns[i];
        EXPECT_EQ(value_after(text, "Pattern id: ", (int)i).substr(0, 13),
                  std::to_string(p.id) + " (internal " + std::to_string(i));
        EXPECT_EQ(value_after(text, "LSS (matched: ", (int)i),
                  std::string(p.tier1) + ", matches that resulted in pm match: " + p.matches +
                      ", match ratio: " + p.ratio + " ):" + p.lss);
        EXPECT_EQ(t2_csv[i]["Pattern id"], std::to_string(p.id));
        EXPECT_EQ(t2_csv[i]["LSS matches #"], p.tier1);
        EXPECT_EQ(t2_csv[i]["LSS matches # that resulted in pm match"], p.matches);
        EXPECT_EQ(t2_csv[i]["LSS match ratio"], p.ratio);
        EXPECT_EQ(t2_csv[i]["LSS string"], p.lss);
        EXPECT_EQ(t2_csv[i]["Tier2 exists"], p.tier2);
    }
    // A copy of the PM carries the engines' run figures over.
    vael_pm_handle *copy = vael_pm_duplicate(owner.pm, "stats copy");
    ASSERT_TRUE(copy);
    EXPECT_EQ(vael_pm_get_tier1_matches(copy), 7u);
    vael_pm_destroy(copy);
}

// Flags -> the parsed attributes (sort, ascending, format, level) or the parser's message.
TEST(StatsReport, FlagLanguage) {
    const struct { const char *flags; vael_pm_stats_attrs expect; const char *message; } kRows[] = {
        {"", {4, 1, 0, 7}, ""}, {"/S=PERF,D,FORMAT=CSV,LEVEL=TIER2", {3, 0, 1, 4}, ""}, {"/S=ID", {0, 1, 0, 7}, ""},
        {"/LEVEL=TIER1,D,S=MATCHES", {2, 0, 0, 2}, ""}, {"/S=INTERNAL_ID,FORMAT=TEXT", {4, 1, 0, 7}, ""},
        {"/X", {}, "Failed to parse flags: Unknown flag\n"},
        {"/S=FOO", {}, "Failed to parse flags: Illegal flag value (S=)\n"},
        {"/LEVEL=ALL", {}, "Failed to parse flags: Illegal flag value (LEVEL=)\n"},
        {"/S=ID;", {}, "Failed to parse flags: Illegal attribute/value\n"},
        {"S=ID", {}, "Failed to parse flags: Illegal flag\n"},
    };
    for (const auto &row : kRows) {
        SCOPED_TRACE(row.flags);
        vael_pm_stats_attrs attrs;
        vael_pm_stats_attrs_set_defaults(&attrs);
        LogCapture log;
        const int rc = vael_pm_stats_pars_flags(row.flags, &attrs);
        // The report's line ends what is printed; the log's notes may come before it.
        EXPECT_TRUE(*row.message ? log.text().ends_with(row.message) : log.text().empty()) << log.text();
        EXPECT_EQ(rc, *row.message ? -1 : 0);
        if (rc == 0) {
            EXPECT_EQ(std::tie(attrs.sort, attrs.ascending, attrs.format, attrs.level),
                      std::tie(row.expect.sort, row.expect.ascending, row.expect.format, row.expect.level));
        }
    }
}

// The operator's texts -> lines the report holds, and one it must not.
TEST(StatsReport, OperatorEntry) {
    PmOwner owner;
    const struct { const char *text; std::vector<std::string> present; const char *absent; } kRows[] = {
        {"ALL", {"Number of PMs is 1\n", "TIER1 stats\n", "Pattern id: 5 (internal 4)"}, "CSV"},
        {"ALL/FORMAT=CSV",
         {"Can't print CSV format for more than one level. Specify LEVEL=PM/TIER1/TIER2\n"}, "PM id;"},
        {"ALL/FORMAT=CSV,LEVEL=TIER1",
         {"**** START CSV FORMAT ****\nPM id;PM name;Tier1 type;", "**** END CSV FORMAT ****\n"}, "Pattern id"},
        {"ALL/X", {"Failed to parse flags: Unknown flag\n"}, "Printing PM"},
        {"qq[a-z", {"Requested Statistics for PM holding pattern: qq[a-z\n", "Printing PM"}, "Can't find"},
        {"abc", {"Can't find any PM holding this pattern\n"}, "Printing PM"}, {"RESET", {}, "Number of PMs"},
        {"ALL/LEVEL=TIER1", {"Number of executed buffers is 0\n"}, "Number of executed buffers is 3"},
    };
    for (const auto &row : kRows) {
        std::snprintf(vael_pm_stats_pattern, sizeof vael_pm_stats_pattern, "%s", row.text);
        LogCapture log;
        vael_pm_stats_print_cb();
        for (const std::string &line : row.present)
            EXPECT_TRUE(log.contains(line)) << row.text << " lacks " << line << "\n" << log.text();
        EXPECT_FALSE(log.contains(row.absent)) << row.text << "\n" << log.text();
    }
    // The reset leaves the patterns' own counters.
    EXPECT_EQ(owner.pm->pm_array[0].tier1_matches, 2u);
    EXPECT_EQ(vael_pm_get_tier1_matches(owner.pm), 0u);
}

// Sort flags -> order of the pattern table (ties keep the list's insertion
// rule: a new equal element goes before the old).
TEST(StatsReport, PatternOrder) {
    PmOwner owner;
    const std::pair<const char *, std::vector<int>> kRows[] = {
        {"/LEVEL=TIER2", {1, 2, 3, 4, 5}},               {"/LEVEL=TIER2,D", {5, 4, 3, 2, 1}},
        {"/LEVEL=TIER2,S=MATCHES,D", {1, 4, 3, 2, 5}},   {"/LEVEL=TIER2,S=TIER1", {5, 4, 2, 3, 1}},
    };
    for (const auto &[flags, ids] : kRows) {
        std::vector<int> got;
        for (const std::string &line : lines_of(report(owner.pm, flags)))
            if (line.rfind("Pattern id: ", 0) == 0)
                got.push_back(std::stoi(line.substr(12)));
        EXPECT_EQ(got, ids) << flags;
    }
}

// The pattern table's sort list under each allocation failure: the report says so and the accounts come back.
TEST(StatsReport, SortListFailmemWalk) {
    PmOwner owner;
    vael_pm_stats_attrs attrs{VAEL_PM_STATS_SORT_ID, 1, VAEL_PM_STATS_FORMAT_TEXT, VAEL_PM_STATS_LEVEL_TIER2};
    std::string last;
    auto attempt = [&] {
        LogCapture log;
        vael_pm_stats_print_ex(owner.pm, 2, 1, &attrs);
        last = log.text();
        return !log.contains("Failed to sort patterns\n");
    };
    auto failed_cleanly = [&] { return last.find("Pattern id") == std::string::npos; };
    const vael_test::FailmemWalk w = vael_test::failmem_walk_each_allocation(attempt, failed_cleanly);
    EXPECT_TRUE(w.succeeded);
    EXPECT_GE(w.rounds, 7);  // the list and an element per pattern
}

}  // namespace
