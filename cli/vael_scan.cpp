// vael-scan - scan files for the patterns of a pattern file.
//
// The pattern file is read and compiled once; every input is then read in
// chunks and scanned as one stream (stream_scan.h), so memory stays bounded
// whatever the input's size, and each match is printed as the library
// delivers it. Output and exit status follow grep: a line per match (or a
// count, or the file's name, per file), 0 when something matched, 1 when
// nothing did, 2 on any error.
//
// Every line of the pattern file is read and added to one pattern list before
// anything is compiled, so a file is used whole or not at all.
#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include "vael/vael_apps.h"

#include "dump_dfa.h"
#include "engine.h"
#include "explain.h"
#include "gen_buf.h"
#include "verify.h"
#include "image.h"
#include "pattern_file.h"
#include "read_file.h"
#include "stats.h"
#include "stream_scan.h"

namespace {

using vael::cli::PatternKind;
using vael::cli::PatternRecord;

constexpr const char *kProgram = "vael-scan";
constexpr const char *kCaller = "vael-scan";  // names this user in the library's logs

constexpr int kExitMatch = 0;
constexpr int kExitNoMatch = 1;
constexpr int kExitError = 2;

constexpr std::size_t kDefaultBlockSize = 1 << 20;
// The largest read buffer taken; far beyond where larger blocks stop paying.
constexpr std::size_t kMaxBlockSize = 1 << 30;
// How far back a match of a pattern whose length is not its text's (an
// expression, a word, a rule) may reach from one chunk into the one before.
constexpr std::uint32_t kOpenHistory = 64 * 1024;

enum class FileNames { automatic, always, never };

struct Options {
    std::string pattern_file;
    std::vector<std::string> inputs;  // "-" is standard input
    bool all_matches = false;
    bool match_start = false;  // --start: FILE:START-END:ID
    bool count_only = false;
    bool list_files = false;  // -l: names of files with a match
    bool quiet = false;
    bool recursive = false;
    FileNames file_names = FileNames::automatic;
    bool progress = false;
    bool help = false;
    std::uint32_t compile_flags = 0;
    std::size_t block_size = kDefaultBlockSize;  // bytes read and scanned at a time
    std::string debug_topics;                    // as VAEL_DEBUG: "pm thinnfa", "memory,pm"
    std::string debug_level;                     // as VAEL_DEBUG_LEVEL; empty: NOTICE
    bool memory = false;
    bool explain = false;  // print how each pattern was read
    bool rem = false;      // re lines go to the library's own regex machine, not PCRE
    std::optional<std::string> tokens;  // --tokens: the pattern to show the REM tokens of
    std::optional<std::string> lss;     // --lss: the pattern to show the LSS of
    std::optional<std::string> verify;       // --verify: the pattern to ask the syntax questions of
    std::optional<std::string> verify_word;  // --verify-word: the phrase to ask the word question of
    std::optional<std::string> gen_buf;      // --gen-buf, --gen-buf-miss: the keyword rule to make a buffer for
    bool gen_buf_match = true;               // --gen-buf: a buffer the rule matches; --gen-buf-miss: one it does not
    std::optional<std::int32_t> dump_dfa;  // --dump-dfa: the id of the re line whose DFA to print
    vael::cli::DfaDumpFormat dump_format = vael::cli::DfaDumpFormat::text;
    std::optional<vael_pm_stats_attrs> stats;  // --stats: the report asked for after the scan
    std::string save_image;             // --save: where to write the compiled patterns' image
    std::string load_image;             // --load: an image to scan with, instead of a pattern file
    std::optional<int> dump_bnfa;       // --dump-bnfa: the format to print the Thin NFA in
    int use_thin_nfa = 1;               // --engine: 1 the Thin NFA, 0 SM, as vael_pm_tier1_use_thin_nfa
};

// The topics the library logs under, as --debug takes them (it adds "K_").
constexpr std::string_view kDebugTopics[] = {
    "all", "dfa", "error", "htab", "kw", "memory", "misc", "pcre",
    "pm", "pm_int", "pmdump", "rem", "sm", "thinnfa", "vbuf", "warning",
};
constexpr std::string_view kDebugLevels[] = {"NONE", "ERR", "WRN", "NOTICE", "INFO"};

template <std::size_t N>
std::string joined(const std::string_view (&words)[N]) {
    std::string text;
    for (std::size_t i = 0; i < N; ++i) text += (i == 0 ? "" : ", ") + std::string(words[i]);
    return text;
}

std::optional<std::string> check_debug_topics(std::string_view list) {
    constexpr std::string_view kSeparators = " ,\t\n\r";
    bool any = false;
    for (std::size_t pos = 0; pos < list.size();) {
        const std::size_t start = list.find_first_not_of(kSeparators, pos);
        if (start == std::string_view::npos) break;
        const std::size_t end = std::min(list.find_first_of(kSeparators, start), list.size());
        const std::string_view word = list.substr(start, end - start);
        bool known = false;
        for (const auto topic : kDebugTopics)
            known = known || (word.size() == topic.size() && ::strncasecmp(word.data(), topic.data(), word.size()) == 0);
        if (!known)
            return "unknown debug topic '" + vael::cli::printable(word) + "' (accepted: " + joined(kDebugTopics) + ")";
        any = true;
        pos = end;
    }
    if (!any) return "empty debug topic list";
    return std::nullopt;
}

// A size in bytes, with an optional K or M suffix (binary).
std::optional<std::size_t> parse_size(std::string_view text) {
    std::size_t shift = 0;
    if (text.ends_with('K') || text.ends_with('k')) shift = 10;
    if (text.ends_with('M') || text.ends_with('m')) shift = 20;
    if (shift != 0) text.remove_suffix(1);
    if (text.empty() || text.size() > 10) return std::nullopt;
    std::uint64_t n = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        n = n * 10 + static_cast<std::uint64_t>(c - '0');
    }
    n <<= shift;
    if (n == 0 || n > kMaxBlockSize) return std::nullopt;
    return static_cast<std::size_t>(n);
}

// ---------------------------------------------------------------------------
// Command line. Every option is one row of kOptions; the parser and the help
// text both work from the table, so a new option is one more row.

using ApplyFn = std::optional<std::string> (*)(Options &, std::string_view value);

struct OptionRow {
    char short_name;             // '\0' when the option has no short form
    std::string_view long_name;  // empty when the option has no long form
    std::string_view value_name; // empty when the option takes no value
    std::string_view help;
    ApplyFn apply;
};

// The rows that only switch a field on or keep the value as given.
template <auto kField>
std::optional<std::string> set_true(Options &o, std::string_view) {
    o.*kField = true;
    return std::nullopt;
}

template <auto kField>
std::optional<std::string> set_text(Options &o, std::string_view v) {
    o.*kField = std::string(v);
    return std::nullopt;
}

constexpr OptionRow kOptions[] = {
    {'p', "patterns", "FILE", "read the patterns from FILE (required)",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         if (!o.pattern_file.empty()) return "only one pattern file may be given";
         if (v.empty()) return "empty pattern file name";
         o.pattern_file = v;
         return std::nullopt;
     }},
    {'\0', "all", "", "report every occurrence, not only the first of each pattern",
     set_true<&Options::all_matches>},
    {'\0', "start", "", "print each match's start offset too, as START-END",
     set_true<&Options::match_start>},
    {'c', "count", "", "print the number of matches of each file instead of the matches",
     set_true<&Options::count_only>},
    {'l', "files-with-matches", "", "print only the name of each file with a match",
     set_true<&Options::list_files>},
    {'q', "quiet", "", "print nothing; stop at the first match (exit status only)",
     set_true<&Options::quiet>},
    {'H', "with-filename", "", "print the file name with each match, even for one input",
     [](Options &o, std::string_view) -> std::optional<std::string> {
         o.file_names = FileNames::always;
         return std::nullopt;
     }},
    {'\0', "no-filename", "", "never print file names before matches or counts",
     [](Options &o, std::string_view) -> std::optional<std::string> {
         o.file_names = FileNames::never;
         return std::nullopt;
     }},
    {'r', "recursive", "", "search each directory and all below it (with no FILE, the current one)",
     set_true<&Options::recursive>},
    {'i', "caseless", "", "match without regard to ASCII case",
     [](Options &o, std::string_view) -> std::optional<std::string> {
         o.compile_flags |= VAEL_PM_CASELESS;
         return std::nullopt;
     }},
    {'\0', "digitless", "", "read every digit as 0 in the first tier (a second tier checks the digits)",
     [](Options &o, std::string_view) -> std::optional<std::string> {
         o.compile_flags |= VAEL_PM_DIGITLESS;
         return std::nullopt;
     }},
    {'\0', "block-size", "N", "read and scan the input N bytes at a time (default 1M; K and M suffixes)",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         const auto n = parse_size(v);
         if (!n) return "bad block size '" + vael::cli::printable(v) + "' (accepted: 1 to 1073741824, or 1K to 1024M)";
         o.block_size = *n;
         return std::nullopt;
     }},
    {'\0', "progress", "", "show bytes, MB/s and matches on standard error during long scans (terminal only)",
     set_true<&Options::progress>},
    {'\0', "debug", "TOPICS", "turn on the library's debug topics (as VAEL_DEBUG: e.g. 'pm,thinnfa')",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         if (auto error = check_debug_topics(v)) return error;
         o.debug_topics = v;
         return std::nullopt;
     }},
    {'\0', "debug-level", "LEVEL", "level of --debug: NONE, ERR, WRN, NOTICE (default) or INFO",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         for (const auto level : kDebugLevels) {
             if (v.size() == level.size() && ::strncasecmp(v.data(), level.data(), v.size()) == 0) {
                 o.debug_level = v;
                 return std::nullopt;
             }
         }
         return "bad debug level '" + vael::cli::printable(v) + "' (accepted: " + joined(kDebugLevels) + ")";
     }},
    {'\0', "memory", "", "print the memory the compiled patterns hold (to standard error)",
     set_true<&Options::memory>},
    {'\0', "explain", "", "print how each pattern was read (see below); with no FILE, only that",
     set_true<&Options::explain>},
    {'\0', "rem", "", "compile re lines with the library's own regex machine (REM) instead of PCRE",
     set_true<&Options::rem>},
    {'\0', "tokens", "PATTERN", "print the REM tokens of PATTERN, one per line, and exit (no FILE needed)",
     set_text<&Options::tokens>},
    {'\0', "lss", "PATTERN", "print the LSS the library finds for PATTERN and exit (no FILE needed)",
     set_text<&Options::lss>},
    {'\0', "verify", "PATTERN", "tell whether PATTERN compiles here and in the older regexp engine, and means the same",
     set_text<&Options::verify>},
    {'\0', "verify-word", "PHRASE", "tell whether the word matcher takes PHRASE",
     set_text<&Options::verify_word>},
    {'\0', "gen-buf", "RULE", "print a buffer that keyword RULE is meant to match, and whether it does (no FILE needed)",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         o.gen_buf = std::string(v);
         o.gen_buf_match = true;
         return std::nullopt;
     }},
    {'\0', "gen-buf-miss", "RULE", "the same with a buffer that keyword RULE is meant not to match",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         o.gen_buf = std::string(v);
         o.gen_buf_match = false;
         return std::nullopt;
     }},
    {'\0', "dump-dfa", "ID", "print the REM DFA of re line ID in the FORMAT that follows (text, csv, jflap) and exit",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         const std::string text(v);
         char *end = nullptr;
         errno = 0;
         const long long id = std::strtoll(text.c_str(), &end, 10);
         if (text.empty() || *end != '\0' || errno != 0 || id < INT32_MIN || id > INT32_MAX)
             return "bad pattern id '" + vael::cli::printable(v) + "' for --dump-dfa";
         o.dump_dfa = static_cast<std::int32_t>(id);
         return std::nullopt;
     }},
    {'\0', "stats", "[FLAGS]", "after the scan print the statistics report to standard error (see below)",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         vael_pm_stats_attrs attrs;
         if (auto error = vael::cli::parse_stats_flags(v, attrs)) return error;
         o.stats = attrs;
         return std::nullopt;
     }},
    {'\0', "save", "IMAGE", "write the compiled patterns to IMAGE, for --load (with no FILE, only that)",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         if (v.empty()) return "empty image file name";
         o.save_image = v;
         return std::nullopt;
     }},
    {'\0', "load", "IMAGE", "scan with the compiled patterns in IMAGE instead of a pattern file (no -p)",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         if (v.empty()) return "empty image file name";
         o.load_image = v;
         return std::nullopt;
     }},
    {'\0', "dump-bnfa", "FORMAT", "print the string automaton as csv or jflap (XML) (with no FILE, only that)",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         o.dump_bnfa = vael::cli::dump_format(v);
         if (!o.dump_bnfa) return "bad dump format '" + vael::cli::printable(v) + "' (accepted: csv, jflap)";
         return std::nullopt;
     }},
    {'\0', "engine", "NAME", "the first-tier string engine: thin (Thin NFA, default) or sm (DFA string matcher)",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         const auto engine = vael::cli::parse_engine(v);
         if (!engine) return "bad engine '" + vael::cli::printable(v) + "' (accepted: thin, sm)";
         o.use_thin_nfa = *engine;
         return std::nullopt;
     }},
    {'h', "help", "", "show this help and exit",
     set_true<&Options::help>},
};

const OptionRow *find_short(char name) {
    for (const auto &row : kOptions)
        if (row.short_name != '\0' && row.short_name == name) return &row;
    return nullptr;
}

const OptionRow *find_long(std::string_view name) {
    for (const auto &row : kOptions)
        if (!row.long_name.empty() && row.long_name == name) return &row;
    return nullptr;
}

std::string display_name(const OptionRow &row) {
    return row.long_name.empty() ? std::string{'-', row.short_name} : "--" + std::string(row.long_name);
}

// Accepts "-p FILE", "-pFILE", "--patterns FILE", "--patterns=FILE", clusters
// of short flags ("-qi") and "--" before file names that start with '-'.
// Returns the message for a bad command line.
std::optional<std::string> parse_command_line(int argc, char **argv, Options &options) {
    bool only_files = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (only_files || arg.size() < 2 || arg[0] != '-') {
            options.inputs.emplace_back(arg);
            continue;
        }
        if (arg == "--") {
            only_files = true;
            continue;
        }

        if (arg.starts_with("--")) {
            const std::string_view body = arg.substr(2);
            const std::size_t eq = body.find('=');
            const std::string_view name = body.substr(0, eq);
            const OptionRow *row = find_long(name);
            if (row == nullptr) return "unknown option '--" + std::string(name) + "'";
            std::string_view value;
            if (row->value_name.empty()) {
                if (eq != std::string_view::npos) return "option '" + display_name(*row) + "' takes no value";
            } else if (eq != std::string_view::npos) {
                value = body.substr(eq + 1);
            } else if (row->value_name.starts_with('[')) {
                // An optional value is only ever given with '='.
            } else if (i + 1 < argc) {
                value = argv[++i];
            } else {
                return "option '" + display_name(*row) + "' needs a value";
            }
            if (auto error = row->apply(options, value)) return error;
            continue;
        }

        for (std::size_t k = 1; k < arg.size(); ++k) {
            const OptionRow *row = find_short(arg[k]);
            if (row == nullptr) return "unknown option '-" + vael::cli::printable(arg.substr(k, 1)) + "'";
            if (row->value_name.empty()) {
                if (auto error = row->apply(options, {})) return error;
                continue;
            }
            std::string_view value;
            if (k + 1 < arg.size()) {
                value = arg.substr(k + 1);
            } else if (i + 1 < argc) {
                value = argv[++i];
            } else {
                return "option '-" + std::string(1, arg[k]) + "' needs a value";
            }
            if (auto error = row->apply(options, value)) return error;
            break;
        }
    }
    return std::nullopt;
}

void print_help(std::FILE *out) {
    std::fprintf(out,
                 "Usage: %s -p PATTERN_FILE [OPTION]... [FILE]...\n"
                 "   or: %s --load IMAGE [OPTION]... [FILE]...\n"
                 "Scan each FILE, read as a stream in blocks, for the patterns of\n"
                 "PATTERN_FILE. With no FILE, or when FILE is -, read standard input\n"
                 "(with -r and no FILE, the current directory).\n"
                 "Prints one line per match, FILE:END_OFFSET:ID, where END_OFFSET is the\n"
                 "offset of the match's last byte and ID the pattern's id; FILE is left\n"
                 "out when there is one input (see -H). With --start the line is\n"
                 "FILE:START-END:ID, START being the offset of the match's first byte.\n"
                 "\n"
                 "Options:\n",
                 kProgram, kProgram);
    for (const auto &row : kOptions) {
        std::string left = row.short_name != '\0' ? std::string{'-', row.short_name} : "  ";
        if (!row.long_name.empty()) {
            left += row.short_name != '\0' ? ", --" : "  --";
            left += row.long_name;
            if (row.value_name.starts_with('['))  // optional: "--stats[=FLAGS]"
                left += "[=" + std::string(row.value_name.substr(1));
            else if (!row.value_name.empty())
                left += "=" + std::string(row.value_name);
        } else if (!row.value_name.empty()) {
            left += " " + std::string(row.value_name);
        }
        std::fprintf(out, "  %-24s %.*s\n", left.c_str(), static_cast<int>(row.help.size()), row.help.data());
    }
    std::fprintf(out,
                 "\n"
                 "Pattern file: one pattern per line, ID<TAB>TEXT or ID<TAB>KIND<TAB>TEXT.\n"
                 "ID is a signed 32-bit decimal number. KIND is str (a plain string, the\n"
                 "default), re (a regular expression), word (a word or phrase between\n"
                 "delimiters; words keep their case, -i does not reach them),\n"
                 "word-continuous (one that may hit inside a word), kw or kw-nohistory\n"
                 "(a keyword rule, written {LSS(TEXT)}:RULE: a hit of its LSS runs the\n"
                 "rule over the data).\n"
                 "TEXT takes the escapes \\xHH, \\t, \\n, \\r and \\\\; a TAB inside TEXT is\n"
                 "written \\t. Lines starting with '#' and blank lines are skipped.\n"
                 "A str or re TEXT may open with metadata, {ITEM;ITEM}:TEXT, where an ITEM is\n"
                 "caseless, case, literal, shortlss or bound, and for re also LSS(TEXT)\n"
                 "(the strings to look for: characters, escapes and '|', no repetition)\n"
                 "and utf8 (the expression is in UTF-8 characters).\n"
                 "Write {}: in front of a str or re TEXT that itself starts with '{'.\n"
                 "\n"
                 "--explain prints one line per pattern, before anything is compiled and\n"
                 "even with -q (with no FILE it only explains):\n"
                 "  LINE: id=ID kind=KIND flags=FLAGS [lss='LSS'] text='TEXT' [rewritten='RE']\n"
                 "        [lss_used=STRINGS] [dfa_states=N]\n"
                 "FLAGS are the bits the pattern sets for itself (CASELESS, LITERAL,\n"
                 "SHORT_LSS, BOUND, NO_HISTORY, UTF8, joined by '|'), or 0; lss is shown when\n"
                 "the metadata gives an LSS(...); TEXT is the pattern after its metadata.\n"
                 "A utf8 line shows the byte-level expression it is rewritten to; a utf8\n"
                 "line or one with an LSS(...) shows the strings the first tier looks for\n"
                 "(lss_used=none, or refused).\n"
                 "With --rem an re line also shows the states of the minimized DFA that the\n"
                 "REM machine makes of TEXT (dfa_states=refused when it refuses TEXT).\n"
                 "\n"
                 "--verify PATTERN prints whether PATTERN compiles here (pm:), whether the\n"
                 "older regular-expression engine reads it (regexp:), and whether it means the\n"
                 "same in both (meaning: code, type, offset and text); -i, --digitless and\n"
                 "--rem apply. --verify-word PHRASE prints whether the word matcher takes\n"
                 "PHRASE. Both need no FILE; their status is 0 for success, 1 if not.\n"
                 "--gen-buf RULE prints a buffer that the keyword rule RULE is meant to match\n"
                 "(escaped as in a pattern file, '.' being filler) and the rule's verdict over\n"
                 "it; --gen-buf-miss RULE the same for a buffer it is meant not to match.\n"
                 "Their status is 0 when the verdict agrees, 1 if not, 2 for a refused rule.\n"
                 "--dump-dfa ID FORMAT prints the minimized DFA that the REM machine makes of\n"
                 "the re line with id ID, and scans nothing. FORMAT is text (a table), csv\n"
                 "or jflap (XML that JFLAP opens); all three show the letters a to z only.\n"
                 "--stats prints the library's statistics report of the compiled patterns\n"
                 "after the scan: the PM, its first-tier engines, and one entry per pattern\n"
                 "(first-tier hits, true matches, their ratio, the second tier's runs).\n"
                 "FLAGS, divided by ',': S=ID|TIER1|MATCHES|PERF|INTERNAL_ID (order of the\n"
                 "patterns), D (descending), FORMAT=TEXT|CSV, LEVEL=PM|TIER1|TIER2 (one table;\n"
                 "CSV needs one). Times are taken unless vael_pm_stats_take_exec_time=0.\n"
                 "--save IMAGE writes the compiled patterns as one file; --load IMAGE scans\n"
                 "with it, without a pattern file and without compiling. The IDs printed\n"
                 "are those of the pattern file the image was saved from; the image keeps\n"
                 "the -i and --digitless of that run, and those given with --load have no\n"
                 "effect. --dump-bnfa prints the string engine's automaton (Thin NFA or SM)\n"
                 "of the patterns, compiled or loaded, to standard output.\n"
                 "--engine sm compiles the strings into SM, a DFA with a full table per\n"
                 "state (faster to run, more memory), instead of the Thin NFA; an image\n"
                 "loads only under the engine that saved it. Other options work with both.\n"
                 "\n"
                 "Exit status: 0 if something matched, 1 if nothing did, 2 on error.\n");
}

// ---------------------------------------------------------------------------
// The library, held in owners that release in the right order: the PM before
// the pattern list, both before vael_apps_fini.

class Library {
public:
    Library() : ok_(vael_apps_init(nullptr) == 0) {}
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
    ~Library() {
        if (ok_) vael_apps_fini();
    }
    bool ok() const { return ok_; }

private:
    bool ok_;
};

struct PatternsDeleter {
    void operator()(vael_pm_patterns *p) const { vael_pm_patterns_destroy(p); }
};
struct PmDeleter {
    void operator()(vael_pm_handle *p) const { vael_pm_destroy(p); }
};
struct VbufDeleter {
    void operator()(vael_vbuf *v) const { vael_vbuf_destroy(v); }
};
using VbufPtr = std::unique_ptr<vael_vbuf, VbufDeleter>;
using PatternsPtr = std::unique_ptr<vael_pm_patterns, PatternsDeleter>;
using PmPtr = std::unique_ptr<vael_pm_handle, PmDeleter>;

void report(const std::string &where, const std::string &what) {
    std::fprintf(stderr, "%s: %s: %s\n", kProgram, where.c_str(), what.c_str());
}

std::string where_in(const std::string &file, std::size_t line) { return file + ":" + std::to_string(line); }

const PatternRecord *find_record(const std::vector<PatternRecord> &records, std::int32_t id) {
    for (const auto &record : records)
        if (record.id == id) return &record;
    return nullptr;
}

// ---------------------------------------------------------------------------
// From records to the library's pattern list.

// A record as the library will store it: the bits its metadata sets, the
// LSS(...) item when one was given, and the text after the metadata. It comes
// from the library's own metadata parser, so --explain shows what the add
// operation stores rather than a second reading of the text.
struct ReadPattern {
    std::uint32_t flags = 0;
    std::optional<std::string_view> lss;
    std::string_view text;
};

// Reads a record's metadata as its add operation will. Returns the message
// for a record the add would refuse.
std::optional<std::string> read_pattern(const PatternRecord &record, ReadPattern &read) {
    read = ReadPattern{};
    read.text = record.bytes;
    switch (record.kind) {
    case PatternKind::str:
    case PatternKind::re: {
        const char *lss = nullptr;
        std::uint32_t lss_len = 0;
        const char *text = record.bytes.data();
        auto text_len = static_cast<std::uint32_t>(record.bytes.size());
        const int allow_lss = record.kind == PatternKind::re;
        if (vael_pm_patterns_parse_metadata(&lss, &lss_len, &text, &text_len, &read.flags, allow_lss) != 0)
            return "bad metadata in '" + vael::cli::printable(record.bytes) + "'";
        // The add would store no pattern, or only the LSS as if it were a
        // plain string; neither is what the line asks for.
        if (text_len == 0) return "empty pattern text after metadata in '" + vael::cli::printable(record.bytes) + "'";
        if (lss != nullptr) read.lss = std::string_view(lss, lss_len);
        read.text = std::string_view(text, text_len);
        if (record.kind == PatternKind::re && vael::cli::metadata_has_item(record.bytes, "utf8"))
            read.flags |= VAEL_PM_UTF8;
        break;
    }
    case PatternKind::word:
        break;  // no metadata: a leading '{' is part of the text
    case PatternKind::word_continuous:
        read.flags = VAEL_PM_CONTINUOUS_WORD;
        break;
    case PatternKind::kw:
    case PatternKind::kw_nohistory: {
        // A rule is found by its LSS, which only its author can name: the
        // metadata block holds it and nothing else.
        const char *lss = nullptr;
        std::uint32_t lss_len = 0;
        const char *text = record.bytes.data();
        auto text_len = static_cast<std::uint32_t>(record.bytes.size());
        std::uint32_t flags = 0;
        if (vael_pm_patterns_parse_metadata(&lss, &lss_len, &text, &text_len, &flags, 1) != 0 || flags != 0)
            return "bad metadata in '" + vael::cli::printable(record.bytes) + "' (a rule takes {LSS(TEXT)}: only)";
        if (lss == nullptr || lss_len == 0)
            return "keyword rule without its LSS in '" + vael::cli::printable(record.bytes) +
                   "' (write {LSS(TEXT)}: in front of the rule)";
        if (text_len == 0) return "empty rule after metadata in '" + vael::cli::printable(record.bytes) + "'";
        read.lss = std::string_view(lss, lss_len);
        read.text = std::string_view(text, text_len);
        if (record.kind == PatternKind::kw_nohistory) read.flags = VAEL_PM_NO_HISTORY;
        break;
    }
    }
    return std::nullopt;
}

// The whole text of a str or re goes to the library, which parses the
// metadata again; the pattern's own bits come only from there, never from the
// command line (but --rem, which picks the second tier of re lines). A rule
// goes as its LSS and its rule text, as the add takes them.
int add_record(vael_pm_patterns *patterns, const PatternRecord &record, const ReadPattern &read, bool rem) {
    const char *bytes = record.bytes.c_str();
    const auto len = static_cast<std::uint32_t>(record.bytes.size());
    // A rule's text is the end of the record's bytes, so it ends in a NUL.
    const char *rule = read.text.data();
    const char *lss = read.lss ? read.lss->data() : nullptr;
    const auto lss_len = static_cast<std::uint32_t>(read.lss ? read.lss->size() : 0);
    switch (record.kind) {
    // A str line is a plain string: its text is its LSS byte for byte.
    case PatternKind::str: return vael_pm_patterns_add_simple_pattern(patterns, bytes, len, record.id, VAEL_PM_LITERAL);
    case PatternKind::re:
        return vael_pm_patterns_add_pattern(patterns, bytes, len, record.id,
                                            (rem ? VAEL_PM_USE_REM : 0) | (read.flags & VAEL_PM_UTF8));
    case PatternKind::word: return vael_pm_patterns_add_word(patterns, bytes, len, record.id, 0);
    case PatternKind::word_continuous:
        return vael_pm_patterns_add_word(patterns, bytes, len, record.id, VAEL_PM_CONTINUOUS_WORD);
    // The reader refused a NUL inside a rule, so the C string is the whole rule.
    case PatternKind::kw: return vael_pm_patterns_add_pattern_kw(patterns, lss, lss_len, rule, record.id);
    case PatternKind::kw_nohistory:
        return vael_pm_patterns_add_pattern_kw_nohistory(patterns, lss, lss_len, rule, record.id);
    }
    return -1;
}

// Flag names as the VAEL_PM_* constants spell them, in the order printed.
struct FlagName {
    std::uint32_t bit;
    const char *name;
};
constexpr FlagName kFlagNames[] = {
    {VAEL_PM_CASELESS, "CASELESS"}, {VAEL_PM_LITERAL, "LITERAL"},       {VAEL_PM_SHORT_LSS, "SHORT_LSS"},
    {VAEL_PM_BOUND, "BOUND"},       {VAEL_PM_NO_HISTORY, "NO_HISTORY"}, {VAEL_PM_CONTINUOUS_WORD, "CONTINUOUS_WORD"},
    {VAEL_PM_UTF8, "UTF8"},
};

std::string flag_names(std::uint32_t flags) {
    if (flags == 0) return "0";
    std::string names;
    for (const auto &[bit, name] : kFlagNames) {
        if ((flags & bit) == 0) continue;
        if (!names.empty()) names += '|';
        names += name;
        flags &= ~bit;
    }
    if (flags != 0) {
        // A bit without a name here: shown rather than dropped.
        char hex[16];
        std::snprintf(hex, sizeof hex, "0x%08" PRIx32, flags);
        if (!names.empty()) names += '|';
        names += hex;
    }
    return names;
}

void explain(const Options &options, const PatternRecord &record, const ReadPattern &read) {
    std::string line = std::to_string(record.line) + ": id=" + std::to_string(record.id) +
                       " kind=" + std::string(vael::cli::kind_name(record.kind)) + " flags=" + flag_names(read.flags);
    if (read.lss) line += " lss='" + vael::cli::printable(*read.lss) + "'";
    line += " text='" + vael::cli::printable(read.text) + "'";
    if (record.kind != PatternKind::str && record.kind != PatternKind::word &&
        record.kind != PatternKind::word_continuous)
        line += vael::cli::analysis_fields(read.text, read.lss ? &*read.lss : nullptr, record.kind == PatternKind::re,
                                           read.flags, options.compile_flags);
    if (options.rem && record.kind == PatternKind::re) {
        // The machine REM makes of the text; whether the PM needs it depends
        // on the LSS.
        const long states = vael::cli::rem_dfa_states(read.text, read.flags, options.compile_flags);
        line += states < 0 ? " dfa_states=refused" : " dfa_states=" + std::to_string(states);
    }
    line += '\n';
    std::fputs(line.c_str(), stdout);
}

// Names the pattern a failed compile blames, by its line, when the library
// names one; -1 is the library's "no pattern".
void report_compile_error(const Options &options, const std::vector<PatternRecord> &records,
                          const vael_pm_error &err) {
    std::string why = err.error_string != nullptr ? err.error_string : "no reason given";
    if (err.error_type == VAEL_PM_ERROR_INTERNAL) why += " (internal error)";
    if (err.error_type == VAEL_PM_ERROR_COMPLEX) why += " (too complex)";

    const PatternRecord *record = err.pattern_id != -1 ? find_record(records, err.pattern_id) : nullptr;
    if (record == nullptr) {
        report(options.pattern_file, "cannot compile the patterns: " + why);
        return;
    }
    // Quoted after its metadata, as the library took it, so that an error
    // index counts in the text shown.
    ReadPattern read;
    const std::string_view text = read_pattern(*record, read) ? std::string_view(record->bytes) : read.text;
    std::string what =
        "cannot compile pattern " + std::to_string(record->id) + " '" + vael::cli::printable(text) + "'";
    if (err.error_index != 0) what += " at byte " + std::to_string(err.error_index);
    report(where_in(options.pattern_file, record->line), what + ": " + why);
}

// ---------------------------------------------------------------------------
// Checks before the library starts.

// The library reads its tunables from the environment with strtol, so a value
// such as "abc" would silently be 0: vael-scan refuses it first.
struct TunableRow {
    const char *name;
    int min;
    int max;
};
constexpr TunableRow kTunables[] = {
    {"vael_dfa_state_limit", 0, INT32_MAX},
    {"vael_dfa_should_limit_states", 0, 1},
    {"vael_pm_min_lss_size", 0, INT32_MAX},
    {"vael_pm_utf8_range_buffer_size", 0, INT32_MAX},
    {"vael_pm_default_back_offset_to_search_match_start", 0, INT32_MAX},
    {"vael_thin_nfa_full_tiers_num", 0, INT32_MAX},
    {"vael_thin_nfa_max_partial_trans", 0, INT32_MAX},
    {"vael_thin_nfa_optimize_contig_chars", 0, 1},
    {"vael_pm_allow_null_in_pattern", 0, 1},
    {"vael_pm_pcre_use_dfa_exec", 0, 1},
    {"vael_pm_stats_take_exec_time", 0, 1},
};

std::optional<std::string> check_tunables() {
    for (const auto &row : kTunables) {
        const char *text = std::getenv(row.name);
        if (text == nullptr) continue;
        char *end = nullptr;
        errno = 0;
        const long value = std::strtol(text, &end, 10);
        if (*text != '\0' && *end == '\0' && errno == 0 && value >= row.min && value <= row.max) continue;
        const std::string accepted = row.max == 1 ? "0 or 1"
                                                  : "a decimal integer from " + std::to_string(row.min) + " to " +
                                                        std::to_string(row.max);
        return "environment: bad value '" + vael::cli::printable(text) + "' for " + row.name +
               " (accepted: " + accepted + ")";
    }
    return std::nullopt;
}

// The library notes its errors and warnings by default. vael-scan reports
// every failure itself, naming the file and line, and a NUL written as \x00 is
// how its pattern files spell one, so the library's notes are printed only
// when the user asks for them, by --debug or VAEL_DEBUG.
void set_up_debug_output(const Options &options) {
    vael_us_adaptor_set_debug_flags("error warning", "NONE", "K_");
    if (const char *topics = std::getenv("VAEL_DEBUG"))
        vael_us_adaptor_set_debug_flags(topics, std::getenv("VAEL_DEBUG_LEVEL"), "K_");
    if (!options.debug_topics.empty())
        vael_us_adaptor_set_debug_flags(options.debug_topics.c_str(),
                                        options.debug_level.empty() ? nullptr : options.debug_level.c_str(), "K_");
    if (std::getenv("vael_pm_allow_null_in_pattern") == nullptr) vael_pm_allow_null_in_pattern = 1;
}

// Two lines with one id would be told apart by nothing in the output.
void warn_duplicate_ids(const Options &options, const std::vector<PatternRecord> &records) {
    std::map<std::int32_t, std::size_t> first_line;
    for (const auto &record : records) {
        const auto [it, added] = first_line.emplace(record.id, record.line);
        if (!added)
            report(where_in(options.pattern_file, record.line),
                   "warning: pattern id " + std::to_string(record.id) + " is also used on line " +
                       std::to_string(it->second));
    }
}

// Bytes before a chunk that a match ending in the chunk may start in.
std::uint32_t history_needed(const std::vector<PatternRecord> &records) {
    std::uint32_t history = 0;
    for (const auto &record : records) {
        ReadPattern read;
        if (record.kind != PatternKind::str || read_pattern(record, read)) return kOpenHistory;
        history = std::max(history, static_cast<std::uint32_t>(read.text.size() - 1));
    }
    return history;
}

// The word matcher reads one flat buffer, never a history in a vbuf.
bool has_words(const std::vector<PatternRecord> &records) {
    return std::any_of(records.begin(), records.end(), [](const PatternRecord &r) {
        return r.kind == PatternKind::word || r.kind == PatternKind::word_continuous;
    });
}

// ---------------------------------------------------------------------------
// Scanning.

double seconds_now() {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// What one input's matches turn into.
struct FileScan {
    const Options &options;
    bool show_name;
    std::string name;  // as printed: "(standard input)" for "-"
    std::uint64_t matches = 0;
};

bool on_stream_match(void *ctx, std::int32_t pattern_id, std::uint64_t start, std::uint64_t offset) {
    auto &scan = *static_cast<FileScan *>(ctx);
    ++scan.matches;
    const Options &options = scan.options;
    if (options.quiet) return false;  // the exit status is known
    if (options.list_files) {
        std::printf("%s\n", scan.name.c_str());
        return false;
    }
    if (options.count_only) return true;
    if (scan.show_name) std::printf("%s:", scan.name.c_str());
    if (start != vael::cli::kNoStart) std::printf("%" PRIu64 "-", start);
    std::printf("%" PRIu64 ":%" PRId32 "\n", offset, pattern_id);
    return true;
}

// Bytes, speed and matches on one line of a terminal, rewritten in place.
class Progress {
public:
    explicit Progress(bool on) : on_(on && ::isatty(STDERR_FILENO) == 1) {}
    void start() { start_ = last_ = seconds_now(); }
    void update(const std::string &name, std::uint64_t bytes, std::uint64_t matches) {
        if (!on_) return;
        const double now = seconds_now();
        // A scan shorter than a second shows nothing.
        if (now - start_ < 1.0 || now - last_ < 0.25) return;
        last_ = now;
        std::fprintf(stderr, "\r%s: %s: %" PRIu64 " MiB, %.0f MB/s, %" PRIu64 " matches\033[K", kProgram,
                     name.c_str(), bytes >> 20, static_cast<double>(bytes) / 1e6 / (now - start_), matches);
        shown_ = true;
    }
    void finish() {
        if (shown_) std::fputs("\r\033[K", stderr);
        shown_ = false;
    }

private:
    bool on_;
    bool shown_ = false;
    double start_ = 0;
    double last_ = 0;
};

class Scanner {
public:
    Scanner(const Options &options, vael_pm_handle *pm, std::uint32_t history, bool show_names, bool flat)
        : options_(options),
          show_names_(show_names),
          stream_(pm, history, options.all_matches, on_stream_match, options.match_start, flat),
          progress_(options.progress) {}

    bool any_match() const { return any_match_; }
    bool any_error() const { return any_error_; }
    // True when nothing more need be read: -q found a match, or memory ran out.
    bool done() const { return done_; }

    // A command-line operand: a file, "-", or with -r a directory to walk.
    void operand(const std::string &path) {
        if (options_.recursive && path != "-") {
            struct stat st {};
            if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
                walk(path);
                return;
            }
        }
        file(path);
    }

private:
    // Files below a directory in name order; links and special files found
    // there are skipped, as they may lead out of the tree or never end.
    void walk(const std::string &dir) {
        DIR *d = ::opendir(dir.c_str());
        if (d == nullptr) {
            error(dir, std::strerror(errno));
            return;
        }
        std::vector<std::string> names;
        while (const dirent *entry = ::readdir(d)) {
            const std::string_view name = entry->d_name;
            if (name != "." && name != "..") names.emplace_back(name);
        }
        ::closedir(d);
        std::sort(names.begin(), names.end());
        const std::string prefix = dir.ends_with('/') ? dir : dir + "/";
        for (const auto &name : names) {
            if (done_) return;
            const std::string path = prefix + name;
            struct stat st {};
            if (::lstat(path.c_str(), &st) != 0) {
                error(path, std::strerror(errno));
            } else if (S_ISDIR(st.st_mode)) {
                walk(path);
            } else if (S_ISREG(st.st_mode)) {
                file(path);
            }
        }
    }

    void error(const std::string &where, const std::string &what) {
        report(where, what);
        any_error_ = true;
    }

    void file(const std::string &path) {
        if (done_) return;
        FileScan scan{options_, show_names_, path == "-" ? "(standard input)" : path};
        vael::cli::InputFile input;
        if (auto why = input.open(path)) return error(path, *why);
        if (!buffer_) {
            buffer_.reset(new (std::nothrow) unsigned char[options_.block_size]);
            if (!buffer_ || !stream_.ok()) {
                done_ = true;
                return error(path, "out of memory: cannot allocate a read buffer of " +
                                       std::to_string(options_.block_size) + " bytes");
            }
        }
        stream_.reset(&scan);
        progress_.start();
        for (;;) {
            std::size_t got = 0;
            if (auto why = input.read(buffer_.get(), options_.block_size, &got)) {
                error(path, *why);
                break;
            }
            if (got == 0) break;
            const auto result = stream_.feed(buffer_.get(), got);
            if (result == vael::cli::StreamScanner::Result::failed) {
                done_ = true;
                error(path, "out of memory while scanning");
                break;
            }
            if (result == vael::cli::StreamScanner::Result::stopped) break;
            progress_.update(scan.name, stream_.position(), scan.matches);
        }
        if (!any_error_ && !done_ && stream_.finish() == vael::cli::StreamScanner::Result::failed) {
            done_ = true;
            error(path, "out of memory while scanning");
        }
        progress_.finish();
        if (scan.matches > 0) {
            any_match_ = true;
            // As grep -q: a match settles the status, even after an error.
            if (options_.quiet) done_ = true;
        }
        if (options_.count_only && !options_.quiet && !options_.list_files) {
            if (scan.show_name) std::printf("%s:", scan.name.c_str());
            std::printf("%" PRIu64 "\n", scan.matches);
        }
    }

    const Options &options_;
    const bool show_names_;
    vael::cli::StreamScanner stream_;
    Progress progress_;
    std::unique_ptr<unsigned char[]> buffer_;  // allocated for the first input
    bool any_match_ = false;
    bool any_error_ = false;
    bool done_ = false;
};

// A status that claims success only if everything printed reached stdout.
int finish_output(int status) {
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "%s: write error: %s\n", kProgram, std::strerror(errno));
        return kExitError;
    }
    return status;
}

// --dump-dfa: the line's text after its metadata, through the REM machine.
int dump_dfa(const Options &options, const PatternRecord &record) {
    ReadPattern read;
    if (auto error = read_pattern(record, read)) {
        report(where_in(options.pattern_file, record.line), *error);
        return kExitError;
    }
    const char *why = nullptr;
    const int rc = vael::cli::dump_rem_dfa(read.text, read.flags, options.compile_flags, options.dump_format, stdout,
                                           &why);
    if (rc == 1) {
        report(where_in(options.pattern_file, record.line),
               "the REM machine refuses pattern " + std::to_string(record.id) + ": " + (why ? why : "no reason given"));
        return kExitError;
    }
    if (rc != 0) {
        std::fprintf(stderr, "%s: cannot dump the DFA of pattern %d\n", kProgram, static_cast<int>(record.id));
        return kExitError;
    }
    return finish_output(kExitMatch);
}

int scan_inputs(const Options &options, vael_pm_handle *pm, std::uint32_t history, bool flat);

// --save and --dump-bnfa, after the compile or the load. A status when the
// run ends here: on failure, or when they were all that was asked.
std::optional<int> save_and_dump(const Options &options, vael_pm_handle *pm) {
    if (!options.save_image.empty()) {
        if (auto why = vael::cli::save_image(pm, options.save_image)) {
            report(options.save_image, *why);
            return kExitError;
        }
    }
    if (options.dump_bnfa) {
        if (auto why = vael::cli::dump_bnfa(pm, *options.dump_bnfa, stdout)) {
            report(options.load_image.empty() ? options.pattern_file : options.load_image, *why);
            return kExitError;
        }
    }
    if ((!options.save_image.empty() || options.dump_bnfa) && options.inputs.empty()) return finish_output(kExitMatch);
    return std::nullopt;
}

// --load: the patterns come compiled from an image.
int run_loaded(const Options &options) {
    if (auto error = check_tunables()) {
        std::fprintf(stderr, "%s: %s\n", kProgram, error->c_str());
        return kExitError;
    }
    Library library;
    if (!library.ok()) {
        std::fprintf(stderr, "%s: cannot initialise the pattern library\n", kProgram);
        return kExitError;
    }
    set_up_debug_output(options);
    vael_pm_handle *loaded = nullptr;
    if (auto why = vael::cli::load_image(options.load_image, vael::cli::StreamScanner::on_match, &loaded)) {
        report(options.load_image, *why);
        return kExitError;
    }
    PmPtr pm(loaded);
    if (options.memory)
        std::fprintf(stderr, "%s: memory: %" PRIdPTR " bytes held by the loaded patterns\n", kProgram,
                     vael_pmglob_memory_get_alloc_total());
    if (auto status = save_and_dump(options, pm.get())) return *status;
    return scan_inputs(options, pm.get(), vael::cli::image_history(pm.get(), kOpenHistory),
                       vael::cli::image_has_words(pm.get()));
}

int run(const Options &options) {
    if (!options.load_image.empty()) return run_loaded(options);
    const auto parsed = vael::cli::read_pattern_file(options.pattern_file);
    if (!parsed.ok()) {
        const auto &error = *parsed.error;
        report(error.line == 0 ? options.pattern_file : where_in(options.pattern_file, error.line), error.message);
        return kExitError;
    }
    if (parsed.records.empty()) {
        report(options.pattern_file, "no patterns");
        return kExitError;
    }
    warn_duplicate_ids(options, parsed.records);
    const PatternRecord *dump_record = nullptr;
    if (options.dump_dfa) {
        dump_record = find_record(parsed.records, *options.dump_dfa);
        if (dump_record == nullptr || dump_record->kind != PatternKind::re) {
            report(options.pattern_file, "--dump-dfa: no re line with id " + std::to_string(*options.dump_dfa));
            return kExitError;
        }
    }

    if (auto error = check_tunables()) {
        std::fprintf(stderr, "%s: %s\n", kProgram, error->c_str());
        return kExitError;
    }
    Library library;
    if (!library.ok()) {
        std::fprintf(stderr, "%s: cannot initialise the pattern library\n", kProgram);
        return kExitError;
    }
    set_up_debug_output(options);
    if (dump_record != nullptr) return dump_dfa(options, *dump_record);

    PatternsPtr patterns(vael_pm_patterns_create());
    if (!patterns) {
        std::fprintf(stderr, "%s: out of memory\n", kProgram);
        return kExitError;
    }
    for (const auto &record : parsed.records) {
        ReadPattern read;
        std::optional<std::string> error = read_pattern(record, read);
        if (!error && options.explain) explain(options, record, read);
        if (!error && add_record(patterns.get(), record, read, options.rem) != 0)
            error = "cannot add pattern " + std::to_string(record.id);
        if (error) {
            // The lines explained so far come before the message.
            std::fflush(stdout);
            report(where_in(options.pattern_file, record.line), *error);
            return kExitError;
        }
    }
    if (options.explain) {
        if (options.inputs.empty()) return finish_output(kExitMatch);
        // Printed before a compile error, not after it.
        std::fflush(stdout);
    }

    vael_pm_error err;
    vael_pm_error_init(&err);
    PmPtr pm(vael_pm_compile(patterns.get(), vael::cli::StreamScanner::on_match, options.compile_flags, &err,
                             kCaller));
    if (!pm) {
        report_compile_error(options, parsed.records, err);
        return kExitError;
    }
    // The PM keeps nothing of the list; what the PM account holds from here
    // on is the compiled PM alone.
    patterns.reset();
    if (options.memory)
        std::fprintf(stderr, "%s: memory: %" PRIdPTR " bytes held by the compiled patterns (%zu patterns)\n",
                     kProgram, vael_pmglob_memory_get_alloc_total(), parsed.records.size());

    if (auto status = save_and_dump(options, pm.get())) return *status;
    return scan_inputs(options, pm.get(), history_needed(parsed.records), has_words(parsed.records));
}

int scan_inputs(const Options &options, vael_pm_handle *pm, std::uint32_t history, bool flat) {
    // A report's times are taken only when asked for; the environment's
    // word stands when it is given.
    if (options.stats && std::getenv("vael_pm_stats_take_exec_time") == nullptr) vael_pm_stats_take_exec_time = 1;
    std::vector<std::string> inputs = options.inputs;
    if (inputs.empty()) inputs.emplace_back(options.recursive ? "." : "-");
    const bool show_names = options.file_names == FileNames::always ||
                            (options.file_names == FileNames::automatic && (inputs.size() > 1 || options.recursive));
    Scanner scanner(options, pm, history, show_names, flat);
    for (const auto &input : inputs) {
        scanner.operand(input);
        if (scanner.done()) break;
    }
    if (options.stats) vael::cli::print_stats(pm, *options.stats);
    if (options.quiet && scanner.any_match()) return finish_output(kExitMatch);
    if (scanner.any_error()) return finish_output(kExitError);
    return finish_output(scanner.any_match() ? kExitMatch : kExitNoMatch);
}

// --verify and --verify-word: the answer's status, 2 when the library fails.
int verify_main(const Options &options) {
    Library library;
    if (!library.ok()) {
        std::fprintf(stderr, "%s: cannot initialise the pattern library\n", kProgram);
        return kExitError;
    }
    set_up_debug_output(options);
    if (options.verify)
        return vael::cli::verify_pattern(*options.verify, options.compile_flags, options.rem ? VAEL_PM_USE_REM : 0,
                                         stdout);
    return vael::cli::verify_word(*options.verify_word, stdout);
}

// --gen-buf and --gen-buf-miss: 0 when the rule's verdict agrees.
int gen_buf_main(const Options &options) {
    Library library;
    if (!library.ok()) {
        std::fprintf(stderr, "%s: cannot initialise the pattern library\n", kProgram);
        return kExitError;
    }
    set_up_debug_output(options);
    return vael::cli::gen_buf(*options.gen_buf, options.gen_buf_match, stdout, stderr);
}

}  // namespace

int main(int argc, char **argv) {
    Options options;
    auto usage_error = parse_command_line(argc, argv, options);
    // Read by the library when it starts, which is after the options.
    vael_pm_tier1_use_thin_nfa = options.use_thin_nfa;
    if (!usage_error && !options.help && options.tokens)
        return vael::cli::print_tokens(*options.tokens, options.compile_flags, stdout);
    if (!usage_error && !options.help && options.lss)
        return vael::cli::print_lss(*options.lss, options.compile_flags, stdout);
    if (!usage_error && !options.help && (options.verify || options.verify_word)) {
        if (options.verify && options.verify_word)
            usage_error = "--verify and --verify-word cannot be given together";
        else if (!options.pattern_file.empty() || !options.inputs.empty())
            usage_error = "--verify and --verify-word take no pattern file or input";
        else
            return verify_main(options);
    }
    if (!usage_error && !options.help && options.gen_buf) {
        if (!options.pattern_file.empty() || !options.inputs.empty())
            usage_error = "--gen-buf and --gen-buf-miss take no pattern file or input";
        else
            return gen_buf_main(options);
    }
    if (!usage_error && !options.help && options.dump_dfa) {
        // The format is the word after the id; nothing is scanned.
        const auto format =
            options.inputs.size() == 1 ? vael::cli::parse_dfa_dump_format(options.inputs[0]) : std::nullopt;
        if (!format)
            usage_error = "option '--dump-dfa' takes an id and then a format: text, csv or jflap";
        else
            options.dump_format = *format;
    }
    if (!usage_error && !options.help) {
        if (!options.load_image.empty() && !options.pattern_file.empty())
            usage_error = "give either a pattern file (-p) or an image (--load), not both";
        else if (options.pattern_file.empty() && options.load_image.empty())
            usage_error = "no pattern file given (use -p PATTERN_FILE)";
    }
    if (usage_error) {
        std::fprintf(stderr, "%s: %s\nTry '%s --help' for more information.\n", kProgram, usage_error->c_str(),
                     kProgram);
        return kExitError;
    }
    if (options.help) {
        print_help(stdout);
        return std::fflush(stdout) == 0 ? kExitMatch : kExitError;
    }

    try {
        return run(options);
    } catch (const std::bad_alloc &) {
        // Reading and compiling the patterns; scanning allocates up front.
        std::fprintf(stderr, "%s: %s: out of memory\n", kProgram, options.pattern_file.c_str());
        return kExitError;
    }
}
