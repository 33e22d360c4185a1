/*
 * vael_rem_parser.h - the parser record and the lexer's and the evaluation's
 * inner functions, for the parser's clients (their evaluators read
 * client_data and the error record) and for tests.
 */
#ifndef VAEL_REM_PARSER_H
#define VAEL_REM_PARSER_H

#include <stdint.h>

#include "vael/vael_list.h"
#include "vael/vael_rem.h"

#ifdef __cplusplus
extern "C" {
#endif

struct vael_rem_parser {
    uint32_t flags;                             /* pattern flags */
    void *client_data;                          /* read by the client's evaluators */
    lst_list *operands;                         /* stack of value tokens */
    lst_list *operators;                        /* stack of pending operators and open parens */
    vael_rem_lexer_handler *lexer_array;        /* the active table */
    const vael_rem_token_class *token_classes;  /* the client's 13 records */
    const vael_rem_token_class *prev_class;     /* class of the previous token handled, or null */
    const char *line_end;                       /* what '.' leaves out */
    vael_rem_implicit_operand_fn implicit_operand;
    vael_rem_range_to_operand_fn range_to_operand;
    const unsigned char *cur;                   /* the next character */
    int64_t chars_left;                         /* may go below 0 after a cut UTF-8 sequence */
    vael_pm_error *error;                       /* may be null */
    const unsigned char *buf;                   /* the input, for bounds and the index */
    uint32_t size;
};

/* Cursor. */
const unsigned char *vael_rem_parser_get_current_char(vael_rem_parser *parser);
const unsigned char *vael_rem_parser_glimpse_current_char(const vael_rem_parser *parser);
uint32_t vael_rem_parser_char_size(const vael_rem_parser *parser, unsigned char first_byte);
int vael_rem_parser_verify_char(vael_rem_parser *parser, const unsigned char *c, const char *allowed,
                                const char *func, uint32_t error_type);
int vael_rem_parser_validate_cur(const vael_rem_parser *parser, const unsigned char *c);

/* Handlers of the lexer tables. */
vael_rem_token *vael_rem_tokenize_simple_char(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_simple_backslash_char(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_open_paren(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_close_paren(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_alternate(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_kleene(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_dot(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_backslash(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_brackets(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_braces(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_questionmark(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_plus(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_close_bracket(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_hyphen(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_octa(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_hexa(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_unprintable(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_char_generic_type(vael_rem_parser *parser);
vael_rem_token *vael_rem_tokenize_control_char(vael_rem_parser *parser);

/* Evaluation. */
int vael_rem_syntax_handle_operand(vael_rem_parser *parser, vael_rem_token *token);
int vael_rem_syntax_handle_open_paren(vael_rem_parser *parser, vael_rem_token *token);
int vael_rem_syntax_handle_close_paren(vael_rem_parser *parser, vael_rem_token *token);
int vael_rem_syntax_handle_operator(vael_rem_parser *parser, vael_rem_token *token);
int vael_rem_syntax_dummy(vael_rem_parser *parser, vael_rem_token *token);
vael_rem_token *vael_rem_operator_eval_dummy(vael_rem_token *op, vael_rem_parser *parser, vael_rem_token *left,
                                             vael_rem_token *right);
/* -1 when a is higher than b, 1 when lower, 0 when equal;
 * VAEL_REM_COMPARE_ILLEGAL when either is VAEL_REM_PRECEDENCE_ILLEGAL. */
#define VAEL_REM_COMPARE_ILLEGAL (-2)
int vael_rem_syntax_compare_precedence(int32_t a, int32_t b);
int vael_rem_syntax_eval_operators(vael_rem_parser *parser);
int vael_rem_operator_eval(vael_rem_parser *parser, vael_rem_token *op);
/* The token to insert before `token`, or null with *needed 0 when none is. */
vael_rem_token *vael_rem_parser_need_implicit_token(vael_rem_parser *parser, const vael_rem_token *token,
                                                    int *needed);
const vael_rem_token_class *vael_rem_token_class_array_get_class(const vael_rem_token_class *classes,
                                                                 uint32_t class_);
const vael_rem_operator_conf *vael_rem_operator_conf_get(const vael_rem_operator_conf *conf, uint32_t class_);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_REM_PARSER_H */
