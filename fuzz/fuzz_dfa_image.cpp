// fuzz_dfa_image.cpp - the load of a DFA image ("DZRS").
//
// Input: one byte of mode (bit 0: read through a vbuf of blocks of
// 1 + (mode >> 1) bytes, else from the flat buffer), then the image, in a
// buffer of its exact size. A load either refuses the image or gives a
// machine that runs a few texts without fault, dumps, and writes
// an image that loads again to the same image. Both memory accounts end
// where they started.
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "pm/vael_pm_internal.h"
#include "rem/vael_dfa_internal.h"

namespace {

void run(vael_dfa *dfa, const std::string &text) {
    lst_list *queue = nullptr;
    vael_dfa_exec(dfa, reinterpret_cast<const unsigned char *>(text.data()), (uint32_t)text.size(), nullptr, 0, &queue,
                  VAEL_PM_EXEC_ALL_MATCHES, nullptr);
    vael_queue_cleanup(queue);
}

std::vector<unsigned char> image_of(vael_dfa *dfa) {
    std::vector<unsigned char> image(vael_dfa_calculate_size(dfa));
    unsigned char *p = image.data();
    uint32_t space = (uint32_t)image.size();
    FUZZ_CHECK(!image.empty() && vael_dfa_serialize(dfa, &p, &space) == 0 && space == 0, "image of a loaded machine");
    return image;
}

void ignore(const char *, void *) {}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    vael_fuzz::start_library_once();
    if (size == 0 || size > (1u << 22))
        return 0;
    const uint8_t mode = data[0];
    const auto n = (uint32_t)(size - 1);
    std::unique_ptr<unsigned char[]> image(new unsigned char[n ? n : 1]);
    std::memcpy(image.get(), data + 1, n);
    const intptr_t kmem_start = qx_kmem_get_alloc_total();
    const intptr_t pm_start = vael_pmglob_memory_get_alloc_total();

    vael_dfa *dfa = vael_fuzz::load_engine_image(mode, image.get(), n, vael_dfa_deserialize);
    if (dfa) {
        // Reachability is the frame's check (the row's is_valid); a machine
        // handed out must run and dump whether or not all of it is reached.
        FUZZ_CHECK(vael_dfa_get_initial_state(dfa) != nullptr, "a loaded machine without an initial state");
        vael_dfa_is_valid(dfa);
        for (const std::string &text : {std::string("abc xyz ABC 0123"), std::string(300, 'a'),
                                        std::string(reinterpret_cast<const char *>(data), std::min<size_t>(size, 300))})
            run(dfa, text);
        for (int format = VAEL_DFA_DUMP_TEXT; format <= VAEL_DFA_DUMP_XML_ALL; format++)
            FUZZ_CHECK(vael_dfa_dump_to(dfa, format, ignore, nullptr) == 0, "dump of a loaded machine");
        std::vector<unsigned char> again = image_of(dfa);
        const unsigned char *p = again.data();
        uint32_t left = (uint32_t)again.size();
        vael_dfa *back = vael_dfa_deserialize(&p, &left, nullptr, nullptr);
        FUZZ_CHECK(back != nullptr && left == 0, "the image of a loaded machine does not load");
        FUZZ_CHECK(image_of(back) == again, "a second round trip changed the image");
        vael_dfa_destroy(back);
        vael_dfa_destroy(dfa);
    }
    lst_pool_drain(&vael_pmglob_match_data_lst_elems_pool);  // match queues keep cells for the next run
    FUZZ_CHECK(qx_kmem_get_alloc_total() == kmem_start, "general account off by %ld",
               (long)(qx_kmem_get_alloc_total() - kmem_start));
    FUZZ_CHECK(vael_pmglob_memory_get_alloc_total() == pm_start, "PM account off by %ld",
               (long)(vael_pmglob_memory_get_alloc_total() - pm_start));
    return 0;
}
