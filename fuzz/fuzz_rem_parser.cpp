// fuzz_rem_parser.cpp - the REM lexer and parser over any text.
//
// Input: one byte of parser flags (bit 0: the dot also matches a line end,
// bit 1: UTF-8), then the pattern, in a buffer of its exact size. The lexer
// alone walks the text token by token; then the parser runs with a client
// of this file whose values are the sizes of the expression trees. A parse
// gives a value or an error with an index inside the pattern (and a text,
// but for the refusals that have none); both memory accounts end where they
// started.

#include "fuzz/fuzz_support.h"
#include "rem/vael_rem_parser.h"

namespace {

// A value: the node count of its tree, in a block of the general account.
uintptr_t make_value(vael_rem_parser *parser, uint64_t nodes) {
    auto *v = static_cast<uint64_t *>(qx_kmalloc_ex_(sizeof(uint64_t), "fuzz_value", 0, __FILE__, __LINE__));
    if (!v) {
        vael_pm_error_set_details(vael_rem_parser_get_error(parser), VAEL_PM_ERROR_INTERNAL, "fuzz: no memory");
        return 0;
    }
    *v = nodes;
    return reinterpret_cast<uintptr_t>(v);
}

void destroy_value(uintptr_t v) {
    if (v)
        qx_kfree_(reinterpret_cast<void *>(v), sizeof(uint64_t));
}

uint64_t nodes_of(const vael_rem_token *t) { return t ? *reinterpret_cast<const uint64_t *>(t->extra_data) : 0; }

vael_rem_token *operand(vael_rem_parser *parser, uint64_t nodes) {
    uintptr_t v = make_value(parser, nodes);
    if (!v)
        return nullptr;
    vael_rem_token *t = vael_rem_token_create(parser, VAEL_REM_CLASS_OPERAND, v);
    if (!t)
        destroy_value(v);
    return t;
}

vael_rem_token *eval(vael_rem_token *, vael_rem_parser *parser, vael_rem_token *l, vael_rem_token *r) {
    FUZZ_CHECK(l != nullptr, "an operator without its left operand");
    return operand(parser, 1 + nodes_of(l) + nodes_of(r));
}

vael_rem_token *empty_operand(vael_rem_parser *parser) { return operand(parser, 1); }

vael_rem_token *range_operand(vael_rem_token *range_token, vael_rem_parser *parser) {
    FUZZ_CHECK(range_token->extra_data != 0, "a class without its range");
    vael_rem_token_destroy(range_token, __func__);
    return operand(parser, 1);
}

const vael_rem_operator_conf kConf[VAEL_REM_NUM_CLASSES] = {
    {VAEL_REM_CLASS_ALTERNATE, eval, 2},   {VAEL_REM_CLASS_CONCAT, eval, 2},
    {VAEL_REM_CLASS_KLEENE, eval, 1},      {VAEL_REM_CLASS_UNARY_QUANT, eval, 1},
    {VAEL_REM_CLASS_BINARY_QUANT, eval, 1}, {VAEL_REM_CLASS_MIN_QUANT, eval, 1},
};

vael_rem_token_class *classes() {
    static vael_rem_token_class array[VAEL_REM_NUM_CLASSES];
    static const bool built = [] {
        FUZZ_CHECK(vael_rem_build_token_array(vael_rem_token_class_array_default, kConf, destroy_value, array) == 0,
                   "client classes");
        return true;
    }();
    (void)built;
    return array;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    vael_fuzz::start_library_once();
    if (size == 0 || size > 4096)
        return 0;
    const uint32_t flags = (data[0] & 1 ? 1u : 0u) | (data[0] & 2 ? (uint32_t)VAEL_PM_UTF8 : 0u);
    const vael_fuzz::Tail text(data, size);
    const uint32_t n = text.n;
    const vael_fuzz::Accounts accounts;

    // The lexer alone: every token comes with the input consumed so far.
    vael_rem_parser *lexer =
        vael_rem_parser_create(vael_rem_default_lexer_array, classes(), nullptr, flags, empty_operand, range_operand);
    FUZZ_CHECK(lexer != nullptr, "parser create");
    vael_pm_error err;
    vael_pm_error_init(&err);
    vael_rem_parser_set_input(lexer, text.bytes.get(), n, &err);
    for (uint32_t tokens = 0; vael_rem_parser_has_more_chars(lexer); tokens++) {
        FUZZ_CHECK(tokens <= n, "more tokens than bytes");
        vael_rem_token *t = vael_rem_parser_get_next_token(lexer);
        FUZZ_CHECK(vael_rem_parser_consumed(lexer) <= n, "consumed %u of %u", vael_rem_parser_consumed(lexer), n);
        if (!t)
            break;
        vael_rem_token_destroy(t, "fuzz");
    }
    vael_rem_parser_destroy(lexer);

    vael_rem_parser *parser =
        vael_rem_parser_create(vael_rem_default_lexer_array, classes(), nullptr, flags, empty_operand, range_operand);
    FUZZ_CHECK(parser != nullptr, "parser create");
    vael_pm_error_init(&err);
    uintptr_t value = vael_rem_parse(parser, text.bytes.get(), n, &err);
    vael_rem_parser_destroy(parser);
    if (value) {
        FUZZ_CHECK(*reinterpret_cast<uint64_t *>(value) >= 1, "an empty tree");
        destroy_value(value);
    } else {
        // An empty pattern has no token, and a character that is not UTF-8
        // is refused in UTF-8 mode: no value, and only a log line.
        FUZZ_CHECK(n == 0 || (flags & VAEL_PM_UTF8) || err.error_string != nullptr, "a refusal without a text");
        FUZZ_CHECK(err.error_index <= n, "error index %u past the pattern (%u)", err.error_index, n);
    }
    accounts.check();
    return 0;
}
