// gen_buf.cpp - vael-scan --gen-buf and --gen-buf-miss.
//
// The library makes the buffer (vael_kw_mgr_gen_test_buf); what it needs of
// a caller is here: the filler, and a text for each regular expression of the
// rule, which the library's own regex machine gives as a shortest path through
// the expression's DFA. The rule is then compiled as a pattern file's kw line
// is, and run over the buffer.
#include "gen_buf.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "keywords/vael_kw_mgr.h"
#include "rem/vael_dfa_internal.h"
#include "rem/vael_rem_tier.h"
#include "runtime/vael_alloc.h"
#include "vael/vael_kw_gen.h"

namespace vael::cli {

namespace {

// Room for a generated buffer: far above what the generator writes without a
// `length` keyword (its regular expressions take 512 bytes each at most).
constexpr std::uint32_t kBufferSize = 64 * 1024;

struct DfaDeleter {
    void operator()(vael_dfa *dfa) const { vael_dfa_destroy(dfa); }
};
struct StringDeleter {
    void operator()(vael_pmglob_string *s) const { vael_pmglob_string_destroy(s); }
};
struct MgrDeleter {
    void operator()(vael_kw_mgr *mgr) const { vael_kw_mgr_destroy(mgr); }
};

// The order in which the walk tries bytes, so that of the shortest texts the
// one printed is the most readable: letters, digits, other printable ASCII,
// then the rest.
struct ByteOrder {
    unsigned char bytes[256];
    ByteOrder() {
        int n = 0;
        bool taken[256] = {};
        auto add = [&](int from, int to) {
            for (int c = from; c <= to; c++)
                if (!taken[c]) taken[c] = true, bytes[n++] = static_cast<unsigned char>(c);
        };
        add('a', 'z');
        add('0', '9');
        add('A', 'Z');
        add(0x20, 0x7e);
        add(0, 255);
    }
};
const ByteOrder kByteOrder;

const vael_dfa_state *target_of(const vael_dfa *dfa, const vael_dfa_state *s, unsigned char byte) {
    const std::uint16_t e = s->trans[byte];
    if (e == VAEL_DFA_NO_STATE) return nullptr;
    return (s->properties & VAEL_DFA_STATE_PACKED) ? vael_dfa_state_get_by_id_fast(dfa, e)
                                                    : vael_dfa_state_get_by_id(dfa, e);
}

// A final state that accepts anywhere is taken over one that accepts only at
// the end of the data, which the rest of a buffer would then have to be.
bool plain_final(const vael_dfa_state *s) {
    return (s->properties & VAEL_DFA_STATE_FINAL) && !(s->properties & VAEL_DFA_STATE_ANCHORED_FINAL);
}

}  // namespace

int gen_regex(const unsigned char *pattern, std::uint32_t pattern_len, std::uint32_t, unsigned char *dest,
              std::uint32_t *size, std::uint32_t, std::uint32_t pattern_flags, std::uint32_t caseless, int match) {
    if (!pattern || !dest || !size || !match) return -1;
    const std::uint32_t flags = pattern_flags | caseless;
    std::unique_ptr<vael_pmglob_string, StringDeleter> text(
        vael_pmglob_string_create(pattern, pattern_len, VAEL_PM_REM_DEFAULT_ID, flags));
    if (!text) return -1;
    vael_pm_error err;
    vael_pm_error_init(&err);
    // No compile flags, as a keyword compiles its expression: the dot leaves
    // out the line end.
    std::unique_ptr<vael_dfa, DfaDeleter> dfa(static_cast<vael_dfa *>(vael_rem_compile(text.get(), 0, flags, &err)));
    if (!dfa) return -1;
    const vael_dfa_state *initial = vael_dfa_get_initial_state(dfa.get());
    const std::uint32_t states = vael_dfa_get_num_of_states(dfa.get());
    if (!initial || states == 0 || initial->id >= states) return -1;

    // Breadth first: each state's parent and the byte that reached it.
    constexpr std::uint32_t kUnseen = 0xffffffffu;
    auto parent = VAEL_MAKE_OWNED_ARRAY(std::uint32_t, states);
    auto via = VAEL_MAKE_OWNED_ARRAY(unsigned char, states);
    auto depth = VAEL_MAKE_OWNED_ARRAY(std::uint32_t, states);
    auto queue = VAEL_MAKE_OWNED_ARRAY(const vael_dfa_state *, states);
    if (!parent || !via || !depth || !queue) return -1;
    std::fill(parent.get(), parent.get() + states, kUnseen);
    std::uint32_t head = 0, tail = 0;
    parent.get()[initial->id] = initial->id;
    queue.get()[tail++] = initial;
    const vael_dfa_state *found = nullptr, *anchored = nullptr;
    while (head < tail && !found) {
        const vael_dfa_state *s = queue.get()[head++];
        if (plain_final(s)) {
            found = s;
            break;
        }
        if ((s->properties & VAEL_DFA_STATE_FINAL) && !anchored) anchored = s;
        // Nothing longer than the room can be written.
        if (depth.get()[s->id] >= *size) continue;
        for (unsigned char byte : kByteOrder.bytes) {
            const vael_dfa_state *t = target_of(dfa.get(), s, byte);
            if (!t || t->id >= states || parent.get()[t->id] != kUnseen) continue;
            parent.get()[t->id] = s->id;
            via.get()[t->id] = byte;
            depth.get()[t->id] = depth.get()[s->id] + 1;
            queue.get()[tail++] = t;
        }
    }
    if (!found) found = anchored;
    if (!found) return -1;
    // Walk back from the final state, writing the path from its end.
    const std::uint32_t length = depth.get()[found->id];
    std::uint32_t id = found->id;
    for (std::uint32_t i = length; i > 0; i--) {
        dest[i - 1] = via.get()[id];
        id = parent.get()[id];
    }
    *size = length;
    return 0;
}

void gen_fill(unsigned char *buf, std::uint32_t size) { std::memset(buf, '.', size); }

std::string escape_bytes(std::string_view bytes) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (const char ch : bytes) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == '\\') {
            out += "\\\\";
        } else if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
        } else {
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 0xf];
        }
    }
    return out;
}

int gen_buf(std::string_view rule, bool match, std::FILE *out, std::FILE *err) {
    std::unique_ptr<vael_pmglob_string, StringDeleter> text(vael_pmglob_string_create(
        reinterpret_cast<const unsigned char *>(rule.data()), static_cast<std::uint32_t>(rule.size()), -1, 0));
    if (!text) return 2;
    vael_pm_error error;
    vael_pm_error_init(&error);
    std::unique_ptr<vael_kw_mgr, MgrDeleter> mgr(
        static_cast<vael_kw_mgr *>(vael_pm_compile_keywords(text.get(), 0, 0, &error)));
    if (!mgr) {
        std::fprintf(err, "rule refused: %s\n", error.error_string ? error.error_string : "(no message)");
        return 2;
    }
    auto buf = VAEL_MAKE_OWNED_ARRAY(unsigned char, kBufferSize);
    if (!buf) return 2;
    const vael_kw_gen_ctx ctx = {gen_fill, gen_regex};
    std::uint32_t len = kBufferSize;
    if (vael_kw_mgr_gen_test_buf(text.get(), buf.get(), &len, match ? 1 : 0, 0, &ctx) != 0) return 2;
    const std::string_view made(reinterpret_cast<const char *>(buf.get()), len);
    std::fprintf(out, "buffer: %u bytes: \"%s\"\n", len, escape_bytes(made).c_str());
    if (match && made == VAEL_KW_GEN_FAIL_TEXT) {
        std::fprintf(out, "verdict: none: no buffer can be made for this rule\n");
        return std::fflush(out) == 0 ? 1 : 2;
    }
    int is_match = 0;
    std::uint32_t end = 0;
    if (vael_kw_mgr_exec(mgr.get(), buf.get(), len, &is_match, &end) != 0) return 2;
    const bool agrees = (is_match != 0) == match;
    if (is_match)
        std::fprintf(out, "verdict: match, ends at %u", end);
    else
        std::fprintf(out, "verdict: no match");
    std::fprintf(out, " (expected: %s): %s\n", match ? "match" : "no match", agrees ? "agrees" : "disagrees");
    if (std::fflush(out) != 0) return 2;
    return agrees ? 0 : 1;
}

}  // namespace vael::cli
