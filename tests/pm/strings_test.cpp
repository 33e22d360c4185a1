// The leaf functions of the pattern matcher: the error record, byte strings
// without a locale, ASCII character classes, the character translation
// tables of a caseless or digitless first tier, and the PM uuid.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "pm/vael_pm_internal.h"
#include "pm/vael_pm_strings.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"

namespace {

using namespace std::string_literals;
using vael_test::LogCapture;

const std::string kP = "vael[5]: ";

// ---------------------------------------------------------------- errors

struct ErrorStep {
    enum Kind { kDetails, kDetails2, kDetails3, kSetId } kind;
    uint32_t type = 0;
    const char *text = nullptr;
    int32_t id = 0;
    uint32_t index = 0;
};

void apply(vael_pm_error *err, const ErrorStep &s) {
    switch (s.kind) {
    case ErrorStep::kDetails:
        return vael_pm_error_set_details(err, s.type, s.text);
    case ErrorStep::kDetails2:
        return vael_pm_error_set_details2(err, s.type, s.text, s.id);
    case ErrorStep::kDetails3:
        return vael_pm_error_set_details3(err, s.type, s.text, s.id, s.index);
    case ErrorStep::kSetId:
        return vael_pm_error_set_pattern_id(err, s.id);
    }
}

TEST(StringsError, FirstMessageWinsAndTheIdIsAlwaysWritten) {
    static const char kA[] = "first", kB[] = "second";
    using S = ErrorStep;
    struct Case {
        const char *name;
        std::vector<ErrorStep> steps;
        vael_pm_error want;
    };
    const std::vector<Case> cases = {
        {"Nothing", {}, {-1, 1, nullptr, 0}},
        {"Details", {{S::kDetails, 2, kA}}, {-1, 2, kA, 0}},
        {"DetailsThenDetails2", {{S::kDetails, 0, kA}, {S::kDetails2, 2, kB, 5}}, {-1, 0, kA, 0}},
        {"Details2Twice", {{S::kDetails2, 0, kA, 5}, {S::kDetails2, 2, kB, 6}}, {5, 0, kA, 0}},
        {"Details3Twice", {{S::kDetails3, 2, kA, 7, 9}, {S::kDetails3, 0, kB, 8, 10}}, {7, 2, kA, 9}},
        {"Details3ThenDetails", {{S::kDetails3, 0, kA, 1, 5}, {S::kDetails, 2, kB}}, {1, 0, kA, 5}},
        {"SetIdAfterMessage", {{S::kDetails2, 0, kA, 5}, {S::kSetId, 0, nullptr, 11}}, {11, 0, kA, 0}},
        {"SetIdBeforeMessage", {{S::kSetId, 0, nullptr, 3}, {S::kDetails, 0, kA}}, {3, 0, kA, 0}},
        {"SetIdTwice", {{S::kSetId, 0, nullptr, 3}, {S::kSetId, 0, nullptr, -1}}, {-1, 1, nullptr, 0}},
        {"NullTextIsNoMessage", {{S::kDetails, 2, nullptr}, {S::kDetails2, 0, kB, 4}}, {4, 0, kB, 0}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        vael_pm_error err{123, 77, "stale", 99};
        vael_pm_error_init(&err);
        for (const auto &s : c.steps)
            apply(&err, s);
        EXPECT_EQ(err.pattern_id, c.want.pattern_id);
        EXPECT_EQ(err.error_type, c.want.error_type);
        EXPECT_EQ(err.error_string, c.want.error_string);
        EXPECT_EQ(err.error_index, c.want.error_index);
    }
}

TEST(StringsError, NullRecordIsHarmless) {
    LogCapture log;
    vael_pm_error_init(nullptr);
    for (auto kind : {ErrorStep::kDetails, ErrorStep::kDetails2, ErrorStep::kDetails3, ErrorStep::kSetId})
        apply(nullptr, ErrorStep{kind, 0, "x", 1, 2});
    vael_pm_error_dump(nullptr);
    EXPECT_EQ(log.text(), "");
}

TEST(StringsError, DumpText) {
    vael_pm_error err;
    vael_pm_error_init(&err);
    LogCapture log;
    vael_pm_error_dump(&err);
    EXPECT_EQ(log.text(), kP + "error details: pattern id: -1, error type: 1, index: 0\n" + kP +
                              "error message: No message available\n");
    vael_pm_error_set_details3(&err, 2, "too many states", 42, 17);
    log.clear();
    vael_pm_error_dump(&err);
    EXPECT_EQ(log.text(), kP + "error details: pattern id: 42, error type: 2, index: 17\n" + kP +
                              "error message: too many states\n");
}

// ---------------------------------------------------------------- byte strings

TEST(StringsBytes, Strnstr) {
    struct Case {
        std::string hay;
        uint32_t hay_len;
        std::string needle;
        uint32_t needle_len;
        int at;  // -1: not found
    };
    const std::vector<Case> cases = {
        {"hello world", 11, "world", 5, 6},
        {"hello", 5, "", 0, 0},
        {"hello", 5, "xyz", 0, 0},
        {"hello", 5, "\0x"s, 2, 0},
        {"abab", 4, "ab", 2, 0},
        {"xxab", 4, "ab", 2, 2},
        {"ab\0cd"s, 5, "cd", 2, -1},
        {"abcd", 3, "cd", 2, -1},
        {"a", 1, "ab", 2, -1},
        {"aaab", 4, "aab", 3, 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.hay) + " / " + testing::PrintToString(c.needle));
        const char *r = pm_strnstr(c.hay.data(), c.needle.data(), c.hay_len, c.needle_len);
        EXPECT_EQ(r, c.at < 0 ? nullptr : c.hay.data() + c.at);
    }
}

TEST(StringsBytes, StrncpyStrlenStrcat) {
    char dst[8];
    std::memset(dst, 'X', sizeof dst);
    EXPECT_EQ(pm_strncpy(dst, "ab\0cd", 6), dst);
    EXPECT_EQ(std::string(dst, 8), "ab\0\0\0\0XX"s);
    std::memset(dst, 'X', sizeof dst);
    pm_strncpy(dst, "abc", 2);
    EXPECT_EQ(std::string(dst, 8), "abXXXXXX");
    pm_strncpy(dst, "abc", 0);
    EXPECT_EQ(dst[0], 'a');
    EXPECT_EQ(pm_strlen("abc"), 3u);
    EXPECT_EQ(pm_strlen(""), 0u);
    char buf[8] = "ab";
    EXPECT_EQ(pm_strcat(buf, "cd"), buf);
    EXPECT_EQ(std::string(buf, 5), "abcd\0"s);
}

TEST(StringsBytes, StrncmpAndStrnicmp) {
    struct Case {
        std::string a, b;
        uint32_t n;
        int cmp, icmp;
    };
    const std::vector<Case> cases = {
        {"abc", "abc", 3, 0, 0},      {"abc", "abd", 3, -1, -1},     {"abd", "abc", 3, 1, 1},
        {"ABC", "abd", 2, -1, 0},     {"ABC", "abd", 3, -1, -1},     {"Z", "a", 1, -1, 1},
        {"\xff", "a", 1, 1, 1},       {"ab\0x"s, "ab\0y"s, 4, 0, 0}, {"ab", "abc", 3, -1, -1},
        {"abc", "xyz", 0, 0, 0},      {"[", "{", 1, -1, -1},         {"\xc1", "\xe1", 1, -1, -1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.a) + " / " + testing::PrintToString(c.b) + " n " +
                     std::to_string(c.n));
        EXPECT_EQ(pm_strncmp(c.a.c_str(), c.b.c_str(), c.n), c.cmp);
        EXPECT_EQ(pm_strnicmp(c.a.c_str(), c.b.c_str(), c.n), c.icmp);
    }
}

TEST(StringsBytes, StrnchrAndMemmem) {
    const std::string s = "abca\0b"s;
    struct ChrCase {
        uint32_t n;
        char c;
        int at;
    };
    for (const auto &c : std::vector<ChrCase>{{6, 'c', 2}, {6, 'a', 0}, {0, 'a', -1}, {2, 'c', -1},
                                              {6, '\0', 4}, {6, 'b', 1}, {6, 'z', -1}}) {
        SCOPED_TRACE(std::to_string(c.n) + " " + c.c);
        EXPECT_EQ(pm_strnchr(s.data(), c.n, c.c), c.at < 0 ? nullptr : s.data() + c.at);
    }
    struct MemCase {
        std::string needle;
        std::string hay;
        int at;
    };
    for (const auto &c : std::vector<MemCase>{{"cd", "abcd", 2},
                                              {"", "abc", 0},
                                              {"abcde", "abc", -1},
                                              {"\0b"s, "a\0b"s, 1},
                                              {"bd", "abcd", -1},
                                              {"abc", "abc", 0},
                                              {"aab", "aaab", 1}}) {
        SCOPED_TRACE(testing::PrintToString(c.needle) + " in " + testing::PrintToString(c.hay));
        const void *r = pm_memmem(c.needle.data(), (uint32_t)c.needle.size(), c.hay.data(), (uint32_t)c.hay.size());
        EXPECT_EQ(r, c.at < 0 ? nullptr : c.hay.data() + c.at);
    }
}

TEST(StringsBytes, Strdup) {
    struct Case {
        const char *src;
        uint32_t len;
        std::optional<std::string> copy;  // none: a null copy of length 0
    };
    const std::vector<Case> cases = {
        {"a\0bc", 4, "a\0\0\0"s},
        {"abc", 3, "abc"},
        {"abcdef", 2, "ab"},
        {nullptr, 4, std::nullopt},
        {"abc", 0, std::nullopt},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.len);
        char *dst = reinterpret_cast<char *>(&dst);
        uint32_t dst_len = 99;
        ASSERT_EQ(pm_strdup(c.src, c.len, &dst, &dst_len), 0);
        if (!c.copy) {
            EXPECT_EQ(dst, nullptr);
            EXPECT_EQ(dst_len, 0u);
            continue;
        }
        ASSERT_NE(dst, nullptr);
        EXPECT_EQ(std::string(dst, dst_len), *c.copy);
        qx_kfree_(dst, dst_len);
    }
    // Out of memory is -1 and leaves nothing behind.
    char *dst = nullptr;
    uint32_t dst_len = 0;
    int rc = 0;
    auto w = vael_test::failmem_walk([&] { return (rc = pm_strdup("abc", 3, &dst, &dst_len)) == 0; },
                                     [&] { return rc == -1; });
    EXPECT_EQ(w.rounds, 2);
    EXPECT_EQ(std::string(dst, dst_len), "abc");
    qx_kfree_(dst, dst_len);
}

TEST(StringsBytes, DebugText) {
    struct Case {
        std::string in;
        uint32_t len;
        std::string plain, csv;
    };
    const std::vector<Case> cases = {
        {"abc", 3, "abc", "abc"},
        {"abcdef", 3, "abc", "abc"},
        {"", 0, "", ""},
        {"a\x01\xff b", 5, "a\\x01\\xff b", "a\\x01\\xff b"},
        {"tab\there\r\n", 10, "tab\\x09here\\x0d\\x0a", "tab\\x09here\\x0d\\x0a"},
        {"a\0b"s, 3, "a\\x00b", "a\\x00b"},
        {"\"q\"='x'", 7, "\"q\"='x'", "\\x22q\\x22='x'"},
        {"~{}|\\\x7f", 6, "~{}|\\\\x7f", "~{}|\\\\x7f"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.in));
        EXPECT_EQ(std::string(pm_str_to_debug_charp(c.in.data(), c.len)), c.plain);
        EXPECT_EQ(std::string(pm_str_to_debug_charp_for_csv(c.in.data(), c.len)), c.csv);
    }
    // One buffer, overwritten by the next call.
    const char *first = pm_str_to_debug_charp("abc", 3);
    const char *second = pm_str_to_debug_charp("xyz", 3);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "xyz");
}

TEST(StringsBytes, DebugTextOfALongTextIsCut) {
    std::string hex;
    for (int i = 0; i < 100; i++)
        hex += "\\x01";
    // Input and the text it would give with no limit.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {std::string(300, 'a'), std::string(300, 'a')},
        {std::string(100, '\x01'), hex},
        {std::string(198, 'b') + "\x02\x03", std::string(198, 'b') + "\\x02\\x03"},
    };
    for (const auto &[in, full] : cases) {
        SCOPED_TRACE(in.size());
        for (auto fn : {pm_str_to_debug_charp, pm_str_to_debug_charp_for_csv}) {
            const std::string got = fn(in.data(), (uint32_t)in.size());
            EXPECT_LT(got.size(), 200u);
            EXPECT_GE(got.size(), 190u);
            EXPECT_EQ(full.compare(0, got.size(), got), 0) << got;
        }
    }
}

TEST(StringsBytes, DumpStr) {
    struct Case {
        std::string in;
        std::string out;
    };
    const std::vector<Case> cases = {
        {"abc", "abc\n"},
        {"", "\n"},
        {"a\x01 b\xff\"\t"s, "a\\x1 b\\xff\"\\x9\n"},
        {"\0z"s, "\\x0z\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.in));
        LogCapture log;
        pm_dump_str(c.in.data(), (uint32_t)c.in.size());
        EXPECT_EQ(log.text(), c.out);
    }
}

// ---------------------------------------------------------------- characters

TEST(StringsChars, EveryByteAgainstAsciiRanges) {
    const std::string punct = "!@#$%^&*()_-+=|\\~`{[}]:;\"'<,>.?/";
    ASSERT_EQ(punct.size(), 32u);
    int punct_count = 0, print_count = 0;
    for (int b = 0; b < 256; b++) {
        SCOPED_TRACE(b);
        const auto c = (unsigned char)b;
        const bool lower = b >= 'a' && b <= 'z', upper = b >= 'A' && b <= 'Z', digit = b >= '0' && b <= '9';
        const bool listed = b != 0 && punct.find((char)c) != std::string::npos;
        EXPECT_EQ(is_lower(c), lower);
        EXPECT_EQ(is_upper(c), upper);
        EXPECT_EQ(is_alpha(c), lower || upper);
        EXPECT_EQ(is_digit(c), digit);
        EXPECT_EQ(is_space(c), b == ' ');
        EXPECT_EQ(is_underscore(c), b == '_');
        EXPECT_EQ(is_word_character(c), lower || upper || digit || b == '_');
        EXPECT_EQ(is_punct(c), listed);
        // The listed bytes are all ASCII graphic bytes that are no letter or digit.
        EXPECT_EQ(is_punct(c), b > 0x20 && b < 0x7f && !lower && !upper && !digit);
        EXPECT_EQ(is_print(c), b >= 0x20 && b <= 0x7e);
        EXPECT_EQ(is_not_special(c), b != '\\' && b != ',' && b != '\'' && b != '"');
        EXPECT_EQ(is_whitespace(c), b == ' ' || b == '\t' || b == '\n');
        EXPECT_EQ(is_xdigit(c), digit || (b >= 'a' && b <= 'f') || (b >= 'A' && b <= 'F'));
        EXPECT_EQ(to_lower(c), upper ? b + 32 : b);
        EXPECT_EQ(to_upper(c), lower ? b - 32 : b);
        punct_count += is_punct(c);
        print_count += is_print(c);
    }
    EXPECT_EQ(punct_count, 32);
    EXPECT_EQ(print_count, 95);
}

// ---------------------------------------------------------------- translation tables

// The members of b's ring, b first.
std::vector<int> ring(const unsigned char *reverse, int b) {
    std::vector<int> out{b};
    for (int x = reverse[b]; x != b && out.size() <= 256; x = reverse[x])
        out.push_back(x);
    return out;
}

TEST(StringsXlation, TablesAndRings) {
    for (uint32_t flags = 0; flags < 4; flags++) {
        SCOPED_TRACE(flags);
        unsigned char table[256], reverse[256];
        vael_pmglob_char_xlation_build(flags, table);
        vael_pmglob_char_xlation_build_reverse(table, reverse);
        for (int b = 0; b < 256; b++) {
            int want = b;
            if ((flags & 2) && b >= '0' && b <= '9')
                want = '0';
            else if ((flags & 1) && b >= 'A' && b <= 'Z')
                want = b + 32;
            ASSERT_EQ(table[b], want) << b;
            // Each ring holds exactly the bytes that share a translation.
            std::vector<int> members = ring(reverse, b);
            size_t expected_size = 1;
            if ((flags & 2) && b >= '0' && b <= '9')
                expected_size = 10;
            else if ((flags & 1) && (is_alpha((unsigned char)b)))
                expected_size = 2;
            ASSERT_EQ(members.size(), expected_size) << b;
            for (int m : members)
                ASSERT_EQ(table[m], table[b]) << b << " ring member " << m;
        }
    }
    unsigned char table[256];
    vael_pmglob_char_xlation_build(3, table);
    EXPECT_EQ(table['Q'], 'q');
    EXPECT_EQ(table['7'], '0');
    EXPECT_EQ(table['q'], 'q');
}

TEST(StringsXlation, Dump) {
    unsigned char table[256], reverse[256];
    vael_pmglob_char_xlation_build(3, table);
    vael_pmglob_char_xlation_build_reverse(table, reverse);
    LogCapture log;
    vael_pmglob_char_xlation_dump(table, reverse, "T");
    const std::string &t = log.text();
    EXPECT_EQ(t.rfind(kP + "T: Character translation table:\n", 0), 0u);
    EXPECT_NE(t.find(kP + "T: Q (51) -> q (71)\n"), std::string::npos);
    EXPECT_NE(t.find(kP + "T: 7 (37) -> 0 (30)\n"), std::string::npos);
    EXPECT_NE(t.find(kP + "T: Character group: 0 (30) 9 (39) 8 (38) 7 (37) 6 (36) 5 (35) 4 (34) 3 (33) 2 (32) 1 (31)\n"),
              std::string::npos);
    EXPECT_NE(t.find(kP + "T: Character group: q (71) Q (51)\n"), std::string::npos);
    const std::string counts = kP + "T: 35 translated characters, 27 non-trivial character groups\n";
    ASSERT_GE(t.size(), counts.size());
    EXPECT_EQ(t.substr(t.size() - counts.size()), counts);

    struct Case {
        uint32_t flags;
        bool with_reverse;
        std::string counts;
    };
    for (const auto &c : std::vector<Case>{{0, true, "0 translated characters, 0 non-trivial character groups\n"},
                                           {1, false, "26 translated characters, 0 non-trivial character groups\n"},
                                           {2, true, "9 translated characters, 1 non-trivial character groups\n"}}) {
        SCOPED_TRACE(c.flags);
        vael_pmglob_char_xlation_build(c.flags, table);
        vael_pmglob_char_xlation_build_reverse(table, reverse);
        log.clear();
        vael_pmglob_char_xlation_dump(table, c.with_reverse ? reverse : nullptr, "N");
        const std::string tail = kP + "N: " + c.counts;
        ASSERT_GE(log.text().size(), tail.size());
        EXPECT_EQ(log.text().substr(log.text().size() - tail.size()), tail);
        EXPECT_EQ(log.text().find("Character group") != std::string::npos, c.flags != 0 && c.with_reverse);
    }
}

TEST(StringsXlation, DumpShowsUnprintableBytesAndCorruptGroups) {
    unsigned char table[256], reverse[256];
    for (int b = 0; b < 256; b++)
        table[b] = reverse[b] = (unsigned char)b;
    table[0x01] = 0x80;
    // A ring that never comes back to its head 'a'.
    reverse['a'] = 'b';
    reverse['b'] = 'c';
    reverse['c'] = 'b';
    LogCapture log;
    vael_pmglob_char_xlation_dump(table, reverse, "X");
    std::string corrupt = kP + "X: Character group: a (61)";
    for (int i = 0; i < 128; i++)
        corrupt += " b (62) c (63)";
    corrupt += " Corrupt group\n";
    EXPECT_NE(log.text().find(kP + "X: _ (01) -> _ (80)\n"), std::string::npos);
    EXPECT_NE(log.text().find(corrupt), std::string::npos);
    EXPECT_NE(log.text().find(kP + "X: 1 translated characters, 3 non-trivial character groups\n"),
              std::string::npos);
}

// ---------------------------------------------------------------- uuid

struct UuidWords {
    uint32_t time, count, serial, node;
    uint32_t seq() const { return count & 0xffff; }
    uint32_t clock_seq() const { return count >> 16; }
};

UuidWords words(const unsigned char *u) {
    UuidWords w;
    std::memcpy(&w, u, 16);
    return w;
}

UuidWords build_ex(uint32_t serial, uint32_t time, int32_t pid = 0x1234) {
    unsigned char u[16];
    vael_pmglob_uuid_build_ex(u, serial, time, pid);
    return words(u);
}

TEST(StringsUuid, ClockStepsBackAndForth) {
    // Whatever the clock was, a step back or forth to 999 and one forward
    // to 1000 start the walk with seq 0.
    build_ex(1, 999);
    const UuidWords first = build_ex(1, 1000);
    ASSERT_EQ(first.seq(), 0u);
    const uint32_t base = first.clock_seq();
    struct Step {
        uint32_t time;
        uint32_t clock_seq;  // over base
        uint32_t seq;
    };
    const std::vector<Step> steps = {
        {1000, 0, 1}, {1000, 0, 2}, {1001, 0, 0}, {1001, 0, 1}, {999, 1, 0}, {999, 1, 1},
        // Times compare as signed numbers: this one lies before 999.
        {0x80000000u, 2, 0},
        {1000, 2, 0}, {1000, 2, 1},
    };
    uint32_t serial = 10;
    for (const auto &s : steps) {
        SCOPED_TRACE(s.time);
        UuidWords w = build_ex(serial, s.time);
        EXPECT_EQ(w.time, s.time);
        EXPECT_EQ(w.clock_seq(), (base + s.clock_seq) & 0xffff);
        EXPECT_EQ(w.seq(), s.seq);
        EXPECT_EQ(w.serial, serial);
        EXPECT_EQ(w.node, 0x1234fffeu);
        serial++;
    }
}

TEST(StringsUuid, SeqWrapsAt65535) {
    build_ex(1, 4999);
    const uint32_t base = build_ex(1, 5000).clock_seq();
    UuidWords w{};
    for (int i = 1; i <= 65534; i++)
        w = build_ex(1, 5000);
    EXPECT_EQ(w.seq(), 65534u);
    EXPECT_EQ(w.clock_seq(), base);
    w = build_ex(1, 5000);
    EXPECT_EQ(w.seq(), 0u);
    EXPECT_EQ(w.clock_seq(), (base + 1) & 0xffff);
    w = build_ex(1, 5000);
    EXPECT_EQ(w.seq(), 1u);
}

TEST(StringsUuid, NodeHoldsTheLow16BitsOfThePid) {
    for (auto [pid, node] : std::vector<std::pair<int32_t, uint32_t>>{
             {0x12345, 0x2345fffeu}, {-2, 0xfffefffeu}, {0, 0x0000fffeu}})
        EXPECT_EQ(build_ex(1, 7000, pid).node, node) << pid;
}

TEST(StringsUuid, TwoBuiltInOneSecondDiffer) {
    unsigned char a[16], b[16];
    for (int tries = 0; tries < 5; tries++) {
        vael_pmglob_uuid_build(a);
        vael_pmglob_uuid_build(b);
        if (words(a).time == words(b).time)
            break;
    }
    const UuidWords x = words(a), y = words(b);
    ASSERT_EQ(x.time, y.time);
    EXPECT_EQ(y.seq(), (x.seq() + 1) % 65535);
    EXPECT_EQ(y.serial, x.serial + 1);
    EXPECT_EQ(x.node, (((uint32_t)getpid() & 0xffffu) << 16) | 0xfffeu);
    EXPECT_NEAR((double)x.time, (double)qx_abstime(), 2.0);
    EXPECT_EQ(vael_pmglob_uuid_cmp(a, b), 1);
    vael_pmglob_uuid_build(nullptr);
}

TEST(StringsUuid, CompareAndCopy) {
    unsigned char a[16], b[20];
    for (int i = 0; i < 16; i++)
        a[i] = (unsigned char)(i * 7 + 1);
    std::memset(b, 0xee, sizeof b);
    EXPECT_EQ(vael_pmglob_uuid_cmp(a, b), 1);
    vael_pmglob_uuid_cpy(b, a);
    EXPECT_EQ(std::memcmp(a, b, 16), 0);
    EXPECT_EQ(b[16], 0xee) << "exactly 16 bytes are copied";
    EXPECT_EQ(vael_pmglob_uuid_cmp(a, b), 0);
    b[15] ^= 1;
    EXPECT_EQ(vael_pmglob_uuid_cmp(a, b), 1);
    b[15] ^= 1;
    EXPECT_EQ(vael_pmglob_uuid_cmp(nullptr, b), -1);
    EXPECT_EQ(vael_pmglob_uuid_cmp(a, nullptr), -1);
    EXPECT_EQ(vael_pmglob_uuid_cmp(nullptr, nullptr), -1);
    vael_pmglob_uuid_cpy(b, nullptr);
    vael_pmglob_uuid_cpy(nullptr, a);
    EXPECT_EQ(vael_pmglob_uuid_cmp(a, b), 0);
}

}  // namespace
