// verify.cpp - vael-scan --verify and --verify-word.
//
// Asks the library's own verification calls and prints their answers; nothing
// here reads the pattern itself.
#include "verify.h"

#include <cinttypes>
#include <memory>
#include <string>

#include "vael/vael_apps.h"

namespace vael::cli {

namespace {

struct VerifyDeleter {
    void operator()(vael_pm_regexp_verify_handle *h) const { vael_pm_regexp_verify_fini(h); }
};

int finish(std::FILE *out, int status) { return std::fflush(out) == 0 ? status : 2; }

}  // namespace

int verify_pattern(std::string_view pattern, std::uint32_t compile_flags, std::uint32_t pattern_flags,
                   std::FILE *out) {
    const std::string text(pattern);  // the older engine reads a NUL-ended text
    const auto length = static_cast<std::uint32_t>(text.size());

    vael_pm_error err;
    if (vael_pm_verify_syntax(text.data(), length, compile_flags, pattern_flags, &err) == 0) {
        std::fprintf(out, "pm: ok\n");
    } else if (err.error_string) {
        std::fprintf(out, "pm: refused (type %" PRIu32 ", index %" PRIu32 "): %s\n", err.error_type,
                     err.error_index, err.error_string);
    } else {
        std::fprintf(out, "pm: refused\n");
    }
    std::fprintf(out, "regexp: %s\n", vael_regexp_verify_syntax(text.c_str()) == 0 ? "ok" : "refused");

    std::unique_ptr<vael_pm_regexp_verify_handle, VerifyDeleter> handle(vael_pm_regexp_verify_init());
    if (!handle) {
        std::fprintf(out, "meaning: not asked: the table of meta characters could not be built\n");
        return finish(out, 2);
    }
    vael_pm_regexp_result result;
    vael_pm_regexp_verify_identical_meaning(handle.get(), text.data(), length, compile_flags, pattern_flags,
                                            &result);
    const long offset = result.offset == VAEL_PM_REGEXP_NO_OFFSET ? -1L : static_cast<long>(result.offset);
    std::fprintf(out, "meaning: code %" PRId32 ", type %" PRIu32 ", offset %ld: %s\n", result.code, result.type,
                 offset, result.text ? result.text : "");
    return finish(out, result.code == VAEL_PM_REGEXP_SUCCESS ? 0 : 1);
}

int verify_word(std::string_view phrase, std::FILE *out) {
    vael_pm_error err;
    if (vael_wm_verify_syntax(phrase.data(), static_cast<std::uint32_t>(phrase.size()), &err) == 0) {
        std::fprintf(out, "word: ok\n");
        return finish(out, 0);
    }
    std::fprintf(out, "word: refused: %s\n", err.error_string ? err.error_string : "(no message)");
    return finish(out, 1);
}

}  // namespace vael::cli
