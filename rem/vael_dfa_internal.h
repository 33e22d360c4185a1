/*
 * vael_dfa_internal.h - the layout of the automaton store, shared by the
 * store, the NFA and subset constructions, and (later) minimization, the run
 * and the image.
 *
 * A state record is fixed: a few header words, three pointers and the 256
 * 16-bit entries. On a 32-bit host that is 540 bytes; on x86-64 the pointers
 * make it VAEL_DFA_STATE_SIZE = 552. Block geometry does not depend on it:
 * a full block is 7767 records whatever their size, so linear and packed ids
 * (block * 8192 + index, 13 index bits) read the same on every host.
 *
 *   linear id N  -> block N / 7767, index N % 7767
 *   packed id P  -> block P >> 13,  index P & 0x1FFF
 *   packed(N)    =  N + (N / 7767) * 425        (7767 + 425 = 8192)
 */
#ifndef VAEL_DFA_INTERNAL_H
#define VAEL_DFA_INTERNAL_H

#include <stdint.h>

#include "pm/vael_pm_stats.h"
#include "vael/vael_dfa.h"

#ifdef __cplusplus
extern "C" {
#endif

struct vael_dfa_pattern_id {
    int32_t pattern_id;
    struct vael_dfa_pattern_id *next;
    uint32_t flags; /* 0 in a REM state; the string matcher's VAEL_DFA_PATTERN_LITERAL */
    uint32_t len;   /* the pattern's length for the string matcher, else 0 */
};

struct vael_dfa_state {
    int32_t reserved;                /* always 0; written in images */
    uint32_t trans_table_size;       /* 256 */
    uint16_t id;                     /* linear id, for the state's whole life */
    uint32_t properties;             /* VAEL_DFA_STATE_* */
    vael_dfa_pattern_id *patterns;   /* head of the final ids, or null */
    vael_states_list *states_list;   /* NFA set or epsilons; null in a finished DFA */
    vael_dfa *dfa;                   /* the owner */
    uint16_t trans[VAEL_DFA_TRANS_TABLE_SIZE]; /* target id per byte, VAEL_DFA_NO_STATE for none */
};

#define VAEL_DFA_STATE_SIZE ((uint32_t)sizeof(vael_dfa_state))

typedef struct vael_dfa_stats {
    vael_pm_stats_common common;
    uint32_t num_of_states;       /* states made */
    uint32_t num_of_final_states; /* set_final calls that succeeded */
} vael_dfa_stats;

#define VAEL_DFA_BLOCK_MODE_FIXED 1   /* all blocks allocated for a known number of states */
#define VAEL_DFA_BLOCK_MODE_GROWING 2 /* blocks added as needed */

struct vael_dfa {
    vael_dfa_state *initial_state; /* null until set */
    uint32_t flags;                /* pattern and compile flags */
    int32_t block_mode;            /* VAEL_DFA_BLOCK_MODE_* */
    uint32_t current_state_id;     /* next id to give = states made */
    uint32_t max_states;           /* ids stay below this */
    uint32_t state_limit;          /* vael_dfa_state_create refuses at this count */
    vael_pm_error *error;          /* null in a duplicate or loaded machine */
    vael_dfa_stats stats;
    uint16_t num_of_blocks;
    uint16_t index_size;           /* 2 */
    uint16_t block_capacity[VAEL_DFA_MAX_BLOCKS]; /* states each block holds */
    uint16_t block_used[VAEL_DFA_MAX_BLOCKS];     /* states in use */
    vael_dfa_state *blocks[VAEL_DFA_MAX_BLOCKS];
    /* The run table of a finished string matcher, derived from the states
     * and never written in an image: rows of 256 run ids, final states
     * numbered from run_first_final so that one load per byte both steps
     * and tells finality. Null where the machine has none. */
    uint16_t *run_next;          /* run id * 256 + byte -> run id */
    vael_dfa_state **run_state;  /* run id -> state */
    uint16_t *run_id;            /* linear id -> run id */
    uint32_t run_first_final;
    uint32_t run_count;          /* states the table was made for */
};

/* An NFA environment: one DFA object owns every state of every fragment of
 * one pattern. */
#define VAEL_NFA_ENV_FINALIZED 0x1
struct vael_nfa_env {
    vael_dfa *dfa;      /* owns the states; its flags carry the pattern flags */
    vael_nfa *nfa;      /* the finished NFA, null until finalized */
    uint32_t ref_count; /* fragment handles alive */
    int32_t env_flags;  /* VAEL_NFA_ENV_* */
};

/* A fragment handle: one start, one end. Freeing it frees no state. */
struct vael_nfa {
    vael_nfa_env *env;
    vael_dfa_state *start;
    vael_dfa_state *end;
};

/* Minimization's table: row i holds the cells of the pairs (i, j), j < i;
 * 1 joined (held equal), 0 divided. Row 0 is empty. */
typedef struct vael_dfa_partition_matrix {
    uint32_t **rows;
    uint32_t num_of_rows;
} vael_dfa_partition_matrix;

typedef struct vael_dfa_partition_state {
    vael_dfa_state *state;
    int32_t group; /* representative's id, -1 until grouped */
} vael_dfa_partition_state;

typedef struct vael_dfa_partitions {
    vael_dfa_partition_state *states; /* one per state of the input, by id */
    vael_dfa_partition_matrix *matrix;
    uint32_t num_of_states;
} vael_dfa_partitions;

vael_dfa_partition_matrix *vael_dfa_partition_matrix_create(uint32_t n);
void vael_dfa_partition_matrix_destroy(vael_dfa_partition_matrix *matrix, uint32_t n);
vael_dfa_partitions *vael_dfa_partitions_create(vael_dfa *dfa);
void vael_dfa_partitions_destroy(vael_dfa_partitions *partitions);
/* Either order of i and j; i = j does nothing. */
void vael_dfa_partitions_divide(vael_dfa_partitions *partitions, uint32_t i, uint32_t j);
void vael_dfa_partitions_join(vael_dfa_partitions *partitions, uint32_t i, uint32_t j);
void vael_dfa_partitions_print(vael_dfa_partitions *partitions);

/* The run entries of the tier rows (the SM row and the REM row). */
struct vael_pm_exec_cb_ctx;
int vael_dfa_tier1_exec(void *h, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, uint32_t start,
                        lst_list **queue, uint32_t exec_flags, const vael_pm_mask *mask,
                        struct vael_pm_exec_cb_ctx *ctx);
int vael_dfa_tier2_exec(void *h, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, uint32_t start,
                        lst_list **queue, uint32_t exec_flags, struct vael_pm_exec_cb_ctx *ctx);

/* Derives the run table of a finished machine (0 or -1, the machine is
 * left without one on failure) and frees it (also from destroy). */
int vael_dfa_run_table_build(vael_dfa *dfa);
void vael_dfa_run_table_free(vael_dfa *dfa);
/* Linear id to packed id. */
static inline uint32_t vael_dfa_linear_to_packed(uint32_t id) {
    uint32_t block = id / VAEL_DFA_BLOCK_STATES;
    return (block << VAEL_DFA_PACKED_SHIFT) + id % VAEL_DFA_BLOCK_STATES;
}

/* Adds a block of `states` records. 0 or -1. */
int vael_dfa_block_add(vael_dfa *dfa, uint32_t states);
/* The next linear id, or VAEL_DFA_NO_STATE when the machine is full. */
uint32_t vael_dfa_state_get_new_id(vael_dfa *dfa);
int vael_dfa_transform_state_ids(vael_dfa *dfa);
int vael_dfa_machine_dup(vael_dfa *target, const vael_dfa *source);
void vael_dfa_stats_copy(vael_dfa *target, const vael_dfa *source);
/* Adds the id at the end of the state's list: 0 added, 1 there already, -1. */
int vael_dfa_state_add_pattern_id(vael_dfa_state *state, int32_t pattern_id, uint32_t flags, uint32_t len);
int vael_dfa_state_pattern_id_exist(const vael_dfa_state *state, int32_t pattern_id);
/* Frees count records from the head (all for 0); the new head. */
vael_dfa_pattern_id *vael_dfa_state_free_ids(vael_dfa_pattern_id *head, uint32_t count);

/* The states hash of subset construction and vael_nfa_dup. A key is word 0
 * the local id, word 1 the count n, then n ascending state ids; the empty
 * set is n = 3 with ids 1, 1, 1. */
#define VAEL_STATES_HASH_BINS 100
int vael_states_hash_table_local_nfa_init(uint32_t *local_id, lst_list **free_list);
void vael_states_hash_table_local_nfa_fini(lst_list *free_list);
int vael_states_hash_table_create_key(vael_states_list *list, uint32_t local_id, uint32_t **key, uint32_t *key_len);
vael_dfa_state *vael_states_hash_table_get(const uint32_t *key, uint32_t key_len, int *failed);
int vael_states_hash_table_set(lst_list *free_list, uint32_t *key, uint32_t key_len, vael_dfa_state *state);
void vael_states_hash_table_del(lst_list *free_list, uint32_t *key, uint32_t key_len);
/* Takes the list over: the state standing for this set in this run. */
vael_dfa_state *vael_states_list_get_correlating_state(vael_dfa *machine, vael_states_list *list, int *existed,
                                                       uint32_t local_id, lst_list *free_list);
/* The id of the states hash table, -1 when not initialised. */
int vael_states_hash_table_id(void);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_DFA_INTERNAL_H */
