/*
 * vael_image_io.h - the field reader and writer that every image of the
 * library goes through.
 *
 * A writer tests the space once for its whole image, so the puts below do
 * not test it again. A reader takes one field at a time: a field longer than
 * the space left makes the space 0 and is not read, which is no failure by
 * itself; the magic or count read next catches it. With a vbuf the fields
 * come from it through its iterator instead of the flat position.
 */
#ifndef VAEL_IMAGE_IO_H
#define VAEL_IMAGE_IO_H

#include <stdint.h>
#include <string.h>

#include "vael/vael_vbuf.h"

#ifdef __cplusplus

namespace vael {

inline void image_put_bytes(unsigned char **position, uint32_t *space, const void *bytes, uint32_t n) {
    if (n)
        memcpy(*position, bytes, n);
    *position += n;
    *space -= n;
}

inline void image_put_u32(unsigned char **position, uint32_t *space, uint32_t value) {
    image_put_bytes(position, space, &value, 4);
}

struct ImageReader {
    const unsigned char **position;
    uint32_t *space;
    vael_vbuf *vbuf;
    vael_vbuf_iter *iter;

    // True when the field was read.
    bool bytes(void *dest, uint32_t n) {
        if (n == 0)
            return true;
        if (*space < n) {
            *space = 0;
            return false;
        }
        if (!vbuf) {
            memcpy(dest, *position, n);
            *position += n;
            *space -= n;
            return true;
        }
        // The iterator is gone once the vbuf's last byte was read: nothing
        // is left to give.
        if (!iter) {
            *space = 0;
            return false;
        }
        int error = 0;
        iter = vael_vbuf_get_next_data2(vbuf, iter, dest, n, &error);
        if (!iter && error) {
            *space = 0;
            return false;
        }
        *space -= n;
        return true;
    }
    bool u32(uint32_t *value) {
        *value = 0;
        return bytes(value, 4);
    }
};

} // namespace vael

#endif /* __cplusplus */

#endif /* VAEL_IMAGE_IO_H */
