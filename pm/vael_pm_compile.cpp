// vael_pm_compile.cpp - what the compile does to one user pattern: the
// pre-processing (UTF-8 rewriting, bounded templates), its LSS, the split between the first
// tier and the second, the second tier compiled by its row, and the PM entry.
//
// The first tier is a filter that scans once for all patterns; a pattern
// pays for its second tier only at a first-tier hit, and only when its LSS
// cannot prove the match by itself.

#include <cstring>

#include "analysis/vael_pm_lss_finder.h"
#include "analysis/vael_pm_special_chars.h"
#include "analysis/vael_pm_utf8.h"
#include "pm/vael_pm_internal.h"
#include "pm/vael_pm_strings.h"
#include "runtime/vael_runtime.h"

// Texts handed to the caller in vael_pm_error.
static const char kUtf8Failed[] = "Error while trying to simplify UTF-8 pattern.";
static const char kBoundedFailed[] = "Error while trying to process a bounded pattern.";
static const char kLssNotFound[] = "Error while trying to find LSS for pattern. Verify that pattern contains LSS";
static const char kLssAnchorsNotFound[] =
    "Error while trying to find LSS with anchors for pattern.  Verify that pattern contains LSS";
static const char kUserLssIllegal[] = "LSS given by user is illegal";
static const char kLssTooShort[] = "The pattern's LSS is too short";
static const char kTier2Absent[] = "The pattern's second tier engine is not in this build";
static const char kNoWordText[] = "Invalid arguments (phrase or phrase length)";

// The templates of a bound pattern, indexed by 1 for a leading '^' plus 2
// for a trailing '$'. Each '%' stands for the pattern's text.
char vael_pm_bounded_string_patt[4][16] = {"^(%)|.*\\W(%)", "^(%)", "^(%)|.*\\W(%)$", "^(%)$"};
const uint32_t vael_pm_bounded_string_patt_num_of_percent_s[4] = {2, 1, 2, 1};

namespace {

void destroy_copy(vael_pm_one_pattern *p) { vael_pm_patterns_one_pattern_destroy(p); }

// A deep copy of the user's record, so that pre-processing never changes
// the user's list.
vael_pm_one_pattern *vael_pm_copy_users_curr_patt(const vael_pm_one_pattern *user) {
    if (!user) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Invalid params");
        return nullptr;
    }
    auto *p = static_cast<vael_pm_one_pattern *>(VAEL_KMALLOC(sizeof(vael_pm_one_pattern)));
    if (!p)
        return nullptr;
    *p = vael_pm_one_pattern{nullptr, nullptr, user->id, user->match_len, user->flags, user->type};
    if ((user->lss && !(p->lss = vael_pmglob_string_dup(user->lss))) ||
        (user->re && !(p->re = vael_pmglob_string_dup(user->re)))) {
        destroy_copy(p);
        return nullptr;
    }
    return p;
}

}  // namespace

extern "C" int vael_pm_create_bounded_patt(vael_pm_one_pattern *pattern) {
    if (!pattern || !pattern->re) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: bounded patterns supported only when given RE\n");
        return VAEL_ERROR;
    }
    const unsigned char *text = pattern->re->pattern;
    uint32_t len = pattern->re->size;
    uint32_t index = 0;
    if (len && text[0] == '^') {
        text++;
        len--;
        index |= 1;
    }
    // A plain byte test: an escaped "\$" counts as an anchor too.
    if (len && text[len - 1] == '$') {
        len--;
        index |= 2;
    }
    const char *templ = vael_pm_bounded_string_patt[index];
    const uint32_t templ_len = pm_strlen(templ);
    const uint32_t percents = vael_pm_bounded_string_patt_num_of_percent_s[index];
    const uint64_t size = (uint64_t)templ_len - percents + (uint64_t)len * percents;
    if (size > UINT32_MAX)
        return VAEL_ERROR;
    auto *out = static_cast<unsigned char *>(VAEL_KMALLOC((size_t)size));
    if (!out)
        return VAEL_ERROR;
    uint32_t at = 0;
    for (uint32_t i = 0; i < templ_len; i++) {
        if (templ[i] == '%') {
            if (len)
                std::memcpy(out + at, text, len);
            at += len;
        } else {
            out[at++] = (unsigned char)templ[i];
        }
    }
    vael_pmglob_string *s = vael_pmglob_string_create(out, (uint32_t)size, pattern->re->id, pattern->re->flags);
    VAEL_KFREE(out, (size_t)size);
    if (!s)
        return VAEL_ERROR;
    if (index == 0 || index == 2)
        pattern->flags |= VAEL_PM_BOUNDED_LEFT;
    vael_pmglob_string_destroy(pattern->re);
    pattern->re = s;
    VAEL_LOG(VAEL_DBG_INFO, "K_PM_INT", "%s: Result of bounded word pattern manipulation: %s\n",
             vael_pmglob_string_to_debug_charp(s));
    return VAEL_OK;
}

extern "C" vael_pm_one_pattern *vael_pm_compile_pre_process_pattern(vael_pm_one_pattern *record,
                                                                    uint32_t effective_flags, vael_pm_error *err,
                                                                    int *copied) {
    *copied = 0;
    if (!(record->flags & (VAEL_PM_BOUND | VAEL_PM_UTF8)))
        return record;
    vael_pm_one_pattern *copy = vael_pm_copy_users_curr_patt(record);
    if (!copy) {
        vael_pm_error_set_pattern_id(err, record->id);
        return nullptr;
    }
    if ((copy->flags & VAEL_PM_UTF8) && copy->re && vael_pm_utf8_RE_to_simple_RE(copy, err, effective_flags) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Error while trying to simplify UTF-8 pattern %d\n",
                 record->id);
        vael_pm_error_set_details2(err, VAEL_PM_ERROR_ILLEGAL, kUtf8Failed, record->id);
        vael_pm_error_set_pattern_id(err, record->id);
        destroy_copy(copy);
        return nullptr;
    }
    if ((copy->flags & VAEL_PM_BOUND) && vael_pm_create_bounded_patt(copy) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Error while trying to process a bounded pattern %d\n",
                 record->id);
        vael_pm_error_set_details2(err, VAEL_PM_ERROR_ILLEGAL, kBoundedFailed, record->id);
        destroy_copy(copy);
        return nullptr;
    }
    *copied = 1;
    return copy;
}

extern "C" vael_pm_lss *vael_pm_compile_get_lss_from_pattern(const vael_pm_one_pattern *pattern, uint32_t flags,
                                                            vael_pm_error *err, uint32_t *lss_flags) {
    *lss_flags = 0;
    if (!pattern->lss && pattern->re) {
        const unsigned char *re = pattern->re->pattern;
        const uint32_t re_size = pattern->re->size;
        const uint32_t find_flags = (flags & VAEL_PM_DIGITLESS) | pattern->flags;
        uint32_t anchors = 0;
        vael_pm_lss *lss = vael_pm_lss_find(re, re_size, find_flags, err, &anchors);
        if (!lss) {
            VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR",
                     "%s: Error while trying to find LSS for pattern %d (problem in the RE)\n", pattern->id);
            vael_pm_error_set_details2(err, VAEL_PM_ERROR_ILLEGAL, kLssNotFound, pattern->id);
            return nullptr;
        }
        if (vael_pm_lss_can_be_used_instead_of_RE(lss)) {
            *lss_flags |= anchors;
            return lss;
        }
        if (anchors == 0)
            return lss;
        vael_pm_lss *with = vael_pm_lss_find(re, re_size, find_flags | VAEL_PM_LSS_KEEP_ANCHORS, err, nullptr);
        if (!with) {
            VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR",
                     "%s: Error while trying to find LSS with anchors for pattern %d (problem in the RE)\n",
                     pattern->id);
            vael_pm_error_set_details2(err, VAEL_PM_ERROR_ILLEGAL, kLssAnchorsNotFound, pattern->id);
            vael_pm_lss_destroy(lss);
            return nullptr;
        }
        if (vael_pm_lss_get_anchor_flags(with, lss, lss_flags) != 0) {
            vael_pm_lss_destroy(with);
            vael_pm_lss_destroy(lss);
            return nullptr;
        }
        vael_pm_lss_destroy(with);
        return lss;
    }
    int refused = 0;
    vael_pm_lss *lss = vael_pm_special_chars_read_lss(pattern->lss, pattern->flags & VAEL_PM_LITERAL,
                                                      flags & VAEL_PM_DIGITLESS, lss_flags, &refused);
    if (!lss) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR",
                 "%s: lss given by user is illegal, cannot compile (user pattern id: %d)\n", pattern->id);
        // Out of memory the text is not at fault: the error stays internal.
        if (refused)
            vael_pm_error_set_details2(err, VAEL_PM_ERROR_ILLEGAL, kUserLssIllegal, pattern->id);
        vael_pm_error_set_pattern_id(err, pattern->id);
    }
    return lss;
}

extern "C" int vael_pm_compile_add_one_lss(vael_pmglob_patterns *list, vael_pmglob_string *s,
                                           const vael_pm_one_pattern *pattern, vael_pm_error *err) {
    if (!(pattern->flags & VAEL_PM_SHORT_LSS) && (int32_t)s->size < vael_pm_min_lss_size) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: lss of pattern ID %d is shorter than the miminum length (%d)\n",
                 pattern->id, vael_pm_min_lss_size);
        if (vael_us_adaptor_printable(VAEL_DBG_ERR, "K_PM | K_ERROR")) {
            vael_us_adaptor_kdprintf("lss is: ");
            vael_pmglob_string_dump(s);
        }
        vael_pm_error_set_details2(err, VAEL_PM_ERROR_ILLEGAL, kLssTooShort, pattern->id);
        return VAEL_ERROR;
    }
    if (vael_pmglob_patterns_add(list, s) != 0) {
        vael_pm_error_set_pattern_id(err, pattern->id);
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" int vael_pm_compile_add_lss_to_sm(vael_pm_one_pattern *pattern, const vael_pm_lss *lss,
                                             vael_pmglob_patterns *list, uint32_t internal_id, vael_pm_error *err,
                                             uint32_t lss_flags, uint32_t *lss_total_len) {
    *lss_total_len = 0;
    if (vael_pm_lss_cans_num(lss) > 1)
        pattern->flags |= VAEL_PM_MULTI_LSS;
    lst_list *cans = vael_pm_lss_get_candidates_list(lss);
    uintptr_t v;
    for (lst_cursor c = lst_iterate(cans, nullptr, &v); c; c = lst_iterate(cans, c, &v)) {
        auto *can = reinterpret_cast<const vael_pm_lss_candidate *>(v);
        // An empty candidate (LSS() under shortlss) has no bytes to copy.
        static const unsigned char kEmpty[1] = {0};
        vael_pmglob_string *s = vael_pmglob_string_create(can->len ? can->str : kEmpty, can->len,
                                                          (int32_t)internal_id, lss_flags | pattern->flags);
        if (!s) {
            vael_pm_error_set_pattern_id(err, pattern->id);
            return VAEL_ERROR;
        }
        int rc = vael_pm_compile_add_one_lss(list, s, pattern, err);
        vael_pmglob_string_destroy(s);
        if (rc != 0)
            return VAEL_ERROR;
        *lss_total_len += can->len;
    }
    return VAEL_OK;
}

// The display text of all candidates, saved for reports; null with *failed
// 0 when there is nothing to show.
extern "C" vael_pmglob_string *vael_pm_compile_create_lss_string(const vael_pm_one_pattern *pattern,
                                                                const vael_pm_lss *lss, uint32_t internal_id,
                                                                uint32_t lss_flags, uint32_t lss_total_len,
                                                                int *failed) {
    (void)pattern;
    *failed = 0;
    uint32_t len = 0;
    unsigned char *text = vael_pm_lss_create_str(lss, lss_flags, lss_total_len, &len);
    if (!text) {
        // Only a set of empty candidates has no text; anything else is memory.
        *failed = lss_total_len != 0 || (lss_flags & (VAEL_PM_LSS_START_ANCHOR | VAEL_PM_LSS_END_ANCHOR)) != 0 ||
                  vael_pm_lss_cans_num(lss) > 1;
        return nullptr;
    }
    vael_pmglob_string *s = vael_pmglob_string_create(text, len, (int32_t)internal_id, lss_flags);
    VAEL_KFREE(text, len);
    if (!s)
        *failed = 1;
    return s;
}

extern "C" int vael_tier2_set_type(uint32_t type, uint32_t flags, uint32_t *tier2_type) {
    if (type == VAEL_PM_TYPE_PATTERN) {
        *tier2_type = (flags & VAEL_PM_USE_REM) ? VAEL_PM_TIER2_REM : VAEL_PM_TIER2_PCRE;
        return VAEL_OK;
    }
    if (type == VAEL_PM_TYPE_KW) {
        *tier2_type = VAEL_PM_TIER2_KW;
        return VAEL_OK;
    }
    VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Unknown pattern type\n");
    return VAEL_ERROR;
}

// The old entry whose handle can serve this pattern, or null when the
// second tier must be compiled.
extern "C" const vael_pm_array_one_handle *vael_pm_need_to_compile_tier2(const vael_pm_handle *pm,
                                                                        const vael_pm_handle *old_pm,
                                                                        uint32_t row, const vael_pmglob_string *text,
                                                                        const vael_pm_one_pattern *pattern) {
    if ((pm_tier2_funcs[row].tier2_flags & VAEL_PM_TIER2_REUSABLE) && old_pm && pm->flags == old_pm->flags) {
        for (uint32_t i = 0; i < old_pm->num_tier2; i++) {
            const vael_pm_array_one_handle &e = old_pm->pm_array[i];
            if (e.re_str && e.tier2_h && e.re_size == text->size &&
                pm_strncmp(reinterpret_cast<const char *>(e.re_str), reinterpret_cast<const char *>(text->pattern),
                           text->size) == 0 &&
                e.type == pattern->type && e.flags == pattern->flags)
                return &e;
        }
    }
    VAEL_LOG(VAEL_DBG_INFO, "K_PM", "%s: need to compile second tier for pattern %d\n", pattern->id);
    return nullptr;
}

namespace {

void array_one_handle_init_ex(vael_pm_array_one_handle *e, int32_t id, uint32_t flags, uint32_t match_len,
                              uint32_t type, uint32_t tier2_type, void *tier2_h) {
    e->lss_size = 0;
    e->lss_str = nullptr;
    e->tier1_matches = 0;
    e->matches = 0;
    e->re_size = 0;
    e->re_str = nullptr;
    e->type = type;
    e->id = id;
    e->match_len = match_len;
    e->flags = flags;
    e->tier2_type = tier2_type;
    e->tier2_h = tier2_h;
}

// Compiles the text by its row, or takes a handle over from the old PM.
int compile_tier2(vael_pm_handle *pm, vael_pm_handle *old_pm, uint32_t row_index, vael_pmglob_string *text,
                  const vael_pm_one_pattern *pattern, uint32_t effective_flags, vael_pm_error *err,
                  uint32_t *tier2_type, void **tier2_h) {
    const vael_pm_tier2_funcs &row = pm_tier2_funcs[row_index];
    if (!row.compile) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: second tier row %u of pattern %d is not in this build\n",
                 row_index, pattern->id);
        vael_pm_error_set_details3(err, VAEL_PM_ERROR_ILLEGAL, kTier2Absent, pattern->id, 0);
        return VAEL_ERROR;
    }
    if (const vael_pm_array_one_handle *old = vael_pm_need_to_compile_tier2(pm, old_pm, row_index, text, pattern)) {
        void *h = pm_tier2_funcs[old->tier2_type].duplicate(old->tier2_h);
        if (!h) {
            vael_pm_error_set_pattern_id(err, pattern->id);
            return VAEL_ERROR;
        }
        *tier2_type = old->tier2_type;
        *tier2_h = h;
        return VAEL_OK;
    }
    pm->stats.num_tier2_compiled++;
    const int32_t saved_id = text->id;
    vael_pmglob_string_set_id(text, VAEL_PM_REM_DEFAULT_ID);
    vael_timeval start, end;
    vael_time_get_hrtime(&start);
    const intptr_t mem_before = vael_pmglob_memory_get_alloc_total();
    void *h = row.compile(text, effective_flags, pattern->flags, err);
    vael_pmglob_string_set_id(text, saved_id);
    if (!h) {
        vael_pm_error_set_pattern_id(err, pattern->id);
        return VAEL_ERROR;
    }
    vael_time_get_hrtime(&end);
    if (row.get_common_stats) {
        if (vael_pm_stats_common *stats = row.get_common_stats(h))
            vael_pm_stats_common_update_compile(stats, (uint32_t)(vael_pmglob_memory_get_alloc_total() - mem_before),
                                                vael_time_diff_usec(&start, &end), VAEL_PM_STATS_COMPILE_BOTH);
    }
    *tier2_type = row_index;
    *tier2_h = h;
    return VAEL_OK;
}

}  // namespace

extern "C" int vael_pm_compile_add_array_handle(vael_pm_handle *pm, vael_pm_handle *old_pm, uint32_t internal_id,
                                                vael_pm_one_pattern *pattern, vael_pm_one_pattern *user_record,
                                                const vael_pmglob_string *lss_string, int need_tier2,
                                                uint32_t effective_flags, vael_pm_error *err) {
    uint32_t tier2_type = VAEL_PM_TIER2_NONE;
    void *tier2_h = nullptr;
    vael_pmglob_string *text = nullptr;
    if (need_tier2) {
        uint32_t row;
        if (vael_tier2_set_type(pattern->type, pattern->flags, &row) != 0) {
            vael_pm_error_set_details3(err, VAEL_PM_ERROR_ILLEGAL, kTier2Absent, pattern->id, 0);
            return VAEL_ERROR;
        }
        // A plain string that needs a check of its case goes to the second
        // tier as the string itself, read there as an expression.
        const vael_pm_one_pattern *from =
            (pm_tier2_funcs[row].tier2_flags & VAEL_PM_TIER2_USER_TEXT) ? user_record : pattern;
        text = from->re ? from->re : from->lss;
        if (!text) {
            vael_pm_error_set_details2(err, VAEL_PM_ERROR_ILLEGAL, kUserLssIllegal, pattern->id);
            return VAEL_ERROR;
        }
        if (compile_tier2(pm, old_pm, row, text, pattern, effective_flags, err, &tier2_type, &tier2_h) != 0)
            return VAEL_ERROR;
    } else {
        VAEL_LOG(VAEL_DBG_INFO, "K_PM", "%s: Pattern %d doesn't need a second tier handle\n", pattern->id);
    }
    vael_pm_array_one_handle *e = &pm->pm_array[internal_id];
    array_one_handle_init_ex(e, pattern->id, pattern->flags, pattern->match_len, pattern->type, tier2_type,
                             tier2_h);
    if (vael_us_adaptor_printable(VAEL_DBG_INFO, "K_PMDUMP")) {
        vael_us_adaptor_kdprintf("Pattern id: %d, internal id: %d\n", pattern->id, (int)internal_id);
        vael_us_adaptor_kdprintf("LSS: ");
        if (lss_string)
            vael_pmglob_string_dump(lss_string);
        vael_us_adaptor_kdprintf("\nRE: ");
        if (!pattern->re) {
            vael_us_adaptor_kdprintf("N/A\n");
        } else if (tier2_h && pm_tier2_funcs[tier2_type].dump) {
            vael_us_adaptor_kdprintf("\n%s dumped as jff:\n", pm_tier2_funcs[tier2_type].name);
            pm_tier2_funcs[tier2_type].dump(tier2_h, 0);
        } else {
            vael_us_adaptor_kdprintf("\n No second tier handle (not needed)\n");
        }
    }
    // The entry owns its handle from here on: a failure below leaves it to
    // the PM's destroy.
    if ((lss_string && vael_pmglob_string_save(lss_string, &e->lss_str, &e->lss_size) != 0) ||
        (text && vael_pmglob_string_save(text, &e->re_str, &e->re_size) != 0)) {
        vael_pm_error_set_pattern_id(err, pattern->id);
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" int vael_pm_compile_one_pattern(vael_pm_handle *pm, vael_pm_handle *old_pm, vael_pm_one_pattern *record,
                                           uint32_t *internal_id, vael_pmglob_patterns *word_list,
                                           vael_pmglob_patterns *lss_list, uint32_t flags, int any_caseless,
                                           vael_pm_error *err) {
    const uint32_t effective_flags = vael_pm_effective_flags(flags);
    int copied = 0;
    vael_pm_one_pattern *pattern = vael_pm_compile_pre_process_pattern(record, effective_flags, err, &copied);
    if (!pattern)
        return VAEL_ERROR;
    vael_pm_error_init(err);

    int rc = VAEL_ERROR;
    vael_pm_lss *lss = nullptr;
    vael_pmglob_string *display = nullptr;
    if (pattern->type == VAEL_PM_TYPE_WORD) {
        // Words keep the user's id and spend no internal id: the word
        // matcher reports the user's id itself.
        if (pattern->lss) {
            vael_pmglob_string_set_id(pattern->lss, pattern->id);
            if (vael_pmglob_patterns_add(word_list, pattern->lss) == 0)
                rc = VAEL_OK;
            else
                vael_pm_error_set_pattern_id(err, pattern->id);
        } else {
            vael_pm_error_set_details2(err, VAEL_PM_ERROR_ILLEGAL, kNoWordText, pattern->id);
        }
        if (copied)
            destroy_copy(pattern);
        return rc;
    }

    uint32_t lss_flags = 0, lss_total_len = 0;
    int display_failed = 0;
    do {
        lss = vael_pm_compile_get_lss_from_pattern(pattern, flags, err, &lss_flags);
        if (!lss) {
            vael_pm_error_set_pattern_id(err, pattern->id);
            break;
        }
        const bool proves = (!pattern->re || vael_pm_lss_can_be_used_instead_of_RE(lss)) &&
                            (!any_caseless || (pattern->flags & VAEL_PM_CASELESS)) &&
                            !vael_pm_lss_digitless_is_need_second_tier(lss);
        const int need_tier2 = proves ? 0 : 1;
        if (need_tier2)
            lss_flags |= VAEL_PM_NEED_TIER2;
        if (vael_pm_compile_add_lss_to_sm(pattern, lss, lss_list, *internal_id, err, lss_flags, &lss_total_len) != 0)
            break;
        display = vael_pm_compile_create_lss_string(pattern, lss, *internal_id, lss_flags, lss_total_len,
                                                    &display_failed);
        vael_pm_lss_destroy(lss);
        lss = nullptr;
        if (display_failed) {
            vael_pm_error_set_pattern_id(err, pattern->id);
            break;
        }
        if (vael_pm_compile_add_array_handle(pm, old_pm, *internal_id, pattern, record, display, need_tier2,
                                             effective_flags, err) != 0) {
            vael_pm_error_set_pattern_id(err, pattern->id);
            break;
        }
        rc = VAEL_OK;
    } while (false);

    vael_pm_lss_destroy(lss);
    vael_pmglob_string_destroy(display);
    if (copied)
        destroy_copy(pattern);
    if (rc == VAEL_OK)
        (*internal_id)++;
    return rc;
}
