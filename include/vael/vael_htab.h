/*
 * vael_htab.h - handle tables: named hash tables from keys of 32-bit words to
 * values of 32-bit words, reached by a small integer id from one process-wide
 * registry of 200, with optional per-entry timers of up to 3599 seconds.
 *
 * Locking: each table has a lock that the caller owns, creates before the
 * table and keeps until the table is gone. The caller holds it around every
 * call that names the table's id (set, get, in, del, traverse, ...); the
 * library takes it itself only in vael_htab_get_table (and so the print
 * functions that go through it) and in vael_htab_expire. The registry has a
 * lock of its own, which the library never holds together with a table's.
 *
 * A user function (free, print, expiry, iteration) runs "in user context": it
 * may read its table (get, in, nents, print, read-only traverse) but not
 * change it; a change fails with -1.
 *
 * Timers: a table created with VAEL_HTAB_EXPIRE or VAEL_HTAB_EXPIRE_GRADUAL
 * keeps a ring of one slot per second. Nothing expires unless the embedding
 * program calls vael_htab_expire, as often as it likes (a packet path may
 * call it per packet); each call is an expiration opportunity.
 *
 * The user side of a control tool reads a table of another address space
 * over the control channel handed to vael_apps_init: vael_htab_user_*.
 */
#ifndef VAEL_HTAB_H
#define VAEL_HTAB_H

#include <stdint.h>

#include "vael/vael_us_adaptor.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VAEL_HTAB_MAX_TABLES 200   /* ids 0 to 199 */
#define VAEL_HTAB_NAME_SIZE 100    /* a name holds at most 99 characters */
#define VAEL_HTAB_MAX_BINS 0x80000 /* bins are a power of two up to this */
#define VAEL_HTAB_SEED_WORDS 16
#define VAEL_HTAB_SLOTS 3600       /* one timer slot per second of an hour */
#define VAEL_HTAB_MAX_TIMEOUT 3599

/* Table flags, given at creation. */
#define VAEL_HTAB_EXPIRE 0x1u         /* entries can carry timers, expired on the second change */
#define VAEL_HTAB_REFRESH 0x2u        /* a lookup that asks for it restarts the entry's timer */
#define VAEL_HTAB_NO_UPDATE 0x4u      /* vael_htab_set may not overwrite an existing entry */
#define VAEL_HTAB_EXPIRE_GRADUAL 0x8u /* timers, and each second's expiry spread over the second */

/* Timeout words of vael_htab_set, vael_htab_set_tmo and an expiry function:
 * 1 to 3599 seconds start the timer anew, 0 cancels it (the entry lives for
 * ever), VAEL_HTAB_TMO_KEEP leaves it as it is. Anything else is refused. */
#define VAEL_HTAB_TMO_KEEP 0xffffffffu

/* result_out of vael_htab_set. */
#define VAEL_HTAB_SET_NEW 1
#define VAEL_HTAB_SET_UPDATED 0
#define VAEL_HTAB_SET_NOMEM (-1)
#define VAEL_HTAB_SET_EXISTS (-2)  /* the entry exists and the table has "no update" */
#define VAEL_HTAB_SET_BAD_TMO (-3) /* the timeout was refused; see vael_htab_set */

/* result_out of vael_htab_get. */
#define VAEL_HTAB_GET_OK 0
#define VAEL_HTAB_GET_MISSING (-1)
#define VAEL_HTAB_GET_NO_ROOM (-2) /* the capacity is below the entry's value count */
#define VAEL_HTAB_GET_INVALID (-3) /* invalid arguments or table, or a refresh in user context */

typedef struct vael_htab vael_htab; /* opaque table record */

/* One entry, as an entry function of vael_htab_get_table sees it: nkeys key
 * words directly followed by nvals value words. Entries are the table's
 * property; a reader must not change the links. */
typedef struct vael_htab_entry {
    struct vael_htab_entry *next; /* next entry of the same bin */
    void *expire;                 /* the entry's timer, or null */
    int32_t nkeys;
    int32_t nvals;
    uint32_t words[];
} vael_htab_entry;

/* Called for each entry that leaves the table. expired is 1 when it leaves by
 * expiry; reason is the caller text of vael_htab_del, "del all" or
 * "expiration". */
typedef void (*vael_htab_free_fn)(const uint32_t *key, int nkeys, const uint32_t *vals, int nvals, int expired,
                                  const char *reason, void *opaque);
/* Replaces the default print of one entry. timeout and remaining are 0 for
 * an entry without timer. */
typedef void (*vael_htab_print_fn)(const uint32_t *key, int nkeys, const uint32_t *vals, int nvals, int timeout,
                                   int remaining, void *opaque);
/* Asked when an entry is due, with its timeout in *timeout. 0: the entry
 * expires. 1: it lives on with the timeout then in *timeout (1 to 3599, or 0
 * for ever). Any other answer, or another timeout, leaves the entry at the
 * head of the slot being emptied, and the sweep never ends. */
typedef int (*vael_htab_exp_fn)(const uint32_t *key, int nkeys, uint32_t *vals, int nvals, uint32_t *timeout,
                                void *opaque);
/* One entry of a traversal; 0 ends the walk. */
typedef int (*vael_htab_iter_fn)(const uint32_t *key, int nkeys, uint32_t *vals, int nvals, int timeout,
                                 int remaining, void *ctx);
/* Called once a table that was pending free is freed. */
typedef void (*vael_htab_destroyed_fn)(void *arg);
/* The whole-table and per-entry functions of vael_htab_get_table. */
typedef int (*vael_htab_table_fn)(int id, vael_htab *table, void *ctx);
typedef int (*vael_htab_entry_fn)(int id, vael_htab *table, vael_htab_entry *entry, void *ctx);

/* ---------------------------------------------------------------- start and stop */

/* Zeroes the registry, creates its lock and the expiry counters; the hash
 * seed is drawn the first time only. 0, or -1 with nothing left behind. */
int vael_htab_ini(void);
/* Stops the expiry counters and zeroes the registry. Destroys no table. */
int vael_htab_fini(void);

/* ---------------------------------------------------------------- tables */

/* 0 with the new id in *id_out, or -1 with *id_out = -1. size is rounded up
 * to a power of two, 1 to VAEL_HTAB_MAX_BINS; when memory is short the table
 * is made with fewer bins, down to 257. Exactly one of lock and rwlock is
 * given: the address of the caller's lock, which must outlive the table. The
 * _release_qx_lock forms behave identically in user space. */
int vael_htab_create(const char *name, int size, uint32_t flags, vael_htab_free_fn free_func,
                     vael_htab_print_fn print_func, vael_htab_exp_fn exp_func, vael_mutex **lock, int *id_out,
                     void *opaque);
int vael_htab_create_rw(const char *name, int size, uint32_t flags, vael_htab_free_fn free_func,
                        vael_htab_print_fn print_func, vael_htab_exp_fn exp_func, vael_mutex **rwlock, int *id_out,
                        void *opaque);
int vael_htab_create_release_qx_lock(const char *name, int size, uint32_t flags, vael_htab_free_fn free_func,
                                     vael_htab_print_fn print_func, vael_htab_exp_fn exp_func, vael_mutex **lock,
                                     int *id_out, void *opaque);
int vael_htab_create_rw_release_qx_lock(const char *name, int size, uint32_t flags, vael_htab_free_fn free_func,
                                        vael_htab_print_fn print_func, vael_htab_exp_fn exp_func,
                                        vael_mutex **rwlock, int *id_out, void *opaque);

/* Empties the table (under the caller's lock) and frees it. 1 when it is gone
 * (free_func is then not called) or on failure; 0 when somebody is inside it
 * through vael_htab_get_table or expiry: it stays, empty and findable, until
 * the last of them leaves, and free_func(arg) is called then. */
int vael_htab_destroy_ex(int id, vael_htab_destroyed_fn free_func, void *arg);
int vael_htab_destroy(int id);

/* The lowest id whose name matches, or -1. */
int vael_htab_find(const char *name);
/* Number of entries; 0 for an invalid table. */
int vael_htab_nents(int id);

/* ---------------------------------------------------------------- entries */

/* Creates or overwrites. 0 with *result_out VAEL_HTAB_SET_NEW or _UPDATED; or
 * -1 with *result_out _NOMEM, _EXISTS or _BAD_TMO. result_out may be null.
 * Invalid arguments or table: -1 with *result_out untouched. A refused
 * timeout in an expiring table releases the entry and cuts its bin's chain
 * at it, so entries behind it in the chain are lost as well, and the entry
 * count is left as it was: callers check a timeout before they pass it. */
int vael_htab_set(int id, const uint32_t *key, int nkeys, const uint32_t *vals, int nvals, uint32_t timeout,
                  int *result_out);
/* Changes the timer of an existing entry of an expiring table. 0, or -1 if
 * the entry is missing or the timeout refused (the timer is then untouched). */
int vael_htab_set_tmo(int id, const uint32_t *key, int nkeys, uint32_t timeout);
/* *len_inout: the capacity of dest in words (at least 1) on the way in, the
 * entry's value count on the way out. 0 with *result_out _GET_OK, or -1 with
 * _MISSING, _NO_ROOM (nothing copied, *len_inout unchanged) or _INVALID.
 * refresh restarts the entry's timer in a table with VAEL_HTAB_REFRESH. */
int vael_htab_get(int id, const uint32_t *key, int nkeys, uint32_t *dest, int *len_inout, int refresh,
                  int *result_out);
/* Looks up count keys of nkeys words each, stored back to back in keys, and
 * overlaps their memory accesses: for many keys much faster than as many
 * vael_htab_get calls. Row i of dest (dest_words words) receives the values
 * of key i, and results[i] their count, or VAEL_HTAB_GET_MISSING, or
 * VAEL_HTAB_GET_NO_ROOM when the values are more than dest_words (the row is
 * then left as it was). No timer is refreshed. The number of keys found, or
 * -1 for invalid arguments or table. */
int vael_htab_get_many(int id, const uint32_t *keys, int nkeys, int count, uint32_t *dest, int dest_words,
                       int *results);
/* 0 with *found_out 1 or 0; -1 for invalid arguments or table. */
int vael_htab_in(int id, const uint32_t *key, int nkeys, int *found_out, int refresh);
/* Removes the entry; caller is the reason handed to the free function. 0, or
 * -1 when there is no such entry. */
int vael_htab_del(int id, const uint32_t *key, int nkeys, const char *caller);
int vael_htab_delete_all(int id);
/* Calls iter_func for each entry, bins in rising order. read_only non-zero
 * makes it a reader's walk, which a user function may run. */
int vael_htab_traverse(int id, vael_htab_iter_fn iter_func, int read_only, void *ctx);

/* ---------------------------------------------------------------- from outside */

/* Reaches a table by name (when name is not null) or id, takes its lock, and
 * calls table_func(id, table, ctx) once, or else entry_func for each entry
 * (0 ends the walk). 1 when the table was found, else 0. A table destroyed
 * while this waits for its lock stays until this is done. */
int vael_htab_get_table(const char *name, int id, vael_htab_table_fn table_func, vael_htab_entry_fn entry_func,
                        void *ctx);
/* Prints through the debug print. */
int vael_htab_print(int id);
/* "Table '%s' has %d entries" with summary, else every entry. 0, or -1 when
 * no table has the name. */
int vael_htab_print_table(const char *name, int summary);
/* Chain lengths of every table. For one caller at a time. */
void vael_htab_print_stats(void);

/* ---------------------------------------------------------------- expiry */

/* One expiration opportunity. Cheap in a second with no gradual table: one
 * clock read, one compare, one increment. On the first call of a new second
 * every due entry of every expiring table goes; a gradual table instead
 * gives up one entry every so many calls, at a rate measured from the calls
 * of the second before. Any thread, any rate. */
void vael_htab_expire(void);

/* The ring positions of expiring tables: first the gradual ones, then those
 * with VAEL_HTAB_EXPIRE only. Read without a lock. */
extern int gradual_expire_count;
extern int regular_expire_count;
/* Second of the last expiration opportunity, and the opportunities counted in
 * it so far. */
extern uint32_t last_ex_opportunity_time;
extern uint32_t ex_opportunities_in_current_sec;

/* ---------------------------------------------------------------- user side of the control channel */

/* The request that reads a table, command VAEL_HTAB_CTL_COMMAND in the
 * control record, with a block of 132 bytes as data. The entries address is
 * a 32-bit word on a 32-bit host, where the word behind it is reserved; a
 * 64-bit host puts the high half of the address in that word. */
#define VAEL_HTAB_CTL_COMMAND 4
#define VAEL_HTAB_CTL_KEY_WORDS 16
#define VAEL_HTAB_CTL_VAL_WORDS 32

typedef struct vael_htab_ctl_table {
    char name[VAEL_HTAB_NAME_SIZE]; /* set by the caller */
    uint32_t id;
    uint32_t flags;
    uint32_t size;        /* bin count */
    uint32_t nents;
    uint32_t capacity;    /* of the entries array, set by the caller; 0 asks for the summary only */
    uint32_t returned;    /* entries written */
    uint32_t entries[2];  /* address of the caller's array: low word, then high word or reserved */
} vael_htab_ctl_table;

/* One returned entry, 208 bytes. */
typedef struct vael_htab_ctl_entry {
    uint32_t nkeys;
    uint32_t nvals;
    uint32_t key[VAEL_HTAB_CTL_KEY_WORDS];
    uint32_t vals[VAEL_HTAB_CTL_VAL_WORDS];
    uint32_t timeout;
    uint32_t remaining;
} vael_htab_ctl_entry;

/* What the caller gets of a table. */
typedef struct vael_htab_user_table_data {
    char name[VAEL_HTAB_NAME_SIZE];
    int32_t id;
    uint32_t size;
    uint32_t nents;
    uint32_t returned;
    vael_htab_ctl_entry *entries; /* `returned` entries, or null */
    int32_t nattrs;
    const char **attrs;           /* "expire", "expire gradual", "refresh", "no update", as set */
    int32_t expire;               /* 1 when the table has VAEL_HTAB_EXPIRE */
    uint32_t capacity;            /* entries allocated at `entries` */
} vael_htab_user_table_data;

/* Id and entry count of a table of one instance (-1: the default one; -2,
 * all instances, is refused). 0 or -1. */
int vael_htab_user_get_table_summary_multik(const char *name, int *id_out, int *nents_out, int instance);
int vael_htab_user_get_table_summary(const char *name, int *id_out, int *nents_out);
/* Fills *data: the summary, then unless summary_only the entries (at most
 * max_entries when that is 1 or more) and the attribute texts. 0, or -1 with
 * nothing left to free. */
int vael_htab_user_get_table_data(const char *name, vael_htab_user_table_data *data, int summary_only,
                                  int max_entries, int instance);
/* Frees both arrays of *data; may be called twice. */
void vael_htab_user_free_table_data(vael_htab_user_table_data *data);
/* Fetches from instance -1 and prints to standard output. 0 or -1. */
int vael_htab_user_print_table(const char *name, int max_entries, int summary_only);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_HTAB_H */
