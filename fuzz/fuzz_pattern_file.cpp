// fuzz_pattern_file.cpp - the reader of vael-scan's pattern files.
//
// Any text gives either records or one error, never both; a record's bytes
// are never empty and a keyword rule holds no NUL; an error message shows no
// control byte. Every record set the reader accepts is written back in the
// file syntax, everything escaped, and must read back as the same records.
#include <string>

#include "fuzz/fuzz_support.h"
#include "pattern_file.h"

namespace {

using vael::cli::PatternKind;

std::string escaped(const std::string &bytes) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += "\\x";
        out.push_back(kHex[c >> 4]);
        out.push_back(kHex[c & 0xf]);
    }
    return out;
}

bool has_control_byte(const std::string &s) {
    for (unsigned char c : s)
        if (c < 0x20 || c == 0x7f)
            return true;
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    const vael::cli::PatternFileResult result = vael::cli::parse_pattern_text(text);
    if (!result.ok()) {
        FUZZ_CHECK(result.records.empty(), "records beside an error");
        FUZZ_CHECK(!has_control_byte(result.error->message), "control byte in '%s'", result.error->message.c_str());
        FUZZ_CHECK(result.error->line >= 1, "error on line %zu", result.error->line);
        return 0;
    }
    std::string written;
    size_t last_line = 0;
    for (const auto &r : result.records) {
        FUZZ_CHECK(!r.bytes.empty(), "empty record on line %zu", r.line);
        FUZZ_CHECK(r.line > last_line, "line %zu after %zu", r.line, last_line);
        last_line = r.line;
        if (r.kind == PatternKind::kw || r.kind == PatternKind::kw_nohistory)
            FUZZ_CHECK(r.bytes.find('\0') == std::string::npos, "NUL in keyword rule on line %zu", r.line);
        written += std::to_string(r.id) + "\t" + std::string(vael::cli::kind_name(r.kind)) + "\t" + escaped(r.bytes) +
                   "\n";
    }
    const vael::cli::PatternFileResult again = vael::cli::parse_pattern_text(written);
    FUZZ_CHECK(again.ok(), "written records do not read back: %s", again.error->message.c_str());
    FUZZ_CHECK(again.records.size() == result.records.size(), "%zu records read back as %zu",
               result.records.size(), again.records.size());
    for (size_t i = 0; i < again.records.size(); i++) {
        const auto &a = result.records[i], &b = again.records[i];
        FUZZ_CHECK(a.id == b.id && a.kind == b.kind && a.bytes == b.bytes, "record %zu differs", i);
    }
    return 0;
}
