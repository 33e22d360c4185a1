// Virtual buffers held against a model (a deque of blocks under a maximum size): random adds, then every read the
// buffer offers at every offset. Given illegal arguments: the assertion, then the operation goes on where it stays
// defined without the argument, and fails where it would have to follow a null pointer.
#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <string>
#include <vector>

#include "tests/support/vael_test_support.h"
#include "vael/vael_us_adaptor.h"
#include "vael/vael_vbuf.h"

namespace {

void note_release(void *data, uint32_t len, void *ctx) {
    static_cast<std::vector<std::string> *>(ctx)->emplace_back(static_cast<char *>(data), len);
}

// Every read of `v` against the blocks it should hold.
void expect_reads(vael_vbuf *v, const std::deque<std::string> &blocks, std::mt19937 &rng) {
    vael_test::LogCapture quiet;  // reads at the end assert, by design
    std::string flat;
    for (const auto &b : blocks)
        flat += b;
    const auto size = (uint32_t)flat.size();
    ASSERT_EQ(vael_vbuf_size(v), size);
    const uint32_t last_start = blocks.empty() ? 0 : size - (uint32_t)blocks.back().size();
    for (uint32_t off = 0; off <= size; off++) {
        SCOPED_TRACE(off);
        ASSERT_EQ(vael_vbuf_get_char_at(v, off), off < size ? (unsigned char)flat[off] : 0u);
        ASSERT_EQ(vael_vbuf_is_in_last_buffer(v, off) != 0, off < size && off >= last_start);
        // A walk from `off`: the rest of its block, then whole blocks.
        std::string walked;
        vael_vbuf_iter it = {nullptr, 0};
        const unsigned char *data;
        uint32_t len;
        for (int piece = 0; vael_vbuf_iterate(v, &it, off, &data, &len); piece++) {
            uint32_t start = 0, b = 0;
            for (; piece == 0 && start + blocks[b].size() <= off; b++)
                start += (uint32_t)blocks[b].size();
            if (piece == 0) {
                ASSERT_EQ(it.offset, off - start);
            }
            walked.append(reinterpret_cast<const char *>(data), len);
        }
        ASSERT_EQ(walked, flat.substr(std::min(off, size)));
        const uint32_t want = rng() % 12, room = rng() % 12;
        char out[16];
        const uint32_t n = vael_vbuf_defrag(v, off, want, out, room);
        ASSERT_EQ(std::string(out, n), off < size ? flat.substr(off, std::min(want, room)) : "");
    }
    // Sequential reads in random chunks: the last one ends the walk with a
    // null and error 0 when it is exact, error 2 when it is short.
    vael_vbuf_iter it = {nullptr, 0};
    vael_vbuf_iter *cur = &it;
    int err = -1;
    char out[16];
    for (uint32_t pos = 0; cur;) {
        const uint32_t n = 1 + rng() % 8;
        cur = vael_vbuf_get_next_data2(v, cur, out, n, &err);
        if (size == 0) {
            ASSERT_EQ(err, 1);
            break;
        }
        ASSERT_EQ(err, pos + n <= size ? 0 : 2) << pos << "+" << n;
        ASSERT_EQ(cur != nullptr, pos + n < size);
        if (pos + n <= size) {
            ASSERT_EQ(std::string(out, n), flat.substr(pos, n));
        }
        pos += n;
    }
    EXPECT_EQ(vael_vbuf_compare_to_buffer(v, flat.data(), size, 0), 1);
    if (size) {
        flat[size / 2] ^= 1;
        EXPECT_EQ(vael_vbuf_compare_to_buffer(v, flat.data(), size, 0), 0);
        EXPECT_EQ(vael_vbuf_compare_to_buffer(v, flat.data(), size - 1, 0), 0);
    }
}

TEST(Vbuf, RandomBlocksAgreeWithAModel) {
    const intptr_t start = qx_kmem_get_alloc_total();
    for (uint32_t seed = 1; seed <= 30; seed++) {
        SCOPED_TRACE(seed);
        std::mt19937 rng(seed);
        const uint32_t max = 1 + rng() % 40;
        std::deque<std::string> store, blocks;  // store keeps every block's bytes alive
        std::vector<std::string> released, want_released;
        vael_vbuf *v = vael_vbuf_create(max, 0);
        for (int step = 0; step < 12; step++) {
            std::string s;
            for (uint32_t n = 1 + rng() % (max + 3); n > 0; n--)
                s += (char)('a' + rng() % 26);
            store.push_back(s);
            const int rc = vael_vbuf_add_buffer_ex(v, store.back().data(), (uint32_t)s.size(), note_release, &released);
            if (s.size() > max) {
                ASSERT_EQ(rc, -1) << "a block above the maximum is refused";
            } else {
                ASSERT_EQ(rc, 0);
                size_t total = s.size();
                for (const auto &b : blocks)
                    total += b.size();
                while (total > max) {  // whole blocks, oldest first, as few as make room
                    total -= blocks.front().size();
                    want_released.push_back(blocks.front());
                    blocks.pop_front();
                }
                blocks.push_back(s);
            }
            ASSERT_EQ(released, want_released);
            expect_reads(v, blocks, rng);
        }
        vael_vbuf_destroy(v);
        want_released.insert(want_released.end(), blocks.begin(), blocks.end());
        EXPECT_EQ(released, want_released) << "destroy releases what is left, in order";
    }
    EXPECT_EQ(qx_kmem_get_alloc_total(), start);
}

TEST(Vbuf, ConcatMayExceedTheMaximumUntilTheNextAdd) {
    std::string a = "abcdefgh", b = "ijklmn", c = "xy";
    vael_vbuf *f = vael_vbuf_create(10, 0), *g = vael_vbuf_create(10, 0);
    vael_vbuf_add_buffer_ex(f, a.data(), 8, nullptr, nullptr);
    vael_vbuf_add_buffer_ex(g, b.data(), 6, nullptr, nullptr);
    vael_vbuf_concat(f, g);  // consumes g
    std::mt19937 rng(1);
    expect_reads(f, {a, b}, rng);
    ASSERT_EQ(vael_vbuf_add_buffer_ex(f, c.data(), 2, nullptr, nullptr), 0);
    expect_reads(f, {b, c}, rng);
    vael_vbuf_reset(f);
    expect_reads(f, {}, rng);
    vael_vbuf_destroy(f);
}

// The copy-in chunk tunable is held to its bounds.
TEST(Vbuf, CopyinChunkBounds) {
    const uint32_t saved = vael_vbuf_copyin_chunk_size;
    const uint32_t cases[][2] = {{0, 0}, {32768, 32768}, {0x400000, 0x400000}, {32767, 0x20000}, {0x400001, 0x20000}};
    for (auto [set, after] : cases) {
        vael_vbuf_copyin_chunk_size = set;
        vael_vbuf_copyin_chunk_size_cb();
        EXPECT_EQ(vael_vbuf_copyin_chunk_size, after) << set;
    }
    vael_vbuf_copyin_chunk_size = saved;
}

TEST(VbufConformance, IllegalArgumentsAssertAndGoOnWhereDefined) {
    vael_test::ScopedGlobal assert_on(qx_assert_on, 1);
    char a[] = "abc", b[] = "de", dest[8] = {};
    std::vector<std::string> released;
    vael_vbuf *vbuf = vael_vbuf_create(100, 0);
    ASSERT_NE(vbuf, nullptr);
    auto add = [&](char *data, uint32_t n) { return vael_vbuf_add_buffer_ex(vbuf, data, n, note_release, &released); };
    ASSERT_EQ(add(a, 3), 0);

    struct Row { const char *call; int want_rc; bool want_assert; };  // assert: "Illegal arguments" was raised
    auto run = [&](const Row &row, auto &&call) {
        SCOPED_TRACE(row.call);
        vael_test::LogCapture log;
        EXPECT_EQ(call(), row.want_rc);
        EXPECT_EQ(log.contains("Illegal arguments"), row.want_assert) << log.text();
    };
    // An empty block is added (with or without data) and handed back at the
    // end like any other; bytes that cannot be read are refused.
    run({"add empty block", 0, true}, [&] { return add(b, 0); });
    run({"add empty null block", 0, true}, [&] { return add(nullptr, 0); });
    run({"add unreadable block", -1, true}, [&] { return add(nullptr, 2); });
    run({"add to no buffer", -1, true}, [&] { return vael_vbuf_add_buffer_ex(nullptr, b, 2, nullptr, nullptr); });
    run({"add after empty blocks", 0, false}, [&] { return add(b, 2); });
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
    EXPECT_EQ(released, (std::vector<std::string>{"abc", "", "", "de"}));
}

}  // namespace
