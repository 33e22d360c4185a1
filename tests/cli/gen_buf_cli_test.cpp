// vael-scan --gen-buf and --gen-buf-miss, run as a rule's author runs them:
// the buffer printed, the rule's verdict over it, and the exit status.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "scan_runner.h"

namespace {

using vael_cli_test::Result;

TEST(GenBufCli, BufferAndVerdict) {
    const struct {
        std::vector<std::string> args;
        int status;
        std::string out, err;
    } rows[] = {
        {{"--gen-buf", "data: \"abc\";"}, 0,
         "buffer: 11 bytes: \"abc........\"\nverdict: match, ends at 2 (expected: match): agrees\n", ""},
        {{"--gen-buf-miss", "data: \"abc\";"}, 0,
         "buffer: 23 bytes: \"---Miss-Match Buffer---\"\nverdict: no match (expected: no match): agrees\n", ""},
        {{"--gen-buf", "data: \"k\"; test: 2, >, 1000, 0, relative, little; pcre: \"/\\d{2}z/\", relative, offset 2;"},
         0, "buffer: 14 bytes: \"k\\xe9\\x0300z........\"\nverdict: match, ends at 5 (expected: match): agrees\n",
         ""},
        {{"--gen-buf", "data: \"x\"; length: 6, exact, relative;"}, 0,
         "buffer: 7 bytes: \"x......\"\nverdict: match, ends at 0 (expected: match): agrees\n", ""},
        // The mismatch text itself holds what this rule looks for.
        {{"--gen-buf-miss", "data: \"Miss\";"}, 1,
         "buffer: 23 bytes: \"---Miss-Match Buffer---\"\nverdict: match, ends at 6 (expected: no match): "
         "disagrees\n",
         ""},
        // An absolute test as second keyword cannot be placed.
        {{"--gen-buf", "data: \"x\"; test: 1, =, 1, 0;"}, 1,
         "buffer: 21 bytes: \"---Invalide Buffer---\"\nverdict: none: no buffer can be made for this rule\n", ""},
        {{"--gen-buf", "data: \"abc\""}, 2, "", "rule refused: Keyword rule given by the user is illegal\n"},
        {{"--gen-buf", "data: \"a\"", "input.txt"}, 2, "",
         "vael-scan: --gen-buf and --gen-buf-miss take no pattern file or input\nTry 'vael-scan --help' for more "
         "information.\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.args[1]);
        const Result r = vael_cli_test::Scratch("gen_buf_cli").run(row.args);
        EXPECT_EQ(r.status, row.status);
        EXPECT_EQ(r.out, row.out);
        EXPECT_EQ(r.err, row.err);
    }
}

}  // namespace
