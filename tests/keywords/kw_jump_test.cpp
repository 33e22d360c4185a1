// The jump keyword: moves by a number read out of the data, in rules run
// as compiled, loaded and duplicated; its refusals.
#include "tests/keywords/kw_rule_run.h"

namespace {

using namespace std::string_literals;

TEST(KwJump, Moves) {
    const std::string pad(40, '.');
    struct Case {
        std::string rule, buf;
        int64_t end;  // -1: no match
    } cases[] = {
        // 5 * 4 = 20, aligned 20, plus 2: 22 from the field at 2.
        {"data: \"L\"; jump: 1, 0, relative, multiplier 4, align, post_offset 2;", "xL\x05" + pad, 23},
        // Rounding comes before post_offset: 5 -> 8 -> 9.
        {"jump: 1, 0, align, post_offset 1;", "\x05" + pad, 8}, {"jump: 1, 0, align;", "\x05" + pad, 7},
        // The move counts from the field's start, here at 1 by the offset.
        {"jump: 1, 1;", "x\x02yz", 2},
        {"jump: 1, 010;", "0123456789\x02yz", 11},  // base 10, not octal
        {"jump: 2, 0, little;", "\x03\x00z"s + "z", 2}, {"jump: 2, 0;", "\x00\x03zz"s, 2},
        // Text fields: base 16 unless told, read up to the first non-digit.
        {"data: \"ab\"; jump: 4, 0, relative, string;", "ab-1,xyz", 0},
        {"data: \"ab\"; jump: 4, 0, relative, string;", "ab10" + pad, 17},
        {"data: \"ab\"; jump: 4, 0, relative, string, dec, multiplier 2;", "ab3,xxxxx", 7},
        {"jump: 4, 0, string;", "-1,x", -1},  // before the start
        {"data: \"ab\"; jump: 1, 0, relative, from_beginning;", "ab\x03xyz", 2},
        {"data: \"ab\"; jump: 1, 0, relative, from_beginning, post_offset -4;", "ab\x03xyz", -1},
        // Back to the buffer's start, not before it.
        {"data: \"ab\"; jump: 1, 0, relative, post_offset -4; data: \"x\", relative, depth 1;", "xab\x01", 0},
        {"data: \"ab\"; jump: 1, 0, relative, post_offset -5; data: \"x\", relative, depth 1;", "xab\x01", -1},
        // To exactly the end matches; one past it does not.
        {"jump: 1, 0;", "\x04xyz", 3}, {"jump: 1, 0;", "\x05xyz", -1},
        // A field that runs past the end: no match, nothing read past it.
        {"data: \"ab\"; jump: 2, 0, relative;", "ab\x01", -1},
        {"data: \"ab\"; jump: 4, 0, relative, multiplier 2147483647;", "ab\xff\xff\xff\xff" + pad, -1},
        // Over a record to the field behind it.
        {"jump: 1, 0, post_offset 1; test: 1, =, 65, 0, relative;", "\x02xyAz", 2},
        {"data: \"R\"; jump: 1, 0, relative, post_offset 1; data: \"ok\", relative, depth 2;", "R\x03" "abcok", 6},
    };
    for (const auto &c : cases)
        kw_run::expect_verdicts(c.rule, {{c.buf, c.end}});
}

TEST(KwJump, Refusals) {
    const char *bad_len = "The length of the numeric value that should be extracted is illegal";
    const char *unsupported = "Keyword's attribute is not supported";
    kw_run::expect_refusals({
        {"jump: 5, 0;", bad_len}, {"jump: 12, 0, string;", bad_len}, {"jump: 2, 0, signed;", unsupported},
        {"jump: 2, 0, unsigned, relative;", unsupported},
        {"jump: 1, 0, multiplier -2;", "Illegal negative multiplier in jump keyword"},
        {"jump: 1, 0, multiplier 0;", "Illegal negative multiplier in jump keyword"},
        {"jump: 1, 0, multiplier;", "Failed to retrieve the multiplier in jump keyword"},
        {"jump: 1, 0, post_offset x;", "Failed to retrieve the post offset in jump keyword"},
        {"jump: 0x2, 0;", "Failed to retrieve the length in jump keyword"},
        {"jump: 1;", "Failed to retrieve the offset in jump keyword"},
        {"jump: 1, -1;", "Illegal negative offset for absolute keyword"},
        {"jump: 1, 0, hex;",
         "The number types attributes (hex, oct and dec) can only be used with string attribute in keyword"},
        {"jump: 1, 0, align, align;", "Keyword's attribute cannot be set twice for the same keyword"},
    });
}

}  // namespace
