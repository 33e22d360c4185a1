// vael_rem.cpp - the REM second tier as the frame sees it: the compile chain
// (pattern to NFA, subset construction, minimization, finalize), row 0 of
// pm_tier2_funcs, and the start and stop of the machinery under it (the
// states hash of subset construction and the parser's class array).
//
// The row's image slots write and read the DFA's own image
// (vael_dfa_image.cpp), so a PM with REM second tiers travels whole.

#include "rem/vael_rem_tier.h"

#include "rem/vael_dfa_internal.h"
#include "runtime/vael_runtime.h"

namespace {

const char kTopics[] = "K_REM";
const char kPmTopics[] = "K_PM | K_REM";
const char kErrTopics[] = "K_REM | K_ERROR";

bool g_initialized;

int has_start_anchor(void *h) { return (vael_dfa_get_flags(static_cast<vael_dfa *>(h)) & VAEL_DFA_CARET) ? 1 : 0; }

uint32_t find_match_start(void *h, const unsigned char *buf, uint32_t len, vael_vbuf *vbuf, uint32_t exec_flags,
                          vael_pmglob_match_data *hit, uint32_t back_offset, uint32_t pattern_flags) {
    return vael_dfa_match_start_find(static_cast<vael_dfa *>(h), buf, len, vbuf, exec_flags, hit, back_offset,
                                     has_start_anchor(h), pattern_flags);
}

void *duplicate(void *h) { return vael_dfa_duplicate(static_cast<vael_dfa *>(h)); }
uint32_t get_serialize_size(void *h) { return vael_dfa_calculate_size(static_cast<vael_dfa *>(h)); }
int serialize(void *h, unsigned char **position, uint32_t *space) {
    return vael_dfa_serialize(static_cast<vael_dfa *>(h), position, space);
}
void *deserialize(const unsigned char **position, uint32_t *space, vael_vbuf *vbuf, vael_vbuf_iter *iter) {
    return vael_dfa_deserialize(position, space, vbuf, iter);
}
int is_valid(void *h) { return vael_dfa_is_valid(static_cast<vael_dfa *>(h)); }
void destroy(void *h) { vael_dfa_destroy(static_cast<vael_dfa *>(h)); }
vael_pm_stats_common *get_common_stats(void *h) { return vael_dfa_get_common_stats(static_cast<vael_dfa *>(h)); }
void stats_print(void *h, int level) { vael_dfa_stats_print(static_cast<vael_dfa *>(h), level); }
void dump(void *h, int format) { vael_rem_dump(h, format); }

const vael_pm_tier2_funcs kRow = {
    "REM",
    VAEL_PM_TIER2_REUSABLE,
    vael_rem_compile,
    vael_dfa_tier2_exec,
    has_start_anchor,
    find_match_start,
    duplicate,
    get_serialize_size,
    serialize,
    deserialize,
    is_valid,
    destroy,
    stats_print,
    get_common_stats,
    dump,
};

}  // namespace

extern "C" int vael_rem_init(vael_pm_tier2_funcs *row) {
    if (g_initialized) {
        VAEL_ASSERT(0, "called when already initialized\n");
        return VAEL_ERROR;
    }
    if (!row)
        return VAEL_ERROR;
    if (vael_nfa_init() != 0)
        return VAEL_ERROR;
    if (vael_rem_pattern2nfa_init() != 0) {
        vael_nfa_fini();
        return VAEL_ERROR;
    }
    *row = kRow;
    g_initialized = true;
    return VAEL_OK;
}

extern "C" void vael_rem_fini(void) {
    if (!g_initialized)
        return;
    vael_nfa_fini();
    vael_rem_pattern2nfa_fini();
    g_initialized = false;
}

extern "C" void *vael_rem_compile(vael_pmglob_string *pattern, uint32_t compile_flags, uint32_t pattern_flags,
                                  vael_pm_error *error) {
    if (!pattern) {
        VAEL_ASSERT(0, "pattern is NULL");
        return nullptr;
    }
    vael_nfa_env *env = vael_rem_pattern2nfa(pattern, compile_flags | (pattern_flags & VAEL_PM_CASELESS), error);
    if (!env) {
        VAEL_LOG(VAEL_DBG_NOTICE, kTopics, "%s: vael_rem_pattern2nfa returned NULL\n");
        return nullptr;
    }
    vael_dfa *dfa = vael_nfa2dfa(env, vael_pmglob_string_get_id(pattern), error);
    vael_nfa_env_destroy(env);
    if (!dfa) {
        VAEL_LOG(VAEL_DBG_NOTICE, kTopics, "%s: vael_nfa2dfa returned NULL\n");
        return nullptr;
    }
    VAEL_LOG(VAEL_DBG_INFO, kPmTopics, "%s: dfa with %u states\n", vael_dfa_get_num_of_states(dfa));

    vael_timeval t0, t1;
    vael_time_get_hrtime(&t0);
    vael_dfa *minimal = vael_dfa_minimize(dfa);
    vael_time_get_hrtime(&t1);
    VAEL_LOG(VAEL_DBG_INFO, kPmTopics, "%s: vael_dfa_minimize time: %u micro seconds\n",
             vael_time_diff_usec(&t0, &t1));
    vael_dfa_destroy(dfa);
    if (!minimal) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: vael_dfa_minimize returned NULL\n");
        return nullptr;
    }
    VAEL_LOG(VAEL_DBG_INFO, kPmTopics, "%s: After minimize:  dfa with %u states\n",
             vael_dfa_get_num_of_states(minimal));

    vael_dfa *finished = vael_dfa_finalize(minimal);
    if (!finished) {
        VAEL_LOG(VAEL_DBG_ERR, kErrTopics, "%s: vael_dfa_finalize returned NULL\n");
        return nullptr;
    }
    // The string's flags carry VAEL_PM_BOUND to the run.
    vael_dfa_add_flags(finished, vael_pmglob_string_get_flags(pattern));
    finished->error = nullptr;  // the caller's record does not outlive the compile
    return finished;
}

// The DFA's part of a report: its compile figures and store, then its runs.
extern "C" void vael_dfa_stats_print(vael_dfa *dfa, int level) {
    if (!dfa)
        return;
    if (level != VAEL_PM_STATS_COMMON_EXEC) {
        vael_pm_stats_common_print(&dfa->stats.common, VAEL_PM_STATS_COMMON_COMPILE, VAEL_PM_STATS_FORMAT_TEXT, 0);
        vael_us_adaptor_kdprintf_no_prefix("Number of states is %u\n", dfa->current_state_id);
        vael_us_adaptor_kdprintf_no_prefix("Number of blocks used is %u\n", (uint32_t)dfa->num_of_blocks);
        for (uint32_t b = 0; b < dfa->num_of_blocks && b < VAEL_DFA_MAX_BLOCKS; b++)
            vael_us_adaptor_kdprintf_no_prefix("Block %d: %d states used, %d bytes allocated\n", (int)b,
                                               (int)dfa->block_used[b], (int)dfa->block_capacity[b] * 540);
        vael_us_adaptor_kdprintf_no_prefix("Number of final states is %u\n", dfa->stats.num_of_final_states);
    }
    if (level != VAEL_PM_STATS_COMMON_COMPILE)
        vael_pm_stats_common_print(&dfa->stats.common, VAEL_PM_STATS_COMMON_EXEC, VAEL_PM_STATS_FORMAT_TEXT, 0);
    if (vael_us_adaptor_printable(VAEL_DBG_INFO, "K_PMDUMP")) {
        vael_us_adaptor_kdprintf("dfa-machine is dumped as jff\n");
        vael_dfa_dump_xml(dfa);
    }
}
