// fuzz_dfa_image.cpp - the load of a DFA image ("DZRS").
//
// Input: one byte of mode (bit 0: read through a vbuf of blocks of
// 1 + (mode >> 1) bytes, else from the flat buffer), then the image, in a
// buffer of its exact size. A load either refuses the image or gives a
// machine that runs a few texts without fault, dumps, and writes
// an image that loads again to the same image. Both memory accounts end
// where they started.
#include <algorithm>
#include <string>

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

void ignore(const char *, void *) {}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    vael_fuzz::start_library_once();
    if (size == 0 || size > (1u << 22))
        return 0;
    const uint8_t mode = data[0];
    const vael_fuzz::Tail image(data, size);
    const uint32_t n = image.n;
    const vael_fuzz::Accounts accounts;

    vael_dfa *dfa = vael_fuzz::load_engine_image(mode, image.bytes.get(), n, vael_dfa_deserialize);
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
        vael_fuzz::check_round_trip(dfa, vael_dfa_calculate_size, vael_dfa_serialize, vael_dfa_deserialize,
                                    vael_dfa_destroy);
        vael_dfa_destroy(dfa);
    }
    accounts.check();
    return 0;
}
