// fuzz_metadata.cpp - the metadata in front of a pattern ("{caseless;LSS(ab)}:
// abc") and the pattern adds that parse it.
//
// The first input byte picks the flags and whether an LSS item is allowed;
// the rest is the pattern text, in a buffer of its exact size so that a read
// past it is caught. A parse that succeeds leaves the text as the input's
// tail, an LSS inside the input, and changes only the flags the language
// names; vael_pm_pattern_has_metadata fails exactly when the parse of its
// copy does. The text then goes through every add, the list is compiled and,
// when that succeeds, run over the text; afterwards both memory accounts are
// back where they started.
#include <cstring>
#include <memory>

#include "fuzz/fuzz_support.h"
#include "pm/vael_pm_internal.h"

namespace {

constexpr uint32_t kMetadataBits = VAEL_PM_CASELESS | VAEL_PM_LITERAL | VAEL_PM_SHORT_LSS | VAEL_PM_BOUND;

int ignore_match(vael_pm_handle *, int32_t, void *, const unsigned char *, uint32_t, uint32_t, vael_vbuf *, int *) {
    return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    vael_fuzz::start_library_once();
    if (size == 0 || size > 4096)
        return 0;
    const uint8_t mode = data[0];
    const auto n = (uint32_t)(size - 1);
    std::unique_ptr<char[]> owned(new char[n ? n : 1]);
    char *text = owned.get();
    std::memcpy(text, data + 1, n);
    const vael_fuzz::Accounts accounts;

    const uint32_t flags_in = (mode & 1 ? VAEL_PM_CASELESS : 0) | (mode & 2 ? VAEL_PM_SHORT_LSS : 0);
    const int allow_lss = mode & 4 ? 1 : 0;
    const char *lss = nullptr, *pattern = text;
    uint32_t lss_len = 0, pattern_len = n, flags = flags_in;
    const int rc = vael_pm_patterns_parse_metadata(&lss, &lss_len, &pattern, &pattern_len, &flags, allow_lss);
    if (rc == 0) {
        FUZZ_CHECK(pattern >= text && pattern + pattern_len == text + n, "text is not the input's tail");
        FUZZ_CHECK(((flags ^ flags_in) & ~kMetadataBits) == 0, "flags 0x%x from 0x%x", flags, flags_in);
        if (n == 0 || text[0] != '{')
            FUZZ_CHECK(pattern == text && flags == flags_in && !lss, "text without metadata changed");
        if (lss) {
            FUZZ_CHECK(allow_lss, "LSS item where none is allowed");
            FUZZ_CHECK(lss >= text && lss + lss_len <= text + n, "LSS outside the input");
        }
    }
    if (n > 0) {
        // has_metadata parses a copy made by pm_strdup, which writes zeros
        // for every byte after a NUL.
        std::unique_ptr<char[]> copy(new char[n]);
        std::memcpy(copy.get(), text, n);
        if (char *nul = static_cast<char *>(std::memchr(copy.get(), 0, n)))
            std::memset(nul, 0, (size_t)(copy.get() + n - nul));
        int has = -1;
        const char *p = copy.get();
        uint32_t p_len = n, f = 0;
        const char *l = nullptr;
        uint32_t l_len = 0;
        const int parse_rc = vael_pm_patterns_parse_metadata(&l, &l_len, &p, &p_len, &f, 1);
        FUZZ_CHECK(vael_pm_pattern_has_metadata(text, n, &has) == parse_rc, "has_metadata disagrees with the parse");
    }

    vael_pm_patterns *list = vael_pm_patterns_create();
    FUZZ_CHECK(list, "no list");
    vael_pm_patterns_add_simple_pattern(list, text, n, 1, flags_in);
    vael_pm_patterns_add_pattern(list, text, n, 2, flags_in);
    vael_pm_patterns_add_pattern_with_LSS(list, text, n, text, n, 3, flags_in);
    vael_pm_error err;
    vael_pm_handle *pm = vael_pm_compile(list, ignore_match, mode & 8 ? VAEL_PM_CASELESS : 0, &err, "fuzz");
    vael_pm_patterns_destroy(list);
    if (pm) {
        FUZZ_CHECK(vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(text), n, nullptr, nullptr,
                                   nullptr, 0) >= -1,
                   "run result");
        vael_pm_destroy(pm);
    } else {
        FUZZ_CHECK(err.error_type <= VAEL_PM_ERROR_COMPLEX, "error type %u", err.error_type);
    }
    accounts.check();
    return 0;
}
