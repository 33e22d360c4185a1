/*
 * vael_dfa.h - the automaton store, Thompson NFA construction inside it, and
 * subset construction.
 *
 * One store serves an NFA under construction, the DFA made from it, a
 * minimized DFA and the string matcher's machine. A state is a fixed record
 * with a full table of 256 16-bit target ids (VAEL_DFA_NO_STATE = no
 * target), allocated in big blocks. While a machine is built its entries are
 * linear ids (state N lies in block N / 7767 at index N % 7767); after
 * vael_dfa_finalize a machine of more than one block holds packed ids (block
 * in the top 3 bits, index in the low 13), so a run finds a state by shift and
 * mask. A machine of one block has the same number in both forms.
 *
 * An NFA is a fragment (start, end) of states of one environment's DFA: its
 * character edges are the transition table, its epsilon edges the state's
 * states list. Build operations consume their fragment arguments on success
 * and on failure. vael_nfa2dfa turns a finalized environment into a complete
 * DFA through a process-wide states hash (vael_nfa_init, vael_nfa_fini).
 *
 * Results: 0 or -1 (VAEL_ERROR), or a pointer that is null on failure. Only
 * vael_dfa_state_create writes words for the caller in the error record.
 */
#ifndef VAEL_DFA_H
#define VAEL_DFA_H

#include <stdint.h>

#include "vael/vael_list.h"
#include "vael/vael_pm.h"
#include "vael/vael_pmglob.h"
#include "vael/vael_vbuf.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VAEL_DFA_TRANS_TABLE_SIZE 256      /* entries of a state's table */
#define VAEL_DFA_INDEX_SIZE 2              /* bytes of one entry */
#define VAEL_DFA_BLOCK_STATES 7767         /* states of a full block */
#define VAEL_DFA_MAX_BLOCKS 8
#define VAEL_DFA_MAX_SMALL_BLOCKS 1        /* blocks of a machine with VAEL_DFA_SMALL_BLOCKS */
#define VAEL_DFA_MAX_STATES 62135          /* ids of a growing machine stay below this */
#define VAEL_DFA_NO_STATE 65535            /* entry without target; a failed new id */
#define VAEL_DFA_DEFAULT_STATE_LIMIT 7767  /* state_limit of a new machine */
#define VAEL_DFA_UNLIMITED_STATE_LIMIT 62136 /* what vael_dfa_set_state_limit(dfa, 0) sets */
#define VAEL_DFA_PACKED_SHIFT 13           /* packed id: block << 13 | index */
#define VAEL_DFA_PACKED_INDEX_MASK 0x1FFFu
#define VAEL_DFA_NFA_PATTERN_ID ((int32_t)0xBABABABA) /* placeholder id of a finished NFA's end */

/* Bits of a state's properties. */
#define VAEL_DFA_STATE_FINAL 0x1u          /* accepting */
#define VAEL_DFA_STATE_ANCHORED_FINAL 0x4u /* accepting only at the end of the data (with FINAL) */
#define VAEL_DFA_STATE_PACKED 0x8u         /* the table holds packed ids */

/* Bits of a machine's flags that the store and the constructions read. */
#define VAEL_DFA_DOT_ALL 0x1u              /* the dot also matches line ends */
#define VAEL_DFA_NO_FINAL_SINK 0x80u       /* the match is judged at its end: no absorbing final state */
#define VAEL_DFA_SMALL_BLOCKS 0x100u       /* one block of vael_dfa_small_block_size bytes at most */
#define VAEL_DFA_CARET 0x20000u            /* caret anchored: run only from offset 0 */
#define VAEL_DFA_CASELESS 0x10000000u      /* NFA edges are set for both cases (VAEL_PM_CASELESS) */

/* A pattern id record's flag for the string matcher: the record carries the
 * pattern's length. */
#define VAEL_DFA_PATTERN_LITERAL 0x800000u

typedef struct vael_dfa vael_dfa;
typedef struct vael_dfa_state vael_dfa_state;
/* A set of states sorted by id (a list of the library). */
typedef lst_list vael_states_list;
typedef struct vael_nfa vael_nfa;
typedef struct vael_nfa_env vael_nfa_env;

/* Bytes of the block used by a machine with VAEL_DFA_SMALL_BLOCKS; default
 * 524288. */
extern int vael_dfa_small_block_size;

/* ---------------------------------------------------------------- machines */

vael_dfa *vael_dfa_create(uint32_t flags, vael_pm_error *error);
/* num_of_states 0: blocks are added as states are made (up to 62135 states);
 * otherwise blocks for exactly that many are allocated now. */
vael_dfa *vael_dfa_create_block_dfa(uint32_t flags, vael_pm_error *error, uint32_t num_of_states,
                                    uint16_t index_size, const char *caller);
void vael_dfa_destroy(vael_dfa *dfa);
/* A limit of 0 means VAEL_DFA_UNLIMITED_STATE_LIMIT. */
void vael_dfa_set_state_limit(vael_dfa *dfa, uint32_t limit);
void vael_dfa_set_initial_state(vael_dfa *dfa, vael_dfa_state *state);
vael_dfa_state *vael_dfa_get_initial_state(const vael_dfa *dfa);
uint32_t vael_dfa_get_num_of_states(const vael_dfa *dfa);
uint32_t vael_dfa_get_flags(const vael_dfa *dfa);
void vael_dfa_add_flags(vael_dfa *dfa, uint32_t bits);
struct vael_pm_stats_common *vael_dfa_get_common_stats(vael_dfa *dfa);
/* The DFA's part of a statistics report; level as an engine's stats_print. */
void vael_dfa_stats_print(vael_dfa *dfa, int level);
/* Calls fn(state, ctx) for each id from 0 up; the first non-zero result
 * stops the walk and is returned. */
typedef int (*vael_dfa_state_visit_fn)(vael_dfa_state *state, void *ctx);
int vael_dfa_states_visitor(vael_dfa *dfa, vael_dfa_state_visit_fn fn, void *ctx);
/* Cuts the last block to fit and, in a machine of several blocks, rewrites
 * the tables to packed ids. State pointers into the cut block are void
 * afterwards. The machine, or null (then it is destroyed). */
vael_dfa *vael_dfa_finalize(vael_dfa *dfa);
/* 1 when every state is reached from the initial state and every entry on
 * the way names a state; 0 otherwise. A finalized machine; null is valid. */
int vael_dfa_is_valid(vael_dfa *dfa);
/* A copy of a finished machine (no states lists); null on failure. */
vael_dfa *vael_dfa_duplicate(vael_dfa *dfa);
/* Destroys every state's states list. */
void vael_dfa_clean_states_list(vael_dfa *dfa);

/* ---------------------------------------------------------------- states */

/* A new state, or null: out of memory, or the machine's state limit reached
 * (error type 2, "This pattern is too complex. Consider rewriting the
 * pattern."). */
vael_dfa_state *vael_dfa_state_create(vael_dfa *dfa);
uint32_t vael_dfa_state_get_id(const vael_dfa_state *state);
vael_dfa *vael_dfa_state_get_dfa(const vael_dfa_state *state);
uint32_t vael_dfa_state_get_properties(const vael_dfa_state *state);
/* The state by linear id; null for no target. A machine being built, or one
 * of one block. */
vael_dfa_state *vael_dfa_state_get_next_state(const vael_dfa_state *state, unsigned char byte);
/* block start + entry x record size, without check: one-block machines. */
vael_dfa_state *vael_dfa_state_get_next_state_one_block(vael_dfa_state *block, const vael_dfa_state *state,
                                                        unsigned char byte);
/* The state of a linear id, or of a packed id; null when there is none. */
vael_dfa_state *vael_dfa_state_get_by_id(const vael_dfa *dfa, uint32_t id);
vael_dfa_state *vael_dfa_state_get_by_id_fast(const vael_dfa *dfa, uint32_t packed_id);
int vael_dfa_state_add_trans(vael_dfa_state *source, unsigned char byte, vael_dfa_state *target);
/* Sets the entries of the byte's upper and lower case. */
int vael_dfa_state_add_trans_insensitive(vael_dfa_state *source, unsigned char byte, vael_dfa_state *target);
int vael_dfa_state_add_trans_ex(vael_dfa_state *source, unsigned char byte, vael_dfa_state *target, int sensitive);

/* Final states carry a list of pattern id records. The set functions give
 * 0 when the id was added, 1 when it was there already, -1 on failure. */
int vael_dfa_state_set_final(vael_dfa_state *state, int32_t pattern_id, uint32_t flags, uint32_t len);
int vael_dfa_state_set_anchored_final(vael_dfa_state *state, int32_t pattern_id);
int vael_dfa_state_set_final_ex(vael_dfa_state *state, int32_t pattern_id, int anchored);
int vael_dfa_state_is_final(const vael_dfa_state *state);
int vael_dfa_state_is_anchored_final(const vael_dfa_state *state);
/* Adds every record of source to target; 0, or -1 with target as before. */
int vael_dfa_state_copy_final_ids(vael_dfa_state *target, const vael_dfa_state *source);
/* Reading a final state's records: the first, then each next; null ends. */
typedef struct vael_dfa_pattern_id vael_dfa_pattern_id;
const vael_dfa_pattern_id *vael_dfa_state_get_pattern_ids(const vael_dfa_state *state);
const vael_dfa_pattern_id *vael_dfa_pattern_id_next(const vael_dfa_pattern_id *rec);
int32_t vael_dfa_pattern_id_get_id(const vael_dfa_pattern_id *rec);
vael_states_list *vael_dfa_state_get_states_list(const vael_dfa_state *state);
void vael_dfa_state_set_states_list(vael_dfa_state *state, vael_states_list *list);
void vael_dfa_state_set_property(vael_dfa_state *state, uint32_t bits);
void vael_dfa_state_unset_property(vael_dfa_state *state, uint32_t bits);
/* The correlation of a state with states of another machine, kept in its
 * states list: add one, read the first. */
int vael_dfa_state_set_correlating_state(vael_dfa_state *state, vael_dfa_state *other);
vael_dfa_state *vael_dfa_state_get_correlating_state(const vael_dfa_state *state);
/* The target on the byte of the one state in this state's list; null without
 * a list (and an assertion when the list holds other than one state). */
vael_dfa_state *vael_dfa_state_move_orig(const vael_dfa_state *state, unsigned char byte);

/* ---------------------------------------------------------------- states lists */

vael_states_list *vael_states_list_create(void);
void vael_states_list_destroy(vael_states_list *list);
int vael_states_list_is_empty(vael_states_list *list);
uint32_t vael_states_list_num_of_elems(vael_states_list *list);
/* Inserts by id; a state already there is not added twice. 0 or -1. */
int vael_states_list_add(vael_states_list *list, vael_dfa_state *state);
/* fn(state, ctx) for each state in order; a non-zero result stops with -1. */
typedef int (*vael_states_list_fn)(vael_dfa_state *state, void *ctx);
int vael_states_list_iterate(vael_states_list *list, vael_states_list_fn fn, void *ctx);
int vael_states_list_are_equal(vael_states_list *a, vael_states_list *b);
int vael_states_list_in(vael_states_list *list, const vael_dfa_state *state);
/* Takes the head, the lowest id; null when empty. */
vael_dfa_state *vael_states_list_remove(vael_states_list *list);
vael_dfa_state *vael_states_list_first(vael_states_list *list);
/* Appends every state of source at the end of target, unsorted. 0 or -1. */
int vael_states_list_append(vael_states_list *source, vael_states_list *target);
/* 1 equal ids, -1 a lower, 0 a higher. */
int vael_states_list_compare(uintptr_t a, uintptr_t b);

/* ---------------------------------------------------------------- NFA construction */

vael_nfa_env *vael_nfa_env_create(uint32_t flags, vael_pm_error *error);
/* -1 with fragments still alive: the environment then stays. */
int vael_nfa_env_destroy(vael_nfa_env *env);
vael_nfa *vael_nfa_env_create_nfa(vael_nfa_env *env);
void vael_nfa_destroy(vael_nfa *nfa);
/* Marks the fragment's end final (anchored: only at the end of the data) and
 * takes the fragment over. 0 or -1. */
int vael_nfa_env_finalize(vael_nfa_env *env, vael_nfa *nfa, int anchored);
vael_dfa *vael_nfa_env_get_dfa(vael_nfa_env *env);
uint32_t vael_nfa_env_get_ref_count(const vael_nfa_env *env);
vael_dfa_state *vael_nfa_get_start(const vael_nfa *nfa);
vael_dfa_state *vael_nfa_get_end(const vael_nfa *nfa);
vael_dfa_state *vael_nfa_create_state(vael_nfa *nfa);
int vael_nfa_add_epsilon(vael_dfa_state *from, vael_dfa_state *to);

vael_nfa *vael_nfa_build_empty_nfa(vael_nfa_env *env);
vael_nfa *vael_nfa_build_chars(vael_nfa_env *env, const unsigned char *bytes, uint32_t length);
/* An ASCII range; a negated range is folded in place in caseless mode. */
vael_nfa *vael_nfa_build_range(vael_nfa_env *env, vael_pmascii_range *range);
vael_nfa *vael_nfa_build_concat(vael_nfa *first, vael_nfa *second);
vael_nfa *vael_nfa_build_alternate(vael_nfa *first, vael_nfa *second);
vael_nfa *vael_nfa_build_kleene(vael_nfa *nfa);
vael_nfa *vael_nfa_build_quantify(vael_nfa *nfa, uint32_t count);
/* A copy with new states; the argument stays the caller's. */
vael_nfa *vael_nfa_dup(vael_nfa *nfa);

/* ---------------------------------------------------------------- subset construction */

/* The process-wide states hash and its lock. 0 or -1. */
int vael_nfa_init(void);
void vael_nfa_fini(void);
/* A complete DFA (256 targets per state) for the finalized environment, with
 * pattern_id on its final states; not minimized, not finalized. The
 * environment is not changed. */
vael_dfa *vael_nfa2dfa(vael_nfa_env *env, int32_t pattern_id, vael_pm_error *error);

/* ---------------------------------------------------------------- minimization */

/* A new machine with the fewest states, from a complete machine that is not
 * yet finalized (table filling). The input stays the caller's, its states
 * lists cleaned; null on failure. */
vael_dfa *vael_dfa_minimize(vael_dfa *dfa);

/* ---------------------------------------------------------------- runs */

/* Runs a finalized machine over vbuf from `start`, then over buf (which
 * follows vbuf), from the initial state. Hits go to *queue (made at the
 * first hit) with the offset of their last byte in the whole data. 0 or -1;
 * on -1 the queue holds what came before the failing state's records. */
int vael_dfa_exec(vael_dfa *dfa, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, uint32_t start,
                  lst_list **queue, uint32_t exec_flags, const vael_pm_mask *mask);
/* One contiguous piece: bytes start_index..end_index - 1 at offsets base +
 * index. *running and *hint go on to the next piece. 0, -1, or
 * VAEL_DFA_EXEC_SETTLED: the machine sits in an absorbing final state whose
 * hits are queued, and the rest of the data would only repeat them. */
#define VAEL_DFA_EXEC_SETTLED 1
int vael_dfa_exec_one_buf(vael_dfa_state **running, const unsigned char *buf, uint32_t end_index,
                          uint32_t start_index, uint32_t base, lst_list **queue, uint32_t exec_flags,
                          const vael_pm_mask *mask, uint32_t dfa_flags, uint32_t *hint);
/* The records of a final state that pass their checks, queued. piece_end is
 * the end of the bytes buffer holds, for the word check after the match. */
int vael_dfa_insert_match_data(lst_list **queue, const vael_dfa_state *state, uint32_t offset, uint32_t index,
                               uint32_t exec_flags, const vael_pm_mask *mask, uint32_t end,
                               const unsigned char *buffer, uint32_t next_index, uint32_t piece_end,
                               uint32_t dfa_flags, uint32_t hint, int *matched);

/* The highest start from which a run reaches the match's end again: the
 * offset, (uint32_t)-1 for none found, (uint32_t)-2 for a failed run.
 * anchored: the machine runs from offset 0 only (then the answer is 0
 * unless pattern_flags hold VAEL_PM_BOUNDED_LEFT). */
uint32_t vael_dfa_match_start_find(vael_dfa *dfa, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf,
                                   uint32_t exec_flags, vael_pmglob_match_data *match, uint32_t back_offset,
                                   int anchored, uint32_t pattern_flags);
/* Up to 500 offsets in start..start + length - 1 where a match may start:
 * after a non-word byte when bounded, else where the byte leaves the initial
 * state. -1 on the 501st. */
int vael_dfa_exec_find_potential_start_points(const vael_dfa *dfa, const unsigned char *buf, uint32_t len,
                                              vael_vbuf *vbuf, uint32_t start, uint32_t *array, uint32_t *count,
                                              uint32_t length, int bounded);
/* Moves a probe of a bounded search over plain offsets to the nearest
 * offset behind a non-word byte; 1 when there is none in low..high. */
int vael_dfa_match_start_fix_index_for_binary_search(uint32_t low, uint32_t high, int bounded,
                                                     const uint32_t *array, const unsigned char *buf, uint32_t len,
                                                     vael_vbuf *vbuf, uint32_t *index);
int vael_dfa_exec_match_start_is_match_at_offset(vael_dfa *dfa, const unsigned char *buf, uint32_t len,
                                                 vael_vbuf *vbuf, uint32_t exec_flags, int32_t id, uint32_t end,
                                                 uint32_t candidate, int *status);

/* ---------------------------------------------------------------- images */

/* Bytes of the machine's image; 0 for a null machine or a broken one. */
uint32_t vael_dfa_calculate_size(vael_dfa *dfa);
/* Writes the image at *position, which moves on; *space falls by what was
 * written. Nothing is written when *space is below the image's size. 0 or -1. */
int vael_dfa_serialize(vael_dfa *dfa, unsigned char **position, uint32_t *space);
/* Reads an image from *position, or with a vbuf from its iterator. A machine
 * that runs as it stands, or null. A field longer than what is left makes
 * *space 0. */
vael_dfa *vael_dfa_deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf,
                               vael_vbuf_iter *iter);

/* ---------------------------------------------------------------- dumps */

/* A finalized machine walked breadth first from its initial state, over the
 * letters a to z only, printed through the debug output: a table, a CSV
 * table, and JFLAP 6.0 XML with the letters that lead to one target grouped
 * (or every letter a transition of its own). 0 or -1. */
int vael_dfa_dump(vael_dfa *dfa);
int vael_dfa_dump_csv(vael_dfa *dfa);
int vael_dfa_dump_xml(vael_dfa *dfa);
int vael_dfa_dump_xml_all(vael_dfa *dfa);

#define VAEL_DFA_DUMP_TEXT 0
#define VAEL_DFA_DUMP_CSV 1
#define VAEL_DFA_DUMP_XML 2
#define VAEL_DFA_DUMP_XML_ALL 3
/* The same dumps to a sink of one's own, which gets the text in pieces of
 * whole lines (a line longer than 1 KB comes in several). */
typedef void (*vael_dfa_dump_sink)(const char *text, void *ctx);
int vael_dfa_dump_to(vael_dfa *dfa, int format, vael_dfa_dump_sink sink, void *ctx);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_DFA_H */
