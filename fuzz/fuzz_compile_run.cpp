// fuzz_compile_run.cpp - compile a random set of strings into a PM and run it,
// against a brute-force search written here.
//
// Input: one byte of configuration (caseless, digitless, how to cut the data
// into virtual-buffer blocks), then up to 64 strings each ended by a 0xff
// byte (0xff 0xfe ends the set early), then the data. Every string is added as a plain pattern with its
// index as id; with every occurrence asked for, the run must report exactly
// the (id, end offset) pairs that a naive search finds, once over the flat
// buffer and once over the same bytes cut into virtual-buffer blocks.
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "pm/vael_pm_internal.h"

namespace {

using Hits = std::vector<std::pair<int32_t, uint32_t>>;

int collect(vael_pm_handle *, int32_t id, void *arg, const unsigned char *, uint32_t, uint32_t offset, vael_vbuf *,
            int *) {
    static_cast<Hits *>(arg)->push_back({id, offset});
    return 0;
}

unsigned char fold(unsigned char c, uint32_t flags) {
    if ((flags & VAEL_PM_DIGITLESS) && c >= '0' && c <= '9')
        return '0';
    if ((flags & VAEL_PM_CASELESS) && c >= 'A' && c <= 'Z')
        return (unsigned char)(c - 'A' + 'a');
    return c;
}

Hits brute_force(const std::vector<std::pair<int32_t, std::string>> &patterns, const std::string &data,
                 uint32_t flags) {
    Hits out;
    for (const auto &[id, p] : patterns)
        for (size_t start = 0; start + p.size() <= data.size(); start++) {
            size_t i = 0;
            while (i < p.size() && fold((unsigned char)data[start + i], flags) == fold((unsigned char)p[i], flags))
                i++;
            if (i == p.size())
                out.push_back({id, (uint32_t)(start + p.size() - 1)});
        }
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
    vael_fuzz::start_library_once();
    vael_fuzz::Reader in(bytes, size);
    const uint8_t config = in.byte();
    // No digitless compile: under it a string with a digit is confirmed by a
    // second tier that reads the string as an expression, which the brute
    // force does not model.
    const uint32_t flags = config & 1 ? VAEL_PM_CASELESS : 0;
    const uint32_t block = 1 + (config >> 2); // 1..64 bytes per virtual-buffer block

    std::vector<std::pair<int32_t, std::string>> patterns;
    vael_pm_patterns *list = vael_pm_patterns_create();
    FUZZ_CHECK(list, "no list");
    for (int32_t id = 0; id < 64 && !in.empty(); id++) {
        std::string p = in.until(0xff);
        // Metadata is another target's; an empty string cannot be added.
        if (p.empty() || p[0] == '{' || p.size() > 64)
            continue;
        // Literal: the bytes are the string, whatever metacharacters they hold.
        FUZZ_CHECK(vael_pm_patterns_add_simple_pattern(list, p.data(), (uint32_t)p.size(), id,
                                                        (flags & VAEL_PM_CASELESS) | VAEL_PM_LITERAL) == 0,
                   "add of pattern %d", id);
        patterns.push_back({id, std::move(p)});
        if (in.take(0xfe)) // 0xff 0xfe ends the set
            break;
    }
    std::string data = in.rest();
    if (data.size() > 8192)
        data.resize(8192);

    vael_pm_error err;
    vael_pm_handle *pm = vael_pm_compile(list, collect, flags, &err, "fuzz");
    vael_pm_patterns_destroy(list);
    if (patterns.empty()) {
        FUZZ_CHECK(!pm, "a PM from an empty list");
        return 0;
    }
    FUZZ_CHECK(pm, "compile failed: %s", err.error_string ? err.error_string : "(no text)");
    const Hits want = brute_force(patterns, data, flags);

    if (!data.empty()) {
        Hits got;
        const int rc = vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(data.data()),
                                       (uint32_t)data.size(), nullptr, nullptr, &got, VAEL_PM_EXEC_ALL_MATCHES);
        std::sort(got.begin(), got.end());
        FUZZ_CHECK(rc == 0 && got == want, "flat run: rc %d, %zu hits, %zu expected", rc, got.size(), want.size());

        vael_vbuf *vbuf = vael_vbuf_create((uint32_t)data.size(), 0);
        FUZZ_CHECK(vbuf, "no vbuf");
        for (size_t at = 0; at < data.size(); at += block) {
            const size_t n = std::min<size_t>(block, data.size() - at);
            FUZZ_CHECK(vael_vbuf_add_buffer_ex(vbuf, &data[at], (uint32_t)n, nullptr, nullptr) == 0, "add block");
        }
        got.clear();
        const int vrc = vael_pm_exec_ex(pm, nullptr, 0, vbuf, nullptr, &got, VAEL_PM_EXEC_ALL_MATCHES);
        std::sort(got.begin(), got.end());
        FUZZ_CHECK(vrc == 0 && got == want, "vbuf run in blocks of %u: rc %d, %zu hits, %zu expected", block, vrc,
                   got.size(), want.size());
        vael_vbuf_destroy(vbuf);
    }
    vael_pm_destroy(pm);
    return 0;
}
