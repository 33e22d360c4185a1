// vael_rem_parser.cpp - the REM language: its table-driven lexer and the
// operator-precedence evaluation that its four clients share.
//
// The lexer reads the character under the cursor, checks it (end of input,
// UTF-8 form), and calls the active table's handler for its first byte; the
// handler consumes what it needs and gives one token. Every refusal leaves a
// constant text in the error record, except two of UTF-8 mode that are only
// logged: a malformed character, and \c before a character of more than one
// byte. The evaluation keeps two stacks of tokens and asks
// the client's evaluators what an operator means; it owns nothing it builds.

#include <cstring>

#include "pm/vael_pm_strings.h"
#include "rem/vael_rem_parser.h"
#include "runtime/vael_runtime.h"

namespace {

const char kUnexpectedEnd[] = "Unexpected end of pattern";
const char kUnexpectedChar[] = "unexpected character";
const char kNoMemory[] = "REM parser failed to allocate memory";
const char kEmptyBrackets[] = "Empty sequence inside brackets";

constexpr uint32_t kDotAllFlag = 0x1u;
constexpr uint32_t kLineEndCrOrLf = 0x20u;
constexpr uint32_t kLineEndCrLf = 0x10u;
constexpr uint32_t kLineEndCr = 0x8u;

int g_parser_refcount;

bool utf8_mode(const vael_rem_parser *p) { return (p->flags & VAEL_PM_UTF8) != 0; }

void set_error(vael_rem_parser *p, uint32_t type, const char *text) { vael_pm_error_set_details(p->error, type, text); }

// The code point of the character at c; the character was validated.
uint32_t decode_char(const vael_rem_parser *p, const unsigned char *c) {
    uint32_t size = vael_rem_parser_char_size(p, *c);
    if (size == 1)
        return *c;
    vael_pmutf8_char u{};
    std::memcpy(u.bytes, c, size);
    u.num_of_bytes = (uint8_t)size;
    int32_t v = vael_pmutf8_range_utf8_to_num(&u);
    return v < 0 ? 0 : (uint32_t)v;
}

bool is_octal(unsigned char c) { return c >= '0' && c <= '7'; }

uint32_t hex_value(unsigned char c) {
    if (is_digit(c))
        return c - '0';
    return (uint32_t)(to_lower(c) - 'a' + 10);
}

// A class 2 token holding a new, empty range of the parser's form.
vael_rem_token *new_range_token(vael_rem_parser *p) {
    vael_pmglob_range *range = vael_pmglob_range_create(p->flags);
    if (!range) {
        set_error(p, VAEL_PM_ERROR_INTERNAL, kNoMemory);
        return nullptr;
    }
    vael_rem_token *t = vael_rem_token_create(p, VAEL_REM_CLASS_RANGE_OPERAND, reinterpret_cast<uintptr_t>(range));
    if (!t)
        vael_pmglob_range_destroy(range);
    return t;
}

vael_pmglob_range *range_of(const vael_rem_token *t) { return reinterpret_cast<vael_pmglob_range *>(t->extra_data); }

// A range token with one character, added plainly or in hexa form.
vael_rem_token *one_char_token(vael_rem_parser *p, uint32_t value, bool hexa) {
    vael_rem_token *t = new_range_token(p);
    if (!t)
        return nullptr;
    int rc = hexa ? vael_pmglob_range_add_hexa_range(range_of(t), value, value, 1, p->error)
                  : vael_pmglob_range_add_range(range_of(t), value, value, 1, p->error);
    if (rc != 0) {
        vael_rem_token_destroy(t, __func__);
        return nullptr;
    }
    return t;
}

vael_rem_token *vael_rem_tokenize_one_char_only(vael_rem_parser *p, uint32_t value) {
    return one_char_token(p, value, false);
}

vael_rem_token *vael_rem_tokenize_in_hexa_char_formant(vael_rem_parser *p, uint32_t value) {
    return one_char_token(p, value, true);
}

// A token of an operator class that consumes the one character under the cursor.
vael_rem_token *single_char_operator(vael_rem_parser *p, uint32_t class_) {
    vael_rem_parser_get_current_char(p);
    return vael_rem_token_create(p, class_, 0);
}

// Handlers run with the table they were called from; they restore it on every exit.
class ScopedLexerArray {
  public:
    ScopedLexerArray(vael_rem_parser *p, vael_rem_lexer_handler *table) : p_(p), saved_(p->lexer_array) {
        p->lexer_array = table;
    }
    ~ScopedLexerArray() { p_->lexer_array = saved_; }
    ScopedLexerArray(const ScopedLexerArray &) = delete;
    ScopedLexerArray &operator=(const ScopedLexerArray &) = delete;

  private:
    vael_rem_parser *p_;
    vael_rem_lexer_handler *saved_;
};

// Tokens held by a handler, destroyed on every road that does not hand them on.
struct HeldToken {
    vael_rem_token *t = nullptr;
    HeldToken() = default;
    explicit HeldToken(vael_rem_token *token) : t(token) {}
    HeldToken(const HeldToken &) = delete;
    HeldToken &operator=(const HeldToken &) = delete;
    ~HeldToken() { reset(); }
    void reset(vael_rem_token *token = nullptr) {
        if (t)
            vael_rem_token_destroy(t, "vael_rem_tokenize_brackets");
        t = token;
    }
    vael_rem_token *release() {
        vael_rem_token *r = t;
        t = nullptr;
        return r;
    }
    uint32_t class_() const { return t->class_->class_; }
};

}  // namespace

// ---------------------------------------------------------------- tables

vael_rem_lexer_handler vael_rem_default_lexer_array[256];
vael_rem_lexer_handler vael_rem_lexer_bracket_array[256];
vael_rem_lexer_handler vael_rem_lexer_escape_array[256];

namespace {
const vael_rem_lexer_entry kDefaultEntries[] = {
    {'(', vael_rem_tokenize_open_paren}, {')', vael_rem_tokenize_close_paren}, {'|', vael_rem_tokenize_alternate},
    {'*', vael_rem_tokenize_kleene},     {'.', vael_rem_tokenize_dot},         {'\\', vael_rem_tokenize_backslash},
    {'[', vael_rem_tokenize_brackets},   {'{', vael_rem_tokenize_braces},      {'?', vael_rem_tokenize_questionmark},
    {'+', vael_rem_tokenize_plus},
};
const vael_rem_lexer_entry kBracketEntries[] = {
    {']', vael_rem_tokenize_close_bracket},
    {'-', vael_rem_tokenize_hyphen},
    {'\\', vael_rem_tokenize_backslash},
};
const vael_rem_lexer_entry kEscapeEntries[] = {
    {'0', vael_rem_tokenize_octa},
    {'1', vael_rem_tokenize_octa},
    {'2', vael_rem_tokenize_octa},
    {'3', vael_rem_tokenize_octa},
    {'4', vael_rem_tokenize_octa},
    {'5', vael_rem_tokenize_octa},
    {'6', vael_rem_tokenize_octa},
    {'7', vael_rem_tokenize_octa},
    {'x', vael_rem_tokenize_hexa},
    {'a', vael_rem_tokenize_unprintable},
    {'f', vael_rem_tokenize_unprintable},
    {'e', vael_rem_tokenize_unprintable},
    {'n', vael_rem_tokenize_unprintable},
    {'r', vael_rem_tokenize_unprintable},
    {'t', vael_rem_tokenize_unprintable},
    {'d', vael_rem_tokenize_char_generic_type},
    {'D', vael_rem_tokenize_char_generic_type},
    {'w', vael_rem_tokenize_char_generic_type},
    {'W', vael_rem_tokenize_char_generic_type},
    {'s', vael_rem_tokenize_char_generic_type},
    {'S', vael_rem_tokenize_char_generic_type},
    {'c', vael_rem_tokenize_control_char},
};

template <size_t N>
constexpr uint32_t count(const vael_rem_lexer_entry (&)[N]) {
    return (uint32_t)N;
}

// The escape table's description carries the bracket table's name.
const vael_rem_lexer_desc kDefaultLexer = {"default_lexer_array", vael_rem_tokenize_simple_char,
                                           count(kDefaultEntries), kDefaultEntries};
const vael_rem_lexer_desc kBracketLexer = {"bracket_lexer_array", vael_rem_tokenize_simple_char,
                                           count(kBracketEntries), kBracketEntries};
const vael_rem_lexer_desc kEscapeLexer = {"bracket_lexer_array", vael_rem_tokenize_simple_backslash_char,
                                          count(kEscapeEntries), kEscapeEntries};
}  // namespace

extern "C" void vael_rem_range_destroy(uintptr_t range) {
    vael_pmglob_range_destroy(reinterpret_cast<vael_pmglob_range *>(range));
}

const vael_rem_token_class vael_rem_token_class_array_default[VAEL_REM_NUM_CLASSES] = {
    {0, "OPERAND", -1, VAEL_REM_KIND_OPERAND, vael_rem_syntax_handle_operand, nullptr, 0, nullptr},
    {1, "CHAR OPERAND", -1, VAEL_REM_KIND_OPERAND, vael_rem_syntax_dummy, nullptr, 0, nullptr},
    {2, "RANGE OPERAND", -1, VAEL_REM_KIND_OPERAND, vael_rem_syntax_dummy, nullptr, 0, vael_rem_range_destroy},
    {3, "OPEN_PAREN", 0, VAEL_REM_KIND_OPEN, vael_rem_syntax_handle_open_paren, nullptr, 0, nullptr},
    {4, "CLOSE_PAREN", -1, VAEL_REM_KIND_CLOSE, vael_rem_syntax_handle_close_paren, nullptr, 0, nullptr},
    {5, "ALTERNATE", 100, VAEL_REM_KIND_INFIX, vael_rem_syntax_handle_operator, vael_rem_operator_eval_dummy, 2,
     nullptr},
    {6, "CONCAT", 200, VAEL_REM_KIND_INFIX, vael_rem_syntax_handle_operator, vael_rem_operator_eval_dummy, 2,
     nullptr},
    {7, "KLEENE (*)", 300, VAEL_REM_KIND_CLOSE, vael_rem_syntax_handle_operator, vael_rem_operator_eval_dummy, 1,
     nullptr},
    {8, "HYPHEN (range in [])", -1, VAEL_REM_KIND_INFIX, vael_rem_syntax_handle_operator, nullptr, 0, nullptr},
    {9, "CLOSE_BRACKET", 0, VAEL_REM_KIND_CLOSE, vael_rem_syntax_handle_open_paren, nullptr, 0, nullptr},
    {10, "UNARY QUANTIFIER", 300, VAEL_REM_KIND_CLOSE, vael_rem_syntax_handle_operator,
     vael_rem_operator_eval_dummy, 1, nullptr},
    {11, "BINARY QUANTIFIER", 300, VAEL_REM_KIND_CLOSE, vael_rem_syntax_handle_operator,
     vael_rem_operator_eval_dummy, 1, nullptr},
    {12, "MIN QUANTIFIER", 300, VAEL_REM_KIND_CLOSE, vael_rem_syntax_handle_operator,
     vael_rem_operator_eval_dummy, 1, nullptr},
};

extern "C" void vael_rem_lexer_array_init(const vael_rem_lexer_desc *desc, vael_rem_lexer_handler *table) {
    for (int c = 0; c < 256; c++)
        table[c] = desc->default_handler;
    for (uint32_t i = 0; i < desc->num_of_entries; i++)
        table[desc->entries[i].c] = desc->entries[i].handler;
}

extern "C" int vael_rem_parser_init(void) {
    if (g_parser_refcount++ == 0) {
        vael_rem_lexer_array_init(&kDefaultLexer, vael_rem_default_lexer_array);
        vael_rem_lexer_array_init(&kBracketLexer, vael_rem_lexer_bracket_array);
        vael_rem_lexer_array_init(&kEscapeLexer, vael_rem_lexer_escape_array);
    }
    return VAEL_OK;
}

// The tables stay filled: a fini never leaves a half-usable lexer behind.
extern "C" void vael_rem_parser_fini(void) {
    if (g_parser_refcount > 0)
        g_parser_refcount--;
}

// ---------------------------------------------------------------- tokens

extern "C" vael_rem_token *vael_rem_token_create_2_extra_datas(vael_rem_parser *parser, uint32_t class_,
                                                               uintptr_t extra, uintptr_t extra2) {
    if (class_ >= VAEL_REM_NUM_CLASSES) {
        VAEL_LOG(VAEL_DBG_ERR, "K_REM | K_ERROR", "%s: illegal token class %u\n", class_);
        return nullptr;
    }
    auto *t = static_cast<vael_rem_token *>(VAEL_KMALLOC(sizeof(vael_rem_token)));
    if (!t) {
        set_error(parser, VAEL_PM_ERROR_INTERNAL, kNoMemory);
        return nullptr;
    }
    t->flags = 0;
    t->class_ = &parser->token_classes[class_];
    t->extra_data = extra;
    t->extra_data2 = extra2;
    return t;
}

extern "C" vael_rem_token *vael_rem_token_create(vael_rem_parser *parser, uint32_t class_, uintptr_t extra) {
    return vael_rem_token_create_2_extra_datas(parser, class_, extra, 0);
}

extern "C" int vael_rem_token_set(vael_rem_parser *parser, vael_rem_token *token, uint32_t class_,
                                  uintptr_t extra) {
    if (!token || class_ >= VAEL_REM_NUM_CLASSES)
        return VAEL_ERROR;
    token->class_ = &parser->token_classes[class_];
    token->extra_data = extra;
    return VAEL_OK;
}

extern "C" void vael_rem_token_dont_free_extra_data(vael_rem_token *token) {
    if (token)
        token->flags |= VAEL_REM_TOKEN_KEEP_EXTRA;
}

extern "C" void vael_rem_token_destroy(vael_rem_token *token, const char *caller) {
    if (!token) {
        VAEL_LOG(VAEL_DBG_INFO, "K_REM", "%s: null token from %s\n", caller ? caller : "?");
        return;
    }
    if (token->class_->destroy_extra_data && !(token->flags & VAEL_REM_TOKEN_KEEP_EXTRA))
        token->class_->destroy_extra_data(token->extra_data);
    VAEL_KFREE(token, sizeof *token);
}

extern "C" void vael_rem_token_destroy_in_stack(uintptr_t value) {
    auto *token = reinterpret_cast<vael_rem_token *>(value);
    if (!token)
        return;
    if (token->class_->destroy_extra_data)
        token->class_->destroy_extra_data(token->extra_data);
    VAEL_KFREE(token, sizeof *token);
}

// ---------------------------------------------------------------- cursor

extern "C" uint32_t vael_rem_parser_char_size(const vael_rem_parser *parser, unsigned char first_byte) {
    if (!utf8_mode(parser) || first_byte < 0xC0)
        return 1;
    if (first_byte < 0xE0)
        return 2;
    return first_byte < 0xF0 ? 3 : 4;
}

extern "C" const unsigned char *vael_rem_parser_glimpse_current_char(const vael_rem_parser *parser) {
    return parser->chars_left < 1 ? nullptr : parser->cur;
}

// Moves past the character without a bound: a UTF-8 sequence cut by the end
// of the input leaves chars_left below 0, and every later read sees the end.
extern "C" const unsigned char *vael_rem_parser_get_current_char(vael_rem_parser *parser) {
    const unsigned char *c = vael_rem_parser_glimpse_current_char(parser);
    if (!c)
        return nullptr;
    uint32_t size = vael_rem_parser_char_size(parser, *c);
    parser->chars_left -= size;
    parser->cur = parser->chars_left > 0 ? parser->cur + size : parser->buf + parser->size;
    return c;
}

extern "C" int vael_rem_parser_has_more_chars(const vael_rem_parser *parser) { return parser->chars_left > 0; }

extern "C" uint32_t vael_rem_parser_consumed(const vael_rem_parser *parser) {
    if (parser->chars_left <= 0)
        return parser->size;
    return parser->size - (uint32_t)parser->chars_left;
}

extern "C" int vael_rem_parser_validate_cur(const vael_rem_parser *parser, const unsigned char *c) {
    if (!utf8_mode(parser))
        return VAEL_OK;
    uint32_t size = vael_rem_parser_char_size(parser, *c);
    // A sequence cut by the end of the input is never read past it.
    int64_t available = (parser->buf + parser->size) - c;
    bool ok = (int64_t)size <= available;
    for (uint32_t i = 1; ok && i < size; i++)
        ok = (c[i] & 0xC0) == 0x80;
    if (ok) {
        uint32_t v = decode_char(parser, c);
        switch (size) {
        case 1:
            ok = *c <= 0x7F;
            break;
        case 2:
            ok = (*c & 0xE0) == 0xC0 && v >= 0x80 && v <= 0x7FF;
            break;
        case 3:
            ok = (*c & 0xF0) == 0xE0 && v >= 0x800 && v <= 0xFFFF;
            break;
        default:
            ok = (*c & 0xF8) == 0xF0 && v >= 0x10000 && v <= 0x10FFFF;
            break;
        }
    }
    if (!ok) {
        VAEL_LOG(VAEL_DBG_ERR, "K_REM", "%s: illegal utf-8 character\n");
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" int vael_rem_parser_verify_char(vael_rem_parser *parser, const unsigned char *c, const char *allowed,
                                           const char *func, uint32_t error_type) {
    // Type 1: the handler checks the character that chose it, which cannot fail.
    if (!c) {
        if (error_type == VAEL_PM_ERROR_INTERNAL && qx_assert_on)
            VAEL_ASSERT(0, "internal error: Unexpected end of pattern");
        set_error(parser, error_type, kUnexpectedEnd);
        return VAEL_ERROR;
    }
    if (vael_rem_parser_validate_cur(parser, c) != 0) {
        VAEL_LOG_AS(func, VAEL_DBG_ERR, "K_REM", "%s: illegal character\n");
        return VAEL_ERROR;
    }
    if (allowed && (*c == '\0' || !std::strchr(allowed, *c))) {
        if (error_type == VAEL_PM_ERROR_INTERNAL && qx_assert_on)
            VAEL_ASSERT(0, "internal error: unexpected character");
        set_error(parser, error_type, kUnexpectedChar);
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" void vael_rem_parser_set_lexer_array(vael_rem_parser *parser, vael_rem_lexer_handler *lexer_array) {
    parser->lexer_array = lexer_array;
}

extern "C" vael_rem_token *vael_rem_parser_get_next_token(vael_rem_parser *parser) {
    const unsigned char *c = vael_rem_parser_glimpse_current_char(parser);
    if (vael_rem_parser_verify_char(parser, c, nullptr, __func__, VAEL_PM_ERROR_ILLEGAL) != 0)
        return nullptr;
    vael_rem_lexer_handler handler = parser->lexer_array[*c];
    if (!handler) {
        VAEL_ASSERT(0, "REM lexer tables are not initialized");
        return nullptr;
    }
    return handler(parser);
}

extern "C" void vael_rem_parser_set_input(vael_rem_parser *parser, const unsigned char *buf, uint32_t size,
                                          vael_pm_error *err) {
    parser->buf = buf;
    parser->size = buf ? size : 0;
    parser->cur = buf;
    parser->chars_left = parser->size;
    parser->error = err;
}

// ---------------------------------------------------------------- handlers

vael_rem_token *vael_rem_tokenize_simple_char(vael_rem_parser *parser) {
    const unsigned char *c = vael_rem_parser_get_current_char(parser);
    if (vael_rem_parser_verify_char(parser, c, nullptr, __func__, VAEL_PM_ERROR_INTERNAL) != 0)
        return nullptr;
    return vael_rem_tokenize_one_char_only(parser, decode_char(parser, c));
}

vael_rem_token *vael_rem_tokenize_simple_backslash_char(vael_rem_parser *parser) {
    const unsigned char *c = vael_rem_parser_get_current_char(parser);
    if (vael_rem_parser_verify_char(parser, c, nullptr, __func__, VAEL_PM_ERROR_INTERNAL) != 0)
        return nullptr;
    uint32_t value = decode_char(parser, c);
    vael_rem_token *t = new_range_token(parser);
    if (!t)
        return nullptr;
    if (vael_pmglob_range_add_simple_backslash(range_of(t), value, value, parser->error) != 0) {
        vael_rem_token_destroy(t, __func__);
        return nullptr;
    }
    return t;
}

// In UTF-8 mode a paren is carried through as text by the UTF-8 simplifier.
vael_rem_token *vael_rem_tokenize_open_paren(vael_rem_parser *parser) {
    if (utf8_mode(parser))
        return vael_rem_tokenize_simple_char(parser);
    return single_char_operator(parser, VAEL_REM_CLASS_OPEN_PAREN);
}

vael_rem_token *vael_rem_tokenize_close_paren(vael_rem_parser *parser) {
    if (utf8_mode(parser))
        return vael_rem_tokenize_simple_char(parser);
    return single_char_operator(parser, VAEL_REM_CLASS_CLOSE_PAREN);
}

vael_rem_token *vael_rem_tokenize_alternate(vael_rem_parser *parser) {
    return single_char_operator(parser, VAEL_REM_CLASS_ALTERNATE);
}

vael_rem_token *vael_rem_tokenize_kleene(vael_rem_parser *parser) {
    return single_char_operator(parser, VAEL_REM_CLASS_KLEENE);
}

vael_rem_token *vael_rem_tokenize_hyphen(vael_rem_parser *parser) {
    return single_char_operator(parser, VAEL_REM_CLASS_HYPHEN);
}

vael_rem_token *vael_rem_tokenize_close_bracket(vael_rem_parser *parser) {
    return single_char_operator(parser, VAEL_REM_CLASS_CLOSE_BRACKET);
}

vael_rem_token *vael_rem_tokenize_questionmark(vael_rem_parser *parser) {
    vael_rem_parser_get_current_char(parser);
    return vael_rem_token_create_2_extra_datas(parser, VAEL_REM_CLASS_BINARY_QUANT, 0, 1);
}

vael_rem_token *vael_rem_tokenize_plus(vael_rem_parser *parser) {
    vael_rem_parser_get_current_char(parser);
    return vael_rem_token_create(parser, VAEL_REM_CLASS_MIN_QUANT, 1);
}

vael_rem_token *vael_rem_tokenize_dot(vael_rem_parser *parser) {
    vael_rem_parser_get_current_char(parser);
    vael_rem_token *t = new_range_token(parser);
    if (!t)
        return nullptr;
    vael_pmglob_range *range = range_of(t);
    bool ok = vael_pmglob_range_add_range(range, 0, VAEL_PMUTF8_MAX_CODE_POINT, 1, parser->error) == 0;
    // Each line-end character closes its own exclusion: with "\r\n" in UTF-8
    // mode the second one starts over on an empty text, leaving LF out only.
    for (const char *e = parser->line_end; ok && !(parser->flags & kDotAllFlag) && *e; e++)
        ok = vael_pmglob_range_add_range(range, (unsigned char)*e, (unsigned char)*e, 0, parser->error) == 0 &&
             vael_pmglob_range_handle_logical_range(range, parser->error) == 0;
    if (!ok) {
        vael_rem_token_destroy(t, __func__);
        return nullptr;
    }
    return t;
}

vael_rem_token *vael_rem_tokenize_backslash(vael_rem_parser *parser) {
    vael_rem_parser_get_current_char(parser);
    ScopedLexerArray escape(parser, vael_rem_lexer_escape_array);
    return vael_rem_parser_get_next_token(parser);
}

vael_rem_token *vael_rem_tokenize_braces(vael_rem_parser *parser) {
    vael_rem_parser_get_current_char(parser);
    // Counts add up in 32 bits and wrap without a check; they are counts of
    // repetitions that later parts bound.
    auto read_number = [parser](uint32_t &value) {
        int digits = 0;
        value = 0;
        for (const unsigned char *c; (c = vael_rem_parser_glimpse_current_char(parser)) && is_digit(*c); digits++) {
            vael_rem_parser_get_current_char(parser);
            value = value * 10u + (uint32_t)(*c - '0');
        }
        return digits;
    };
    uint32_t min = 0, max = 0;
    if (read_number(min) == 0) {
        set_error(parser, VAEL_PM_ERROR_ILLEGAL,
                  "Illegal sequence beginning with '{': '{' must be followed by a digit");
        return nullptr;
    }
    const unsigned char *c = vael_rem_parser_glimpse_current_char(parser);
    if (vael_rem_parser_verify_char(parser, c, "},", __func__, VAEL_PM_ERROR_ILLEGAL) != 0) {
        set_error(parser, VAEL_PM_ERROR_ILLEGAL, "illegal sequence beginning with '{' - expected '}'");
        return nullptr;
    }
    vael_rem_parser_get_current_char(parser);
    if (*c == '}')
        return vael_rem_token_create(parser, VAEL_REM_CLASS_UNARY_QUANT, min);
    bool has_max = read_number(max) != 0;
    c = vael_rem_parser_glimpse_current_char(parser);
    if (vael_rem_parser_verify_char(parser, c, "}", __func__, VAEL_PM_ERROR_ILLEGAL) != 0) {
        set_error(parser, VAEL_PM_ERROR_ILLEGAL, "illegal sequence beginning with {number,");
        return nullptr;
    }
    vael_rem_parser_get_current_char(parser);
    if (!has_max)
        return vael_rem_token_create(parser, VAEL_REM_CLASS_MIN_QUANT, min);
    if (max == min)
        return vael_rem_token_create(parser, VAEL_REM_CLASS_UNARY_QUANT, min);
    if (max < min) {
        set_error(parser, VAEL_PM_ERROR_ILLEGAL, "illegal parameters in {min,max}: min > max");
        return nullptr;
    }
    return vael_rem_token_create_2_extra_datas(parser, VAEL_REM_CLASS_BINARY_QUANT, min, max);
}

vael_rem_token *vael_rem_tokenize_octa(vael_rem_parser *parser) {
    const unsigned char *c = vael_rem_parser_get_current_char(parser);
    if (vael_rem_parser_verify_char(parser, c, "01234567", __func__, VAEL_PM_ERROR_INTERNAL) != 0)
        return nullptr;
    uint32_t value = (uint32_t)(*c - '0');
    for (int i = 1; i < 3 && (c = vael_rem_parser_glimpse_current_char(parser)) && is_octal(*c); i++) {
        vael_rem_parser_get_current_char(parser);
        value = value * 8u + (uint32_t)(*c - '0');
    }
    if (value >= 256) {
        set_error(parser, VAEL_PM_ERROR_ILLEGAL, "illegal char: octal number larger than ALPHABET limit");
        return nullptr;
    }
    return vael_rem_tokenize_in_hexa_char_formant(parser, value);
}

vael_rem_token *vael_rem_tokenize_hexa(vael_rem_parser *parser) {
    vael_rem_parser_get_current_char(parser);
    const unsigned char *c = vael_rem_parser_glimpse_current_char(parser);
    if (!c) {
        vael_rem_parser_verify_char(parser, c, nullptr, __func__, VAEL_PM_ERROR_ILLEGAL);
        return nullptr;
    }
    const bool braced = *c == '{';
    if (braced)
        vael_rem_parser_get_current_char(parser);
    const uint32_t limit = utf8_mode(parser) ? VAEL_PMUTF8_MAX_CODE_POINT : 255;
    // Unbounded digits saturate above every limit instead of wrapping.
    uint32_t value = 0;
    for (int digits = 0; (braced || digits < 2) && (c = vael_rem_parser_glimpse_current_char(parser)) && is_xdigit(*c);
         digits++) {
        vael_rem_parser_get_current_char(parser);
        value = value > VAEL_PMUTF8_MAX_CODE_POINT ? value : value * 16u + hex_value(*c);
    }
    if (braced) {
        c = vael_rem_parser_glimpse_current_char(parser);
        if (vael_rem_parser_verify_char(parser, c, "}", __func__, VAEL_PM_ERROR_ILLEGAL) != 0) {
            set_error(parser, VAEL_PM_ERROR_ILLEGAL, "could not locate '}' after '{'");
            return nullptr;
        }
        vael_rem_parser_get_current_char(parser);
    }
    if (value > limit) {
        set_error(parser, VAEL_PM_ERROR_ILLEGAL, "hexa number larger than ALPHABET limit");
        return nullptr;
    }
    return vael_rem_tokenize_in_hexa_char_formant(parser, value);
}

vael_rem_token *vael_rem_tokenize_unprintable(vael_rem_parser *parser) {
    const unsigned char *c = vael_rem_parser_get_current_char(parser);
    if (vael_rem_parser_verify_char(parser, c, nullptr, __func__, VAEL_PM_ERROR_INTERNAL) != 0)
        return nullptr;
    uint32_t value;
    switch (*c) {
    case 'a': value = 7; break;
    case 'e': value = 27; break;
    case 'f': value = 12; break;
    case 'n': value = 10; break;
    case 'r': value = 13; break;
    case 't': value = 9; break;
    default:
        VAEL_LOG(VAEL_DBG_ERR, "K_REM | K_ERROR", "%s: Illegal unprintable character: %u (%c)\n", (unsigned)*c, *c);
        return nullptr;
    }
    return vael_rem_tokenize_one_char_only(parser, value);
}

vael_rem_token *vael_rem_tokenize_char_generic_type(vael_rem_parser *parser) {
    struct Span {
        uint32_t first, last;
    };
    static const Span kDigits[] = {{'0', '9'}};
    static const Span kWord[] = {{'a', 'z'}, {'A', 'Z'}, {'0', '9'}, {'_', '_'}};
    // Vertical tab (11) is in neither set of spaces, so \S admits it.
    static const Span kSpace[] = {{9, 10}, {12, 13}, {0x20, 0x20}};
    const unsigned char *c = vael_rem_parser_get_current_char(parser);
    if (vael_rem_parser_verify_char(parser, c, nullptr, __func__, VAEL_PM_ERROR_INTERNAL) != 0)
        return nullptr;
    const Span *spans;
    size_t n;
    switch (to_lower(*c)) {
    case 'd': spans = kDigits, n = 1; break;
    case 'w': spans = kWord, n = 4; break;
    case 's': spans = kSpace, n = 3; break;
    default:
        VAEL_LOG(VAEL_DBG_ERR, "K_REM | K_ERROR", "%s: Unknown character generic type:%u(%c)\n", (unsigned)*c, *c);
        return nullptr;
    }
    const bool complement = is_upper(*c);
    vael_rem_token *t = new_range_token(parser);
    if (!t)
        return nullptr;
    vael_pmglob_range *range = range_of(t);
    bool ok = !complement || vael_pmglob_range_add_range(range, 0, VAEL_PMUTF8_MAX_CODE_POINT, 1, parser->error) == 0;
    for (size_t i = 0; ok && i < n; i++)
        ok = vael_pmglob_range_add_range(range, spans[i].first, spans[i].last, complement ? 0 : 1, parser->error) == 0;
    if (!ok || vael_pmglob_range_handle_logical_range(range, parser->error) != 0) {
        vael_rem_token_destroy(t, __func__);
        return nullptr;
    }
    return t;
}

vael_rem_token *vael_rem_tokenize_control_char(vael_rem_parser *parser) {
    vael_rem_parser_get_current_char(parser);
    const unsigned char *c = vael_rem_parser_get_current_char(parser);
    if (!c) {
        vael_rem_parser_verify_char(parser, c, nullptr, __func__, VAEL_PM_ERROR_ILLEGAL);
        return nullptr;
    }
    if (vael_rem_parser_char_size(parser, *c) > 1) {
        VAEL_LOG(VAEL_DBG_ERR, "K_REM",
                 "%s: Control character followed by a UTF-8 character that is longer then 1 byte is not "
                 "supported: %u (%c)\n",
                 (unsigned)*c, *c);
        return nullptr;
    }
    return vael_rem_tokenize_in_hexa_char_formant(parser, (uint32_t)(to_upper(*c) ^ 0x40u) & 0xFFu);
}

namespace {
// left - right inside brackets: both single characters.
int vael_rem_handle_hyphen(vael_rem_parser *parser, vael_rem_token *result, vael_rem_token *left,
                           vael_rem_token *right, int positive) {
    if (left->class_->class_ != VAEL_REM_CLASS_RANGE_OPERAND || right->class_->class_ != VAEL_REM_CLASS_RANGE_OPERAND ||
        !vael_pmglob_range_is_single(range_of(left)) || !vael_pmglob_range_is_single(range_of(right))) {
        set_error(parser, VAEL_PM_ERROR_ILLEGAL, "Illegal use of '-' inside brackets");
        return VAEL_ERROR;
    }
    return vael_pmglob_range_add_hexa_range(range_of(result), vael_pmglob_range_get_first(range_of(left)),
                                            vael_pmglob_range_get_first(range_of(right)), positive, parser->error);
}
}  // namespace

vael_rem_token *vael_rem_tokenize_brackets(vael_rem_parser *parser) {
    ScopedLexerArray brackets(parser, vael_rem_lexer_bracket_array);
    HeldToken result(new_range_token(parser));
    if (!result.t)
        return nullptr;
    vael_rem_parser_get_current_char(parser);
    const unsigned char *c = vael_rem_parser_glimpse_current_char(parser);
    if (!c) {
        vael_rem_parser_verify_char(parser, c, nullptr, __func__, VAEL_PM_ERROR_ILLEGAL);
        return nullptr;
    }
    int positive = 1;
    if (*c == '^') {
        vael_pmglob_range_negate(range_of(result.t));
        positive = 0;
        vael_rem_parser_get_current_char(parser);
    }
    // A null slot means the fetch failed and has set its words already.
    HeldToken left(vael_rem_parser_get_next_token(parser));
    if (positive && left.t && left.class_() == VAEL_REM_CLASS_CLOSE_BRACKET) {
        set_error(parser, VAEL_PM_ERROR_ILLEGAL, kEmptyBrackets);
        return nullptr;
    }
    while (vael_rem_parser_has_more_chars(parser)) {
        if (!left.t)
            return nullptr;
        if (left.class_() == VAEL_REM_CLASS_CLOSE_BRACKET)
            break;
        if (left.class_() != VAEL_REM_CLASS_RANGE_OPERAND) {
            set_error(parser, VAEL_PM_ERROR_ILLEGAL, "Illegal sequence inside brackets");
            return nullptr;
        }
        HeldToken middle(vael_rem_parser_get_next_token(parser));
        if (!middle.t)
            return nullptr;
        if (middle.class_() == VAEL_REM_CLASS_HYPHEN) {
            HeldToken right(vael_rem_parser_get_next_token(parser));
            if (!right.t ||
                vael_rem_handle_hyphen(parser, result.t, left.t, right.t, positive) != 0)
                return nullptr;
            left.reset(vael_rem_parser_get_next_token(parser));
            if (!left.t)
                return nullptr;
        } else {
            if (vael_pmglob_range_merge(range_of(left.t), range_of(result.t), positive) != 0) {
                // Only the UTF-8 text can fail here: out of memory or past its limit.
                set_error(parser, VAEL_PM_ERROR_INTERNAL, kNoMemory);
                return nullptr;
            }
            left.reset(middle.release());
        }
    }
    if (!left.t)
        return nullptr;
    if (left.class_() != VAEL_REM_CLASS_CLOSE_BRACKET) {
        set_error(parser, VAEL_PM_ERROR_ILLEGAL, "Could not find closing bracket ']'");
        return nullptr;
    }
    if (vael_pmglob_range_handle_logical_range(range_of(result.t), parser->error) != 0) {
        // "[^]" in UTF-8 mode: negated with nothing excluded, which the range
        // refuses without words; the pattern is told why.
        set_error(parser, VAEL_PM_ERROR_ILLEGAL, kEmptyBrackets);
        return nullptr;
    }
    return result.release();
}

// ---------------------------------------------------------------- parser record

extern "C" vael_rem_parser *vael_rem_parser_create(vael_rem_lexer_handler *lexer_array,
                                                   const vael_rem_token_class *classes, void *client_data,
                                                   uint32_t flags, vael_rem_implicit_operand_fn implicit_operand,
                                                   vael_rem_range_to_operand_fn range_to_operand) {
    if (!lexer_array || !classes || !lexer_array[0]) {
        VAEL_LOG(VAEL_DBG_ERR, "K_REM | K_ERROR", "%s: no lexer table or class array (was the parser initialized?)\n");
        return nullptr;
    }
    auto *p = static_cast<vael_rem_parser *>(VAEL_KMALLOC(sizeof(vael_rem_parser)));
    if (!p)
        return nullptr;
    std::memset(p, 0, sizeof *p);
    p->operands = vael_stack_create(vael_rem_token_destroy_in_stack);
    p->operators = vael_stack_create(vael_rem_token_destroy_in_stack);
    if (!p->operands || !p->operators) {
        vael_stack_cleanup(p->operands);
        vael_stack_cleanup(p->operators);
        VAEL_KFREE(p, sizeof *p);
        return nullptr;
    }
    p->flags = flags;
    p->client_data = client_data;
    p->lexer_array = lexer_array;
    p->token_classes = classes;
    p->implicit_operand = implicit_operand;
    p->range_to_operand = range_to_operand;
    if (flags & (kLineEndCrOrLf | kLineEndCrLf))
        p->line_end = "\r\n";
    else if (flags & kLineEndCr)
        p->line_end = "\r";
    else
        p->line_end = "\n";
    return p;
}

extern "C" void vael_rem_parser_destroy(vael_rem_parser *parser) {
    if (!parser)
        return;
    vael_stack_cleanup(parser->operands);
    vael_stack_cleanup(parser->operators);
    VAEL_KFREE(parser, sizeof *parser);
}

extern "C" void *vael_rem_parser_get_client_data(const vael_rem_parser *parser) {
    return parser ? parser->client_data : nullptr;
}

extern "C" uint32_t vael_rem_parser_get_flags(const vael_rem_parser *parser) { return parser ? parser->flags : 0; }

extern "C" vael_pm_error *vael_rem_parser_get_error(const vael_rem_parser *parser) {
    return parser ? parser->error : nullptr;
}

// ---------------------------------------------------------------- evaluation

extern "C" int vael_rem_syntax_dummy(vael_rem_parser *parser, vael_rem_token *token) {
    VAEL_ASSERT(0, "This function should not be called");
    return VAEL_ERROR;
}

extern "C" vael_rem_token *vael_rem_operator_eval_dummy(vael_rem_token *op, vael_rem_parser *parser,
                                                        vael_rem_token *left, vael_rem_token *right) {
    VAEL_ASSERT(0, "using dummy eval");
    return nullptr;
}

namespace {
// A stack cell is an allocation like a token's, and fails with the same words.
int push(vael_rem_parser *parser, lst_list *stack, vael_rem_token *token) {
    if (vael_stack_push(stack, reinterpret_cast<uintptr_t>(token)) == 0)
        return VAEL_OK;
    set_error(parser, VAEL_PM_ERROR_INTERNAL, kNoMemory);
    return VAEL_ERROR;
}
}  // namespace

extern "C" int vael_rem_syntax_handle_operand(vael_rem_parser *parser, vael_rem_token *token) {
    return push(parser, parser->operands, token);
}

extern "C" int vael_rem_syntax_handle_open_paren(vael_rem_parser *parser, vael_rem_token *token) {
    return push(parser, parser->operators, token);
}

extern "C" int vael_rem_syntax_compare_precedence(int32_t a, int32_t b) {
    if (a == VAEL_REM_PRECEDENCE_ILLEGAL || b == VAEL_REM_PRECEDENCE_ILLEGAL) {
        VAEL_ASSERT(0, "vael_rem_syntax_compare_precedence called with precedence ILLEGAL");
        return VAEL_REM_COMPARE_ILLEGAL;
    }
    if (a == b)
        return 0;
    return a > b ? -1 : 1;
}

extern "C" int vael_rem_operator_eval(vael_rem_parser *parser, vael_rem_token *op) {
    if (!op) {
        VAEL_ASSERT(0, "vael_rem_operator_eval: called with NULL token\n");
        return VAEL_ERROR;
    }
    HeldToken held_op(op), left, right;
    const vael_rem_token_class *cls = op->class_;
    if (cls->num_of_operands > 2) {
        VAEL_ASSERT(0, "more than 2 operands");
        return VAEL_ERROR;
    }
    if (vael_stack_size(parser->operands) < (intptr_t)cls->num_of_operands) {
        set_error(parser, VAEL_PM_ERROR_ILLEGAL, "Not enough operands for the operator");
        return VAEL_ERROR;
    }
    if (!cls->eval)
        return VAEL_OK;
    if (cls->num_of_operands == 2)
        right.reset(reinterpret_cast<vael_rem_token *>(vael_stack_pop(parser->operands)));
    if (cls->num_of_operands >= 1)
        left.reset(reinterpret_cast<vael_rem_token *>(vael_stack_pop(parser->operands)));
    if ((cls->num_of_operands == 2 && !right.t) || (cls->num_of_operands >= 1 && !left.t))
        return VAEL_ERROR;
    vael_rem_token *result = cls->eval(op, parser, left.t, right.t);
    if (!result)
        return VAEL_ERROR;
    if (push(parser, parser->operands, result) != 0) {
        vael_rem_token_destroy(result, __func__);
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" int vael_rem_syntax_eval_operators(vael_rem_parser *parser) {
    while (vael_stack_size(parser->operators) > 0) {
        auto *top = reinterpret_cast<vael_rem_token *>(vael_stack_top(parser->operators));
        if (top->class_->class_ == VAEL_REM_CLASS_OPEN_PAREN)
            break;
        vael_stack_pop(parser->operators);
        if (vael_rem_operator_eval(parser, top) != 0)
            return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" int vael_rem_syntax_handle_close_paren(vael_rem_parser *parser, vael_rem_token *token) {
    if (vael_rem_syntax_eval_operators(parser) != 0)
        return VAEL_ERROR;
    if (vael_stack_size(parser->operators) == 0) {
        set_error(parser, VAEL_PM_ERROR_ILLEGAL, "Correlating '(' for ')' is missing");
        return VAEL_ERROR;
    }
    vael_rem_token_destroy(reinterpret_cast<vael_rem_token *>(vael_stack_pop(parser->operators)), __func__);
    vael_rem_token_destroy(token, __func__);
    return VAEL_OK;
}

// Equal precedence evaluates first: every operator is left associative, and
// a postfix operator waits on the stack until the next operator, a close
// paren or the end.
extern "C" int vael_rem_syntax_handle_operator(vael_rem_parser *parser, vael_rem_token *token) {
    while (vael_stack_size(parser->operators) > 0) {
        auto *top = reinterpret_cast<vael_rem_token *>(vael_stack_top(parser->operators));
        int cmp = vael_rem_syntax_compare_precedence(top->class_->precedence, token->class_->precedence);
        if (cmp == VAEL_REM_COMPARE_ILLEGAL)
            return VAEL_ERROR;
        if (cmp > 0)
            break;
        vael_stack_pop(parser->operators);
        if (vael_rem_operator_eval(parser, top) != 0)
            return VAEL_ERROR;
    }
    return push(parser, parser->operators, token);
}

extern "C" vael_rem_token *vael_rem_parser_need_implicit_token(vael_rem_parser *parser,
                                                               const vael_rem_token *token, int *needed) {
    *needed = 0;
    if (!parser->prev_class)
        return nullptr;
    const uint32_t prev = parser->prev_class->kind, now = token->class_->kind;
    if ((prev == VAEL_REM_KIND_CLOSE || prev == VAEL_REM_KIND_OPERAND) &&
        (now == VAEL_REM_KIND_OPEN || now == VAEL_REM_KIND_OPERAND)) {
        *needed = 1;
        return vael_rem_token_create(parser, VAEL_REM_CLASS_CONCAT, 0);
    }
    if ((prev == VAEL_REM_KIND_OPEN && (now == VAEL_REM_KIND_INFIX || now == VAEL_REM_KIND_CLOSE)) ||
        (prev == VAEL_REM_KIND_INFIX && now == VAEL_REM_KIND_CLOSE)) {
        *needed = 1;
        if (!parser->implicit_operand) {
            VAEL_ASSERT(0, "parser has no implicit operand maker");
            return nullptr;
        }
        return parser->implicit_operand(parser);
    }
    return nullptr;
}

extern "C" uintptr_t vael_rem_parse(vael_rem_parser *parser, const unsigned char *buf, uint32_t size,
                                    vael_pm_error *err) {
    if (!parser)
        return 0;
    vael_rem_parser_set_input(parser, buf, size, err);
    parser->prev_class = nullptr;
    uintptr_t result = 0;
    for (;;) {
        if (!vael_rem_parser_has_more_chars(parser)) {
            if (vael_rem_syntax_eval_operators(parser) != 0)
                break;
            if (vael_stack_size(parser->operators) > 0) {
                set_error(parser, VAEL_PM_ERROR_ILLEGAL, "Missing a closing ')'");
                break;
            }
            intptr_t left = vael_stack_size(parser->operands);
            if (left != 1) {
                VAEL_LOG(VAEL_DBG_ERR, "K_REM", "%s: operand stack size is %u instead of 1... Something is wrong...\n",
                         (unsigned)left);
                break;
            }
            auto *last = reinterpret_cast<vael_rem_token *>(vael_stack_pop(parser->operands));
            result = last->extra_data;
            vael_rem_token_dont_free_extra_data(last);
            vael_rem_token_destroy(last, __func__);
            break;
        }
        vael_rem_token *token = vael_rem_parser_get_next_token(parser);
        if (!token)
            break;
        if (token->class_->class_ == VAEL_REM_CLASS_RANGE_OPERAND) {
            if (!parser->range_to_operand) {
                VAEL_ASSERT(0, "parser has no range to operand maker");
                vael_rem_token_destroy(token, __func__);
                break;
            }
            // The maker owns the range token from here on.
            token = parser->range_to_operand(token, parser);
            if (!token)
                break;
        }
        int needed = 0;
        vael_rem_token *implicit = vael_rem_parser_need_implicit_token(parser, token, &needed);
        if (needed && (!implicit || implicit->class_->handle(parser, implicit) != 0)) {
            if (implicit)
                vael_rem_token_destroy(implicit, __func__);
            vael_rem_token_destroy(token, __func__);
            break;
        }
        parser->prev_class = token->class_;
        if (token->class_->handle(parser, token) != 0) {
            vael_rem_token_destroy(token, __func__);
            break;
        }
    }
    if (err)
        err->error_index = vael_rem_parser_consumed(parser);
    return result;
}

// ---------------------------------------------------------------- client class arrays

extern "C" const vael_rem_token_class *vael_rem_token_class_array_get_class(const vael_rem_token_class *classes,
                                                                            uint32_t class_) {
    for (int i = 0; i < VAEL_REM_NUM_CLASSES; i++)
        if (classes[i].class_ == class_)
            return &classes[i];
    VAEL_LOG(VAEL_DBG_ERR, "K_REM | K_ERROR", "%s: didn't find class %u\n", class_);
    return nullptr;
}

extern "C" const vael_rem_operator_conf *vael_rem_operator_conf_get(const vael_rem_operator_conf *conf,
                                                                    uint32_t class_) {
    for (int i = 0; i < VAEL_REM_NUM_CLASSES; i++)
        if (conf[i].class_ == class_ && conf[i].num_of_operands != 0)
            return &conf[i];
    VAEL_LOG(VAEL_DBG_ERR, "K_REM | K_ERROR", "%s: didn't find operator class %u\n", class_);
    return nullptr;
}

extern "C" int vael_rem_build_token_array(const vael_rem_token_class *classes, const vael_rem_operator_conf *conf,
                                          vael_rem_destroy_extra_fn destroy, vael_rem_token_class *out) {
    if (!classes || !conf || !out)
        return VAEL_ERROR;
    for (uint32_t c = 0; c < VAEL_REM_NUM_CLASSES; c++) {
        const vael_rem_token_class *src = vael_rem_token_class_array_get_class(classes, c);
        if (!src)
            return VAEL_ERROR;
        out[c] = *src;
        if (src->num_of_operands == 0)
            continue;
        const vael_rem_operator_conf *op = vael_rem_operator_conf_get(conf, c);
        if (!op)
            return VAEL_ERROR;
        if (op->num_of_operands != src->num_of_operands) {
            VAEL_LOG(VAEL_DBG_ERR, "K_REM | K_ERROR", "%s: ERROR in initializing: %s - %u operators instead of %u\n",
                     src->name, op->num_of_operands, src->num_of_operands);
            return VAEL_ERROR;
        }
        out[c].eval = op->eval;
    }
    out[VAEL_REM_CLASS_OPERAND].destroy_extra_data = destroy;
    return VAEL_OK;
}
