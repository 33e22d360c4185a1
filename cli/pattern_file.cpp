#include "pattern_file.h"

#include <algorithm>
#include <charconv>
#include <system_error>

#include "read_file.h"

namespace vael::cli {

namespace {

struct KindRow {
    std::string_view name;
    PatternKind kind;
};

constexpr KindRow kKinds[] = {
    {"str", PatternKind::str},
    {"re", PatternKind::re},
    {"word", PatternKind::word},
    {"word-continuous", PatternKind::word_continuous},
    {"kw", PatternKind::kw},
    {"kw-nohistory", PatternKind::kw_nohistory},
};

constexpr std::string_view kUtf8Bom = "\xEF\xBB\xBF";

constexpr std::size_t kMaxShown = 60;

// Length of the well-formed multi-byte UTF-8 sequence that starts s, or 0.
std::size_t utf8_sequence_length(std::string_view s) {
    const auto lead = static_cast<unsigned char>(s[0]);
    std::size_t length = 0;
    unsigned char second_min = 0x80;
    unsigned char second_max = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) second_min = 0xA0;  // overlong
        if (lead == 0xED) second_max = 0x9F;  // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) second_min = 0x90;  // overlong
        if (lead == 0xF4) second_max = 0x8F;  // beyond U+10FFFF
    } else {
        return 0;
    }
    if (s.size() < length) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        const auto c = static_cast<unsigned char>(s[i]);
        const unsigned char lo = i == 1 ? second_min : 0x80;
        const unsigned char hi = i == 1 ? second_max : 0xBF;
        if (c < lo || c > hi) return 0;
    }
    return length;
}

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool is_blank(std::string_view line) {
    return std::all_of(line.begin(), line.end(),
                       [](char c) { return c == ' ' || c == '\t' || c == '\v' || c == '\f' || c == '\r'; });
}

std::string quoted(std::string_view bytes) { return "'" + printable(bytes) + "'"; }

// Resolves the escapes of a pattern text into out. Returns the error message
// for the first bad escape.
std::optional<std::string> unescape(std::string_view text, std::string &out) {
    out.clear();
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out.push_back(text[i]);
            continue;
        }
        if (i + 1 == text.size()) return "bad escape '\\' at end of line";
        switch (const char e = text[i + 1]; e) {
        case 't': out.push_back('\t'); break;
        case 'n': out.push_back('\n'); break;
        case 'r': out.push_back('\r'); break;
        case '\\': out.push_back('\\'); break;
        case 'x': {
            // Exactly two digits: "\x4" or "\x4g" is a mistake, not a short form.
            std::size_t digits = 0;
            while (digits < 2 && i + 2 + digits < text.size() && hex_value(text[i + 2 + digits]) >= 0) ++digits;
            if (digits < 2) {
                // Show the escape up to and including the first byte that is not a digit.
                const std::size_t shown = std::min(text.size() - i, 2 + digits + 1);
                return "bad escape " + quoted(text.substr(i, shown)) + " (\\x takes two hex digits)";
            }
            out.push_back(static_cast<char>(hex_value(text[i + 2]) * 16 + hex_value(text[i + 3])));
            i += 2;
            break;
        }
        default: {
            // Keep a multi-byte character whole so that the message shows it.
            const std::size_t length = std::max<std::size_t>(1, utf8_sequence_length(text.substr(i + 1)));
            return "bad escape " + quoted(text.substr(i, 1 + length));
        }
        }
        ++i;
    }
    return std::nullopt;
}

std::optional<std::string> parse_id(std::string_view field, std::int32_t &id) {
    if (field.empty()) return "missing pattern id";
    const char *end = field.data() + field.size();
    const auto [stop, ec] = std::from_chars(field.data(), end, id);
    if (ec == std::errc::result_out_of_range)
        return "pattern id " + quoted(field) + " is out of range (signed 32-bit)";
    if (ec != std::errc{} || stop != end) return "bad pattern id " + quoted(field) + " (not a decimal integer)";
    return std::nullopt;
}

std::optional<std::string> parse_kind(std::string_view field, PatternKind &kind) {
    for (const auto &row : kKinds) {
        if (row.name == field) {
            kind = row.kind;
            return std::nullopt;
        }
    }
    if (field.empty()) return "empty pattern kind";
    return "unknown pattern kind " + quoted(field);
}

// Parses a line that is neither a comment nor blank.
std::optional<std::string> parse_line(std::string_view line, PatternRecord &record) {
    std::vector<std::string_view> fields;
    for (std::size_t start = 0;;) {
        const std::size_t tab = line.find('\t', start);
        fields.push_back(line.substr(start, tab == std::string_view::npos ? std::string_view::npos : tab - start));
        if (tab == std::string_view::npos) break;
        start = tab + 1;
    }
    if (fields.size() == 1) return "missing TAB between pattern id and text";
    if (fields.size() > 3) return "too many TAB-separated fields (write a TAB inside the text as \\t)";

    if (auto error = parse_id(fields[0], record.id)) return error;
    record.kind = PatternKind::str;
    if (fields.size() == 3) {
        if (auto error = parse_kind(fields[1], record.kind)) return error;
    }
    if (auto error = unescape(fields.back(), record.bytes)) return error;
    if (record.bytes.empty()) return "empty pattern text";
    // The library takes a keyword rule as a C string: a NUL would silently
    // cut the rule short.
    if ((record.kind == PatternKind::kw || record.kind == PatternKind::kw_nohistory) &&
        record.bytes.find('\0') != std::string::npos)
        return "NUL byte in keyword rule " + quoted(record.bytes);
    return std::nullopt;
}

}  // namespace

std::string_view kind_name(PatternKind kind) {
    for (const auto &row : kKinds)
        if (row.kind == kind) return row.name;
    return "?";
}

std::string printable(std::string_view bytes) {
    static constexpr char kHex[] = "0123456789abcdef";
    const bool cut = bytes.size() > kMaxShown;
    if (cut) bytes = bytes.substr(0, kMaxShown);
    std::string shown;
    for (std::size_t i = 0; i < bytes.size();) {
        const auto c = static_cast<unsigned char>(bytes[i]);
        if (c >= 0x20 && c < 0x7F) {
            shown.push_back(static_cast<char>(c));
            ++i;
        } else if (const std::size_t n = utf8_sequence_length(bytes.substr(i)); n > 0) {
            shown.append(bytes.substr(i, n));
            i += n;
        } else {
            shown += "\\x";
            shown.push_back(kHex[c >> 4]);
            shown.push_back(kHex[c & 0xF]);
            ++i;
        }
    }
    if (cut) shown += "...";
    return shown;
}

bool metadata_has_item(std::string_view text, std::string_view item) {
    if (!text.starts_with('{')) return false;
    for (std::size_t pos = 1; pos < text.size();) {
        std::size_t end;
        if (text.substr(pos).starts_with("LSS(")) {
            // The LSS text may hold ';' or '}', never ')'.
            end = text.find(')', pos + 4);
            if (end == std::string_view::npos) return false;
            ++end;
        } else {
            end = text.find_first_of(";}", pos);
            if (end == std::string_view::npos) return false;
            if (text.substr(pos, end - pos) == item) return true;
        }
        if (end >= text.size() || text[end] != ';') return false;
        pos = end + 1;
    }
    return false;
}

PatternFileResult parse_pattern_text(std::string_view text) {
    PatternFileResult result;
    // Editors on some systems start a UTF-8 file with a byte order mark; it
    // would otherwise be read as part of the first id.
    if (text.starts_with(kUtf8Bom)) text.remove_prefix(kUtf8Bom.size());

    std::size_t line_no = 0;
    for (std::size_t pos = 0; pos < text.size();) {
        const std::size_t newline = text.find('\n', pos);
        std::string_view line =
            text.substr(pos, newline == std::string_view::npos ? std::string_view::npos : newline - pos);
        pos = newline == std::string_view::npos ? text.size() : newline + 1;
        ++line_no;

        if (line.ends_with('\r')) line.remove_suffix(1);
        if (line.starts_with('#') || is_blank(line)) continue;

        PatternRecord record;
        record.line = line_no;
        if (auto error = parse_line(line, record)) {
            result.records.clear();
            result.error = PatternFileError{line_no, std::move(*error)};
            return result;
        }
        result.records.push_back(std::move(record));
    }
    return result;
}

PatternFileResult read_pattern_file(const std::string &path) {
    std::string text;
    if (auto error = read_whole_file(path, text)) {
        PatternFileResult result;
        result.error = PatternFileError{0, std::move(*error)};
        return result;
    }
    return parse_pattern_text(text);
}

}  // namespace vael::cli
