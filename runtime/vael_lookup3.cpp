// vael_lookup3.cpp - lookup3's hashlittle (Bob Jenkins, public domain
// algorithm), byte by byte, so that it reads no byte past the key and gives
// the little-endian result on any host.

#include "vael/vael_lookup3.h"

namespace {

inline uint32_t rot(uint32_t x, int k) { return (x << k) | (x >> (32 - k)); }

inline void mix(uint32_t &a, uint32_t &b, uint32_t &c) {
    a -= c; a ^= rot(c, 4);  c += b;
    b -= a; b ^= rot(a, 6);  a += c;
    c -= b; c ^= rot(b, 8);  b += a;
    a -= c; a ^= rot(c, 16); c += b;
    b -= a; b ^= rot(a, 19); a += c;
    c -= b; c ^= rot(b, 4);  b += a;
}

inline void final_mix(uint32_t &a, uint32_t &b, uint32_t &c) {
    c ^= b; c -= rot(b, 14);
    a ^= c; a -= rot(c, 11);
    b ^= a; b -= rot(a, 25);
    c ^= b; c -= rot(b, 16);
    a ^= c; a -= rot(c, 4);
    b ^= a; b -= rot(a, 14);
    c ^= b; c -= rot(b, 24);
}

inline uint32_t le32(const uint8_t *k, size_t n) {
    uint32_t v = 0;
    for (size_t i = 0; i < n && i < 4; i++)
        v |= (uint32_t)k[i] << (8 * i);
    return v;
}

}  // namespace

extern "C" uint32_t vael_hashlittle(const void *key, size_t length, uint32_t initval) {
    const uint8_t *k = static_cast<const uint8_t *>(key);
    uint32_t a, b, c;
    a = b = c = 0xdeadbeefu + (uint32_t)length + initval;
    while (length > 12) {
        a += le32(k, 4);
        b += le32(k + 4, 4);
        c += le32(k + 8, 4);
        mix(a, b, c);
        length -= 12;
        k += 12;
    }
    if (length == 0)
        return c;
    // The last 1 to 12 bytes, zero-padded.
    a += le32(k, length);
    if (length > 4)
        b += le32(k + 4, length - 4);
    if (length > 8)
        c += le32(k + 8, length - 8);
    final_mix(a, b, c);
    return c;
}
