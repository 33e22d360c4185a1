// The keywords that compare numbers: `length` and `test`. Their texts go in
// as the manager hands them over and run over the range the engine gives.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/keywords/kw_test_util.h"
#include "tests/support/failmem_walk.h"

namespace {

using kw_test::Keyword;

struct CreateCase {
    const char *text;
    const char *error;  // null: accepted
    uint32_t props;     // when accepted
    uint32_t flags;
};

constexpr uint32_t kBinaryDefault = VAEL_KW_FLAG_NUM_EXTRACT | VAEL_KW_FLAG_BIG | VAEL_KW_FLAG_UNSIGNED;
constexpr uint32_t kStringDefault = VAEL_KW_FLAG_NUM_EXTRACT | VAEL_KW_FLAG_STRING | VAEL_KW_FLAG_SIGNED;

TEST(KwNumericCreate, AttributesAndTheirErrors) {
    const CreateCase cases[] = {
        {"length: 10, exact;", nullptr, 0x13, 0},
        {"length:10,max,relative;", nullptr, 0x12, 0},
        {"length: 0x10, min;", nullptr, 0x17, 0},  // min makes it monotonous
        {"length: 10;", "None of attributes (exact, min, max) was set in length keyword", 0, 0},
        {"length: 10, relative;", "None of attributes (exact, min, max) was set in length keyword", 0, 0},
        {"length: 10, exact, max;", "More than one attribute (exact, min, max) was set in length keyword", 0, 0},
        {"length: exact;", "Failed to retrieve the length value in the length keyword", 0, 0},
        {"length: ;", "Failed to retrieve the length value in the length keyword", 0, 0},
        {"length: 10, exact, exact;", "Keyword's attribute cannot be set twice for the same keyword", 0, 0},
        {"lengths: 10, exact;", "Keyword's attribute is not supported", 0, 0},
        {"length: 10, exact, nocase;", "Keyword's attribute is not supported", 0, 0},
        {"length: 10, exact, relative", "Keyword's attribute is not supported", 0, 0},  // no comma for the last row
        {" \t", "Keyword's attribute is empty", 0, 0},
        {"test: 2, >, 1000, 0, little;", nullptr, 0x13,
         VAEL_KW_FLAG_NUM_EXTRACT | VAEL_KW_FLAG_LITTLE | VAEL_KW_FLAG_UNSIGNED},
        {"test: 4, =, 5, 0;", nullptr, 0x13, kBinaryDefault},
        {"test: 4, !=, 5, 0;", nullptr, 0x13, kBinaryDefault | VAEL_KW_FLAG_NEGATED},
        {"test: 4, ! =, 5, 0;", nullptr, 0x13, kBinaryDefault | VAEL_KW_FLAG_NEGATED},
        {"test: 1, <, 0, 0, signed;", nullptr, 0x13,
         VAEL_KW_FLAG_NUM_EXTRACT | VAEL_KW_FLAG_BIG | VAEL_KW_FLAG_SIGNED},
        {"test: 5, =, 1, 0, string;", nullptr, 0x13, kStringDefault},
        {"test: 11, =, 1, 0, string, oct;", nullptr, 0x13, kStringDefault},
        {"test: 2, =, 1, -1, relative;", nullptr, 0x12, kBinaryDefault},
        {"test: 2, =, 1, 0, hex, string;", nullptr, 0x13, kStringDefault},  // order does not matter
        {"test: 2, =, 5, 0, string, unsigned;", "Both signed and unsigned attributes within keyword", 0, 0},
        {"test: 2, =, 5, 0, signed, unsigned;", "Both signed and unsigned attributes within keyword", 0, 0},
        {"test: 5, =, 1, 0;", "The length of the numeric value that should be extracted is illegal", 0, 0},
        {"test: 0, =, 1, 0;", "The length of the numeric value that should be extracted is illegal", 0, 0},
        {"test: -1, =, 1, 0;", "The length of the numeric value that should be extracted is illegal", 0, 0},
        {"test: 12, =, 1, 0, string;", "The length of the numeric value that should be extracted is illegal", 0, 0},
        {"test: 2, =, 1, 0, hex;",
         "The number types attributes (hex, oct and dec) can only be used with string attribute in keyword", 0, 0},
        {"test: 2, =, 1, 0, string, hex, dec;",
         "Only one number type attribute (dec, hex and oct) is allowed in keyword", 0, 0},
        {"test: 2, =, 1, 0, big, little;", "Big and little attributes cannot be used together in keyword", 0, 0},
        {"test: 2, =, 1, 0, string, little;", "Can't set endianity with string attribute in keyword", 0, 0},
        {"test: x, =, 1, 0;", "Failed to retrieve the length of the extracted test value in test keyword", 0, 0},
        {"test: 0x2, =, 1, 0;", "Failed to retrieve the length of the extracted test value in test keyword", 0, 0},
        {"test: 2, , 1, 0;", "Failed to retrieve the operator in test keyword", 0, 0},
        {"test: 2, !, 1, 0;", "Failed to retrieve the operator in test keyword", 0, 0},
        {"test: 2, ==, 1, 0;", "Illegal operator length in test keyword", 0, 0},
        {"test: 2, !<=, 1, 0;", "Illegal operator length in test keyword", 0, 0},
        {"test: 2, ~, 1, 0;", "Illegal operator in test keyword", 0, 0},
        {"test: 2, =, z, 0;", "Failed to retrieve the value in test keyword", 0, 0},
        {"test: 2, =, 1;", "Failed to retrieve the offset in test keyword", 0, 0},
        {"test: 2, =, 1, 4x;", "Failed to retrieve the offset in test keyword", 0, 0},
        {"test: 2, =, 1, -1;", "Illegal negative offset for absolute keyword", 0, 0},
        {"test: 2, =, 1, 0, signed, signed;", "Keyword's attribute cannot be set twice for the same keyword", 0, 0},
        {"testing: 2, =, 1, 0;", "Keyword's attribute is not supported", 0, 0},
        {"test: 2, =, 1, 0, depth 3;", "Keyword's attribute is not supported", 0, 0},
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
    }
}

TEST(KwNumericCreate, FieldsRead) {
    Keyword t("test: 3, !|, -0x10, 7, string;");
    ASSERT_NE(t.kw, nullptr);
    auto *test = reinterpret_cast<vael_kw_test *>(t.kw);
    EXPECT_EQ(test->op, VAEL_KW_TEST_OR);
    EXPECT_EQ(test->value, -16);
    EXPECT_EQ(t.kw->user_offset, 7);
    EXPECT_EQ(t.kw->depth, 3u);
    EXPECT_EQ(t.kw->base, 16u);  // a string field defaults to base 16
    Keyword l("length: 010, max;");
    ASSERT_NE(l.kw, nullptr);
    auto *length = reinterpret_cast<vael_kw_length *>(l.kw);
    EXPECT_EQ(length->length, 8u);
    EXPECT_EQ(length->comparison, VAEL_KW_LENGTH_MAX);
}

struct RunCase {
    const char *text;
    std::string data;
    uint32_t offset;  // the rule's present offset
    int match;
};

TEST(KwNumericExecute, Table) {
    const std::string ten(10, 'x');
    const RunCase cases[] = {
        {"length: 10, exact;", ten, 0, 1},
        {"length: 10, exact;", ten, 7, 1},  // absolute: true at any point of the rule
        {"length: 9, exact;", ten, 0, 0},
        {"length: 3, min, relative;", "abcde", 2, 1},
        {"length: 3, min, relative;", "abcde", 3, 0},
        {"length: 3, max, relative;", "abcde", 3, 1},
        {"length: 3, max, relative;", "abcde", 0, 0},
        {"length: 0, exact, relative;", "abcde", 5, 1},
        {"test: 2, >, 1000, 0, little;", "\xE9\x03", 0, 1},
        {"test: 2, =, 0xE903, 0;", "\xE9\x03", 0, 1},
        {"test: 1, <, 0, 0, signed;", "\xFF", 0, 1},
        {"test: 1, <, 0, 0;", "\xFF", 0, 0},
        {"test: 4, <, -1, 0;", std::string("\0\0\0\5", 4), 0, 1},  // v's bits, unsigned
        {"test: 4, <, -1, 0, signed;", std::string("\0\0\0\5", 4), 0, 0},
        {"test: 4, >, -2, 0, signed;", "\xFF\xFF\xFF\xFF", 0, 1},
        {"test: 4, =, 5, 100;", std::string(102, '\0'), 0, 0},  // out of range
        {"test: 4, !=, 5, 100;", std::string(102, '\0'), 0, 0},  // ... with '!' as well
        {"test: 4, =, 5, 98;", std::string(97, '\0') + std::string("\0\0\0\5", 4), 0, 0},
        {"test: 4, =, 5, 97;", std::string(97, '\0') + std::string("\0\0\0\5", 4), 0, 1},
        {"test: 4, !=, 5, 0;", std::string("\0\0\0\5", 4), 0, 0},
        {"test: 4, !=, 5, 0;", std::string("\0\0\0\6", 4), 0, 1},
        {"test: 1, !^, 7, 0;", "\x07", 0, 1},  // '!^' means equal
        {"test: 1, ^, 7, 0;", "\x07", 0, 0},
        {"test: 1, &, 6, 0;", "\x02", 0, 1},
        {"test: 1, &, 6, 0;", "\x01", 0, 0},
        {"test: 1, |, 0, 0;", std::string("\0", 1), 0, 0},
        {"test: 1, |, 0, 0;", "\x01", 0, 1},
        {"test: 3, =, 255, 0, string;", "0ff", 0, 1},
        {"test: 3, =, 12, 0, string, dec;", "12x", 0, 1},
        {"test: 3, =, 8, 0, string, oct;", "10", 0, 1},     // a text field may be cut by the end
        {"test: 2, =, 16, 0, string;", "10", 0, 1},
        {"test: 2, =, 0x0102, 1, relative;", "xx\x01\x02", 1, 1},
        {"test: 2, =, 0x0102, -1, relative;", "xx\x01\x02", 3, 1},
        {"test: 1, >, 0, 0, relative;", "abc", 3, 0},  // nothing behind the offset
        {"test: 1, !>, 0, 0, relative;", "abc", 3, 0},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.text << " at " << c.offset);
        Keyword k(c.text);
        ASSERT_NE(k.kw, nullptr) << k.error();
        uint32_t start = 0, size = 0;
        const bool in_range = kw_test::fresh_range(k.kw, (uint32_t)c.data.size(), c.offset, &start, &size);
        kw_test::RunResult r = kw_test::run_fresh(k.kw, c.data, c.offset);
        EXPECT_EQ(r.rc, 0);
        EXPECT_EQ(r.is_match, c.match);
        if (in_range) {
            EXPECT_EQ(r.next_offset, start);  // neither keyword moves the offset
        }
    }
}

TEST(KwNumericExecute, DamagedFieldsAreInternalFailures) {
    Keyword l("length: 1, exact;");
    Keyword t("test: 1, =, 1, 0;");
    ASSERT_TRUE(l.kw && t.kw);
    reinterpret_cast<vael_kw_length *>(l.kw)->comparison = 3;
    reinterpret_cast<vael_kw_test *>(t.kw)->op = 6;
    EXPECT_NE(kw_test::run_fresh(l.kw, "a", 0).rc, 0);
    EXPECT_NE(kw_test::run_fresh(t.kw, "a", 0).rc, 0);
}

TEST(KwNumericImage, RoundTripAndEveryCut) {
    const char *texts[] = {"length: 10, exact;", "length: 3, min, relative;", "test: 2, >, 1000, 0, little;",
                           "test: 3, !&, -7, 5, string, dec, relative;"};
    for (const char *text : texts) {
        SCOPED_TRACE(text);
        Keyword k(text);
        ASSERT_NE(k.kw, nullptr);
        const vael_kw_vtable &vt = kw_test::vtable_of(k.kw->type);
        ASSERT_EQ(vt.get_serialized_size(k.kw), 36u);
        std::vector<unsigned char> image = kw_test::image_of(k.kw);

        for (uint32_t room : {27u, 28u, 35u}) {
            std::vector<unsigned char> small(room);
            unsigned char *w = small.data();
            uint32_t space = room;
            EXPECT_EQ(vt.serialize(k.kw, &w, &space), -1) << room;
        }
        for (uint32_t cut = 0; cut <= image.size(); cut++) {
            SCOPED_TRACE(cut);
            std::vector<unsigned char> copy(image.begin(), image.begin() + cut);
            const unsigned char *r = copy.data();
            uint32_t left = cut;
            vael_kw_abs *back = vt.deserialize(&r, &left, nullptr, nullptr);
            if (cut == image.size()) {
                ASSERT_NE(back, nullptr);
                EXPECT_EQ(left, 0u);
                EXPECT_EQ(kw_test::image_of(back), image);
            } else {
                // Refused here, or read short: the space is 0 and the
                // manager's next magic refuses the image.
                EXPECT_TRUE(back == nullptr || left == 0);
            }
            vt.destroy(back);
        }
    }
}

TEST(KwNumericFailmem, CreateAndDeserialize) {
    for (const char *text : {"length: 3, min, relative;", "test: 2, >, 1000, 0, little;"}) {
        SCOPED_TRACE(text);
        std::string t = text;
        t.back() = ',';
        const uint32_t type = kw_test::type_of(t);
        const vael_kw_vtable &vt = kw_test::vtable_of(type);
        vael_kw_abs *made = nullptr;
        vael_test::failmem_walk([&] { return (made = vt.create(t.c_str(), type, nullptr)) != nullptr; },
                                [&] { return made == nullptr; });
        ASSERT_NE(made, nullptr);
        std::vector<unsigned char> image = kw_test::image_of(made);
        vt.destroy(made);
        vael_kw_abs *back = nullptr;
        vael_test::failmem_walk(
            [&] {
                const unsigned char *r = image.data();
                uint32_t left = (uint32_t)image.size();
                return (back = vt.deserialize(&r, &left, nullptr, nullptr)) != nullptr;
            },
            [&] { return back == nullptr; });
        vt.destroy(back);
    }
}

}  // namespace
