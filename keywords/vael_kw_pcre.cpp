// vael_kw_pcre.cpp - the `pcre` and `re` keywords: a regular expression run
// at a place in the rule. They are one keyword with two engines: `pcre`
// compiles its expression in the PCRE row of pm_tier2_funcs, `re` in the
// REM row, and each keyword holds a complete handle of that row with no PM
// around it. The expression compiles once, with the rule; a run only calls
// the row's exec.
//
// The argument is written "/expression/flags" or "mDexpressionDflags" with
// a delimiter D of the author's choice; the expression runs to the last
// occurrence of the delimiter, so a '/' inside needs no escape. The flag 'i'
// is `nocase` and 'R' is `relative`; other flags are logged and ignored.
//
// A run hands the engine buf + start_offset as its whole input, so a '^'
// means the start of the keyword's range. The first hit ends the engine's
// run: PCRE delivers it through the context's function, REM through the
// queue. A resumed keyword starts where its earlier match ended, with no
// overlap.
//
// External interface: vael_kw_pcre_vtable, vael_kw_re_vtable and the
// functions behind them.

#include "keywords/vael_kw_keywords.h"

#include <cstring>

#include "pm/vael_pm_internal.h"
#include "pm/vael_pm_strings.h"
#include "runtime/vael_alloc.h"
#include "runtime/vael_image_io.h"
#include "runtime/vael_runtime.h"

namespace {

constexpr const char *kKwTopics = "K_KW";
constexpr const char *kKwErrTopics = "K_KW | K_ERROR";
constexpr uint32_t kPcreReProps = VAEL_KW_PROP_ABSOLUTE | VAEL_KW_PROP_MONOTONOUS | VAEL_KW_PROP_CHANGES_OFFSET;
constexpr uint32_t kTier2TypeSize = 4;

const char kNoArgument[] = "Failed to retrieve the first attribute in pcre keyword";
const char kNoQuotes[] = "Regexp needs to be enclosed in quotation marks (\") in pcre keyword";
const char kNoDelimiter[] = "No delimiter in pcre keyword";
const char kBadDelimiter[] = "Space/letter/digit cannot be used as ending delimiter in pcre keyword";
const char kNoSlash[] = "Regexp needs to be enclosed in delimiter / in pcre keyword";
const char kEmpty[] = "Empty regexp or missing delimiter in pcre keyword";
const char kNoMemory[] = "Failed to allocate the pcre keyword's string";

vael_kw_pcre_re *as_pcre_re(vael_kw_abs *kw) { return reinterpret_cast<vael_kw_pcre_re *>(kw); }

int fail(vael_pm_error *err, const char *text) {
    vael_pm_error_set_details(err, VAEL_PM_ERROR_ILLEGAL, text);
    return -1;
}

bool is_blank(unsigned char c) { return is_whitespace(c) || c == '\r' || c == '\v' || c == '\f'; }

// The last occurrence of c in [from, to), or null.
const char *last_of(const char *from, const char *to, char c) {
    for (const char *p = to; p > from; p--)
        if (p[-1] == c)
            return p - 1;
    return nullptr;
}

// Only the two engines that take an expression; an image may say anything.
bool is_regex_row(uint32_t row) { return row == VAEL_PM_TIER2_REM || row == VAEL_PM_TIER2_PCRE; }

const vael_kw_attr kPcreAttrs[] = {
    {"pcre:", vael_kw_pcre_re_parse},        {"nocase,", vael_kw_abs_nocase_parse},
    {"relative,", vael_kw_abs_relative_parse}, {"nmon,", vael_kw_abs_nmon_parse},
    {"depth", vael_kw_abs_depth_parse},        {"offset", vael_kw_abs_offset_parse},
};
const vael_kw_attr kReAttrs[] = {
    {"re:", vael_kw_pcre_re_parse},            {"nocase,", vael_kw_abs_nocase_parse},
    {"relative,", vael_kw_abs_relative_parse}, {"nmon,", vael_kw_abs_nmon_parse},
    {"depth", vael_kw_abs_depth_parse},        {"offset", vael_kw_abs_offset_parse},
};
constexpr uint32_t kRows = sizeof(kPcreAttrs) / sizeof(kPcreAttrs[0]);
static_assert(kRows == sizeof(kReAttrs) / sizeof(kReAttrs[0]), "both keywords take the same attributes");

// Where the engine's first hit lands: the offset of its last byte.
struct FirstHit {
    uint32_t end;
    int matched;
};

int first_hit(vael_pm_exec_cb_ctx *ctx, uint32_t offset, uint32_t *, int32_t) {
    auto *hit = static_cast<FirstHit *>(ctx->user_arg);
    hit->end = offset;
    hit->matched = 1;
    ctx->keep_going = 0;
    return 0;
}

}  // namespace

extern "C" {

int vael_kw_pcre_re_parse(vael_kw_abs *kw, const char **text, vael_pm_error *err) {
    const char *end = nullptr;
    if (vael_kw_abs_get_next_value(text, &end) != 0)
        return fail(err, kNoArgument);
    const char *p = *text;
    vael_kw_abs_skip_whitespace(&p);
    if (*p == '!') {
        vael_kw_abs_set_negate(kw);
        p++;
        vael_kw_abs_skip_whitespace(&p);
    }
    // The argument ends at the comma; within it, the text between the first
    // and the last double quote.
    const char *close = p < end && *p == '"' ? last_of(p + 1, end, '"') : nullptr;
    if (!close)
        return fail(err, kNoQuotes);
    const char *content = p + 1;
    char delim = '/';
    const char *open = content;
    if (content < close && *content == 'm') {
        open = content + 1;
        if (open == close)
            return fail(err, kNoDelimiter);
        delim = *open;
        const auto c = (unsigned char)delim;
        if (is_blank(c) || is_alpha(c) || is_digit(c))
            return fail(err, kBadDelimiter);
    } else if (content == close || *content != '/') {
        return fail(err, kNoSlash);
    }
    const char *last = last_of(open, close, delim);
    if (!last || last - open < 2)
        return fail(err, kEmpty);
    for (const char *f = last + 1; f < close; f++) {
        if (*f == 'i')
            vael_kw_abs_set_caseless(kw);
        else if (*f == 'R')
            vael_kw_abs_set_relative(kw);
        else
            VAEL_LOG(VAEL_DBG_ERR, "K_ERROR", "%s:   unknown pcre flag \n");
    }
    const char *expression = open + 1;
    const auto length = (uint32_t)(last - expression);
    // The '^' stays in the expression: the engine anchors by it, the
    // keyword's caret only tells the rule that there is one place to look.
    if (*expression == '^')
        vael_kw_abs_set_caret(kw);
    vael_kw_pcre_re *k = as_pcre_re(kw);
    vael_pmglob_string_destroy(k->string);
    k->string = vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(expression), length, -1, 0);
    if (!k->string) {
        vael_pm_error_set_details(err, VAEL_PM_ERROR_INTERNAL, kNoMemory);
        return -1;
    }
    *text = end + 1;
    return 0;
}

vael_kw_abs *vael_kw_pcre_re_create(const char *text, uint32_t type, uint32_t flags, vael_pm_error *err) {
    vael_kw_pcre_re *kw = VAEL_PM_NEW_ZEROED(vael_kw_pcre_re);
    if (!kw) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to allocate the pcre keyword\n");
        return nullptr;
    }
    vael_kw_abs_init(&kw->abs, type, kPcreReProps);
    const bool use_rem = (flags & VAEL_PM_USE_REM) != 0;
    kw->tier2_type = use_rem ? VAEL_PM_TIER2_REM : VAEL_PM_TIER2_PCRE;
    uint32_t seen[kRows] = {};
    if (vael_kw_abs_addattrs(&kw->abs, text, use_rem ? kReAttrs : kPcreAttrs, seen, kRows, err) != 0) {
        vael_kw_pcre_re_destroy(&kw->abs);
        return nullptr;
    }
    // `relative;` alone is found as a `re` keyword whose table takes the
    // attribute: it has no expression to compile.
    if (!kw->string) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: a %s keyword without an expression\n", use_rem ? "re" : "pcre");
        fail(err, kEmpty);
        vael_kw_pcre_re_destroy(&kw->abs);
        return nullptr;
    }
    if (vael_kw_abs_is_caseless(&kw->abs))
        flags |= VAEL_PM_CASELESS;
    const vael_pm_tier2_funcs &row = pm_tier2_funcs[kw->tier2_type];
    kw->tier2_h = row.compile ? row.compile(kw->string, 0, flags, err) : nullptr;
    if (!kw->tier2_h) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to compile %s regex. Error: %s\n",
                 row.name ? row.name : "unknown", err && err->error_string ? err->error_string : "none");
        vael_kw_pcre_re_destroy(&kw->abs);
        return nullptr;
    }
    return &kw->abs;
}

vael_kw_abs *vael_kw_pcre_create(const char *text, uint32_t type, vael_pm_error *err) {
    return vael_kw_pcre_re_create(text, type, 0, err);
}

vael_kw_abs *vael_kw_re_create(const char *text, uint32_t type, vael_pm_error *err) {
    return vael_kw_pcre_re_create(text, type, VAEL_PM_USE_REM, err);
}

int vael_kw_pcre_re_execute(vael_kw_abs *kw, const unsigned char *buf, uint32_t, vael_vbuf *, uint32_t start_offset,
                            uint32_t size_to_scan, int from_backtrack, uint32_t *prev_scan, uint32_t *next_offset,
                            int *is_match) {
    const vael_kw_pcre_re *k = as_pcre_re(kw);
    *next_offset = start_offset;
    *is_match = 0;
    if (!from_backtrack) {
        // A monotonous keyword that found nothing further from here or from
        // before cannot find more from a later start.
        if (prev_scan && *prev_scan && *prev_scan - 1 <= start_offset && vael_kw_abs_is_monotonous(kw)) {
            VAEL_LOG(VAEL_DBG_INFO, kKwTopics,
                     "%s: monotonous keyword and prev_offset %u <= start offset %u - no match \n", *prev_scan - 1,
                     start_offset);
            return 0;
        }
        if (prev_scan)
            *prev_scan = start_offset + 1;
    }
    if (size_to_scan == 0)
        return 0;
    if (!is_regex_row(k->tier2_type) || !k->tier2_h) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s failed to execute pcre/re\n");
        return -1;
    }
    const vael_pm_tier2_funcs &row = pm_tier2_funcs[k->tier2_type];
    FirstHit hit{0, 0};
    vael_pm_exec_cb_ctx ctx{};
    ctx.fn = first_hit;
    ctx.user_arg = &hit;
    ctx.keep_going = 1;
    lst_list *queue = nullptr;
    vael_timeval t0, t1;
    const bool timed = vael_pm_stats_take_exec_time != 0;
    if (timed)
        vael_time_get_hrtime(&t0);
    const int rc = row.exec(k->tier2_h, buf + start_offset, size_to_scan, nullptr, 0, &queue,
                            VAEL_PM_EXEC_FIRST_MATCH_ONLY, &ctx);
    if (timed) {
        vael_time_get_hrtime(&t1);
        vael_pm_stats_common_update_exec_time(row.get_common_stats ? row.get_common_stats(k->tier2_h) : nullptr,
                                              vael_time_diff_usec(&t0, &t1), ctx.cb_time);
    }
    if (rc != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s failed to execute pcre/re\n");
        vael_queue_cleanup(queue);
        return -1;
    }
    if (hit.matched) {
        *is_match = 1;
        *next_offset = start_offset + hit.end + 1;
    } else if (vael_queue_size(queue) > 0) {
        auto *d = reinterpret_cast<vael_pmglob_match_data *>(vael_dequeue(queue));
        if (d) {
            int32_t id;
            uint32_t offset, hint, extra[2];
            vael_pmglob_match_data_get(d, &id, &offset, &hint, extra);
            vael_pmglob_match_data_free(d);
            *is_match = 1;
            *next_offset = start_offset + offset + 1;
        }
    }
    vael_queue_cleanup(queue);
    return 0;
}

uint32_t vael_kw_pcre_re_get_serialized_size(vael_kw_abs *kw) {
    const vael_kw_pcre_re *k = as_pcre_re(kw);
    if (!is_regex_row(k->tier2_type))
        return 0;
    const vael_pm_tier2_funcs &row = pm_tier2_funcs[k->tier2_type];
    // A row without an image (REM before its image exists) makes the rule
    // one that cannot be written: the manager refuses it whole.
    const uint32_t tier2 = row.get_serialize_size ? row.get_serialize_size(k->tier2_h) : 0;
    if (tier2 == 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: no image of the %s handle\n", row.name ? row.name : "unknown");
        return 0;
    }
    return vael_kw_abs_get_serialized_size() + kTier2TypeSize + tier2;
}

int vael_kw_pcre_re_serialize(vael_kw_abs *kw, unsigned char **position, uint32_t *space) {
    const vael_kw_pcre_re *k = as_pcre_re(kw);
    if (!is_regex_row(k->tier2_type) || !pm_tier2_funcs[k->tier2_type].serialize)
        return -1;
    if (vael_kw_abs_serialize(kw, position, space) != 0)
        return -1;
    if (*space < kTier2TypeSize) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: needed_size (%d) > *buf_size (%d)\n", (int)kTier2TypeSize,
                 (int)*space);
        return -1;
    }
    vael::image_put_u32(position, space, k->tier2_type);
    if (pm_tier2_funcs[k->tier2_type].serialize(k->tier2_h, position, space) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to serialize tier2\n");
        return -1;
    }
    return 0;
}

vael_kw_abs *vael_kw_pcre_re_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                                         vael_vbuf_iter *iter) {
    vael_kw_pcre_re *kw = VAEL_PM_NEW_ZEROED(vael_kw_pcre_re);
    if (!kw) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to allocate the pcre keyword\n");
        return nullptr;
    }
    // Until the handle is there, destroy must not reach a row.
    kw->tier2_type = VAEL_PM_TIER2_NONE;
    if (vael_kw_abs_deserialize(&kw->abs, position, space, vbuf, iter) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed the deserialize abs kw\n");
        vael_kw_pcre_re_destroy(&kw->abs);
        return nullptr;
    }
    vael::ImageReader reader{position, space, vbuf, iter};
    uint32_t tier2_type = VAEL_PM_TIER2_NONE;
    if (!reader.u32(&tier2_type))
        tier2_type = VAEL_PM_TIER2_NONE;
    const vael_pm_tier2_funcs *row = is_regex_row(tier2_type) ? &pm_tier2_funcs[tier2_type] : nullptr;
    void *h = row && row->deserialize ? row->deserialize(reader.position, reader.space, reader.vbuf, reader.iter)
                                      : nullptr;
    if (!h) {
        VAEL_LOG(VAEL_DBG_ERR, kKwErrTopics, "%s: failed to deserialize tier2\n");
        vael_kw_pcre_re_destroy(&kw->abs);
        return nullptr;
    }
    kw->tier2_type = tier2_type;
    kw->tier2_h = h;
    return &kw->abs;
}

void vael_kw_pcre_re_destroy(vael_kw_abs *kw) {
    if (!kw)
        return;
    vael_kw_pcre_re *k = as_pcre_re(kw);
    // A loaded keyword has no text: it is not part of the image.
    if (k->string)
        vael_pmglob_string_destroy(k->string);
    if (k->tier2_h && is_regex_row(k->tier2_type) && pm_tier2_funcs[k->tier2_type].destroy)
        pm_tier2_funcs[k->tier2_type].destroy(k->tier2_h);
    vael_kw_abs_destroy(kw);
    VAEL_PM_KFREE(kw, sizeof(vael_kw_pcre_re));
}

extern const vael_kw_vtable vael_kw_pcre_vtable = {
    vael_kw_pcre_create,       vael_kw_pcre_re_execute,     vael_kw_pcre_re_get_serialized_size,
    vael_kw_pcre_re_serialize, vael_kw_pcre_re_deserialize, vael_kw_pcre_re_destroy,
};

extern const vael_kw_vtable vael_kw_re_vtable = {
    vael_kw_re_create,         vael_kw_pcre_re_execute,     vael_kw_pcre_re_get_serialized_size,
    vael_kw_pcre_re_serialize, vael_kw_pcre_re_deserialize, vael_kw_pcre_re_destroy,
};

}  // extern "C"
