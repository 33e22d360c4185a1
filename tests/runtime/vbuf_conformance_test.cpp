// Virtual buffers given illegal arguments: the assertion, then the operation goes on where it stays defined without
// the argument, and fails where it would have to follow a null pointer.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/vael_test_support.h"
#include "vael/vael_vbuf.h"

namespace {

using vael_test::LogCapture;
using vael_test::ScopedGlobal;

struct Freed { int calls = 0; uint32_t bytes = 0; };

void count_free(void *, uint32_t len, void *ctx) {
    auto *f = static_cast<Freed *>(ctx);
    f->calls++;
    f->bytes += len;
}

TEST(VbufConformance, IllegalArgumentsAssertAndGoOnWhereDefined) {
    ScopedGlobal assert_on(qx_assert_on, 1);
    char a[] = "abc", b[] = "de", dest[8] = {};
    Freed freed;
    vael_vbuf *vbuf = vael_vbuf_create(100, 0);
    ASSERT_NE(vbuf, nullptr);
    ASSERT_EQ(vael_vbuf_add_buffer_ex(vbuf, a, 3, count_free, &freed), 0);

    struct Row {
        const char *call;
        int want_rc;        // what the call gives
        bool want_assert;   // the "Illegal arguments" assertion was raised
    };
    auto run = [&](const Row &row, auto &&call) {
        SCOPED_TRACE(row.call);
        LogCapture log;
        EXPECT_EQ(call(), row.want_rc);
        EXPECT_EQ(log.contains("Illegal arguments"), row.want_assert) << log.text();
    };
    // An empty block is added (with or without data) and handed back at the
    // end like any other; bytes that cannot be read are refused.
    run({"add empty block", 0, true}, [&] { return vael_vbuf_add_buffer_ex(vbuf, b, 0, count_free, &freed); });
    run({"add empty null block", 0, true},
        [&] { return vael_vbuf_add_buffer_ex(vbuf, nullptr, 0, count_free, &freed); });
    run({"add unreadable block", -1, true},
        [&] { return vael_vbuf_add_buffer_ex(vbuf, nullptr, 2, count_free, &freed); });
    run({"add to no buffer", -1, true}, [&] { return vael_vbuf_add_buffer_ex(nullptr, b, 2, nullptr, nullptr); });
    run({"add after empty blocks", 0, false}, [&] { return vael_vbuf_add_buffer_ex(vbuf, b, 2, count_free, &freed); });
    EXPECT_EQ(vael_vbuf_size(vbuf), 5u);

    // A copy of nothing goes on and copies nothing; a copy into nowhere fails.
    run({"defrag of nothing into nowhere", 0, true}, [&] { return (int)vael_vbuf_defrag(vbuf, 0, 0, nullptr, 0); });
    run({"defrag into nowhere", 0, true}, [&] { return (int)vael_vbuf_defrag(vbuf, 0, 5, nullptr, 5); });
    run({"defrag across empty blocks", 5, false}, [&] { return (int)vael_vbuf_defrag(vbuf, 0, 5, dest, 8); });
    EXPECT_EQ(std::string(dest, 5), "abcde");

    // A sequential read of nothing moves to the first block and reads on
    // from there; a read into nowhere fails with error 1.
    vael_vbuf_iter iter = {nullptr, 0};
    int err = -1;
    run({"read nothing", 1, true}, [&] { return vael_vbuf_get_next_data2(vbuf, &iter, dest, 0, &err) == &iter; });
    EXPECT_EQ(err, 0);
    run({"read into nowhere", 1, true},
        [&] { return vael_vbuf_get_next_data2(vbuf, &iter, nullptr, 2, &err) == nullptr && err == 1; });
    run({"read on over empty blocks", 1, false}, [&] {
        return vael_vbuf_get_next_data2(vbuf, &iter, dest, 5, &err) == nullptr && err == 0;
    });
    EXPECT_EQ(std::string(dest, 5), "abcde");

    vael_vbuf_destroy(vbuf);
    EXPECT_EQ(freed.calls, 4);
    EXPECT_EQ(freed.bytes, 5u);
}

}  // namespace
