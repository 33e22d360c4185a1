// image.cpp - the PM image as vael-scan uses it. The file is the image byte
// for byte, as vael_pm_serialize writes it, so any program of the library
// can load it with vael_pm_deserialize.
#include "image.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <unistd.h>

#include "pm/vael_pm_internal.h"
#include "read_file.h"
#include "tier1/vael_sm.h"
#include "vael/vael_thin_nfa.h"

namespace vael::cli {

namespace {

// The largest image read: the loader takes a 32-bit size.
constexpr std::size_t kMaxImageSize = UINT32_MAX;

}  // namespace

std::optional<std::string> save_image(vael_pm_handle *pm, const std::string &path) {
    unsigned char *image = nullptr;
    std::uint32_t size = 0;
    if (vael_pm_serialize(pm, &image, &size) != 0) return "cannot make the image of the compiled patterns";
    std::optional<std::string> error;
    std::FILE *out = std::fopen(path.c_str(), "wb");
    if (out == nullptr) {
        error = std::strerror(errno);
    } else {
        if (std::fwrite(image, 1, size, out) != size) error = std::strerror(errno);
        if (std::fclose(out) != 0 && !error) error = std::strerror(errno);
    }
    vael_pmglob_memory_kfree_ex_(image, size, __func__, __FILE__, __LINE__);
    return error;
}

std::optional<std::string> load_image(const std::string &path, vael_pm_match_cb match_cb, vael_pm_handle **pm) {
    *pm = nullptr;
    std::string bytes;
    if (auto why = read_whole_file(path, bytes, kMaxImageSize)) return why;
    *pm = vael_pm_deserialize(reinterpret_cast<const unsigned char *>(bytes.data()),
                              static_cast<std::uint32_t>(bytes.size()), match_cb, "vael-scan");
    if (*pm == nullptr) return "not an image of compiled patterns, a damaged one, or one of the other --engine (--debug pm tells why)";
    return std::nullopt;
}

std::uint32_t image_history(const vael_pm_handle *pm, std::uint32_t open_history) {
    std::uint32_t history = 0;
    for (std::uint32_t i = 0; i < pm->num_tier2; i++) {
        const vael_pm_array_one_handle &e = pm->pm_array[i];
        // A plain string matches its own text; anything else may reach
        // further than the string that found it.
        if (e.tier2_h != nullptr || e.type != VAEL_PM_TYPE_PATTERN) return open_history;
        history = std::max(history, e.lss_size - 1);
    }
    return std::min(history, open_history);
}

bool image_has_words(const vael_pm_handle *pm) {
    for (const auto &slot : pm->tier1)
        if (slot.tier1_h != nullptr && slot.tier1_type == VAEL_PM_TIER1_WM) return true;
    return false;
}

std::optional<int> dump_format(std::string_view word) {
    if (word == "csv") return VAEL_THIN_NFA_DUMP_CSV;
    if (word == "jflap") return VAEL_THIN_NFA_DUMP_XML;
    return std::nullopt;
}

std::optional<std::string> dump_bnfa(vael_pm_handle *pm, int format, std::FILE *out) {
    const vael_pm_tier1_slot *found = nullptr;
    for (const auto &slot : pm->tier1)
        if (slot.tier1_h != nullptr && slot.tier1_type == VAEL_PM_TIER1_STRING) found = &slot;
    const vael_pm_tier1_funcs *row = found ? &pm_tier1_funcs[found->tier1_type] : nullptr;
    const bool thin = row != nullptr && row->name != nullptr && std::strcmp(row->name, "Thin NFA") == 0;
    const bool sm = row != nullptr && row->name != nullptr && std::strcmp(row->name, "SM") == 0;
    if (!thin && !sm) return "the patterns have no Thin NFA or SM to dump (words have none)";
    // The dump prints through the library's debug output, which is standard
    // error; for the span of the dump that is `out`, so that lines of any
    // length arrive whole.
    std::fflush(out);
    std::fflush(stderr);
    const int saved = ::dup(STDERR_FILENO);
    if (saved < 0 || ::dup2(::fileno(out), STDERR_FILENO) < 0) {
        if (saved >= 0) ::close(saved);
        return std::string("cannot write the dump: ") + std::strerror(errno);
    }
    const int rc = thin ? vael_thin_nfa_dump(static_cast<const vael_thin_nfa *>(found->tier1_h), format)
                        : vael_sm_dump(static_cast<vael_dfa *>(found->tier1_h),
                                       format == VAEL_THIN_NFA_DUMP_CSV ? VAEL_SM_DUMP_CSV : VAEL_SM_DUMP_XML);
    std::fflush(stderr);
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    if (rc != 0) return "the dump failed (out of memory)";
    return std::nullopt;
}

}  // namespace vael::cli
