// End-to-end tests of the vael-scan program: each test writes a pattern file and inputs into its own directory, runs
// the built binary and checks its exact output, messages and exit status. Scans; the runs that answer one question
// (--verify, --gen-buf, --dump-dfa, --stats); --engine, --save, --load and --dump-bnfa, where an image loads only
// under the engine that saved it and prints what the pattern file would. And the pattern-file reader on its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
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
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "pattern_file.h"
#include "read_file.h"

extern char **environ;

// vael-scan run as a user runs it: a scratch directory for the test's files, a run that gives the exit status and
// both outputs, and the check of a table of such runs.
namespace {

namespace fs = std::filesystem;
using Args = std::vector<std::string>;

struct Result {
    int status = -1;  // -1 when the program did not exit normally
    std::string out, err;
    long max_rss_kib = 0;           // the child's peak resident memory
    std::size_t stdin_written = 0;  // bytes the child's standard input took before it closed
};

// How the child is started, beyond its arguments.
struct Launch {
    std::string stdin_bytes;               // written to a pipe on its standard input
    std::vector<std::string> env = {};     // NAME=VALUE added to the environment
    rlim_t address_space = RLIM_INFINITY;  // RLIMIT_AS of the child
};

inline std::string slurp(const fs::path &path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// A directory of one test's own, removed at the test's end.
class Scratch {
public:
    explicit Scratch(const std::string &tag)
        : dir_(fs::temp_directory_path() / ("vael_" + tag + "_" + std::to_string(::getpid()))) {
        fs::remove_all(dir_);
        fs::create_directories(dir_);
    }
    Scratch(const Scratch &) = delete;
    Scratch &operator=(const Scratch &) = delete;
    ~Scratch() { fs::remove_all(dir_); }

    std::string path(const std::string &name) const { return (dir_ / name).string(); }
    std::string write(const std::string &name, const std::string &bytes) const {
        fs::create_directories((dir_ / name).parent_path());
        std::ofstream(dir_ / name, std::ios::binary) << bytes;
        return path(name);
    }

    // vael-scan with `args`, started in this directory.
    Result run(Args args, const Launch &launch = {}) const {
        args.insert(args.begin(), VAEL_SCAN_PATH);
        std::vector<std::string> env(launch.env);
        for (char **e = environ; *e != nullptr; ++e) env.emplace_back(*e);
        std::vector<char *> argv, envp;
        for (auto &s : args) argv.push_back(s.data());
        for (auto &s : env) envp.push_back(s.data());
        argv.push_back(nullptr);
        envp.push_back(nullptr);
        const std::string out = path(".scan_out"), err = path(".scan_err");
        int in_pipe[2];
        if (::pipe(in_pipe) != 0) return {};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addchdir_np(&actions, dir_.c_str());
        posix_spawn_file_actions_adddup2(&actions, in_pipe[0], 0);
        posix_spawn_file_actions_addclose(&actions, in_pipe[0]);
        posix_spawn_file_actions_addclose(&actions, in_pipe[1]);
        posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        // The child takes the limit from this process, which lifts it again at once; posix_spawn shares the memory
        // rather than copying it, so the child's peak resident memory is its own.
        rlimit saved{};
        ::getrlimit(RLIMIT_AS, &saved);
        rlimit limit = saved;
        limit.rlim_cur = std::min(launch.address_space, saved.rlim_max);
        ::setrlimit(RLIMIT_AS, &limit);
        pid_t pid = -1;
        const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
        ::setrlimit(RLIMIT_AS, &saved);
        posix_spawn_file_actions_destroy(&actions);
        EXPECT_EQ(spawned, 0) << "cannot start " << argv[0];
        ::close(in_pipe[0]);
        ::signal(SIGPIPE, SIG_IGN);  // the child may stop reading early (-q)
        Result result;
        const std::string &in = launch.stdin_bytes;
        for (ssize_t n = 1; n > 0 && result.stdin_written < in.size(); result.stdin_written += n > 0 ? n : 0)
            n = ::write(in_pipe[1], in.data() + result.stdin_written, in.size() - result.stdin_written);
        ::close(in_pipe[1]);
        int wait_status = 0;
        rusage usage{};
        while (spawned == 0 && ::wait4(pid, &wait_status, 0, &usage) < 0 && errno == EINTR) {
        }
        if (spawned == 0 && WIFEXITED(wait_status)) result.status = WEXITSTATUS(wait_status);
        result.out = slurp(out);
        result.err = slurp(err);
        result.max_rss_kib = usage.ru_maxrss;
        return result;
    }

private:
    fs::path dir_;
};

// One run of a table: the arguments, the exit status, and what the outputs
// hold: the whole output, or a piece of it when the table checks pieces.
struct Row { Args args; int status; std::string out, err; };

inline void check_rows(const Scratch &dir, const std::vector<Row> &rows, bool whole) {
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.args));
        const Result r = dir.run(row.args);
        EXPECT_EQ(r.status, row.status) << r.err;
        if (whole) {
            EXPECT_EQ(r.out, row.out);
            EXPECT_EQ(r.err, row.err);
        } else {
            EXPECT_NE(r.out.find(row.out), std::string::npos) << r.out;
            EXPECT_NE(r.err.find(row.err), std::string::npos) << r.err;
            EXPECT_EQ(r.out.empty(), row.out.empty()) << r.out;
        }
    }
}

using namespace std::string_literals;
using Set = std::multiset<std::string>;
using vael::cli::parse_pattern_text;
using vael::cli::PatternFileError;
using vael::cli::PatternKind;
using vael::cli::PatternRecord;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;  // the sanitizer's shadow memory makes RSS and address limits meaningless
#else
constexpr bool kSanitized = false;
#endif

const std::string kTry = "\nTry 'vael-scan --help' for more information.\n";

// A run's output lines as a set: the order within a run may differ.
Set lines(const std::string &out) {
    Set set;
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) set.insert(line);
    return set;
}

class VaelScan : public testing::Test {
protected:
    std::string write(const std::string &name, const std::string &bytes) { return dir_.write(name, bytes); }
    Result run(Args args, const Launch &launch = {}) { return dir_.run(std::move(args), launch); }
    Result run(Args args, std::string stdin_bytes) { return run(std::move(args), Launch{std::move(stdin_bytes)}); }

    Scratch dir_{"scan_"s + testing::UnitTest::GetInstance()->current_test_info()->name()};
};

// Brute force: every (end offset, id) of the strings in data, in the order
// the library delivers them: by end offset, the longest first at one offset.
std::vector<std::pair<std::size_t, std::int32_t>> brute_force(const std::map<std::string, std::int32_t> &ids,
                                                              const std::string &data) {
    std::vector<std::pair<std::size_t, std::int32_t>> hits;
    for (std::size_t end = 0; end < data.size(); ++end) {
        std::vector<std::pair<std::size_t, std::int32_t>> here;  // (length, id)
        for (const auto &[s, id] : ids)
            if (s.size() <= end + 1 && data.compare(end + 1 - s.size(), s.size(), s) == 0) here.emplace_back(s.size(), id);
        std::stable_sort(here.begin(), here.end(), [](const auto &a, const auto &b) { return a.first > b.first; });
        for (const auto &h : here) hits.emplace_back(end, h.second);
    }
    return hits;
}

TEST_F(VaelScan, Matches) {
    // Order, overlaps and binary strings are the brute force's to check, below.
    const struct { const char *name; std::string patterns, data; Args options; std::string expected; } rows[] = {
        {"case matters", "1\tAbC\n", "x abc ABC", {}, ""},
        {"-i", "1\tAbC\n", "x abc ABC", {"-i", "--all"}, "4:1\n8:1\n"},
        // The first tier folds digits; the string's own digits are checked.
        {"--digitless", "1\tv1.2\n", "v9.8 v1.2", {"--digitless"}, "8:1\n"},
        {"caseless metadata", "1\t{caseless}:abc\n2\tstr\t{caseless}:Xyz\n", "ABC xyz", {}, "2:1\n6:2\n"},
        {"unknown items ignored", "1\t{nosuch;caseless}:abc\n", "ABC", {}, "2:1\n"},
        {"LSS is no item of a string", "1\t{LSS(zz)}:ab\n", "ab zz", {}, "1:1\n"},
        {"empty block before a brace", "1\t{}:{json}\n", "x{json}", {}, "6:1\n"},
        {"escapes before metadata", "1\t\\x7bcaseless}:ab\n", "AB", {}, "1:1\n"},
        // Two lines with one id: the first occurrence of the id is reported.
        {"duplicate ids", "1\tab\n1\tcd\n", "cd ab", {}, "1:1\n"}, {"empty input", "1\tab\n", "", {}, ""},
        // A pattern's own LSS and the utf8 item as a user writes them.
        {"user LSS and utf8", "1\tre\t{LSS(user=|login=)}:(user|login)=[a-z]+\n2\tre\t{utf8}:caf[\xc3\xa0-\xc3\xaa]\n"
         "3\tstr\tx.y\n", "login=bob caf\xc3\xa9 cafe x.y xay", {}, "6:1\n14:2\n23:3\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        auto args = row.options;
        args.insert(args.end(), {"-p", write("p.txt", row.patterns), write("f", row.data)});
        const auto r = run(args);
        EXPECT_EQ(r.out, row.expected);
        EXPECT_EQ(r.status, row.expected.empty() ? 1 : 0);
        EXPECT_TRUE(r.err.empty() || row.name == "duplicate ids"s) << r.err;
    }
}

// Random strings over a small alphabet, rich in overlaps, against brute force, flat and in chunks so small that most
// matches straddle chunks, from a file and from a pipe.
TEST_F(VaelScan, AgreesWithBruteForceInEveryChunkSize) {
    std::uint32_t seed = 12345;
    auto random_bytes = [&](std::size_t n) {
        std::string s;
        while (s.size() < n) s.push_back("ab\0\xff"[(seed = seed * 1103515245u + 12345u) >> 16 & 3]);
        return s;
    };
    std::map<std::string, std::int32_t> ids;
    std::string patterns;
    while (ids.size() < 40) {
        const auto s = random_bytes(1 + (seed >> 20) % 6);
        if (ids.count(s)) continue;
        ids[s] = static_cast<std::int32_t>(ids.size()) * 3 - 20;
        patterns += std::to_string(ids[s]) + "\t";
        for (unsigned char c : s) patterns += "\\x"s + "0123456789abcdef"[c >> 4] + "0123456789abcdef"[c & 15];
        patterns += "\n";
    }
    const std::string data = random_bytes(3000);
    std::string all, first;
    std::set<std::int32_t> seen;
    for (const auto &[end, id] : brute_force(ids, data)) {
        const auto line = std::to_string(end) + ":" + std::to_string(id) + "\n";
        all += line;
        if (seen.insert(id).second) first += line;
    }
    const auto p = write("p.txt", patterns), f = write("data", data);
    for (const char *block : {"1", "2", "5", "1500", "1M"}) {
        SCOPED_TRACE(block);
        EXPECT_EQ(run({"--block-size", block, "-p", p, f}).out, first);
        EXPECT_EQ(run({"--all", "--block-size", block, "-p", p, f}).out, all);
    }
    EXPECT_EQ(run({"--all", "--block-size", "3", "-p", p, "-"}, data).out, all);
}

// re lines (through PCRE and through --rem) and word lines: where each match starts and ends, the same whatever the
// chunks the input is read in (a word cut by the end of a chunk is not taken for a whole one).
TEST_F(VaelScan, RegexAndWordLinesInEveryChunkSize) {
    const std::string re = "1\tre\tab[0-9]+c\n2\tre\tx.*yz\n3\tre\t{LSS(qq)}:[a-c]qq+\n4\tplain\n";
    const std::string rem = "1\tre\tab[0-9]+c\n2\tre\tx.*yz\n3\tre\t^q\n4\tplain\n";
    const std::string word = "1\tword\tfoo bar\n2\tword-continuous\tab\n3\tword\t\xC3\xA9t\xC3\xA9\n4\tword\t{x}\n"
                             "5\tneedle\n";
    const std::string words = "foo bar xaby \xC3\x89T\xC3\x89 \xC3\xA9t\xC3\xA9 needle foo barn {x} foo bar";
    // The expected lines are in order when read in one block; a row not chunked is not read in small blocks.
    const struct { std::string patterns, data; Args options; std::string expected; bool chunked = true; } rows[] = {
        {re, "ab12c xAyz bqqq plain ab3c", {"--start"}, "0-4:1\n6-9:2\n11-13:3\n16-20:4\n"},
        {re, "ab12c xAyz bqqq plain ab3c", {"--all"}, "4:1\n25:1\n9:2\n13:3\n20:4\n"},
        {rem, "qab12c xAyz bqqq plain ab3c", {"--start"}, "0-0:3\n1-5:1\n7-10:2\n17-21:4\n"},
        {rem, "qab12c xAyz bqqq plain ab3c", {"--rem", "--start"}, "0-0:3\n1-5:1\n7-10:2\n17-21:4\n"},
        {rem, "qab12c xAyz bqqq plain ab3c", {"--rem", "--all"}, "0:3\n5:1\n26:1\n10:2\n21:4\n"},
        {word, words, {"--start"}, "0-6:1\n9-10:2\n19-23:3\n41-43:4\n25-30:5\n"},
        // Words are delivered during the scan, before the strings of the block.
        {word, words, {"--all"}, "6:1\n10:2\n23:3\n43:4\n30:5\n51:1\n"},
        // -i is a compile flag of the string engine; a word keeps its case.
        {word, words, {"--all", "-i"}, "6:1\n10:2\n23:3\n43:4\n30:5\n51:1\n", false},
        {word, "foo barn foo ba", {"--all"}, ""},
    };
    using Blocks = std::vector<const char *>;
    const Blocks blocks = kSanitized ? Blocks{"", "1", "7"} : Blocks{"", "1", "2", "7"};  // sanitized runs are slower
    for (const auto &row : rows) {
        const auto p = write("p.txt", row.patterns), f = write("f", row.data);
        for (const char *block : blocks) {
            if (*block && !row.chunked)
                continue;
            SCOPED_TRACE(testing::PrintToString(row.options) + " block " + block);
            auto args = row.options;
            if (*block) args.insert(args.end(), {"--block-size", block});
            args.insert(args.end(), {"-p", p, f});
            const auto out = run(args).out;
            if (*block) EXPECT_EQ(lines(out), lines(row.expected));
            else EXPECT_EQ(out, row.expected);
        }
    }
}

// Tens of MiB made by repeating a unit: every match of the brute force over the whole input, 64-bit offsets counted
// through, while the child's resident memory stays far below the input's size.
TEST_F(VaelScan, LargeInputInBoundedMemory) {
    const std::map<std::string, std::int32_t> ids{{"needle", 1}, {"dleha", 2}, {"haystackhay", 3}};
    std::string unit(64 * 1024 - 3, 'h');  // an odd size, so occurrences fall across chunks
    unit.replace(100, 6, "needle");
    unit.replace(unit.size() - 4, 4, "need");  // completed by the next unit's start
    unit.replace(0, 6, "leha..");
    unit.replace(30000, 11, "haystackhay");
    const std::size_t repeats = 640;  // about 40 MiB
    // Written a unit at a time: the child inherits this process's peak
    // resident memory at its start, so the input is never held here whole.
    const auto f = dir_.path("big");
    {
        std::ofstream out(f, std::ios::binary);
        for (std::size_t i = 0; i < repeats; ++i) out << unit;
    }
    const std::uint64_t size = static_cast<std::uint64_t>(unit.size()) * repeats;
    // The matches in unit i are those of the brute force over unit i with
    // the tail of unit i-1 before it, as no pattern is longer than the tail.
    const std::string tail = unit.substr(unit.size() - 16);
    const auto first = brute_force(ids, unit), later = brute_force(ids, tail + unit);
    std::string expected;
    std::uint64_t count = 0;
    for (std::uint64_t i = 0; i < repeats; ++i) {
        const std::uint64_t base = i == 0 ? 0 : i * unit.size() - tail.size();
        for (const auto &[end, id] : i == 0 ? first : later) {
            if (i > 0 && end < tail.size()) continue;
            expected += std::to_string(base + end) + ":" + std::to_string(id) + "\n";
            ++count;
        }
    }
    ASSERT_GT(count, 3 * repeats);
    const auto r = run({"--all", "-p", write("p.txt", "1\tneedle\n2\tdleha\n3\thaystackhay\n"), f});
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.out == expected) << "output differs from the brute force; " << r.out.size() << " bytes vs "
                                   << expected.size();
    EXPECT_TRUE(kSanitized || static_cast<std::uint64_t>(r.max_rss_kib) * 1024 < size / 4) << r.max_rss_kib;
}

// grep's habits: several inputs, standard input, -c -l -q -r -H, exit status.
TEST_F(VaelScan, GrepHabits) {
    const auto p = write("p.txt", "1\tcat\n2\tdog\n");
    const auto a = write("t/a", "a dog dog"), b = write("t/sub/b", "nothing"), c = write("t/sub/c", "cat dog cat");
    const auto missing = dir_.path("missing"), t = dir_.path("t");
    const std::string e = "vael-scan: ", gone = ": No such file or directory\n";
    const struct { Args args; std::string stdin_bytes, out, err; int status; } rows[] = {  // args after -p p.txt
        {{a, b, c}, "", a + ":4:2\n" + c + ":2:1\n" + c + ":6:2\n", "", 0}, {{"-H", a}, "", a + ":4:2\n", "", 0},
        {{"--no-filename", a, c}, "", "4:2\n2:1\n6:2\n", "", 0},
        {{"-c", a, b, c}, "", a + ":1\n" + b + ":0\n" + c + ":2\n", "", 0}, {{"-c", "--all", a}, "", "2\n", "", 0},
        {{"-l", a, b, c}, "", a + "\n" + c + "\n", "", 0}, {{"-l", "-c", b}, "", "", "", 1},
        {{"-q", b, a}, "", "", "", 0}, {{"-q", b}, "", "", "", 1}, {{}, "hot dog", "6:2\n", "", 0},
        {{"-"}, "a cat", "4:1\n", "", 0}, {{"-c", a, "-"}, "cat", a + ":1\n(standard input):1\n", "", 0},
        {{"-r", t}, "", a + ":4:2\n" + c + ":2:1\n" + c + ":6:2\n", "", 0},
        {{"-rl", t + "/"}, "", a + "\n" + c + "\n", "", 0}, {{"-r", "--no-filename", "-c", b}, "", "0\n", "", 1},
        {{t}, "", "", e + t + ": Is a directory\n", 2},
        // As grep: an error wins over a match, except with -q.
        {{missing, a}, "", a + ":4:2\n", e + missing + gone, 2}, {{b, missing}, "", "", e + missing + gone, 2},
        {{"-q", missing, a}, "", "", e + missing + gone, 0},
        {{"--progress", a}, "", "4:2\n", "", 0},  // not a terminal: no progress line
    };
    for (const auto &row : rows) {
        Args args{"-p", p};
        args.insert(args.end(), row.args.begin(), row.args.end());
        SCOPED_TRACE(testing::PrintToString(row.args));
        const auto r = run(args, row.stdin_bytes);
        EXPECT_EQ(r.out, row.out);
        EXPECT_EQ(r.err, row.err);
        EXPECT_EQ(r.status, row.status);
    }
    // -q ends at its first match, while its input, a pipe, has more to give.
    const std::string data = "cat" + std::string(1 << 20, 'x');
    const auto q = run({"-q", "--block-size", "4K", "-p", p}, data);
    EXPECT_EQ(q.status, 0);
    EXPECT_LT(q.stdin_written, data.size() / 2);
    // A directory the walk cannot read is named and skipped (root reads all).
    if (::geteuid() == 0) return;
    const auto closed = dir_.path("t/sub");
    ::chmod(closed.c_str(), 0);
    const auto r = run({"-r", "-p", p, t});
    ::chmod(closed.c_str(), 0700);
    EXPECT_EQ(r.out, a + ":4:2\n");
    EXPECT_EQ(r.err, e + closed + ": Permission denied\n");
    EXPECT_EQ(r.status, 2);
}

// Errors and warnings: exact messages, naming what failed and why.
TEST_F(VaelScan, Messages) {
    const auto f = write("f", "abc def");
    const std::string blocks = "' (accepted: 1 to 1073741824, or 1K to 1024M)";
    const struct {
        std::string patterns; Args args; std::vector<std::string> env; std::string err; int status;
    } rows[] = {
        {"# only a comment\n\n", {}, {}, "P: no patterns\n", 2},
        {"2\tre\t{LSS(ab}:a.b\n", {}, {}, "P:1: bad metadata in '{LSS(ab}:a.b'\n", 2},
        {"2\t{caseless}:\n", {}, {}, "P:1: empty pattern text after metadata in '{caseless}:'\n", 2},
        {"1\t{caseless}:abc\n# c\n2\t{bound}:xyz\n", {}, {},
         "P:3: cannot compile pattern 2 'xyz': Error while trying to process a bounded pattern.\n", 2},
        {"1\tkw\tdata: \"a\";\n", {}, {},
         "P:1: keyword rule without its LSS in 'data: \"a\";' (write {LSS(TEXT)}: in front of the rule)\n", 2},
        {"1\tkw\t{caseless;LSS(a)}:data: \"a\";\n", {}, {},
         "P:1: bad metadata in '{caseless;LSS(a)}:data: \"a\";' (a rule takes {LSS(TEXT)}: only)\n", 2},
        {"1\tabc\n2\tkw\t{LSS(a)}:jump: 1, 0, signed;\n", {}, {},
         "P:2: cannot compile pattern 2 'jump: 1, 0, signed;': Keyword's attribute is not supported\n", 2},
        {"1\tre\tab\n3\tre\ta)\n", {"--rem", "-p", "P", "F"}, {},
         "P:2: cannot compile pattern 3 'a)' at byte 2: Correlating '(' for ')' is missing\n", 2},
        {"1\tre\t{LSS(a*)}:a+b\n", {}, {}, "P:1: cannot compile pattern 1 'a+b': LSS given by user is illegal\n", 2},
        {"7\tabc\n8\tdef\n7\tdef\n", {}, {}, "P:3: warning: pattern id 7 is also used on line 1\n", 0},
        {"1\ta\\x00b\n", {}, {}, "", 1},  // no NUL note unasked
        {"1\tabc\n", {"--debug", "pm,bogus", "-p", "P", "F"}, {},
         "vael-scan: unknown debug topic 'bogus' (accepted: all, dfa, error, htab, kw, memory, misc, pcre, pm, "
         "pm_int, pmdump, rem, sm, thinnfa, vbuf, warning)" + kTry, 2},
        {"1\tabc\n", {"--debug-level", "loud", "-p", "P", "F"}, {},
         "vael-scan: bad debug level 'loud' (accepted: NONE, ERR, WRN, NOTICE, INFO)" + kTry, 2},
        {"1\tabc\n", {}, {"vael_thin_nfa_full_tiers_num=abc"},
         "vael-scan: environment: bad value 'abc' for vael_thin_nfa_full_tiers_num (accepted: a decimal integer "
         "from 0 to 2147483647)\n", 2},
        {"1\tabc\n", {}, {"vael_thin_nfa_full_tiers_num=3"}, "", 0},
        {"1\tabc\n", {"--block-size=0", "-p", "P", "F"}, {}, "vael-scan: bad block size '0" + blocks + kTry, 2},
        {"1\tabc\n", {"--block-size=1x", "-p", "P", "F"}, {}, "vael-scan: bad block size '1x" + blocks + kTry, 2},
        {"1\tabc\n", {"F"}, {}, "vael-scan: no pattern file given (use -p PATTERN_FILE)" + kTry, 2},
        {"1\tabc\n", {"--explain=yes", "-p", "P"}, {}, "vael-scan: option '--explain' takes no value" + kTry, 2},
        {"1\tabc\n", {"-p"}, {}, "vael-scan: option '-p' needs a value" + kTry, 2},
        {"1\tabc\n", {"-p", "P", "-p", "P", "F"}, {}, "vael-scan: only one pattern file may be given" + kTry, 2},
        {"1\tabc\n", {"--bogus", "-p", "P", "F"}, {}, "vael-scan: unknown option '--bogus'" + kTry, 2},
        {"1\tabc\n", {"-qz", "-p", "P", "F"}, {}, "vael-scan: unknown option '-z'" + kTry, 2},
    };
    for (const auto &row : rows) {
        const auto p = write("p.txt", row.patterns);
        Args args = row.args.empty() ? Args{"-p", "P", "F"} : row.args;
        for (auto &arg : args) arg = arg == "P" ? p : arg == "F" ? f : arg;
        SCOPED_TRACE(row.patterns + testing::PrintToString(args));
        const auto r = run(args, Launch{"", row.env});
        EXPECT_EQ(r.err, row.err.starts_with("P") ? "vael-scan: " + p + row.err.substr(1) : row.err);
        EXPECT_EQ(r.status, row.status);
        EXPECT_TRUE(row.status != 2 || r.out.empty()) << "a file with an error must not be used at all: " << r.out;
    }
    if (kSanitized) return;  // the sanitizer reserves more address space than the limit
    Launch small;
    small.address_space = 256u << 20;
    const auto r = run({"--block-size", "1024M", "-p", write("p.txt", "1\tabc\n"), f}, small);
    EXPECT_EQ(r.err, "vael-scan: " + f + ": out of memory: cannot allocate a read buffer of 1073741824 bytes\n");
    EXPECT_EQ(r.status, 2);
}

// Keyword rules: found by their LSS, run over the history too unless the
// line says kw-nohistory, whose rule sees the block just read alone.
TEST_F(VaelScan, KeywordRules) {
    const auto p = write("p.txt",
                         "1\tkw\t{LSS(abc)}:data: \"abc\"; data: \"12\", relative, depth 3;\n"
                         "2\tkw-nohistory\t{LSS(abc)}:data: \"abc\"; data: \"12\", relative, depth 3;\n"
                         "3\tkw\t{LSS(abc)}:data: \"abc\"; test: 2, >, 11, 0, relative, string, dec;\n"
                         "4\tplain\n");
    // The first place of abc has no 12 behind it, the second has.
    const auto f = write("f", "abcx abc 12 abcy12 plain");
    EXPECT_EQ(lines(run({"-p", p, f}).out), (Set{"10:1", "10:2", "23:4"}));
    // Read 4 bytes at a time, the rule without history never sees abc and
    // 12 in one block; the others find the same ends.
    EXPECT_EQ(lines(run({"--block-size", "4", "-p", p, f}).out), (Set{"10:1", "23:4"}));
    // A rule ends where the last string it found ends: a test moves nothing.
    EXPECT_EQ(lines(run({"-p", p, write("g", "abc12")}).out), (Set{"4:1", "4:2", "2:3"}));
}

// --explain: one line of every kind; -i is a compile flag and shows in no pattern's flags.
TEST_F(VaelScan, Explain) {
    const auto every = write("every.txt",
                             "# every kind\n1\tplain\n2\tstr\t{caseless;literal}:Ab\\x00c\n"
                             "3\tre\t{shortlss;LSS(abc)}:a.*bc\n\n4\tword\t{caseless}:two words\n"
                             "5\tkw\t{LSS(x)}:part:\"x\"\n-6\tkw-nohistory\t{LSS(a)}:pcre:\"/a\\tb/\"\n"
                             "7\t{bound;nosuch}:w\n8\tre\t{LSS()}:x\n");
    const std::string explained =
        "2: id=1 kind=str flags=0 text='plain'\n"
        "3: id=2 kind=str flags=CASELESS|LITERAL text='Ab\\x00c'\n"
        "4: id=3 kind=re flags=SHORT_LSS lss='abc' text='a.*bc' lss_used='abc'\n"
        "6: id=4 kind=word flags=0 text='{caseless}:two words'\n"
        "7: id=5 kind=kw flags=0 lss='x' text='part:\"x\"' lss_used='x'\n"
        "8: id=-6 kind=kw-nohistory flags=NO_HISTORY lss='a' text='pcre:\"/a\\x09b/\"' lss_used='a'\n"
        "9: id=7 kind=str flags=BOUND text='w'\n"
        "10: id=8 kind=re flags=0 lss='' text='x' lss_used=refused\n";
    const auto ok = write("ok.txt", "1\t{caseless}:abc\n2\tstr\t{caseless;shortlss}:x\n");
    const std::string ok_explained = "1: id=1 kind=str flags=CASELESS text='abc'\n"
                                     "2: id=2 kind=str flags=CASELESS|SHORT_LSS text='x'\n";
    const auto bad_metadata = write("m.txt", "1\tabc\n2\tre\tx\n3\t{caseless\n4\tdef\n");
    const auto bad_file = write("b.txt", "1\tabc\n2\tre\tx\n3\tdef\\q\n");
    const auto rem = write("rem.txt", "1\tre\tab\n2\tre\t{caseless}:a(b|c)*d\n3\tre\ta)\n");
    const auto user = write("user.txt", "1\tre\t{LSS(user=|login=)}:(user|login)=[a-z]+\n"
                                        "2\tre\t{utf8}:caf[\xc3\xa0-\xc3\xaa]\n");
    const auto f = write("f", "ABC"), g = write("g", "nothing");
    const struct { Args args; std::string out, err_start; int status; } rows[] = {
        // Without FILE nothing is compiled, so kinds without an engine pass.
        {{"--explain", "-p", every}, explained, "", 0},
        {{"-i", "--explain", "-p", every, f}, explained,
         "vael-scan: " + every + ":7: cannot compile pattern 5 'part:\"x\"': ", 2},
        {{"--explain", "-p", ok, f, g}, ok_explained + f + ":2:1\n", "", 0},
        {{"--explain", "-q", "-p", ok, f}, ok_explained, "", 0},  // asked for by name
        // Metadata is read pattern by pattern: the lines before it are explained.
        {{"--explain", "-p", bad_metadata, f}, "1: id=1 kind=str flags=0 text='abc'\n2: id=2 kind=re flags=0 text='x'\n",
         "vael-scan: " + bad_metadata + ":3: bad metadata in '{caseless'\n", 2},
        // A file the reader refuses is not used at all.
        {{"--explain", "-p", bad_file}, "", "vael-scan: " + bad_file + ":3: bad escape '\\q'\n", 2},
        {{"--explain", "-p", user},
         "1: id=1 kind=re flags=0 lss='user=|login=' text='(user|login)=[a-z]+' lss_used='user=' 'login='\n"
         "2: id=2 kind=re flags=UTF8 text='caf[\xc3\xa0-\xc3\xaa]' rewritten='caf\\xc3[\\xa0-\\xaa]' "
         "lss_used='caf\\xc3'\n", "", 0},
        {{"--rem", "--explain", "-p", rem},
         "1: id=1 kind=re flags=0 text='ab' dfa_states=3\n2: id=2 kind=re flags=CASELESS text='a(b|c)*d' "
         "dfa_states=3\n3: id=3 kind=re flags=0 text='a)' dfa_states=refused\n", "", 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.args));
        const auto r = run(row.args);
        EXPECT_EQ(r.out, row.out);
        EXPECT_TRUE(r.err.starts_with(row.err_start) && (row.err_start.empty() == r.err.empty())) << r.err;
        EXPECT_EQ(r.status, row.status);
    }
}

// Runs that need no input: --tokens and --lss show the lexer's tokens and the LSS of one expression, or a refusal
// pointed at where it lies; the spellings of options; --help.
TEST_F(VaelScan, OptionsAndOneShotRuns) {
    const auto p = write("p.txt", "1\tCat\n"), f = write("f", "cat cat"), dash = write("-dash", "cat");
    const struct { Args args; int status; std::string out; } rows[] = {  // out: the output's start for --help
        // A span in a negated bracket excludes nothing; single characters do.
        {{"--tokens", "(a|b)*[^0-9]{2,5}[^xy]"}, 0,
         "OPEN_PAREN\nRANGE OPERAND a\nALTERNATE\nRANGE OPERAND b\nCLOSE_PAREN\nKLEENE (*)\n"
         "RANGE OPERAND [^]\nBINARY QUANTIFIER {2,5}\nRANGE OPERAND [^xy]\n"},
        {{"--tokens", "\x01[a-]"}, 1,
         "RANGE OPERAND \\x01\nerror: Illegal use of '-' inside brackets (index 5)\n  \\x01[a-]\n          ^\n"},
        {{"--lss", "abc|def"}, 0, "LSS: 'abc' 'def' (the strings replace the expression)\nflags: MULTI_LSS\n"},
        {{"--lss", "^abc[0-9]+de$"}, 0, "LSS: 'abc' (needs the expression as second tier)\nflags: NEED_TIER2|LSS_START_ANCHOR\n"},
        {{"--lss", "a*|b"}, 0, "no LSS\n"},
        {{"--lss", "^x(ab"}, 1, "error: Missing a closing ')' (index 5)\n  ^x(ab\n       ^\n"},
        {{"-i", "-p", p, f}, 0, "2:1\n"}, {{"-i", "-p" + p, f}, 0, "2:1\n"},
        {{"-i", "--patterns=" + p, f}, 0, "2:1\n"},
        {{f, "-p", p, "-i"}, 0, "2:1\n"},  // options after files
        {{"-ip", p, f}, 0, "2:1\n"},       // a flag clustered before a value option
        {{"-i", "--all", "-p", p, "--", f}, 0, "2:1\n6:1\n"},
        {{"-i", "-p", p, "--", dash}, 0, "2:1\n"},  // after "--" a name starting with '-' is a file
        {{"--help"}, 0, "Usage: vael-scan -p PATTERN_FILE"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.args));
        const auto r = run(row.args);
        EXPECT_EQ(r.status, row.status) << r.err;
        EXPECT_EQ(row.args[0] == "--help" ? r.out.substr(0, row.out.size()) : r.out, row.out);
    }
}

// Diagnostics asked for: the library's debug topics and the memory figure.
TEST_F(VaelScan, Diagnostics) {
    const auto p = write("p.txt", "1\tneedle\n2\thaystack\n"), f = write("f", "a needle");
    auto r = run({"--debug", "pm,thinnfa", "-p", p, f});
    EXPECT_EQ(r.out, "7:1\n");
    EXPECT_NE(r.err.find("vael_pm_compile_ex: PM "), std::string::npos) << r.err;
    // Below the level of those notes, nothing is printed.
    EXPECT_EQ(run({"--debug", "pm,thinnfa", "--debug-level", "err", "-p", p, f}).err, "");
    r = run({"--memory", "-p", p, write("g", "no match")});
    EXPECT_EQ(r.status, 1);
    const std::string prefix = "vael-scan: memory: ";
    ASSERT_TRUE(r.err.starts_with(prefix)) << r.err;
    EXPECT_GT(std::stol(r.err.substr(prefix.size())), 1028);  // at least the root's full table
    EXPECT_NE(r.err.find("(2 patterns)"), std::string::npos);
}

// The bundled samples parse; a scan of them has some patterns hit and most not, and each sample rule matches somewhere in the traffic.
TEST_F(VaelScan, BundledSamples) {
    const std::string samples = VAEL_SAMPLES_DIR;
    const auto patterns = vael::cli::read_pattern_file(samples + "/patterns.txt");
    ASSERT_TRUE(patterns.ok());
    auto hit_ids = [&](const char *file) {
        const auto r = run({"-r", "-p", samples + file, samples + "/traffic"});
        EXPECT_EQ(r.status, 0) << r.err;
        std::set<std::string> ids;
        for (const auto &line : lines(r.out)) ids.insert(line.substr(line.rfind(':') + 1));
        return ids;
    };
    const auto hits = hit_ids("/patterns.txt");
    EXPECT_GE(hits.size(), 10u);
    EXPECT_LT(hits.size() * 2, patterns.records.size()) << "most sample patterns should not occur";
    EXPECT_EQ(hit_ids("/rules.txt"),
              (std::set<std::string>{"20001", "20002", "20003", "20004", "20005", "20006", "20007", "20008"}));
}

// --verify, --verify-word, --gen-buf and --gen-buf-miss: exact standard output and error.
TEST(OneShotCli, Answers) {
    const std::string ok = "Success - pattern has identical meaning in new and old regular expression engines";
    const std::string both = "--verify and --verify-word take no pattern file or input";
    check_rows(Scratch("one_shot_cli"), {
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
        // The buffer printed, the rule's verdict over it.
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
    check_rows(dir, {
        {{"-p", "p.txt", "--rem", "--dump-dfa", "1", "csv"}, 0,
         "The dfa has 3 states.\nstate_id,level,is_final,a,b,c,d,e,f,g,h,i,j,k,l,m,n,o,p,q,r,s,t,u,v,w,x,y,z\n1,0,0,2" +
             times(25, ",1") + "\n2,1,0,2,0" + times(24, ",1") + "\n0,2,1" + times(26, ",0") + "\n", ""},
        {{"-p", "p.txt", "--dump-dfa=1", "jflap"}, 0, "?>\n<!--Created with JFLAP 6.0.--> <structure>", ""},
        {{"-p", "p.txt", "--dump-dfa", "2", "csv"}, 2, "", "--dump-dfa: no re line with id 2"},
        {{"-p", "p.txt", "--dump-dfa", "4", "csv"}, 2, "",
         "p.txt:4: the REM machine refuses pattern 4: Illegal sequence beginning with '{'"},
        {{"-p", "p.txt", "--dump-dfa", "1"}, 2, "",
         "option '--dump-dfa' takes an id and then a format: text, csv or jflap"},
        {{"-p", "p.txt", "--dump-dfa", "1x", "csv"}, 2, "", "bad pattern id '1x' for --dump-dfa"},
    }, false);
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
    const Result plain = dir.run({"-p", "p.txt", "in.txt"});
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

// Every kind of pattern line, and an input that hits each, split over the
// program's reads by a small block size in one row.
TEST_F(VaelScan, ImageSameOutputCompiledOrLoadedUnderEitherEngine) {
    const std::string patterns = dir_.write(
        "p.txt", "1\tGET /\n2\tstr\t{caseless}:host:\n3\tre\tabc[0-9]+de\n4\tword\tfree money\n"
                 "5\tkw\t{LSS(k=)}:data: \"k=\"; test: 1, =, 0x39, 0, relative;\n6\tabcd\n7\tcd\n8\tX7\n"
                 "9\tre\t{LSS(user)}:user=[a-z]{2,5};\n");
    std::string input;
    for (int i = 0; i < 3; i++)
        input += "GET / HOST: x abc12de k=9 free money user=abc; k=1 abcd x7 X3 ";
    const std::string in = dir_.write("in.txt", input);
    const std::string images[2] = {dir_.path("thin.img"), dir_.path("sm.img")}, engines[2] = {"thin", "sm"};
    for (int e = 0; e < 2; e++)
        ASSERT_EQ(dir_.run({"--engine", engines[e], "-p", patterns, "--save", images[e]}).status, 0);
    // Compile flags have no meaning for a loaded image: those rows are not loadable.
    const struct { Args options; bool loadable; } rows[] = {
        {{}, true}, {{"--start", "--all", "--block-size", "7"}, true},
        {{"-c", "-i", "--all"}, false}, {{"--start", "--all", "--digitless"}, false}, {{"--rem", "-l"}, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.options));
        std::string want;
        for (int e = 0; e < 2; e++)
            for (int load = 0; load < (row.loadable ? 2 : 1); load++) {
                Args args{"--engine", engines[e]};
                args.insert(args.end(), {load ? "--load" : "-p", load ? images[e] : patterns});
                args.insert(args.end(), row.options.begin(), row.options.end());
                args.push_back(in);
                const auto r = dir_.run(args);
                EXPECT_EQ(r.status, 0) << r.err;
                if (want.empty())
                    want = r.out;
                EXPECT_EQ(r.out, want) << engines[e] << (load ? " loaded" : " compiled");
            }
        EXPECT_FALSE(want.empty());
    }
}

TEST_F(VaelScan, ImageErrorsAndDumps) {
    const std::string patterns = dir_.write("p.txt", "1\the\n2\tshe\n3\this\n4\thers\n");
    const std::string image = dir_.path("p.img"), sm_image = dir_.path("sm.img");
    ASSERT_EQ(dir_.run({"-p", patterns, "--save", image}).status, 0);
    ASSERT_EQ(dir_.run({"--engine", "sm", "-p", patterns, "--save", sm_image}).status, 0);
    const std::string bytes = slurp(image);
    const std::string cut = dir_.write("cut.img", bytes.substr(0, bytes.size() - 1));
    const std::string junk = dir_.write("junk.img", "not an image at all");
    const std::string in = dir_.write("in.txt", "ushers");
    check_rows(dir_, {
        {{"--load", image, in}, 0, "3:2\n3:1\n5:4\n", ""}, {{"--load", cut, in}, 2, "", "damaged"},
        {{"--load", junk, in}, 2, "", "not an image"}, {{"--load", dir_.path("none.img"), in}, 2, "", "No such file"},
        {{"--load", image, "-p", patterns, in}, 2, "", "not both"},
        {{"-p", patterns, "--save", dir_.path("no/dir/x.img")}, 2, "", "No such file"},
        {{"-p", patterns, "--dump-bnfa", "xml"}, 2, "", "accepted: csv, jflap"},
        {{"--load", image, "--dump-bnfa", "jflap"}, 0, "<structure>", ""},
        {{"-p", dir_.write("w.txt", "1\tword\tmoney\n"), "--dump-bnfa", "csv"}, 2, "", "no Thin NFA"},
        {{"--engine", "sm", "--load", image, in}, 2, "", "other --engine"},
        {{"--load", sm_image, in}, 2, "", "other --engine"},
        {{"--engine", "dfa", "-p", patterns, in}, 2, "", "bad engine 'dfa' (accepted: thin, sm)"},
        {{"--engine", "sm", "--load", sm_image, "--dump-bnfa", "jflap"}, 0, "<structure>", ""},
        {{"--engine", "sm", "-p", patterns, "--stats", "--memory", in}, 0, "5:4\n", "SM"},
    }, false);
    // The dump of the loaded automaton is the dump of the compiled one.
    const auto dumped = dir_.run({"--load", image, "--dump-bnfa", "csv"}).out;
    EXPECT_NE(dumped.find(','), std::string::npos);
    EXPECT_EQ(dumped, dir_.run({"-p", patterns, "--dump-bnfa", "csv"}).out);
}

PatternRecord rec(std::size_t line, std::int32_t id, std::string bytes, PatternKind kind = PatternKind::str) {
    return PatternRecord{line, id, kind, std::move(bytes)};
}

// Files that parse: the records of each line.
TEST(PatternFile, GoodLinesGiveRecords) {
    const struct { const char *name; std::string text; std::vector<PatternRecord> expected; } rows[] = {
        {"Ids", "1\tGET /\n-5\tabc\n2147483647\ta\n-2147483648\tb\n-5\tc\n",
         {rec(1, 1, "GET /"), rec(2, -5, "abc"), rec(3, 2147483647, "a"), rec(4, INT32_MIN, "b"), rec(5, -5, "c")}},
        {"Escapes", "1\t\\x41\\x6a\\x6A\\t\\n\\r\\\\z\n2\ta\\x00b\n3\t\\\\x41\n4\t#x\n",
         {rec(1, 1, "Ajj\t\n\r\\z"), rec(2, 2, "a\0b"s), rec(3, 3, "\\x41"), rec(4, 4, "#x")}},
        {"RawBytesPassThrough", "1\t\xff\xfe\x01 \xd0\xbf\xd1\x80\n", {rec(1, 1, "\xff\xfe\x01 \xd0\xbf\xd1\x80")}},
        {"CommentsAndBlankLinesCountAsLines", "# header\n\n   \n\t\t\n\v\f \n2\tx\n#3\ty\n", {rec(6, 2, "x")}},
        // One CR before the LF is dropped, an escaped one is text.
        {"CrLf", "1\tabc\r\n# c\r\n\r\n2\tdef\r\r\n3\tg\\r\r\n",
         {rec(1, 1, "abc"), rec(4, 2, "def\r"), rec(5, 3, "g\r")}},
        // Every kind, and what the reader leaves to the library.
        {"Kinds", "1\ta\n2\tre\tb\n3\tstr\tc\n4\tword\td\n5\tre\n6\tkw\n",
         {rec(1, 1, "a"), rec(2, 2, "b", PatternKind::re), rec(3, 3, "c"), rec(4, 4, "d", PatternKind::word),
          rec(5, 5, "re"), rec(6, 6, "kw")}},
        {"MetadataIsLeftInTheText", "1\t{caseless}:abc\n2\tre\t{LSS(ab)}:a.b\n3\tword\t{x\n",
         {rec(1, 1, "{caseless}:abc"), rec(2, 2, "{LSS(ab)}:a.b", PatternKind::re), rec(3, 3, "{x", PatternKind::word)}},
        {"EscapesInKeywordRule", "1\tkw\ta\\tb\\x41\n", {rec(1, 1, "a\tbA", PatternKind::kw)}},
        // Only a keyword rule is a C string; the other kinds carry their length.
        {"NulOutsideKeywordRules", "1\tre\ta\\x00b\n2\tword\ta\\x00b\n",
         {rec(1, 1, "a\0b"s, PatternKind::re), rec(2, 2, "a\0b"s, PatternKind::word)}},
        {"ByteOrderMark", "\xEF\xBB\xBF" "1\tabc\n2\t\xEF\xBB\xBF\n", {rec(1, 1, "abc"), rec(2, 2, "\xEF\xBB\xBF")}},
        {"OnlyComments", "# one\n#two\n\n", {}},
    };
    for (const auto &row : rows) {
        const auto result = parse_pattern_text(row.text);
        ASSERT_TRUE(result.ok()) << row.name << ": " << result.error->message;
        EXPECT_EQ(result.records, row.expected) << row.name;
    }
    // Every kind name the reader accepts comes back from kind_name, so what --explain prints can be written back into
    // a pattern file.
    for (const char *name : {"str", "re", "word", "word-continuous", "kw", "kw-nohistory"}) {
        const auto result = parse_pattern_text("1\t"s + name + "\tx\n");
        ASSERT_TRUE(result.ok()) << name;
        EXPECT_EQ(vael::cli::kind_name(result.records.at(0).kind), name);
    }
}

// Files that are refused: the first bad line and its message, and no records.
TEST(PatternFile, BadLinesGiveTheFirstError) {
    const std::string kHexHint = " (\\x takes two hex digits)";
    const struct { const char *name; std::string text; std::size_t line; std::string message; } rows[] = {
        {"NoTab", "abc\n", 1, "missing TAB between pattern id and text"},
        {"IndentedComment", " # note\n", 1, "missing TAB between pattern id and text"},
        {"MissingId", "\tabc\n", 1, "missing pattern id"},
        {"TooManyFields", "1\tstr\ta\tb\n", 1, "too many TAB-separated fields (write a TAB inside the text as \\t)"},
        {"IdNotANumber", "x1\tabc\n", 1, "bad pattern id 'x1' (not a decimal integer)"},
        {"IdAboveInt32", "2147483648\tabc\n", 1, "pattern id '2147483648' is out of range (signed 32-bit)"},
        {"EmptyText", "1\t\n", 1, "empty pattern text"}, {"EmptyTextBeforeCrLf", "1\t\r\n", 1, "empty pattern text"},
        {"UnknownEscape", "1\tab\\q\n", 1, "bad escape '\\q'"},
        {"BackslashAtEnd", "1\tab\\\n", 1, "bad escape '\\' at end of line"},
        {"HexOneDigitThenJunk", "1\t\\x4g\n", 1, "bad escape '\\x4g'"s + kHexHint},
        {"HexNoDigitsAtEnd", "1\ta\\x\n", 1, "bad escape '\\x'"s + kHexHint},
        {"EscapedMultibyteCharShownWhole", "1\t\\\xc3\xa9\n", 1, "bad escape '\\\xc3\xa9'"},
        {"EscapedControlByteShownAsHex", "1\t\\\x01\n", 1, "bad escape '\\\\x01'"},
        {"KindUnknown", "1\tregex\tabc\n", 1, "unknown pattern kind 'regex'"},
        {"KindEmpty", "1\t\tabc\n", 1, "empty pattern kind"},
        {"KindWithControlByte", "1\tk\x01\tabc\n", 1, "unknown pattern kind 'k\\x01'"},
        // A keyword rule is handed over as a C string.
        {"EscapedNulInKw", "1\tkw\tpart:\\x00\n", 1, "NUL byte in keyword rule 'part:\\x00'"},
        {"NulInKwNamesItsLine", "1\ta\\x00\n# c\n2\tkw\tx\n3\tkw\tx\\x00\n", 4, "NUL byte in keyword rule 'x\\x00'"},
        // Which error wins: fields left to right, lines top to bottom.
        {"KindCheckedBeforeText", "1\tfoo\t\\q\n", 1, "unknown pattern kind 'foo'"},
        {"LineNumberAfterByteOrderMark", "\xEF\xBB\xBF" "1\ta\nbad\n", 2, "missing TAB between pattern id and text"},
        {"FirstBadLineWins", "1\ta\n2\t\\q\n3\t\n", 2, "bad escape '\\q'"},
    };
    for (const auto &row : rows) {
        const auto result = parse_pattern_text(row.text);
        ASSERT_FALSE(result.ok()) << row.name;
        EXPECT_EQ(*result.error, (PatternFileError{row.line, row.message})) << row.name;
        EXPECT_TRUE(result.records.empty());
    }
}

// Items of a metadata block that vael-scan reads itself: whole items only,
// with an LSS(...) stepped over whole even when it holds ';' or '}'.
TEST(MetadataItems, FindsWholeItemsOnly) {
    const struct { const char *text; bool has_utf8; } rows[] = {
        {"{utf8}:a", true},           {"{caseless;utf8}:a", true}, {"{LSS(a;utf8)}:a", false},
        {"{LSS(a;b}c);utf8}:a", true}, {"{utf8x}:a", false},       {"{xutf8}:a", false},
        {"utf8", false},              {"{LSS(ab:a", false},        {"{caseless}:{utf8}:a", false},
    };
    for (const auto &row : rows)
        EXPECT_EQ(vael::cli::metadata_has_item(row.text, "utf8"), row.has_utf8) << row.text;
}

// Rendering of bytes inside messages: controls and broken UTF-8 as hex, whole characters kept, long texts cut.
TEST(PatternFile, PrintableBytes) {
    const std::pair<std::string, std::string> rows[] = {
        {"GET /a b~", "GET /a b~"},          {"\x01\t\n\x1f\x7f"s, "\\x01\\x09\\x0a\\x1f\\x7f"},
        {"a\0b"s, "a\\x00b"},              {"\xc3\xa9t\xc3\xa9", "\xc3\xa9t\xc3\xa9"},
        {"\xc3x", "\\xc3x"},               {"\x80", "\\x80"},
        {"\xc0\xaf", "\\xc0\\xaf"},          {std::string(60, 'a'), std::string(60, 'a')},
        {std::string(61, 'a'), std::string(60, 'a') + "..."},
    };
    for (const auto &[in, out] : rows) EXPECT_EQ(vael::cli::printable(in), out);
}

// Through the file: records as from text, an error with its line, a file that cannot be read at line 0, and whole
// files read byte for byte within their limit.
TEST(PatternFile, ReadsFromDisk) {
    const Scratch dir("pattern_file");
    const auto good = vael::cli::read_pattern_file(dir.write("p.txt", "# c\r\n1\tab\\x00\r\n\r\n-2\tstr\tz\\tz\n"));
    ASSERT_TRUE(good.ok());
    EXPECT_EQ(good.records, (std::vector<PatternRecord>{rec(2, 1, "ab\0"s), rec(4, -2, "z\tz")}));
    const std::pair<std::string, PatternFileError> bad[] = {
        {dir.write("b.txt", "1\ta\n2\tb\n3\tkw\tc\\x00\n"), {3, "NUL byte in keyword rule 'c\\x00'"}},
        {dir.path("missing.txt"), {0, "No such file or directory"}}, {dir.path(""), {0, "Is a directory"}},
    };
    for (const auto &[path, error] : bad) {
        const auto result = vael::cli::read_pattern_file(path);
        ASSERT_FALSE(result.ok()) << path;
        EXPECT_EQ(*result.error, error) << path;
    }
    std::string bytes(200 * 1024, '\0');  // more than one read's worth
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + (i >> 9));
    const auto path = dir.write("data.bin", bytes);

    std::string out = "stale";
    EXPECT_EQ(vael::cli::read_whole_file(path, out, bytes.size()), std::nullopt);
    EXPECT_EQ(out, bytes);
    const auto error = vael::cli::read_whole_file(path, out, bytes.size() - 1);
    EXPECT_EQ(error, "file too large (more than " + std::to_string(bytes.size() - 1) + " bytes)");
    EXPECT_TRUE(out.empty());

    out = "stale";
    EXPECT_EQ(vael::cli::read_whole_file(dir.write("empty.bin", ""), out), std::nullopt);
    EXPECT_TRUE(out.empty());
}

}  // namespace
