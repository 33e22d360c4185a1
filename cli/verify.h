// verify.h - vael-scan --verify and --verify-word: the library's answers to
// a management tool's syntax questions about one pattern or phrase.
#ifndef VAEL_CLI_VERIFY_H
#define VAEL_CLI_VERIFY_H

#include <cstdint>
#include <cstdio>
#include <string_view>

namespace vael::cli {

// Three lines: whether `pattern` compiles in this library with the flags
// ("pm: ok", or "pm: refused (type T, index I): TEXT"), whether the older
// regular-expression engine reads it ("regexp: ok" or "regexp: refused"), and
// the migration answer ("meaning: code C, type T, offset O: TEXT", O being -1
// when no place applies). Gives 0 when the answer is success (code 0), 1 when
// it is not, 2 when the question could not be asked. The library must be
// started.
int verify_pattern(std::string_view pattern, std::uint32_t compile_flags, std::uint32_t pattern_flags,
                   std::FILE *out);

// One line: "word: ok", or "word: refused: TEXT". Gives 0 when the word
// matcher takes the phrase, 1 when not, 2 when the output failed.
int verify_word(std::string_view phrase, std::FILE *out);

}  // namespace vael::cli

#endif  // VAEL_CLI_VERIFY_H
