// dump_dfa.h - vael-scan --dump-dfa: the minimized DFA of one REM pattern as
// a table, a CSV table or JFLAP 6.0 XML.
#ifndef VAEL_CLI_DUMP_DFA_H
#define VAEL_CLI_DUMP_DFA_H

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string_view>

namespace vael::cli {

enum class DfaDumpFormat { text, csv, jflap };

// "text", "csv" or "jflap"; nothing for any other word.
std::optional<DfaDumpFormat> parse_dfa_dump_format(std::string_view word);

// Compiles `pattern` as the PM compiles an re line with VAEL_PM_USE_REM
// (`pattern_flags` the line's metadata bits, `compile_flags` the PM's) and
// writes the dump of the machine to `out`. The dump shows the letters a to z
// only. Gives 0, 1 when the machine refuses the pattern (the library's words
// go to *why), 2 when the library failed. The library must be started.
int dump_rem_dfa(std::string_view pattern, std::uint32_t pattern_flags, std::uint32_t compile_flags,
                 DfaDumpFormat format, std::FILE *out, const char **why);

}  // namespace vael::cli

#endif  // VAEL_CLI_DUMP_DFA_H
