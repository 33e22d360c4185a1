/*
 * vael_pmglob.h - the records that travel between the frame and the engines.
 *
 * vael_pmglob_string: one string with its id and flags (an owned copy, always
 * followed by one NUL that size does not count). vael_pmglob_patterns: a list
 * of such strings, the form in which a first-tier engine receives its input.
 * vael_pmglob_match_data: one hit in a match queue, made by an engine and
 * consumed by the frame.
 */
#ifndef VAEL_PMGLOB_H
#define VAEL_PMGLOB_H

#include <stdint.h>

#include "vael/vael_list.h"
#include "vael/vael_pm.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vael_pmglob_string {
    unsigned char *pattern; /* owned copy, NUL-terminated beyond size */
    uint32_t size;          /* byte length */
    int32_t id;             /* internal id in a first-tier list, else the user's id or -1 */
    uint32_t flags;         /* pattern and LSS flags (VAEL_PM_*) */
} vael_pmglob_string;

typedef lst_list vael_pmglob_patterns;

/* Match flags of a queued hit. */
#define VAEL_PMGLOB_MATCH_KEEP_ALL 0x1u /* keep even if a hit of this id is queued */
#define VAEL_PMGLOB_MATCH_PRESENT  0x2u /* the offset lies in the present buffer */

typedef struct vael_pmglob_match_data {
    int32_t id;           /* internal pattern id */
    uint32_t offset;      /* offset of the match's last byte */
    uint32_t match_flags; /* VAEL_PMGLOB_MATCH_* */
    uint32_t hint;        /* length of the matched string for a first-tier hit */
    uint32_t extra[2];    /* engine extras; extra[1] is the match start when asked */
} vael_pmglob_match_data;

vael_pmglob_string *vael_pmglob_string_create(const unsigned char *bytes, uint32_t size, int32_t id,
                                              uint32_t flags);
vael_pmglob_string *vael_pmglob_string_dup(const vael_pmglob_string *s);
void vael_pmglob_string_destroy(vael_pmglob_string *s);
int32_t vael_pmglob_string_get_id(const vael_pmglob_string *s);
void vael_pmglob_string_set_id(vael_pmglob_string *s, int32_t id);
uint32_t vael_pmglob_string_get_size(const vael_pmglob_string *s);
const unsigned char *vael_pmglob_string_get_pattern(const vael_pmglob_string *s);
uint32_t vael_pmglob_string_get_flags(const vael_pmglob_string *s);
void vael_pmglob_string_add_flags(vael_pmglob_string *s, uint32_t flags);
void vael_pmglob_string_set_flags(vael_pmglob_string *s, uint32_t flags);
/* As vael_pmglob_string_create, with each NUL written as the four characters
 * "\x00" so a regular-expression engine sees an escape. A NUL right after
 * an odd run of backslashes is refused (null). */
vael_pmglob_string *vael_pmglob_string_create_replace_nulls(const unsigned char *bytes, uint32_t size, int32_t id,
                                                           uint32_t flags);
/* In place: with VAEL_PM_CASELESS letters to lower case, then with
 * VAEL_PM_DIGITLESS digits to '0'. */
void vael_pmglob_string_convert_to_lower_case(vael_pmglob_string *s, uint32_t flags);
/* A copy without terminator, as kept in a PM's report entry. Result 0 or -1;
 * a null string gives a null copy and size 0. */
int vael_pmglob_string_save(const vael_pmglob_string *s, unsigned char **bytes, uint32_t *size);
void vael_pmglob_string_dump(const vael_pmglob_string *s);
const char *vael_pmglob_string_to_debug_charp(const vael_pmglob_string *s);

vael_pmglob_patterns *vael_pmglob_patterns_create(void);
/* Adds a copy of s; the caller keeps s. */
int vael_pmglob_patterns_add(vael_pmglob_patterns *list, const vael_pmglob_string *s);
void vael_pmglob_patterns_destroy(vael_pmglob_patterns *list);
int vael_pmglob_patterns_get_num_of_patterns(vael_pmglob_patterns *list);
void vael_pmglob_patterns_dump(vael_pmglob_patterns *list);
void vael_pmglob_patterns_convert_all_patts_to_lower(vael_pmglob_patterns *list, uint32_t flags);

vael_pmglob_match_data *vael_pmglob_match_data_alloc(void);
void vael_pmglob_match_data_set(vael_pmglob_match_data *d, int32_t id, uint32_t offset, uint32_t match_flags,
                                uint32_t hint, const uint32_t *extra);
void vael_pmglob_match_data_get(const vael_pmglob_match_data *d, int32_t *id, uint32_t *offset, uint32_t *hint,
                                uint32_t *extra);
void vael_pmglob_match_data_free(vael_pmglob_match_data *d);
/* 0: queued; 1: a hit of this id is queued already (the caller frees d);
 * -1: failure (the caller frees d). Creates the queue at its first use. */
int vael_pmglob_match_data_enqueue(lst_list **queue, vael_pmglob_match_data *d);
int vael_pmglob_is_match_offset_in_present_buffer(const vael_pmglob_match_data *d);
int vael_pmglob_matches_pool_init(void);
void vael_pmglob_matches_pool_fini(void);

/* Character translation: flags bit 0x1 caseless, bit 0x2 digitless. */
void vael_pmglob_char_xlation_build(uint32_t flags, unsigned char *table);
/* reverse[b] is the next byte of b's group, a ring through the group's head. */
void vael_pmglob_char_xlation_build_reverse(const unsigned char *table, unsigned char *reverse);
/* Prints the table and, with a reverse table, its groups. */
void vael_pmglob_char_xlation_dump(const unsigned char *table, const unsigned char *reverse, const char *name);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_PMGLOB_H */
