// The attribute machinery shared by all keywords: number reading from the
// rule, value ends, number extraction from the data, and the base image.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "keywords/vael_kw_abs.h"
#include "tests/support/vael_test_support.h"

namespace {

struct StrtolCase {
    const char *text;
    uint32_t base;
    int rc;
    int32_t value;
    int end;  // offset of *end from the text; -1: end left where it was
};

TEST(KwAbsStrtol, Table) {
    const StrtolCase cases[] = {
        {"0xFFFFFFFF", 0, 0, 0x7FFFFFFF, 10},   // clamps, never wraps to -1
        {"-0x80000000", 0, 0, INT32_MIN, 11},   // exact
        {"-0x80000001", 0, 0, -0x7FFFFFFF, 11}, // clamps to minus MAX
        {"4294967296", 10, 0, 0x7FFFFFFF, 10},  // beyond 32 bits: digits still consumed
        {"2147483648", 10, 0, 0x7FFFFFFF, 10},
        {"-2147483648", 0, 0, INT32_MIN, 11},
        {"010", 0, 0, 8, 3},                    // a leading 0 is octal
        {"08", 0, 0, 0, 1},                     // ... and 8 ends an octal number
        {"0X1f", 0, 0, 31, 4},
        {"10", 16, 0, 16, 2},
        {"0x10", 16, 0, 16, 4},
        {"0x10", 10, 0, 0, 1},                  // base 10 takes no prefix
        {" \t+12z", 10, 0, 12, 5},
        {"-7", 8, 0, -7, 2},
        {"0x", 0, 0, 0, 1},                     // a prefix without digits: end at the 'x'
        {"zz", 16, 0, 0, 0},                    // no digit: end at the start
        {"-", 0, 0, 0, 0},
        {"  ", 0, 0, 0, -1},                    // nothing: 0, end untouched
        {"12", 7, -1, 0, -1},                   // illegal base
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        int32_t value = 12345;
        const char *sentinel = "sentinel";
        const char *end = sentinel;
        int rc = vael_kw_abs_strtol(c.text, &end, c.base, &value);
        EXPECT_EQ(rc, c.rc);
        if (rc == 0) {
            EXPECT_EQ(value, c.value);
        }
        if (c.end < 0) {
            EXPECT_EQ(end, sentinel);
        } else {
            EXPECT_EQ(end - c.text, c.end);
        }
    }
}

TEST(KwAbsValues, NextValueAndNumeric) {
    struct Case {
        const char *text;
        int rc;
        const char *value;  // the text between value start and its comma
    } cases[] = {
        {"  abc , x,", 0, "abc "},
        {"\"a,b\", x,", 0, "\"a,b\""},
        {"\"a\\\",b\",", 0, "\"a\\\",b\""},  // an escaped quote keeps the quotes open
        {",", -1, nullptr},                   // empty value
        {"  ,", -1, nullptr},
        {"abc", -1, nullptr},                 // no ending comma
        {"\"a,b", -1, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        const char *text = c.text;
        const char *end = nullptr;
        ASSERT_EQ(vael_kw_abs_get_next_value(&text, &end), c.rc);
        if (c.rc == 0) {
            EXPECT_EQ(std::string(text, end), c.value);
            EXPECT_EQ(*end, ',');
        } else {
            EXPECT_EQ(text, c.text);
        }
    }

    struct NumCase {
        const char *text;
        uint32_t base;
        int rc;
        int32_t value;
        const char *rest;
    } nums[] = {
        {" 12, x", 10, 0, 12, " x"}, {"0x1F,", 0, 0, 31, ""}, {"-3,", 0, 0, -3, ""},
        {"12 ,", 10, -1, 0, nullptr},  // must end exactly at the comma
        {"12x,", 10, -1, 0, nullptr},  {"x,", 0, -1, 0, nullptr}, {"12", 10, -1, 0, nullptr},
    };
    for (const auto &c : nums) {
        SCOPED_TRACE(c.text);
        const char *text = c.text;
        int32_t value = 99;
        ASSERT_EQ(vael_kw_abs_get_next_value_numeric(&text, c.base, &value), c.rc);
        if (c.rc == 0) {
            EXPECT_EQ(value, c.value);
            EXPECT_STREQ(text, c.rest);
        }
    }
}

TEST(KwAbsExtract, Table) {
    struct Case {
        uint32_t flags;
        uint32_t depth;
        uint32_t base;
        std::string data;
        uint32_t size;
        int out_of_range;
        int32_t value;
    } cases[] = {
        {VAEL_KW_FLAG_BIG, 2, 0, "\xE9\x03", 2, 0, 0xE903},
        {VAEL_KW_FLAG_LITTLE, 2, 0, "\xE9\x03", 2, 0, 1001},
        {VAEL_KW_FLAG_LITTLE, 4, 0, "\x01\x02\x03\x04", 4, 0, 0x04030201},
        {VAEL_KW_FLAG_BIG | VAEL_KW_FLAG_SIGNED, 1, 0, "\xFF", 1, 0, -1},
        {VAEL_KW_FLAG_BIG | VAEL_KW_FLAG_UNSIGNED, 1, 0, "\xFF", 1, 0, 255},
        {VAEL_KW_FLAG_BIG | VAEL_KW_FLAG_SIGNED, 3, 0, std::string("\x80\x00\x01", 3), 3, 0, (int32_t)0xFF800001},
        {VAEL_KW_FLAG_BIG | VAEL_KW_FLAG_SIGNED, 4, 0, "\xFF\xFF\xFF\xFF", 4, 0, -1},
        {VAEL_KW_FLAG_BIG | VAEL_KW_FLAG_UNSIGNED, 4, 0, "\xFF\xFF\xFF\xFF", 4, 0, -1},
        {VAEL_KW_FLAG_BIG, 4, 0, "\x01\x02", 2, 1, 0},  // a binary field must fit whole
        {VAEL_KW_FLAG_BIG, 4, 0, "", 0, 1, 0},
        {VAEL_KW_FLAG_STRING | VAEL_KW_FLAG_SIGNED, 3, 10, "12x", 3, 0, 12},
        {VAEL_KW_FLAG_STRING | VAEL_KW_FLAG_SIGNED, 1, 10, "x", 1, 0, 0},
        {VAEL_KW_FLAG_STRING | VAEL_KW_FLAG_SIGNED, 2, 16, "10", 2, 0, 16},
        {VAEL_KW_FLAG_STRING | VAEL_KW_FLAG_SIGNED, 5, 16, "0ff", 3, 0, 255},  // a text field may be shorter
        {VAEL_KW_FLAG_STRING | VAEL_KW_FLAG_SIGNED, 3, 10, "-12", 3, 0, -12},
        {VAEL_KW_FLAG_STRING | VAEL_KW_FLAG_SIGNED, 11, 10, "99999999999", 11, 0, 0x7FFFFFFF},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "data " << c.data << " flags " << c.flags << " depth " << c.depth);
        vael_kw_abs kw;
        vael_kw_abs_init(&kw, VAEL_KW_TYPE_TEST, 0);
        kw.flags = c.flags | VAEL_KW_FLAG_NUM_EXTRACT;
        kw.depth = c.depth;
        kw.base = c.base;
        // The field sits behind a byte that must not be read.
        std::string buf = "#" + c.data;
        int oor = -1;
        int32_t value = 77;
        ASSERT_EQ(vael_kw_abs_extract(&kw, reinterpret_cast<const unsigned char *>(buf.data()), 1, c.size, &oor,
                                      &value),
                  0);
        EXPECT_EQ(oor, c.out_of_range);
        EXPECT_EQ(value, c.value);
    }
}

TEST(KwAbsImage, RoundTripCutsAndMagic) {
    vael_kw_abs kw;
    vael_kw_abs_init(&kw, 2, 0x13);
    kw.flags = 0x1C0;
    kw.user_offset = -5;
    kw.base = 16;
    kw.depth = 7;
    ASSERT_EQ(vael_kw_abs_get_serialized_size(), 28u);
    unsigned char image[28];
    unsigned char *w = image;
    uint32_t space = 27;
    EXPECT_EQ(vael_kw_abs_serialize(&kw, &w, &space), -1);
    space = 28;
    ASSERT_EQ(vael_kw_abs_serialize(&kw, &w, &space), 0);
    EXPECT_EQ(space, 0u);
    EXPECT_EQ(std::memcmp(image, "KZRS", 4), 0);

    for (uint32_t cut = 0; cut <= 28; cut++) {
        SCOPED_TRACE(cut);
        // An exact heap copy, so that a read past the cut is ASan's to see.
        std::vector<unsigned char> copy(image, image + cut);
        const unsigned char *r = copy.data();
        uint32_t left = cut;
        vael_kw_abs back;
        vael_kw_abs_init(&back, 0, 0);
        const int rc = vael_kw_abs_deserialize(&back, &r, &left, nullptr, nullptr);
        if (cut < 4) {
            EXPECT_EQ(rc, -1);  // no magic
        } else if (cut < 28) {
            EXPECT_EQ(rc, 0);  // the fields are not read, and the space says so
            EXPECT_EQ(left, 0u);
            EXPECT_EQ(back.type, 0u);
        } else {
            ASSERT_EQ(rc, 0);
            EXPECT_EQ(left, 0u);
            EXPECT_EQ(std::memcmp(&back, &kw, sizeof(kw)), 0);
        }
    }
    image[0] ^= 1;
    const unsigned char *r = image;
    space = 28;
    vael_kw_abs back;
    EXPECT_EQ(vael_kw_abs_deserialize(&back, &r, &space, nullptr, nullptr), -1);
    const unsigned char *null_pos = nullptr;
    EXPECT_EQ(vael_kw_abs_deserialize(&back, &null_pos, &space, nullptr, nullptr), -1);
}

TEST(KwAbsProps, PrintedWords) {
    vael_test::LogCapture log;
    vael_kw_abs kw;
    vael_kw_abs_init(&kw, 0, 0x1D);
    vael_kw_abs_print_props(&kw);
    vael_kw_abs_init(&kw, 0, 0x22);
    vael_kw_abs_print_props(&kw);
    EXPECT_TRUE(log.contains("Properties: absolute, floating, monotonous, changes offset, order-preserving, "
                             "backtrack no match\n"));
    EXPECT_TRUE(log.contains("Properties: relative, anchored, non-monotonous, doesn't change offset, "
                             "not order-preserving, give up no match\n"));
}

TEST(KwAbsProps, SettersMoveTheProperties) {
    vael_kw_abs kw;
    vael_kw_abs_init(&kw, 0, 0x1D);
    vael_kw_abs_set_caret(&kw);
    EXPECT_EQ(kw.props, 0x1Bu);
    EXPECT_TRUE(vael_kw_abs_is_caret(&kw));
    vael_kw_abs_init(&kw, 0, 0x1D);
    vael_kw_abs_set_negate(&kw);
    EXPECT_EQ(kw.props, 0x13u);
    EXPECT_TRUE(vael_kw_abs_is_negated(&kw));
    vael_kw_abs_init(&kw, 0, 0x1D);
    vael_kw_abs_set_depth(&kw, 9);
    EXPECT_EQ(kw.props, 0x19u);
    EXPECT_FALSE(vael_kw_abs_is_monotonous(&kw));
    vael_kw_abs_set_relative(&kw);
    EXPECT_EQ(kw.props, 0x18u);
}

}  // namespace
