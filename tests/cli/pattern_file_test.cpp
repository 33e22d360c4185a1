// Tests of vael-scan's pattern-file reader: what each kind of line turns into,
// every error with its exact message and line, and reading from disk.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <unistd.h>

#include "pattern_file.h"
#include "read_file.h"

namespace {

using vael::cli::parse_pattern_text;
using vael::cli::PatternFileError;
using vael::cli::PatternKind;
using vael::cli::PatternRecord;
using namespace std::string_literals;

PatternRecord rec(std::size_t line, std::int32_t id, std::string bytes, PatternKind kind = PatternKind::str) {
    return PatternRecord{line, id, kind, std::move(bytes)};
}

// ---------------------------------------------------------------------------
// Files that parse.

struct GoodCase {
    const char *name;
    std::string text;
    std::vector<PatternRecord> expected;
};

// Cases show as their names in test listings, not as raw bytes.
void PrintTo(const GoodCase &c, std::ostream *os) { *os << c.name; }

class PatternFileGood : public testing::TestWithParam<GoodCase> {};

TEST_P(PatternFileGood, GivesRecords) {
    const auto &c = GetParam();
    const auto result = parse_pattern_text(c.text);
    ASSERT_TRUE(result.ok()) << "line " << result.error->line << ": " << result.error->message;
    EXPECT_EQ(result.records, c.expected);
}

const GoodCase kGoodCases[] = {
    {"Plain", "1\tGET /\n", {rec(1, 1, "GET /")}},
    {"NoFinalNewline", "7\tabc", {rec(1, 7, "abc")}},
    {"NegativeId", "-5\tabc\n", {rec(1, -5, "abc")}},
    {"Int32Limits", "2147483647\ta\n-2147483648\tb\n", {rec(1, 2147483647, "a"), rec(2, INT32_MIN, "b")}},
    {"DuplicateIdsAreKept", "1\ta\n1\tb\n", {rec(1, 1, "a"), rec(2, 1, "b")}},
    {"Escapes", "1\t\\x41\\x6a\\x6A\\t\\n\\r\\\\z\n", {rec(1, 1, "Ajj\t\n\r\\z")}},
    {"EscapedNul", "1\ta\\x00b\n", {rec(1, 1, "a\0b"s)}},
    {"BackslashThenEscapeLetter", "1\t\\\\x41\n", {rec(1, 1, "\\x41")}},
    {"HashInsideTextIsLiteral", "1\t#x\n", {rec(1, 1, "#x")}},
    {"RawBytesPassThrough", "1\t\xff\xfe\x01 \xd0\xbf\xd1\x80\n", {rec(1, 1, "\xff\xfe\x01 \xd0\xbf\xd1\x80")}},
    {"CommentsAndBlankLinesCountAsLines",
     "# header\n\n   \n\t\t\n\v\f \n2\tx\n#3\ty\n",
     {rec(6, 2, "x")}},
    {"CrLf", "1\tabc\r\n# c\r\n\r\n2\tdef\r\n", {rec(1, 1, "abc"), rec(4, 2, "def")}},
    {"OnlyOneCrIsDropped", "1\tabc\r\r\n", {rec(1, 1, "abc\r")}},
    {"EscapedCrBeforeCrLf", "1\tabc\\r\r\n", {rec(1, 1, "abc\r")}},
    {"ExplicitStrKind", "1\tstr\tabc\n", {rec(1, 1, "abc")}},
    {"TextThatLooksLikeAKind", "1\tre\n2\tkw\n", {rec(1, 1, "re"), rec(2, 2, "kw")}},
    // Every kind, and what the reader leaves to the library.
    {"KindRe", "1\tre\ta.*b\n", {rec(1, 1, "a.*b", PatternKind::re)}},
    {"KindWord", "1\tword\ttwo words\n", {rec(1, 1, "two words", PatternKind::word)}},
    {"KindsMixedWithDefault",
     "1\ta\n2\tre\tb\n3\tstr\tc\n4\tword\td\n",
     {rec(1, 1, "a"), rec(2, 2, "b", PatternKind::re), rec(3, 3, "c"), rec(4, 4, "d", PatternKind::word)}},
    {"MetadataIsLeftInTheText",
     "1\t{caseless}:abc\n2\tre\t{LSS(ab)}:a.b\n3\tword\t{x\n",
     {rec(1, 1, "{caseless}:abc"), rec(2, 2, "{LSS(ab)}:a.b", PatternKind::re), rec(3, 3, "{x", PatternKind::word)}},
    {"EscapesInKeywordRule", "1\tkw\ta\\tb\\x41\n", {rec(1, 1, "a\tbA", PatternKind::kw)}},
    // Only a keyword rule is a C string; the other kinds carry their length.
    {"NulOutsideKeywordRules",
     "1\tre\ta\\x00b\n2\tword\ta\\x00b\n3\tstr\ta\\x00b\n",
     {rec(1, 1, "a\0b"s, PatternKind::re), rec(2, 2, "a\0b"s, PatternKind::word), rec(3, 3, "a\0b"s)}},
    {"Utf8ByteOrderMarkIsDropped", "\xEF\xBB\xBF" "1\tabc\n", {rec(1, 1, "abc")}},
    {"ByteOrderMarkOnlyAtStart", "1\t\xEF\xBB\xBF\n", {rec(1, 1, "\xEF\xBB\xBF")}},
    {"OnlyComments", "# one\n#two\n\n", {}},
};

INSTANTIATE_TEST_SUITE_P(Lines, PatternFileGood, testing::ValuesIn(kGoodCases),
                         [](const auto &info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Files that are refused: the first bad line and its message, and no records.

struct BadCase {
    const char *name;
    std::string text;
    std::size_t line;
    std::string message;
};

void PrintTo(const BadCase &c, std::ostream *os) { *os << c.name; }

class PatternFileBad : public testing::TestWithParam<BadCase> {};

TEST_P(PatternFileBad, GivesError) {
    const auto &c = GetParam();
    const auto result = parse_pattern_text(c.text);
    ASSERT_FALSE(result.ok());
    EXPECT_EQ(*result.error, (PatternFileError{c.line, c.message}));
    EXPECT_TRUE(result.records.empty());
}

const char kHexHint[] = " (\\x takes two hex digits)";

const BadCase kBadCases[] = {
    // Shape of the line.
    {"NoTab", "abc\n", 1, "missing TAB between pattern id and text"},
    {"SpaceInsteadOfTab", "5 abc\n", 1, "missing TAB between pattern id and text"},
    {"IndentedComment", " # note\n", 1, "missing TAB between pattern id and text"},
    {"MissingId", "\tabc\n", 1, "missing pattern id"},
    {"TooManyFields", "1\tstr\ta\tb\n", 1, "too many TAB-separated fields (write a TAB inside the text as \\t)"},
    // Ids.
    {"IdNotANumber", "x1\tabc\n", 1, "bad pattern id 'x1' (not a decimal integer)"},
    {"IdLeadingSpace", " 1\tabc\n", 1, "bad pattern id ' 1' (not a decimal integer)"},
    {"IdAboveInt32", "2147483648\tabc\n", 1, "pattern id '2147483648' is out of range (signed 32-bit)"},
    {"IdBelowInt32", "-2147483649\tabc\n", 1, "pattern id '-2147483649' is out of range (signed 32-bit)"},
    // Text.
    {"EmptyText", "1\t\n", 1, "empty pattern text"},
    {"EmptyTextBeforeCrLf", "1\t\r\n", 1, "empty pattern text"},
    {"UnknownEscape", "1\tab\\q\n", 1, "bad escape '\\q'"},
    {"UppercaseXIsNotAnEscape", "1\t\\X41\n", 1, "bad escape '\\X'"},
    {"BackslashAtEnd", "1\tab\\\n", 1, "bad escape '\\' at end of line"},
    {"HexOneDigitThenJunk", "1\t\\x4g\n", 1, "bad escape '\\x4g'"s + kHexHint},
    {"HexNoDigitsAtEnd", "1\ta\\x\n", 1, "bad escape '\\x'"s + kHexHint},
    {"EscapedMultibyteCharShownWhole", "1\t\\\xc3\xa9\n", 1, "bad escape '\\\xc3\xa9'"},
    {"EscapedControlByteShownAsHex", "1\t\\\x01\n", 1, "bad escape '\\\\x01'"},
    // Kinds.
    {"KindUnknown", "1\tregex\tabc\n", 1, "unknown pattern kind 'regex'"},
    {"KindIsCaseSensitive", "1\tSTR\tabc\n", 1, "unknown pattern kind 'STR'"},
    {"KindPrefixOnly", "1\tkw-no\tabc\n", 1, "unknown pattern kind 'kw-no'"},
    {"KindEmpty", "1\t\tabc\n", 1, "empty pattern kind"},
    {"KindWithControlByte", "1\tk\x01\tabc\n", 1, "unknown pattern kind 'k\\x01'"},
    // A keyword rule is handed over as a C string.
    {"EscapedNulInKw", "1\tkw\tpart:\\x00\n", 1, "NUL byte in keyword rule 'part:\\x00'"},
    {"NulInKwNamesItsLine", "1\ta\\x00\n# c\n2\tkw\tx\n3\tkw\tx\\x00\n", 4, "NUL byte in keyword rule 'x\\x00'"},
    // Which error wins: fields left to right, lines top to bottom.
    {"IdCheckedBeforeKind", "x\tfoo\tabc\n", 1, "bad pattern id 'x' (not a decimal integer)"},
    {"KindCheckedBeforeText", "1\tfoo\t\\q\n", 1, "unknown pattern kind 'foo'"},
    {"LineNumberCountsSkippedLines", "# c\n1\ta\n\n2\tb\\q\n3\tc\n", 4, "bad escape '\\q'"},
    {"LineNumberAfterByteOrderMark", "\xEF\xBB\xBF" "1\ta\nbad\n", 2, "missing TAB between pattern id and text"},
    {"FirstBadLineWins", "1\ta\n2\t\\q\n3\t\n", 2, "bad escape '\\q'"},
};

INSTANTIATE_TEST_SUITE_P(Lines, PatternFileBad, testing::ValuesIn(kBadCases),
                         [](const auto &info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Kind names: every name the reader accepts comes back from kind_name, so
// what --explain prints can be written back into a pattern file.

TEST(PatternKindNames, RoundTrip) {
    for (const char *name : {"str", "re", "word", "word-continuous", "kw", "kw-nohistory"}) {
        const auto result = parse_pattern_text("1\t"s + name + "\tx\n");
        ASSERT_TRUE(result.ok()) << name << ": " << result.error->message;
        ASSERT_EQ(result.records.size(), 1u);
        EXPECT_EQ(vael::cli::kind_name(result.records[0].kind), name);
    }
}

// ---------------------------------------------------------------------------
// Items of a metadata block that vael-scan reads itself: whole items only,
// with an LSS(...) stepped over whole even when it holds ';' or '}'.

TEST(MetadataItems, FindsWholeItemsOnly) {
    const struct {
        const char *text;
        bool has_utf8;
    } rows[] = {
        {"{utf8}:a", true},           {"{caseless;utf8}:a", true}, {"{LSS(a;utf8)}:a", false},
        {"{LSS(a;b}c);utf8}:a", true}, {"{utf8x}:a", false},       {"{xutf8}:a", false},
        {"utf8", false},              {"{LSS(ab:a", false},        {"{caseless}:{utf8}:a", false},
    };
    for (const auto &row : rows)
        EXPECT_EQ(vael::cli::metadata_has_item(row.text, "utf8"), row.has_utf8) << row.text;
}

// ---------------------------------------------------------------------------
// Rendering of bytes inside messages.

struct PrintableCase {
    const char *name;
    std::string in;
    std::string out;
};

void PrintTo(const PrintableCase &c, std::ostream *os) { *os << c.name; }

class Printable : public testing::TestWithParam<PrintableCase> {};

TEST_P(Printable, Renders) { EXPECT_EQ(vael::cli::printable(GetParam().in), GetParam().out); }

const PrintableCase kPrintableCases[] = {
    {"Ascii", "GET /a b~", "GET /a b~"},
    {"ControlBytes", "\x01\t\n\x1f\x7f"s, "\\x01\\x09\\x0a\\x1f\\x7f"},
    {"Nul", "a\0b"s, "a\\x00b"},
    {"TwoByteUtf8", "\xc3\xa9t\xc3\xa9", "\xc3\xa9t\xc3\xa9"},
    {"LoneLeadByte", "\xc3x", "\\xc3x"},
    {"LoneContinuation", "\x80", "\\x80"},
    {"Overlong", "\xc0\xaf", "\\xc0\\xaf"},
    {"SixtyBytesKept", std::string(60, 'a'), std::string(60, 'a')},
    {"LongerIsCut", std::string(61, 'a'), std::string(60, 'a') + "..."},
};

INSTANTIATE_TEST_SUITE_P(Bytes, Printable, testing::ValuesIn(kPrintableCases),
                         [](const auto &info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Reading from disk.

class PatternFileOnDisk : public testing::Test {
protected:
    void SetUp() override {
        const auto *info = testing::UnitTest::GetInstance()->current_test_info();
        dir_ = std::filesystem::temp_directory_path() /
               ("vael_pattern_file_" + std::string(info->name()) + "_" + std::to_string(::getpid()));
        std::filesystem::remove_all(dir_);
        std::filesystem::create_directories(dir_);
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::string write(const std::string &name, const std::string &bytes) {
        const auto path = dir_ / name;
        std::ofstream(path, std::ios::binary) << bytes;
        return path.string();
    }

    std::filesystem::path dir_;
};

// Through the file: records as from text, an error with its line, and a
// file that cannot be read at line 0.
TEST_F(PatternFileOnDisk, ReadsAsText) {
    const auto good = vael::cli::read_pattern_file(write("p.txt", "# c\r\n1\tab\\x00\r\n\r\n-2\tstr\tz\\tz\n"));
    ASSERT_TRUE(good.ok());
    EXPECT_EQ(good.records, (std::vector<PatternRecord>{rec(2, 1, "ab\0"s), rec(4, -2, "z\tz")}));
    const std::pair<std::string, PatternFileError> bad[] = {
        {write("b.txt", "1\ta\n2\tb\n3\tkw\tc\\x00\n"), {3, "NUL byte in keyword rule 'c\\x00'"}},
        {(dir_ / "missing.txt").string(), {0, "No such file or directory"}},
        {dir_.string(), {0, "Is a directory"}},
    };
    for (const auto &[path, error] : bad) {
        const auto result = vael::cli::read_pattern_file(path);
        ASSERT_FALSE(result.ok()) << path;
        EXPECT_EQ(*result.error, error) << path;
    }
}

TEST_F(PatternFileOnDisk, ReadWholeFileKeepsEveryByteAndHonoursTheLimit) {
    std::string bytes(200 * 1024, '\0');  // more than one read's worth
    for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + (i >> 9));
    const auto path = write("data.bin", bytes);

    std::string out = "stale";
    EXPECT_EQ(vael::cli::read_whole_file(path, out), std::nullopt);
    EXPECT_EQ(out, bytes);

    EXPECT_EQ(vael::cli::read_whole_file(path, out, bytes.size()), std::nullopt);
    EXPECT_EQ(out.size(), bytes.size());

    const auto error = vael::cli::read_whole_file(path, out, bytes.size() - 1);
    EXPECT_EQ(error, "file too large (more than " + std::to_string(bytes.size() - 1) + " bytes)");
    EXPECT_TRUE(out.empty());

    out = "stale";
    EXPECT_EQ(vael::cli::read_whole_file(write("empty.bin", ""), out), std::nullopt);
    EXPECT_TRUE(out.empty());
}

}  // namespace
