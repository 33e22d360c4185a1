// vael-scan --verify and --verify-word, run as a user runs them: exact
// standard output and exit status for each answer, and the usage errors.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "scan_runner.h"

namespace {

using vael_cli_test::Result;

Result run(std::vector<std::string> args) { return vael_cli_test::Scratch("verify_cli").run(std::move(args)); }

const std::string kTry = "\nTry 'vael-scan --help' for more information.\n";
const std::string kOk = "Success - pattern has identical meaning in new and old regular expression engines";

TEST(VerifyCli, Answers) {
    const struct {
        std::vector<std::string> args;
        int status;
        std::string out, usage = "";  // usage: the message of a usage error
    } rows[] = {
        {{"-i", "--verify", "ab[0-9]+c"}, 0, "pm: ok\nregexp: ok\nmeaning: code 0, type 0, offset -1: " + kOk + "\n"},
        {{"--verify", "ab"}, 1,
         "pm: ok\nregexp: ok\nmeaning: code -2, type 3, offset -1: Old regular expression engine (Regexp) is "
         "caseless, but new regular expression engine (PM) is case-sensitive\n"},
        {{"--verify=a\\d", "--caseless"}, 1,
         "pm: ok\nregexp: ok\nmeaning: code -8, type 2, offset 2: Found decimal special character '\\d'\n"},
        {{"-i", "--verify", "a(b"}, 1,
         "pm: refused (type 0, index 3): Missing a closing ')'\nregexp: refused\nmeaning: code -6, type 1, offset "
         "-1: Syntax verification failed for new regular expression engine (PM)\n"},
        {{"-i", "--rem", "--verify", "x^y"}, 1,
         "pm: ok\nregexp: ok\nmeaning: code -22, type 1, offset 1: Found anchor '^' in the middle of the "
         "pattern\n"},
        {{"--verify-word", "foo bar"}, 0, "word: ok\n"},
        {{"--verify-word", "ab\xC3"}, 1, "word: refused: not valid utf8 char in the phrase\n"},
        {{"--verify", "a", "--verify-word", "b"}, 2, "", "--verify and --verify-word cannot be given together"},
        {{"--verify", "a", "file.txt"}, 2, "", "--verify and --verify-word take no pattern file or input"},
        {{"-p", "p.txt", "--verify-word", "b"}, 2, "", "--verify and --verify-word take no pattern file or input"},
        {{"--verify"}, 2, "", "option '--verify' needs a value"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.args.back());
        const Result r = run(row.args);
        EXPECT_EQ(r.status, row.status);
        EXPECT_EQ(r.out, row.out);
        EXPECT_EQ(r.err, row.usage.empty() ? "" : "vael-scan: " + row.usage + kTry);
    }
}

}  // namespace
