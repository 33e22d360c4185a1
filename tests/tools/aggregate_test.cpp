// Statistics summed over a host's instances: the adders, the loop over the
// instances, and the handle-table report over real tables.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/tools/ctl_host.h"
#include "vael/vael_apps.h"

namespace {

using vael_test::CtlHost;

// Per-instance counter blocks the get function reads; a negative result from the instance named in `failing`.
struct Blocks { std::vector<std::vector<uint32_t>> of; int failing = -1; std::vector<int> asked; };

int get_block(int instance, void *block, void *arg) {
    auto *b = static_cast<Blocks *>(arg);
    b->asked.push_back(instance);
    if (instance == b->failing)
        return -2;
    std::memcpy(block, b->of[instance].data(), b->of[instance].size() * 4);
    return 0;
}

TEST(StatAggregate, SumsOverInstancesAndStopsAtAFailure) {
    struct Row {
        int instances;
        int failing;
        bool wide;  // 64-bit counters
        int rc;
        std::vector<uint32_t> total;
        std::vector<int> asked;
    };
    // Instance i holds {i + 1, 10 * (i + 1), 0xffffffff, 0}.
    const std::vector<Row> rows = {
        {1, -1, false, 0, {1, 10, 0xffffffffu, 0}, {0}},
        {4, -1, false, 0, {10, 100, 0xfffffffcu, 0}, {0, 1, 2, 3}},
        {4, -1, true, 0, {10, 100, 0xfffffffcu, 3}, {0, 1, 2, 3}},
        {4, 2, false, -1, {3, 30, 0xfffffffeu, 0}, {0, 1, 2}},
        {4, 0, true, -1, {0x55, 0x55, 0x55, 0x55}, {0}},
        // No instance: nothing is read and the total stays.
        {0, -1, false, 0, {0x55, 0x55, 0x55, 0x55}, {}},
    };
    for (const Row &r : rows) {
        CtlHost host(r.instances);
        Blocks blocks;
        for (int i = 0; i < r.instances; i++)
            blocks.of.push_back({(uint32_t)i + 1, 10u * (i + 1), 0xffffffffu, 0});
        blocks.failing = r.failing;
        std::vector<uint32_t> total(4, 0x55), scratch(4, 0);
        uint32_t size = 16;
        const int rc = vael_stat_aggregate_data_from_all_instances(
            get_block, &blocks,
            r.wide ? vael_stat_aggregate_add_all_ints64_wrapper : vael_stat_aggregate_add_all_ints_wrapper, &size,
            total.data(), scratch.data());
        EXPECT_EQ(rc, r.rc) << r.instances << " " << r.failing;
        EXPECT_EQ(total, r.total) << r.instances << " " << r.failing << " " << r.wide;
        EXPECT_EQ(blocks.asked, r.asked);
    }
    std::vector<uint32_t> total(4), scratch(4);
    EXPECT_EQ(vael_stat_aggregate_data_from_all_instances(nullptr, nullptr, vael_stat_aggregate_add_all_ints_wrapper,
                                                          nullptr, total.data(), scratch.data()),
              -1);
    Blocks blocks;
    EXPECT_EQ(vael_stat_aggregate_data_from_all_instances(get_block, &blocks, nullptr, nullptr, total.data(),
                                                          scratch.data()),
              -1);
    EXPECT_TRUE(blocks.asked.empty());
}

// One table of the report: the counters the test host keeps give one pool per table and instance, all preallocated.
std::string table(const char *name, int allocated, int freed, int pools) {
    char text[512];
    std::snprintf(text, sizeof text,
                  "\ttable name \"%s\"\n\t%d handles, %d pools, %d maximum pool(s)\n\t%d allocated, 0 failed, %d "
                  "freed\n\t%d pool(s) allocated, 0 failed, 0 freed, 0 not preallocated\n",
                  name, allocated - freed, pools, pools, allocated, freed, pools);
    return text;
}

// Tables summed over instances, as the operator reads them.
TEST(StatAggregate, HandleTablesOfAllInstances) {
    struct Churn {
        int instance, table, added, deleted;
    };
    struct Row {
        int instances;
        std::vector<int> tables;  // per instance
        std::vector<Churn> churn;
        int failing;
        int rc;
        std::string out;
    };
    const std::vector<Row> rows = {
        {1, {0}, {}, -1, 0, "No handle tables found\n"},
        {4, {0, 0, 0, 0}, {}, -1, 0, "No handle tables found\n"},
        {1, {2}, {{0, 0, 10, 3}}, -1, 0,
         "\nHandles:\n" + table("flows", 10, 3, 1) + table("sessions", 0, 0, 1)},
        {4,
         {2, 2, 2, 2},
         {{0, 0, 10, 3}, {1, 0, 10, 0}, {2, 0, 5, 2}, {3, 0, 5, 1}, {1, 1, 3, 0}, {3, 1, 2, 0}},
         -1,
         0,
         "\nHandles:\n" + table("flows", 30, 6, 4) + table("sessions", 5, 0, 4)},
        // Instance 3 has one table fewer: the list ends under the report.
        {4, {2, 2, 2, 1}, {{0, 0, 10, 3}}, -1, -1, "\nHandles:\n" + table("flows", 10, 3, 4) + "Unexpected end of table list\n"},
        {4, {2, 2, 2, 2}, {}, 2, -1, "ioctl VAEL_IOCTL (VAEL_IOCTL_HANDLE_DATA) failed\n"},
    };
    for (const Row &r : rows) {
        CtlHost host(r.instances);
        const char *names[] = {"flows", "sessions"};
        for (int i = 0; i < r.instances; i++)
            for (int t = 0; t < r.tables[i]; t++)
                host.add_table(i, names[t]);
        for (const Churn &c : r.churn)
            host.churn(c.instance, c.table, c.added, c.deleted);
        host.fail_instance(r.failing);
        testing::internal::CaptureStdout();
        const int rc = vael_handles_get_data();
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(rc, r.rc) << r.out;
        EXPECT_EQ(out, r.out);
        if (r.rc == 0 && r.out.find("handles") != std::string::npos) {
            // The handles printed are the entries the real tables hold.
            int printed = 0;
            for (size_t at = out.find(" handles, "); at != std::string::npos; at = out.find(" handles, ", at + 1))
                printed += std::atoi(out.c_str() + out.rfind('\t', at) + 1);
            EXPECT_EQ(printed, host.live_entries());
        }
    }
}

}  // namespace
