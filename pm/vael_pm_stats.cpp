// vael_pm_stats.cpp - the statistics of engines and PMs, and the reports.
//
// Each engine keeps a vael_pm_stats_common record: its compile figures and
// an array of run records (one in this build). Runs write the first record
// once per buffer with relaxed word loads and stores: runs on many threads
// may lose counts, which best-effort figures allow, but they never race.
//
// The reports read the engines' records through the tier rows and the PM's
// own block and per-pattern counters, and print as text or CSV through the
// debug print, without its line prefix, so that a CSV line is one line.
// The operator's flag language and its tables are at the end.

#include "pm/vael_pm_stats.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "pm/vael_pm_internal.h"
#include "pm/vael_pm_strings.h"
#include "runtime/vael_alloc.h"
#include "runtime/vael_image_io.h"
#include "runtime/vael_runtime.h"

namespace {

constexpr const char *kTopics = "K_PM | K_ERROR";
constexpr uint32_t kSanityWord = 0x53525A49u;  // "IZRS"
constexpr const char kStars[] = "**********************************************************\n";

template <class T>
T ld(const T &word) {
    return std::atomic_ref<T>(const_cast<T &>(word)).load(std::memory_order_relaxed);
}

template <class T>
void st(T &word, T value) {
    std::atomic_ref<T>(word).store(value, std::memory_order_relaxed);
}

void raise_to(uint32_t &word, uint32_t value) {
    if (ld(word) < value)
        st(word, value);
}

// Reports go out whole, without the debug line prefix.
__attribute__((format(printf, 1, 2))) void prt(const char *format, ...) {
    va_list args;
    va_start(args, format);
    tdVFunc(VAEL_DBG_MODULE, 65535, 1, format, args);
    va_end(args);
}

}  // namespace

// ---------------------------------------------------------------- the common record
#include "vael/vael_pm.h"

extern "C" int vael_pm_stats_common_init(vael_pm_stats_common *stats) {
    if (!stats) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: stats is zero\n");
        return -1;
    }
    stats->memory = 0;
    stats->compile_time = 0;
    stats->num_exec = 0;
    stats->exec = VAEL_PM_NEW_ZEROED_ARRAY(vael_pm_stats_exec, 1);
    if (!stats->exec) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Error in allocating the execution stats\n");
        return -1;
    }
    stats->num_exec = 1;
    return 0;
}

extern "C" void vael_pm_stats_common_free(vael_pm_stats_common *stats) {
    if (!stats || !stats->exec)
        return;
    VAEL_PM_KFREE(stats->exec, sizeof(vael_pm_stats_exec) * stats->num_exec);
    stats->exec = nullptr;
    stats->num_exec = 0;
}

extern "C" void vael_pm_stats_common_update_compile(vael_pm_stats_common *stats, uint32_t memory, uint32_t time,
                                                    int mode) {
    if (!stats)
        return;
    if (mode == VAEL_PM_STATS_COMPILE_MEMORY || mode == VAEL_PM_STATS_COMPILE_BOTH)
        stats->memory = memory;
    if (mode == VAEL_PM_STATS_COMPILE_TIME || mode == VAEL_PM_STATS_COMPILE_BOTH)
        stats->compile_time = time;
}

// Once per buffer and engine: a dozen plain loads and stores, no locked
// instruction.
extern "C" void vael_pm_stats_common_update_exec(vael_pm_stats_common *stats, uint32_t len, uint32_t matches) {
    if (!stats || !stats->exec)
        return;
    vael_pm_stats_exec &e = stats->exec[0];
    st(e.buffers, ld(e.buffers) + 1);
    st(e.matches, ld(e.matches) + matches);
    raise_to(e.max_matches, matches);
    raise_to(e.max_len, len);
    // The average stays true across a wrap: the sum and its count restart
    // together.
    uint32_t total = ld(e.total_len);
    uint32_t count = ld(e.len_count);
    if (total + len < total) {
        total = 0;
        count = 0;
    }
    st(e.total_len, total + len);
    st(e.len_count, count + 1);
}

extern "C" void vael_pm_stats_common_update_exec_time(vael_pm_stats_common *stats, uint32_t total,
                                                      uint32_t cb_time) {
    if (!stats || !stats->exec)
        return;
    vael_pm_stats_exec &e = stats->exec[0];
    const uint32_t engine = total > cb_time ? total - cb_time : 0;
    uint32_t exec_time = ld(e.exec_time);
    uint32_t cb = ld(e.cb_time);
    uint32_t count = ld(e.time_count);
    if (exec_time + engine < exec_time || cb + cb_time < cb) {
        exec_time = 0;
        cb = 0;
        count = 0;
    }
    st(e.exec_time, exec_time + engine);
    st(e.cb_time, cb + cb_time);
    st(e.time_count, count + 1);
    raise_to(e.max_exec_time, engine);
    raise_to(e.max_cb_time, cb_time);
}

extern "C" void vael_pm_stats_common_reset_exec(vael_pm_stats_common *stats) {
    if (!stats || !stats->exec)
        return;
    for (uint32_t i = 0; i < stats->num_exec; i++) {
        uint32_t *words = reinterpret_cast<uint32_t *>(&stats->exec[i]);
        for (size_t w = 0; w < sizeof(vael_pm_stats_exec) / sizeof(uint32_t); w++)
            st(words[w], 0u);
    }
}

extern "C" int vael_pm_stats_common_get(vael_pm_stats_common *compile_out, vael_pm_stats_exec *exec_out,
                                        const vael_pm_stats_common *stats) {
    if (!compile_out || !exec_out || !stats)
        return -1;
    compile_out->exec = nullptr;
    compile_out->num_exec = 0;
    // A sanity check compares two images of one pattern set: the figures
    // of each compile would tell them apart.
    const bool sanity = vael_pm_serialize_during_sanity_check != 0;
    compile_out->memory = sanity ? kSanityWord : stats->memory;
    compile_out->compile_time = sanity ? kSanityWord : stats->compile_time;
    vael_pm_stats_exec sum{};
    for (uint32_t i = 0; stats->exec && i < stats->num_exec; i++) {
        const vael_pm_stats_exec &e = stats->exec[i];
        sum.buffers += ld(e.buffers);
        sum.matches += ld(e.matches);
        sum.max_matches = std::max(sum.max_matches, ld(e.max_matches));
        sum.max_len = std::max(sum.max_len, ld(e.max_len));
        sum.total_len += ld(e.total_len);
        sum.len_count += ld(e.len_count);
        sum.exec_time += ld(e.exec_time);
        sum.max_exec_time = std::max(sum.max_exec_time, ld(e.max_exec_time));
        sum.cb_time += ld(e.cb_time);
        sum.max_cb_time = std::max(sum.max_cb_time, ld(e.max_cb_time));
        sum.time_count += ld(e.time_count);
    }
    *exec_out = sum;
    return 0;
}

extern "C" void vael_pm_stats_common_copy(vael_pm_stats_common *dst, const vael_pm_stats_common *src) {
    if (!dst || !src)
        return;
    dst->memory = src->memory;
    dst->compile_time = src->compile_time;
    const uint32_t n = std::min(dst->num_exec, src->num_exec);
    for (uint32_t i = 0; dst->exec && src->exec && i < n; i++) {
        const uint32_t *from = reinterpret_cast<const uint32_t *>(&src->exec[i]);
        uint32_t *to = reinterpret_cast<uint32_t *>(&dst->exec[i]);
        for (size_t w = 0; w < sizeof(vael_pm_stats_exec) / sizeof(uint32_t); w++)
            st(to[w], ld(from[w]));
    }
}

// The image holds the compile figures only: run figures belong to the
// process that ran.
extern "C" uint32_t vael_pm_stats_common_get_serialize_size(void) { return 8; }

extern "C" void vael_pm_stats_common_serialize(const vael_pm_stats_common *stats, unsigned char **position,
                                               uint32_t *space) {
    vael_pm_stats_common compile;
    vael_pm_stats_exec exec;
    vael_pm_stats_common_get(&compile, &exec, stats);
    vael::image_put_u32(position, space, compile.memory);
    vael::image_put_u32(position, space, compile.compile_time);
}

extern "C" int vael_pm_stats_common_deserialize(vael_pm_stats_common *stats, const unsigned char **position,
                                                uint32_t *space, vael_vbuf *vbuf, vael_vbuf_iter *iter) {
    vael::ImageReader in{position, space, vbuf, iter};
    if (*space < 8) {
        *space = 0;
        return -1;
    }
    return in.u32(&stats->memory) && in.u32(&stats->compile_time) ? 0 : -1;
}

extern "C" void vael_pm_stats_common_print(const vael_pm_stats_common *stats, int level, int format, int header) {
    if (format != VAEL_PM_STATS_FORMAT_TEXT && format != VAEL_PM_STATS_FORMAT_CSV) {
        prt("Error: Unknown format %d\n", format);
        return;
    }
    const bool csv = format == VAEL_PM_STATS_FORMAT_CSV;
    if (header) {
        if (!csv)
            return;
        if (level != VAEL_PM_STATS_COMMON_EXEC)
            prt("Memory consumption;Compilation time (microsec);");
        if (level != VAEL_PM_STATS_COMMON_COMPILE)
            prt("Executed buffers #;Max buffer length;Avg buffer length;Matches #;Max matches on buffer;"
                "Avg PM exec time (ns);Max PM exec time (ns);Avg callback exec time (ns);"
                "Max callback exec time (ns);");
        return;
    }
    // An engine without a record prints zeros, so that CSV columns stay in
    // place.
    static const vael_pm_stats_common kNone = {nullptr, 0, 0, 0};
    vael_pm_stats_common compile;
    vael_pm_stats_exec e;
    vael_pm_stats_common_get(&compile, &e, stats ? stats : &kNone);
    if (level != VAEL_PM_STATS_COMMON_EXEC) {
        if (csv) {
            prt("%u;%u;", compile.memory, compile.compile_time);
        } else {
            prt("Memory comsumption for this handle is %u bytes\n", compile.memory);
            prt("Compilation time for this handle is %u micro-seconds\n", compile.compile_time);
        }
    }
    if (level == VAEL_PM_STATS_COMMON_COMPILE)
        return;
    const uint32_t avg_len = e.len_count ? e.total_len / e.len_count : 0;
    const uint32_t avg_exec = e.time_count ? (uint32_t)((uint64_t)e.exec_time * 1000 / e.time_count) : 0;
    const uint32_t avg_cb = e.time_count ? (uint32_t)((uint64_t)e.cb_time * 1000 / e.time_count) : 0;
    if (csv) {
        prt("%u;%u;%u;%u;%u;%u;%u;%u;%u;", e.buffers, e.max_len, avg_len, e.matches, e.max_matches, avg_exec,
            e.max_exec_time * 1000, avg_cb, e.max_cb_time * 1000);
        return;
    }
    prt("Number of executed buffers is %u\n", e.buffers);
    prt("Max buffer length is %u\n", e.max_len);
    prt("Avg buffer length is %u\n", avg_len);
    prt("Number of matches is %u\n", e.matches);
    prt("Max number of matches on buffer is %u\n", e.max_matches);
    prt("Avg execution time is %u ns for PM, %u ns for callbacks.\n", avg_exec, avg_cb);
    prt("Max execution time is %u000 ns for PM, %u000 ns for callbacks.\n", e.max_exec_time, e.max_cb_time);
}

// ---------------------------------------------------------------- pattern order

extern "C" uint32_t vael_pm_stats_get_match_ratio(const vael_pm_array_one_handle *entry, int *defined) {
    if (!entry || !defined) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Illegal attribute\n");
        return 0;
    }
    const uint32_t tier1 = ld(entry->tier1_matches);
    const uint32_t matches = ld(entry->matches);
    *defined = tier1 != 0;
    if (!tier1 || !matches)
        return 0;
    return tier1 / matches;
}

namespace {

const vael_pm_stats_pattern_elm *elm(uintptr_t v) { return reinterpret_cast<const vael_pm_stats_pattern_elm *>(v); }

template <class T>
int three_way(T a, T b) {
    return a == b ? 1 : (a > b ? 0 : -1);
}

}  // namespace

extern "C" int vael_pm_stats_sort_id_cmp(uintptr_t a, uintptr_t b) {
    return three_way(elm(a)->entry->id, elm(b)->entry->id);
}

extern "C" int vael_pm_stats_sort_tier1_cmp(uintptr_t a, uintptr_t b) {
    return three_way(ld(elm(a)->entry->tier1_matches), ld(elm(b)->entry->tier1_matches));
}

extern "C" int vael_pm_stats_sort_matches_cmp(uintptr_t a, uintptr_t b) {
    return three_way(ld(elm(a)->entry->matches), ld(elm(b)->entry->matches));
}

// The better filter counts as the larger: fewer first-tier hits per match,
// with no ratio at all (no hit) above everything, and a ratio of 0 (hits but
// no match) below.
extern "C" int vael_pm_stats_sort_performance_cmp(uintptr_t a, uintptr_t b) {
    int da = 0, db = 0;
    const uint32_t ra = vael_pm_stats_get_match_ratio(elm(a)->entry, &da);
    const uint32_t rb = vael_pm_stats_get_match_ratio(elm(b)->entry, &db);
    if (ra == rb && da == db)
        return 1;
    if (!da)
        return 0;
    if (!db)
        return -1;
    if (ra == 0)
        return -1;
    if (rb == 0)
        return 0;
    return ra < rb ? 0 : -1;
}

extern "C" int vael_pm_stats_sort_internal_id_cmp(uintptr_t a, uintptr_t b) {
    return three_way(elm(a)->internal_id, elm(b)->internal_id);
}

// ---------------------------------------------------------------- one PM

namespace {

constexpr lst_cmp_fn kSortTable[VAEL_PM_STATS_SORT_NUM] = {
    vael_pm_stats_sort_id_cmp,          vael_pm_stats_sort_tier1_cmp,
    vael_pm_stats_sort_matches_cmp,     vael_pm_stats_sort_performance_cmp,
    vael_pm_stats_sort_internal_id_cmp,
};

const vael_pm_tier1_funcs *tier1_row(const vael_pm_tier1_slot &slot) {
    return slot.tier1_h && slot.tier1_type < VAEL_PM_TIER1_NUM ? &pm_tier1_funcs[slot.tier1_type] : nullptr;
}

const vael_pm_tier2_funcs *tier2_row(const vael_pm_array_one_handle &entry) {
    return entry.tier2_h && entry.tier2_type < VAEL_PM_TIER2_NUM ? &pm_tier2_funcs[entry.tier2_type] : nullptr;
}

const vael_pm_stats_common *tier1_stats(const vael_pm_tier1_slot &slot) {
    const vael_pm_tier1_funcs *row = tier1_row(slot);
    return row && row->get_common_stats ? row->get_common_stats(slot.tier1_h) : nullptr;
}

const vael_pm_stats_common *tier2_stats(const vael_pm_array_one_handle &entry) {
    const vael_pm_tier2_funcs *row = tier2_row(entry);
    return row && row->get_common_stats ? row->get_common_stats(entry.tier2_h) : nullptr;
}

const char *tier1_name(const vael_pm_tier1_slot &slot) {
    const vael_pm_tier1_funcs *row = tier1_row(slot);
    return row && row->name ? row->name : "INVALID";
}

const char *tier2_name(const vael_pm_array_one_handle &entry) {
    const vael_pm_tier2_funcs *row = tier2_row(entry);
    return row && row->name ? row->name : "INVALID";
}

const char *pm_name(const vael_pm_handle *pm) { return pm->name ? pm->name : ""; }

// The PM's figures gathered from its engines.
struct pm_figures {
    uint32_t tier1_compile_time = 0;
    uint32_t tier1_matches = 0;
    uint32_t tier1_max_matches = 0;
    uint32_t tier2_matches = 0;
    uint32_t tier2_max_matches = 0;
    uint32_t tier2_ran = 0;
};

pm_figures gather(const vael_pm_handle *pm) {
    pm_figures f;
    vael_pm_stats_common compile;
    vael_pm_stats_exec e;
    for (const auto &slot : pm->tier1) {
        if (vael_pm_stats_common_get(&compile, &e, tier1_stats(slot)) != 0)
            continue;
        f.tier1_compile_time += compile.compile_time;
        f.tier1_matches += e.matches;
        f.tier1_max_matches = std::max(f.tier1_max_matches, e.max_matches);
    }
    for (uint32_t i = 0; pm->pm_array && i < pm->num_tier2; i++) {
        if (vael_pm_stats_common_get(&compile, &e, tier2_stats(pm->pm_array[i])) != 0)
            continue;
        f.tier2_matches += e.matches;
        f.tier2_max_matches = std::max(f.tier2_max_matches, e.max_matches);
        if (e.buffers)
            f.tier2_ran++;
    }
    return f;
}

void print_pm_table(const vael_pm_handle *pm, int level, bool csv, bool header) {
    const pm_figures f = gather(pm);
    const vael_pm_stats_block &b = pm->stats;
    if (csv) {
        if (header) {
            prt("PM id;PM name;");
            if (level != VAEL_PM_STATS_COMMON_EXEC)
                prt("Patterns #;Tier2 #;Memory consumption (bytes);PM compilation time (microsecs);"
                    "Tier1 compilation time (microsecs);PM update time (microsecs);"
                    "PM serialization time (microsecs);PM de-serialization time (microsecs);");
            if (level != VAEL_PM_STATS_COMMON_COMPILE)
                prt("Tier1 matches #;Tier2 matches #;Max Tier1 matches in buffer;Max Tier2 matches in buffer;"
                    "Tier2 that ran #;");
            prt("\n");
        }
        prt("%d;%s;", pm->pm_id, pm_name(pm));
        if (level != VAEL_PM_STATS_COMMON_EXEC)
            prt("%u;%u;%u;%u;%u;%u;%u;%u;", b.num_patterns, b.num_tier2_compiled, b.memory, b.compile_time,
                f.tier1_compile_time, b.update_time, b.serialize_time, b.deserialize_time);
        if (level != VAEL_PM_STATS_COMMON_COMPILE)
            prt("%u;%u;%u;%u;%u;", f.tier1_matches, f.tier2_matches, f.tier1_max_matches, f.tier2_max_matches,
                f.tier2_ran);
        prt("\n");
        return;
    }
    prt("%s", kStars);
    prt("Printing PM %d stats ( %s )\n", pm->pm_id, pm_name(pm));
    prt("%s", kStars);
    if (level != VAEL_PM_STATS_COMMON_EXEC) {
        prt("Number of patterns in PM: %u\n", b.num_patterns);
        prt("Number of compiled second tiers in PM: %u\n", b.num_tier2_compiled);
        prt("Allocated memory for PM: %u bytes\n", b.memory);
        prt("Compilation time for PM: %u micro-seconds\n", b.compile_time);
        prt("Compilation time for TIER1 in PM: %u micro-seconds\n", f.tier1_compile_time);
        prt("Update time for PM: %u micro-seconds\n", b.update_time);
        prt("Serialization time for PM: %u micro-seconds\n", b.serialize_time);
        prt("De-serialization time for PM: %u micro-seconds\n", b.deserialize_time);
    }
    if (level != VAEL_PM_STATS_COMMON_COMPILE) {
        prt("Number of matches in first tier: %u\n", f.tier1_matches);
        prt("Number of matches in second tier: %u\n", f.tier2_matches);
        prt("Maximal number of matches in one buffer in first tier: %u\n", f.tier1_max_matches);
        prt("Maximal number of matches in one buffer in second tier: %u\n", f.tier2_max_matches);
        prt("Number of second tiers which ran is: %u\n", f.tier2_ran);
    }
}

void print_tier1_table(const vael_pm_handle *pm, int level, bool csv, bool header) {
    if (csv) {
        if (header) {
            prt("PM id;PM name;Tier1 type;");
            vael_pm_stats_common_print(nullptr, level, VAEL_PM_STATS_FORMAT_CSV, 1);
            prt("\n");
        }
        for (const auto &slot : pm->tier1) {
            if (!slot.tier1_h)
                continue;
            prt("%d;%s;%s;", pm->pm_id, pm_name(pm), tier1_name(slot));
            vael_pm_stats_common_print(tier1_stats(slot), level, VAEL_PM_STATS_FORMAT_CSV, 0);
            prt("\n");
        }
        return;
    }
    prt("TIER1 stats\n");
    for (const auto &slot : pm->tier1) {
        if (!slot.tier1_h)
            continue;
        prt("TIER1 type: %s\n", tier1_name(slot));
        const vael_pm_tier1_funcs *row = tier1_row(slot);
        if (row && row->stats_print)
            row->stats_print(slot.tier1_h, level);
    }
}

void pattern_elm_free(uintptr_t value) {
    VAEL_KFREE(reinterpret_cast<vael_pm_stats_pattern_elm *>(value), sizeof(vael_pm_stats_pattern_elm));
}

// All entries of the PM in the asked order; null on failure, logged.
lst_list *sorted_patterns(const vael_pm_handle *pm, const vael_pm_stats_attrs &attrs) {
    if (attrs.sort >= VAEL_PM_STATS_SORT_NUM) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Failed to find sort flag (given flag is %d)\n", (int)attrs.sort);
        return nullptr;
    }
    lst_list *list = lst_create_destr(pattern_elm_free);
    if (!list) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Failed to create patterns list\n");
        return nullptr;
    }
    lst_set_comparator(list, kSortTable[attrs.sort]);
    for (uint32_t i = 0; pm->pm_array && i < pm->num_tier2; i++) {
        auto *e = static_cast<vael_pm_stats_pattern_elm *>(VAEL_KMALLOC(sizeof(vael_pm_stats_pattern_elm)));
        if (!e) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Cannot allocate pattern_elm\n");
            lst_destroy(list);
            return nullptr;
        }
        e->entry = &pm->pm_array[i];
        e->internal_id = i;
        const uintptr_t v = reinterpret_cast<uintptr_t>(e);
        if (!(attrs.ascending ? lst_insert_ascending(list, v) : lst_insert_descending(list, v))) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Failed to insert pattern handle to list \n");
            pattern_elm_free(v);
            lst_destroy(list);
            return nullptr;
        }
    }
    return list;
}

// The ratio as the report writes it; the text lives in buf.
const char *ratio_text(const vael_pm_array_one_handle &entry, char (&buf)[16]) {
    int defined = 0;
    const uint32_t ratio = vael_pm_stats_get_match_ratio(&entry, &defined);
    if (!defined)
        return "N/A";
    if (ratio == 0)
        return "0";
    std::snprintf(buf, sizeof buf, "1/%u", ratio);
    return buf;
}

void print_pattern_text(const vael_pm_array_one_handle &entry, uint32_t internal_id, int level) {
    char buf[16];
    prt("Pattern id: %d (internal %u) (flags: 0x%.8x) is:\n", entry.id, internal_id, entry.flags);
    prt("LSS (matched: %u, matches that resulted in pm match: %u, match ratio: %s ):", ld(entry.tier1_matches),
        ld(entry.matches), ratio_text(entry, buf));
    if (entry.lss_str)
        prt("%s%s\n", pm_str_to_debug_charp((const char *)entry.lss_str, entry.lss_size),
            entry.flags & VAEL_PM_LITERAL ? " (Literal LSS)" : "");
    else
        prt("N/A\n");
    prt("RE is ");
    if (entry.re_str)
        prt("%s%s\n", pm_str_to_debug_charp((const char *)entry.re_str, entry.re_size),
            entry.tier2_h ? "" : " No second tier handle - not needed");
    else
        prt("N/A\n");
    if (entry.tier2_h) {
        prt("TIER2 type: %s\n", tier2_name(entry));
        vael_pm_stats_common_print(tier2_stats(entry), level, VAEL_PM_STATS_FORMAT_TEXT, 0);
    }
    prt("%s", kStars);
}

void print_pattern_csv(const vael_pm_handle *pm, const vael_pm_array_one_handle &entry, uint32_t internal_id,
                       int level) {
    char buf[16];
    prt("%d;%s;%d;%u;0x%.8x;%u;%u;%s;", pm->pm_id, pm_name(pm), entry.id, internal_id, entry.flags,
        ld(entry.tier1_matches), ld(entry.matches), ratio_text(entry, buf));
    prt("\"%s\";%s;",
        entry.lss_str ? pm_str_to_debug_charp_for_csv((const char *)entry.lss_str, entry.lss_size) : "N/A",
        entry.flags & VAEL_PM_LITERAL ? "TRUE" : "FALSE");
    prt("\"%s\";%s;", entry.re_str ? pm_str_to_debug_charp_for_csv((const char *)entry.re_str, entry.re_size) : "N/A",
        entry.tier2_h ? "TRUE" : "FALSE");
    if (entry.tier2_h) {
        prt("%s;", tier2_name(entry));
        vael_pm_stats_common_print(tier2_stats(entry), level, VAEL_PM_STATS_FORMAT_CSV, 0);
    }
    prt("\n");
}

void print_tier2_table(const vael_pm_handle *pm, int level, bool csv, bool header,
                       const vael_pm_stats_attrs &attrs) {
    lst_list *list = sorted_patterns(pm, attrs);
    if (!list) {
        prt("Failed to sort patterns\n");
        return;
    }
    if (csv && header) {
        prt("PM id;PM name;Pattern id;Inetrnal pattern id;flags;LSS matches #;"
            "LSS matches # that resulted in pm match;LSS match ratio;LSS string;Literal LSS;RE string;"
            "Tier2 exists;Tier2 type;");
        vael_pm_stats_common_print(nullptr, level, VAEL_PM_STATS_FORMAT_CSV, 1);
        prt("\n");
    }
    uintptr_t v = 0;
    for (lst_cursor c = lst_iterate(list, nullptr, &v); c; c = lst_iterate(list, c, &v)) {
        const vael_pm_stats_pattern_elm *e = elm(v);
        if (csv)
            print_pattern_csv(pm, *e->entry, e->internal_id, level);
        else
            print_pattern_text(*e->entry, e->internal_id, level);
    }
    lst_destroy(list);
}

void print_one(const vael_pm_handle *pm, int level, int print_patterns, const vael_pm_stats_attrs &attrs,
               bool header) {
    if (attrs.format != VAEL_PM_STATS_FORMAT_TEXT && attrs.format != VAEL_PM_STATS_FORMAT_CSV) {
        prt("Error: Unknown format %d\n", (int)attrs.format);
        return;
    }
    const bool csv = attrs.format == VAEL_PM_STATS_FORMAT_CSV;
    if (attrs.level & VAEL_PM_STATS_LEVEL_PM)
        print_pm_table(pm, level, csv, header);
    if (attrs.level & VAEL_PM_STATS_LEVEL_TIER1)
        print_tier1_table(pm, level, csv, header);
    if ((attrs.level & VAEL_PM_STATS_LEVEL_TIER2) && print_patterns)
        print_tier2_table(pm, level, csv, header, attrs);
}

bool pm_ok(const vael_pm_handle *pm) {
    if (!pm) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: NULL vael_pm_h\n");
        return false;
    }
    if (pm->magic != VAEL_PM_MAGIC_ALIVE) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Corrupted pm_handle, magic is '0x%x'\n", pm->magic);
        return false;
    }
    return true;
}

// The PM list walks hold its mutex; it is absent before start and after
// stop, when no other thread can hold a PM.
void list_lock() {
    if (*vael_pm_global_data.lock)
        MtMutexLock(*vael_pm_global_data.lock);
}
void list_unlock() {
    if (*vael_pm_global_data.lock)
        MtMutexUnLock(*vael_pm_global_data.lock);
}

}  // namespace

extern "C" void vael_pm_stats_attrs_set_defaults(vael_pm_stats_attrs *attrs) {
    if (attrs)
        *attrs = vael_pm_stats_attrs{VAEL_PM_STATS_SORT_INTERNAL_ID, 1, VAEL_PM_STATS_FORMAT_TEXT,
                                     VAEL_PM_STATS_LEVEL_PM | VAEL_PM_STATS_LEVEL_TIER1 | VAEL_PM_STATS_LEVEL_TIER2};
}

extern "C" void vael_pm_stats_print_ex(vael_pm_handle *pm, int level, int print_patterns,
                                       const vael_pm_stats_attrs *attrs) {
    if (!pm_ok(pm))
        return;
    vael_pm_stats_attrs a;
    vael_pm_stats_attrs_set_defaults(&a);
    print_one(pm, level, print_patterns, attrs ? *attrs : a, true);
}

extern "C" void vael_pm_stats_print(vael_pm_handle *pm, int level, int print_patterns) {
    vael_pm_stats_print_ex(pm, level, print_patterns, nullptr);
}

extern "C" void vael_pm_stats_print_all(const vael_pm_stats_attrs *attrs) {
    vael_pm_stats_attrs a;
    vael_pm_stats_attrs_set_defaults(&a);
    if (attrs)
        a = *attrs;
    list_lock();
    bool first = true;
    for (const vael_pm_handle *pm = *vael_pm_global_data.list; pm; pm = pm->next) {
        print_one(pm, VAEL_PM_STATS_COMMON_ALL, 1, a, first);
        first = false;
    }
    list_unlock();
}

extern "C" void vael_pm_stats_reset_all(void) {
    list_lock();
    for (const vael_pm_handle *pm = *vael_pm_global_data.list; pm; pm = pm->next) {
        for (const auto &slot : pm->tier1)
            vael_pm_stats_common_reset_exec(const_cast<vael_pm_stats_common *>(tier1_stats(slot)));
        for (uint32_t i = 0; pm->pm_array && i < pm->num_tier2; i++)
            vael_pm_stats_common_reset_exec(const_cast<vael_pm_stats_common *>(tier2_stats(pm->pm_array[i])));
    }
    list_unlock();
}

extern "C" uint32_t vael_pm_get_tier1_matches(vael_pm_handle *pm) {
    if (!pm_ok(pm))
        return 0;
    return gather(pm).tier1_matches;
}

// ---------------------------------------------------------------- operator entry

char vael_pm_stats_pattern[100];

namespace {

// The first PM with a second tier whose expression begins with the text.
const vael_pm_handle *vael_pm_find_pm(const char *text, size_t len) {
    for (const vael_pm_handle *pm = *vael_pm_global_data.list; pm; pm = pm->next) {
        for (uint32_t i = 0; pm->pm_array && i < pm->num_tier2; i++) {
            const vael_pm_array_one_handle &e = pm->pm_array[i];
            if (e.tier2_h && e.re_str && e.re_size >= len && std::memcmp(e.re_str, text, len) == 0)
                return pm;
        }
    }
    return nullptr;
}

bool single_level(uint32_t level) {
    return level == VAEL_PM_STATS_LEVEL_PM || level == VAEL_PM_STATS_LEVEL_TIER1 ||
           level == VAEL_PM_STATS_LEVEL_TIER2;
}

}  // namespace

extern "C" void vael_pm_stats_print_cb(void) {
    if (!vael_module_i_am_global())
        return;
    // The buffer is the operator's: its end is not trusted to hold a NUL.
    const size_t len = strnlen(vael_pm_stats_pattern, sizeof vael_pm_stats_pattern);
    const char *text = vael_pm_stats_pattern;
    if (len >= 5 && std::memcmp(text, "RESET", 5) == 0) {
        vael_pm_stats_reset_all();
        return;
    }
    uint32_t count = 0, memory = 0;
    list_lock();
    for (const vael_pm_handle *pm = *vael_pm_global_data.list; pm; pm = pm->next) {
        count++;
        memory += pm->stats.memory;
    }
    list_unlock();
    prt("Number of PMs is %u\n", count);
    prt("Total allocated memory for all PMs is %u bytes\n", memory);
    if (len >= 3 && std::memcmp(text, "ALL", 3) == 0) {
        char flags[sizeof vael_pm_stats_pattern];
        std::memcpy(flags, text + 3, len - 3);
        flags[len - 3] = '\0';
        vael_pm_stats_attrs attrs;
        vael_pm_stats_attrs_set_defaults(&attrs);
        if (vael_pm_stats_pars_flags(flags, &attrs) != 0)
            return;
        if (attrs.format == VAEL_PM_STATS_FORMAT_CSV) {
            if (!single_level(attrs.level)) {
                prt("Can't print CSV format for more than one level. Specify LEVEL=PM/TIER1/TIER2\n");
                return;
            }
            prt("**** START CSV FORMAT ****\n");
            vael_pm_stats_print_all(&attrs);
            prt("**** END CSV FORMAT ****\n");
            return;
        }
        vael_pm_stats_print_all(&attrs);
        return;
    }
    prt("Requested Statistics for PM holding pattern: %.*s\n", (int)len, text);
    list_lock();
    const vael_pm_handle *pm = vael_pm_find_pm(text, len);
    if (pm) {
        vael_pm_stats_attrs attrs;
        vael_pm_stats_attrs_set_defaults(&attrs);
        print_one(pm, VAEL_PM_STATS_COMMON_ALL, 1, attrs, true);
    }
    list_unlock();
    if (!pm)
        prt("Can't find any PM holding this pattern\n");
}

// ---------------------------------------------------------------- dumps

extern "C" void vael_pm_dump(vael_pm_handle *pm, int option, int format, int32_t pattern_id) {
    if (!pm_ok(pm))
        return;
    auto dump_tier1 = [&] {
        for (const auto &slot : pm->tier1) {
            const vael_pm_tier1_funcs *row = tier1_row(slot);
            if (row && row->dump)
                row->dump(slot.tier1_h, format);
        }
    };
    auto dump_tier2 = [&](const vael_pm_array_one_handle &entry) {
        const vael_pm_tier2_funcs *row = tier2_row(entry);
        if (row && row->dump)
            row->dump(entry.tier2_h, format);
    };
    switch (option) {
    case 0:
    case 1:
        dump_tier1();
        if (option == 1)
            break;
        [[fallthrough]];
    case 2:
        for (uint32_t i = 0; pm->pm_array && i < pm->num_tier2; i++)
            dump_tier2(pm->pm_array[i]);
        break;
    case 3: {
        const vael_pm_array_one_handle *found = nullptr;
        for (uint32_t i = 0; pm->pm_array && i < pm->num_tier2 && !found; i++)
            if (pm->pm_array[i].id == pattern_id)
                found = &pm->pm_array[i];
        if (!found) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Failed to find pattern %d\n", pattern_id);
            break;
        }
        if (!found->tier2_h) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: No REM handle for pattern %d\n", pattern_id);
            break;
        }
        dump_tier2(*found);
        break;
    }
    default:
        vael_assert_fail(__FILE__, __LINE__, "Invalid option %d", option);
        break;
    }
}

// ---------------------------------------------------------------- flag language

namespace {

// A value of a flag: its name, the name's length, the value.
struct flag_value_row {
    const char *name;
    uint32_t len;
    uint32_t value;
};

// Each table ends with a row of no name.
constexpr flag_value_row kSortValues[] = {
    {"ID", 2, VAEL_PM_STATS_SORT_ID},       {"TIER1", 5, VAEL_PM_STATS_SORT_TIER1},
    {"MATCHES", 7, VAEL_PM_STATS_SORT_MATCHES}, {"PERF", 4, VAEL_PM_STATS_SORT_PERF},
    {"INTERNAL_ID", 11, VAEL_PM_STATS_SORT_INTERNAL_ID}, {nullptr, 0, VAEL_PM_STATS_SORT_NUM},
};
constexpr flag_value_row kFormatValues[] = {
    {"TEXT", 4, VAEL_PM_STATS_FORMAT_TEXT}, {"CSV", 3, VAEL_PM_STATS_FORMAT_CSV}, {nullptr, 0, 2}};
constexpr flag_value_row kLevelValues[] = {{"PM", 2, VAEL_PM_STATS_LEVEL_PM},
                                           {"TIER1", 5, VAEL_PM_STATS_LEVEL_TIER1},
                                           {"TIER2", 5, VAEL_PM_STATS_LEVEL_TIER2},
                                           {nullptr, 0, 0}};

int handle_sort(vael_pm_stats_attrs *a, uint32_t v) {
    if (v >= VAEL_PM_STATS_SORT_NUM)
        return -1;
    a->sort = v;
    return 0;
}
int handle_descending(vael_pm_stats_attrs *a, uint32_t) {
    a->ascending = 0;
    return 0;
}
int handle_format(vael_pm_stats_attrs *a, uint32_t v) {
    if (v > VAEL_PM_STATS_FORMAT_CSV)
        return -1;
    a->format = v;
    return 0;
}
int handle_level(vael_pm_stats_attrs *a, uint32_t v) {
    if (!single_level(v))
        return -1;
    a->level = v;
    return 0;
}

struct flag_row {
    const char *name;
    uint32_t len;
    uint32_t index;
    const flag_value_row *values; // null: the flag takes no value
    int (*handler)(vael_pm_stats_attrs *attrs, uint32_t value);
};

constexpr flag_row kFlags[] = {
    {"S=", 2, 0, kSortValues, handle_sort},
    {"D", 1, 1, nullptr, handle_descending},
    {"FORMAT=", 7, 2, kFormatValues, handle_format},
    {"LEVEL=", 6, 3, kLevelValues, handle_level},
    {nullptr, 0, 4, nullptr, nullptr},
};

// The value at *text for the flag; moves *text past it. 0 or -1.
int vael_pm_stats_flags_get_flag_value(const flag_row &flag, const char **text, uint32_t *value) {
    *value = 0;
    if (!flag.values)
        return 0;
    if (!**text) {
        VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: flag str is too short\n");
        return -1;
    }
    for (const flag_value_row *v = flag.values; v->name; v++) {
        if (std::strncmp(*text, v->name, v->len) == 0) {
            *value = v->value;
            *text += v->len;
            return 0;
        }
    }
    VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Invalid flag value\n");
    return -1;
}

}  // namespace

extern "C" int vael_pm_stats_pars_flags(const char *text, vael_pm_stats_attrs *attrs) {
    if (!text || !attrs) {
        VAEL_ASSERT_F(0, "%s: Illegal arguments: text %p, attrs %p\n", (const void *)text, (void *)attrs);
        return -1;
    }
    if (!*text)
        return 0;
    if (*text != '/') {
        prt("Failed to parse flags: Illegal flag\n");
        return -1;
    }
    const char *p = text + 1;
    for (;;) {
        const flag_row *flag = nullptr;
        for (const flag_row *f = kFlags; f->name && !flag; f++)
            if (std::strncmp(p, f->name, f->len) == 0)
                flag = f;
        if (!flag) {
            prt("Failed to parse flags: Unknown flag\n");
            return -1;
        }
        p += flag->len;
        uint32_t value = 0;
        if (vael_pm_stats_flags_get_flag_value(*flag, &p, &value) != 0) {
            prt("Failed to parse flags: Illegal flag value (%s)\n", flag->name);
            return -1;
        }
        if (flag->handler(attrs, value) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kTopics, "%s: Failed to handle flag (%s)\n", flag->name);
            prt("Failed to parse flags: Internal error\n");
            return -1;
        }
        if (!*p)
            return 0;
        if (*p != ',') {
            prt("Failed to parse flags: Illegal attribute/value\n");
            return -1;
        }
        p++;
    }
}
