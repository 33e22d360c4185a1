// vael_kw_data.cpp - the `data` keyword: a search of the buffer for a fixed
// byte string, by Boyer-Moore.
//
// The content between the quotes mixes plain characters, escapes (a
// backslash before a backslash, a quote, ':' or ';') and hexadecimal runs
// between '|' characters. The run remembers, in the `prev_scan` word the
// engine keeps per keyword, where its last fresh scan started: a rule that
// backtracks and reaches this keyword again further on does not search a
// range that the former scan already found empty.
//
// External interface: vael_kw_data_vtable and the functions behind it.

#include "keywords/vael_bm.h"
#include "keywords/vael_kw_keywords.h"

#include <cstring>

#include "pm/vael_pm_strings.h"
#include "runtime/vael_alloc.h"
#include "runtime/vael_image_io.h"
#include "runtime/vael_runtime.h"

namespace {

constexpr const char *kKwTopics = "K_KW";
constexpr const char *kKwErrTopics = "K_KW | K_ERROR";
constexpr uint32_t kDataProps = VAEL_KW_PROP_ABSOLUTE | VAEL_KW_PROP_MONOTONOUS | VAEL_KW_PROP_CHANGES_OFFSET |
                                VAEL_KW_PROP_ORDER_PRESERVING;
constexpr uint32_t kHeaderSize = 8;  // pattern_len and max_len_skip, behind the base

// Texts handed to the rule's author.
const char kNoQuotes[] = "Content needs to be enclosed in quotation marks (\") in data keyword";
const char kEmpty[] = "Empty data keyword";
const char kBackslashInHex[] = "Backslash in hex in data keyword";
const char kBadEscape[] = "Bad escape sequence in data keyword";
const char kBareQuote[] = "Non-escaped '\"' character in data keyword";
const char kIncompleteHex[] = "incomplete hex data in data keyword";
const char kHexConvert[] = "Failed to convert hex string to numeric in data keyword";
const char kSpaceInHex[] = "Space within hex number in data keyword";
const char kBadHex[] = "Invalid hex values in data keyword";
const char kUnfinished[] = "Backslash escape or hexmode is not completed in data keyword";
const char kCaretDepth[] = "Depth attribute cannot be defined with caret attribute in data keyword";
const char kNoKeyword[] = "Failed to allocated the data keyword";
const char kNoSkip[] = "Failed to allocate the data keyword's skip table";
const char kNoShift[] = "Failed to allocate the data keyword's shift table";
const char kNoParseMemory[] = "Failed to allocate memory for parsing content in data keyword";
const char kNoPattern[] = "Failed to allocate the pattern in data keyword";

vael_kw_data *as_data(vael_kw_abs *kw) { return reinterpret_cast<vael_kw_data *>(kw); }

int fail(vael_pm_error *err, const char *text, uint32_t type = VAEL_PM_ERROR_ILLEGAL) {
    vael_pm_error_set_details(err, type, text);
    return -1;
}

constexpr uint32_t kDepthRow = 3;
constexpr uint32_t kCaretRow = 5;
const vael_kw_attr kDataAttrs[] = {
    {"data:", vael_kw_data_parse},         {"nocase,", vael_kw_abs_nocase_parse},
    {"relative,", vael_kw_abs_relative_parse}, {"depth", vael_kw_abs_depth_parse},
    {"offset", vael_kw_abs_offset_parse},  {"caret,", vael_kw_abs_caret_parse},
};
constexpr uint32_t kDataRows = sizeof(kDataAttrs) / sizeof(kDataAttrs[0]);

bool is_escapable(char c) { return c == '\\' || c == '"' || c == ':' || c == ';'; }

}  // namespace

extern "C" {

int vael_kw_data_parse_content(const char *content, uint32_t len, unsigned char *out, uint32_t *out_len,
                               vael_pm_error *err) {
    bool escaped = false;
    bool hex_mode = false;
    char digits[3] = {};
    uint32_t pending = 0;
    uint32_t n = 0;
    for (uint32_t i = 0; i < len; i++) {
        const char c = content[i];
        if (escaped) {
            out[n++] = (unsigned char)c;
            escaped = false;
            continue;
        }
        if (c == '\\') {
            if (hex_mode)
                return fail(err, kBackslashInHex);
            if (i + 1 < len && !is_escapable(content[i + 1]))
                return fail(err, kBadEscape);
            escaped = true;
            continue;
        }
        if (c == '"')
            return fail(err, kBareQuote);
        if (c == '|') {
            if (hex_mode && pending == 1)
                return fail(err, kIncompleteHex);
            hex_mode = !hex_mode;
            continue;
        }
        if (hex_mode) {
            if (is_xdigit((unsigned char)c)) {
                digits[pending++] = c;
                if (pending == 2) {
                    int32_t value = 0;
                    if (vael_kw_abs_strtol(digits, nullptr, 16, &value) != 0)
                        return fail(err, kHexConvert);
                    out[n++] = (unsigned char)value;
                    pending = 0;
                }
            } else if (is_space((unsigned char)c)) {
                if (pending == 1)
                    return fail(err, kSpaceInHex);
            } else {
                return fail(err, kBadHex);
            }
            continue;
        }
        out[n++] = (unsigned char)c;
    }
    if (escaped || hex_mode)
        return fail(err, kUnfinished);
    *out_len = n;
    return 0;
}

int vael_kw_data_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err) {
    vael_kw_data *k = as_data(kw);
    const char *p = *text;
    vael_kw_abs_skip_whitespace(&p);
    if (*p == '!') {
        vael_kw_abs_set_negate(kw);
        p++;
        vael_kw_abs_skip_whitespace(&p);
    }
    if (*p != '"')
        return fail(err, kNoQuotes);
    // Attributes hold no quote, so the last one closes the content.
    const char *close = std::strrchr(p + 1, '"');
    if (!close)
        return fail(err, kNoQuotes);
    const uint32_t len = (uint32_t)(close - p - 1);
    if (len == 0)
        return fail(err, kEmpty);

    unsigned char *bytes = static_cast<unsigned char *>(VAEL_KMALLOC(len));
    if (!bytes)
        return fail(err, kNoParseMemory, VAEL_PM_ERROR_INTERNAL);
    uint32_t n = 0;
    if (vael_kw_data_parse_content(p + 1, len, bytes, &n, err) != 0) {
        VAEL_KFREE(bytes, len);
        return -1;
    }
    // Only '|' characters give no byte at all.
    if (n == 0) {
        VAEL_KFREE(bytes, len);
        return fail(err, kEmpty);
    }
    k->pattern = static_cast<unsigned char *>(VAEL_PM_KMALLOC(n + 1));
    if (!k->pattern) {
        VAEL_KFREE(bytes, len);
        return fail(err, kNoPattern);
    }
    std::memcpy(k->pattern, bytes, n);
    k->pattern[n] = '\0';
    k->pattern_len = n;
    VAEL_KFREE(bytes, len);

    // Over the quote and the comma the manager put behind the keyword.
    *text = close + 1;
    if (**text)
        (*text)++;
    return 0;
}

vael_kw_abs *vael_kw_data_create(const char *text, uint32_t type, vael_pm_error *err) {
    vael_kw_data *kw = VAEL_PM_NEW_ZEROED(vael_kw_data);
    if (!kw) {
        fail(err, kNoKeyword, VAEL_PM_ERROR_INTERNAL);
        return nullptr;
    }
    vael_kw_abs_init(&kw->abs, type, kDataProps);
    uint32_t seen[kDataRows] = {};
    if (vael_kw_abs_addattrs(&kw->abs, text, kDataAttrs, seen, kDataRows, err) != 0) {
        vael_kw_data_destroy(&kw->abs);
        return nullptr;
    }
    if (seen[kCaretRow]) {
        if (seen[kDepthRow]) {
            fail(err, kCaretDepth);
            vael_kw_data_destroy(&kw->abs);
            return nullptr;
        }
        // A caret pattern must lie at the start of its range.
        vael_kw_abs_set_depth(&kw->abs, kw->pattern_len);
    }
    const int caseless = vael_kw_abs_is_caseless(&kw->abs);
    if (caseless)
        for (uint32_t i = 0; i < kw->pattern_len; i++)
            kw->pattern[i] = to_lower(kw->pattern[i]);
    kw->skip_table = vael_bm_create_skiptable(kw->pattern, kw->pattern_len, caseless);
    if (!kw->skip_table) {
        fail(err, kNoSkip, VAEL_PM_ERROR_INTERNAL);
        vael_kw_data_destroy(&kw->abs);
        return nullptr;
    }
    kw->shift_table = vael_bm_create_shifttable(kw->pattern, kw->pattern_len, &kw->max_len_skip);
    if (!kw->shift_table) {
        fail(err, kNoShift, VAEL_PM_ERROR_INTERNAL);
        vael_kw_data_destroy(&kw->abs);
        return nullptr;
    }
    return &kw->abs;
}

int vael_kw_data_execute(vael_kw_abs *kw, const unsigned char *buf, uint32_t len, vael_vbuf *, uint32_t start_offset,
                         uint32_t size_to_scan, int from_backtrack, uint32_t *prev_scan, uint32_t *next_offset,
                         int *is_match) {
    const vael_kw_data *k = as_data(kw);
    const uint32_t m = k->pattern_len;
    *next_offset = start_offset;
    *is_match = 0;
    if (from_backtrack) {
        // start_offset is the end of the earlier match: resume max_len_skip
        // bytes behind that match's start.
        if (start_offset < m)
            return 0;
        const uint32_t back = m - k->max_len_skip;
        start_offset -= back;
        size_to_scan += back;
    } else {
        if (size_to_scan < m)
            return 0;
        if (!vael_kw_abs_is_negated(kw)) {
            const uint32_t prev = *prev_scan;
            const uint32_t called_at = start_offset;
            if (prev != 0) {
                const uint32_t prev_start = prev - 1;
                uint32_t scanned_end = len;
                if (kw->depth && (uint64_t)prev_start + kw->depth < len)
                    scanned_end = prev_start + kw->depth;
                if (prev_start <= start_offset && (uint64_t)scanned_end >= (uint64_t)start_offset + m) {
                    // The former scan covered the start of this range and
                    // found nothing that stands here.
                    const uint32_t new_start = scanned_end - m + 1;
                    const uint32_t moved = new_start - start_offset;
                    size_to_scan = moved < size_to_scan ? size_to_scan - moved : 0;
                    start_offset = new_start;
                    VAEL_LOG(VAEL_DBG_INFO, kKwTopics,
                             "%s: overlapping previous scan. narrowing down the search: start_offset %u, "
                             "size_to_scan %u\n",
                             start_offset, size_to_scan);
                    if (size_to_scan < m) {
                        VAEL_LOG(VAEL_DBG_INFO, kKwTopics, "%s: Already scanned %d-%d, skipping scan %d-%d\n",
                                 (int)prev_start, (int)scanned_end, (int)called_at, (int)(called_at + size_to_scan));
                        return 0;
                    }
                }
            }
            *prev_scan = called_at + 1;
        }
    }
    int found = 0;
    const uint32_t f =
        vael_kw_abs_is_caseless(kw)
            ? vael_bm_ci_search(buf + start_offset, size_to_scan, k->pattern, m, k->skip_table, k->shift_table, 0,
                                &found)
            : vael_bm_search(buf + start_offset, size_to_scan, k->pattern, m, k->skip_table, k->shift_table, 0,
                             &found);
    if (found) {
        *next_offset = start_offset + f + m;
        *is_match = 1;
    }
    return 0;
}

uint32_t vael_kw_data_get_serialized_size(vael_kw_abs *kw) {
    return vael_kw_abs_get_serialized_size() + kHeaderSize + 3 * as_data(kw)->pattern_len;
}

int vael_kw_data_serialize(vael_kw_abs *kw, unsigned char **position, uint32_t *space) {
    const vael_kw_data *k = as_data(kw);
    const uint32_t needed = vael_kw_data_get_serialized_size(kw);
    if (needed > *space) {
        // This text alone carries no function name.
        if (vael_us_adaptor_printable(VAEL_DBG_ERR, kKwErrTopics))
            vael_us_adaptor_kdprintf("buffer_size (%d) > *buf_size (%d)\n", (int)needed, (int)*space);
        return -1;
    }
    if (vael_kw_abs_serialize(kw, position, space) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to serialize abs kw\n");
        return -1;
    }
    vael::image_put_u32(position, space, k->pattern_len);
    vael::image_put_u32(position, space, k->max_len_skip);
    vael::image_put_bytes(position, space, k->pattern, k->pattern_len);
    vael::image_put_bytes(position, space, k->shift_table, 2 * k->pattern_len);
    return 0;
}

vael_kw_abs *vael_kw_data_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                                      vael_vbuf_iter *iter) {
    vael_kw_data *kw = VAEL_PM_NEW_ZEROED(vael_kw_data);
    if (!kw) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to allocate the data keyword\n");
        return nullptr;
    }
    if (vael_kw_abs_deserialize(&kw->abs, position, space, vbuf, iter) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to deserialize abs kw\n");
        vael_kw_data_destroy(&kw->abs);
        return nullptr;
    }
    vael::ImageReader reader{position, space, vbuf, iter};
    uint32_t m = 0;
    uint32_t period = 0;
    reader.u32(&m);
    reader.u32(&period);
    // A length the rest of the image cannot hold, or a period outside the
    // pattern, would have the search read or step where it must not.
    if (m == 0 || m > VAEL_BM_MAX_PATTERN || (uint64_t)3 * m > *space || period == 0 || period > m) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: corrupted pattern length %u (max_len_skip %u, %u bytes left)\n", m,
                 period, *space);
        vael_kw_data_destroy(&kw->abs);
        return nullptr;
    }
    kw->pattern_len = m;
    kw->max_len_skip = period;
    kw->pattern = static_cast<unsigned char *>(VAEL_PM_KMALLOC(m + 1));
    if (!kw->pattern) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to allocate the pattern\n");
        vael_kw_data_destroy(&kw->abs);
        return nullptr;
    }
    std::memset(kw->pattern, 0, m + 1);
    reader.bytes(kw->pattern, m);
    kw->shift_table = VAEL_PM_NEW_ZEROED_ARRAY(uint16_t, m);
    if (!kw->shift_table) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to allocate the shift table\n");
        vael_kw_data_destroy(&kw->abs);
        return nullptr;
    }
    reader.bytes(kw->shift_table, 2 * m);
    // Every step of the search must move forward.
    for (uint32_t i = 0; i < m; i++) {
        if (kw->shift_table[i] == 0 || kw->shift_table[i] > m) {
            VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: corrupted shift table entry %u at %u\n",
                     (unsigned)kw->shift_table[i], i);
            vael_kw_data_destroy(&kw->abs);
            return nullptr;
        }
    }
    kw->skip_table = vael_bm_create_skiptable(kw->pattern, m, vael_kw_abs_is_caseless(&kw->abs));
    if (!kw->skip_table) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s:  failed to create the skip table\n");
        vael_kw_data_destroy(&kw->abs);
        return nullptr;
    }
    return &kw->abs;
}

void vael_kw_data_destroy(vael_kw_abs *kw) {
    if (!kw)
        return;
    vael_kw_data *k = as_data(kw);
    if (k->pattern)
        VAEL_PM_KFREE(k->pattern, k->pattern_len + 1);
    vael_bm_destroy(k->skip_table, k->shift_table, k->pattern_len);
    vael_kw_abs_destroy(kw);
    VAEL_PM_KFREE(k, sizeof(vael_kw_data));
}

extern const vael_kw_vtable vael_kw_data_vtable = {
    vael_kw_data_create,    vael_kw_data_execute,     vael_kw_data_get_serialized_size,
    vael_kw_data_serialize, vael_kw_data_deserialize, vael_kw_data_destroy,
};

}  // extern "C"
