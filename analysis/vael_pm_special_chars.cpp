// vael_pm_special_chars.cpp - a user's LSS read as a small language: a
// client of the REM parser whose operands are lists of plain strings.
//
// A character gives a list of one string, concatenation joins two lists of
// one string each, and alternation puts two lists together. Everything the
// language leaves out (repetition, a true class, an empty operand, an
// alternation in a concatenation) makes an evaluator return null, which
// ends the parse; the compile then refuses the pattern's LSS.

#include "analysis/vael_pm_special_chars.h"

#include <cstring>
#include <initializer_list>

#include "rem/vael_rem_parser.h"
#include "runtime/vael_runtime.h"

namespace {

vael_rem_token_class g_classes[VAEL_REM_NUM_CLASSES];

lst_list *list_of(const vael_rem_token *t) { return reinterpret_cast<lst_list *>(t->extra_data); }
vael_pm_lss_candidate *can_of(uintptr_t v) { return reinterpret_cast<vael_pm_lss_candidate *>(v); }

void destroy_list(uintptr_t list) { lst_destroy(reinterpret_cast<lst_list *>(list)); }

// Wraps a list as an operand; the list is destroyed when that fails.
vael_rem_token *create_operand(vael_rem_parser *parser, lst_list *list) {
    if (!list)
        return nullptr;
    vael_rem_token *t = vael_rem_token_create(parser, VAEL_REM_CLASS_OPERAND, reinterpret_cast<uintptr_t>(list));
    if (!t)
        lst_destroy(list);
    return t;
}

// A new list holding one candidate of the bytes (copied).
lst_list *one_string_list(const unsigned char *bytes, uint32_t len) {
    lst_list *list = lst_create_destr(vael_pm_lss_candidate_destructor);
    if (!list)
        return nullptr;
    vael_pm_lss_candidate *c = vael_pm_lss_candidate_create_simple(bytes, len);
    if (!c || !lst_insert_at_end(list, reinterpret_cast<uintptr_t>(c))) {
        vael_pm_lss_candidate_destructor(reinterpret_cast<uintptr_t>(c));
        lst_destroy(list);
        return nullptr;
    }
    return list;
}

// The parse's client datum: set when the text breaks the language, so that
// a failed parse tells a refusal from a failed allocation.
void mark_refused(vael_rem_parser *parser) {
    if (auto *refused = static_cast<int *>(vael_rem_parser_get_client_data(parser)))
        *refused = 1;
}

vael_rem_token *refuse(vael_rem_parser *parser, const char *func, const char *fmt) {
    VAEL_LOG_AS(func, VAEL_DBG_ERR, "K_PM | K_ERROR", fmt);
    mark_refused(parser);
    return nullptr;
}

vael_rem_token *vael_pm_special_chars_eval_kleene(vael_rem_token *, vael_rem_parser *parser, vael_rem_token *,
                                                  vael_rem_token *) {
    return refuse(parser, __func__, "%s: lss pattern should not contain 'kleene' operator\n");
}

vael_rem_token *vael_pm_special_chars_eval_quantify_unary(vael_rem_token *, vael_rem_parser *parser, vael_rem_token *,
                                                          vael_rem_token *) {
    return refuse(parser, __func__, "%s: should not contain 'quantify_unary' operator\n");
}

vael_rem_token *vael_pm_special_chars_eval_quantify_binary(vael_rem_token *, vael_rem_parser *parser, vael_rem_token *,
                                                           vael_rem_token *) {
    return refuse(parser, __func__, "%s: should not contain 'quantify_binary' operator\n");
}

vael_rem_token *vael_pm_special_chars_eval_quantify_min(vael_rem_token *, vael_rem_parser *parser, vael_rem_token *,
                                                        vael_rem_token *) {
    return refuse(parser, __func__, "%s: should not contain 'quantify_min' operator\n");
}

// Two single strings joined: an alternation cannot take part in a
// concatenation, so "(a|b)c" is refused here.
vael_rem_token *vael_pm_special_chars_eval_concat(vael_rem_token *, vael_rem_parser *parser, vael_rem_token *left,
                                                  vael_rem_token *right) {
    lst_list *l = list_of(left), *r = list_of(right);
    const intptr_t nl = lst_nelements(l), nr = lst_nelements(r);
    if (nl != 1 || nr != 1) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR",
                 "%s: one of the candidates list does not contain only a single candidate (%d, %d)\n", (int)nl,
                 (int)nr);
        mark_refused(parser);
        return nullptr;
    }
    const vael_pm_lss_candidate *a = can_of(lst_data(lst_first(l)));
    const vael_pm_lss_candidate *b = can_of(lst_data(lst_first(r)));
    const uint64_t size = (uint64_t)a->len + b->len;
    if (size > UINT32_MAX)
        return nullptr;
    auto *joined = static_cast<unsigned char *>(VAEL_KMALLOC((size_t)size));
    if (!joined) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: failed to alloce concat_string (size: %u)\n", (unsigned)size);
        return nullptr;
    }
    if (a->len)
        std::memcpy(joined, a->str, a->len);
    if (b->len)
        std::memcpy(joined + a->len, b->str, b->len);
    lst_list *out = one_string_list(joined, (uint32_t)size);
    VAEL_KFREE(joined, (size_t)size);
    return create_operand(parser, out);
}

vael_rem_token *vael_pm_special_chars_eval_alternate(vael_rem_token *, vael_rem_parser *parser,
                                                     vael_rem_token *left, vael_rem_token *right) {
    lst_list *l = list_of(left), *r = list_of(right);
    const intptr_t nl = lst_nelements(l), nr = lst_nelements(r);
    if (nl == 0 || nr == 0) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: one of the candidates list is empty (%d, %d)\n", (int)nl,
                 (int)nr);
        mark_refused(parser);
        return nullptr;
    }
    lst_list *out = lst_create_destr(vael_pm_lss_candidate_destructor);
    if (!out)
        return nullptr;
    // Each candidate moves with no copy; one whose move fails stays in its
    // old list, which its token destroys.
    for (lst_list *from : {l, r}) {
        uintptr_t v;
        while (lst_nelements(from) > 0) {
            v = lst_data(lst_first(from));
            if (!lst_insert_at_end(out, v)) {
                lst_destroy(out);
                return nullptr;
            }
            lst_dequeue(from);
        }
    }
    return create_operand(parser, out);
}

vael_rem_token *vael_pm_special_chars_create_empty_token(vael_rem_parser *parser) {
    VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: should not get an empty char\n");
    mark_refused(parser);
    return nullptr;
}

// One character as a string of its own; a true class fails the parse.
vael_rem_token *vael_pm_special_chars_create_string_token_by_range(vael_rem_token *range_token,
                                                                   vael_rem_parser *parser) {
    const auto *range = reinterpret_cast<const vael_pmglob_range *>(range_token->extra_data);
    uint32_t len = 0;
    // A class is refused; one character fails here only for want of memory.
    if (!range || vael_pmglob_range_is_negate(range) || !vael_pmglob_range_is_single(range))
        mark_refused(parser);
    unsigned char *bytes = vael_pmglob_range_return_one_char_string(range, &len);
    vael_rem_token_destroy(range_token, __func__);
    if (!bytes)
        return nullptr;
    lst_list *list = one_string_list(bytes, len);
    VAEL_PM_KFREE(bytes, len);
    return create_operand(parser, list);
}

const vael_rem_operator_conf kConf[VAEL_REM_NUM_CLASSES] = {
    {VAEL_REM_CLASS_ALTERNATE, vael_pm_special_chars_eval_alternate, 2},
    {VAEL_REM_CLASS_CONCAT, vael_pm_special_chars_eval_concat, 2},
    {VAEL_REM_CLASS_KLEENE, vael_pm_special_chars_eval_kleene, 1},
    {VAEL_REM_CLASS_UNARY_QUANT, vael_pm_special_chars_eval_quantify_unary, 1},
    {VAEL_REM_CLASS_BINARY_QUANT, vael_pm_special_chars_eval_quantify_binary, 1},
    {VAEL_REM_CLASS_MIN_QUANT, vael_pm_special_chars_eval_quantify_min, 1},
};

// Moves every candidate of the list into the record, in order; the list is
// consumed either way.
int take_candidates(lst_list *list, vael_pm_lss *lss) {
    int rc = VAEL_OK;
    while (rc == VAEL_OK && lst_nelements(list) > 0) {
        auto *c = can_of(lst_dequeue(list));
        if (vael_pm_lss_add_candidate(lss, &c) != 0) {
            vael_pm_lss_candidate_destructor(reinterpret_cast<uintptr_t>(c));
            rc = VAEL_ERROR;
        }
    }
    lst_destroy(list);
    return rc;
}

}  // namespace

extern "C" int vael_pm_special_chars_init(void) {
    vael_rem_parser_init();
    if (vael_rem_build_token_array(vael_rem_token_class_array_default, kConf, destroy_list, g_classes) != 0) {
        vael_rem_parser_fini();
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" void vael_pm_special_chars_fini(void) { vael_rem_parser_fini(); }

extern "C" lst_list *vael_pm_special_chars_find_normalized_patterns(const unsigned char *text, uint32_t length,
                                                                    uint32_t flags) {
    int refused = 0;
    return vael_pm_special_chars_parse(text, length, flags, &refused);
}

extern "C" lst_list *vael_pm_special_chars_parse(const unsigned char *text, uint32_t length, uint32_t flags,
                                                 int *refused) {
    *refused = 0;
    vael_rem_parser *parser =
        vael_rem_parser_create(vael_rem_default_lexer_array, g_classes, refused, flags,
                               vael_pm_special_chars_create_empty_token, vael_pm_special_chars_create_string_token_by_range);
    if (!parser) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: vael_rem_parser_create returned NULL\n");
        return nullptr;
    }
    // The lexer's own refusals leave an illegal-pattern text; a failed
    // allocation leaves an internal one or none.
    vael_pm_error err;
    vael_pm_error_init(&err);
    auto *list = reinterpret_cast<lst_list *>(vael_rem_parse(parser, text, length, &err));
    vael_rem_parser_destroy(parser);
    if (!list) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: vael_rem_parse returned NULL\n");
        if (err.error_string && err.error_type == VAEL_PM_ERROR_ILLEGAL)
            *refused = 1;
    }
    return list;
}

extern "C" vael_pm_lss *vael_pm_special_chars_create_normalized_lss(const vael_pmglob_string *lss, uint32_t literal,
                                                                    uint32_t digitless, uint32_t *anchors) {
    int refused = 0;
    return vael_pm_special_chars_read_lss(lss, literal, digitless, anchors, &refused);
}

extern "C" vael_pm_lss *vael_pm_special_chars_read_lss(const vael_pmglob_string *lss, uint32_t literal,
                                                       uint32_t digitless, uint32_t *anchors, int *refused) {
    *refused = 0;
    if (!lss || !anchors) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: invalid params\n");
        *refused = 1;
        return nullptr;
    }
    *anchors = 0;
    vael_pm_lss *out = vael_pm_lss_create(__func__);
    if (!out)
        return nullptr;
    int rc = VAEL_ERROR;
    if (literal) {
        // Byte for byte: no anchor is looked for and no escape is read.
        vael_pm_lss_candidate *c = vael_pm_lss_candidate_create_simple(lss->pattern, lss->size);
        rc = c && vael_pm_lss_add_candidate(out, &c) == 0 ? VAEL_OK : VAEL_ERROR;
        if (rc != VAEL_OK)
            vael_pm_lss_candidate_destructor(reinterpret_cast<uintptr_t>(c));
    } else {
        const unsigned char *text = lss->pattern;
        uint32_t length = lss->size;
        if (vael_pm_lss_trim_patttern(&text, &length, anchors, 0) == 0) {
            lst_list *list = vael_pm_special_chars_parse(text, length, lss->flags & VAEL_PM_UTF8, refused);
            rc = list ? take_candidates(list, out) : VAEL_ERROR;
        } else {
            *refused = 1;  // empty, or an anchor alone
        }
    }
    if (rc != VAEL_OK) {
        vael_pm_lss_destroy(out);
        return nullptr;
    }
    // The text keeps its digits: the first tier folds them when it is built.
    uintptr_t v;
    for (lst_cursor c = lst_iterate(out->can_list, nullptr, &v); digitless && c; c = lst_iterate(out->can_list, c, &v))
        if (vael_pm_lss_candidate_is_digit_in_range(can_of(v)))
            vael_pm_lss_digitless_set_need_second_tier(out);
    return out;
}
