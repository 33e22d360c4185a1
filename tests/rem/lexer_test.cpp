// The REM lexer (token streams and refusals with their words and positions, absurd inputs, failures) and the
// parser, with a client that writes the tree as text ("cat(a,star(b))"). Character ranges against a 256-bit
// reference and an independent UTF-8 matcher; refusals, failures.
#include <gtest/gtest.h>

#include <bitset>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "pm/vael_pmglob_range.h"
#include "rem/vael_rem_parser.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/random_regex.h"
#include "tests/support/vael_test_support.h"

namespace {

class RemLexer : public testing::Test {
  protected:
    void SetUp() override { vael_rem_parser_init(); }
    void TearDown() override { vael_rem_parser_fini(); }
};

struct ParserDeleter {
    void operator()(vael_rem_parser *p) const { vael_rem_parser_destroy(p); }
};
using Parser = std::unique_ptr<vael_rem_parser, ParserDeleter>;

Parser make_parser(uint32_t flags) {
    return Parser(vael_rem_parser_create(vael_rem_default_lexer_array, vael_rem_token_class_array_default, nullptr,
                                         flags, nullptr, nullptr));
}

// A token in short: a class as <its printed form>, operators by their
// character, quantifiers by kind (U unary, B binary, M minimum) and counts.
std::string describe(const vael_rem_token &t) {
    switch (t.class_->class_) {
    case VAEL_REM_CLASS_RANGE_OPERAND: {
        char text[4096];
        vael_pmglob_range_print(reinterpret_cast<const vael_pmglob_range *>(t.extra_data), text, sizeof text);
        return "<" + std::string(text) + ">";
    }
    case VAEL_REM_CLASS_OPEN_PAREN: return "(";
    case VAEL_REM_CLASS_CLOSE_PAREN: return ")";
    case VAEL_REM_CLASS_ALTERNATE: return "|";
    case VAEL_REM_CLASS_KLEENE: return "*";
    case VAEL_REM_CLASS_UNARY_QUANT: return "U{" + std::to_string(t.extra_data) + "}";
    case VAEL_REM_CLASS_BINARY_QUANT:
        return "B{" + std::to_string(t.extra_data) + "," + std::to_string(t.extra_data2) + "}";
    case VAEL_REM_CLASS_MIN_QUANT: return "M{" + std::to_string(t.extra_data) + ",}";
    default: return std::string("?") + t.class_->name;
    }
}

struct Lexed {
    std::string tokens;        // described, divided by spaces
    bool refused = false;
    const char *error = nullptr;
    uint32_t type = 1;
    uint32_t index = 0;
};

// Lexes with a new parser; `quick` leaves the tokens undescribed.
Lexed lex(const std::string &pattern, uint32_t flags = 0, bool quick = false) {
    Lexed out;
    Parser own = make_parser(flags);
    vael_rem_parser *p = own.get();
    EXPECT_NE(p, nullptr);
    if (!p)
        return out;
    vael_pm_error err;
    vael_pm_error_init(&err);
    vael_rem_parser_set_input(p, reinterpret_cast<const unsigned char *>(pattern.data()), (uint32_t)pattern.size(),
                              &err);
    while (vael_rem_parser_has_more_chars(p)) {
        vael_rem_token *t = vael_rem_parser_get_next_token(p);
        if (!t) {
            out.refused = true;
            out.error = err.error_string;
            out.type = err.error_type;
            out.index = vael_rem_parser_consumed(p);
            break;
        }
        if (!quick)
            out.tokens += (out.tokens.empty() ? "" : " ") + describe(*t);
        vael_rem_token_destroy(t, "lex");
    }
    return out;
}

const char kNoWords[] = "(no words)";

struct Row {
    const char *pattern;
    uint32_t flags;
    const char *tokens;            // before a refusal, if any
    const char *error = nullptr;   // null: the pattern lexes
    uint32_t index = 0;
};

constexpr uint32_t kUtf8 = VAEL_PM_UTF8;
constexpr uint32_t kDotAll = 0x1;

// Every form of the byte language and of the UTF-8 mode: operators,
// quantifiers, plain characters, escapes and brackets, and every refusal
// with its words and position.
TEST_F(RemLexer, TokenStreamsAndRefusals) {
    // What the plain forms mean (letters, classes, the dot, groups and
    // quantifiers) is held against PCRE by the differential test.
    const Row rows[] = {
        {"a{2}b{2,2}c{2,3}d{2,}", 0, "<a> U{2} <b> U{2} <c> B{2,3} <d> M{2,}"},
        {"a{0}b{0,0}c{007,10}", 0, "<a> U{0} <b> U{0} <c> B{7,10}"},
        // Big counts are the later parts' to bound; past 32 bits they wrap.
        {"a{99999999}", 0, "<a> U{99999999}"}, {"a{4294967297}", 0, "<a> U{1}"},
        // '}', ']', '^', '$', ',' and '-' alone are plain.
        {"}]^$,-", 0, "<}> <]> <^> <$> <,> <->"}, {"\xff\x01", 0, "<\\xff> <\\x01>"},
        {".", 0, "<[\\x00-\\x09\\x0b-\\xff]>"}, {".", 0x8, "<[\\x00-\\x0c\\x0e-\\xff]>"},
        {".", 0x10, "<[\\x00-\\x09\\x0b\\x0c\\x0e-\\xff]>"},
        {"\\x41\\x{41}\\x414", 0, "<A> <A> <A> <4>"}, {"\\x{}\\xg", 0, "<\\x00> <\\x00> <g>"},
        {"\\x2a\\x7C", 0, "<\\*> <\\|>"},  // a character, never an operator
        {"\\377\\18\\0\\101", 0, "<\\xff> <\\x01> <8> <\\x00> <A>"},
        {"\\cA\\ca\\c[\\c?", 0, "<\\x01> <\\x01> <\\x1b> <\\x7f>"},
        {"\\a\\e\\f\\n\\r\\t", 0, "<\\x07> <\\x1b> <\\x0c> <\\x0a> <\\x0d> <\\x09>"},
        {"\\d\\D", 0, "<[0-9]> <[\\x00-/:-\\xff]>"}, {"\\w\\W", 0, "<[0-9A-Z_a-z]> <[\\x00-/:-@[-\\^`{-\\xff]>"},
        // Vertical tab is in neither set of spaces.
        {"\\s\\S", 0, "<[\\x09\\x0a\\x0c\\x0d ]> <[\\x00-\\x08\\x0b\\x0e-\\x1f!-\\xff]>"},
        {"\\.\\b\\A\\Q\\8\\\\\\(", 0, "<\\.> <b> <A> <Q> <8> <\\\\> <\\(>"}, {"[a-cx]", 0, "<[a-cx]>"},
        // A span in a negated bracket clears flags that were clear: it excludes nothing.
        {"[^a-c]", 0, "<[^]>"}, {"[^]", 0, "<[^]>"}, {"[\\d_]", 0, "<[0-9_]>"},
        {"[\\]\\-\\\\]", 0, "<[\\-\\\\\\]]>"}, {"[.*([{$]", 0, "<[$(*.[{]>"}, {"[\\n-\\r]", 0, "<[\\x0a-\\x0d]>"},
        {"[\\^_]", 0, "<[\\^_]>"},  // a '^' first in the printed class is escaped
        {"[a-a]", 0, "<a>"}, {"{", 0, "", "Illegal sequence beginning with '{': '{' must be followed by a digit", 1},
        {"a{x", 0, "<a>", "Illegal sequence beginning with '{': '{' must be followed by a digit", 2},
        {"a{,3}", 0, "<a>", "Illegal sequence beginning with '{': '{' must be followed by a digit", 2},
        {"a{2x", 0, "<a>", "unexpected character", 3}, {"a{2,3x", 0, "<a>", "unexpected character", 5},
        {"a{2", 0, "<a>", "Unexpected end of pattern", 3},
        {"a{3,2}", 0, "<a>", "illegal parameters in {min,max}: min > max", 6},
        {"\\400", 0, "", "illegal char: octal number larger than ALPHABET limit", 4},
        {"\\x{100}", 0, "", "hexa number larger than ALPHABET limit", 7},
        {"\\x{41x", 0, "", "unexpected character", 5}, {"\\x{41", 0, "", "Unexpected end of pattern", 5},
        {"\\x", 0, "", "Unexpected end of pattern", 2}, {"ab\\", 0, "<a> <b>", "Unexpected end of pattern", 3},
        {"[]", 0, "", "Empty sequence inside brackets", 2}, {"[a-]", 0, "", "Illegal use of '-' inside brackets", 4},
        {"[-a]", 0, "", "Illegal sequence inside brackets", 2},
        {"[a-b-c]", 0, "", "Illegal sequence inside brackets", 5},
        {"[\\d-z]", 0, "", "Illegal use of '-' inside brackets", 5},
        {"[a-\\d]", 0, "", "Illegal use of '-' inside brackets", 5},
        {"[z-a]", 0, "", "Illegal range inside brackets", 4},
        {"[abc", 0, "", "Could not find closing bracket ']'", 4}, {"[", 0, "", "Unexpected end of pattern", 1},
        {"[\\", 0, "", "Unexpected end of pattern", 2}, {"[a-", 0, "", "Unexpected end of pattern", 3},
        {"[\\400]", 0, "", "illegal char: octal number larger than ALPHABET limit", 5},
        {"[^]", kUtf8, "", "Empty sequence inside brackets", 3},
        {"\\x{110000}", kUtf8, "", "hexa number larger than ALPHABET limit", 10},
        {"\\x{414}", kUtf8, "<\\xd0\\x94>"}, {"\xd0\x94" "a", kUtf8, "<\\xd0\\x94> <a>"},
        {"(a)|b*", kUtf8, "<(> <a> <)> | <b> *"},
        // An escaped character is a backslash and the low byte of its code point.
        {"\\\xc3\xa9", kUtf8, "<\\\\xe9>"}, {"\\cA", kUtf8, "<\\x01>"},
        // Malformed UTF-8 is refused without words, at the character.
        {"\xff", kUtf8, "", kNoWords, 0}, {"a\xc3", kUtf8, "<a>", kNoWords, 1}, {"a\x80", kUtf8, "<a>", kNoWords, 1},
        {"\xc0\xaf", kUtf8, "", kNoWords, 0}, {"\xed\xa0", kUtf8, "", kNoWords, 0},
        {"\xf4\x90\x80\x80", kUtf8, "", kNoWords, 0}, {"[\xe0\x80\x80]", kUtf8, "", kNoWords, 1},
        {"\\c\xc3\xa9", kUtf8, "", kNoWords, 4},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.pattern);
        Lexed l = lex(row.pattern, row.flags);
        EXPECT_EQ(l.tokens, row.tokens);
        EXPECT_EQ(l.refused, row.error != nullptr);
        if (row.error && l.refused) {
            EXPECT_STREQ(l.error ? l.error : kNoWords, row.error);
            EXPECT_EQ(l.type, l.error ? (uint32_t)VAEL_PM_ERROR_ILLEGAL : l.type);
            EXPECT_EQ(l.index, row.index);
        }
    }
}

TEST_F(RemLexer, AbsurdInputsStayBounded) {
    // Small fresh texts: many class tokens must not each zero 4 KB.
    vael_test::ScopedGlobal size(vael_pm_utf8_range_buffer_size, 16);
    struct Row { std::string pattern; uint32_t flags; };
    for (const Row &row : {Row{std::string(1 << 20, '['), 0}, Row{std::string(1 << 16, '['), kUtf8}}) {
        Lexed l = lex(row.pattern, row.flags, true);
        EXPECT_STREQ(l.error, "Could not find closing bracket ']'");
        EXPECT_EQ(l.index, row.pattern.size());
    }
    // Past the UTF-8 text's limit a bracket is refused, not grown without end:
    // each \W adds some 300 bytes of text.
    std::string big = "[";
    for (int i = 0; i < 20000; i++)
        big += "\\W";
    big += "]";
    vael_test::LogCapture quiet;
    Lexed l = lex(big, kUtf8, true);
    EXPECT_TRUE(l.refused);
    EXPECT_STREQ(l.error, "REM parser failed to allocate memory");
    EXPECT_EQ(l.type, (uint32_t)VAEL_PM_ERROR_INTERNAL);
    EXPECT_LT(l.index, big.size());
    EXPECT_GT(l.index, 1000u);
}

TEST_F(RemLexer, AllocationFailuresEndInACleanRefusal) {
    vael_test::ScopedGlobal size(vael_pm_utf8_range_buffer_size, 16);
    struct Case { const char *pattern; uint32_t flags; };
    for (const Case &c : {Case{"a(b|c)*d{2,3}[^a-c\\d]x.\\w\\S\\x{41}\\cA\\101?+", 0},
                          Case{"[^ab]\\D.\xc3\xa9\\x{414}[a\\x{10000}-\\x{10FFFF}](x)\\W", kUtf8}}) {
        Parser p;
        vael_pm_error err;
        bool refused = false;
        auto attempt = [&] {
            vael_pm_error_init(&err);
            refused = false;
            p = make_parser(c.flags);
            if (!p)
                return false;
            vael_rem_parser_set_input(p.get(), reinterpret_cast<const unsigned char *>(c.pattern),
                                      (uint32_t)std::strlen(c.pattern), &err);
            while (vael_rem_parser_has_more_chars(p.get())) {
                vael_rem_token *t = vael_rem_parser_get_next_token(p.get());
                if (!t) {
                    refused = true;
                    p.reset();
                    return false;
                }
                vael_rem_token_destroy(t, "walk");
            }
            p.reset();
            return true;
        };
        auto clean = [&] {
            // A parser that could not be made, or a refusal that says so.
            return !refused || (err.error_type == VAEL_PM_ERROR_INTERNAL && err.error_string);
        };
        vael_test::FailmemWalk w = vael_test::failmem_walk_each_allocation(attempt, clean);
        EXPECT_GT(w.rounds, 20) << c.pattern;
    }
}

const char kNoMemory[] = "tree client: out of memory";

// A value is a NUL-ended text in the general account.
uintptr_t make_value(vael_rem_parser *parser, const std::string &text) {
    auto *p = static_cast<char *>(qx_kmalloc_ex_(text.size() + 1, "tree_value", 0, __FILE__, __LINE__));
    if (!p) {
        vael_pm_error_set_details(vael_rem_parser_get_error(parser), VAEL_PM_ERROR_INTERNAL, kNoMemory);
        return 0;
    }
    std::memcpy(p, text.c_str(), text.size() + 1);
    return reinterpret_cast<uintptr_t>(p);
}

void destroy_value(uintptr_t v) {
    auto *p = reinterpret_cast<char *>(v);
    if (p)
        qx_kfree_(p, std::strlen(p) + 1);
}

const char *text(const vael_rem_token *t) { return reinterpret_cast<const char *>(t->extra_data); }

vael_rem_token *operand(vael_rem_parser *parser, const std::string &s) {
    uintptr_t v = make_value(parser, s);
    if (!v)
        return nullptr;
    vael_rem_token *t = vael_rem_token_create(parser, VAEL_REM_CLASS_OPERAND, v);
    if (!t)
        destroy_value(v);
    return t;
}

vael_rem_token *eval_binary(vael_rem_token *op, vael_rem_parser *parser, vael_rem_token *l, vael_rem_token *r) {
    const char *name = op->class_->class_ == VAEL_REM_CLASS_ALTERNATE ? "alt" : "cat";
    return operand(parser, std::string(name) + "(" + text(l) + "," + text(r) + ")");
}

vael_rem_token *eval_unary(vael_rem_token *op, vael_rem_parser *parser, vael_rem_token *l, vael_rem_token *r) {
    EXPECT_EQ(r, nullptr);
    const uintptr_t n = op->extra_data, m = op->extra_data2;
    switch (op->class_->class_) {
    case VAEL_REM_CLASS_KLEENE:
        return operand(parser, std::string("star(") + text(l) + ")");
    case VAEL_REM_CLASS_UNARY_QUANT:
        if (n == 1) {
            // Takes the operand's value over instead of copying it.
            vael_rem_token_dont_free_extra_data(l);
            vael_rem_token *t = vael_rem_token_create(parser, VAEL_REM_CLASS_OPERAND, l->extra_data);
            if (!t)
                destroy_value(l->extra_data);
            return t;
        }
        return operand(parser, "rep{" + std::to_string(n) + "}(" + text(l) + ")");
    case VAEL_REM_CLASS_BINARY_QUANT:
        return operand(parser, "rep{" + std::to_string(n) + "," + std::to_string(m) + "}(" + text(l) + ")");
    default:
        return operand(parser, "rep{" + std::to_string(n) + ",}(" + text(l) + ")");
    }
}

vael_rem_token *empty_operand(vael_rem_parser *parser) { return operand(parser, "E"); }

vael_rem_token *range_operand(vael_rem_token *range_token, vael_rem_parser *parser) {
    char shown[256];
    vael_pmglob_range_print(reinterpret_cast<const vael_pmglob_range *>(range_token->extra_data), shown,
                            sizeof shown);
    vael_rem_token_destroy(range_token, __func__);
    return operand(parser, shown);
}

const vael_rem_operator_conf kConf[VAEL_REM_NUM_CLASSES] = {
    {VAEL_REM_CLASS_ALTERNATE, eval_binary, 2},   {VAEL_REM_CLASS_CONCAT, eval_binary, 2},
    {VAEL_REM_CLASS_KLEENE, eval_unary, 1},       {VAEL_REM_CLASS_UNARY_QUANT, eval_unary, 1},
    {VAEL_REM_CLASS_BINARY_QUANT, eval_unary, 1}, {VAEL_REM_CLASS_MIN_QUANT, eval_unary, 1},
};

class RemParser : public RemLexer {
  protected:
    void SetUp() override {
        RemLexer::SetUp();
        ASSERT_EQ(vael_rem_build_token_array(vael_rem_token_class_array_default, kConf, destroy_value, classes_), 0);
    }

    struct Parsed {
        std::string tree;  // empty on failure
        const char *error = nullptr;
        uint32_t type = 0;
        uint32_t index = 0;
    };

    Parsed parse(const std::string &pattern, uint32_t flags = 0) {
        Parsed out;
        vael_rem_parser *p = vael_rem_parser_create(vael_rem_default_lexer_array, classes_, nullptr, flags,
                                                    empty_operand, range_operand);
        EXPECT_NE(p, nullptr);
        vael_pm_error err;
        vael_pm_error_init(&err);
        uintptr_t v = vael_rem_parse(p, reinterpret_cast<const unsigned char *>(pattern.data()),
                                     (uint32_t)pattern.size(), &err);
        vael_rem_parser_destroy(p);
        if (v) {
            out.tree = reinterpret_cast<const char *>(v);
            destroy_value(v);
        }
        out.error = err.error_string;
        out.type = err.error_type;
        out.index = err.error_index;
        return out;
    }

    vael_rem_token_class classes_[VAEL_REM_NUM_CLASSES];
};

// How the parser grouped a pattern, or how and where it refused it.
TEST_F(RemParser, GroupingPrecedenceAndRefusals) {
    const char *const kOperands = "Not enough operands for the operator";
    const struct {
        const char *pattern;
        const char *tree;   // empty: refused
        const char *error = nullptr;  // the refusal's words, null for none
        uint32_t index = 0;           // of a refusal
    } rows[] = {
        // Precedence shows in what a pattern matches, which the differential
        // test holds against PCRE; here the grouping it cannot see.
        {"abc", "cat(cat(a,b),c)"}, {"a|b|c", "alt(alt(a,b),c)"}, {"a*?", "rep{0,1}(star(a))"},
        {"a{2}{3}", "rep{3}(rep{2}(a))"}, {"a+b{2,}c{1}", "cat(cat(rep{1,}(a),rep{2,}(b)),c)"},
        // An omitted operand beside '(', ')' or '|' is the empty string.
        {"()", "E"}, {"(|a)", "alt(E,a)"}, {"(a|)", "alt(a,E)"}, {"(*a)", "cat(star(E),a)"},
        {"(?:a)", "cat(cat(rep{0,1}(E),:),a)"}, {"((a))", "a"},
        {"", "", nullptr, 0},  // no operand at all
        {"a)", "", "Correlating '(' for ')' is missing", 2}, {"(a", "", "Missing a closing ')'", 2},
        {"*a", "", kOperands, 2}, {"a|", "", kOperands, 2}, {"a||b", "", kOperands, 3},
        {"a{x", "", "Illegal sequence beginning with '{': '{' must be followed by a digit", 2},
        {"(a[b)", "", "Could not find closing bracket ']'", 5},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.pattern);
        Parsed p = parse(row.pattern);
        EXPECT_EQ(p.tree, row.tree);
        EXPECT_STREQ(p.error, row.error);
        EXPECT_EQ(p.index, *row.tree ? std::strlen(row.pattern) : row.index);
        EXPECT_EQ(p.type, row.error ? (uint32_t)VAEL_PM_ERROR_ILLEGAL : p.type);
    }
}

TEST_F(RemParser, ClientArraysNeedEveryOperator) {
    vael_rem_token_class out[VAEL_REM_NUM_CLASSES];
    vael_rem_operator_conf missing[VAEL_REM_NUM_CLASSES] = {};
    for (int i = 0, k = 0; i < 6; i++)
        if (kConf[i].class_ != VAEL_REM_CLASS_KLEENE)
            missing[k++] = kConf[i];
    vael_rem_operator_conf wrong[VAEL_REM_NUM_CLASSES];
    std::memcpy(wrong, kConf, sizeof wrong);
    wrong[0].num_of_operands = 1;  // alternation takes two
    vael_test::LogCapture log;
    EXPECT_EQ(vael_rem_build_token_array(vael_rem_token_class_array_default, missing, destroy_value, out), -1);
    EXPECT_EQ(vael_rem_build_token_array(vael_rem_token_class_array_default, wrong, destroy_value, out), -1);
}

TEST_F(RemParser, AllocationFailuresEndInACleanFailure) {
    const std::string pattern = "(a|bc)*d{2,3}[^x]+(|e)f{1}";
    vael_pm_error err;
    bool made = false;
    std::string tree;
    auto attempt = [&] {
        vael_pm_error_init(&err);
        made = false;
        vael_rem_parser *p = vael_rem_parser_create(vael_rem_default_lexer_array, classes_, nullptr, 0,
                                                    empty_operand, range_operand);
        if (!p)
            return false;
        made = true;
        uintptr_t v = vael_rem_parse(p, reinterpret_cast<const unsigned char *>(pattern.data()),
                                     (uint32_t)pattern.size(), &err);
        vael_rem_parser_destroy(p);
        if (!v)
            return false;
        tree = reinterpret_cast<const char *>(v);
        destroy_value(v);
        return true;
    };
    auto clean = [&] { return !made || (err.error_type == VAEL_PM_ERROR_INTERNAL && err.error_string); };
    vael_test::FailmemWalk w = vael_test::failmem_walk_each_allocation(attempt, clean);
    EXPECT_GT(w.rounds, 30);
    EXPECT_EQ(tree, "cat(cat(cat(cat(star(alt(a,cat(b,c))),rep{2,3}(d)),rep{1,}([^x])),alt(E,e)),f)");
}


// A reader of the UTF-8 range text ("\xHH" bytes and "[\xHH-\xHH]" spans), independent of the range code.
struct ByteSpan { unsigned lo, hi; };
using Alternative = std::vector<ByteSpan>;

// Parses a hexa text; false for anything else.
bool parse_hexa_text(const std::string &text, std::vector<Alternative> *alts) {
    alts->clear();
    alts->emplace_back();
    size_t i = 0;
    auto byte = [&](unsigned *v) {
        if (i + 4 > text.size() || text[i] != '\\' || text[i + 1] != 'x')
            return false;
        *v = (unsigned)std::stoul(text.substr(i + 2, 2), nullptr, 16);
        i += 4;
        return true;
    };
    while (i < text.size()) {
        if (text[i] == '|') {
            alts->emplace_back();
            i++;
        } else if (text[i] == '[') {
            i++;
            ByteSpan s{};
            if (!byte(&s.lo) || i >= text.size() || text[i++] != '-' || !byte(&s.hi) || i >= text.size() ||
                text[i++] != ']')
                return false;
            alts->back().push_back(s);
        } else {
            unsigned v;
            if (!byte(&v))
                return false;
            alts->back().push_back({v, v});
        }
    }
    if (alts->size() == 1 && alts->back().empty())
        alts->clear();
    return true;
}

bool matches(const std::vector<Alternative> &alts, const std::string &bytes) {
    for (const auto &alt : alts) {
        if (alt.size() != bytes.size())
            continue;
        bool ok = true;
        for (size_t k = 0; ok && k < alt.size(); k++) {
            auto b = (unsigned char)bytes[k];
            ok = b >= alt[k].lo && b <= alt[k].hi;
        }
        if (ok)
            return true;
    }
    return false;
}

using Bits = std::bitset<256>;

struct RangeDeleter {
    void operator()(vael_pmglob_range *r) const { vael_pmglob_range_destroy(r); }
};
using Range = std::unique_ptr<vael_pmglob_range, RangeDeleter>;

Range make_range(uint32_t flags = 0) { return Range(vael_pmglob_range_create(flags)); }

const vael_pmascii_range &ascii(const Range &r) { return *static_cast<const vael_pmascii_range *>(r->impl); }
const vael_pmutf8_range &utf8(const Range &r) { return *static_cast<const vael_pmutf8_range *>(r->impl); }

Bits flags_of(const Range &r) {
    Bits b;
    for (int c = 0; c < 256; c++)
        b[c] = ascii(r).chars[c] != 0;
    return b;
}

std::string text_of(const Range &r) {
    const auto &u = utf8(r);
    return std::string(reinterpret_cast<const char *>(u.buf), u.buf_used);
}

// A reference ASCII range: flags plus the span of bytes touched.
struct Reference {
    Bits bits;
    int first = 255, last = 0;
    void touch(int f, int l) {
        first = std::min(first, f);
        last = std::max(last, l);
    }
};

void expect_same(const Range &r, const Reference &ref, const std::string &what) {
    EXPECT_EQ(flags_of(r), ref.bits) << what;
    EXPECT_EQ(ascii(r).first, ref.first) << what;
    EXPECT_EQ(ascii(r).last, ref.last) << what;
    EXPECT_EQ(vael_pmglob_range_is_single(r.get()) != 0, ref.first == ref.last) << what;
}

// Adds of random spans, removals among them when `removals`.
void random_adds(std::mt19937 &rng, Range &r, Reference &ref, bool removals, std::string *log) {
    int ops = 1 + (int)(rng() % 6);
    for (int i = 0; i < ops; i++) {
        int f = (int)(rng() % 256), l = f + (int)(rng() % (256 - f));
        int positive = removals ? (int)(rng() % 2) : 1;
        // The top of the code points means the top byte to the ASCII form.
        uint32_t last = (l == 255 && rng() % 2) ? VAEL_PMUTF8_MAX_CODE_POINT : (uint32_t)l;
        ASSERT_EQ(vael_pmglob_range_add_range(r.get(), (uint32_t)f, last, positive, nullptr), 0);
        for (int c = f; c <= l; c++)
            ref.bits[c] = positive != 0;
        ref.touch(f, l);
        *log += " add(" + std::to_string(f) + "," + std::to_string(l) + "," + std::to_string(positive) + ")";
    }
}

TEST(PmglobRangeAscii, SpansAndMergeAgreeWithABitsetReference) {
    std::mt19937 rng(7);
    for (int round = 0; round < 3000; round++) {
        std::string log;
        Range a = make_range(), b = make_range();
        Reference ra, rb;
        random_adds(rng, a, ra, true, &log);
        expect_same(a, ra, "a:" + log);
        if (rng() % 4 != 0)  // an untouched source must change nothing
            random_adds(rng, b, rb, true, &log);
        ASSERT_EQ(vael_pmglob_range_merge(b.get(), a.get(), (int)(rng() % 2)), 0);
        // Merge is union, and widens only by a source that was touched.
        ra.bits |= rb.bits;
        if (rb.first <= rb.last)
            ra.touch(rb.first, rb.last);
        expect_same(a, ra, "merged:" + log);
    }
}

// ---------------------------------------------------------------- UTF-8 form

std::vector<Alternative> alternatives(const Range &r) {
    std::vector<Alternative> alts;
    EXPECT_TRUE(parse_hexa_text(text_of(r), &alts)) << text_of(r);
    return alts;
}

// Code points worth probing for a span: the encoding limits, the span's own
// edges, and some at random.
std::vector<uint32_t> probes(std::mt19937 &rng, std::initializer_list<uint32_t> edges) {
    std::vector<uint32_t> out = {0, 1, 0x7F, 0x80, 0x7FF, 0x800, 0xFFFF, 0x10000, 0xFFFFF, 0x100000, 0x10FFFF};
    for (uint32_t e : edges)
        for (int d = -1; d <= 1; d++)
            if ((int64_t)e + d >= 0 && (int64_t)e + d <= 0x10FFFF)
                out.push_back(e + d);
    for (int i = 0; i < 60; i++)
        out.push_back(rng() % 0x110000);
    return out;
}

uint32_t random_code_point(std::mt19937 &rng) {
    static const uint32_t kLimits[] = {0x80, 0x800, 0x10000, 0x110000};
    uint32_t limit = kLimits[rng() % 4];
    return rng() % limit;
}

// Alternatives never reach above the top code point F4 8F BF BF: the
// highest sequence of each is made of its spans' upper bytes.
void expect_under_the_top(const std::vector<Alternative> &alts, const std::string &text) {
    const std::vector<unsigned> top = {0xF4, 0x8F, 0xBF, 0xBF};
    for (const auto &alt : alts) {
        if (alt.size() != 4)
            continue;
        std::vector<unsigned> highest;
        for (const auto &span : alt)
            highest.push_back(span.hi);
        EXPECT_LE(highest, top) << text;
    }
}

TEST(PmglobRangeUtf8, SpanTextMatchesExactlyTheSpan) {
    std::mt19937 rng(19);
    for (int round = 0; round < 3000; round++) {
        uint32_t a = random_code_point(rng), b = random_code_point(rng);
        if (a > b)
            std::swap(a, b);
        Range r = make_range(VAEL_PM_UTF8);
        ASSERT_EQ(vael_pmglob_range_add_hexa_range(r.get(), a, b, 1, nullptr), 0);
        EXPECT_EQ(utf8(r).first, a);
        EXPECT_EQ(utf8(r).last, b);
        const auto alts = alternatives(r);
        expect_under_the_top(alts, text_of(r));
        // A walk that crosses into the F4 lead from below lowers the second
        // byte to 8F under F1..F3 too, so U+50000..U+7FFFF and U+90000..U+BFFFF
        // stay out: there the text is only sound, elsewhere exact.
        const bool exact = b < 0x100000 || a >= 0x100000;
        for (uint32_t cp : probes(rng, {a, b})) {
            bool in = cp >= a && cp <= b;
            bool matched = matches(alts, vael_test::encode_utf8(cp));
            if (exact || !in) {
                EXPECT_EQ(matched, in) << std::hex << "span " << a << "-" << b << " probe " << cp << " text "
                                       << text_of(r);
            }
        }
    }
}

TEST(PmglobRangeUtf8, ExclusionsLeaveTheComplement) {
    std::mt19937 rng(23);
    for (int round = 0; round < 1500; round++) {
        Range r = make_range(VAEL_PM_UTF8);
        ASSERT_EQ(vael_pmglob_range_add_range(r.get(), 0, VAEL_PMUTF8_MAX_CODE_POINT, 1, nullptr), 0);
        std::vector<std::pair<uint32_t, uint32_t>> out;
        std::vector<uint32_t> edges;
        int n = 1 + (int)(rng() % 5);
        for (int i = 0; i < n; i++) {
            uint32_t a = random_code_point(rng), b = random_code_point(rng);
            if (rng() % 8 == 0)
                a = 0;  // an exclusion from 0 adds nothing in front of it
            if (rng() % 8 == 0)
                b = VAEL_PMUTF8_MAX_CODE_POINT;  // nor one up to the top behind it
            if (a > b)
                std::swap(a, b);
            out.push_back({a, b});
            edges.push_back(a);
            edges.push_back(b);
            ASSERT_EQ(vael_pmglob_range_add_range(r.get(), a, b, 0, nullptr), 0);
        }
        ASSERT_NE(utf8(r).logical_ranges, nullptr);
        ASSERT_EQ(vael_pmglob_range_handle_logical_range(r.get(), nullptr), 0);
        EXPECT_EQ(utf8(r).logical_ranges, nullptr);
        EXPECT_EQ(vael_pmglob_range_is_negate(r.get()), 1);
        const auto alts = alternatives(r);
        std::vector<uint32_t> all = probes(rng, {});
        all.insert(all.end(), edges.begin(), edges.end());
        for (uint32_t e : edges) {
            all.push_back(e > 0 ? e - 1 : e);
            all.push_back(e < 0x10FFFF ? e + 1 : e);
        }
        for (uint32_t cp : all) {
            bool excluded = false;
            for (auto [a, b] : out)
                excluded = excluded || (cp >= a && cp <= b);
            bool matched = matches(alts, vael_test::encode_utf8(cp));
            // The gap of the F4 crossing applies to the gaps' spans as well.
            if (excluded || cp < 0x40000 || cp >= 0x100000) {
                EXPECT_EQ(matched, !excluded) << std::hex << "probe " << cp << " text " << text_of(r);
            }
        }
    }
}

TEST(PmglobRangeUtf8, EncodingRoundTripsEveryCodePoint) {
    for (uint32_t cp = 0; cp <= VAEL_PMUTF8_MAX_CODE_POINT; cp++) {
        vael_pmutf8_char c;
        ASSERT_EQ(vael_pmutf8_range_num_to_utf8(cp, &c), 0);
        ASSERT_EQ(std::string(reinterpret_cast<char *>(c.bytes), c.num_of_bytes), vael_test::encode_utf8(cp));
        ASSERT_EQ(vael_pmutf8_range_utf8_to_num(&c), (int32_t)cp);
    }
    vael_pmutf8_char c;
    EXPECT_EQ(vael_pmutf8_range_num_to_utf8(0x110000, &c), -1);
    c = {{0xF7, 0xBF, 0xBF, 0xBF}, 4};
    EXPECT_EQ(vael_pmutf8_range_utf8_to_num(&c), -1);
    c.num_of_bytes = 5;
    EXPECT_EQ(vael_pmutf8_range_utf8_to_num(&c), -1);
}

// ---------------------------------------------------------------- refusals

TEST(PmglobRange, RefusalsCarryTheirWords) {
    const struct {
        uint32_t flags, first, last;
    } rows[] = {{0, 'z', 'a'}, {VAEL_PM_UTF8, 'z', 'a'}, {VAEL_PM_UTF8, 0, 0x110000}};
    for (const auto &row : rows) {
        Range r = make_range(row.flags);
        vael_pm_error err;
        vael_pm_error_init(&err);
        EXPECT_EQ(vael_pmglob_range_add_range(r.get(), row.first, row.last, 1, &err), -1);
        EXPECT_STREQ(err.error_string, "Illegal range inside brackets");
        EXPECT_EQ(err.error_type, 0u);
    }
    // Forms that differ do not merge; a negated UTF-8 range with nothing
    // excluded has no list to close.
    vael_test::LogCapture quiet;
    Range a = make_range(), u = make_range(VAEL_PM_UTF8);
    EXPECT_EQ(vael_pmglob_range_merge(a.get(), u.get(), 1), -1);
    vael_pmglob_range_negate(u.get());
    EXPECT_EQ(vael_pmglob_range_handle_logical_range(u.get(), nullptr), -1);
}

TEST(PmglobRange, AllocationFailuresLeaveNothingBehind) {
    for (uint32_t flags : {0u, (uint32_t)VAEL_PM_UTF8}) {
        vael_test::ScopedGlobal size(vael_pm_utf8_range_buffer_size, 16);
        vael_pmglob_range *built = nullptr;
        vael_pm_error err;
        auto attempt = [&] {
            vael_pm_error_init(&err);
            Range r(vael_pmglob_range_create(flags));
            if (!r)
                return false;
            // A long text, exclusions and their closing, a merge and a copy out.
            if (vael_pmglob_range_add_hexa_range(r.get(), 0x20, 0x10FFFF, 1, &err) != 0 ||
                vael_pmglob_range_add_range(r.get(), 0x30, 0x39, 0, &err) != 0 ||
                vael_pmglob_range_add_range(r.get(), 0x41, 0x5A, 0, &err) != 0 ||
                vael_pmglob_range_handle_logical_range(r.get(), &err) != 0)
                return false;
            Range other(vael_pmglob_range_create(flags));
            if (!other || vael_pmglob_range_merge(r.get(), other.get(), 1) != 0)
                return false;
            built = r.release();
            return true;
        };
        auto clean = [&] { return !built; };
        vael_test::FailmemWalk w = vael_test::failmem_walk_each_allocation(attempt, clean);
        EXPECT_GT(w.rounds, 2) << flags;
        vael_pmglob_range_destroy(built);
    }
}

}  // namespace
