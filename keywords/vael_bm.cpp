// vael_bm.cpp - Boyer-Moore tables and search for the `data` keyword.
//
// The tables are built once, when a rule is compiled, and the search
// allocates nothing. The shift table is built from the lengths L[k] of the
// longest common suffix of the pattern and its prefix of m - k bytes; these
// come from the classic suffix array in linear time (L[k] = suff[m - 1 - k]),
// so a long pattern of one repeated byte costs no more than any other.

#include "keywords/vael_bm.h"

#include "pm/vael_pm_strings.h"
#include "runtime/vael_alloc.h"
#include "runtime/vael_runtime.h"

namespace {

constexpr const char *kKwErrTopics = "K_KW | K_ERROR";
constexpr uint32_t kSkipEntries = 256;

// Maps 'A' to 'Z' onto 'a' to 'z' and every other byte onto itself.
struct CaseTable {
    unsigned char lower[256];
    constexpr CaseTable() : lower() {
        for (int c = 0; c < 256; c++)
            lower[c] = to_lower((unsigned char)c);
    }
};
constexpr CaseTable kCase;

struct Plain {
    static unsigned char fold(unsigned char c) { return c; }
};
struct Caseless {
    static unsigned char fold(unsigned char c) { return kCase.lower[c]; }
};

template <class Fold>
uint32_t search(const unsigned char *buf, uint32_t len, const unsigned char *pattern, uint32_t pattern_len,
                const uint16_t *skip, const uint16_t *shift, uint32_t start, int *found) {
    *found = 0;
    const int64_t m = pattern_len;
    int64_t pos = start;
    if (m == 0) {
        *found = 1;
        return start;
    }
    const int64_t last = (int64_t)len - m;
    const unsigned char *tail = buf + (m - 1);
    while (pos <= last) {
        // A mismatch at the last byte steps by the skip table alone: the
        // byte's last place in the pattern lies k bytes before the end, and
        // then the pattern differs from itself shifted by k at its last byte,
        // so shift[m - 1] is k or less. The entry is 0 only for the last
        // byte itself.
        for (int64_t step; (step = (int16_t)skip[tail[pos]]) != 0;) {
            pos += step;
            if (pos > last)
                return (uint32_t)pos;
        }
        int64_t j = m - 2;
        while (j >= 0 && pattern[j] == Fold::fold(buf[pos + j]))
            j--;
        if (j < 0) {
            *found = 1;
            return (uint32_t)pos;
        }
        const unsigned char c = buf[pos + j];
        const int64_t by_shift = (int16_t)shift[j];
        const int64_t by_skip = (int16_t)skip[c] - (m - 1 - j);
        pos += by_shift > by_skip ? by_shift : by_skip;
    }
    return (uint32_t)pos;
}

}  // namespace

extern "C" {

uint16_t *vael_bm_create_skiptable(const unsigned char *pattern, uint32_t pattern_len, int caseless) {
    uint16_t *skip = pattern_len <= VAEL_BM_MAX_PATTERN ? VAEL_PM_NEW_ZEROED_ARRAY(uint16_t, kSkipEntries) : nullptr;
    if (!skip) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: Error in allocating the skip_table\n");
        return nullptr;
    }
    for (uint32_t c = 0; c < kSkipEntries; c++)
        skip[c] = (uint16_t)pattern_len;
    // Rising order: the last place of a byte wins.
    for (uint32_t i = 0; i < pattern_len; i++) {
        const uint16_t distance = (uint16_t)(pattern_len - 1 - i);
        if (caseless) {
            skip[to_lower(pattern[i])] = distance;
            skip[to_upper(pattern[i])] = distance;
        } else {
            skip[pattern[i]] = distance;
        }
    }
    return skip;
}

uint16_t *vael_bm_create_shifttable(const unsigned char *pattern, uint32_t pattern_len, uint32_t *max_len_skip) {
    const int64_t m = pattern_len;
    uint16_t *shift = pattern_len <= VAEL_BM_MAX_PATTERN ? VAEL_PM_NEW_ZEROED_ARRAY(uint16_t, pattern_len) : nullptr;
    if (!shift) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: Error in allocating the shift_table for %d chars\n",
                 (int)pattern_len);
        return nullptr;
    }
    // suff[i]: the longest common suffix of pattern[0..i] and the pattern.
    uint32_t *suff = VAEL_NEW_ZEROED_ARRAY(uint32_t, pattern_len);
    if (!suff) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: Error in allocating the length table for %d chars\n",
                 (int)pattern_len);
        VAEL_PM_KFREE(shift, sizeof(uint16_t) * pattern_len);
        return nullptr;
    }
    suff[m - 1] = (uint32_t)m;
    int64_t g = m - 1;
    int64_t f = m - 1;
    for (int64_t i = m - 2; i >= 0; i--) {
        if (i > g && (int64_t)suff[i + m - 1 - f] < i - g) {
            suff[i] = suff[i + m - 1 - f];
        } else {
            if (i < g)
                g = i;
            f = i;
            while (g >= 0 && pattern[g] == pattern[g + m - 1 - f])
                g--;
            suff[i] = (uint32_t)(f - g);
        }
    }
    auto L = [&](int64_t k) { return (int64_t)suff[m - 1 - k]; };

    // The period: the largest k whose prefix of m - k bytes is a suffix.
    int64_t period = 0;
    for (int64_t k = m - 1; k >= 1; k--) {
        if (L(k) == m - k) {
            period = k;
            break;
        }
    }
    for (int64_t i = 0; i < m; i++)
        shift[i] = (uint16_t)(i < period ? period : m);
    // Falling k: the smallest k at an index stays.
    for (int64_t k = m - 1; k >= 1; k--)
        shift[m - 1 - L(k)] = (uint16_t)k;
    VAEL_KFREE(suff, sizeof(uint32_t) * pattern_len);
    *max_len_skip = (uint32_t)(period ? period : m);
    return shift;
}

uint32_t vael_bm_search(const unsigned char *buf, uint32_t len, const unsigned char *pattern, uint32_t pattern_len,
                        const uint16_t *skip, const uint16_t *shift, uint32_t start, int *found) {
    return search<Plain>(buf, len, pattern, pattern_len, skip, shift, start, found);
}

uint32_t vael_bm_ci_search(const unsigned char *buf, uint32_t len, const unsigned char *pattern,
                           uint32_t pattern_len, const uint16_t *skip, const uint16_t *shift, uint32_t start,
                           int *found) {
    return search<Caseless>(buf, len, pattern, pattern_len, skip, shift, start, found);
}

void vael_bm_destroy(uint16_t *skip, uint16_t *shift, uint32_t pattern_len) {
    if (skip)
        VAEL_PM_KFREE(skip, sizeof(uint16_t) * kSkipEntries);
    if (shift)
        VAEL_PM_KFREE(shift, sizeof(uint16_t) * pattern_len);
}

int vael_bm_search_vbuf_opt(vael_vbuf *, const unsigned char *, uint32_t, const uint16_t *, const uint16_t *,
                            uint32_t, int *found) {
    if (found)
        *found = 0;
    return 0;
}

}  // extern "C"
