// The keywords `data`, `length` and `test` one by one: texts and refusals, runs, scan memory, images; the Boyer-Moore
// search of `data` against a naive one (the tables are what the search reads: a wrong entry misses or misplaces a
// find).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "keywords/vael_bm.h"
#include "keywords/vael_kw_keywords.h"
#include "keywords/vael_kw_mgr.h"
#include "tests/support/vael_test_support.h"

namespace {

const unsigned char *u(const std::string &s) { return reinterpret_cast<const unsigned char *>(s.data()); }
const vael_kw_vtable &vt(uint32_t type) { return *vael_kw_table[type].vtable; }

// A keyword from its text as written in a rule; the manager hands the text
// over with its ';' made a ','.
struct Keyword {
    vael_kw_abs *kw = nullptr;
    vael_pm_error err{};
    uint32_t type;
    explicit Keyword(std::string text) {
        vael_pm_error_init(&err);
        if (text.back() == ';')
            text.back() = ',';
        type = text.rfind("data", 0) == 0 ? VAEL_KW_TYPE_DATA
               : text.rfind("length", 0) == 0 ? VAEL_KW_TYPE_LENGTH : VAEL_KW_TYPE_TEST;
        kw = vt(type).create(text.c_str(), type, &err);
    }
    ~Keyword() { vt(type).destroy(kw); }
    std::string error() const { return err.error_string ? err.error_string : ""; }
    vael_kw_data *data() const { return reinterpret_cast<vael_kw_data *>(kw); }
};

std::vector<unsigned char> image_of(vael_kw_abs *kw) {
    std::vector<unsigned char> image(vt(kw->type).get_serialized_size(kw));
    unsigned char *pos = image.data();
    uint32_t space = (uint32_t)image.size();
    EXPECT_EQ(vt(kw->type).serialize(kw, &pos, &space), 0);
    EXPECT_EQ(space, 0u);
    return image;
}

// What each text makes (properties, flags, depth, data's bytes) or the
// refusal the author reads.
TEST(KwKeyword, Create) {
    constexpr uint32_t X = VAEL_KW_FLAG_NUM_EXTRACT, Bin = X | VAEL_KW_FLAG_BIG | VAEL_KW_FLAG_UNSIGNED,
                       Str = X | VAEL_KW_FLAG_STRING | VAEL_KW_FLAG_SIGNED;
    // error null: accepted.
    struct Case { const char *text, *error; uint32_t props = 0, flags = 0, depth = 0; std::string pattern = {}; };
    const Case cases[] = {
        {"data: \"ab|43 44|\\;\";", nullptr, 0x1D, 0, 0, "abCD;"},
        {"data: \"| 00  ff |x\";", nullptr, 0x1D, 0, 0, std::string("\0\xff" "x", 3)},
        {"data: \"a,b\\\"c\\:\\\\\";", nullptr, 0x1D, 0, 0, "a,b\"c:\\"},
        {"data: \"AbC\", nocase;", nullptr, 0x1D, VAEL_KW_FLAG_CASELESS, 0, "abc"},
        {"data: \"abc\", caret, relative;", nullptr, 0x1A, VAEL_KW_FLAG_CARET, 3, "abc"},
        {"data: ! \"a\", relative;", nullptr, 0x12, VAEL_KW_FLAG_NEGATED, 0, "a"},
        {"data:\"a\",depth 010,offset 2,", nullptr, 0x19, 0, 8, "a"}, {"length: 10, exact;", nullptr, 0x13, 0, 0, ""},
        {"length: 0x10, min;", nullptr, 0x17, 0, 0, ""},
        {"test: 2, >, 1000, 0, little;", nullptr, 0x13, X | VAEL_KW_FLAG_LITTLE | VAEL_KW_FLAG_UNSIGNED, 2, ""},
        {"test: 4, ! =, 5, 0;", nullptr, 0x13, Bin | VAEL_KW_FLAG_NEGATED, 4, ""},
        {"test: 11, =, 1, 0, oct, string;", nullptr, 0x13, Str, 11, ""},
        {"test: 2, =, 1, -1, relative;", nullptr, 0x12, Bin, 2, ""}, {"data: \"\";", "Empty data keyword"},
        {"data: \"a\\\";", "Backslash escape or hexmode is not completed in data keyword"},
        {"data: \"|4|\";", "incomplete hex data in data keyword"},
        {"data: \"|4 3|\";", "Space within hex number in data keyword"},
        {"data: \"|43\\;|\";", "Backslash in hex in data keyword"},
        {"data: \"a\\b\";", "Bad escape sequence in data keyword"},
        {"data: \"a\"b\";", "Non-escaped '\"' character in data keyword"},
        {"data: abc;", "Content needs to be enclosed in quotation marks (\") in data keyword"},
        {"data: \"a\", depth 3, caret;", "Depth attribute cannot be defined with caret attribute in data keyword"},
        {"data: \"a\", offset -1;", "Illegal negative offset for absolute keyword"},
        {"data: \"a\", offset 1, offset 2;", "Keyword's attribute cannot be set twice for the same keyword"},
        {"length: 10, relative;", "None of attributes (exact, min, max) was set in length keyword"},
        {"length: 10, exact, max;", "More than one attribute (exact, min, max) was set in length keyword"},
        {"length: 10, exact, relative", "Keyword's attribute is not supported"},  // the last row needs its comma
        {" \t", "Keyword's attribute is empty"},
        {"test: 2, =, 5, 0, string, unsigned;", "Both signed and unsigned attributes within keyword"},
        {"test: 5, =, 1, 0;", "The length of the numeric value that should be extracted is illegal"},
        {"test: 2, =, 1, 0, hex;",
         "The number types attributes (hex, oct and dec) can only be used with string attribute in keyword"},
        {"test: 2, =, 1, 0, string, hex, dec;",
         "Only one number type attribute (dec, hex and oct) is allowed in keyword"},
        {"test: 2, =, 1, 0, big, little;", "Big and little attributes cannot be used together in keyword"},
        {"test: 0x2, =, 1, 0;", "Failed to retrieve the length of the extracted test value in test keyword"},
        {"test: 2, !, 1, 0;", "Failed to retrieve the operator in test keyword"},
        {"test: 2, ~, 1, 0;", "Illegal operator in test keyword"},
        {"test: 2, =, z, 0;", "Failed to retrieve the value in test keyword"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        Keyword k(c.text);
        if (c.error) {
            EXPECT_EQ(k.kw, nullptr);
            EXPECT_EQ(k.error(), c.error);
            EXPECT_EQ(k.err.error_type, (uint32_t)VAEL_PM_ERROR_ILLEGAL);
            continue;
        }
        ASSERT_NE(k.kw, nullptr) << k.error();
        EXPECT_EQ(k.kw->props, c.props);
        EXPECT_EQ(k.kw->flags, c.flags);
        EXPECT_EQ(k.kw->depth, c.depth);
        if (k.type == VAEL_KW_TYPE_DATA) {
            EXPECT_EQ(std::string(reinterpret_cast<char *>(k.data()->pattern), k.data()->pattern_len), c.pattern);
        }
    }
}

// One fresh run at the rule's present offset `offset`, over the range the
// engine gives; the verdict with the engine's negation applied.
TEST(KwKeyword, Execute) {
    const std::string word5 = std::string("\0\0\0\5", 4);
    // next_offset: for data where a find ends; the others move nothing.
    struct Case { const char *text; std::string data; uint32_t offset; int match; uint32_t next_offset; } cases[] = {
        {"data: \"abc\";", "xxabcxx", 0, 1, 5}, {"data: \"abc\";", "xxabxcx", 0, 0, 0},
        {"data: \"abc\";", "xxabc", 4, 1, 5}, {"data: \"abc\", relative;", "abcxx", 1, 0, 0},
        {"data: \"ab\", caret;", "xabx", 0, 0, 0}, {"data: \"ab\", caret, relative;", "xabx", 1, 1, 3},
        {"data: !\"a\";", "bcd", 0, 1, 0}, {"data: \"c\", depth 2;", "abc", 0, 0, 0},
        {"data: \"a\", offset -2, relative;", "abca", 3, 1, 4}, {"data: \"|C9|\", nocase;", "\xe9\xc9", 0, 1, 2},
        {"length: 10, exact;", std::string(10, 'x'), 7, 1, 0},  // absolute: true at any point of the rule
        {"length: 3, min, relative;", "abcde", 2, 1, 2}, {"length: 3, min, relative;", "abcde", 3, 0, 0},
        {"length: 3, max, relative;", "abcde", 3, 1, 3}, {"length: 3, max, relative;", "abcde", 0, 0, 0},
        {"length: 0, exact, relative;", "abcde", 5, 1, 5},
        {"test: 4, <, -1, 0;", word5, 0, 1, 0},  // v's bits, unsigned
        {"test: 4, <, -1, 0, signed;", word5, 0, 0, 0}, {"test: 4, >, -2, 0, signed;", "\xFF\xFF\xFF\xFF", 0, 1, 0},
        {"test: 4, =, 5, 98;", std::string(97, '\0') + word5, 0, 0, 0},
        {"test: 4, =, 5, 97;", std::string(97, '\0') + word5, 0, 1, 97},
        {"test: 4, !=, 5, 98;", std::string(97, '\0') + word5, 0, 0, 0},  // out of range, '!' or not
        {"test: 4, !=, 5, 0;", word5, 0, 0, 0},    {"test: 4, !=, 6, 0;", word5, 0, 1, 0},
        {"test: 1, !^, 7, 0;", "\x07", 0, 1, 0}, {"test: 1, ^, 7, 0;", "\x07", 0, 0, 0},
        {"test: 1, &, 6, 0;", "\x02", 0, 1, 0}, {"test: 1, &, 6, 0;", "\x01", 0, 0, 0},
        {"test: 1, |, 0, 0;", std::string("\0", 1), 0, 0, 0}, {"test: 1, |, 0, 0;", "\x01", 0, 1, 0},
        {"test: 1, >, 0x61, 0;", "b", 0, 1, 0}, {"test: 1, <, 0x61, 0;", "b", 0, 0, 0},
        {"test: 3, =, 255, 0, string;", "0ff", 0, 1, 0}, {"test: 3, =, 8, 0, string, oct;", "10", 0, 1, 0},
        {"test: 2, =, 0x0102, -1, relative;", "xx\x01\x02", 3, 1, 2},
        {"test: 1, !>, 0, 0, relative;", "abc", 3, 0, 3},  // nothing behind the offset
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.text << " at " << c.offset);
        Keyword k(c.text);
        ASSERT_NE(k.kw, nullptr) << k.error();
        vael_kw_position pos{c.offset, 0, 0};
        uint32_t start = 0, size = 0, prev_scan = 0, next = 12345;
        int found = 0;
        if (vael_kw_mgr_find_start_offset(k.kw, &pos, (uint32_t)c.data.size(), 0, &start, &size) == 0) {
            ASSERT_EQ(vt(k.type).execute(k.kw, u(c.data), (uint32_t)c.data.size(), nullptr, start, size, 0,
                                         &prev_scan, &next, &found),
                      0);
            EXPECT_EQ((k.kw->flags & VAEL_KW_FLAG_NEGATED) ? !found : found, c.match);
            EXPECT_EQ(c.match ? next : c.next_offset, c.next_offset);
        } else {
            EXPECT_EQ(c.match, 0);
        }
    }
}

struct Call { uint32_t start, size; int from_backtrack, match; uint32_t next_offset, prev_scan_after; };
// Calls of one `data` keyword in a row over one buffer, as a backtracking
// rule makes them, its scan memory carried between them.
void run_calls(const char *text, const std::string &data, const std::vector<Call> &calls) {
    Keyword k(text);
    ASSERT_NE(k.kw, nullptr) << k.error();
    uint32_t prev_scan = 0;
    for (size_t i = 0; i < calls.size(); i++) {
        const Call &c = calls[i];
        SCOPED_TRACE(testing::Message() << text << " call " << i);
        uint32_t next = 0;
        int match = -1;
        ASSERT_EQ(vael_kw_data_execute(k.kw, u(data), (uint32_t)data.size(), nullptr, c.start, c.size,
                                       c.from_backtrack, &prev_scan, &next, &match),
                  0);
        EXPECT_EQ(match, c.match);
        EXPECT_EQ(match ? next : c.next_offset, c.next_offset);
        EXPECT_EQ(prev_scan, c.prev_scan_after);
    }
}

TEST(KwData, ScanMemoryAndResumption) {
    // A first scan from 0 with no depth covers the whole buffer; reached
    // again further on, the keyword does not scan at all.
    run_calls("data: \"a\", relative;", "xaxxxaxx", {{0, 8, 0, 1, 2, 1}, {3, 5, 0, 0, 0, 1}});
    // With a depth the former scan covered [0, 4): the next one is narrowed
    // to what lies behind it, a find that straddles its end included.
    run_calls("data: \"b\", relative, depth 4;", "aaaaabaa", {{0, 4, 0, 0, 0, 1}, {2, 4, 0, 1, 6, 3}});
    run_calls("data: \"bc\", relative, depth 4;", "aaabcaaa", {{0, 4, 0, 0, 0, 1}, {2, 4, 0, 1, 5, 3}});
    run_calls("data: \"b\", relative, depth 4;", "abaaaaaa", {{3, 4, 0, 0, 0, 4}, {1, 4, 0, 1, 2, 2}});
    run_calls("data: \"b\", relative, depth 2;", "aaaaabaa", {{0, 2, 0, 0, 0, 1}, {4, 2, 0, 1, 6, 5}});
    // A negated keyword neither reads nor writes the memory; too short a
    // range scans nothing.
    run_calls("data: !\"a\", relative;", "bbbb", {{0, 4, 0, 0, 0, 0}, {1, 3, 0, 0, 0, 0}});
    run_calls("data: \"abc\", relative;", "abcabc", {{4, 2, 0, 0, 0, 0}});
    // Resumed, the search goes back by the period behind the earlier find's
    // start: 2 for "abab", so the overlap is found; 3 for "abc".
    run_calls("data: \"abab\", relative;", "abababab",
              {{0, 8, 0, 1, 4, 1}, {4, 4, 1, 1, 6, 1}, {6, 2, 1, 1, 8, 1}, {8, 0, 1, 0, 0, 1}});
    run_calls("data: \"abc\", relative;", "abcabc", {{0, 6, 0, 1, 3, 1}, {3, 3, 1, 1, 6, 1}, {6, 0, 1, 0, 0, 1}});
    run_calls("data: \"abc\", relative;", "abcabc", {{2, 4, 1, 0, 0, 0}});
}

const char *const kTexts[] = {"data: \"abab\", relative;", "data: \"AbC|00ff|\", nocase, depth 9, offset 3;",
                              "data: !\"x\", caret;", "length: 3, min, relative;",
                              "test: 3, !&, -7, 5, string, dec, relative;", "test: 2, >, 1000, 0, little;"};

// An image read back whole or damaged (cut, or from a virtual buffer: in the
// manager's image test).
TEST(KwKeyword, Images) {
    vael_test::LogCapture quiet;
    for (const char *text : kTexts) {
        SCOPED_TRACE(text);
        Keyword k(text);
        ASSERT_NE(k.kw, nullptr);
        const vael_kw_vtable &v = vt(k.type);
        const std::vector<unsigned char> image = image_of(k.kw);
        // Whole, it reads back as it was (every cut of a manager's image, these
        // keywords in it, is the rules' image test).
        const unsigned char *r = image.data();
        uint32_t space = (uint32_t)image.size();
        vael_kw_abs *back = v.deserialize(&r, &space, nullptr, nullptr);
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(space, 0u);
        EXPECT_EQ(std::memcmp(back, k.kw, sizeof(vael_kw_abs)), 0);
        EXPECT_EQ(image_of(back), image);
        EXPECT_TRUE(k.type != VAEL_KW_TYPE_DATA ||
                    !std::memcmp(reinterpret_cast<vael_kw_data *>(back)->skip_table, k.data()->skip_table, 512));
        v.destroy(back);
        // Fields that would make the search read or step where it must not,
        // and a wrong magic.
        const uint32_t m = k.type == VAEL_KW_TYPE_DATA ? k.data()->pattern_len : 0;
        struct Damage { uint32_t at, value, bytes; };
        std::vector<Damage> damages = {{0, 0x53525a4a, 4}};
        if (m)
            damages.insert(damages.end(), {{28, 0, 4}, {28, 0x7fffffff, 4}, {28, m + 1, 4}, {32, 0, 4},
                                           {32, m + 1, 4}, {36 + m, 0, 2}, {34 + 3 * m, 0, 2}});
        for (const auto &d : damages) {
            std::vector<unsigned char> bad = image;
            std::memcpy(&bad[d.at], &d.value, d.bytes);
            r = bad.data();
            space = (uint32_t)bad.size();
            back = v.deserialize(&r, &space, nullptr, nullptr);
            EXPECT_EQ(back, nullptr) << "damage at " << d.at;
            v.destroy(back);
        }
    }
}

unsigned char lower(unsigned char c) { return c >= 'A' && c <= 'Z' ? (unsigned char)(c + 32) : c; }

struct Tables {
    uint16_t *skip, *shift;
    uint32_t max_len_skip = 0, m;
    Tables(const std::string &p, bool caseless) : m((uint32_t)p.size()) {
        skip = vael_bm_create_skiptable(u(p), m, caseless);
        shift = vael_bm_create_shifttable(u(p), m, &max_len_skip);
    }
    ~Tables() { vael_bm_destroy(skip, shift, m); }
    uint32_t search(const std::string &hay, uint32_t start, bool caseless, const std::string &p, int *found) const {
        return (caseless ? vael_bm_ci_search : vael_bm_search)(u(hay), (uint32_t)hay.size(), u(p), m, skip, shift,
                                                              start, found);
    }
};

std::vector<uint32_t> naive_all(const std::string &hay, const std::string &p, bool caseless) {
    std::vector<uint32_t> out;
    for (size_t pos = 0; pos + p.size() <= hay.size(); pos++) {
        bool eq = true;
        for (size_t j = 0; j < p.size() && eq; j++)
            eq = (caseless ? lower(hay[pos + j]) : (unsigned char)hay[pos + j]) == (unsigned char)p[j];
        if (eq)
            out.push_back((uint32_t)pos);
    }
    return out;
}

// Every find, restarting one byte behind the last.
std::vector<uint32_t> bm_all(const std::string &hay, const std::string &p, bool caseless) {
    Tables t(p, caseless);
    std::vector<uint32_t> out;
    for (uint32_t start = 0;;) {
        int found = 0;
        const uint32_t at = t.search(hay, start, caseless, p, &found);
        if (!found)
            return out;
        out.push_back(at);
        start = at + 1;
    }
}

int proper_borders(const std::string &p) {
    int n = 0;
    for (size_t len = 1; len < p.size(); len++)
        n += p.compare(0, len, p, p.size() - len, len) == 0;
    return n;
}

TEST(KwBm, AgainstNaiveSearch) {
    std::mt19937 rng(11);
    const std::string alphabets[] = {"ab", "abzABZ", "abcABC", std::string("a\x80\xff", 3)};
    int complete_checked = 0;
    for (int round = 0; round < 4000; round++) {
        const std::string &alpha = alphabets[round % 4];
        const bool caseless = (round / 4) % 2;
        std::string p, hay;
        for (int i = 0, m = 1 + (int)(rng() % 8); i < m; i++)
            p += caseless ? (char)lower(alpha[rng() % alpha.size()]) : alpha[rng() % alpha.size()];
        for (int i = 0, n = (int)(rng() % 64); i < n; i++)
            hay += alpha[rng() % alpha.size()];
        SCOPED_TRACE(testing::Message() << "pattern " << p << " hay " << hay << " caseless " << caseless);
        const std::vector<uint32_t> want = naive_all(hay, p, caseless), got = bm_all(hay, p, caseless);
        // Every find is a true place, in rising order; with at most one
        // border the tables are safe and nothing is missed.
        for (size_t i = 0; i < got.size(); i++) {
            ASSERT_TRUE(std::find(want.begin(), want.end(), got[i]) != want.end()) << got[i];
            ASSERT_TRUE(i == 0 || got[i - 1] < got[i]);
        }
        if (proper_borders(p) <= 1) {
            ASSERT_EQ(got, want);
            complete_checked++;
        }
    }
    EXPECT_GT(complete_checked, 1000);
}

}  // namespace
