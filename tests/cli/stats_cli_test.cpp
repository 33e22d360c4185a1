// vael-scan --stats run as a user runs it: the report after the scan on
// standard error, the matches on standard output as without it, and bad
// flags refused as usage errors.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "scan_runner.h"

namespace {

TEST(StatsCli, ReportAfterTheScan) {
    const vael_cli_test::Scratch dir("stats_cli");
    dir.write("p.txt", "1\tabc\n2\txyz\n3\tre\t{LSS(foo)}:foo[0-9]+bar\n");
    dir.write("in.txt", "abc foo bar\nxyz foo12bar\n");

    const struct {
        const char *option;
        int status;
        std::vector<std::string> err;  // pieces of standard error, in this order
    } kRows[] = {
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
    auto run = [&](const std::string &option) {
        std::vector<std::string> args{"-p", "p.txt"};
        if (!option.empty()) args.push_back(option);
        args.push_back("in.txt");
        return dir.run(args);
    };
    const vael_cli_test::Result plain = run("");
    ASSERT_EQ(plain.err, "");
    for (const auto &row : kRows) {
        const auto [status, out, err] = run(row.option);
        EXPECT_EQ(status, row.status) << row.option;
        // The matches are printed as without the option.
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
