// vael_stat_aggregate.cpp - statistics summed over a host's instances, and
// the report of its handle tables built on that.
//
// A statistics block is fetched from each instance in turn through a get
// function and added into a total through an add function, so one loop
// serves every kind of block: plain 32-bit counters, 64-bit counters kept
// as word pairs, and the handle-table block, whose first words describe the
// table and are not summed.

#include "vael/vael_params.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "runtime/vael_runtime.h"
#include "vael/vael_apps.h"

namespace {

// Words of a handle-table block from handles_allocated to the end.
constexpr uint32_t kHandleCounterBytes =
    sizeof(vael_handles_ctl_request) - offsetof(vael_handles_ctl_request, handles_allocated);
// A host that always answers "more follow" still ends the report.
constexpr uint32_t kMaxTables = 65536;

// The table asked of each instance, and why the last request failed.
struct HandleFetch {
    uint32_t index;
    int error;
};

int fetch_handles(int instance, void *block, void *arg) {
    auto *fetch = static_cast<HandleFetch *>(arg);
    auto *request = static_cast<vael_handles_ctl_request *>(block);
    std::memset(request, 0, sizeof *request);
    request->request = 1;
    request->index = fetch->index;
    vael_ctl_record record;
    std::memset(&record, 0, sizeof record);
    record.command = VAEL_HANDLES_CTL_COMMAND;
    record.data = request;
    record.data_len = sizeof *request;
    errno = 0;
    if (!vael_ioctl_func_multik || !vael_get_ioctl_num ||
        vael_ioctl_func_multik(vael_get_ioctl_num(), &record, instance) != 0) {
        fetch->error = errno;
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

void add_handles(void *total, void *item, void *) {
    qxstat_aggregate_handle_stats(static_cast<vael_handles_ctl_request *>(total),
                                  static_cast<const vael_handles_ctl_request *>(item));
}

void print_table(const vael_handles_ctl_request &t) {
    const char *name = reinterpret_cast<const char *>(t.name);
    std::printf("\ttable name \"%.*s\"\n", (int)strnlen(name, sizeof t.name), name);
    std::printf("\t%d handles, %d pools, %d maximum pool(s)\n", (int)(t.handles_allocated - t.handles_freed),
                (int)(t.pools_allocated - t.pools_freed), (int)t.max_pools);
    std::printf("\t%d allocated, %d failed, %d freed\n", (int)t.handles_allocated, (int)t.handle_alloc_failed,
                (int)t.handles_freed);
    std::printf("\t%d pool(s) allocated, %d failed, %d freed, %d not preallocated\n", (int)t.pools_allocated,
                (int)t.pool_alloc_failed, (int)t.pools_freed, (int)(t.pools_allocated - t.pools_preallocated));
}

}  // namespace

extern "C" int vael_stat_aggregate_data_from_all_instances(vael_stat_get_fn get, void *get_arg, vael_stat_add_fn add,
                                                           void *add_arg, void *total, void *scratch) {
    if (!get || !add)
        return VAEL_ERROR;
    int first = 0, last = -1;
    if (!vael_get_instance_range || vael_get_instance_range(&first, &last) != 0)
        return VAEL_ERROR;
    for (int instance = first; instance <= last; instance++) {
        void *block = instance == first ? total : scratch;
        if (get(instance, block, get_arg) < 0)
            return VAEL_ERROR;
        if (instance != first)
            add(total, scratch, add_arg);
    }
    return VAEL_OK;
}

extern "C" void vael_stat_aggregate_add_all_ints64(void *total, const void *item, uint32_t size) {
    auto *t = static_cast<unsigned char *>(total);
    auto *i = static_cast<const unsigned char *>(item);
    // The low word first, as a 64-bit counter lies in memory here; the carry
    // out of the low word goes into the high one.
    for (uint32_t off = 0; off + 2 * sizeof(uint32_t) <= size; off += 2 * sizeof(uint32_t)) {
        uint32_t t_lo, t_hi, i_lo, i_hi;
        std::memcpy(&t_lo, t + off, 4);
        std::memcpy(&t_hi, t + off + 4, 4);
        std::memcpy(&i_lo, i + off, 4);
        std::memcpy(&i_hi, i + off + 4, 4);
        const uint32_t lo = t_lo + i_lo;
        const uint32_t hi = t_hi + i_hi + (lo < t_lo ? 1u : 0u);
        std::memcpy(t + off, &lo, 4);
        std::memcpy(t + off + 4, &hi, 4);
    }
}

extern "C" void vael_stat_aggregate_add_all_ints_wrapper(void *total, void *item, void *size) {
    if (size)
        vael_stat_aggregate_add_all_ints(total, item, *static_cast<const uint32_t *>(size));
}

extern "C" void vael_stat_aggregate_add_all_ints64_wrapper(void *total, void *item, void *size) {
    if (size)
        vael_stat_aggregate_add_all_ints64(total, item, *static_cast<const uint32_t *>(size));
}

extern "C" void qxstat_aggregate_handle_stats(vael_handles_ctl_request *total, const vael_handles_ctl_request *item) {
    if (total && item)
        vael_stat_aggregate_add_all_ints(&total->handles_allocated, &item->handles_allocated, kHandleCounterBytes);
}

extern "C" int vael_handles_get_data(void) {
    vael_handles_ctl_request total, scratch;
    HandleFetch fetch = {0, 0};
    for (bool more = true; more; fetch.index++) {
        if (fetch.index == kMaxTables)
            return VAEL_ERROR;
        std::memset(&total, 0, sizeof total);
        fetch.error = 0;
        if (vael_stat_aggregate_data_from_all_instances(fetch_handles, &fetch, add_handles, nullptr, &total,
                                                        &scratch) != 0) {
            if (fetch.error == ENOENT && fetch.index == 0) {
                std::puts("No handle tables found");
                return VAEL_OK;
            }
            if (fetch.error == ENOENT) {
                std::printf("Unexpected end of table list\n");
            } else {
                std::printf("ioctl VAEL_IOCTL (VAEL_IOCTL_HANDLE_DATA) failed\n");
            }
            return VAEL_ERROR;
        }
        // A host with no instances answers nothing: there is no table to show.
        if (total.request == 0) {
            if (fetch.index == 0)
                std::puts("No handle tables found");
            return VAEL_OK;
        }
        if (fetch.index == 0)
            std::puts("\nHandles:");
        print_table(total);
        more = total.more != 0;
    }
    return VAEL_OK;
}
