// fuzz_kw_rule.cpp - keyword rules as an operator might write them, and
// their images.
//
// Input: the rule text up to the first NUL, then the data to run it over. A
// rule either compiles or is refused with a text for its author; a compiled
// rule runs over the data (a match ends inside it), its image loads back
// into a manager whose image is the same bytes and whose verdict is the
// same, and every one-byte cut of the image is refused or loads without
// reading past its end. Both memory accounts end where they started.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "keywords/vael_kw_mgr.h"
#include "vael/vael_pmglob.h"

namespace {

struct Verdict {
    int rc, is_match;
    uint32_t match_end;
    bool operator==(const Verdict &o) const {
        return rc == o.rc && is_match == o.is_match && (!is_match || match_end == o.match_end);
    }
};

Verdict run(void *mgr, const std::string &data) {
    Verdict v{0, 0, 0};
    v.rc = vael_kw_mgr_exec(static_cast<vael_kw_mgr *>(mgr), reinterpret_cast<const unsigned char *>(data.data()),
                            (uint32_t)data.size(), &v.is_match, &v.match_end);
    FUZZ_CHECK(v.rc == 0 || v.rc == -1, "exec gave %d", v.rc);
    FUZZ_CHECK(v.rc != 0 || !v.is_match || v.match_end < data.size(), "a match ends at %u past %zu bytes",
               v.match_end, data.size());
    return v;
}

// One-byte cuts of the image, each in a block of exactly its size: every cut
// of a small image; of a large one (a few expressions make a few hundred KB
// of automata) the head, where the counts and sizes stand, the tail, and
// a few hundred cuts spread between: about 1,300 loads at most, where
// every cut of such an image took minutes and gigabytes under ASan.
void check_cuts(const std::vector<unsigned char> &image) {
    constexpr size_t kEvery = 4096, kEdge = 512, kSpread = 256;
    const size_t size = image.size();
    const size_t stride = size <= kEvery ? 1 : std::max<size_t>(1, size / kSpread);
    for (size_t n = 0; n < size; n += (n < kEdge || n + kEdge >= size) ? 1 : stride) {
        std::unique_ptr<unsigned char[]> cut(new unsigned char[n ? n : 1]);
        std::memcpy(cut.get(), image.data(), n);
        const unsigned char *p = cut.get();
        uint32_t space = (uint32_t)n;
        void *mgr = vael_kw_mgr_deserialize(&p, &space, nullptr, nullptr);
        FUZZ_CHECK(p <= cut.get() + n, "read past a cut image");
        if (mgr)
            vael_kw_mgr_destroy(mgr);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    vael_fuzz::start_library_once();
    if (size > 4096)
        return 0;
    vael_fuzz::Reader in(data, size);
    const std::string rule = in.until(0);
    const std::string text = in.rest();
    const vael_fuzz::Accounts accounts;

    vael_pmglob_string s{};
    std::vector<unsigned char> owned(rule.begin(), rule.end());
    owned.push_back(0);
    s.pattern = owned.data();
    s.size = (uint32_t)rule.size();
    s.id = 7;
    vael_pm_error err;
    vael_pm_error_init(&err);
    void *mgr = vael_pm_compile_keywords(&s, 0, 0, &err);
    if (!mgr) {
        FUZZ_CHECK(err.error_string != nullptr, "a refused rule without a text");
    } else {
        const Verdict first = run(mgr, text);
        const std::vector<unsigned char> image = vael_fuzz::check_round_trip(
            mgr, vael_kw_mgr_serialize_get_size, vael_kw_mgr_serialize, vael_kw_mgr_deserialize,
            vael_kw_mgr_destroy,
            [&](void *back) { FUZZ_CHECK(run(back, text) == first, "the loaded rule decides otherwise"); });
        check_cuts(image);
        vael_kw_mgr_destroy(mgr);
    }
    accounts.check();
    return 0;
}
