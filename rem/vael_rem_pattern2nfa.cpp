// vael_rem_pattern2nfa.cpp - the parser client that turns a REM pattern into
// a finalized NFA environment.
//
// A pattern is unanchored unless it says otherwise. Rather than restart the
// automaton at every offset, the text is wrapped as `.*(pattern).*`, so that
// the automaton does the searching itself; `^` and `$` change the wrapping
// instead of reaching the parser. The wrapped text is parsed with evaluators
// that call the NFA build operations; every operand token carries a fragment
// (vael_nfa) as its extra data.
//
// External interface: vael_rem_pattern2nfa_init / _fini (the class array),
// vael_rem_get_anchored_buf (the wrapping) and vael_rem_pattern2nfa.

#include <cstring>

#include "rem/vael_dfa_internal.h"
#include "rem/vael_rem_parser.h"
#include "rem/vael_rem_tier.h"
#include "runtime/vael_runtime.h"

namespace {

const char kTopics[] = "K_REM";
const char kErrTopics[] = "K_REM | K_ERROR";
const char kBracesMinMax[] = "Illegal parameters inside braces: {min,max} min > max";

// Flags of the wrapping.
constexpr uint32_t kMultiline = 0x40;
constexpr uint32_t kLineEndCr = 0x8;
constexpr uint32_t kLineEndCrLf = 0x10;
constexpr uint32_t kLineEndCrOrLf = 0x20;

vael_rem_token_class g_classes[VAEL_REM_NUM_CLASSES];

vael_nfa *nfa_of(const vael_rem_token *t) { return reinterpret_cast<vael_nfa *>(t->extra_data); }

vael_nfa_env *env_of(const vael_rem_parser *parser) {
    return static_cast<vael_nfa_env *>(vael_rem_parser_get_client_data(parser));
}

// The text before a caret-anchored pattern under MULTILINE: any whole lines
// first, or nothing.
const char *multiline_prefix(uint32_t flags) {
    if (flags & kLineEndCrOrLf)
        return "(.*\\r|.*\\n|)";
    if (flags & kLineEndCrLf)
        return "(.*\\r\\n|)";
    if (flags & kLineEndCr)
        return "(.*\\r|)";
    return "(.*\\n|)";
}

const char *multiline_suffix(uint32_t flags) {
    if (flags & kLineEndCrOrLf)
        return "(\\r.*|\\n.*|)";
    if (flags & kLineEndCrLf)
        return "(\\r\\n.*|)";
    if (flags & kLineEndCr)
        return "(\\r.*|)";
    return "(\\n.*|)";
}

}  // namespace

// ---------------------------------------------------------------- operands

extern "C" void vael_rem_pattern2nfa_nfa_destroy(uintptr_t extra) {
    vael_nfa_destroy(reinterpret_cast<vael_nfa *>(extra));
}

extern "C" vael_rem_token *vael_rem_create_nfa_token(vael_rem_parser *parser, vael_nfa *nfa) {
    if (!nfa)
        return nullptr;
    vael_rem_token *t = vael_rem_token_create(parser, VAEL_REM_CLASS_OPERAND, reinterpret_cast<uintptr_t>(nfa));
    if (!t)
        vael_nfa_destroy(nfa);
    return t;
}

namespace {

vael_rem_token *vael_rem_create_empty_nfa_token(vael_rem_parser *parser) {
    return vael_rem_create_nfa_token(parser, vael_nfa_build_empty_nfa(env_of(parser)));
}

}  // namespace

extern "C" vael_rem_token *vael_rem_create_nfa_token_by_range(vael_rem_token *range_token, vael_rem_parser *parser) {
    const auto *range = reinterpret_cast<const vael_pmglob_range *>(range_token->extra_data);
    vael_nfa *nfa = nullptr;
    if (range && range->type == VAEL_PMGLOB_RANGE_ASCII)
        nfa = vael_nfa_build_range(env_of(parser), static_cast<vael_pmascii_range *>(range->impl));
    else
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: the REM takes byte classes only\n");
    vael_rem_token_destroy(range_token, __func__);
    return vael_rem_create_nfa_token(parser, nfa);
}

// ---------------------------------------------------------------- evaluators

namespace {

// Takes the fragment out of an operand token: the token dies without it.
vael_nfa *take(vael_rem_token *t) {
    vael_rem_token_dont_free_extra_data(t);
    return nfa_of(t);
}

vael_rem_token *vael_rem_pattern2nfa_eval_alternate(vael_rem_token *, vael_rem_parser *parser, vael_rem_token *left,
                                                    vael_rem_token *right) {
    vael_nfa *l = take(left);
    vael_nfa *r = take(right);
    return vael_rem_create_nfa_token(parser, vael_nfa_build_alternate(l, r));
}

vael_rem_token *vael_rem_pattern2nfa_eval_concat(vael_rem_token *, vael_rem_parser *parser, vael_rem_token *left,
                                                 vael_rem_token *right) {
    vael_nfa *l = take(left);
    vael_nfa *r = take(right);
    return vael_rem_create_nfa_token(parser, vael_nfa_build_concat(l, r));
}

vael_rem_token *vael_rem_pattern2nfa_eval_kleene(vael_rem_token *, vael_rem_parser *parser, vael_rem_token *left,
                                                 vael_rem_token *) {
    return vael_rem_create_nfa_token(parser, vael_nfa_build_kleene(take(left)));
}

vael_rem_token *vael_rem_pattern2nfa_eval_quantify_unary(vael_rem_token *op, vael_rem_parser *parser,
                                                         vael_rem_token *left, vael_rem_token *) {
    return vael_rem_create_nfa_token(parser, vael_nfa_build_quantify(take(left), (uint32_t)op->extra_data));
}

// {min,max} and ?: min copies, then max - min optional copies one after the
// other, so a{2,4} is aa(a|)(a|), not nested.
vael_rem_token *vael_rem_pattern2nfa_eval_quantify_binary(vael_rem_token *op, vael_rem_parser *parser,
                                                          vael_rem_token *left, vael_rem_token *) {
    const uint32_t min = (uint32_t)op->extra_data;
    const uint32_t max = (uint32_t)op->extra_data2;
    vael_nfa *operand = take(left);
    if (max < min) {
        vael_pm_error_set_details(vael_rem_parser_get_error(parser), VAEL_PM_ERROR_ILLEGAL, kBracesMinMax);
        vael_nfa_destroy(operand);
        return nullptr;
    }
    // The copy comes first: a count of 0 consumes the operand.
    vael_nfa *copy = vael_nfa_dup(operand);
    if (!copy) {
        vael_nfa_destroy(operand);
        return nullptr;
    }
    vael_nfa *required = vael_nfa_build_quantify(operand, min);
    if (!required) {
        vael_nfa_destroy(copy);
        return nullptr;
    }
    vael_nfa *optional = vael_nfa_build_alternate(copy, vael_nfa_build_empty_nfa(required->env));
    optional = vael_nfa_build_quantify(optional, max - min);
    if (!optional) {
        vael_nfa_destroy(required);
        return nullptr;
    }
    return vael_rem_create_nfa_token(parser, vael_nfa_build_concat(required, optional));
}

// {n,} and +: n copies, then a star of one more.
vael_rem_token *vael_rem_pattern2nfa_eval_quantify_min(vael_rem_token *op, vael_rem_parser *parser,
                                                       vael_rem_token *left, vael_rem_token *) {
    vael_nfa *operand = take(left);
    vael_nfa *copy = vael_nfa_dup(operand);
    if (!copy) {
        vael_nfa_destroy(operand);
        return nullptr;
    }
    vael_nfa *required = vael_nfa_build_quantify(operand, (uint32_t)op->extra_data);
    if (!required) {
        vael_nfa_destroy(copy);
        return nullptr;
    }
    vael_nfa *star = vael_nfa_build_kleene(copy);
    if (!star) {
        vael_nfa_destroy(required);
        return nullptr;
    }
    return vael_rem_create_nfa_token(parser, vael_nfa_build_concat(required, star));
}

const vael_rem_operator_conf kConf[VAEL_REM_NUM_CLASSES] = {
    {VAEL_REM_CLASS_ALTERNATE, vael_rem_pattern2nfa_eval_alternate, 2},
    {VAEL_REM_CLASS_CONCAT, vael_rem_pattern2nfa_eval_concat, 2},
    {VAEL_REM_CLASS_KLEENE, vael_rem_pattern2nfa_eval_kleene, 1},
    {VAEL_REM_CLASS_UNARY_QUANT, vael_rem_pattern2nfa_eval_quantify_unary, 1},
    {VAEL_REM_CLASS_BINARY_QUANT, vael_rem_pattern2nfa_eval_quantify_binary, 1},
    {VAEL_REM_CLASS_MIN_QUANT, vael_rem_pattern2nfa_eval_quantify_min, 1},
};

}  // namespace

// ---------------------------------------------------------------- start and stop

extern "C" int vael_rem_pattern2nfa_init(void) {
    vael_rem_parser_init();
    if (vael_rem_build_token_array(vael_rem_token_class_array_default, kConf, vael_rem_pattern2nfa_nfa_destroy,
                                   g_classes) != 0) {
        vael_rem_parser_fini();
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" void vael_rem_pattern2nfa_fini(void) { vael_rem_parser_fini(); }

// ---------------------------------------------------------------- the wrapping

extern "C" unsigned char *vael_rem_get_anchored_buf(const vael_pmglob_string *pattern, uint32_t *size,
                                                    uint32_t flags, int *dollar, int *caret,
                                                    uint32_t *prefix_size) {
    *dollar = 0;
    *caret = 0;
    *prefix_size = 0;
    *size = 0;
    if (!pattern || vael_pmglob_string_get_size(pattern) == 0)
        return nullptr;
    const unsigned char *p = vael_pmglob_string_get_pattern(pattern);
    uint32_t n = vael_pmglob_string_get_size(pattern);
    const bool multiline = flags & kMultiline;

    const char *prefix = ".*";
    if (p[0] == '^') {
        p++, n--;
        if (multiline) {
            prefix = multiline_prefix(flags);
        } else {
            prefix = "";
            *caret = 1;
        }
    }
    // Only the one byte before is looked at: "\\$" keeps its '$' as a
    // character. After a lone '^' the byte before is that '^'.
    if (n > 0 && p[n - 1] == '$' && (n == 1 || p[n - 2] != '\\')) {
        n--;
        *dollar = 1;
    }
    const char *suffix = ".*";
    if (*dollar || (vael_pmglob_string_get_flags(pattern) & VAEL_PM_BOUND))
        suffix = multiline ? multiline_suffix(flags) : "";

    const uint32_t pre = (uint32_t)std::strlen(prefix);
    const uint32_t post = (uint32_t)std::strlen(suffix);
    const uint32_t total = pre + n + post + 2;
    auto *buf = static_cast<unsigned char *>(VAEL_KMALLOC(total));
    if (!buf)
        return nullptr;
    std::memcpy(buf, prefix, pre);
    buf[pre] = '(';
    if (n)
        std::memcpy(buf + pre + 1, p, n);
    buf[pre + 1 + n] = ')';
    std::memcpy(buf + pre + 2 + n, suffix, post);
    *size = total;
    *prefix_size = pre + 1;
    return buf;
}

// ---------------------------------------------------------------- the entry

extern "C" vael_nfa_env *vael_rem_pattern2nfa(const vael_pmglob_string *pattern, uint32_t flags,
                                              vael_pm_error *error) {
    int dollar = 0, caret = 0;
    uint32_t size = 0, prefix_size = 0;
    unsigned char *buf = vael_rem_get_anchored_buf(pattern, &size, flags, &dollar, &caret, &prefix_size);
    if (!buf) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: vael_rem_get_anchored_buf returned NULL\n");
        return nullptr;
    }
    if (dollar || (vael_pmglob_string_get_flags(pattern) & VAEL_PM_BOUND))
        flags |= VAEL_DFA_NO_FINAL_SINK;
    vael_nfa_env *env = vael_nfa_env_create(flags | (caret ? VAEL_DFA_CARET : 0u), error);
    if (!env) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: vael_nfa_env_create failed\n");
        VAEL_KFREE(buf, size);
        return nullptr;
    }
    vael_rem_parser *parser =
        vael_rem_parser_create(vael_rem_default_lexer_array, g_classes, env, flags & ~VAEL_DFA_CARET,
                               vael_rem_create_empty_nfa_token, vael_rem_create_nfa_token_by_range);
    vael_nfa *fragment = nullptr;
    if (parser)
        fragment = reinterpret_cast<vael_nfa *>(vael_rem_parse(parser, buf, size, error));
    if (error && error->error_index >= prefix_size) {
        // The caller sees a position in its own pattern.
        error->error_index -= prefix_size;
        if (error->error_index > vael_pmglob_string_get_size(pattern))
            error->error_index = vael_pmglob_string_get_size(pattern);
    }
    vael_rem_parser_destroy(parser);
    bool ok = fragment != nullptr;
    if (!ok)
        VAEL_LOG(VAEL_DBG_NOTICE, kTopics, "%s: vael_rem_parse returned NULL\n");
    if (ok && vael_nfa_env_finalize(env, fragment, dollar) != 0) {
        vael_nfa_destroy(fragment);
        ok = false;
    }
    VAEL_KFREE(buf, size);
    if (!ok) {
        vael_nfa_env_destroy(env);
        return nullptr;
    }
    return env;
}
