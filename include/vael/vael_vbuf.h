/*
 * vael_vbuf.h - virtual buffers: one logical byte string made of a list of
 * blocks that it does not copy.
 *
 * A stream inspector adds the pieces of a stream as they arrive; engines walk
 * them in place. With a maximum size the buffer is a sliding window: adding a
 * block that does not fit evicts whole blocks, oldest first, as few as make
 * room. Offsets count from the first byte the buffer still holds. A block's
 * memory stays the caller's until the buffer calls its free function.
 */
#ifndef VAEL_VBUF_H
#define VAEL_VBUF_H

#include <stdint.h>

#include "vael/vael_defs.h"
#include "vael/vael_list.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vael_vbuf vael_vbuf;

/* Called when the buffer lets go of a block. */
typedef void (*vael_vbuf_free_fn)(void *data, uint32_t len, void *ctx);

/* A walk position; the caller owns it and zeroes it before the first use. */
typedef struct vael_vbuf_iter {
    lst_cursor cursor; /* null before the walk */
    uint32_t offset;   /* offset inside the block at the cursor */
} vael_vbuf_iter;

vael_vbuf *vael_vbuf_create(uint32_t max_size, uint32_t flags);
void vael_vbuf_destroy(vael_vbuf *vbuf);
void vael_vbuf_reset(vael_vbuf *vbuf);
/* 0, or -1 when len exceeds the maximum size (the block stays the caller's)
 * or memory fails. */
int vael_vbuf_add_buffer_ex(vael_vbuf *vbuf, void *data, uint32_t len, vael_vbuf_free_fn free_func, void *ctx);
/* Moves all blocks of source behind target's and releases source's header. */
void vael_vbuf_concat(vael_vbuf *target, vael_vbuf *source);
/* Copies at most min(len, dest_size) bytes from offset; gives the count. */
uint32_t vael_vbuf_defrag(vael_vbuf *vbuf, uint32_t offset, uint32_t len, void *dest, uint32_t dest_size);
uint32_t vael_vbuf_get_char_at(vael_vbuf *vbuf, uint32_t offset);
uint32_t vael_vbuf_size(const vael_vbuf *vbuf);
int vael_vbuf_is_in_last_buffer(vael_vbuf *vbuf, uint32_t offset);
/* Gives iter and the next piece (the first from `offset` on the first call),
 * or null at the end. */
vael_vbuf_iter *vael_vbuf_iterate(vael_vbuf *vbuf, vael_vbuf_iter *iter, uint32_t offset,
                                  const unsigned char **data_out, uint32_t *len_out);
/* Sequential read of len bytes. Null with *err_out 0 after reading the very
 * last byte; null with a non-zero *err_out on failure (1: no data, 2: too
 * short). */
vael_vbuf_iter *vael_vbuf_get_next_data2(vael_vbuf *vbuf, vael_vbuf_iter *iter, void *dest, uint32_t len,
                                         int *err_out);
vael_vbuf_iter *vael_vbuf_get_next_data(vael_vbuf *vbuf, vael_vbuf_iter *iter, void *dest, uint32_t len);
/* True when the whole content equals buf; allocates a flat copy. */
int vael_vbuf_compare_to_buffer(vael_vbuf *vbuf, const void *buf, uint32_t len, int alloc_flags);
void vael_vbuf_dump_ex(vael_vbuf *vbuf, uint32_t offset, uint32_t len);
typedef void (*vael_vbuf_print_fn)(const unsigned char *data, uint32_t len);
void vael_vbuf_dump_formatted(vael_vbuf *vbuf, uint32_t offset, uint32_t len, vael_vbuf_print_fn print_func);

/* Copy-in chunk tuning of the kernel side; 0 turns it off. */
extern uint32_t vael_vbuf_copyin_chunk_size;
void vael_vbuf_copyin_chunk_size_cb(void);
int vael_vbuf_kernel_copyin_chunks(void);

#ifdef __cplusplus
}
#endif

#endif /* VAEL_VBUF_H */
