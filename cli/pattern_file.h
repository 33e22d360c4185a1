// pattern_file.h - the reader of vael-scan's pattern files.
//
// A pattern file holds one pattern per line:
//
//     ID<TAB>TEXT
//     ID<TAB>KIND<TAB>TEXT
//
// ID is a decimal signed 32-bit integer. TEXT is taken byte for byte except
// for the escapes \xHH (exactly two hex digits), \t, \n, \r and \\; any other
// backslash sequence is an error. A raw TAB never appears inside TEXT, so the
// number of TAB-separated fields tells the two forms apart. KIND says how
// the library takes TEXT: "str" (the default) a plain string, "re" a regular
// expression, "word" a word or phrase that stands between delimiters,
// "word-continuous" one that may hit inside a word, "kw" and "kw-nohistory"
// a keyword rule.
// The reader only checks what it can without the library: a keyword rule is
// handed over as a C string, so it may not hold a NUL byte. Metadata at the
// start of TEXT ("{caseless}:abc") is left in the bytes for the library;
// vael-scan itself reads one item of it, `utf8` (metadata_has_item).
//
// A line whose first byte is '#' is a comment, a line of only whitespace is
// skipped, and one trailing '\r' is dropped from every line so that files
// written with CRLF line ends read the same.
#ifndef VAEL_CLI_PATTERN_FILE_H
#define VAEL_CLI_PATTERN_FILE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vael::cli {

// What a pattern's bytes mean, one entry per add operation of the library.
enum class PatternKind { str, re, word, word_continuous, kw, kw_nohistory };

// The name of a kind as written in a pattern file ("kw-nohistory").
std::string_view kind_name(PatternKind kind);

struct PatternRecord {
    std::size_t line = 0;  // 1-based line in the file
    std::int32_t id = 0;   // the user's id, reported with every match
    PatternKind kind = PatternKind::str;
    std::string bytes;  // the text with its escapes resolved; never empty, no NUL for kw kinds

    friend bool operator==(const PatternRecord &, const PatternRecord &) = default;
};

struct PatternFileError {
    std::size_t line = 0;  // 1-based line at fault; 0 when the file as a whole failed
    std::string message;   // without file name or line number

    friend bool operator==(const PatternFileError &, const PatternFileError &) = default;
};

// Either every record of a file or its first error, never a mix: a caller
// compiles nothing from a file that has an error anywhere.
struct PatternFileResult {
    std::vector<PatternRecord> records;
    std::optional<PatternFileError> error;

    bool ok() const { return !error.has_value(); }
};

// Parses the whole text of a pattern file.
PatternFileResult parse_pattern_text(std::string_view text);

// Reads and parses a pattern file. A file that cannot be read gives an error
// on line 0 whose message is the system's reason.
PatternFileResult read_pattern_file(const std::string &path);

// Whether the metadata block that opens TEXT ("{utf8;caseless}:...") holds
// ITEM as a whole item. An LSS(...) item is stepped over whole, as the
// library reads it; TEXT without a block holds no item.
bool metadata_has_item(std::string_view text, std::string_view item);

// Renders bytes for an error message: printable ASCII and well-formed UTF-8
// as they are, every other byte as \xHH, so that a message never carries
// control bytes to the terminal. Input longer than 60 bytes is cut with "...".
std::string printable(std::string_view bytes);

}  // namespace vael::cli

#endif  // VAEL_CLI_PATTERN_FILE_H
