// Tests of vael-scan's pattern-file reader: what each kind of line turns into,
// every error with its exact message and line, and reading from disk.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pattern_file.h"
#include "read_file.h"
#include "scan_runner.h"

namespace {

using vael::cli::parse_pattern_text;
using vael::cli::PatternFileError;
using vael::cli::PatternKind;
using vael::cli::PatternRecord;
using namespace std::string_literals;

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
        // Every kind name the reader accepts comes back from kind_name, so what
        // --explain prints can be written back into a pattern file.
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
    const vael_cli_test::Scratch dir("pattern_file");
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
