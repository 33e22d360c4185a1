// explain.h - vael-scan's views inside the library's pattern analysis.
#ifndef VAEL_CLI_EXPLAIN_H
#define VAEL_CLI_EXPLAIN_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace vael::cli {

// One line per REM token of `pattern`: the class name and, for a character
// class, the class in escaped form ("a", "[0-9]", "[^\x0a]"), for a
// quantifier its counts ("{2,5}"). A refused pattern ends the list with
// "error: TEXT (index N)", the pattern, and a caret under the position.
// `flags` are pattern flags (VAEL_PM_UTF8 lexes in UTF-8 mode). Gives 0 when
// the pattern lexed, 1 when it was refused, 2 when the library failed.
int print_tokens(std::string_view pattern, std::uint32_t flags, std::FILE *out);

// What the LSS finder makes of `pattern`: "LSS: 'abc' 'def'" with a note
// whether the strings replace the expression or need it as second tier, then
// "flags: " and the pattern flags the finding sets (MULTI_LSS, NEED_TIER2,
// LSS_START_ANCHOR, LSS_END_ANCHOR, joined by '|', or 0); "no LSS" when no
// string is certain; a refusal as print_tokens shows it. Gives 0, or 1 for a
// refusal, 2 when the library failed.
int print_lss(std::string_view pattern, std::uint32_t flags, std::FILE *out);

// The number of states of the minimized DFA that the REM machine makes of
// `pattern`, compiled as the PM compiles an re line with VAEL_PM_USE_REM
// (`pattern_flags` the line's metadata bits, `compile_flags` the PM's); -1
// when the machine refuses the pattern. The library must be started.
long rem_dfa_states(std::string_view pattern, std::uint32_t pattern_flags, std::uint32_t compile_flags);

// What the compile reads of a pattern beside its text, as the fields
// " rewritten='TEXT'" (a UTF-8 expression, `pattern_flags` holding
// VAEL_PM_UTF8, as the byte-level text the LSS finder and REM see, or
// "rewritten=refused") and " lss_used='S' 'S'..." (the strings the first tier
// looks for: the user's `lss` as the library reads it, else, for a UTF-8
// expression, what the finder gives for the rewrite; "lss_used=none" when it
// finds no string, "lss_used=refused" for a refused one, and " ^" or " $" for
// an anchor).
// `expression` false: the text is a keyword rule and only a user's LSS is
// read. The library must be started.
std::string analysis_fields(std::string_view text, const std::string_view *lss, bool expression,
                            std::uint32_t pattern_flags, std::uint32_t compile_flags);

// The pattern with non-printing bytes as \xHH, and the column at which byte
// `index` of the pattern starts in it.
std::string escaped_pattern(std::string_view pattern, std::size_t index, std::size_t *column);

}  // namespace vael::cli

#endif  // VAEL_CLI_EXPLAIN_H
