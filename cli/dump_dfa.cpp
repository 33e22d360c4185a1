// dump_dfa.cpp - vael-scan --dump-dfa: one pattern through the REM compile
// chain, its machine printed by the library's own dumps to a stream of the
// program's choosing rather than the debug output.
#include "dump_dfa.h"

#include <memory>

#include "rem/vael_rem_tier.h"
#include "vael/vael_dfa.h"

namespace vael::cli {

namespace {

struct DfaDeleter {
    void operator()(vael_dfa *dfa) const { vael_dfa_destroy(dfa); }
};

void to_stream(const char *text, void *ctx) { std::fputs(text, static_cast<std::FILE *>(ctx)); }

}  // namespace

std::optional<DfaDumpFormat> parse_dfa_dump_format(std::string_view word) {
    if (word == "text") return DfaDumpFormat::text;
    if (word == "csv") return DfaDumpFormat::csv;
    if (word == "jflap") return DfaDumpFormat::jflap;
    return std::nullopt;
}

int dump_rem_dfa(std::string_view pattern, std::uint32_t pattern_flags, std::uint32_t compile_flags,
                 DfaDumpFormat format, std::FILE *out, const char **why) {
    *why = nullptr;
    vael_pmglob_string *text =
        vael_pmglob_string_create(reinterpret_cast<const unsigned char *>(pattern.data()),
                                  static_cast<std::uint32_t>(pattern.size()), VAEL_PM_REM_DEFAULT_ID, pattern_flags);
    if (!text) return 2;
    vael_pm_error err;
    vael_pm_error_init(&err);
    // The frame adds dot-all (0x1) unless the compile flags ask otherwise (0x2).
    const std::uint32_t effective = (compile_flags & 0x2u) ? compile_flags : (compile_flags | 0x1u);
    std::unique_ptr<vael_dfa, DfaDeleter> dfa(
        static_cast<vael_dfa *>(vael_rem_compile(text, effective, pattern_flags, &err)));
    vael_pmglob_string_destroy(text);
    if (!dfa) {
        *why = err.error_string;
        return err.error_type == VAEL_PM_ERROR_INTERNAL && !err.error_string ? 2 : 1;
    }
    const int kind = format == DfaDumpFormat::text  ? VAEL_DFA_DUMP_TEXT
                     : format == DfaDumpFormat::csv ? VAEL_DFA_DUMP_CSV
                                                    : VAEL_DFA_DUMP_XML;
    if (vael_dfa_dump_to(dfa.get(), kind, to_stream, out) != 0) return 2;
    return std::fflush(out) == 0 ? 0 : 2;
}

}  // namespace vael::cli
