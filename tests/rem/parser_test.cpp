// The REM parser with a client that writes the tree as text ("cat(a,star(b))").
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "rem/vael_rem_parser.h"
#include "tests/support/failmem_walk.h"
#include "tests/support/vael_test_support.h"

namespace {

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

class RemParser : public testing::Test {
  protected:
    void SetUp() override {
        vael_rem_parser_init();
        ASSERT_EQ(vael_rem_build_token_array(vael_rem_token_class_array_default, kConf, destroy_value, classes_), 0);
    }
    void TearDown() override { vael_rem_parser_fini(); }

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

}  // namespace
