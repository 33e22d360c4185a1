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
        {"1\tcat\n2\tkw\tpart:\\x00\n", ":2: NUL byte in keyword rule 'part:\\x00'"},
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
// Pattern kinds and metadata.

// FILE:OFFSET:ID lines for one file from ":OFFSET:ID" lines.
std::string in_file(const std::string &file, const std::string &lines) {
    std::string out;
    for (std::size_t start = 0; start < lines.size();) {
        const auto end = lines.find('\n', start) + 1;
        out += file + lines.substr(start, end - start);
        start = end;
    }
    return out;
}

TEST_F(VaelScan, MetadataInStrings) {
    struct Case {
        const char *name;
        std::string patterns;
        std::string data;
        std::vector<std::string> options;
        std::string expected;  // ":OFFSET:ID" lines
    };
    const Case cases[] = {
        {"caseless beside caseless", "1\t{caseless}:abc\n2\tstr\t{caseless}:Xyz\n", "ABC xyz", {}, ":2:1\n:6:2\n"},
        {"caseless alone", "1\t{caseless}:abc\n", "aBc", {}, ":2:1\n"},
        {"case stays case-sensitive", "1\t{case}:abc\n", "ABC aBc abc", {}, ":10:1\n"},
        {"no metadata stays case-sensitive", "1\tabc\n", "ABC", {}, ""},
        {"unknown items are ignored", "1\t{nosuch;caseless}:abc\n", "ABC", {}, ":2:1\n"},
        {"several items", "1\t{literal;shortlss;caseless}:ab\n", "xAB", {}, ":2:1\n"},
        {"LSS is no item of a string", "1\t{LSS(zz)}:ab\n", "ab zz", {}, ":1:1\n"},
        {"empty block before a literal brace", "1\t{}:{json}\n", "x{json}", {}, ":6:1\n"},
        {"escapes resolved before metadata", "1\t\\x7bcaseless}:ab\n", "AB", {}, ":1:1\n"},
        {"case among caseless with -i", "1\t{caseless}:abc\n2\txyz\n", "ABC XYZ", {"-i"}, ":2:1\n:6:2\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const auto p = write("p.txt", c.patterns);
        const auto f = write("f", c.data);
        auto args = c.options;
        args.insert(args.end(), {"-p", p, f});
        const auto r = run(args);
        EXPECT_EQ(r.out, in_file(f, c.expected));
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.status, c.expected.empty() ? 1 : 0);
    }
}

TEST_F(VaelScan, CaseSensitiveStringAmongCaselessNamesItsLine) {
    const auto p = write("p.txt", "1\t{caseless}:abc\n# the one without\n2\txyz\n3\t{caseless}:def\n");
    const auto r = run({"-p", p, write("f", "abc xyz def")});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "vael-scan: " + p +
                         ":3: cannot compile pattern 2 'xyz': A case-sensitive pattern among caseless ones needs a "
                         "second tier to check its case, which is not in this build\n");
}

// This build compiles plain strings only; the other kinds are read and added,
// then refused by the compile, which names their line. -i keeps the string on
// line 2 from being refused first for its case.
TEST_F(VaelScan, KindsWithoutAnEngineAreRefusedAtCompile) {
    struct Case {
        std::string line;       // on line 3 of the file, with id 7
        std::string refused;    // the pattern as the message shows it
    };
    const Case cases[] = {
        {"re\ta.*b", "'a.*b'"},
        {"re\t{caseless;LSS(ab)}:a.*b", "'{caseless;LSS(ab)}:a.*b'"},
        {"word\ttwo words", "'two words'"},
        {"word\t{caseless", "'{caseless'"},  // a word has no metadata to be bad
        {"kw\tpart:\"x\"", "'part:\"x\"'"},
        {"kw\t{caseless", "'{caseless'"},
        {"kw-nohistory\tpart:\"x\"", "'part:\"x\"'"},
        {"{bound}:abc", "'{bound}:abc'"},
        {"str\t{caseless;bound}:abc", "'{caseless;bound}:abc'"},
    };
    const auto f = write("f", "abc a.*b two words");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        const auto p = write("p.txt", "# c\n1\tabc\n7\t" + c.line + "\n8\tlast\n");
        const auto r = run({"-i", "-p", p, f});
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, "");
        const std::string prefix = "vael-scan: " + p + ":3: cannot compile pattern 7 " + c.refused + ": ";
        ASSERT_TRUE(r.err.starts_with(prefix)) << r.err;
        // One line, with the library's reason after the prefix.
        EXPECT_GT(r.err.size(), prefix.size() + 1) << r.err;
        EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << r.err;
    }
}

TEST_F(VaelScan, BadMetadataNamesItsLine) {
    struct Case {
        std::string line;  // on line 2 of the file
        std::string message;
    };
    const Case cases[] = {
        {"{caseless", "bad metadata in '{caseless'"},
        {"{caseless}", "bad metadata in '{caseless}'"},
        {"{caseless}abc", "bad metadata in '{caseless}abc'"},
        {"{caseless;literal", "bad metadata in '{caseless;literal'"},
        {"{json}", "bad metadata in '{json}'"},
        {"str\t{nosuch", "bad metadata in '{nosuch'"},
        {"re\t{LSS(ab}:a.b", "bad metadata in '{LSS(ab}:a.b'"},
        {"re\t{caseless:a.b", "bad metadata in '{caseless:a.b'"},
        {"\\x7bcaseless\\x01", "bad metadata in '{caseless\\x01'"},
        {"{caseless}:", "empty pattern text after metadata in '{caseless}:'"},
        {"{}:", "empty pattern text after metadata in '{}:'"},
        {"re\t{LSS(ab)}:", "empty pattern text after metadata in '{LSS(ab)}:'"},
    };
    const auto f = write("f", "abc");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.line);
        const auto p = write("p.txt", "1\tabc\n2\t" + c.line + "\n3\tdef\n");
        const auto r = run({"-p", p, f});
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "vael-scan: " + p + ":2: " + c.message + "\n");
    }
}

// One line of every kind; -i is a compile flag and shows in no pattern's flags.
const char kEveryKind[] =
    "# every kind\n"
    "1\tplain\n"
    "2\tstr\t{caseless;literal}:Ab\\x00c\n"
    "3\tre\t{shortlss;LSS(abc)}:a.*bc\n"
    "\n"
    "4\tword\t{caseless}:two words\n"
    "5\tkw\tpart:\"x\"\n"
    "-6\tkw-nohistory\tpcre:\"/a\\tb/\"\n"
    "7\t{bound;nosuch}:w\n"
    "8\tre\t{LSS()}:x\n";
const char kEveryKindExplained[] =
    "2: id=1 kind=str flags=0 text='plain'\n"
    "3: id=2 kind=str flags=CASELESS|LITERAL text='Ab\\x00c'\n"
    "4: id=3 kind=re flags=SHORT_LSS lss='abc' text='a.*bc'\n"
    "6: id=4 kind=word flags=0 text='{caseless}:two words'\n"
    "7: id=5 kind=kw flags=0 text='part:\"x\"'\n"
    "8: id=-6 kind=kw-nohistory flags=NO_HISTORY text='pcre:\"/a\\x09b/\"'\n"
    "9: id=7 kind=str flags=BOUND text='w'\n"
    "10: id=8 kind=re flags=0 lss='' text='x'\n";

TEST_F(VaelScan, ExplainWithoutFilesOnlyExplains) {
    const auto p = write("p.txt", kEveryKind);
    // Nothing is compiled, so kinds this build cannot compile do not matter.
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"--explain", "-p", p}, {"-i", "--explain", "-p", p}}) {
        const auto r = run(args);
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, kEveryKindExplained);
        EXPECT_EQ(r.err, "");
    }
}

TEST_F(VaelScan, ExplainComesBeforeTheCompileError) {
    const auto p = write("p.txt", kEveryKind);
    const auto r = run({"-i", "--explain", "-p", p, write("f", "plain")});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, kEveryKindExplained);
    EXPECT_TRUE(r.err.starts_with("vael-scan: " + p + ":4: cannot compile pattern 3 '{shortlss;LSS(abc)}:a.*bc': "))
        << r.err;
}

TEST_F(VaelScan, ExplainThenScan) {
    const auto p = write("p.txt", "1\t{caseless}:abc\n2\tstr\t{caseless;shortlss}:x\n");
    const auto f = write("f", "ABC");
    const auto g = write("g", "nothing");
    const std::string explained = "1: id=1 kind=str flags=CASELESS text='abc'\n"
                                  "2: id=2 kind=str flags=CASELESS|SHORT_LSS text='x'\n";
    struct Case {
        std::vector<std::string> options;
        std::string after;  // what the scan prints after the explanation
        int status;
    };
    const Case cases[] = {
        {{}, f + ":2:1\n", 0},
        {{"--count"}, f + ":1\n" + g + ":0\n", 0},
        {{"-q"}, "", 0},  // asked for by name, so printed even with -q
        {{"--block-size", "1"}, f + ":2:1\n", 0},
    };
    for (const auto &c : cases) {
        auto args = c.options;
        args.insert(args.end(), {"--explain", "-p", p, f, g});
        const auto r = run(args);
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_EQ(r.out, explained + c.after);
        EXPECT_EQ(r.err, "");
    }
}

TEST_F(VaelScan, ExplainStopsAtTheFirstBadLine) {
    const auto f = write("f", "abc");
    // Metadata is read pattern by pattern: the lines before it are explained.
    const auto bad_metadata = write("m.txt", "1\tabc\n2\tre\tx\n3\t{caseless\n4\tdef\n");
    // A file the reader refuses is not used at all, so nothing is explained.
    const auto bad_file = write("b.txt", "1\tabc\n2\tre\tx\n3\tdef\\q\n");
    for (const bool with_file : {false, true}) {
        std::vector<std::string> args{"--explain", "-p", bad_metadata};
        if (with_file) args.push_back(f);
        auto r = run(args);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, "1: id=1 kind=str flags=0 text='abc'\n2: id=2 kind=re flags=0 text='x'\n");
        EXPECT_EQ(r.err, "vael-scan: " + bad_metadata + ":3: bad metadata in '{caseless'\n");

        args[2] = bad_file;
        r = run(args);
        EXPECT_EQ(r.status, 2);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(r.err, "vael-scan: " + bad_file + ":3: bad escape '\\q'\n");
    }
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
        {{"--explain"}, "no pattern file given (use -p PATTERN_FILE)"},
        {{"--explain", f}, "no pattern file given (use -p PATTERN_FILE)"},
        {{"--explain=yes", "-p", p}, "option '--explain' takes no value"},
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
        for (const char *word : {"--patterns", "--all", "--count", "--quiet", "--caseless", "--digitless",
                                 "--explain", "kw-nohistory", "{ITEM;ITEM}:TEXT", "flags=FLAGS"})
            EXPECT_NE(r.out.find(word), std::string::npos) << word;
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
