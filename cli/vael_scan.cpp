// vael-scan - scan files for the patterns of a pattern file.
//
// The pattern file is read and compiled once; every input file is then read
// whole and scanned as one buffer. Output and exit status follow grep: a line
// per match (or a count per file), 0 when something matched, 1 when nothing
// did, 2 on any error.
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
#include <strings.h>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "vael/vael_apps.h"

#include "explain.h"
#include "pattern_file.h"
#include "read_file.h"

namespace {

using vael::cli::PatternKind;
using vael::cli::PatternRecord;

constexpr const char *kProgram = "vael-scan";
constexpr const char *kCaller = "vael-scan";  // names this user in the library's logs

constexpr int kExitMatch = 0;
constexpr int kExitNoMatch = 1;
constexpr int kExitError = 2;

// Offsets reach the callback as 32-bit numbers, so one buffer is at most this big.
constexpr std::size_t kMaxBuffer = UINT32_MAX;

struct Options {
    std::string pattern_file;
    std::vector<std::string> inputs;
    bool all_matches = false;
    bool count_only = false;
    bool quiet = false;
    bool help = false;
    std::uint32_t compile_flags = 0;
    std::uint32_t block_size = 0;  // 0: each file is one flat buffer
    std::string debug_topics;      // as VAEL_DEBUG: "pm thinnfa", "memory,pm"
    std::string debug_level;       // as VAEL_DEBUG_LEVEL; empty: NOTICE
    bool memory = false;
    bool explain = false;  // print how each pattern was read
    std::optional<std::string> tokens;  // --tokens: the pattern to show the REM tokens of
    std::optional<std::string> lss;     // --lss: the pattern to show the LSS of
};

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

constexpr OptionRow kOptions[] = {
    {'p', "patterns", "FILE", "read the patterns from FILE (required)",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         if (!o.pattern_file.empty()) return "only one pattern file may be given";
         if (v.empty()) return "empty pattern file name";
         o.pattern_file = v;
         return std::nullopt;
     }},
    {'\0', "all", "", "report every occurrence, not only the first of each pattern",
     [](Options &o, std::string_view) -> std::optional<std::string> {
         o.all_matches = true;
         return std::nullopt;
     }},
    {'\0', "count", "", "print FILE:COUNT for each file instead of the matches",
     [](Options &o, std::string_view) -> std::optional<std::string> {
         o.count_only = true;
         return std::nullopt;
     }},
    {'q', "quiet", "", "print nothing; stop at the first match (exit status only)",
     [](Options &o, std::string_view) -> std::optional<std::string> {
         o.quiet = true;
         return std::nullopt;
     }},
    {'i', "caseless", "", "match without regard to ASCII case",
     [](Options &o, std::string_view) -> std::optional<std::string> {
         o.compile_flags |= VAEL_PM_CASELESS;
         return std::nullopt;
     }},
    {'\0', "digitless", "", "let every digit match every other digit",
     [](Options &o, std::string_view) -> std::optional<std::string> {
         o.compile_flags |= VAEL_PM_DIGITLESS;
         return std::nullopt;
     }},
    {'\0', "block-size", "N", "scan each file as a stream of N-byte blocks (a virtual buffer)",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         std::uint64_t n = 0;
         for (char c : v) {
             if (c < '0' || c > '9' || (n = n * 10 + (c - '0')) > UINT32_MAX) n = UINT64_MAX;
             if (n == UINT64_MAX) break;
         }
         if (v.empty() || n == 0 || n == UINT64_MAX)
             return "bad block size '" + vael::cli::printable(v) + "' (a number from 1 to 4294967295)";
         o.block_size = static_cast<std::uint32_t>(n);
         return std::nullopt;
     }},
    {'\0', "debug", "TOPICS", "turn on the library's debug topics (as VAEL_DEBUG: e.g. 'pm,thinnfa')",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         if (v.empty()) return "empty debug topic list";
         o.debug_topics = v;
         return std::nullopt;
     }},
    {'\0', "debug-level", "LEVEL", "level of --debug: NONE, ERR, WRN, NOTICE (default) or INFO",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         for (const char *level : {"NONE", "ERR", "WRN", "NOTICE", "INFO"}) {
             if (v.size() == std::strlen(level) && ::strncasecmp(v.data(), level, v.size()) == 0) {
                 o.debug_level = v;
                 return std::nullopt;
             }
         }
         return "bad debug level '" + vael::cli::printable(v) + "' (NONE, ERR, WRN, NOTICE or INFO)";
     }},
    {'\0', "memory", "", "print the memory the compiled patterns hold (to standard error)",
     [](Options &o, std::string_view) -> std::optional<std::string> {
         o.memory = true;
         return std::nullopt;
     }},
    {'\0', "explain", "", "print how each pattern was read (see below); with no FILE, only that",
     [](Options &o, std::string_view) -> std::optional<std::string> {
         o.explain = true;
         return std::nullopt;
     }},
    {'\0', "tokens", "PATTERN", "print the REM tokens of PATTERN, one per line, and exit (no FILE needed)",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         o.tokens = std::string(v);
         return std::nullopt;
     }},
    {'\0', "lss", "PATTERN", "print the LSS the library finds for PATTERN and exit (no FILE needed)",
     [](Options &o, std::string_view v) -> std::optional<std::string> {
         o.lss = std::string(v);
         return std::nullopt;
     }},
    {'h', "help", "", "show this help and exit",
     [](Options &o, std::string_view) -> std::optional<std::string> {
         o.help = true;
         return std::nullopt;
     }},
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
                 "Usage: %s -p PATTERN_FILE [OPTION]... FILE...\n"
                 "  or:  %s -p PATTERN_FILE --explain [OPTION]... [FILE]...\n"
                 "Scan each FILE, read whole as one buffer (or as a stream of blocks with\n"
                 "--block-size), for the patterns of PATTERN_FILE.\n"
                 "Prints one line per match, FILE:END_OFFSET:ID, where END_OFFSET is the\n"
                 "offset of the match's last byte and ID the pattern's id.\n"
                 "\n"
                 "Options:\n",
                 kProgram, kProgram);
    for (const auto &row : kOptions) {
        std::string left = row.short_name != '\0' ? std::string{'-', row.short_name} : "  ";
        if (!row.long_name.empty()) {
            left += row.short_name != '\0' ? ", --" : "  --";
            left += row.long_name;
            if (!row.value_name.empty()) left += "=" + std::string(row.value_name);
        } else if (!row.value_name.empty()) {
            left += " " + std::string(row.value_name);
        }
        std::fprintf(out, "  %-22s %.*s\n", left.c_str(), static_cast<int>(row.help.size()), row.help.data());
    }
    std::fprintf(out,
                 "\n"
                 "Pattern file: one pattern per line, ID<TAB>TEXT or ID<TAB>KIND<TAB>TEXT.\n"
                 "ID is a signed 32-bit decimal number. KIND is str (a plain string, the\n"
                 "default), re (a regular expression), word (a word or phrase), kw or\n"
                 "kw-nohistory (a keyword rule). This build compiles only str patterns,\n"
                 "none marked bound, and if one is marked caseless all must be (or give -i).\n"
                 "TEXT takes the escapes \\xHH, \\t, \\n, \\r and \\\\; a TAB inside TEXT is\n"
                 "written \\t. Lines starting with '#' and blank lines are skipped.\n"
                 "A str or re TEXT may open with metadata, {ITEM;ITEM}:TEXT, where an ITEM is\n"
                 "caseless, case, literal, shortlss or bound, and for re also LSS(TEXT).\n"
                 "Write {}: in front of a str or re TEXT that itself starts with '{'.\n"
                 "\n"
                 "--explain prints one line per pattern, before anything is compiled and\n"
                 "even with -q:\n"
                 "  LINE: id=ID kind=KIND flags=FLAGS [lss='LSS'] text='TEXT'\n"
                 "FLAGS are the bits the pattern sets for itself (CASELESS, LITERAL,\n"
                 "SHORT_LSS, BOUND, NO_HISTORY, joined by '|'), or 0; lss is shown when the\n"
                 "metadata gives an LSS(...); TEXT is the pattern after its metadata.\n"
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
    std::string what = "cannot compile pattern " + std::to_string(record->id) + " '" +
                       vael::cli::printable(record->bytes) + "'";
    if (err.error_index != 0) what += " at byte " + std::to_string(err.error_index);
    report(where_in(options.pattern_file, record->line), what + ": " + why);
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
        break;
    }
    case PatternKind::word:
    case PatternKind::kw:
        break;  // no metadata: a leading '{' is part of the text
    case PatternKind::kw_nohistory:
        read.flags = VAEL_PM_NO_HISTORY;
        break;
    }
    return std::nullopt;
}

// The whole text goes to the library, which parses the metadata again; the
// pattern's own bits come only from there, never from the command line.
int add_record(vael_pm_patterns *patterns, const PatternRecord &record) {
    const char *bytes = record.bytes.c_str();
    const auto len = static_cast<std::uint32_t>(record.bytes.size());
    switch (record.kind) {
    case PatternKind::str: return vael_pm_patterns_add_simple_pattern(patterns, bytes, len, record.id, 0);
    case PatternKind::re: return vael_pm_patterns_add_pattern(patterns, bytes, len, record.id, 0);
    case PatternKind::word: return vael_pm_patterns_add_word(patterns, bytes, len, record.id, 0);
    // The reader refused a NUL inside a rule, so c_str() is the whole rule.
    case PatternKind::kw: return vael_pm_patterns_add_pattern_kw(patterns, nullptr, 0, bytes, record.id);
    case PatternKind::kw_nohistory:
        return vael_pm_patterns_add_pattern_kw_nohistory(patterns, nullptr, 0, bytes, record.id);
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
    {VAEL_PM_BOUND, "BOUND"},       {VAEL_PM_NO_HISTORY, "NO_HISTORY"},
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

void explain(const PatternRecord &record, const ReadPattern &read) {
    std::string line = std::to_string(record.line) + ": id=" + std::to_string(record.id) +
                       " kind=" + std::string(vael::cli::kind_name(record.kind)) + " flags=" + flag_names(read.flags);
    if (read.lss) line += " lss='" + vael::cli::printable(*read.lss) + "'";
    line += " text='" + vael::cli::printable(read.text) + "'\n";
    std::fputs(line.c_str(), stdout);
}

// ---------------------------------------------------------------------------
// Scanning.

struct ScanState {
    const Options &options;
    const std::string &file;
    std::uint64_t matches = 0;
};

int on_match(vael_pm_handle *, std::int32_t pattern_id, void *user_arg, const unsigned char *, std::uint32_t,
             std::uint32_t offset, vael_vbuf *, int *keep_going) {
    auto &state = *static_cast<ScanState *>(user_arg);
    ++state.matches;
    if (state.options.quiet) {
        *keep_going = 0;  // the exit status is known
    } else if (!state.options.count_only) {
        std::printf("%s:%" PRIu32 ":%" PRId32 "\n", state.file.c_str(), offset, pattern_id);
    }
    return 0;
}

// Scans one file's bytes: flat, or as a virtual buffer of blocks that point
// into `data` followed by an empty present buffer, as a stream inspector
// would hand over the pieces of a stream. Both give the same matches.
int scan(vael_pm_handle *pm, const Options &options, std::string &data, ScanState &state) {
    const std::uint32_t exec_flags = options.all_matches ? VAEL_PM_EXEC_ALL_MATCHES : 0;
    if (options.block_size == 0)
        return vael_pm_exec_ex(pm, reinterpret_cast<const unsigned char *>(data.data()),
                               static_cast<std::uint32_t>(data.size()), nullptr, nullptr, &state, exec_flags);
    VbufPtr vbuf(vael_vbuf_create(UINT32_MAX, 0));
    if (!vbuf) return -1;
    for (std::size_t offset = 0; offset < data.size(); offset += options.block_size) {
        const std::size_t len = std::min<std::size_t>(options.block_size, data.size() - offset);
        if (vael_vbuf_add_buffer_ex(vbuf.get(), data.data() + offset, static_cast<std::uint32_t>(len), nullptr,
                                    nullptr) != 0)
            return -1;
    }
    return vael_pm_exec_ex(pm, nullptr, 0, vbuf.get(), nullptr, &state, exec_flags);
}

// A status that claims success only if everything printed reached stdout.
int finish_output(int status) {
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        std::fprintf(stderr, "%s: write error: %s\n", kProgram, std::strerror(errno));
        return kExitError;
    }
    return status;
}

int run(const Options &options) {
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

    Library library;
    if (!library.ok()) {
        std::fprintf(stderr, "%s: cannot initialise the pattern library\n", kProgram);
        return kExitError;
    }

    if (!options.debug_topics.empty())
        vael_us_adaptor_set_debug_flags(options.debug_topics.c_str(),
                                        options.debug_level.empty() ? nullptr : options.debug_level.c_str(), "K_");
    else if (std::getenv("VAEL_DEBUG") == nullptr)
        // The library notes its errors and warnings by default. vael-scan
        // reports every failure itself, naming the file and line, and a NUL
        // written as \x00 is how this file format spells one, so the notes
        // would only repeat or mislead unless the user asked for the log.
        vael_us_adaptor_set_debug_flags("error warning", "NONE", "K_");

    PatternsPtr patterns(vael_pm_patterns_create());
    if (!patterns) {
        std::fprintf(stderr, "%s: out of memory\n", kProgram);
        return kExitError;
    }
    for (const auto &record : parsed.records) {
        ReadPattern read;
        std::optional<std::string> error = read_pattern(record, read);
        if (!error && options.explain) explain(record, read);
        if (!error && add_record(patterns.get(), record) != 0) error = "cannot add pattern " + std::to_string(record.id);
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
    PmPtr pm(vael_pm_compile(patterns.get(), on_match, options.compile_flags, &err, kCaller));
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

    bool any_match = false;
    bool any_error = false;
    std::string data;
    for (const auto &file : options.inputs) {
        if (auto error = vael::cli::read_whole_file(file, data, kMaxBuffer)) {
            report(file, *error);
            any_error = true;
            continue;
        }
        ScanState state{options, file};
        // The library refuses an empty buffer as a bad argument; no pattern
        // is empty, so an empty file simply has no matches.
        if (!data.empty() && scan(pm.get(), options, data, state) != 0) {
            report(file, "scan failed");
            any_error = true;
            continue;
        }
        if (state.matches > 0) {
            any_match = true;
            // As grep -q: a match settles the status, even after an error.
            if (options.quiet) return kExitMatch;
        }
        if (options.count_only && !options.quiet) std::printf("%s:%" PRIu64 "\n", file.c_str(), state.matches);
    }

    if (any_error) return finish_output(kExitError);
    return finish_output(any_match ? kExitMatch : kExitNoMatch);
}

}  // namespace

int main(int argc, char **argv) {
    Options options;
    auto usage_error = parse_command_line(argc, argv, options);
    if (!usage_error && !options.help && options.tokens)
        return vael::cli::print_tokens(*options.tokens, options.compile_flags, stdout);
    if (!usage_error && !options.help && options.lss)
        return vael::cli::print_lss(*options.lss, options.compile_flags, stdout);
    if (!usage_error && !options.help) {
        if (options.pattern_file.empty())
            usage_error = "no pattern file given (use -p PATTERN_FILE)";
        else if (options.inputs.empty() && !options.explain)
            usage_error = "no input files";
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
    } catch (const std::exception &e) {
        // Chiefly std::bad_alloc for an input too large for memory.
        std::fprintf(stderr, "%s: %s\n", kProgram, e.what());
        return kExitError;
    }
}
