// fuzz_pm_image.cpp - the load of a PM image ("PZRS").
//
// Input: one byte of mode (bit 0: read through a vbuf of blocks of
// 1 + (mode >> 1) bytes, else from the flat buffer), then the image, in a
// buffer of its exact size. A load either refuses the image or gives a PM
// that validates, scans a few texts without fault, and writes an image that
// loads again to the PM it came from. Both memory accounts end where they
// started.
#include <algorithm>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "pm/vael_pm_internal.h"
#include "tier1/vael_wm.h"

namespace {

int count_hit(vael_pm_handle *, int32_t, void *arg, const unsigned char *, uint32_t, uint32_t, vael_vbuf *, int *) {
    ++*static_cast<int *>(arg);
    return 0;
}

std::vector<unsigned char> image_of(vael_pm_handle *pm) {
    unsigned char *buf = nullptr;
    uint32_t size = 0;
    FUZZ_CHECK(vael_pm_serialize(pm, &buf, &size) == 0, "image of a loaded PM");
    std::vector<unsigned char> image(buf, buf + size);
    vael_pmglob_memory_kfree_ex_(buf, size, __func__, __FILE__, __LINE__);
    return image;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    vael_fuzz::start_library_once();
    if (size == 0 || size > (1u << 20))
        return 0;
    const uint8_t mode = data[0];
    const vael_fuzz::Tail image(data, size);
    const uint32_t n = image.n;
    // The word matcher's fold buffer is shared and kept at its largest; no
    // phrase of the image is longer than the image.
    if (vael_wm_validate_phrase_temp_buffer(n) != 0)
        return 0;
    const vael_fuzz::Accounts accounts;

    vael_pm_handle *pm = nullptr;
    if (mode & 1) {
        vael_vbuf *vbuf = vael_fuzz::image_in_blocks(mode, image.bytes.get(), n);
        pm = vael_pm_deserialize_vbuf(vbuf, n, count_hit, "fuzz");
        vael_vbuf_destroy(vbuf);
    } else {
        pm = vael_pm_deserialize(n ? image.bytes.get() : nullptr, n, count_hit, "fuzz");
    }
    if (pm) {
        FUZZ_CHECK(pm->refcount == 1, "a fresh load shares a PM");
        FUZZ_CHECK(vael_pm_validate(pm) == 0, "a loaded PM that does not validate");
        int hits = 0;
        for (const std::string &text : {std::string("he she hers HIS his GET / abc123de"), std::string(200, 'a'),
                                        std::string(reinterpret_cast<const char *>(data), std::min<size_t>(size, 300))})
            for (uint32_t flags : {0u, VAEL_PM_EXEC_ALL_MATCHES})
                vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(),
                                nullptr, nullptr, &hits, flags);
        // The image of the loaded PM loads to the same PM (its uuid is
        // taken), and its bytes are the same but for the times.
        std::vector<unsigned char> again = image_of(pm);
        vael_pm_handle *same = vael_pm_deserialize(again.data(), (uint32_t)again.size(), count_hit, "fuzz");
        FUZZ_CHECK(same == pm && pm->refcount == 2, "the image of a loaded PM is another PM");
        vael_pm_destroy(same);
        vael_pm_destroy(pm);
    }
    accounts.check();
    return 0;
}
