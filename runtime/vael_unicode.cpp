// vael_unicode.cpp - Unicode character classes, simple case folding and the
// code point compare of two UTF-8 texts, on top of utf8proc.
//
// The word matcher asks these questions for every byte of scanned text, so
// the ASCII answers are taken once from utf8proc into small arrays at load
// time; everything above ASCII goes to utf8proc each time.

#include "runtime/vael_unicode.h"

#include <utf8proc.h>

namespace {

constexpr uint8_t trail_bytes_of(unsigned b) {
    return b < 0xC0 ? 0 : b < 0xE0 ? 1 : b < 0xF0 ? 2 : b < 0xF8 ? 3 : b < 0xFC ? 4 : b < 0xFE ? 5 : 0;
}

bool is_code_point(int32_t c) { return c >= 0 && c <= 0x10FFFF; }

bool category_is_space(int32_t c) {
    if ((c >= 0x09 && c <= 0x0D) || (c >= 0x1C && c <= 0x1F) || c == 0x85)
        return true;
    const utf8proc_category_t cat = utf8proc_category(c);
    return cat == UTF8PROC_CATEGORY_ZS || cat == UTF8PROC_CATEGORY_ZL || cat == UTF8PROC_CATEGORY_ZP;
}

bool category_is_punct(int32_t c) {
    const utf8proc_category_t cat = utf8proc_category(c);
    return cat >= UTF8PROC_CATEGORY_PC && cat <= UTF8PROC_CATEGORY_PO;
}

int32_t fold_from_library(int32_t c) {
    utf8proc_int32_t out[4];
    int boundclass = 0;
    const utf8proc_ssize_t n = utf8proc_decompose_char(c, out, 4, UTF8PROC_CASEFOLD, &boundclass);
    if (n == 1)
        return out[0];
    // utf8proc folds fully: a letter whose full folding is a sequence (sharp
    // s to "ss", a Greek capital with iota to two letters) has, as its simple
    // folding, its lower case, which is itself for the lower case ones. The
    // one exception is the dotted capital I, which simple folding leaves.
    if (c == 0x130)
        return c;
    return utf8proc_tolower(c);
}

// The ASCII answers, asked of utf8proc once.
struct AsciiClasses {
    uint8_t space[128];
    uint8_t punct[128];
    uint8_t fold[128];
    AsciiClasses() {
        for (int32_t c = 0; c < 128; c++) {
            space[c] = category_is_space(c);
            punct[c] = category_is_punct(c);
            fold[c] = (uint8_t)fold_from_library(c);
        }
    }
};
const AsciiClasses g_ascii;

// Decoding for the compare: a well-formed sequence of 2 to 4 bytes is one
// code point; any other byte at or above 0x80 is a unit of its own, kept
// apart from every code point by a high bit.
constexpr int32_t kRawUnit = 0x40000000;

int32_t unit_forward(const uint8_t *s, uint32_t n, uint32_t *used) {
    const uint8_t b = s[0];
    *used = 1;
    if (b < 0x80)
        return b;
    const uint32_t t = utf8_countTrailBytes[b];
    if (t < 1 || t > 3 || n <= t)
        return kRawUnit | b;
    int32_t c = b & (0x3F >> t);
    for (uint32_t i = 1; i <= t; i++) {
        if ((s[i] & 0xC0) != 0x80)
            return kRawUnit | b;
        c = (c << 6) | (s[i] & 0x3F);
    }
    *used = t + 1;
    return c;
}

int32_t unit_backward(const uint8_t *s, uint32_t n, uint32_t *used) {
    const uint8_t last = s[n - 1];
    *used = 1;
    if (last < 0x80)
        return last;
    uint32_t k = 0; // trail bytes at the end
    while (k < 3 && k < n && (s[n - 1 - k] & 0xC0) == 0x80)
        k++;
    if (k == 0 || k == n || utf8_countTrailBytes[s[n - 1 - k]] != k)
        return kRawUnit | last;
    uint32_t unused;
    const int32_t c = unit_forward(s + n - 1 - k, k + 1, &unused);
    *used = k + 1;
    return c;
}

int32_t fold_unit(int32_t u) { return (u & kRawUnit) ? u : tq_u_simple_fold_case(u); }

}  // namespace

extern "C" {

const uint8_t utf8_countTrailBytes[256] = {
#define VAEL_T4(b) trail_bytes_of(b), trail_bytes_of(b + 1), trail_bytes_of(b + 2), trail_bytes_of(b + 3)
#define VAEL_T16(b) VAEL_T4(b), VAEL_T4(b + 4), VAEL_T4(b + 8), VAEL_T4(b + 12)
#define VAEL_T64(b) VAEL_T16(b), VAEL_T16(b + 16), VAEL_T16(b + 32), VAEL_T16(b + 48)
    VAEL_T64(0), VAEL_T64(64), VAEL_T64(128), VAEL_T64(192)
#undef VAEL_T64
#undef VAEL_T16
#undef VAEL_T4
};

int tq_u_isspace(int32_t c) {
    if (c >= 0 && c < 128)
        return g_ascii.space[c];
    return is_code_point(c) && category_is_space(c);
}

int tq_u_ispunct(int32_t c) {
    if (c >= 0 && c < 128)
        return g_ascii.punct[c];
    return is_code_point(c) && category_is_punct(c);
}

int32_t tq_u_simple_fold_case(int32_t c) {
    if (c >= 0 && c < 128)
        return g_ascii.fold[c];
    return is_code_point(c) ? fold_from_library(c) : c;
}

uint32_t tq_utf8_compare(const uint8_t *text, uint32_t text_len, uint32_t *text_used, const uint8_t *other,
                         uint32_t other_len, uint32_t *other_used, uint32_t flags) {
    const bool caseless = flags & TQ_UTF8_CMP_CASELESS;
    const bool backward = flags & TQ_UTF8_CMP_BACKWARD;
    uint32_t ti = 0, oi = 0, units = 0;
    while (ti < text_len && oi < other_len) {
        const uint32_t tn = text_len - ti, on = other_len - oi;
        const uint8_t tb = backward ? text[tn - 1] : text[ti];
        const uint8_t ob = backward ? other[on - 1] : other[oi];
        uint32_t tu = 1, ou = 1;
        if (tb < 0x80 && ob < 0x80) {
            // Both ASCII: the common case, without decoding.
            if (tb != ob && (!caseless || g_ascii.fold[tb] != g_ascii.fold[ob]))
                break;
        } else {
            int32_t tc = backward ? unit_backward(text, tn, &tu) : unit_forward(text + ti, tn, &tu);
            int32_t oc = backward ? unit_backward(other, on, &ou) : unit_forward(other + oi, on, &ou);
            if (tc != oc && (!caseless || fold_unit(tc) != fold_unit(oc)))
                break;
        }
        ti += tu;
        oi += ou;
        units++;
    }
    if (text_used)
        *text_used = ti;
    if (other_used)
        *other_used = oi;
    return units;
}

}  // extern "C"
