/*
 * vael_rem.h - the REM language's lexer and its operator-precedence parser.
 *
 * The lexer turns a pattern into tokens by three tables of 256 handlers (the
 * plain context, inside brackets, after a backslash). The parser evaluates
 * the tokens with two stacks and knows nothing of what it builds: each client
 * copies the class array once with its own evaluators
 * (vael_rem_build_token_array) and brings makers for the empty operand and
 * for a character class. Per pattern: vael_rem_parser_create,
 * vael_rem_parse, vael_rem_parser_destroy; vael_rem_parser_init once before.
 *
 * A lexer-only user (a token dump) sets the input with
 * vael_rem_parser_set_input and calls vael_rem_parser_get_next_token while
 * vael_rem_parser_has_more_chars; a null token is a refusal whose text, if
 * any, is in the error record, at vael_rem_parser_consumed.
 */
#ifndef VAEL_REM_H
#define VAEL_REM_H

#include <stdint.h>

#include "vael/vael_pm.h"
#include "vael/vael_pmglob.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Token classes, the index of their record in a class array. */
#define VAEL_REM_CLASS_OPERAND 0        /* a client's value */
#define VAEL_REM_CLASS_CHAR_OPERAND 1   /* never produced by the lexer */
#define VAEL_REM_CLASS_RANGE_OPERAND 2  /* a character class: extra_data is a vael_pmglob_range */
#define VAEL_REM_CLASS_OPEN_PAREN 3
#define VAEL_REM_CLASS_CLOSE_PAREN 4
#define VAEL_REM_CLASS_ALTERNATE 5
#define VAEL_REM_CLASS_CONCAT 6
#define VAEL_REM_CLASS_KLEENE 7
#define VAEL_REM_CLASS_HYPHEN 8         /* only inside brackets */
#define VAEL_REM_CLASS_CLOSE_BRACKET 9  /* only inside brackets */
#define VAEL_REM_CLASS_UNARY_QUANT 10   /* {n}: extra_data n */
#define VAEL_REM_CLASS_BINARY_QUANT 11  /* {n,m} and ?: extra_data n, extra_data2 m */
#define VAEL_REM_CLASS_MIN_QUANT 12     /* {n,} and +: extra_data n */
#define VAEL_REM_NUM_CLASSES 13

/* Kinds of a class: how it stands beside its neighbours. */
#define VAEL_REM_KIND_OPEN 0    /* opening */
#define VAEL_REM_KIND_INFIX 1   /* infix operator */
#define VAEL_REM_KIND_CLOSE 2   /* closing or postfix */
#define VAEL_REM_KIND_OPERAND 3

/* A precedence that must never be compared. */
#define VAEL_REM_PRECEDENCE_ILLEGAL (-1)

/* Token flags. */
#define VAEL_REM_TOKEN_KEEP_EXTRA 0x1u /* the extra data outlives the token */

typedef struct vael_rem_parser vael_rem_parser;
typedef struct vael_rem_token vael_rem_token;

/* A lexer handler consumes its characters and gives a new token or null. */
typedef vael_rem_token *(*vael_rem_lexer_handler)(vael_rem_parser *parser);
/* What the evaluation does with a token of a class; 0 or -1. On success the
 * token is the handler's; on failure it stays the caller's. */
typedef int (*vael_rem_token_handle_fn)(vael_rem_parser *parser, vael_rem_token *token);
/* An operator's evaluator: a new class 0 token or null. A unary operator's
 * operand comes as left, right is null. The operands' extra data dies with
 * them unless the evaluator calls vael_rem_token_dont_free_extra_data. */
typedef vael_rem_token *(*vael_rem_operator_eval_fn)(vael_rem_token *op, vael_rem_parser *parser,
                                                     vael_rem_token *left, vael_rem_token *right);
typedef void (*vael_rem_destroy_extra_fn)(uintptr_t extra);
/* The empty operand, and a class 2 token turned into the client's class 0
 * token (the maker owns the range token: it consumes or destroys it). */
typedef vael_rem_token *(*vael_rem_implicit_operand_fn)(vael_rem_parser *parser);
typedef vael_rem_token *(*vael_rem_range_to_operand_fn)(vael_rem_token *range_token, vael_rem_parser *parser);

typedef struct vael_rem_token_class {
    uint32_t class_;         /* VAEL_REM_CLASS_* */
    const char *name;
    int32_t precedence;      /* VAEL_REM_PRECEDENCE_ILLEGAL where never compared */
    uint32_t kind;           /* VAEL_REM_KIND_* */
    vael_rem_token_handle_fn handle;
    vael_rem_operator_eval_fn eval;
    uint32_t num_of_operands;
    vael_rem_destroy_extra_fn destroy_extra_data;
} vael_rem_token_class;

struct vael_rem_token {
    uint32_t flags;                     /* VAEL_REM_TOKEN_* */
    const vael_rem_token_class *class_; /* a record of the parser's class array */
    uintptr_t extra_data;
    uintptr_t extra_data2;
};

/* What a client gives for one operator class; records a client leaves out
 * are zero. */
typedef struct vael_rem_operator_conf {
    uint32_t class_;
    vael_rem_operator_eval_fn eval;
    uint32_t num_of_operands;
} vael_rem_operator_conf;

/* A constant description from which a lexer table is filled. */
typedef struct vael_rem_lexer_entry {
    unsigned char c;
    vael_rem_lexer_handler handler;
} vael_rem_lexer_entry;
typedef struct vael_rem_lexer_desc {
    const char *name;
    vael_rem_lexer_handler default_handler;
    uint32_t num_of_entries;
    const vael_rem_lexer_entry *entries;
} vael_rem_lexer_desc;

/* The three tables, filled by the first vael_rem_parser_init. */
extern vael_rem_lexer_handler vael_rem_default_lexer_array[256];
extern vael_rem_lexer_handler vael_rem_lexer_bracket_array[256];
extern vael_rem_lexer_handler vael_rem_lexer_escape_array[256];
/* The class array every client copies. */
extern const vael_rem_token_class vael_rem_token_class_array_default[VAEL_REM_NUM_CLASSES];

/* A reference count; the first init fills the lexer tables. Gives 0. */
int vael_rem_parser_init(void);
void vael_rem_parser_fini(void);
void vael_rem_lexer_array_init(const vael_rem_lexer_desc *desc, vael_rem_lexer_handler *table);

/* Copies classes (13 records) into out, with each operator's eval from conf
 * (13 records) and destroy as the destructor of class 0 values. 0 or -1. */
int vael_rem_build_token_array(const vael_rem_token_class *classes, const vael_rem_operator_conf *conf,
                               vael_rem_destroy_extra_fn destroy, vael_rem_token_class *out);

/* flags are pattern flags: VAEL_PM_UTF8, bit 0 (the dot also matches line
 * ends) and the line-end bits 0x38. The class array must outlive the parser. */
vael_rem_parser *vael_rem_parser_create(vael_rem_lexer_handler *lexer_array, const vael_rem_token_class *classes,
                                        void *client_data, uint32_t flags,
                                        vael_rem_implicit_operand_fn implicit_operand,
                                        vael_rem_range_to_operand_fn range_to_operand);
void vael_rem_parser_destroy(vael_rem_parser *parser);
void *vael_rem_parser_get_client_data(const vael_rem_parser *parser);
uint32_t vael_rem_parser_get_flags(const vael_rem_parser *parser);
vael_pm_error *vael_rem_parser_get_error(const vael_rem_parser *parser);
/* The extra data of the one operand that remains, or 0 for failure; the
 * error's error_index is set to the bytes consumed. */
uintptr_t vael_rem_parse(vael_rem_parser *parser, const unsigned char *buf, uint32_t size, vael_pm_error *err);

/* The lexer alone. */
void vael_rem_parser_set_input(vael_rem_parser *parser, const unsigned char *buf, uint32_t size,
                               vael_pm_error *err);
int vael_rem_parser_has_more_chars(const vael_rem_parser *parser);
/* Bytes consumed so far, at most the input's size. */
uint32_t vael_rem_parser_consumed(const vael_rem_parser *parser);
vael_rem_token *vael_rem_parser_get_next_token(vael_rem_parser *parser);
void vael_rem_parser_set_lexer_array(vael_rem_parser *parser, vael_rem_lexer_handler *lexer_array);

/* Tokens. class is an index into the parser's class array. */
vael_rem_token *vael_rem_token_create(vael_rem_parser *parser, uint32_t class_, uintptr_t extra);
vael_rem_token *vael_rem_token_create_2_extra_datas(vael_rem_parser *parser, uint32_t class_, uintptr_t extra,
                                                    uintptr_t extra2);
int vael_rem_token_set(vael_rem_parser *parser, vael_rem_token *token, uint32_t class_, uintptr_t extra);
void vael_rem_token_dont_free_extra_data(vael_rem_token *token);
/* Destroys the extra data by its class unless it is kept, then the token. */
void vael_rem_token_destroy(vael_rem_token *token, const char *caller);
/* The element destructor of the stacks: destroys the extra data always. */
void vael_rem_token_destroy_in_stack(uintptr_t token);
/* The destructor of a class 2 token's range. */
void vael_rem_range_destroy(uintptr_t range);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_REM_H */
