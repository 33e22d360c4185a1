/*
 * vael_pm_strings.h - byte strings and ASCII characters without a locale.
 *
 * Every string function takes explicit lengths; a NUL has no meaning in the
 * data unless a function says so. The character tests work on one unsigned
 * byte and know ASCII only, so a kernel module and a process read bytes alike.
 */
#ifndef VAEL_PM_STRINGS_H
#define VAEL_PM_STRINGS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* First place of needle in hay, or null; an empty needle gives hay. The scan
 * stops at a NUL in hay. */
const char *pm_strnstr(const char *hay, const char *needle, uint32_t hay_len, uint32_t needle_len);
/* Copies up to a NUL and fills the rest of n with zeros; gives dst. */
char *pm_strncpy(char *dst, const char *src, uint32_t n);
uint32_t pm_strlen(const char *s);
/* Unsigned bytes, NUL included: 1, -1 or 0. */
int pm_strncmp(const char *a, const char *b, uint32_t n);
int pm_strnicmp(const char *a, const char *b, uint32_t n);
/* First c within n bytes, or null. */
const char *pm_strnchr(const char *s, uint32_t n, char c);
char *pm_strcat(char *dst, const char *src);
/* First place of needle in hay as a byte compare, or null; an empty needle
 * gives hay. */
const void *pm_memmem(const void *needle, uint32_t needle_len, const void *hay, uint32_t hay_len);
/* Allocates len bytes and copies with pm_strncpy (not a NUL-ended copy).
 * Null src or len 0: null and 0, result 0. Out of memory: -1. Free the copy
 * with qx_kfree_(copy, len). */
int pm_strdup(const char *src, uint32_t len, char **dst, uint32_t *dst_len);
/* A log text in one static buffer, overwritten by the next call. */
const char *pm_str_to_debug_charp(const char *s, uint32_t len);
const char *pm_str_to_debug_charp_for_csv(const char *s, uint32_t len);
void pm_dump_str(const char *s, uint32_t len);

#ifdef __cplusplus
}

// ASCII character tests on one unsigned byte.
constexpr bool is_lower(unsigned char c) { return c >= 'a' && c <= 'z'; }
constexpr bool is_upper(unsigned char c) { return c >= 'A' && c <= 'Z'; }
constexpr bool is_alpha(unsigned char c) { return is_lower(c) || is_upper(c); }
constexpr bool is_digit(unsigned char c) { return c >= '0' && c <= '9'; }
constexpr bool is_space(unsigned char c) { return c == ' '; }
constexpr bool is_underscore(unsigned char c) { return c == '_'; }
constexpr bool is_word_character(unsigned char c) { return is_digit(c) || is_alpha(c) || is_underscore(c); }
constexpr bool is_punct(unsigned char c) {
    for (const char *p = "!@#$%^&*()_-+=|\\~`{[}]:;\"'<,>.?/"; *p; p++)
        if ((unsigned char)*p == c)
            return true;
    return false;
}
constexpr bool is_print(unsigned char c) { return is_digit(c) || is_alpha(c) || is_space(c) || is_punct(c); }
constexpr bool is_not_special(unsigned char c) { return c != '\\' && c != ',' && c != '\'' && c != '"'; }
constexpr bool is_whitespace(unsigned char c) { return c == ' ' || c == '\t' || c == '\n'; }
constexpr bool is_xdigit(unsigned char c) { return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
constexpr unsigned char to_lower(unsigned char c) { return is_upper(c) ? (unsigned char)(c + 32) : c; }
constexpr unsigned char to_upper(unsigned char c) { return is_lower(c) ? (unsigned char)(c - 32) : c; }
#endif

#endif /* VAEL_PM_STRINGS_H */
