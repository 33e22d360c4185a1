// vael-scan's runs that answer one question, as a user runs them: --verify and --verify-word, --gen-buf and --gen-
// buf-miss, --dump-dfa and --stats; the answer, the exit status, and the usage errors.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "scan_runner.h"

namespace {

using vael_cli_test::check_rows;
using vael_cli_test::Scratch;

const std::string kTry = "\nTry 'vael-scan --help' for more information.\n";

// Exact standard output and error.
TEST(OneShotCli, VerifyAnswers) {
    const std::string ok = "Success - pattern has identical meaning in new and old regular expression engines";
    const std::string both = "--verify and --verify-word take no pattern file or input";
    check_rows(Scratch("verify_cli"), {
        {{"-i", "--verify", "ab[0-9]+c"}, 0, "pm: ok\nregexp: ok\nmeaning: code 0, type 0, offset -1: " + ok + "\n", ""},
        {{"--verify", "ab"}, 1,
         "pm: ok\nregexp: ok\nmeaning: code -2, type 3, offset -1: Old regular expression engine (Regexp) is "
         "caseless, but new regular expression engine (PM) is case-sensitive\n", ""},
        {{"--verify=a\\d", "--caseless"}, 1,
         "pm: ok\nregexp: ok\nmeaning: code -8, type 2, offset 2: Found decimal special character '\\d'\n", ""},
        {{"-i", "--verify", "a(b"}, 1,
         "pm: refused (type 0, index 3): Missing a closing ')'\nregexp: refused\nmeaning: code -6, type 1, offset "
         "-1: Syntax verification failed for new regular expression engine (PM)\n", ""},
        {{"-i", "--rem", "--verify", "x^y"}, 1,
         "pm: ok\nregexp: ok\nmeaning: code -22, type 1, offset 1: Found anchor '^' in the middle of the "
         "pattern\n", ""},
        {{"--verify-word", "foo bar"}, 0, "word: ok\n", ""},
        {{"--verify-word", "ab\xC3"}, 1, "word: refused: not valid utf8 char in the phrase\n", ""},
        {{"--verify", "a", "--verify-word", "b"}, 2, "",
         "vael-scan: --verify and --verify-word cannot be given together" + kTry},
        {{"--verify", "a", "file.txt"}, 2, "", "vael-scan: " + both + kTry},
        {{"-p", "p.txt", "--verify-word", "b"}, 2, "", "vael-scan: " + both + kTry},
        {{"--verify"}, 2, "", "vael-scan: option '--verify' needs a value" + kTry},
    }, true);
}

// The buffer printed, the rule's verdict over it, exactly.
TEST(OneShotCli, GenBufAnswers) {
    check_rows(Scratch("gen_buf_cli"), {
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
         "disagrees\n", ""},
        // An absolute test as second keyword cannot be placed.
        {{"--gen-buf", "data: \"x\"; test: 1, =, 1, 0;"}, 1,
         "buffer: 21 bytes: \"---Invalide Buffer---\"\nverdict: none: no buffer can be made for this rule\n", ""},
        {{"--gen-buf", "data: \"abc\""}, 2, "", "rule refused: Keyword rule given by the user is illegal\n"},
        {{"--gen-buf", "data: \"a\"", "input.txt"}, 2, "",
         "vael-scan: --gen-buf and --gen-buf-miss take no pattern file or input" + kTry},
    }, true);
}

// The machine's dump of one re line, or a message and status 2.
TEST(OneShotCli, DumpDfa) {
    auto times = [](int n, const std::string &piece) { std::string s; while (n-- > 0) s += piece; return s; };
    const Scratch dir("dump_dfa");
    dir.write("p.txt", "1\tre\tab\n2\tstr\tfoo\n3\tre\t{caseless}:x[a-c]y\n4\tre\ta{x\n");
    std::vector<vael_cli_test::Row> rows = {
        {{"--rem", "--dump-dfa", "1", "csv"}, 0,
         "The dfa has 3 states.\nstate_id,level,is_final,a,b,c,d,e,f,g,h,i,j,k,l,m,n,o,p,q,r,s,t,u,v,w,x,y,z\n1,0,0,2" +
             times(25, ",1") + "\n2,1,0,2,0" + times(24, ",1") + "\n0,2,1" + times(26, ",0") + "\n", ""},
        {{"--dump-dfa=1", "jflap"}, 0, "?>\n<!--Created with JFLAP 6.0.--> <structure>", ""},
        {{"--dump-dfa", "2", "csv"}, 2, "", "--dump-dfa: no re line with id 2"},
        {{"--dump-dfa", "4", "csv"}, 2, "",
         "p.txt:4: the REM machine refuses pattern 4: Illegal sequence beginning with '{'"},
        {{"--dump-dfa", "1"}, 2, "", "option '--dump-dfa' takes an id and then a format: text, csv or jflap"},
        {{"--dump-dfa", "1x", "csv"}, 2, "", "bad pattern id '1x' for --dump-dfa"},
    };
    for (auto &row : rows)
        row.args.insert(row.args.begin(), {"-p", "p.txt"});
    check_rows(dir, rows, false);
}

// The report after the scan on standard error, its pieces in order; the
// matches on standard output as without it; bad flags refused.
TEST(OneShotCli, StatsReportAfterTheScan) {
    const Scratch dir("stats_cli");
    dir.write("p.txt", "1\tabc\n2\txyz\n3\tre\t{LSS(foo)}:foo[0-9]+bar\n");
    dir.write("in.txt", "abc foo bar\nxyz foo12bar\n");
    // The option, the exit status and pieces of standard error, in this order.
    const struct { const char *option; int status; std::vector<std::string> err; } rows[] = {
        {"--stats", 0,
         {"Printing PM 0 stats ( vael-scan )\n", "Number of patterns in PM: 3\n", "Number of matches in first tier: 3\n",
          "LSS (matched: 1, matches that resulted in pm match: 1, match ratio: 1/1 ):foo\n"}},
        {"--stats=S=ID,D,LEVEL=TIER2,FORMAT=CSV", 0,
         {"PM id;PM name;Pattern id;Inetrnal pattern id;flags;LSS matches #;", "\n0;vael-scan;3;2;0x00000000;1;1;1/1;"
                                                                              "\"foo\";FALSE;\"foo[0-9]+bar\";TRUE;PCRE;",
          "\n0;vael-scan;2;1;", "\n0;vael-scan;1;0;"}},
        {"--stats=/LEVEL=PM", 0, {"Number of second tiers which ran is: 1\n"}},
        {"--stats=X", 2, {"vael-scan: --stats: Failed to parse flags: Unknown flag\nTry 'vael-scan --help'"}},
        {"--stats=FORMAT=CSV", 2,
         {"vael-scan: --stats: Can't print CSV format for more than one level. Specify LEVEL=PM/TIER1/TIER2\n"}},
    };
    const vael_cli_test::Result plain = dir.run({"-p", "p.txt", "in.txt"});
    ASSERT_EQ(plain.err, "");
    for (const auto &row : rows) {
        const auto [status, out, err, rss, written] = dir.run({"-p", "p.txt", row.option, "in.txt"});
        EXPECT_EQ(status, row.status) << row.option;
        EXPECT_EQ(out, row.status == 0 ? plain.out : "") << row.option;
        size_t at = 0;
        for (const std::string &piece : row.err) {
            const size_t found = err.find(piece, at);
            EXPECT_NE(found, std::string::npos) << row.option << ": " << piece << "\n" << err;
            at = found == std::string::npos ? at : found + piece.size();
        }
    }
}

}  // namespace
