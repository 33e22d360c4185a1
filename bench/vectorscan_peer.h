/*
 * vectorscan_peer.h - Vectorscan in block mode as a second peer: a literal
 * set compiled into one database and scanned one buffer per call.
 *
 * Compiled only when the build found Vectorscan (VAEL_HAVE_VECTORSCAN); the
 * benchmark leaves its columns empty otherwise. Single-match mode is off, so
 * every (literal, end offset) pair is reported, as the other engines do.
 */
#ifndef VAEL_BENCH_VECTORSCAN_PEER_H
#define VAEL_BENCH_VECTORSCAN_PEER_H

#ifdef VAEL_HAVE_VECTORSCAN

#include <hs/hs.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "corpus.h"

namespace vael_bench {

class Vectorscan {
public:
    // Exits with a message when the set does not compile.
    explicit Vectorscan(const std::vector<Literal> &literals);
    ~Vectorscan();
    Vectorscan(const Vectorscan &) = delete;
    Vectorscan &operator=(const Vectorscan &) = delete;

    // Calls on_match(id, end) for every occurrence, end being the offset of
    // the last byte in buf.
    template <typename OnMatch>
    void scan(const unsigned char *buf, size_t len, OnMatch &on_match) {
        auto trampoline = [](unsigned id, unsigned long long, unsigned long long to, unsigned, void *ctx) -> int {
            (*static_cast<OnMatch *>(ctx))(static_cast<int32_t>(id), static_cast<uint32_t>(to - 1));
            return 0;
        };
        scan_raw(buf, len, trampoline, &on_match);
    }

    size_t database_bytes() const;

private:
    void scan_raw(const unsigned char *buf, size_t len, match_event_handler handler, void *ctx);

    hs_database_t *db_ = nullptr;
    hs_scratch_t *scratch_ = nullptr;
};

}  // namespace vael_bench

#endif  // VAEL_HAVE_VECTORSCAN

#endif  // VAEL_BENCH_VECTORSCAN_PEER_H
