// End-to-end tests of the vael-scan program: each test writes a pattern file
// and inputs into its own directory, runs the built binary and checks its
// exact output, messages and exit status.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "pattern_file.h"

extern char **environ;

namespace {

using namespace std::string_literals;
namespace fs = std::filesystem;

struct Result {
    int status = -1;  // exit status, or -1 when the program did not exit normally
    std::string out;
    std::string err;
};

std::string slurp(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

class VaelScan : public testing::Test {
protected:
    void SetUp() override {
        const auto *info = testing::UnitTest::GetInstance()->current_test_info();
        dir_ = fs::temp_directory_path() / ("vael_scan_" + std::string(info->test_suite_name()) + "_" +
                                            std::string(info->name()) + "_" + std::to_string(::getpid()));
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }

    // Writes a file into the test's directory and returns its path.
    std::string write(const std::string &name, const std::string &bytes) {
        const auto path = dir_ / name;
        std::ofstream(path, std::ios::binary) << bytes;
        return path.string();
    }

    // Runs vael-scan with the arguments, stdout and stderr captured in files.
    Result run(const std::vector<std::string> &args) {
        const auto out_path = dir_ / ".stdout";
        const auto err_path = dir_ / ".stderr";
        std::vector<char *> argv;
        std::string program = VAEL_SCAN_PATH;
        argv.push_back(program.data());
        std::vector<std::string> copies(args);
        for (auto &arg : copies) argv.push_back(arg.data());
        argv.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        pid_t pid = -1;
        const int spawned = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        EXPECT_EQ(spawned, 0) << "cannot start " << program;
        Result result;
        if (spawned != 0) return result;

        int wait_status = 0;
        while (::waitpid(pid, &wait_status, 0) < 0 && errno == EINTR) {
        }
        if (WIFEXITED(wait_status)) result.status = WEXITSTATUS(wait_status);
        result.out = slurp(out_path);
        result.err = slurp(err_path);
        return result;
    }

    fs::path dir_;
};

// ---------------------------------------------------------------------------
// Matches and their order.

// "ushers" holds "she" and "he" ending at the same byte and "hers" later; one
// pattern ("his") is absent.
const char kUshersPatterns[] = "1\the\n2\tshe\n3\this\n4\thers\n";

TEST_F(VaelScan, PrintsFirstMatchOfEachPatternLongestFirst) {
    const auto p = write("p.txt", kUshersPatterns);
    const auto f = write("f", "ushers ushers");
    const auto r = run({"-p", p, f});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, f + ":3:2\n" + f + ":3:1\n" + f + ":5:4\n");
    EXPECT_EQ(r.err, "");
}

TEST_F(VaelScan, AllReportsEveryOccurrence) {
    const auto p = write("p.txt", kUshersPatterns);
    const auto f = write("f", "ushers ushers");
    const auto r = run({"--all", "-p", p, f});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, f + ":3:2\n" + f + ":3:1\n" + f + ":5:4\n" + f + ":10:2\n" + f + ":10:1\n" + f + ":12:4\n");
}

TEST_F(VaelScan, OverlappingOccurrencesOfOnePattern) {
    const auto p = write("p.txt", "5\taa\n");
    const auto f = write("f", "aaaa");
    EXPECT_EQ(run({"-p", p, f}).out, f + ":1:5\n");
    EXPECT_EQ(run({"--all", "-p", p, f}).out, f + ":1:5\n" + f + ":2:5\n" + f + ":3:5\n");
}

TEST_F(VaelScan, MatchesAtBothEndsOfTheBuffer) {
    const auto p = write("p.txt", "1\tab\n2\tz\n");
    const auto f = write("f", "ab----ab-z");
    EXPECT_EQ(run({"--all", "-p", p, f}).out, f + ":1:1\n" + f + ":7:1\n" + f + ":9:2\n");
}

TEST_F(VaelScan, OffsetsBeyondSixteenBits) {
    const auto p = write("p.txt", "9\tneedle\n");
    std::string data(300000, 'x');
    data.replace(70000, 6, "needle");
    data.replace(data.size() - 6, 6, "needle");
    const auto f = write("big", data);
    EXPECT_EQ(run({"--all", "-p", p, f}).out, f + ":70005:9\n" + f + ":299999:9\n");
}

TEST_F(VaelScan, NulBytesAndBinaryPatterns) {
    const auto p = write("p.txt", "1\t\\x00\\x00\n2\t\\x00\\xff\\x01\n3\tMZ\\x90\\x00\n-7\t\\xfe\n");
    const auto f = write("bin", "\0\0\0\xff\x01MZ\x90\0\xfe"s);
    const auto r = run({"--all", "-p", p, f});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, f + ":1:1\n" + f + ":2:1\n" + f + ":4:2\n" + f + ":8:3\n" + f + ":9:-7\n");
}

TEST_F(VaelScan, CaselessAndDigitlessOptions) {
    struct Case {
        std::string pattern;
        std::string data;
        std::vector<std::string> options;
        std::string expected;  // the match lines with FILE left out
    };
    const Case cases[] = {
        {"AbC", "x abc ABC", {}, ""},
        {"AbC", "x abc ABC", {"-i"}, ":4:1\n"},
        {"AbC", "x abc ABC", {"--caseless", "--all"}, ":4:1\n:8:1\n"},
        {"abc", "x ABC", {"--digitless"}, ""},
        {"v1.2", "v9.8 v1.2", {}, ":8:1\n"},
        {"v1.2", "v9.8 v1.2", {"--digitless"}, ":3:1\n"},
        {"v1.2", "V9.8", {"--digitless"}, ""},
        {"v1.2", "V9.8", {"-i", "--digitless"}, ":3:1\n"},
    };
    for (const auto &c : cases) {
        const auto p = write("p.txt", "1\t" + c.pattern + "\n");
        const auto f = write("f", c.data);
        std::vector<std::string> args = c.options;
        args.insert(args.end(), {"-p", p, f});
        const auto r = run(args);
        std::string expected;
        for (std::size_t start = 0; start < c.expected.size();) {
            const auto end = c.expected.find('\n', start) + 1;
            expected += f + c.expected.substr(start, end - start);
            start = end;
        }
        SCOPED_TRACE(c.pattern + " in " + c.data + " with " + std::to_string(c.options.size()) + " options");
        EXPECT_EQ(r.out, expected);
        EXPECT_EQ(r.status, c.expected.empty() ? 1 : 0);
    }
}

// A brute-force search over data rich in overlaps, against the program's
// output in both reporting modes.
TEST_F(VaelScan, AgreesWithBruteForceSearch) {
    std::uint32_t seed = 12345;
    auto next = [&seed] {
        seed = seed * 1103515245u + 12345u;
        return seed >> 16;
    };
    const char alphabet[] = {'a', 'b', '\0', '\xff'};
    auto random_bytes = [&](std::size_t n) {
        std::string s;
        for (std::size_t i = 0; i < n; ++i) s.push_back(alphabet[next() % 4]);
        return s;
    };
    auto escaped = [](const std::string &s) {
        static const char hex[] = "0123456789abcdef";
        std::string e;
        for (unsigned char c : s) e += "\\x"s + hex[c >> 4] + hex[c & 15];
        return e;
    };

    std::map<std::string, std::int32_t> ids;  // distinct strings only
    std::string pattern_file;
    while (ids.size() < 40) {
        const auto s = random_bytes(1 + next() % 6);
        if (ids.count(s)) continue;
        const auto id = static_cast<std::int32_t>(ids.size()) * 3 - 20;
        ids[s] = id;
        pattern_file += std::to_string(id) + "\t" + escaped(s) + "\n";
    }
    const std::string data = random_bytes(3000);

    // Hits in delivery order: by end offset, then longest first.
    std::string expected_all, expected_first;
    std::set<std::string> seen;
    const auto f = write("data", data);
    for (std::size_t end = 0; end < data.size(); ++end) {
        std::vector<std::string> here;
        for (const auto &[s, id] : ids)
            if (s.size() <= end + 1 && data.compare(end + 1 - s.size(), s.size(), s) == 0) here.push_back(s);
        std::stable_sort(here.begin(), here.end(), [](const auto &a, const auto &b) { return a.size() > b.size(); });
        for (const auto &s : here) {
            const auto line = f + ":" + std::to_string(end) + ":" + std::to_string(ids[s]) + "\n";
            expected_all += line;
            if (seen.insert(s).second) expected_first += line;
        }
    }

    const auto p = write("p.txt", pattern_file);
    EXPECT_EQ(run({"-p", p, f}).out, expected_first);
    EXPECT_EQ(run({"--all", "-p", p, f}).out, expected_all);
    // As a stream of blocks, patterns spanning several blocks included.
    for (const char *block : {"1", "2", "5", "1500"}) {
        EXPECT_EQ(run({"--block-size", block, "-p", p, f}).out, expected_first) << block;
        EXPECT_EQ(run({"--all", "--block-size", block, "-p", p, f}).out, expected_all) << block;
    }
}

TEST_F(VaelScan, BlockSizeMustBeAPositiveNumber) {
    const auto p = write("p.txt", "1	ab\n");
    const auto f = write("f", "ab");
    for (const char *bad : {"0", "-3", "x", "4294967296", ""}) {
        const auto r = run({"--block-size", bad, "-p", p, f});
        EXPECT_EQ(r.status, 2) << bad;
        EXPECT_NE(r.err.find("bad block size"), std::string::npos) << bad;
    }
    EXPECT_EQ(run({"--block-size=4294967295", "-p", p, f}).status, 0);
}

// ---------------------------------------------------------------------------
// Several files, counts, quiet mode and exit status.

TEST_F(VaelScan, SeveralFilesInCommandLineOrder) {
    const auto p = write("p.txt", "1\tcat\n2\tdog\n");
    const auto a = write("a", "a dog");
    const auto b = write("b", "nothing here");
    const auto c = write("c", "cat dog cat");
    const auto r = run({"-p", p, a, b, c});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, a + ":4:2\n" + c + ":2:1\n" + c + ":6:2\n");
}

TEST_F(VaelScan, CountPrintsOneLinePerFile) {
    const auto p = write("p.txt", "1\tcat\n2\tdog\n3\tcow\n");
    const auto a = write("a", "a dog dog dog");
    const auto b = write("b", "nothing here");
    const auto c = write("c", "cat dog cat");
    const auto e = write("e", "");
    struct Case {
        std::vector<std::string> options;
        std::string expected;
    };
    const Case cases[] = {
        {{"--count"}, a + ":1\n" + b + ":0\n" + c + ":2\n" + e + ":0\n"},
        {{"--count", "--all"}, a + ":3\n" + b + ":0\n" + c + ":3\n" + e + ":0\n"},
    };
    for (const auto &cs : cases) {
        auto args = cs.options;
        args.insert(args.end(), {"-p", p, a, b, c, e});
        const auto r = run(args);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, cs.expected);
    }
    const auto none = run({"--count", "-p", p, b, e});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.out, b + ":0\n" + e + ":0\n");
}

TEST_F(VaelScan, ExitStatusAndQuiet) {
    const auto p = write("p.txt", "1\tcat\n");
    const auto yes = write("yes", "a cat");
    const auto no = write("no", "a dog");
    const auto empty = write("empty", "");
    const auto missing = (dir_ / "missing").string();
    struct Case {
        const char *name;
        std::vector<std::string> args;
        int status;
        bool prints;
    };
    const Case cases[] = {
        {"match", {yes}, 0, true},
        {"no match", {no}, 1, false},
        {"empty file", {empty}, 1, false},
        {"match in a later file", {no, empty, yes}, 0, true},
        {"quiet match", {"-q", no, yes}, 0, false},
        {"quiet no match", {"-q", no}, 1, false},
        {"quiet count", {"-q", "--count", yes}, 0, false},
        // As grep: an error wins over a match, except in quiet mode.
        {"error and match", {missing, yes}, 2, true},
        {"error and no match", {no, missing}, 2, false},
        {"quiet error then match", {"-q", missing, yes}, 0, false},
        {"quiet error only", {"-q", missing, no}, 2, false},
    };
    for (const auto &c : cases) {
        std::vector<std::string> args{"-p", p};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const auto r = run(args);
        EXPECT_EQ(r.status, c.status) << c.name;
        EXPECT_EQ(!r.out.empty(), c.prints) << c.name << ": " << r.out;
    }
}

TEST_F(VaelScan, UnreadableInputsAreNamedAndSkipped) {
    const auto p = write("p.txt", "1\tcat\n");
    const auto yes = write("yes", "cat");
    const auto missing = (dir_ / "missing").string();
    const auto r = run({"-p", p, missing, dir_.string(), yes});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, yes + ":2:1\n");
    EXPECT_EQ(r.err, "vael-scan: " + missing + ": No such file or directory\n" + "vael-scan: " + dir_.string() +
                         ": Is a directory\n");
}

// ---------------------------------------------------------------------------
// Pattern-file errors: named by file and line, and nothing is scanned.

TEST_F(VaelScan, BadPatternFileNamesFileAndLine) {
    struct Case {
        std::string text;
        std::string where_and_what;  // after "vael-scan: FILE"
    };
    const Case cases[] = {
        {"1\tcat\n# note\n\n2\tdo\\q\n", ":4: bad escape '\\q'"},
        {"1\tcat\r\n2 dog\r\n", ":2: missing TAB between pattern id and text"},
        {"1\tcat\nx\tdog\n", ":2: bad pattern id 'x' (not a decimal integer)"},
        {"3000000000\tcat\n", ":1: pattern id '3000000000' is out of range (signed 32-bit)"},
        {"1\tcat\n2\t\n", ":2: empty pattern text"},
        {"1\tcat\n2\tre\tdo+g\n", ":2: pattern kind 're' is not supported yet"},
        {"1\tcat\n2\tglob\tdog\n", ":2: unknown pattern kind 'glob'"},
        {"# only a comment\n\n", ": no patterns"},
        {"", ": no patterns"},
    };
    const auto f = write("f", "cat dog");
    for (const auto &c : cases) {
        const auto p = write("p.txt", c.text);
        const auto r = run({"-p", p, f});
        EXPECT_EQ(r.status, 2) << c.text;
        EXPECT_EQ(r.err, "vael-scan: " + p + c.where_and_what + "\n");
        EXPECT_EQ(r.out, "") << "a file with an error must not be used at all";
    }
}

TEST_F(VaelScan, MissingPatternFile) {
    const auto p = (dir_ / "nope.txt").string();
    const auto r = run({"-p", p, write("f", "x")});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "vael-scan: " + p + ": No such file or directory\n");
}

// ---------------------------------------------------------------------------
// Command line.

TEST_F(VaelScan, OptionSpellings) {
    const auto p = write("p.txt", "1\tCat\n");
    const auto f = write("f", "cat cat");
    write("-dash", "cat");
    const std::string dash = (dir_ / "-dash").string();
    struct Case {
        std::vector<std::string> args;
        std::string expected;
    };
    const Case cases[] = {
        {{"-i", "-p", p, f}, f + ":2:1\n"},
        {{"-i", "-p" + p, f}, f + ":2:1\n"},
        {{"-i", "--patterns", p, f}, f + ":2:1\n"},
        {{"-i", "--patterns=" + p, f}, f + ":2:1\n"},
        {{f, "-p", p, "-i"}, f + ":2:1\n"},                  // options after files
        {{"-ip", p, f}, f + ":2:1\n"},                       // flag clustered before a value option
        {{"-i", "--all", "-p", p, "--", f}, f + ":2:1\n" + f + ":6:1\n"},
        {{"-i", "--count", "-p", p, f}, f + ":1\n"},
        {{"-qi", "-p", p, f}, ""},
    };
    for (const auto &c : cases) {
        const auto r = run(c.args);
        EXPECT_EQ(r.status, 0) << c.args[0] << " " << c.args[1] << ": " << r.err;
        EXPECT_EQ(r.out, c.expected) << c.args[0] << " " << c.args[1];
    }
    // After "--" a name starting with '-' is a file.
    std::vector<std::string> args{"-i", "-p", p, "--", dash};
    const auto r = run(args);
    EXPECT_EQ(r.out, dash + ":2:1\n");
}

TEST_F(VaelScan, UsageErrors) {
    const auto p = write("p.txt", "1\tcat\n");
    const auto f = write("f", "cat");
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    const Case cases[] = {
        {{}, "no pattern file given (use -p PATTERN_FILE)"},
        {{f}, "no pattern file given (use -p PATTERN_FILE)"},
        {{"-p", p}, "no input files"},
        {{"-p"}, "option '-p' needs a value"},
        {{f, "--patterns"}, "option '--patterns' needs a value"},
        {{"-p", p, "-p", p, f}, "only one pattern file may be given"},
        {{"--bogus", "-p", p, f}, "unknown option '--bogus'"},
        {{"-z", "-p", p, f}, "unknown option '-z'"},
        {{"-qz", "-p", p, f}, "unknown option '-z'"},
        {{"--all=yes", "-p", p, f}, "option '--all' takes no value"},
        {{"--al", "-p", p, f}, "unknown option '--al'"},
    };
    for (const auto &c : cases) {
        const auto r = run(c.args);
        EXPECT_EQ(r.status, 2) << c.message;
        EXPECT_EQ(r.err, "vael-scan: " + c.message + "\nTry 'vael-scan --help' for more information.\n");
        EXPECT_EQ(r.out, "");
    }
}

TEST_F(VaelScan, Help) {
    for (const char *flag : {"-h", "--help"}) {
        const auto r = run({flag});
        EXPECT_EQ(r.status, 0) << flag;
        EXPECT_TRUE(r.out.starts_with("Usage: vael-scan -p PATTERN_FILE")) << r.out;
        for (const char *option : {"--patterns", "--all", "--count", "--quiet", "--caseless", "--digitless"})
            EXPECT_NE(r.out.find(option), std::string::npos) << option;
        EXPECT_EQ(r.err, "");
    }
}

// ---------------------------------------------------------------------------
// The bundled samples: they must parse, and show a scan where some patterns
// hit and most do not.

TEST_F(VaelScan, BundledSamples) {
    const std::string samples = VAEL_SAMPLES_DIR;
    const auto patterns = vael::cli::read_pattern_file(samples + "/patterns.txt");
    ASSERT_TRUE(patterns.ok());
    std::vector<std::string> args{"-p", samples + "/patterns.txt"};
    for (const auto &entry : fs::directory_iterator(samples + "/traffic")) args.push_back(entry.path().string());
    ASSERT_GT(args.size(), 2u);

    const auto r = run(args);
    ASSERT_EQ(r.status, 0) << r.err;
    std::set<std::string> hit_ids;
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) hit_ids.insert(line.substr(line.rfind(':') + 1));
    EXPECT_GE(hit_ids.size(), 10u);
    EXPECT_LT(hit_ids.size() * 2, patterns.records.size()) << "most sample patterns should not occur";
}

}  // namespace

// ---------------------------------------------------------------------------
// Diagnostics: the library's debug topics and the memory figure.

TEST_F(VaelScan, DebugTopicsReachStandardError) {
    const auto p = write("p.txt", "1\tneedle\n");
    const auto f = write("f", "a needle");
    const auto quiet = run({"-p", p, f});
    EXPECT_EQ(quiet.err, "");
    const auto r = run({"--debug", "pm,thinnfa", "-p", p, f});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, f + ":7:1\n");
    EXPECT_NE(r.err.find("vael_pm_compile_ex: PM "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("vael_thin_nfa_build_bnfa: 7 states"), std::string::npos) << r.err;
    // Below the level of those notes, nothing is printed.
    EXPECT_EQ(run({"--debug", "pm,thinnfa", "--debug-level", "err", "-p", p, f}).err, "");
    const auto bad = run({"--debug-level", "loud", "-p", p, f});
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.err.find("bad debug level 'loud'"), std::string::npos);
}

TEST_F(VaelScan, MemoryReportsThePmAccount) {
    const auto p = write("p.txt", "1\tneedle\n2\thaystack\n");
    const auto f = write("f", "no match here");
    const auto r = run({"--memory", "-p", p, f});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    const std::string prefix = "vael-scan: memory: ";
    ASSERT_EQ(r.err.rfind(prefix, 0), 0u) << r.err;
    const long bytes = std::stol(r.err.substr(prefix.size()));
    EXPECT_GT(bytes, 1028); // at least the root's full table
    EXPECT_NE(r.err.find("(2 patterns)"), std::string::npos);
}
