// vael_kw_abs.cpp - the base record of every keyword and the attribute
// language that fills it.
//
// A keyword's text, as the manager hands it over, starts with the keyword's
// name and ends in ','. vael_kw_abs_addattrs walks it over the keyword's
// table of rows: the first row whose name is a prefix of the rest is taken,
// its parser consumes its value and the comma behind it, and the walk goes on
// until the text is used up. The defaults and the validation run once, at the
// end, so the order of the attributes never matters to them.
//
// Numbers come from two places: the rule (vael_kw_abs_get_next_value_numeric
// and the library's own strtol, which clamps rather than wraps) and the data
// (vael_kw_abs_extract, a binary field of 1 to 4 bytes in either byte order,
// or a text field of 1 to 11 characters).

#include "keywords/vael_kw_abs.h"

#include <cstring>

#include "pm/vael_pm_strings.h"
#include "runtime/vael_image_io.h"
#include "runtime/vael_runtime.h"

namespace {

constexpr const char *kKwTopics = "K_KW";
constexpr const char *kKwErrTopics = "K_KW | K_ERROR";

// Texts handed to the rule's author.
const char kAttrEmpty[] = "Keyword's attribute is empty";
const char kAttrUnsupported[] = "Keyword's attribute is not supported";
const char kAttrTwice[] = "Keyword's attribute cannot be set twice for the same keyword";
const char kNegativeAbsolute[] = "Illegal negative offset for absolute keyword";
const char kSignedUnsigned[] = "Both signed and unsigned attributes within keyword";
const char kEndianString[] = "Can't set endianity with string attribute in keyword";
const char kBadExtractLength[] = "The length of the numeric value that should be extracted is illegal";
const char kBaseNeedsString[] =
    "The number types attributes (hex, oct and dec) can only be used with string attribute in keyword";
const char kBigLittle[] = "Big and little attributes cannot be used together in keyword";
const char kTwoBases[] = "Only one number type attribute (dec, hex and oct) is allowed in keyword";
const char kBadOffset[] = "Failed to get offset attribute from keyword";
const char kBadDepth[] = "Failed to get depth attribute from keyword";

// The longest text field: ten digits and a sign.
constexpr uint32_t kMaxStringField = 11;
constexpr uint32_t kMaxBinaryField = 4;

void set_illegal(vael_pm_error *err, const char *text) { vael_pm_error_set_details(err, VAEL_PM_ERROR_ILLEGAL, text); }

int set_base(vael_kw_abs *kw, uint32_t base, vael_pm_error *err) {
    if (kw->base) {
        set_illegal(err, kTwoBases);
        return -1;
    }
    kw->base = base;
    return 0;
}

}  // namespace

extern "C" {

void vael_kw_abs_init(vael_kw_abs *kw, uint32_t type, uint32_t props) {
    std::memset(kw, 0, sizeof(*kw));
    kw->type = type;
    kw->props = props;
}

void vael_kw_abs_destroy(vael_kw_abs *) {}

void vael_kw_abs_set_caseless(vael_kw_abs *kw) { kw->flags |= VAEL_KW_FLAG_CASELESS; }

void vael_kw_abs_set_caret(vael_kw_abs *kw) {
    kw->flags |= VAEL_KW_FLAG_CARET;
    kw->props = (kw->props | VAEL_KW_PROP_ANCHORED) & ~VAEL_KW_PROP_MONOTONOUS;
}

void vael_kw_abs_set_negate(vael_kw_abs *kw) {
    kw->flags |= VAEL_KW_FLAG_NEGATED;
    kw->props = (kw->props | VAEL_KW_PROP_ANCHORED) & ~(VAEL_KW_PROP_MONOTONOUS | VAEL_KW_PROP_CHANGES_OFFSET);
}

void vael_kw_abs_set_relative(vael_kw_abs *kw) { kw->props &= ~VAEL_KW_PROP_ABSOLUTE; }

void vael_kw_abs_set_monotonous(vael_kw_abs *kw) { kw->props |= VAEL_KW_PROP_MONOTONOUS; }

void vael_kw_abs_set_depth(vael_kw_abs *kw, uint32_t value) {
    kw->props &= ~VAEL_KW_PROP_MONOTONOUS;
    kw->depth = value;
}

void vael_kw_abs_set_user_offset(vael_kw_abs *kw, int32_t value) { kw->user_offset = value; }

void vael_kw_abs_set_num_extract(vael_kw_abs *kw) { kw->flags |= VAEL_KW_FLAG_NUM_EXTRACT; }

int vael_kw_abs_is_negated(const vael_kw_abs *kw) { return (kw->flags & VAEL_KW_FLAG_NEGATED) != 0; }
int vael_kw_abs_is_caret(const vael_kw_abs *kw) { return (kw->flags & VAEL_KW_FLAG_CARET) != 0; }
int vael_kw_abs_is_caseless(const vael_kw_abs *kw) { return (kw->flags & VAEL_KW_FLAG_CASELESS) != 0; }
int vael_kw_abs_is_monotonous(const vael_kw_abs *kw) { return (kw->props & VAEL_KW_PROP_MONOTONOUS) != 0; }

void vael_kw_abs_skip_whitespace(const char **text) {
    while (is_whitespace((unsigned char)**text))
        (*text)++;
}

int vael_kw_abs_addattrs(vael_kw_abs *kw, const char *text, const vael_kw_attr *table, uint32_t *seen,
                         uint32_t rows, vael_pm_error *err) {
    vael_kw_abs_skip_whitespace(&text);
    if (!*text) {
        set_illegal(err, kAttrEmpty);
        return -1;
    }
    while (*text) {
        uint32_t row = 0;
        size_t name_len = 0;
        for (; row < rows; row++) {
            name_len = std::strlen(table[row].name);
            if (std::strncmp(text, table[row].name, name_len) == 0)
                break;
        }
        if (row == rows) {
            VAEL_LOG(VAEL_DBG_NOTICE, kKwTopics, "%s: unsupported attribute at '%s'\n", text);
            set_illegal(err, kAttrUnsupported);
            return -1;
        }
        text += name_len;
        if (seen[row]) {
            set_illegal(err, kAttrTwice);
            return -1;
        }
        seen[row] = 1;
        if (table[row].parse(kw, &text, err) != 0)
            return -1;
        vael_kw_abs_skip_whitespace(&text);
    }

    if (kw->flags & VAEL_KW_FLAG_NUM_EXTRACT) {
        if (kw->flags & VAEL_KW_FLAG_STRING) {
            if (kw->base == 0)
                kw->base = 16;
        } else if (!(kw->flags & (VAEL_KW_FLAG_BIG | VAEL_KW_FLAG_LITTLE))) {
            kw->flags |= VAEL_KW_FLAG_BIG;
        }
    }
    if (!(kw->props & VAEL_KW_PROP_CHANGES_OFFSET))
        kw->props |= VAEL_KW_PROP_ORDER_PRESERVING;
    return vael_kw_abs_validate(kw, err) ? 0 : -1;
}

int vael_kw_abs_validate(vael_kw_abs *kw, vael_pm_error *err) {
    if ((kw->props & VAEL_KW_PROP_ABSOLUTE) && kw->user_offset < 0) {
        set_illegal(err, kNegativeAbsolute);
        return 0;
    }
    if (!(kw->flags & VAEL_KW_FLAG_NUM_EXTRACT))
        return 1;
    if ((kw->flags & VAEL_KW_FLAG_SIGNED) && (kw->flags & VAEL_KW_FLAG_UNSIGNED)) {
        set_illegal(err, kSignedUnsigned);
        return 0;
    }
    if (kw->flags & VAEL_KW_FLAG_STRING) {
        if (kw->flags & (VAEL_KW_FLAG_BIG | VAEL_KW_FLAG_LITTLE)) {
            set_illegal(err, kEndianString);
            return 0;
        }
        if (kw->depth < 1 || kw->depth > kMaxStringField) {
            set_illegal(err, kBadExtractLength);
            return 0;
        }
        if (!(kw->flags & VAEL_KW_FLAG_UNSIGNED))
            kw->flags |= VAEL_KW_FLAG_SIGNED;
        return 1;
    }
    if (kw->base != 0) {
        set_illegal(err, kBaseNeedsString);
        return 0;
    }
    if ((kw->flags & VAEL_KW_FLAG_BIG) && (kw->flags & VAEL_KW_FLAG_LITTLE)) {
        set_illegal(err, kBigLittle);
        return 0;
    }
    if (kw->depth < 1 || kw->depth > kMaxBinaryField) {
        set_illegal(err, kBadExtractLength);
        return 0;
    }
    if (!(kw->flags & VAEL_KW_FLAG_SIGNED))
        kw->flags |= VAEL_KW_FLAG_UNSIGNED;
    return 1;
}

int vael_kw_abs_get_next_value(const char **text, const char **end) {
    const char *start = *text;
    vael_kw_abs_skip_whitespace(&start);
    bool in_quotes = false;
    bool escaped = false;
    const char *p = start;
    for (;; p++) {
        const char c = *p;
        if (!c) {
            VAEL_LOG(VAEL_DBG_NOTICE, kKwTopics, "%s: No ending comma (,)\n");
            return -1;
        }
        if (c == ',' && !in_quotes)
            break;
        if (c != '"')
            escaped = c == '\\' ? !escaped : false;
        else if (!in_quotes)
            in_quotes = true;
        else if (!escaped)
            in_quotes = false;
    }
    if (p == start) {
        VAEL_LOG(VAEL_DBG_NOTICE, kKwTopics, "%s: empty value\n");
        return -1;
    }
    *text = start;
    *end = p;
    return 0;
}

int vael_kw_abs_get_next_value_numeric(const char **text, uint32_t base, int32_t *value) {
    *value = 0;
    const char *end = nullptr;
    if (vael_kw_abs_get_next_value(text, &end) != 0)
        return -1;
    const char *stop = *text;
    if (vael_kw_abs_strtol(*text, &stop, base, value) != 0)
        return -1;
    if (stop != end) {
        VAEL_LOG(VAEL_DBG_NOTICE, kKwTopics, "%s: illigal value\n");
        return -1;
    }
    *text = end + 1;
    return 0;
}

int vael_kw_abs_strtol(const char *text, const char **end, uint32_t base, int32_t *value) {
    if (base != 0 && base != 8 && base != 10 && base != 16) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: illigal base %d\n", (int)base);
        return -1;
    }
    const char *s = text;
    vael_kw_abs_skip_whitespace(&s);
    if (!*s) {
        *value = 0;
        return 0;
    }
    bool negative = false;
    if (*s == '-' || *s == '+') {
        negative = *s == '-';
        s++;
    }
    const char *hex_prefix = nullptr;
    if (*s != '0') {
        if (base == 0)
            base = 10;
    } else if (base == 0 || base == 16) {
        if (s[1] == 'x' || s[1] == 'X') {
            hex_prefix = s + 1;
            s += 2;
            base = 16;
        } else if (base == 0) {
            base = 8;
        }
    }
    const uint32_t limit = UINT32_MAX / base;
    const uint32_t last_digit = UINT32_MAX % base;
    uint32_t acc = 0;
    bool any = false;
    bool overflow = false;
    for (;; s++) {
        const unsigned char c = (unsigned char)*s;
        uint32_t digit;
        if (is_digit(c))
            digit = c - '0';
        else if (is_alpha(c))
            digit = to_upper(c) - 'A' + 10;
        else
            break;
        if (digit >= base)
            break;
        any = true;
        if (overflow || acc > limit || (acc == limit && digit > last_digit))
            overflow = true;
        else
            acc = acc * base + digit;
    }
    if (end) {
        if (!any) {
            *end = hex_prefix ? hex_prefix : text;
            *value = 0;
            return 0;
        }
        *end = s;
    }
    if (!overflow && (negative ? acc > 0x80000000u : acc > 0x7FFFFFFFu))
        overflow = true;
    if (overflow) {
        acc = 0x7FFFFFFFu;
        VAEL_LOG(VAEL_DBG_NOTICE, kKwTopics, "%s: overflow, return %cMAX_INT\n", negative ? '-' : '+');
    }
    *value = (int32_t)(negative ? 0u - acc : acc);
    return 0;
}

int vael_kw_abs_extract(const vael_kw_abs *kw, const unsigned char *buf, uint32_t start_offset, uint32_t size,
                        int *out_of_range, int32_t *value) {
    *value = 0;
    *out_of_range = 0;
    if (size == 0) {
        *out_of_range = 1;
        return 0;
    }
    const unsigned char *field = buf + start_offset;
    if (!(kw->flags & VAEL_KW_FLAG_STRING)) {
        // A validated keyword has a depth of 1 to 4; a wider field from a
        // damaged image cannot fit the number either.
        if (size != kw->depth || size > kMaxBinaryField) {
            *out_of_range = 1;
            return 0;
        }
        uint32_t x = 0;
        for (uint32_t i = 0; i < size; i++)
            x |= (uint32_t)field[i] << (kw->flags & VAEL_KW_FLAG_LITTLE ? 8 * i : 8 * (size - 1 - i));
        if ((kw->flags & VAEL_KW_FLAG_SIGNED) && size < 4 && (x & (1u << (8 * size - 1))))
            x |= ~0u << (8 * size);
        *value = (int32_t)x;
        return 0;
    }
    char digits[kMaxStringField + 1];
    const uint32_t n = size < kMaxStringField ? size : kMaxStringField;
    std::memcpy(digits, field, n);
    digits[n] = '\0';
    if (vael_kw_abs_strtol(digits, nullptr, kw->base, value) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: vael_kw_abs_strtol failed\n");
        return -1;
    }
    return 0;
}

void vael_kw_abs_print_props(const vael_kw_abs *kw) {
    const uint32_t p = kw->props;
    vael_us_adaptor_kdprintf("Properties: %s, %s, %s, %s, %s, %s\n",
                             p & VAEL_KW_PROP_ABSOLUTE ? "absolute" : "relative",
                             p & VAEL_KW_PROP_ANCHORED ? "anchored" : "floating",
                             p & VAEL_KW_PROP_MONOTONOUS ? "monotonous" : "non-monotonous",
                             p & VAEL_KW_PROP_CHANGES_OFFSET ? "changes offset" : "doesn't change offset",
                             p & VAEL_KW_PROP_ORDER_PRESERVING ? "order-preserving" : "not order-preserving",
                             p & VAEL_KW_PROP_GIVE_UP_NO_MATCH ? "give up no match" : "backtrack no match");
}

uint32_t vael_kw_abs_get_serialized_size(void) { return VAEL_KW_ABS_IMAGE_SIZE; }

int vael_kw_abs_serialize(const vael_kw_abs *kw, unsigned char **position, uint32_t *space) {
    if (*space < VAEL_KW_ABS_IMAGE_SIZE) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: needed_size (%d) > *buf_size (%d)\n", (int)VAEL_KW_ABS_IMAGE_SIZE,
                 (int)*space);
        return -1;
    }
    vael::image_put_u32(position, space, VAEL_KW_ABS_MAGIC);
    const uint32_t words[6] = {kw->type, kw->props, kw->flags, (uint32_t)kw->user_offset, kw->base, kw->depth};
    vael::image_put_bytes(position, space, words, sizeof(words));
    return 0;
}

int vael_kw_abs_deserialize(vael_kw_abs *kw, const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                            vael_vbuf_iter *iter) {
    if (!vbuf && (!position || !*position)) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: buf and vbuf are NULL\n");
        return -1;
    }
    vael::ImageReader reader{position, space, vbuf, iter};
    uint32_t magic = 0;
    reader.u32(&magic);
    if (magic != VAEL_KW_ABS_MAGIC) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: Wrong serialization magic (%x) at the buffer\n", magic);
        return -1;
    }
    uint32_t words[6] = {};
    if (reader.bytes(words, sizeof(words))) {
        kw->type = words[0];
        kw->props = words[1];
        kw->flags = words[2];
        kw->user_offset = (int32_t)words[3];
        kw->base = words[4];
        kw->depth = words[5];
    }
    return 0;
}

int vael_kw_abs_serialize_pair(const char *caller, const vael_kw_abs *kw, unsigned char **position, uint32_t *space,
                               uint32_t first, uint32_t second) {
    if (vael_kw_abs_serialize(kw, position, space) != 0)
        return -1;
    if (*space < 8) {
        VAEL_LOG_AS(caller, VAEL_DBG_ERR, kKwErrTopics, "%s: needed_size (%d) > *buf_size (%d)\n", 8, (int)*space);
        return -1;
    }
    vael::image_put_u32(position, space, first);
    vael::image_put_u32(position, space, second);
    return 0;
}

int vael_kw_abs_deserialize_pair(const char *caller, vael_kw_abs *kw, const unsigned char **position,
                                 uint32_t *space, vael_vbuf *vbuf, vael_vbuf_iter *iter, uint32_t pair[2]) {
    pair[0] = pair[1] = 0;
    if (vael_kw_abs_deserialize(kw, position, space, vbuf, iter) != 0) {
        VAEL_LOG_AS(caller, VAEL_DBG_ERR, kKwErrTopics, "%s: failed the deserialize abs kw\n");
        return -1;
    }
    vael::ImageReader reader{position, space, vbuf, iter};
    if (!reader.bytes(pair, 8))
        pair[0] = pair[1] = 0;
    return 0;
}

int vael_kw_abs_relative_parse(vael_kw_abs *kw, const char **, vael_pm_error *) {
    vael_kw_abs_set_relative(kw);
    return 0;
}

int vael_kw_abs_nmon_parse(vael_kw_abs *kw, const char **, vael_pm_error *) {
    kw->props &= ~VAEL_KW_PROP_MONOTONOUS;
    return 0;
}

int vael_kw_abs_big_parse(vael_kw_abs *kw, const char **, vael_pm_error *) {
    kw->flags |= VAEL_KW_FLAG_BIG;
    return 0;
}

int vael_kw_abs_little_parse(vael_kw_abs *kw, const char **, vael_pm_error *) {
    kw->flags |= VAEL_KW_FLAG_LITTLE;
    return 0;
}

int vael_kw_abs_hex_parse(vael_kw_abs *kw, const char **, vael_pm_error *err) { return set_base(kw, 16, err); }
int vael_kw_abs_dec_parse(vael_kw_abs *kw, const char **, vael_pm_error *err) { return set_base(kw, 10, err); }
int vael_kw_abs_oct_parse(vael_kw_abs *kw, const char **, vael_pm_error *err) { return set_base(kw, 8, err); }

int vael_kw_abs_string_parse(vael_kw_abs *kw, const char **, vael_pm_error *) {
    kw->flags |= VAEL_KW_FLAG_STRING | VAEL_KW_FLAG_SIGNED;
    return 0;
}

int vael_kw_abs_signed_parse(vael_kw_abs *kw, const char **, vael_pm_error *) {
    kw->flags |= VAEL_KW_FLAG_SIGNED;
    return 0;
}

int vael_kw_abs_unsigned_parse(vael_kw_abs *kw, const char **, vael_pm_error *) {
    kw->flags |= VAEL_KW_FLAG_UNSIGNED;
    return 0;
}

int vael_kw_abs_nocase_parse(vael_kw_abs *kw, const char **, vael_pm_error *) {
    vael_kw_abs_set_caseless(kw);
    return 0;
}

int vael_kw_abs_caret_parse(vael_kw_abs *kw, const char **, vael_pm_error *) {
    vael_kw_abs_set_caret(kw);
    return 0;
}

int vael_kw_abs_offset_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err) {
    int32_t value = 0;
    if (vael_kw_abs_get_next_value_numeric(text, 0, &value) != 0) {
        set_illegal(err, kBadOffset);
        return -1;
    }
    vael_kw_abs_set_user_offset(kw, value);
    return 0;
}

int vael_kw_abs_depth_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err) {
    int32_t value = 0;
    if (vael_kw_abs_get_next_value_numeric(text, 0, &value) != 0) {
        set_illegal(err, kBadDepth);
        return -1;
    }
    vael_kw_abs_set_depth(kw, (uint32_t)value);
    return 0;
}

}  // extern "C"
