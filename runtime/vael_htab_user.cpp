// vael_htab_user.cpp - the user side of reading a handle table that lives in
// another address space (the kernel module's), over the control channel that
// the host handed to vael_apps_init.
//
// One request, command VAEL_HTAB_CTL_COMMAND with a vael_htab_ctl_table
// block, answers the summary (capacity 0) or fills the caller's array of
// vael_htab_ctl_entry. This file sends the requests and prints the answer;
// the answering side is the host's.

#include <cstdio>
#include <cstring>

#include "runtime/vael_runtime.h"
#include "vael/vael_apps.h"

namespace {

constexpr const char kTopic[] = "K_HTAB";
constexpr int kAllInstances = -2;
constexpr int kDefaultInstance = -1;
// The table may grow between the summary and the entries.
constexpr uint32_t kSlack = 100;

// The words of the table flags, in the order they are listed.
struct Attribute {
    uint32_t flag;
    const char *word;
};
constexpr Attribute kAttributes[] = {
    {VAEL_HTAB_EXPIRE, "expire"},
    {VAEL_HTAB_EXPIRE_GRADUAL, "expire gradual"},
    {VAEL_HTAB_REFRESH, "refresh"},
    {VAEL_HTAB_NO_UPDATE, "no update"},
};

static_assert(sizeof(vael_htab_ctl_table) == 132, "the request block is a wire format");
static_assert(sizeof(vael_htab_ctl_entry) == 208, "a returned entry is a wire format");

bool name_fits(const char *func, const char *name) {
    if (strnlen(name, VAEL_HTAB_NAME_SIZE) < VAEL_HTAB_NAME_SIZE)
        return true;
    VAEL_LOG_AS(func, VAEL_DBG_ERR, kTopic, "%s: table name %s too long\n", name);
    return false;
}

// One request; 0 when the host answered it.
int send(vael_htab_ctl_table *block, int instance) {
    vael_ctl_record record;
    std::memset(&record, 0, sizeof record);
    record.command = VAEL_HTAB_CTL_COMMAND;
    record.data = block;
    record.data_len = sizeof *block;
    if (!vael_ioctl_func_multik || !vael_get_ioctl_num)
        return VAEL_ERROR;
    return vael_ioctl_func_multik(vael_get_ioctl_num(), &record, instance) == 0 ? VAEL_OK : VAEL_ERROR;
}

// A zeroed block that names the table; null when out of memory.
vael_htab_ctl_table *new_block(const char *func, const char *name) {
    auto *block = static_cast<vael_htab_ctl_table *>(VAEL_KMALLOC(sizeof(vael_htab_ctl_table)));
    if (!block) {
        VAEL_LOG_AS(func, VAEL_DBG_ERR, kTopic, "%s: Failed to allocate %s ioctl data", name);
        return nullptr;
    }
    std::memset(block, 0, sizeof *block);
    std::memcpy(block->name, name, std::strlen(name) + 1);
    return block;
}

void free_block(vael_htab_ctl_table *block) { VAEL_KFREE(block, sizeof *block); }

bool refuse_all_instances(const char *func, const char *name, int instance) {
    if (instance != kAllInstances)
        return false;
    VAEL_LOG_AS(func, VAEL_DBG_ERR, kTopic, "%s: Failed to get table %s - \"all instances\" not supported", name);
    return true;
}

void set_entries_address(vael_htab_ctl_table *block, const vael_htab_ctl_entry *entries) {
    uint64_t address = (uint64_t)(uintptr_t)entries;
    block->entries[0] = (uint32_t)address;
    block->entries[1] = (uint32_t)(address >> 32);
}

int fill_attributes(const char *func, vael_htab_user_table_data *data, uint32_t flags) {
    int expected = 0;
    for (const Attribute &a : kAttributes)
        expected += (flags & a.flag) != 0;
    data->nattrs = 0;
    data->attrs = nullptr;
    if (expected == 0)
        return VAEL_OK;
    auto **attrs = static_cast<const char **>(VAEL_KMALLOC(expected * sizeof(const char *)));
    if (!attrs) {
        VAEL_LOG_AS(func, VAEL_DBG_ERR, kTopic, "%s: Failed to fill table %s attributes", data->name);
        return VAEL_ERROR;
    }
    int got = 0;
    for (const Attribute &a : kAttributes)
        if ((flags & a.flag) && got < expected)
            attrs[got++] = a.word;
    if (got != expected) {
        if (vael_us_adaptor_printable(VAEL_DBG_ERR, kTopic))
            vael_us_adaptor_kdprintf("attribute count mismatch: expected %d got %d\n", expected, got);
        VAEL_KFREE(attrs, expected * sizeof(const char *));
        return VAEL_ERROR;
    }
    data->attrs = attrs;
    data->nattrs = expected;
    return VAEL_OK;
}

} // namespace

extern "C" int vael_htab_user_get_table_summary_multik(const char *name, int *id_out, int *nents_out,
                                                       int instance) {
    if (!name || !id_out || !nents_out || !name_fits(__func__, name) ||
        refuse_all_instances(__func__, name, instance))
        return VAEL_ERROR;
    vael_htab_ctl_table *block = new_block(__func__, name);
    if (!block)
        return VAEL_ERROR;
    int rc = send(block, instance);
    if (rc == VAEL_OK) {
        *id_out = (int)block->id;
        *nents_out = (int)block->nents;
    } else {
        VAEL_LOG(VAEL_DBG_ERR, kTopic, "%s: Failed to get table %s summary", name);
    }
    free_block(block);
    return rc;
}

extern "C" int vael_htab_user_get_table_summary(const char *name, int *id_out, int *nents_out) {
    return vael_htab_user_get_table_summary_multik(name, id_out, nents_out, kDefaultInstance);
}

extern "C" void vael_htab_user_free_table_data(vael_htab_user_table_data *data) {
    if (!data)
        return;
    if (data->entries)
        VAEL_KFREE(data->entries, (size_t)data->capacity * sizeof(vael_htab_ctl_entry));
    if (data->attrs)
        VAEL_KFREE(data->attrs, (size_t)data->nattrs * sizeof(const char *));
    data->entries = nullptr;
    data->attrs = nullptr;
    data->capacity = 0;
    data->returned = 0;
    data->nattrs = 0;
}

extern "C" int vael_htab_user_get_table_data(const char *name, vael_htab_user_table_data *data, int summary_only,
                                             int max_entries, int instance) {
    if (!name || !data || !name_fits(__func__, name) || refuse_all_instances(__func__, name, instance))
        return VAEL_ERROR;
    std::memset(data, 0, sizeof *data);
    std::memcpy(data->name, name, std::strlen(name) + 1);
    vael_htab_ctl_table *block = new_block(__func__, name);
    if (!block)
        return VAEL_ERROR;
    auto fail = [&](vael_htab_ctl_entry *entries, size_t bytes) {
        if (entries)
            VAEL_KFREE(entries, bytes);
        free_block(block);
        vael_htab_user_free_table_data(data);
        return VAEL_ERROR;
    };
    if (send(block, instance) != 0) {
        VAEL_LOG(VAEL_DBG_ERR, kTopic, "%s: Failed to get table %s summary", name);
        return fail(nullptr, 0);
    }
    VAEL_LOG(VAEL_DBG_NOTICE, kTopic, "%s: got table %s summary: nelems=%d", name, (int)block->nents);
    data->id = (int32_t)block->id;
    data->size = block->size;
    data->nents = block->nents;
    data->expire = (block->flags & VAEL_HTAB_EXPIRE) != 0;
    const uint32_t flags = block->flags;

    if (!summary_only && block->nents > 0) {
        uint32_t capacity = block->nents + kSlack;
        if (max_entries >= 1 && (uint32_t)max_entries < capacity)
            capacity = (uint32_t)max_entries;
        const size_t bytes = (size_t)capacity * sizeof(vael_htab_ctl_entry);
        auto *entries = static_cast<vael_htab_ctl_entry *>(VAEL_KMALLOC(bytes));
        if (!entries) {
            VAEL_LOG(VAEL_DBG_ERR, kTopic, "%s: Failed to allocate %d elements for table %s", (int)capacity, name);
            return fail(nullptr, 0);
        }
        std::memset(entries, 0, bytes);
        block->capacity = capacity;
        block->returned = 0;
        set_entries_address(block, entries);
        if (send(block, instance) != 0) {
            VAEL_LOG(VAEL_DBG_ERR, kTopic, "%s: Failed to get table %s entires", name);
            return fail(entries, bytes);
        }
        data->entries = entries;
        data->capacity = capacity;
        data->returned = block->returned < capacity ? block->returned : capacity;
        data->nents = block->nents;
    }
    free_block(block);
    if (fill_attributes(__func__, data, flags) != 0) {
        vael_htab_user_free_table_data(data);
        return VAEL_ERROR;
    }
    return VAEL_OK;
}

extern "C" int vael_htab_user_print_table(const char *name, int max_entries, int summary_only) {
    vael_htab_user_table_data data;
    if (vael_htab_user_get_table_data(name, &data, summary_only, max_entries, kDefaultInstance) != 0)
        return VAEL_ERROR;
    std::printf("-------- %s --------\n", data.name);
    std::printf("htab, ");
    std::printf("id %d, ", data.id);
    std::printf("size %u, ", data.size);
    std::printf("attributes: ");
    for (int i = 0; i < data.nattrs; i++)
        std::printf("%s, ", data.attrs[i]);
    std::printf("#vals %u\n", data.nents);
    for (uint32_t i = 0; i < data.returned; i++) {
        const vael_htab_ctl_entry &e = data.entries[i];
        // The host's words are taken only as far as the record holds them.
        const uint32_t nkeys = e.nkeys < VAEL_HTAB_CTL_KEY_WORDS ? e.nkeys : VAEL_HTAB_CTL_KEY_WORDS;
        const uint32_t nvals = e.nvals < VAEL_HTAB_CTL_VAL_WORDS ? e.nvals : VAEL_HTAB_CTL_VAL_WORDS;
        const bool brackets = nkeys + nvals > 1;
        if (brackets)
            std::printf("<");
        for (uint32_t k = 0; k < nkeys; k++)
            std::printf(k ? ", %08x" : "%08x", e.key[k]);
        for (uint32_t v = 0; v < nvals; v++)
            std::printf("%c %08x", v ? ',' : ';', e.vals[v]);
        if (e.timeout != 0)
            std::printf("; %d/%d", (int)e.remaining, (int)e.timeout);
        if (brackets)
            std::printf(">");
        std::printf("\n");
    }
    if (data.returned < data.nents)
        std::printf("...(%d More)\n", (int)(data.nents - data.returned));
    vael_htab_user_free_table_data(&data);
    return VAEL_OK;
}
