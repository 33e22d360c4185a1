// fuzz_thin_nfa_image.cpp - the load of a Thin NFA image ("NZRS").
//
// Input: one byte of mode (bit 0: read through a vbuf of blocks of
// 1 + (mode >> 1) bytes, else from the flat buffer), then the image, in a
// buffer of its exact size. A load either refuses the image or gives a
// handle that validates, scans a few texts without fault, and writes an
// image that loads again to the same image. Both memory accounts end where
// they started.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "pm/vael_pm_internal.h"
#include "tier1/vael_thin_nfa_internal.h"

namespace {

void scan(vael_thin_nfa *nfa, const std::string &text) {
    lst_list *queue = nullptr;
    vael_thin_nfa_exec(nfa, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(), nullptr, 0,
                       &queue, VAEL_PM_EXEC_ALL_MATCHES, nullptr);
    vael_queue_cleanup(queue);
}

std::vector<unsigned char> image_of(const vael_thin_nfa *nfa) {
    std::vector<unsigned char> image(vael_thin_get_serialize_size(nfa));
    unsigned char *p = image.data();
    uint32_t space = (uint32_t)image.size();
    FUZZ_CHECK(!image.empty() && vael_thin_nfa_serialize(nfa, &p, &space) == 0 && space == 0, "image of a loaded handle");
    return image;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    vael_fuzz::start_library_once();
    if (size == 0 || size > (1u << 20))
        return 0;
    const uint8_t mode = data[0];
    const auto n = (uint32_t)(size - 1);
    std::unique_ptr<unsigned char[]> image(new unsigned char[n ? n : 1]);
    std::memcpy(image.get(), data + 1, n);
    const intptr_t kmem_start = qx_kmem_get_alloc_total();
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();

    vael_thin_nfa *nfa = vael_fuzz::load_engine_image(mode, image.get(), n, vael_thin_nfa_deserialize);
    if (nfa) {
        FUZZ_CHECK(vael_thin_nfa_is_valid(nfa) == 1, "a loaded handle that does not validate");
        for (const std::string &text : {std::string("he she hers HIS his"), std::string(200, 'a'),
                                        std::string(reinterpret_cast<const char *>(data), std::min<size_t>(size, 300))})
            scan(nfa, text);
        std::vector<unsigned char> again = image_of(nfa);
        const unsigned char *p = again.data();
        uint32_t left = (uint32_t)again.size();
        vael_thin_nfa *back = vael_thin_nfa_deserialize(&p, &left, nullptr, nullptr);
        FUZZ_CHECK(back != nullptr && left == 0, "the image of a loaded handle does not load");
        FUZZ_CHECK(image_of(back) == again, "a second round trip changed the image");
        vael_thin_nfa_destroy(back);
        vael_thin_nfa_destroy(nfa);
    }
    lst_pool_drain(&vael_pmglob_match_data_lst_elems_pool); // match queues keep cells for the next run
    FUZZ_CHECK(qx_kmem_get_alloc_total() == kmem_start, "general account off by %ld",
               (long)(qx_kmem_get_alloc_total() - kmem_start));
    FUZZ_CHECK(vael_pmglob_memory_get_alloc_total() == pm_start, "PM account off by %ld",
               (long)(vael_pmglob_memory_get_alloc_total() - pm_start));
    return 0;
}
