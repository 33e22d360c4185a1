// fuzz_lss_finder.cpp - the LSS finder over any regular expression.
//
// Input: one byte of pattern flags (caseless, digitless, UTF-8, and whether
// to ask for the anchors), then the pattern, in a buffer of its exact size.
// A found LSS has at least one candidate; every candidate is non-empty and
// bounded, the longest one is among them, and the display text of all of
// them can be made. Both memory accounts end where they started.

#include "analysis/vael_pm_lss_finder.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    vael_fuzz::start_library_once();
    if (size == 0 || size > 4096)
        return 0;
    const uint8_t mode = data[0];
    const uint32_t flags = (mode & 1 ? (uint32_t)VAEL_PM_CASELESS : 0u) | (mode & 2 ? (uint32_t)VAEL_PM_DIGITLESS : 0u) |
                           (mode & 4 ? (uint32_t)VAEL_PM_UTF8 : 0u);
    const vael_fuzz::Tail text(data, size);
    const uint32_t n = text.n;
    const vael_fuzz::Accounts accounts;

    vael_pm_error err;
    vael_pm_error_init(&err);
    uint32_t anchors = 0;
    vael_pm_lss *lss = vael_pm_lss_find(text.bytes.get(), n, flags, &err, (mode & 8) ? &anchors : nullptr);
    // A refusal may carry no text: a pattern that is all anchors and ".*"
    // trims to nothing and is refused before any parse.
    if (lss) {
        const uint32_t count = vael_pm_lss_cans_num(lss);
        FUZZ_CHECK(count >= 1, "an LSS without candidates");
        FUZZ_CHECK(lss->longest_can != nullptr, "no longest candidate");
        uint32_t total = 0, longest = 0;
        bool longest_listed = false;
        uintptr_t value;
        for (lst_cursor c = lst_iterate(lss->can_list, nullptr, &value); c; c = lst_iterate(lss->can_list, c, &value)) {
            auto *can = reinterpret_cast<const vael_pm_lss_candidate *>(value);
            FUZZ_CHECK(can->len <= VAEL_PM_LSS_MAX_JOIN_BYTES, "candidate of %u bytes", can->len);
            FUZZ_CHECK(can->len == 0 || can->str != nullptr, "candidate without bytes");
            longest = can->len > longest ? can->len : longest;
            longest_listed |= can == lss->longest_can;
            total += can->len;
        }
        FUZZ_CHECK(longest_listed && lss->longest_can->len == longest, "longest candidate is not the longest");
        FUZZ_CHECK((anchors & ~(uint32_t)(VAEL_PM_LSS_START_ANCHOR | VAEL_PM_LSS_END_ANCHOR)) == 0, "anchors 0x%x",
                   anchors);
        uint32_t shown_len = 0;
        unsigned char *shown = vael_pm_lss_create_str(lss, anchors, total, &shown_len);
        if (shown)
            qx_kfree_(shown, shown_len);
        vael_pm_lss_destroy(lss);
    }
    accounts.check();
    return 0;
}
