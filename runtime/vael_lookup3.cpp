// vael_lookup3.cpp - lookup3's hashlittle (Bob Jenkins, public domain
// algorithm), byte by byte, so that it reads no byte past the key and gives
// the little-endian result on any host.

#include "vael/vael_lookup3.h"

#include "runtime/vael_lookup3_impl.h"

extern "C" uint32_t vael_hashlittle(const void *key, size_t length, uint32_t initval) {
    const uint8_t *k = static_cast<const uint8_t *>(key);
    return vael_lookup3::hashlittle(length, initval, [k](size_t i) { return k[i]; });
}
