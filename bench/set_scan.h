// set_scan.h - a set benchmark's pass over the corpus: every chunk through
// one engine, and the ids of the patterns that matched anywhere.
#ifndef VAEL_BENCH_SET_SCAN_H
#define VAEL_BENCH_SET_SCAN_H

#include <cstdint>
#include <set>

#include "corpus.h"
#include "serial_pcre.h"
#include "vael/vael_pm.h"

namespace vael_bench {

// The PM's callback must add each id to the std::set<int32_t> handed to it
// as the run's user argument.
inline void pm_scan_chunk(vael_pm_handle *pm, size_t c, std::set<int32_t> *ids) {
    vael_pm_exec_ex(pm, chunk(c), (uint32_t)chunk_len(c), nullptr, nullptr, ids, 0);
}

inline std::set<int32_t> pm_ids_over_corpus(vael_pm_handle *pm) {
    std::set<int32_t> ids;
    for (size_t c = 0; c < chunk_count(); c++)
        pm_scan_chunk(pm, c, &ids);
    return ids;
}

inline void serial_scan_chunk(const SerialPcre &peer, size_t c, std::set<int32_t> *ids) {
    peer.scan(chunk(c), chunk_len(c), [ids](int32_t id) { ids->insert(id); });
}

inline std::set<int32_t> serial_ids_over_corpus(const SerialPcre &peer) {
    std::set<int32_t> ids;
    for (size_t c = 0; c < chunk_count(); c++)
        serial_scan_chunk(peer, c, &ids);
    return ids;
}

}  // namespace vael_bench

#endif  // VAEL_BENCH_SET_SCAN_H
