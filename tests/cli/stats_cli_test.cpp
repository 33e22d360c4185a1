// vael-scan --stats run as a user runs it: the report after the scan on
// standard error, the matches on standard output as without it, and bad
// flags refused as usage errors.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

namespace fs = std::filesystem;

std::string slurp(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(StatsCli, ReportAfterTheScan) {
    const fs::path dir = fs::temp_directory_path() / ("vael_stats_cli_" + std::to_string(::getpid()));
    fs::create_directories(dir);
    std::ofstream(dir / "p.txt") << "1\tabc\n2\txyz\n3\tre\t{LSS(foo)}:foo[0-9]+bar\n";
    std::ofstream(dir / "in.txt") << "abc foo bar\nxyz foo12bar\n";

    struct Row {
        const char *option;
        int status;
        std::vector<std::string> err;  // pieces of standard error, in this order
    };
    const Row kRows[] = {
        {"--stats", 0,
         {"Printing PM 0 stats ( vael-scan )\n", "Number of patterns in PM: 3\n",
          "Number of matches in first tier: 3\n", "TIER1 type: Thin NFA\n",
          "Pattern id: 3 (internal 2) (flags: 0x00000000) is:\n",
          "LSS (matched: 1, matches that resulted in pm match: 1, match ratio: 1/1 ):foo\n",
          "RE is foo[0-9]+bar\nTIER2 type: PCRE\n"}},
        {"--stats=S=ID,D,LEVEL=TIER2,FORMAT=CSV", 0,
         {"PM id;PM name;Pattern id;Inetrnal pattern id;flags;LSS matches #;", "\n0;vael-scan;3;2;0x00000000;1;1;1/1;"
                                                                              "\"foo\";FALSE;\"foo[0-9]+bar\";TRUE;PCRE;",
          "\n0;vael-scan;2;1;", "\n0;vael-scan;1;0;"}},
        {"--stats=/LEVEL=PM", 0, {"Number of second tiers which ran is: 1\n"}},
        {"--stats=X", 2, {"vael-scan: --stats: Failed to parse flags: Unknown flag\nTry 'vael-scan --help'"}},
        {"--stats=S=FOO", 2, {"vael-scan: --stats: Failed to parse flags: Illegal flag value (S=)\n"}},
        {"--stats=FORMAT=CSV", 2,
         {"vael-scan: --stats: Can't print CSV format for more than one level. Specify LEVEL=PM/TIER1/TIER2\n"}},
    };
    auto run = [&](const std::string &option) {
        const std::string command = std::string(VAEL_SCAN_PATH) + " -p " + (dir / "p.txt").string() + " " +
                                    option + " " + (dir / "in.txt").string() + " >" + (dir / "out").string() +
                                    " 2>" + (dir / "err").string();
        const int rc = std::system(command.c_str());
        EXPECT_TRUE(WIFEXITED(rc)) << command;
        return WEXITSTATUS(rc);
    };
    ASSERT_EQ(run(""), 0);
    const std::string plain = slurp(dir / "out");
    EXPECT_EQ(slurp(dir / "err"), "");
    for (const Row &row : kRows) {
        EXPECT_EQ(run(row.option), row.status) << row.option;
        const std::string out = slurp(dir / "out"), err = slurp(dir / "err");
        // The matches are printed as without the option.
        EXPECT_EQ(out, row.status == 0 ? plain : "") << row.option;
        size_t at = 0;
        for (const std::string &piece : row.err) {
            const size_t found = err.find(piece, at);
            EXPECT_NE(found, std::string::npos) << row.option << ": " << piece << "\n" << err;
            at = found == std::string::npos ? at : found + piece.size();
        }
    }
    fs::remove_all(dir);
}

}  // namespace
