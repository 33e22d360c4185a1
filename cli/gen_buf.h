// gen_buf.h - vael-scan --gen-buf and --gen-buf-miss: a buffer made for a
// keyword rule by the library's test buffer generator, and the rule's verdict
// over it, so that a rule's author sees what the rule is meant to match.
#ifndef VAEL_CLI_GEN_BUF_H
#define VAEL_CLI_GEN_BUF_H

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

namespace vael::cli {

// The regular-expression side of the generator: writes into dest the shortest
// text that the expression matches, as the library's own regex machine reads
// the expression (its DFA, walked breadth first from the initial state to
// the nearest final state, trying printable bytes first). At most *size
// bytes; *size receives the length written. 0, or -1 when the machine
// refuses the expression, no text of at most *size bytes is matched, or
// match is 0 (only matching texts are made). The library must be started.
int gen_regex(const unsigned char *pattern, std::uint32_t pattern_len, std::uint32_t reserved, unsigned char *dest,
              std::uint32_t *size, std::uint32_t reserved2, std::uint32_t pattern_flags, std::uint32_t caseless,
              int match);

// The filler the tool puts around the keywords' bytes: '.', which is no
// digit in any base a number field reads and no letter.
void gen_fill(unsigned char *buf, std::uint32_t size);

// Bytes as a pattern file writes them: printable ASCII as it stands, '\' as
// "\\", every other byte as "\xHH".
std::string escape_bytes(std::string_view bytes);

// Makes a buffer for `rule` (match: one the rule is meant to match; else one
// it is meant not to match), prints it and the compiled rule's verdict over
// it to out, two lines:
//   buffer: N bytes: "ESCAPED"
//   verdict: match, ends at E (expected: match): agrees
// A rule for which no buffer can be made prints that instead of the verdict.
// Gives 0 when the verdict agrees, 1 when it does not or no buffer can be
// made, 2 when the rule is refused (the reason on err) or the library fails.
// The library must be started.
int gen_buf(std::string_view rule, bool match, std::FILE *out, std::FILE *err);

}  // namespace vael::cli

#endif  // VAEL_CLI_GEN_BUF_H
