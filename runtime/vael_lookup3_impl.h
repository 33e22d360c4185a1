// vael_lookup3_impl.h - lookup3's hashlittle over bytes handed out by a
// function, so that a caller can hash a text as it transforms it (the word
// matcher folds ASCII case on the way) without writing it out first. The
// result equals vael_hashlittle of the transformed bytes.
#ifndef VAEL_LOOKUP3_IMPL_H
#define VAEL_LOOKUP3_IMPL_H

#include <cstddef>
#include <cstdint>

namespace vael_lookup3 {

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

// byte_at(i) gives byte i of the key, for i below length.
template <class ByteAt>
inline uint32_t hashlittle(size_t length, uint32_t initval, ByteAt byte_at) {
    auto word = [&](size_t at, size_t n) {
        uint32_t v = 0;
        for (size_t i = 0; i < n && i < 4; i++)
            v |= (uint32_t)byte_at(at + i) << (8 * i);
        return v;
    };
    uint32_t a, b, c;
    a = b = c = 0xdeadbeefu + (uint32_t)length + initval;
    size_t at = 0;
    while (length > 12) {
        a += word(at, 4);
        b += word(at + 4, 4);
        c += word(at + 8, 4);
        mix(a, b, c);
        length -= 12;
        at += 12;
    }
    if (length == 0)
        return c;
    // The last 1 to 12 bytes, zero-padded.
    a += word(at, length);
    if (length > 4)
        b += word(at + 4, length - 4);
    if (length > 8)
        c += word(at + 8, length - 8);
    final_mix(a, b, c);
    return c;
}

}  // namespace vael_lookup3

#endif  // VAEL_LOOKUP3_IMPL_H
