// The leaf functions of the pattern matcher: the error record, byte strings and ASCII classes held against the C
// library, the character translation tables of a caseless or digitless first tier, and the PM uuid.
#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "pm/vael_pm_strings.h"
#include "tests/pm/pm_test_util.h"
#include "tests/support/failmem_walk.h"

namespace {

using namespace std::string_literals;

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
    auto random_text = [&](size_t max) {
        std::string s;
        for (size_t n = rng() % (max + 1); n > 0; n--)
            s += "abzABZ\0"[rng() % 7];
        return s;
    };
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

}  // namespace
