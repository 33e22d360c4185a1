/*
 * vael_lookup3.h - Bob Jenkins's lookup3 hash of a byte string, the public
 * algorithm, as the word matcher's buckets use it.
 */
#ifndef VAEL_LOOKUP3_H
#define VAEL_LOOKUP3_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* lookup3's hashlittle: the 32-bit hash of `length` bytes from `initval`,
 * the same on every host (bytes are read as little-endian words). */
uint32_t vael_hashlittle(const void *key, size_t length, uint32_t initval);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_LOOKUP3_H */
