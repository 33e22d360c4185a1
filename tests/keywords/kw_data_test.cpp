// The `data` keyword: its text form, its run over the ranges the engine
// gives, its memory of what it scanned, its resumption and its image.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "tests/keywords/kw_test_util.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"

namespace {

using kw_test::Keyword;

vael_kw_data *data_of(vael_kw_abs *kw) { return reinterpret_cast<vael_kw_data *>(kw); }
std::string pattern_of(vael_kw_abs *kw) {
    return std::string(reinterpret_cast<char *>(data_of(kw)->pattern), data_of(kw)->pattern_len);
}

struct CreateCase {
    const char *text;
    const char *error;  // null: accepted
    std::string pattern;
    uint32_t props;
    uint32_t depth;
};

TEST(KwDataCreate, ContentAttributesAndErrors) {
    const CreateCase cases[] = {
        {"data: \"abc\";", nullptr, "abc", 0x1D, 0},
        {"data: \"ab|43 44|\\;\";", nullptr, "abCD;", 0x1D, 0},
        {"data: \"|4344|\";", nullptr, "CD", 0x1D, 0},
        {"data: \"| 00  ff |x\";", nullptr, std::string("\0\xff" "x", 3), 0x1D, 0},
        {"data: \"a;b\";", nullptr, "a;b", 0x1D, 0},
        {"data: \"a\\\"b\\:\\\\\";", nullptr, "a\"b:\\", 0x1D, 0},
        {"data: \"AbC\", nocase;", nullptr, "abc", 0x1D, 0},
        {"data: \"a\", caret;", nullptr, "a", 0x1B, 1},  // caret: anchored, bounded to the pattern
        {"data: \"abc\", caret, relative;", nullptr, "abc", 0x1A, 3},
        {"data: !\"a\";", nullptr, "a", 0x13, 0},
        {"data: ! \"a\", relative;", nullptr, "a", 0x12, 0},
        {"data: \"a\", offset -1, relative;", nullptr, "a", 0x1C, 0},
        {"data: \"a\", nocase, relative, depth 0x10, offset 2;", nullptr, "a", 0x18, 16},
        {"data:\"a\",depth 010,", nullptr, "a", 0x19, 8},
        {"data: \"\";", "Empty data keyword", {}, 0, 0},
        {"data: \"||\";", "Empty data keyword", {}, 0, 0},
        {"data: \"a\\\";", "Backslash escape or hexmode is not completed in data keyword", {}, 0, 0},
        {"data: \"|43\";", "Backslash escape or hexmode is not completed in data keyword", {}, 0, 0},
        {"data: \"|4|\";", "incomplete hex data in data keyword", {}, 0, 0},
        {"data: \"|4 3|\";", "Space within hex number in data keyword", {}, 0, 0},
        {"data: \"|4g|\";", "Invalid hex values in data keyword", {}, 0, 0},
        {"data: \"|43\\;|\";", "Backslash in hex in data keyword", {}, 0, 0},
        {"data: \"a\\b\";", "Bad escape sequence in data keyword", {}, 0, 0},
        {"data: \"a\"b\";", "Non-escaped '\"' character in data keyword", {}, 0, 0},
        {"data: abc;", "Content needs to be enclosed in quotation marks (\") in data keyword", {}, 0, 0},
        {"data: \"abc;", "Content needs to be enclosed in quotation marks (\") in data keyword", {}, 0, 0},
        {"data: \"a\", caret, depth 3;", "Depth attribute cannot be defined with caret attribute in data keyword", {}, 0, 0},
        {"data: \"a\", depth 3, caret;", "Depth attribute cannot be defined with caret attribute in data keyword", {}, 0, 0},
        {"data: \"a\", offset -1;", "Illegal negative offset for absolute keyword", {}, 0, 0},
        {"data: \"a\", offset x;", "Failed to get offset attribute from keyword", {}, 0, 0},
        {"data: \"a\", depth;", "Failed to get depth attribute from keyword", {}, 0, 0},
        {"data: \"a\", offset 1, offset 2;", "Keyword's attribute cannot be set twice for the same keyword", {}, 0, 0},
        {"data: \"a\", nmon;", "Keyword's attribute is not supported", {}, 0, 0},
        {"dataX: \"a\";", "Keyword's attribute is not supported", {}, 0, 0},
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
        EXPECT_EQ(pattern_of(k.kw), c.pattern);
        EXPECT_EQ(data_of(k.kw)->pattern[data_of(k.kw)->pattern_len], 0);
        EXPECT_EQ(k.kw->props, c.props);
        EXPECT_EQ(k.kw->depth, c.depth);
    }
}

struct RunCase {
    const char *text;
    std::string data;
    uint32_t offset;
    int match;
    uint32_t next_offset;  // when matched
};

TEST(KwDataExecute, Table) {
    const RunCase cases[] = {
        {"data: \"abc\";", "xxabcxx", 0, 1, 5},
        {"data: \"abc\";", "xxabxcx", 0, 0, 0},
        {"data: \"abc\";", "xxabc", 4, 1, 5},  // absolute: the present offset does not count
        {"data: \"abc\", relative;", "abcxx", 1, 0, 0},
        {"data: \"ab\", caret;", "abxx", 0, 1, 2},
        {"data: \"ab\", caret;", "xabx", 0, 0, 0},  // looks at pattern_len bytes only
        {"data: \"ab\", caret, relative;", "xabx", 1, 1, 3},
        {"data: !\"a\";", "bcd", 0, 1, 0},  // the offset does not move
        {"data: !\"a\";", "bad", 0, 0, 0},
        {"data: \"AbC\", nocase;", "xxaBcx", 0, 1, 5},
        {"data: \"c\", depth 2;", "abc", 0, 0, 0},
        {"data: \"c\", depth 3;", "abc", 0, 1, 3},
        {"data: \"a\", offset 2;", "aaxa", 0, 1, 4},
        {"data: \"a\", offset -2, relative;", "abca", 3, 1, 4},
        {"data: \"a\", offset -4, relative;", "abca", 3, 0, 0},  // before the buffer
        {"data: \"|00 ff|\";", std::string("\x01\0\xff", 3), 0, 1, 3},
        {"data: \"|C9|\", nocase;", "\xe9\xc9", 0, 1, 2},
        {"data: \"abcd\";", "abc", 0, 0, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.text << " at " << c.offset);
        Keyword k(c.text);
        ASSERT_NE(k.kw, nullptr) << k.error();
        kw_test::RunResult r = kw_test::run_fresh(k.kw, c.data, c.offset);
        EXPECT_EQ(r.rc, 0);
        EXPECT_EQ(r.is_match, c.match);
        if (c.match && !(k.kw->flags & VAEL_KW_FLAG_NEGATED)) {
            EXPECT_EQ(r.next_offset, c.next_offset);
        }
    }
}

const unsigned char *u(const std::string &s) { return reinterpret_cast<const unsigned char *>(s.data()); }

struct Call {
    uint32_t start;
    uint32_t size;
    int from_backtrack;
    int match;
    uint32_t next_offset;
    uint32_t prev_scan_after;
};

// Calls of one keyword in a row over one buffer, as a backtracking rule
// makes them, with the keyword's scan memory carried between them.
void run_calls(const char *text, const std::string &data, const std::vector<Call> &calls) {
    Keyword k(text);
    ASSERT_NE(k.kw, nullptr) << k.error();
    uint32_t prev_scan = 0;
    for (size_t i = 0; i < calls.size(); i++) {
        const Call &c = calls[i];
        SCOPED_TRACE(testing::Message() << text << " call " << i);
        uint32_t next = 0;
        int match = -1;
        ASSERT_EQ(vael_kw_data_vtable.execute(k.kw, u(data), (uint32_t)data.size(), nullptr, c.start, c.size,
                                              c.from_backtrack, &prev_scan, &next, &match),
                  0);
        EXPECT_EQ(match, c.match);
        if (match) {
            EXPECT_EQ(next, c.next_offset);
        }
        EXPECT_EQ(prev_scan, c.prev_scan_after);
    }
}

TEST(KwDataExecute, ScanMemory) {
    vael_test::LogCapture log;
    vael_test::ScopedTopic topic("K_KW", VAEL_DBG_INFO);
    // A first scan from 0 with no depth covers the whole buffer; reached
    // again further on, the keyword does not scan at all.
    run_calls("data: \"a\", relative;", "xaxxxaxx", {{0, 8, 0, 1, 2, 1}, {3, 5, 0, 0, 0, 1}});
    EXPECT_TRUE(log.contains("Already scanned 0-8, skipping scan 3-"));
    // With a depth the former scan covered [0, 4): the next one is narrowed
    // to what lies behind it, and remembers where it was called.
    run_calls("data: \"b\", relative, depth 4;", "aaaaabaa", {{0, 4, 0, 0, 0, 1}, {2, 4, 0, 1, 6, 3}});
    EXPECT_TRUE(log.contains("overlapping previous scan. narrowing down the search: start_offset 4, size_to_scan 2"));
    // A range that starts before the former scan is searched whole.
    run_calls("data: \"b\", relative, depth 4;", "abaaaaaa", {{3, 4, 0, 0, 0, 4}, {1, 4, 0, 1, 2, 2}});
    // A range beyond the former one as well.
    run_calls("data: \"b\", relative, depth 2;", "aaaaabaa", {{0, 2, 0, 0, 0, 1}, {4, 2, 0, 1, 6, 5}});
    // A negated keyword neither reads nor writes the memory.
    run_calls("data: !\"a\", relative;", "bbbb", {{0, 4, 0, 0, 0, 0}, {1, 3, 0, 0, 0, 0}});
    // Too short a range: no scan, no memory.
    run_calls("data: \"abc\", relative;", "abcabc", {{4, 2, 0, 0, 0, 0}});
}

TEST(KwDataExecute, ResumesBehindTheEarlierMatch) {
    // "abab" has the period 2: a resumed search starts 2 bytes behind the
    // start of the earlier match, so the overlap at 2 is found.
    run_calls("data: \"abab\", relative;", "abababab",
              {{0, 8, 0, 1, 4, 1}, {4, 4, 1, 1, 6, 1}, {6, 2, 1, 1, 8, 1}, {8, 0, 1, 0, 0, 1}});
    // "abc" has no border: the period is 3, and the resumption starts just
    // behind the earlier match.
    run_calls("data: \"abc\", relative;", "abcabc", {{0, 6, 0, 1, 3, 1}, {3, 3, 1, 1, 6, 1}, {6, 0, 1, 0, 0, 1}});
    // An end offset below the pattern's length cannot end a match.
    run_calls("data: \"abc\", relative;", "abcabc", {{2, 4, 1, 0, 0, 0}});
}

TEST(KwDataImage, RoundTripCutsAndCorruption) {
    const char *texts[] = {"data: \"abab\", relative;", "data: \"AbC|00ff|\", nocase, depth 9, offset 3;",
                           "data: !\"x\", caret;"};
    for (const char *text : texts) {
        SCOPED_TRACE(text);
        Keyword k(text);
        ASSERT_NE(k.kw, nullptr);
        const uint32_t m = data_of(k.kw)->pattern_len;
        ASSERT_EQ(vael_kw_data_vtable.get_serialized_size(k.kw), 36 + 3 * m);
        std::vector<unsigned char> image = kw_test::image_of(k.kw);
        {
            std::vector<unsigned char> small(image.size() - 1);
            unsigned char *w = small.data();
            uint32_t space = (uint32_t)small.size();
            EXPECT_EQ(vael_kw_data_vtable.serialize(k.kw, &w, &space), -1);
        }
        for (uint32_t cut = 0; cut <= image.size(); cut++) {
            SCOPED_TRACE(cut);
            std::vector<unsigned char> copy(image.begin(), image.begin() + cut);
            const unsigned char *r = copy.data();
            uint32_t left = cut;
            vael_kw_abs *back = vael_kw_data_vtable.deserialize(&r, &left, nullptr, nullptr);
            if (cut < image.size()) {
                EXPECT_TRUE(back == nullptr || left == 0);
            } else {
                ASSERT_NE(back, nullptr);
                EXPECT_EQ(kw_test::image_of(back), image);
                // The skip table is built again, the same as at compile.
                EXPECT_EQ(std::memcmp(data_of(back)->skip_table, data_of(k.kw)->skip_table, 512), 0);
                EXPECT_EQ(data_of(back)->pattern[m], 0);
            }
            vael_kw_data_vtable.destroy(back);
        }
        // Fields that would make the search read or step where it must not.
        struct Damage {
            uint32_t offset;
            uint32_t value;
        } damages[] = {{28, 0}, {28, 0x7fffffff}, {28, m + 1}, {32, 0}, {32, m + 1}, {36 + m, 0}, {34 + 3 * m, 0}};
        for (const auto &d : damages) {
            SCOPED_TRACE(testing::Message() << "damage at " << d.offset);
            std::vector<unsigned char> bad = image;
            if (d.offset >= 36 + m)
                std::memcpy(&bad[d.offset], &d.value, 2);
            else
                std::memcpy(&bad[d.offset], &d.value, 4);
            const unsigned char *r = bad.data();
            uint32_t left = (uint32_t)bad.size();
            vael_kw_abs *back = vael_kw_data_vtable.deserialize(&r, &left, nullptr, nullptr);
            EXPECT_EQ(back, nullptr);
            vael_kw_data_vtable.destroy(back);
        }
    }
}

// Each keyword's image read from a virtual buffer in small blocks is the
// same keyword.
TEST(KwImage, FromVirtualBuffer) {
    for (const char *text : {"data: \"ab|00|cd\", nocase, offset 3;", "length: 7, max, relative;",
                             "test: 3, !<, -2, 1, string, dec;"}) {
        Keyword k(text);
        ASSERT_NE(k.kw, nullptr);
        const vael_kw_vtable &vt = kw_test::vtable_of(k.kw->type);
        std::vector<unsigned char> image = kw_test::image_of(k.kw);
        for (uint32_t block : {1u, 3u, 64u}) {
            SCOPED_TRACE(testing::Message() << text << " in blocks of " << block);
            vael_vbuf *vbuf = vael_vbuf_create(1 << 20, 0);
            ASSERT_NE(vbuf, nullptr);
            for (size_t at = 0; at < image.size(); at += block)
                ASSERT_EQ(vael_vbuf_add_buffer_ex(vbuf, image.data() + at,
                                                  (uint32_t)std::min<size_t>(block, image.size() - at), nullptr,
                                                  nullptr),
                          0);
            vael_vbuf_iter iter{};
            uint32_t space = (uint32_t)image.size();
            vael_kw_abs *back = vt.deserialize(nullptr, &space, vbuf, &iter);
            ASSERT_NE(back, nullptr);
            EXPECT_EQ(space, 0u);
            EXPECT_EQ(kw_test::image_of(back), image);
            vt.destroy(back);
            vael_vbuf_destroy(vbuf);
        }
    }
}

TEST(KwDataFailmem, CreateAndDeserialize) {
    const std::string text = "data: \"ab|43 44|cd\", nocase, depth 9,";
    vael_kw_abs *made = nullptr;
    vael_pm_error err;
    auto attempt = [&] {
        vael_pm_error_init(&err);
        return (made = vael_kw_data_vtable.create(text.c_str(), VAEL_KW_TYPE_DATA, &err)) != nullptr;
    };
    // Every failure says so to the user.
    auto failed = [&] { return made == nullptr && err.error_string != nullptr; };
    vael_test::failmem_walk(attempt, failed);
    ASSERT_NE(made, nullptr);
    vael_kw_data_vtable.destroy(made);
    vael_test::failmem_walk_each_allocation(attempt, failed);
    ASSERT_NE(made, nullptr);
    std::vector<unsigned char> image = kw_test::image_of(made);
    vael_kw_data_vtable.destroy(made);

    vael_kw_abs *back = nullptr;
    vael_test::failmem_walk(
        [&] {
            const unsigned char *r = image.data();
            uint32_t left = (uint32_t)image.size();
            return (back = vael_kw_data_vtable.deserialize(&r, &left, nullptr, nullptr)) != nullptr;
        },
        [&] { return back == nullptr; });
    vael_kw_data_vtable.destroy(back);
}

}  // namespace
