// fuzz_thin_nfa_image.cpp - the load of a Thin NFA image ("NZRS").
//
// Input: one byte of mode (bit 0: read through a vbuf of blocks of
// 1 + (mode >> 1) bytes, else from the flat buffer), then the image, in a
// buffer of its exact size. A load either refuses the image or gives a
// handle that validates, scans a few texts without fault, and writes an
// image that loads again to the same image; the breadth-first walk accepts
// whatever the load accepted. Both memory accounts end where
// they started.
#include <algorithm>
#include <string>

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

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    vael_fuzz::start_library_once();
    if (size == 0 || size > (1u << 20))
        return 0;
    const uint8_t mode = data[0];
    const vael_fuzz::Tail image(data, size);
    const uint32_t n = image.n;
    const vael_fuzz::Accounts accounts;

    vael_thin_nfa *nfa = vael_fuzz::load_engine_image(mode, image.bytes.get(), n, vael_thin_nfa_deserialize);
    if (nfa) {
        FUZZ_CHECK(vael_thin_nfa_is_valid(nfa) == 1, "a loaded handle that does not validate");
        // The load may have taken the quick proof's word for it: the walk,
        // which decides any BNFA, must agree.
        FUZZ_CHECK(vael_thin_nfa_validate_walk(nfa) == 1, "a loaded handle that the walk refuses");
        for (const std::string &text : {std::string("he she hers HIS his"), std::string(200, 'a'),
                                        std::string(reinterpret_cast<const char *>(data), std::min<size_t>(size, 300))})
            scan(nfa, text);
        vael_fuzz::check_round_trip(nfa, vael_thin_get_serialize_size, vael_thin_nfa_serialize, vael_thin_nfa_deserialize,
                                    vael_thin_nfa_destroy);
        vael_thin_nfa_destroy(nfa);
    }
    accounts.check();
    return 0;
}
