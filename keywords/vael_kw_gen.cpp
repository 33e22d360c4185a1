// vael_kw_gen.cpp - test buffers for keyword rules: a buffer that a rule is
// meant to match, made by letting each keyword write its own condition at a
// cursor that follows the offset the rule will have when it reaches that
// keyword, or a fixed text that the rule is meant not to match.
//
// Positions are kept as signed distances from the buffer's start while they
// are checked, so that an offset that points before the buffer is refused
// without ever forming such a pointer. Nothing is written at or beyond the
// length in force, and that length never grows past the caller's size.
//
// A keyword's write is checked by running the keyword itself over what was
// written where it can be (`test`, `jump`, `length`), so a number that its
// field cannot hold gives a clean failure rather than a buffer that lies.

#include "keywords/vael_kw_gen.h"

#include <cstdio>
#include <cstring>

#include "keywords/vael_kw_keywords.h"
#include "keywords/vael_kw_mgr.h"
#include "runtime/vael_runtime.h"

namespace {

constexpr const char *kKwErrTopics = "K_KW | K_ERROR";

// What a matching buffer gets behind the last keyword's bytes, when no
// `length` keyword says how long the buffer is.
constexpr uint32_t kTailFiller = 8;
// What a regular expression may take when it has no `depth`.
constexpr uint32_t kRegexRoom = 512;
// Room for a regular expression above which it takes half of what is left,
// leaving the rest to the keywords behind it.
constexpr uint32_t kRegexShareAbove = 40;

// Indexed by keyword type, in the keyword table's order.
constexpr vael_kw_gen_buff_fn kGenerators[VAEL_KW_TYPE_NUM] = {
    vael_kw_data_gen_buff, vael_kw_length_gen_buff, vael_kw_test_gen_buff,
    vael_kw_pcre_gen_buff, vael_kw_jump_gen_buff,   vael_kw_pcre_gen_buff,
};

bool is_absolute(const vael_kw_abs *kw) { return (kw->props & VAEL_KW_PROP_ABSOLUTE) != 0; }
bool is_negated(const vael_kw_abs *kw) { return (kw->flags & VAEL_KW_FLAG_NEGATED) != 0; }

// `count` bytes at `at` lie inside the first `len` bytes.
bool fits(int64_t at, int64_t count, uint32_t len) { return at >= 0 && count >= 0 && at + count <= (int64_t)len; }

// Writes `value` into the number field of `kw` at `field` (its `depth`
// bytes, already known to fit): as text in the keyword's base, with no
// padding, or as a binary number in the keyword's byte order. -1 when the
// text is longer than the field.
int write_number(const vael_kw_abs *kw, unsigned char *field, int32_t value) {
    if (kw->flags & VAEL_KW_FLAG_STRING) {
        char text[12];
        const char *format = kw->base == 16 ? "%x" : kw->base == 10 ? "%d" : "%o";
        const int n = std::snprintf(text, sizeof text, format, value);
        if (n < 0 || (uint32_t)n > kw->depth || (size_t)n >= sizeof text)
            return -1;
        std::memcpy(field, text, (size_t)n);
        return 0;
    }
    const auto bits = (uint32_t)value;
    for (uint32_t i = 0; i < kw->depth; i++) {
        const auto byte = (unsigned char)(i < 4 ? bits >> (8 * i) : 0);
        if (kw->flags & VAEL_KW_FLAG_LITTLE)
            field[i] = byte;
        else
            field[kw->depth - 1 - i] = byte;
    }
    return 0;
}

// Runs the keyword as the rule would at `start` of a buffer of `len` bytes;
// the keyword's own answer, before a '!' turns it round. -1 on a failure of
// the keyword.
int run_keyword(vael_kw_abs *kw, const unsigned char *buf, uint32_t len, uint32_t start, uint32_t *next_offset,
                int *found) {
    uint32_t size = len - start;
    if (kw->depth != 0 && kw->depth < size)
        size = kw->depth;
    uint32_t prev_scan = 0;
    return vael_kw_table[kw->type].vtable->execute(kw, buf, len, nullptr, start, size, 0, &prev_scan, next_offset,
                                                   found);
}

// Ends the buffer with `text`, cut to the size; the length is what was
// written, so the caller never reads past its own buffer.
void write_text(unsigned char *buf, uint32_t size, uint32_t *len_inout, const char *text) {
    const int n = std::snprintf(reinterpret_cast<char *>(buf), size, "%s", text);
    const uint32_t room = size ? size - 1 : 0;
    *len_inout = n < 0 ? 0 : ((uint32_t)n < room ? (uint32_t)n : room);
}

}  // namespace

extern "C" {

int vael_kw_data_gen_buff(vael_kw_abs *kw, unsigned char *buf, unsigned char **cursor, uint32_t *len_inout, int match,
                          const vael_kw_gen_ctx *) {
    const auto *d = reinterpret_cast<const vael_kw_data *>(kw);
    const bool negated = is_negated(kw);
    // An absolute keyword bounded by a depth or a caret looks at a range
    // fixed from the start of the buffer, wherever the rule stands.
    const bool from_start = is_absolute(kw) && (kw->depth != 0 || (kw->flags & VAEL_KW_FLAG_CARET));
    int64_t cur = *cursor - buf;
    // A negated keyword leaves the rule's offset where it was, so the cursor
    // stays as well.
    if (from_start && !negated)
        cur = 0;
    *cursor = buf + cur;
    // The pattern is present when the keyword's answer is to be "found".
    if (match == (int)negated)
        return 0;
    if (kw->depth != 0 && d->pattern_len > kw->depth)
        return -1;
    int64_t place = (from_start ? 0 : cur) + kw->user_offset;
    if (!fits(place, d->pattern_len, *len_inout)) {
        if (!is_absolute(kw))
            return -1;
        place = kw->user_offset;
        if (!fits(place, d->pattern_len, *len_inout))
            return -1;
    }
    std::memcpy(buf + place, d->pattern, d->pattern_len);
    if (!negated)
        *cursor = buf + place + d->pattern_len;
    return 0;
}

int vael_kw_length_gen_buff(vael_kw_abs *kw, unsigned char *buf, unsigned char **cursor, uint32_t *len_inout,
                            int match, const vael_kw_gen_ctx *) {
    const auto *k = reinterpret_cast<const vael_kw_length *>(kw);
    const auto c = (uint32_t)(match ? k->comparison : ~k->comparison);
    const int64_t cur = *cursor - buf;
    const int64_t n = (int64_t)k->length + (is_absolute(kw) ? 0 : cur);
    int64_t len = *len_inout;
    if (c & VAEL_KW_LENGTH_MIN)
        len = len > 0 ? len - 1 : 0;
    else if (c & VAEL_KW_LENGTH_MAX)
        len = n > 0 ? n - 1 : 0;
    else
        len = n;
    if (len > (int64_t)UINT32_MAX || cur > len)
        return -1;
    *len_inout = (uint32_t)len;
    // The length may be above the caller's size here; the manager refuses
    // that. The keyword reads no data, so asking it is safe either way.
    uint32_t next = 0;
    int found = 0;
    const uint32_t start = is_absolute(kw) ? 0 : (uint32_t)cur;
    if (run_keyword(kw, buf, *len_inout, start, &next, &found) != 0 || found != match)
        return -1;
    return 0;
}

int vael_kw_test_gen_buff(vael_kw_abs *kw, unsigned char *buf, unsigned char **cursor, uint32_t *len_inout, int match,
                          const vael_kw_gen_ctx *) {
    const auto *k = reinterpret_cast<const vael_kw_test *>(kw);
    // An absolute field may lie anywhere, before what the rule has written
    // so far; and a bit test or a difference has no one number to write.
    if (is_absolute(kw) || k->op == VAEL_KW_TEST_AND || k->op == VAEL_KW_TEST_NE || k->op == VAEL_KW_TEST_OR)
        return -1;
    const int64_t field = (*cursor - buf) + (int64_t)kw->user_offset;
    if (!fits(field, kw->depth, *len_inout))
        return -1;
    // The comparison to make true: the keyword's own, or for a "not found"
    // one that fails it.
    const bool want = match != (int)is_negated(kw);
    uintptr_t op = k->op;
    if (!want)
        op = (op == VAEL_KW_TEST_EQ || op == VAEL_KW_TEST_LT) ? VAEL_KW_TEST_GT : VAEL_KW_TEST_EQ;
    int64_t number = k->value;
    if (op == VAEL_KW_TEST_LT)
        number--;
    else if (op == VAEL_KW_TEST_GT)
        number++;
    if (number < INT32_MIN || number > INT32_MAX)
        return -1;
    if (write_number(kw, buf + field, (int32_t)number) != 0)
        return -1;
    uint32_t next = 0;
    int found = 0;
    if (run_keyword(kw, buf, *len_inout, (uint32_t)field, &next, &found) != 0 || found != (int)want)
        return -1;
    // `test` leaves the rule's offset where it was; the rest of the rule
    // writes from there, over the field if it must.
    return 0;
}

int vael_kw_jump_gen_buff(vael_kw_abs *kw, unsigned char *buf, unsigned char **cursor, uint32_t *len_inout, int match,
                          const vael_kw_gen_ctx *) {
    const auto *k = reinterpret_cast<const vael_kw_jump *>(kw);
    if (is_absolute(kw))
        return -1;
    const int64_t field = (*cursor - buf) + (int64_t)kw->user_offset;
    if (!match) {
        // A byte that is no number in any base the field could have.
        if (!fits(field, 1, *len_inout))
            return -1;
        buf[field] = 'X';
        *cursor = buf + field + 1;
        return 0;
    }
    if (!fits(field, kw->depth, *len_inout))
        return -1;
    // The field holds its own length, so the rule lands behind the field.
    // Counted from the buffer's start, it holds the smallest number at or
    // above that which still lands behind the field.
    int64_t number = kw->depth;
    if (k->jump_flags & VAEL_KW_JUMP_FROM_BEGINNING) {
        const int64_t behind = field + kw->depth - k->post_offset;
        const int64_t need = behind > 0 ? (behind + k->multiplier - 1) / k->multiplier : 0;
        if (need > number)
            number = need;
    }
    if (number > INT32_MAX || write_number(kw, buf + field, (int32_t)number) != 0)
        return -1;
    // The keyword itself says where the rule goes on, so multiplier,
    // alignment and post offset are counted as a run counts them.
    uint32_t next = 0;
    int found = 0;
    if (run_keyword(kw, buf, *len_inout, (uint32_t)field, &next, &found) != 0 || !found || next > *len_inout)
        return -1;
    *cursor = buf + next;
    return 0;
}

int vael_kw_pcre_gen_buff(vael_kw_abs *kw, unsigned char *buf, unsigned char **cursor, uint32_t *len_inout, int match,
                          const vael_kw_gen_ctx *gen_ctx) {
    const auto *k = reinterpret_cast<const vael_kw_pcre_re *>(kw);
    if (is_absolute(kw) && (kw->depth != 0 || (kw->flags & VAEL_KW_FLAG_CARET)))
        return -1;
    if (match == (int)is_negated(kw))
        return 0;
    if (!k->string || !gen_ctx || !gen_ctx->gen_regex)
        return -1;
    const int64_t at = (*cursor - buf) + (int64_t)kw->user_offset;
    if (!fits(at, 0, *len_inout))
        return -1;
    const auto left = (uint32_t)(*len_inout - at);
    uint32_t size = kw->depth != 0 ? kw->depth : kRegexRoom;
    if (size > left)
        size = left > kRegexShareAbove ? left / 2 : left;
    const uint32_t room = size;
    const uint32_t caseless = (kw->flags & VAEL_KW_FLAG_CASELESS) ? VAEL_PM_CASELESS : 0;
    if (gen_ctx->gen_regex(k->string->pattern, k->string->size, 0, buf + at, &size, 0, k->string->flags, caseless,
                           1) != 0 ||
        size > room)
        return -1;
    if (!is_negated(kw))
        *cursor = buf + at + size;
    return 0;
}

int vael_kw_mgr_gen_test_buf(const vael_pmglob_string *rule, unsigned char *buf, uint32_t *len_inout, int match,
                             int verbose, const vael_kw_gen_ctx *gen_ctx) {
    if (!rule || !rule->pattern) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: No keywords rule.\n");
        return VAEL_ERROR;
    }
    if (!buf || !len_inout) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: Invalid arguments\n");
        return VAEL_ERROR;
    }
    vael_kw_abs *keywords[VAEL_KW_MAX_KEYWORDS];
    uint32_t count = VAEL_KW_MAX_KEYWORDS;
    vael_pm_error err;
    vael_pm_error_init(&err);
    if (vael_kw_mgr_add_kw(keywords, &count, reinterpret_cast<const char *>(rule->pattern), &err) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to add keywords. error is %s\n",
                 err.error_string ? err.error_string : "(none)");
        return VAEL_ERROR;
    }
    const uint32_t size = *len_inout;
    if (gen_ctx && gen_ctx->fill)
        gen_ctx->fill(buf, size);
    else
        std::memset(buf, 0, size);

    auto destroy_all = [&]() {
        for (uint32_t i = 0; i < count; i++)
            vael_kw_table[keywords[i]->type].vtable->destroy(keywords[i]);
    };

    if (!match) {
        // The keywords are not asked: the text is what the rule is not to
        // find. They are still the caller's to be rid of.
        destroy_all();
        write_text(buf, size, len_inout, VAEL_KW_GEN_MISS_TEXT);
        if (verbose >= 1)
            vael_us_adaptor_kdprintf("%s: mismatch buffer of %u bytes\n", __func__, *len_inout);
        return VAEL_OK;
    }

    // The first keyword writes where the buffer starts, which is where an
    // absolute one would look first as well; and an absolute `test` or
    // `jump` first can then be made at all.
    keywords[0]->props &= ~VAEL_KW_PROP_ABSOLUTE;
    unsigned char *cursor = buf;
    bool length_set = false;
    int rc = 0;
    for (uint32_t i = 0; i < count && rc == 0; i++) {
        vael_kw_abs *kw = keywords[i];
        rc = kGenerators[kw->type](kw, buf, &cursor, len_inout, 1, gen_ctx);
        // The length in force never grows past the caller's buffer, and the
        // cursor stays inside it.
        if (rc == 0 && (*len_inout > size || cursor < buf || cursor > buf + *len_inout))
            rc = -1;
        length_set = length_set || kw->type == VAEL_KW_TYPE_LENGTH;
        if (verbose >= 2)
            vael_us_adaptor_kdprintf("%s: keyword %u (%s): %s, cursor %ld, length %u\n", __func__, i,
                                     vael_kw_table[kw->type].name, rc == 0 ? "written" : "failed",
                                     (long)(cursor - buf), *len_inout);
    }
    destroy_all();
    if (rc != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: --==ERROR==-- Fail to gen buffer\n");
        write_text(buf, size, len_inout, VAEL_KW_GEN_FAIL_TEXT);
        if (verbose >= 1)
            vael_us_adaptor_kdprintf("%s: no buffer can be made for the rule\n", __func__);
        return VAEL_OK;
    }
    if (!length_set) {
        const uint32_t used = (uint32_t)(cursor - buf);
        *len_inout = size - used > kTailFiller ? used + kTailFiller : size;
    }
    if (verbose >= 1)
        vael_us_adaptor_kdprintf("%s: matching buffer of %u bytes\n", __func__, *len_inout);
    return VAEL_OK;
}

}  // extern "C"
