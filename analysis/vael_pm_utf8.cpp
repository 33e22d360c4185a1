// vael_pm_utf8.cpp - the UTF-8 simplifier: a client of the REM parser whose
// evaluators paste byte-level texts together instead of building an
// automaton.
//
// In UTF-8 mode the lexer writes each character class as a regular
// expression over bytes and hands '(' and ')' over as one-character classes,
// so no group exists for the parser: texts meet in source order, and only a
// repetition adds parentheses of its own around its operand. A class text
// with alternatives in it is put in parentheses so that it stays one unit;
// the user's own alternations stay as written.

#include "analysis/vael_pm_utf8.h"

#include <cstdio>
#include <cstring>

#include "pm/vael_pm_internal.h"
#include "rem/vael_rem_parser.h"
#include "runtime/vael_runtime.h"

namespace {

const char kEmptyOperand[] = "Empty operand in UTF-8 pattern (an alternative or a repeated item is missing)";
const char kNoMemory[] = "UTF-8 simplifier failed to allocate memory";

vael_rem_token_class g_classes[VAEL_REM_NUM_CLASSES];

vael_pm_utf8_s *text_of(const vael_rem_token *t) { return reinterpret_cast<vael_pm_utf8_s *>(t->extra_data); }

void destroy_extra(uintptr_t text) { vael_pm_utf8_destroy_utf8_s(reinterpret_cast<vael_pm_utf8_s *>(text)); }

// Appends bytes; the caller sized the buffer exactly.
void put(vael_pm_utf8_s *t, const void *bytes, uint32_t n) {
    if (n)
        std::memcpy(t->buf + t->used, bytes, n);
    t->used += n;
}

// The empty operand carries no text: the evaluators refuse it, so "a|" and
// "|a" fail the parse with a text of their own.
bool refuse_empty(vael_rem_parser *parser, const vael_rem_token *t) {
    if (t && text_of(t))
        return false;
    VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: empty operand in UTF-8 pattern\n");
    vael_pm_error_set_details(vael_rem_parser_get_error(parser), VAEL_PM_ERROR_ILLEGAL, kEmptyOperand);
    return true;
}

vael_rem_token *create_operand(vael_rem_parser *parser, vael_pm_utf8_s *text) {
    if (!text) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s invalid parameter");
        vael_pm_error_set_details(vael_rem_parser_get_error(parser), VAEL_PM_ERROR_INTERNAL, kNoMemory);
        return nullptr;
    }
    vael_rem_token *t = vael_rem_token_create(parser, VAEL_REM_CLASS_OPERAND, reinterpret_cast<uintptr_t>(text));
    if (!t) {
        vael_pm_utf8_destroy_utf8_s(text);
        vael_pm_error_set_details(vael_rem_parser_get_error(parser), VAEL_PM_ERROR_INTERNAL, kNoMemory);
    }
    return t;
}

// "(" x ")" and the quantifier's own suffix; suffix may be empty.
vael_rem_token *wrap(vael_rem_parser *parser, const vael_rem_token *operand, const char *suffix, uint32_t suffix_len) {
    if (refuse_empty(parser, operand))
        return nullptr;
    const vael_pm_utf8_s *x = text_of(operand);
    const uint64_t size = (uint64_t)x->used + 2 + suffix_len;
    if (size > UINT32_MAX)
        return nullptr;
    vael_pm_utf8_s *out = vael_pm_uft8_create_utf8_s((uint32_t)size);
    if (out) {
        put(out, "(", 1);
        put(out, x->buf, x->used);
        put(out, ")", 1);
        put(out, suffix, suffix_len);
    }
    return create_operand(parser, out);
}

// The counted suffix of a quantifier, or -1 when it cannot be printed.
int print_count(char *buf, size_t size, const char *format, uintptr_t a, uintptr_t b) {
    int n = std::snprintf(buf, size, format, (unsigned)a, (unsigned)b);
    if (n < 0 || (size_t)n >= size) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s couldn't print to buf\n");
        return -1;
    }
    return n;
}

vael_rem_token *quantify(vael_rem_parser *parser, const vael_rem_token *operand, const char *format, uintptr_t a,
                         uintptr_t b) {
    char suffix[32];
    int n = print_count(suffix, sizeof suffix, format, a, b);
    if (n < 0)
        return nullptr;
    return wrap(parser, operand, suffix, (uint32_t)n);
}

// x, the separator (may be empty), y.
vael_rem_token *join(vael_rem_parser *parser, const vael_rem_token *left, const vael_rem_token *right,
                     const char *separator) {
    if (refuse_empty(parser, left) || refuse_empty(parser, right))
        return nullptr;
    const vael_pm_utf8_s *x = text_of(left), *y = text_of(right);
    const uint32_t sep = (uint32_t)std::strlen(separator);
    const uint64_t size = (uint64_t)x->used + y->used + sep;
    if (size > UINT32_MAX)
        return nullptr;
    vael_pm_utf8_s *out = vael_pm_uft8_create_utf8_s((uint32_t)size);
    if (out) {
        put(out, x->buf, x->used);
        put(out, separator, sep);
        put(out, y->buf, y->used);
    }
    return create_operand(parser, out);
}

vael_rem_token *vael_pm_utf8_eval_alternate(vael_rem_token *, vael_rem_parser *parser, vael_rem_token *left,
                                            vael_rem_token *right) {
    return join(parser, left, right, "|");
}

vael_rem_token *vael_pm_utf8_eval_concat(vael_rem_token *, vael_rem_parser *parser, vael_rem_token *left,
                                         vael_rem_token *right) {
    return join(parser, left, right, "");
}

vael_rem_token *vael_pm_utf8_eval_kleene(vael_rem_token *, vael_rem_parser *parser, vael_rem_token *left,
                                         vael_rem_token *) {
    return wrap(parser, left, "*", 1);
}

vael_rem_token *vael_pm_utf8_eval_quantify_unary(vael_rem_token *op, vael_rem_parser *parser, vael_rem_token *left,
                                                 vael_rem_token *) {
    return quantify(parser, left, "{%u}", op->extra_data, 0);
}

vael_rem_token *vael_pm_utf8_eval_quantify_binary(vael_rem_token *op, vael_rem_parser *parser, vael_rem_token *left,
                                                  vael_rem_token *) {
    return quantify(parser, left, "{%u,%u}", op->extra_data, op->extra_data2);
}

vael_rem_token *vael_pm_utf8_eval_quantify_min(vael_rem_token *op, vael_rem_parser *parser, vael_rem_token *left,
                                               vael_rem_token *) {
    return quantify(parser, left, "{%u,}", op->extra_data, 0);
}

vael_rem_token *vael_pm_utf8_create_empty_token(vael_rem_parser *parser) {
    vael_rem_token *t = vael_rem_token_create(parser, VAEL_REM_CLASS_OPERAND, 0);
    if (!t)
        vael_pm_error_set_details(vael_rem_parser_get_error(parser), VAEL_PM_ERROR_INTERNAL, kNoMemory);
    return t;
}

// The class's byte-level text, in parentheses when it holds alternatives.
vael_rem_token *vael_pm_utf8_create_token_by_range(vael_rem_token *range_token, vael_rem_parser *parser) {
    const auto *range = reinterpret_cast<const vael_pmglob_range *>(range_token->extra_data);
    vael_pm_utf8_s *out = nullptr;
    if (range && range->type == VAEL_PMGLOB_RANGE_UTF8) {
        const auto *u = static_cast<const vael_pmutf8_range *>(range->impl);
        const uint32_t parens = u->has_alternatives ? 2 : 0;
        if (u->buf_used <= UINT32_MAX - parens && (out = vael_pm_uft8_create_utf8_s(u->buf_used + parens))) {
            if (parens)
                put(out, "(", 1);
            put(out, u->buf, u->buf_used);
            if (parens)
                put(out, ")", 1);
        }
    } else {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: the range is not in its UTF-8 form\n");
    }
    vael_rem_token_destroy(range_token, __func__);
    return create_operand(parser, out);
}

const vael_rem_operator_conf kConf[VAEL_REM_NUM_CLASSES] = {
    {VAEL_REM_CLASS_ALTERNATE, vael_pm_utf8_eval_alternate, 2},
    {VAEL_REM_CLASS_CONCAT, vael_pm_utf8_eval_concat, 2},
    {VAEL_REM_CLASS_KLEENE, vael_pm_utf8_eval_kleene, 1},
    {VAEL_REM_CLASS_UNARY_QUANT, vael_pm_utf8_eval_quantify_unary, 1},
    {VAEL_REM_CLASS_BINARY_QUANT, vael_pm_utf8_eval_quantify_binary, 1},
    {VAEL_REM_CLASS_MIN_QUANT, vael_pm_utf8_eval_quantify_min, 1},
};

}  // namespace

extern "C" vael_pm_utf8_s *vael_pm_uft8_create_utf8_s(uint32_t size) {
    auto *t = static_cast<vael_pm_utf8_s *>(VAEL_KMALLOC(sizeof(vael_pm_utf8_s)));
    if (!t) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s couldn't allocate memory\n");
        return nullptr;
    }
    t->buf = nullptr;
    t->used = 0;
    t->size = size;
    if (size && !(t->buf = static_cast<unsigned char *>(VAEL_KMALLOC(size)))) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s couldn't allocate memory\n");
        VAEL_KFREE(t, sizeof *t);
        return nullptr;
    }
    return t;
}

extern "C" void vael_pm_utf8_destroy_utf8_s(vael_pm_utf8_s *text) {
    if (!text)
        return;
    if (text->buf)
        VAEL_KFREE(text->buf, text->size);
    VAEL_KFREE(text, sizeof *text);
}

extern "C" int vael_pm_utf8_init(void) {
    if (vael_rem_parser_init() != 0) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s vael_rem_parser_init failed\n");
        return VAEL_ERROR;
    }
    if (vael_rem_build_token_array(vael_rem_token_class_array_default, kConf, destroy_extra, g_classes) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s vael_rem_build_token_array failed\n");
        vael_rem_parser_fini();
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" void vael_pm_utf8_fini(void) { vael_rem_parser_fini(); }

extern "C" unsigned char *vael_pm_utf8_rewrite(const unsigned char *text, uint32_t length, uint32_t flags,
                                               vael_pm_error *err, uint32_t *out_len) {
    *out_len = 0;
    vael_rem_parser *parser =
        vael_rem_parser_create(vael_rem_default_lexer_array, g_classes, nullptr, flags | VAEL_PM_UTF8,
                               vael_pm_utf8_create_empty_token, vael_pm_utf8_create_token_by_range);
    if (!parser) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: failed to create UTF-8 parser\n");
        return nullptr;
    }
    auto *result = reinterpret_cast<vael_pm_utf8_s *>(vael_rem_parse(parser, text, length, err));
    vael_rem_parser_destroy(parser);
    if (!result) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: vael_rem_parse returned NULL\n");
        vael_pm_error_dump(err);
        return nullptr;
    }
    if (!result->buf) {
        vael_pm_utf8_destroy_utf8_s(result);
        vael_pm_error_set_details(err, VAEL_PM_ERROR_ILLEGAL, kEmptyOperand);
        return nullptr;
    }
    // The result's buffer was sized to its text exactly; it is handed on.
    unsigned char *bytes = result->buf;
    *out_len = result->used;
    VAEL_KFREE(result, sizeof *result);
    return bytes;
}

extern "C" int vael_pm_utf8_RE_to_simple_RE(vael_pm_one_pattern *pattern, vael_pm_error *err, uint32_t flags) {
    if (!pattern || !pattern->re) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: invalid params\n");
        return VAEL_ERROR;
    }
    flags |= pattern->flags & VAEL_PM_CASELESS;
    const vael_pmglob_string *old = pattern->re;
    uint32_t len = 0;
    unsigned char *text = vael_pm_utf8_rewrite(old->pattern, old->size, flags, err, &len);
    if (!text)
        return VAEL_ERROR;
    vael_pmglob_string *s = vael_pmglob_string_create(text, len, old->id, old->flags);
    VAEL_KFREE(text, len);
    if (!s) {
        VAEL_LOG(VAEL_DBG_ERR, "K_PM | K_ERROR", "%s: failed to allocate pattern\n");
        return VAEL_ERROR;
    }
    vael_pmglob_string_destroy(pattern->re);
    pattern->re = s;
    return VAEL_OK;
}
