// vael_pm_lss_finder.cpp - the LSS finder: a client of the REM parser whose
// evaluators combine what is known of their operands' strings instead of
// building an automaton.
//
// A value is a vael_pm_lss: candidate strings, each marked when it is the
// very start or end of its sub-expression. Concatenation joins an end to a
// start, alternation keeps what both sides share (single mode) or all the
// strings (multi mode, where only an outer alternation of plain strings
// survives), and repetition spells out what a count makes certain.
// The multi pass runs first; when it cannot represent the expression the
// single pass gives the longest string every match contains.

#include "analysis/vael_pm_lss_finder.h"

#include <algorithm>
#include <cstring>

#include "pm/vael_pm_strings.h"
#include "rem/vael_rem_parser.h"
#include "runtime/vael_runtime.h"

namespace {

constexpr uint32_t kDigitless = VAEL_PM_DIGITLESS;
constexpr uint32_t kKeepAnchors = VAEL_PM_LSS_KEEP_ANCHORS;
constexpr uint32_t kCaseless = VAEL_PM_CASELESS;

vael_rem_token_class g_single_classes[VAEL_REM_NUM_CLASSES];
vael_rem_token_class g_multi_classes[VAEL_REM_NUM_CLASSES];

vael_pm_lss *lss_of(const vael_rem_token *t) { return reinterpret_cast<vael_pm_lss *>(t->extra_data); }
vael_pm_lss_candidate *can_of(uintptr_t v) { return reinterpret_cast<vael_pm_lss_candidate *>(v); }

// Multi mode gives the parser a status word as its client datum; single mode none.
uint32_t *status_of(const vael_rem_parser *parser) {
    return static_cast<uint32_t *>(vael_rem_parser_get_client_data(parser));
}

// A candidate of its own bytes (copied) and flags.
vael_pm_lss_candidate *candidate_create(const unsigned char *bytes, uint32_t len, uint32_t flags) {
    vael_pm_lss_candidate *c = vael_pm_lss_candidate_create_simple(bytes, len);
    if (c)
        c->flags = flags;
    return c;
}

bool contains(const vael_pm_lss_candidate *c, const unsigned char *bytes, uint32_t len) {
    return pm_memmem(bytes, len, c->str, c->len) != nullptr;
}

// Adds a candidate made here, destroying it when the add fails.
int add_new(vael_pm_lss *lss, vael_pm_lss_candidate *c) {
    if (!c)
        return VAEL_ERROR;
    if (vael_pm_lss_add_candidate(lss, &c) != 0) {
        vael_pm_lss_candidate_destructor(reinterpret_cast<uintptr_t>(c));
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

}  // namespace

// ---------------------------------------------------------------- candidates

extern "C" vael_pm_lss_candidate *vael_pm_lss_candidate_create_simple(const unsigned char *bytes, uint32_t length) {
    auto *c = static_cast<vael_pm_lss_candidate *>(VAEL_KMALLOC(sizeof(vael_pm_lss_candidate)));
    if (!c)
        return nullptr;
    c->str = nullptr;
    c->len = 0;
    c->flags = 0;
    if (length) {
        c->str = static_cast<unsigned char *>(VAEL_KMALLOC(length));
        if (!c->str) {
            VAEL_KFREE(c, sizeof *c);
            return nullptr;
        }
        std::memcpy(c->str, bytes, length);
        c->len = length;
    }
    return c;
}

extern "C" void vael_pm_lss_candidate_destructor(uintptr_t candidate) {
    vael_pm_lss_candidate *c = can_of(candidate);
    if (!c)
        return;
    if (c->str)
        VAEL_KFREE(c->str, c->len);
    VAEL_KFREE(c, sizeof *c);
}

extern "C" const unsigned char *vael_pm_lss_candidate_get_str(const vael_pm_lss_candidate *candidate) {
    return candidate ? candidate->str : nullptr;
}

extern "C" uint32_t vael_pm_lss_candidate_get_len(const vael_pm_lss_candidate *candidate) {
    return candidate ? candidate->len : 0;
}

extern "C" void vael_pm_lss_candidate_set_string(vael_pm_lss_candidate *candidate, unsigned char *bytes,
                                                 uint32_t length) {
    if (candidate->str)
        VAEL_KFREE(candidate->str, candidate->len);
    candidate->str = length ? bytes : nullptr;
    candidate->len = length;
}

extern "C" int vael_pm_lss_candidate_is_digit_in_range(const vael_pm_lss_candidate *candidate) {
    for (uint32_t i = 0; candidate && i < candidate->len; i++)
        if (is_digit(candidate->str[i]))
            return 1;
    return 0;
}

// ---------------------------------------------------------------- records

extern "C" vael_pm_lss *vael_pm_lss_create(const char *allocation_label) {
    auto *lss = static_cast<vael_pm_lss *>(
        qx_kmalloc_ex_(sizeof(vael_pm_lss), allocation_label ? allocation_label : __func__, 0, __FILE__, __LINE__));
    if (!lss)
        return nullptr;
    std::memset(lss, 0, sizeof *lss);
    lss->can_list = lst_create_destr(vael_pm_lss_candidate_destructor);
    if (!lss->can_list) {
        VAEL_KFREE(lss, sizeof *lss);
        return nullptr;
    }
    return lss;
}

extern "C" void vael_pm_lss_destroy(vael_pm_lss *lss) {
    if (!lss)
        return;
    lst_destroy(lss->can_list);
    VAEL_KFREE(lss, sizeof *lss);
}

extern "C" void vael_pm_lss_destroy_extra(uintptr_t lss) { vael_pm_lss_destroy(reinterpret_cast<vael_pm_lss *>(lss)); }

extern "C" int vael_pm_lss_add_candidate(vael_pm_lss *lss, vael_pm_lss_candidate **candidate) {
    if (!lss || !candidate || !*candidate) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Ilegal parameters: new_candidate: %p, *new_candidate: %p, lss: %p\n",
                 (void *)candidate, candidate ? (void *)*candidate : nullptr, (void *)lss);
        if (qx_assert_on)
            VAEL_ASSERT(0, "Ilegal parameters");
        return VAEL_ERROR;
    }
    vael_pm_lss_candidate *c = *candidate;
    if (!lst_insert(lss->can_list, reinterpret_cast<uintptr_t>(c)))
        return VAEL_ERROR;
    if (c->flags & LSS_CAN_AT_END)
        lss->end_can = c;
    if (c->flags & LSS_CAN_AT_START)
        lss->start_can = c;
    if (!lss->longest_can || c->len > lss->longest_can->len)
        lss->longest_can = c;
    *candidate = nullptr;
    return VAEL_OK;
}

extern "C" int vael_pm_lss_remove_candidate(vael_pm_lss *lss, vael_pm_lss_candidate *candidate) {
    if (!lss || !candidate) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: Ilegal parameters: can: %p, lss: %p\n", (void *)candidate,
                 (void *)lss);
        return VAEL_ERROR;
    }
    if (lss->start_can == candidate)
        lss->start_can = nullptr;
    if (lss->end_can == candidate)
        lss->end_can = nullptr;
    if (lss->longest_can == candidate)
        lss->longest_can = nullptr;
    if (lst_delete_val_one(lss->can_list, reinterpret_cast<uintptr_t>(candidate)) < 0) {
        VAEL_ASSERT(0, "candidate not found in lss->can_list");
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" int vael_pm_lss_migrate_candidates(vael_pm_lss *from, vael_pm_lss *to, uint32_t mask) {
    uintptr_t v;
    // Pointers of `from` go with the candidates: none may dangle into `to`.
    from->start_can = from->end_can = from->longest_can = nullptr;
    while (lst_remove_at_start(from->can_list, &v) == 1) {
        vael_pm_lss_candidate *c = can_of(v);
        c->flags &= mask;
        if (vael_pm_lss_add_candidate(to, &c) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: error when migrating lss from lss %p to lss %p\n",
                     (void *)from, (void *)to);
            vael_pm_lss_candidate_destructor(v);
            return VAEL_ERROR;
        }
    }
    if (vael_pm_lss_digitless_is_need_second_tier(from))
        vael_pm_lss_digitless_set_need_second_tier(to);
    return VAEL_OK;
}

extern "C" uint32_t vael_pm_lss_cans_num(const vael_pm_lss *lss) {
    return lss ? (uint32_t)lst_nelements(lss->can_list) : 0;
}

extern "C" lst_list *vael_pm_lss_get_candidates_list(const vael_pm_lss *lss) { return lss ? lss->can_list : nullptr; }

extern "C" int vael_pm_lss_can_be_used_instead_of_RE(const vael_pm_lss *lss) {
    return lss && (lss->flags & VAEL_PM_LSS_USED_INSTEAD_OF_RE) != 0;
}

extern "C" void vael_pm_lss_set_used_instead_of_RE(vael_pm_lss *lss) { lss->flags |= VAEL_PM_LSS_USED_INSTEAD_OF_RE; }

extern "C" int vael_pm_lss_digitless_is_need_second_tier(const vael_pm_lss *lss) {
    return lss && (lss->flags & VAEL_PM_LSS_DIGITLESS_NEED_TIER2) != 0;
}

extern "C" void vael_pm_lss_digitless_set_need_second_tier(vael_pm_lss *lss) {
    lss->flags |= VAEL_PM_LSS_DIGITLESS_NEED_TIER2;
}

// ---------------------------------------------------------------- operands

namespace {

// Wraps a result as an operand token; consumes lss. In multi mode a result
// without strings cannot be told as a set of strings, which ends the parse.
vael_rem_token *vael_pm_lss_create_operand(vael_rem_parser *parser, vael_pm_lss *lss) {
    if (!lss)
        return nullptr;
    uint32_t *status = status_of(parser);
    if (status && vael_pm_lss_cans_num(lss) == 0) {
        *status |= VAEL_PM_LSS_NOT_REPRESENTABLE;
        VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: This pattern cannot be represented by multi-LSS\n");
        vael_pm_lss_destroy(lss);
        return nullptr;
    }
    vael_rem_token *t = vael_rem_token_create(parser, VAEL_REM_CLASS_OPERAND, reinterpret_cast<uintptr_t>(lss));
    if (!t)
        vael_pm_lss_destroy(lss);
    return t;
}

// What one character class says: one byte that is the whole operand, or nothing.
void vael_pm_lss_range2candidate(const vael_pmglob_range *range, uint32_t flags, vael_pm_lss_candidate **candidate,
                                 bool *need_second_tier, bool *failed) {
    *candidate = nullptr;
    *need_second_tier = false;
    *failed = false;
    const auto *a = static_cast<const vael_pmascii_range *>(range->impl);
    if (range->escaped_alnum || a->negated)
        return;
    unsigned char byte;
    if ((flags & kDigitless) && a->first >= '0' && a->last <= '9' && a->first <= a->last) {
        byte = '0';
        for (int d = '0'; d <= '9'; d++)
            *need_second_tier = *need_second_tier || !a->chars[d];
    } else if (a->first == a->last) {
        byte = (flags & kCaseless) ? to_lower(a->first) : a->first;
    } else {
        return;
    }
    *candidate = candidate_create(&byte, 1, LSS_CAN_AT_START | LSS_CAN_AT_END);
    *failed = *candidate == nullptr;
}

vael_rem_token *vael_pm_lss_create_token_by_range(vael_rem_token *range_token, vael_rem_parser *parser) {
    vael_pm_lss *lss = vael_pm_lss_create(__func__);
    vael_pm_lss_candidate *c = nullptr;
    bool need_second_tier = false, failed = !lss;
    if (lss)
        vael_pm_lss_range2candidate(reinterpret_cast<const vael_pmglob_range *>(range_token->extra_data),
                                    vael_rem_parser_get_flags(parser), &c, &need_second_tier, &failed);
    vael_rem_token_destroy(range_token, __func__);
    if (failed || (c && add_new(lss, c) != 0)) {
        vael_pm_lss_destroy(lss);
        return nullptr;
    }
    if (need_second_tier)
        vael_pm_lss_digitless_set_need_second_tier(lss);
    return vael_pm_lss_create_operand(parser, lss);
}

// The empty string: one candidate of length 0 that is start and end.
vael_rem_token *vael_pm_lss_create_empty_token(vael_rem_parser *parser) {
    vael_pm_lss *lss = vael_pm_lss_create(__func__);
    if (!lss || add_new(lss, candidate_create(nullptr, 0, LSS_CAN_AT_START | LSS_CAN_AT_END)) != 0) {
        vael_pm_lss_destroy(lss);
        return nullptr;
    }
    return vael_pm_lss_create_operand(parser, lss);
}

// ---------------------------------------------------------------- evaluators

vael_rem_token *vael_pm_lss_finder_eval_concat(vael_rem_token *op, vael_rem_parser *parser, vael_rem_token *left,
                                               vael_rem_token *right) {
    vael_pm_lss *l = lss_of(left), *r = lss_of(right);
    vael_pm_lss *out = vael_pm_lss_create(__func__);
    if (!out)
        return nullptr;
    const bool join_fits = l->end_can && r->start_can &&
                           (uint64_t)l->end_can->len + r->start_can->len <= VAEL_PM_LSS_MAX_JOIN_BYTES;
    if (l->end_can && r->start_can && !join_fits && status_of(parser)) {
        *status_of(parser) |= VAEL_PM_LSS_NOT_REPRESENTABLE;
        VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: This pattern cannot be represented by multi-LSS\n");
        vael_pm_lss_destroy(out);
        return nullptr;
    }
    if (join_fits) {
        // The end of the left meets the start of the right in the text; the
        // joined string goes first so that it wins ties.
        vael_pm_lss_candidate *le = l->end_can, *rs = r->start_can;
        uint64_t len = (uint64_t)le->len + rs->len;
        unsigned char *joined = len ? static_cast<unsigned char *>(VAEL_KMALLOC((size_t)len)) : nullptr;
        if (len && !joined) {
            vael_pm_lss_destroy(out);
            return nullptr;
        }
        if (le->len)
            std::memcpy(joined, le->str, le->len);
        if (rs->len)
            std::memcpy(joined + le->len, rs->str, rs->len);
        vael_pm_lss_candidate *c = candidate_create(nullptr, 0, (le->flags & LSS_CAN_AT_START) |
                                                                    (rs->flags & LSS_CAN_AT_END));
        if (!c) {
            if (joined)
                VAEL_KFREE(joined, (size_t)len);
            vael_pm_lss_destroy(out);
            return nullptr;
        }
        vael_pm_lss_candidate_set_string(c, joined, (uint32_t)len);
        if (add_new(out, c) != 0 || vael_pm_lss_remove_candidate(l, le) != 0 ||
            vael_pm_lss_remove_candidate(r, rs) != 0) {
            vael_pm_lss_destroy(out);
            return nullptr;
        }
    } else if (uint32_t *status = status_of(parser)) {
        *status |= VAEL_PM_LSS_NOT_SIMPLE_STRINGS;
        VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: This is not a bunch of simple strings!\n");
        vael_pm_lss_destroy(out);
        return nullptr;
    }
    if (vael_pm_lss_migrate_candidates(l, out, LSS_CAN_AT_START) != 0 ||
        vael_pm_lss_migrate_candidates(r, out, LSS_CAN_AT_END) != 0) {
        vael_pm_lss_destroy(out);
        return nullptr;
    }
    return vael_pm_lss_create_operand(parser, out);
}

vael_rem_token *vael_pm_lss_eval_alternate(vael_rem_token *op, vael_rem_parser *parser, vael_rem_token *left,
                                           vael_rem_token *right) {
    vael_pm_lss *out = vael_pm_lss_create(__func__);
    if (!out)
        return nullptr;
    uintptr_t lv, rv;
    lst_list *ll = lss_of(left)->can_list, *rl = lss_of(right)->can_list;
    for (lst_cursor lc = lst_iterate(ll, nullptr, &lv); lc; lc = lst_iterate(ll, lc, &lv)) {
        for (lst_cursor rc = lst_iterate(rl, nullptr, &rv); rc; rc = lst_iterate(rl, rc, &rv)) {
            if (vael_pm_lss_candidate_find_common(can_of(lv), can_of(rv), out) != 0) {
                vael_pm_lss_destroy(out);
                return nullptr;
            }
        }
    }
    return vael_pm_lss_create_operand(parser, out);
}

// Alternation is only allowed outside: the strings lose their flags, so a
// concatenation with the result fails.
vael_rem_token *vael_pm_multi_lss_eval_alternate(vael_rem_token *op, vael_rem_parser *parser, vael_rem_token *left,
                                                 vael_rem_token *right) {
    vael_pm_lss *out = vael_pm_lss_create(__func__);
    if (!out)
        return nullptr;
    vael_pm_lss *l = lss_of(left), *r = lss_of(right);
    if (vael_pm_lss_cans_num(l) && vael_pm_lss_cans_num(r)) {
        if (vael_pm_lss_migrate_candidates(l, out, 0) != 0 || vael_pm_lss_migrate_candidates(r, out, 0) != 0) {
            vael_pm_lss_destroy(out);
            return nullptr;
        }
    } else {
        VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: One of the lss's has no candidates\n");
    }
    return vael_pm_lss_create_operand(parser, out);
}

// Zero occurrences are possible: nothing is known.
vael_rem_token *vael_pm_lss_eval_kleene(vael_rem_token *op, vael_rem_parser *parser, vael_rem_token *left,
                                        vael_rem_token *right) {
    return vael_pm_lss_create_operand(parser, vael_pm_lss_create(__func__));
}

vael_rem_token *quantify_operand(vael_rem_parser *parser, vael_rem_token *operand, uint32_t min, bool exact) {
    vael_rem_token_dont_free_extra_data(operand);
    return vael_pm_lss_create_operand(parser, vael_pm_lss_quanitfy(lss_of(operand), min, exact ? 1 : 0, parser));
}

vael_rem_token *vael_pm_lss_eval_quantify_unary(vael_rem_token *op, vael_rem_parser *parser, vael_rem_token *left,
                                                vael_rem_token *right) {
    return quantify_operand(parser, left, (uint32_t)op->extra_data, true);
}

vael_rem_token *vael_pm_lss_eval_quantify_binary(vael_rem_token *op, vael_rem_parser *parser, vael_rem_token *left,
                                                 vael_rem_token *right) {
    return quantify_operand(parser, left, (uint32_t)op->extra_data, op->extra_data == op->extra_data2);
}

vael_rem_token *vael_pm_lss_finder_eval_quantify_min(vael_rem_token *op, vael_rem_parser *parser,
                                                     vael_rem_token *left, vael_rem_token *right) {
    return quantify_operand(parser, left, (uint32_t)op->extra_data, false);
}

}  // namespace

extern "C" int vael_pm_lss_candidate_find_common(const vael_pm_lss_candidate *a, const vael_pm_lss_candidate *b,
                                                 vael_pm_lss *lss) {
    if (!a || !b || !lss) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: recevied NULL parameter, can1: %p, can2: %p, new_lss: %p",
                 (const void *)a, (const void *)b, (void *)lss);
        return VAEL_ERROR;
    }
    const vael_pm_lss_candidate *shorter = a->len <= b->len ? a : b;
    const vael_pm_lss_candidate *longer = shorter == a ? b : a;
    const uint32_t n = shorter->len, m = longer->len;
    if (n == 0)
        return VAEL_OK;
    // reach[s]: the longest substring of `shorter` from s that occurs in
    // `longer` (a row-by-row table of common prefixes), so that substrings
    // that occur nowhere cost no search.
    auto *reach = static_cast<uint32_t *>(VAEL_KMALLOC(sizeof(uint32_t) * ((size_t)n + 2 * ((size_t)m + 1))));
    if (!reach)
        return VAEL_ERROR;
    uint32_t *row = reach + n, *next = row + m + 1;
    std::memset(next, 0, sizeof(uint32_t) * ((size_t)m + 1));
    for (uint32_t s = n; s-- > 0;) {
        reach[s] = 0;
        row[m] = 0;
        for (uint32_t q = 0; q < m; q++) {
            row[q] = shorter->str[s] == longer->str[q] ? next[q + 1] + 1 : 0;
            reach[s] = std::max(reach[s], row[q]);
        }
        std::swap(row, next);
    }
    int rc = VAEL_OK;
    // Longer common strings first; a shorter one survives only where it is
    // not part of one already taken with at least its flags.
    for (uint32_t len = n; len >= 1 && rc == VAEL_OK; len--) {
        for (uint32_t s = n - len + 1; s-- > 0 && rc == VAEL_OK;) {
            if (reach[s] < len)
                continue;
            const unsigned char *sub = shorter->str + s;
            for (uint32_t from = 0; from + len <= longer->len;) {
                auto *hit = static_cast<const unsigned char *>(
                    pm_memmem(sub, len, longer->str + from, longer->len - from));
                if (!hit)
                    break;
                const uint32_t q = (uint32_t)(hit - longer->str);
                from = q + 1;
                uint32_t flags = 0;
                if (q == 0 && s == 0)
                    flags |= LSS_CAN_AT_START;
                if (q + len == longer->len && s + len == n)
                    flags |= LSS_CAN_AT_END;
                flags &= a->flags & b->flags;
                bool covered = false;
                uintptr_t v;
                for (lst_cursor c = lst_iterate(lss->can_list, nullptr, &v); c && !covered;
                     c = lst_iterate(lss->can_list, c, &v))
                    covered = contains(can_of(v), sub, len) && (flags & ~can_of(v)->flags) == 0;
                if (!covered && add_new(lss, candidate_create(sub, len, flags)) != 0) {
                    rc = VAEL_ERROR;
                    break;
                }
            }
        }
    }
    VAEL_KFREE(reach, sizeof(uint32_t) * ((size_t)n + 2 * ((size_t)m + 1)));
    return rc;
}

extern "C" vael_pm_lss *vael_pm_lss_quanitfy(vael_pm_lss *lss, uint32_t min, int exact, vael_rem_parser *parser) {
    const bool multi = status_of(parser) != nullptr;
    if (min == 0 || (multi && !exact)) {
        // Absent, or a count a set of strings cannot tell.
        vael_pm_lss_destroy(lss);
        return vael_pm_lss_create(__func__);
    }
    if (min == 1 && exact)
        return lss;
    vael_pm_lss_candidate *c = lss->start_can;
    if (!c || c != lss->end_can || c->len == 0)
        return lss;  // not one whole string (or the empty one, which repeats to itself)
    uint64_t total = (uint64_t)c->len * min;
    if (total > VAEL_PM_LSS_MAX_REPEAT_BYTES) {
        // Too long to spell out: as many whole copies as fit stand for it,
        // which is no longer the whole operand.
        if (multi) {
            *status_of(parser) |= VAEL_PM_LSS_NOT_REPRESENTABLE;
            vael_pm_lss_destroy(lss);
            return nullptr;
        }
        min = VAEL_PM_LSS_MAX_REPEAT_BYTES / c->len;
        total = (uint64_t)c->len * min;
        exact = 0;
    }
    auto *text = static_cast<unsigned char *>(VAEL_KMALLOC((size_t)total));
    if (!text) {
        vael_pm_lss_destroy(lss);
        return nullptr;
    }
    for (uint32_t i = 0; i < min; i++)
        std::memcpy(text + (size_t)i * c->len, c->str, c->len);
    vael_pm_lss_candidate_set_string(c, text, (uint32_t)total);
    if (!lss->longest_can || c->len > lss->longest_can->len)
        lss->longest_can = c;
    if (exact)
        return lss;
    // The repeats both start and end the result, but no longer make it whole.
    if (add_new(lss, candidate_create(text, (uint32_t)total, LSS_CAN_AT_END)) != 0) {
        vael_pm_lss_destroy(lss);
        return nullptr;
    }
    c->flags = LSS_CAN_AT_START;
    return lss;
}

// ---------------------------------------------------------------- start and stop

namespace {
const vael_rem_operator_conf kSingleConf[VAEL_REM_NUM_CLASSES] = {
    {VAEL_REM_CLASS_ALTERNATE, vael_pm_lss_eval_alternate, 2},
    {VAEL_REM_CLASS_CONCAT, vael_pm_lss_finder_eval_concat, 2},
    {VAEL_REM_CLASS_KLEENE, vael_pm_lss_eval_kleene, 1},
    {VAEL_REM_CLASS_UNARY_QUANT, vael_pm_lss_eval_quantify_unary, 1},
    {VAEL_REM_CLASS_BINARY_QUANT, vael_pm_lss_eval_quantify_binary, 1},
    {VAEL_REM_CLASS_MIN_QUANT, vael_pm_lss_finder_eval_quantify_min, 1},
};
const vael_rem_operator_conf kMultiConf[VAEL_REM_NUM_CLASSES] = {
    {VAEL_REM_CLASS_ALTERNATE, vael_pm_multi_lss_eval_alternate, 2},
    {VAEL_REM_CLASS_CONCAT, vael_pm_lss_finder_eval_concat, 2},
    {VAEL_REM_CLASS_KLEENE, vael_pm_lss_eval_kleene, 1},
    {VAEL_REM_CLASS_UNARY_QUANT, vael_pm_lss_eval_quantify_unary, 1},
    {VAEL_REM_CLASS_BINARY_QUANT, vael_pm_lss_eval_quantify_binary, 1},
    {VAEL_REM_CLASS_MIN_QUANT, vael_pm_lss_finder_eval_quantify_min, 1},
};
}  // namespace

extern "C" int vael_pm_lss_finder_init(void) {
    vael_rem_parser_init();
    if (vael_rem_build_token_array(vael_rem_token_class_array_default, kSingleConf, vael_pm_lss_destroy_extra,
                                   g_single_classes) != 0 ||
        vael_rem_build_token_array(vael_rem_token_class_array_default, kMultiConf, vael_pm_lss_destroy_extra,
                                   g_multi_classes) != 0) {
        vael_rem_parser_fini();
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" void vael_pm_lss_finder_fini(void) { vael_rem_parser_fini(); }

// ---------------------------------------------------------------- the entry

extern "C" int vael_pm_lss_trim_patttern(const unsigned char **pattern, uint32_t *length, uint32_t *anchors,
                                         uint32_t flags) {
    if (!pattern || !*pattern || !length || *length == 0)
        return VAEL_ERROR;
    const unsigned char *p = *pattern;
    uint32_t n = *length;
    uint32_t found = 0;
    const bool anchor_handling = !(flags & kKeepAnchors);
    if (anchor_handling && p[0] == '^') {
        if (n == 1) {
            VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: Illegal RE\n");
            return VAEL_ERROR;
        }
        p++, n--;
        found |= VAEL_PM_LSS_ANCHOR_START;
    } else if (n >= 2 && p[0] == '.' && p[1] == '*') {
        p += 2, n -= 2;
    }
    bool dropped_dollar = false;
    // Only the one byte before is looked at: "\\$" keeps its '$' too.
    if (anchor_handling && n >= 1 && p[n - 1] == '$' && (n == 1 || p[n - 2] != '\\')) {
        n--;
        found |= VAEL_PM_LSS_ANCHOR_END;
        dropped_dollar = true;
    }
    if (!dropped_dollar && n >= 2 && p[n - 2] == '.' && p[n - 1] == '*' && (n == 2 || p[n - 3] != '\\'))
        n -= 2;
    *pattern = p;
    *length = n;
    if (anchors)
        *anchors |= found;
    return VAEL_OK;
}

namespace {
vael_pm_lss *parse_with(vael_rem_token_class *classes, uint32_t *status, const unsigned char *pattern,
                        uint32_t length, uint32_t flags, vael_pm_error *err, bool *made) {
    // An LSS is bytes: classes are read in their ASCII form whatever the pattern.
    flags &= ~(uint32_t)VAEL_PM_UTF8;
    vael_rem_parser *parser = vael_rem_parser_create(vael_rem_default_lexer_array, classes, status, flags,
                                                     vael_pm_lss_create_empty_token, vael_pm_lss_create_token_by_range);
    *made = parser != nullptr;
    if (!parser)
        return nullptr;
    auto *lss = reinterpret_cast<vael_pm_lss *>(vael_rem_parse(parser, pattern, length, err));
    vael_rem_parser_destroy(parser);
    return lss;
}
}  // namespace

extern "C" vael_pm_lss *vael_pm_lss_find_multi(const unsigned char *pattern, uint32_t length, uint32_t flags,
                                               vael_pm_error *err, uint32_t *status) {
    *status = 0;
    bool made = false;
    vael_pm_lss *lss = parse_with(g_multi_classes, status, pattern, length, flags, err, &made);
    if (!made)
        VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: failed to create multi lss parser\n");
    return lss;
}

extern "C" vael_pm_lss *vael_pm_lss_find_single(const unsigned char *pattern, uint32_t length, uint32_t flags,
                                                vael_pm_error *err) {
    bool made = false;
    vael_pm_lss *lss = parse_with(g_single_classes, nullptr, pattern, length, flags, err, &made);
    if (!made)
        VAEL_LOG(VAEL_DBG_ERR, "K_PM", "%s: failed to create parser\n");
    return lss;
}

extern "C" vael_pm_lss *vael_pm_lss_find(const unsigned char *pattern, uint32_t length, uint32_t flags,
                                         vael_pm_error *err, uint32_t *anchors) {
    uint32_t found = 0;
    if (anchors)
        *anchors = 0;
    if (vael_pm_lss_trim_patttern(&pattern, &length, &found, flags) != 0)
        return nullptr;
    if (anchors)
        *anchors = found;
    uint32_t status = 0;
    vael_pm_lss *multi = vael_pm_lss_find_multi(pattern, length, flags, err, &status);
    if (multi) {
        vael_pm_lss_set_used_instead_of_RE(multi);
        VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: Found multi LSS\n");
        return multi;
    }
    if (status == 0) {
        // A refusal or a failure, not a shape multi mode cannot tell.
        VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: vael_rem_parse returned NULL\n");
        if (vael_us_adaptor_printable(VAEL_DBG_NOTICE, "K_PM"))
            vael_pm_error_dump(err);
        return nullptr;
    }
    VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: pattern cannot be represented by multi-LSS (not an error)\n");
    vael_pm_lss *single = vael_pm_lss_find_single(pattern, length, flags, err);
    if (!single)
        return nullptr;
    if (!single->longest_can) {
        VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: No LSS was found!\n");
        vael_pm_lss_destroy(single);
        return nullptr;
    }
    // A regular LSS is the longest string alone; the digitless mark stays
    // behind, as a regular LSS has a second tier in any case.
    vael_pm_lss *out = vael_pm_lss_create(__func__);
    vael_pm_lss_candidate *copy =
        out ? vael_pm_lss_candidate_create_simple(single->longest_can->str, single->longest_can->len) : nullptr;
    vael_pm_lss_destroy(single);
    if (!copy || add_new(out, copy) != 0) {
        vael_pm_lss_destroy(out);
        return nullptr;
    }
    VAEL_LOG(VAEL_DBG_NOTICE, "K_PM", "%s: Found regular LSS\n");
    return out;
}

extern "C" int vael_pm_lss_get_anchor_flags(const vael_pm_lss *with, const vael_pm_lss *plain, uint32_t *anchors) {
    if (!with || !plain || !anchors || !with->longest_can || !plain->longest_can || !with->longest_can->len ||
        !plain->longest_can->len)
        return VAEL_ERROR;
    const unsigned char *w = with->longest_can->str, *p = plain->longest_can->str;
    const uint32_t wl = with->longest_can->len, pl = plain->longest_can->len;
    auto begins_with = [&](const unsigned char *s, uint32_t sl) { return sl >= pl && std::memcmp(s, p, pl) == 0; };
    *anchors = 0;
    if (!begins_with(w, wl) && !begins_with(w + 1, wl - 1))
        return VAEL_OK;
    const bool w_caret = w[0] == '^', p_caret = p[0] == '^';
    const bool w_dollar = w[wl - 1] == '$', p_dollar = p[pl - 1] == '$';
    if (wl == pl + 1) {
        if (w_caret && !p_caret)
            *anchors = VAEL_PM_LSS_ANCHOR_START;
        else if (w_dollar && !p_dollar)
            *anchors = VAEL_PM_LSS_ANCHOR_END;
    } else if (wl == pl + 2 && w_caret && !p_caret && w_dollar) {
        *anchors = p_dollar ? 0 : VAEL_PM_LSS_ANCHOR_START | VAEL_PM_LSS_ANCHOR_END;
    }
    return VAEL_OK;
}

extern "C" unsigned char *vael_pm_lss_create_str(const vael_pm_lss *lss, uint32_t flags, uint32_t total_length,
                                                 uint32_t *out_length) {
    *out_length = 0;
    if (!lss || !lss->can_list)
        return nullptr;
    const uint32_t count = vael_pm_lss_cans_num(lss);
    uint64_t size = (uint64_t)total_length + (count ? count - 1 : 0);
    if (flags & VAEL_PM_LSS_ANCHOR_START)
        size++;
    if (flags & VAEL_PM_LSS_ANCHOR_END)
        size++;
    if (size == 0 || size > UINT32_MAX)
        return nullptr;
    auto *out = static_cast<unsigned char *>(VAEL_KMALLOC((size_t)size));
    if (!out)
        return nullptr;
    std::memset(out, 0, (size_t)size);
    uint64_t at = 0;
    if (flags & VAEL_PM_LSS_ANCHOR_START)
        out[at++] = '^';
    uintptr_t v;
    for (lst_cursor c = lst_iterate(lss->can_list, nullptr, &v); c; c = lst_iterate(lss->can_list, c, &v)) {
        const vael_pm_lss_candidate *can = can_of(v);
        // total_length is the caller's sum; the text never runs past it.
        uint32_t n = (uint32_t)std::min<uint64_t>(can->len, size - at);
        if (n)
            std::memcpy(out + at, can->str, n);
        at += n;
        if (at < size)
            out[at++] = '|';
    }
    if (flags & VAEL_PM_LSS_ANCHOR_END)
        out[size - 1] = '$';
    *out_length = (uint32_t)size;
    return out;
}
