// vectorscan_peer.cpp - the Vectorscan peer (see vectorscan_peer.h).
//
// The literals go through hs_compile_multi as expressions with every byte
// outside [0-9A-Za-z] written as \xHH. The pure-literal entry point would
// avoid the escaping, but it refuses any literal that starts with a NUL byte
// (it takes it for an empty string), and binary sets have such literals.
#ifdef VAEL_HAVE_VECTORSCAN

#include "vectorscan_peer.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace vael_bench {
namespace {

std::string escape(const std::string &bytes) {
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        if ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z')) {
            out += static_cast<char>(c);
        } else {
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

}  // namespace

Vectorscan::Vectorscan(const std::vector<Literal> &literals) {
    std::vector<std::string> escaped;
    std::vector<const char *> expressions;
    std::vector<unsigned> flags(literals.size(), 0);
    std::vector<unsigned> ids;
    escaped.reserve(literals.size());
    for (const Literal &literal : literals) {
        escaped.push_back(escape(literal.bytes));
        expressions.push_back(escaped.back().c_str());
        ids.push_back(static_cast<unsigned>(literal.id));
    }
    hs_compile_error_t *error = nullptr;
    if (hs_compile_multi(expressions.data(), flags.data(), ids.data(), static_cast<unsigned>(literals.size()),
                         HS_MODE_BLOCK, nullptr, &db_, &error) != HS_SUCCESS) {
        std::fprintf(stderr, "vael-bench: Vectorscan compile of %zu literals failed at expression %d: %s\n",
                     literals.size(), error ? error->expression : -1,
                     error && error->message ? error->message : "(no message)");
        hs_free_compile_error(error);
        std::exit(EXIT_FAILURE);
    }
    if (hs_alloc_scratch(db_, &scratch_) != HS_SUCCESS) {
        std::fprintf(stderr, "vael-bench: Vectorscan scratch allocation failed\n");
        std::exit(EXIT_FAILURE);
    }
}

Vectorscan::~Vectorscan() {
    hs_free_scratch(scratch_);
    hs_free_database(db_);
}

void Vectorscan::scan_raw(const unsigned char *buf, size_t len, match_event_handler handler, void *ctx) {
    if (hs_scan(db_, reinterpret_cast<const char *>(buf), static_cast<unsigned>(len), 0, scratch_, handler, ctx) !=
        HS_SUCCESS) {
        std::fprintf(stderr, "vael-bench: Vectorscan scan failed\n");
        std::exit(EXIT_FAILURE);
    }
}

size_t Vectorscan::database_bytes() const {
    size_t size = 0;
    hs_database_size(db_, &size);
    return size;
}

}  // namespace vael_bench

#endif  // VAEL_HAVE_VECTORSCAN
