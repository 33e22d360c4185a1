/*
 * vael_params.h - the tool side of the control channel: named parameters and
 * statistics summed over a host's instances.
 *
 * A control tool runs in its own process; the inspection module it talks to
 * answers through the hooks handed to vael_apps_init_multik. This header
 * draws the two request blocks that travel over the channel, the parameter
 * get and set, and the aggregation of per-instance statistics blocks.
 */
#ifndef VAEL_PARAMS_H
#define VAEL_PARAMS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---------------------------------------------------------------- wire formats */

#define VAEL_PARAMS_CTL_COMMAND 2  /* command word of a parameter request */
#define VAEL_HANDLES_CTL_COMMAND 3 /* command word of a handle-table request */

#define VAEL_PARAMS_NAME_SIZE 80   /* a name with its NUL */
#define VAEL_PARAMS_VALUE_SIZE 80  /* an integer in the first four bytes, or a string with its NUL */
#define VAEL_PARAMS_MODULE_SIZE 32 /* all zero when no module is named */

#define VAEL_PARAMS_OP_SET 0
#define VAEL_PARAMS_OP_GET 1
#define VAEL_PARAMS_TYPE_INT 0
#define VAEL_PARAMS_TYPE_STRING 1

/* Instances a request may name beside a host's own numbers. */
#define VAEL_PARAMS_DEFAULT_INSTANCE (-1)
#define VAEL_PARAMS_ALL_INSTANCES (-2)

/* The parameter request, 204 bytes. value_len is 4 for an integer set, the
 * string's length + 1 for a string set and VAEL_PARAMS_VALUE_SIZE for a get;
 * a string get returns the length of its answer, NUL included. */
typedef struct vael_params_ctl_request {
    uint32_t operation;                     /* VAEL_PARAMS_OP_* */
    char name[VAEL_PARAMS_NAME_SIZE];
    uint32_t type;                          /* VAEL_PARAMS_TYPE_* */
    unsigned char value[VAEL_PARAMS_VALUE_SIZE];
    uint32_t value_len;
    char module[VAEL_PARAMS_MODULE_SIZE];
} vael_params_ctl_request;

#define VAEL_HANDLES_NAME_WORDS 9

/* The handle-table request, 84 bytes: the caller sets request and index, the
 * host fills the rest for the table at that index. */
typedef struct vael_handles_ctl_request {
    uint32_t request;                         /* 1 */
    uint32_t index;                           /* which table, from 0 */
    uint32_t more;                            /* non-zero when tables follow this one */
    uint32_t name[VAEL_HANDLES_NAME_WORDS];   /* the table's name, NUL-ended when shorter */
    uint32_t handles_allocated;
    uint32_t handles_freed;
    uint32_t handle_alloc_failed;
    uint32_t pools_allocated;
    uint32_t pools_freed;
    uint32_t pool_alloc_failed;
    uint32_t pools_preallocated;
    uint32_t max_pools;
    uint32_t reserved;
} vael_handles_ctl_request;

/* ---------------------------------------------------------------- parameters */

/* Results of a request; each is reported with its text. */
#define VAEL_PARAMS_ERR_UNKNOWN_TYPE (-1)   /* a type word other than int, ip, string, str */
#define VAEL_PARAMS_ERR_NAME_TOO_LONG (-2)  /* a name of VAEL_PARAMS_NAME_SIZE characters or more */
#define VAEL_PARAMS_ERR_VALUE_TOO_LONG (-3) /* a value that does not fit, either way */
#define VAEL_PARAMS_ERR_REQUEST (-4)        /* the request failed, or memory did */
#define VAEL_PARAMS_ERR_TOO_MANY_ARGS (-5)
#define VAEL_PARAMS_ERR_TOO_FEW_ARGS (-6)

/* argv: the type word ("int", "ip", "string" or "str"), the name, and an
 * optional module. Prints "name = value" to standard output, and a note when
 * the instances do not all agree. 0 or -1; failures are printed to standard
 * error. */
int vael_params_user_ctl_get(int argc, char **argv);
/* argv: the type word, the name, the value, an optional module. Sets it on
 * all instances. 0 or -1. */
int vael_params_user_ctl_set(int argc, char **argv);
/* An integer parameter of the default instance, or of the given one. 0, or
 * -1 with *value = 0. */
int vael_params_user_get_param_int(const char *name, int *value);
int vael_params_user_get_param_int_multik(const char *name, int *value, int instance);

/* One request. value holds *size bytes for a set; for a get it receives the
 * answer, at most *size bytes, and *size its length. module may be null. 0
 * or one of VAEL_PARAMS_ERR_*, not printed. */
int vael_params_request(int operation, const char *name, int type, const char *module, void *value,
                        uint32_t *size, int instance);
/* The text of an error, with the operation's prefix in place of its first
 * "%s": "Get operation failed:" or "Set operation failed:". */
const char *vael_params_error_text(int error);

/* ---------------------------------------------------------------- aggregation */

/* Fills block with one instance's statistics: 0, or negative on failure. */
typedef int (*vael_stat_get_fn)(int instance, void *block, void *get_arg);
/* Adds item into total. */
typedef void (*vael_stat_add_fn)(void *total, void *item, void *add_arg);

/* Sums a statistics block over the host's instances: the first instance's
 * block is read into total, each other one into scratch and added to total.
 * 0; -1 for a null get or add, or when any instance fails (total is then
 * partial). An empty range gives 0 and leaves total alone. */
int vael_stat_aggregate_data_from_all_instances(vael_stat_get_fn get, void *get_arg, vael_stat_add_fn add,
                                                void *add_arg, void *total, void *scratch);
/* size bytes of 64-bit counters, each kept as a low and a high 32-bit word,
 * added with the carry from the low word. Unaligned records are fine. */
void vael_stat_aggregate_add_all_ints64(void *total, const void *item, uint32_t size);
/* The add slot's forms of the two adders; add_arg points at a uint32_t size.
 * (vael_stat_aggregate_add_all_ints, for 32-bit counters, is in
 * vael_us_adaptor.h.) */
void vael_stat_aggregate_add_all_ints_wrapper(void *total, void *item, void *size);
void vael_stat_aggregate_add_all_ints64_wrapper(void *total, void *item, void *size);
/* Adds the counters of two handle-table blocks (handles_allocated on). */
void qxstat_aggregate_handle_stats(vael_handles_ctl_request *total, const vael_handles_ctl_request *item);

/* Prints every handle table of the host, summed over instances, to standard
 * output. 0, or -1 when a request failed for a reason other than the end of
 * the list. */
int vael_handles_get_data(void);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PARAMS_H */
