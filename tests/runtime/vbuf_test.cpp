// Virtual buffers: blocks, eviction, walks, sequential reads, dumps.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "vael/vael_us_adaptor.h"
#include "vael/vael_vbuf.h"

namespace {

struct Released {
    std::vector<std::string> blocks;
};

void note_release(void *data, uint32_t len, void *ctx) {
    static_cast<Released *>(ctx)->blocks.emplace_back(static_cast<char *>(data), len);
}

// Owns the bytes of the blocks so the buffer never frees test memory.
struct Fixture {
    std::vector<std::string> store;
    Released released;
    vael_vbuf *vbuf;
    explicit Fixture(uint32_t max_size = 1u << 20) : vbuf(vael_vbuf_create(max_size, 0)) { store.reserve(64); }
    ~Fixture() { vael_vbuf_destroy(vbuf); }
    int add(const std::string &s) {
        store.push_back(s);
        return vael_vbuf_add_buffer_ex(vbuf, store.back().data(), (uint32_t)s.size(), note_release, &released);
    }
    std::string flat() {
        std::string out(vael_vbuf_size(vbuf), '\0');
        if (!out.empty())
            out.resize(vael_vbuf_defrag(vbuf, 0, (uint32_t)out.size(), out.data(), (uint32_t)out.size()));
        return out;
    }
};

TEST(Vbuf, BlocksMakeOneString) {
    Fixture f;
    ASSERT_EQ(f.add("abc"), 0);
    ASSERT_EQ(f.add("de"), 0);
    ASSERT_EQ(f.add("f"), 0);
    EXPECT_EQ(vael_vbuf_size(f.vbuf), 6u);
    EXPECT_EQ(f.flat(), "abcdef");
    for (uint32_t i = 0; i < 6; i++)
        EXPECT_EQ(vael_vbuf_get_char_at(f.vbuf, i), (uint32_t)"abcdef"[i]);
    EXPECT_EQ(vael_vbuf_get_char_at(f.vbuf, 6), 0u);
    EXPECT_TRUE(vael_vbuf_compare_to_buffer(f.vbuf, "abcdef", 6, 0));
    EXPECT_FALSE(vael_vbuf_compare_to_buffer(f.vbuf, "abcdeg", 6, 0));
    EXPECT_FALSE(vael_vbuf_compare_to_buffer(f.vbuf, "abcde", 5, 0));
}

TEST(Vbuf, LastBufferTest) {
    Fixture f;
    EXPECT_FALSE(vael_vbuf_is_in_last_buffer(f.vbuf, 0)); // empty: false
    f.add("abc");
    f.add("de");
    struct {
        uint32_t offset;
        bool last;
    } cases[] = {{0, false}, {2, false}, {3, true}, {4, true}, {5, false}, {100, false}};
    for (auto c : cases)
        EXPECT_EQ(vael_vbuf_is_in_last_buffer(f.vbuf, c.offset) != 0, c.last) << c.offset;
}

TEST(Vbuf, EvictsWholeBlocksOldestFirst) {
    Fixture f(100);
    f.add(std::string(60, 'a'));
    f.add(std::string(30, 'b'));
    // 50 more needs 40 bytes of room: only the 60-byte block goes.
    ASSERT_EQ(f.add(std::string(50, 'c')), 0);
    EXPECT_EQ(f.released.blocks.size(), 1u);
    EXPECT_EQ(f.released.blocks[0], std::string(60, 'a'));
    EXPECT_EQ(f.flat(), std::string(30, 'b') + std::string(50, 'c'));

    // A block of the maximum size evicts everything.
    ASSERT_EQ(f.add(std::string(100, 'd')), 0);
    EXPECT_EQ(vael_vbuf_size(f.vbuf), 100u);
    EXPECT_EQ(f.flat(), std::string(100, 'd'));
    EXPECT_EQ(f.released.blocks.size(), 3u);

    // Too big: refused, nothing released, buffer unchanged.
    EXPECT_EQ(f.add(std::string(101, 'e')), -1);
    EXPECT_EQ(f.released.blocks.size(), 3u);
    EXPECT_EQ(vael_vbuf_size(f.vbuf), 100u);
}

TEST(Vbuf, ResetAndDestroyReleaseInOrder) {
    Released released;
    char a[] = "one", b[] = "two";
    vael_vbuf *v = vael_vbuf_create(100, 0);
    vael_vbuf_add_buffer_ex(v, a, 3, note_release, &released);
    vael_vbuf_add_buffer_ex(v, b, 3, note_release, &released);
    vael_vbuf_reset(v);
    EXPECT_EQ(released.blocks, (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(vael_vbuf_size(v), 0u);
    vael_vbuf_add_buffer_ex(v, a, 3, note_release, &released);
    vael_vbuf_destroy(v);
    EXPECT_EQ(released.blocks.size(), 3u);
}

TEST(Vbuf, ConcatMayExceedMaximumUntilNextAdd) {
    Fixture g(10), f(10); // g's bytes must outlive f, which ends up holding them
    f.add("abcdefgh");
    g.add("ijklmn");
    vael_vbuf_concat(f.vbuf, g.vbuf);
    g.vbuf = vael_vbuf_create(1, 0); // the source header was consumed
    EXPECT_EQ(vael_vbuf_size(f.vbuf), 14u);
    EXPECT_EQ(f.flat(), "abcdefghijklmn");
    ASSERT_EQ(f.add("xy"), 0); // evicts until the sum fits
    EXPECT_EQ(f.flat(), "ijklmnxy");
}

TEST(Vbuf, IterateFromOffsets) {
    Fixture f;
    f.add("abc");
    f.add("def");
    struct {
        uint32_t offset;
        std::vector<std::string> pieces;
        uint32_t first_inner_offset;
    } cases[] = {
        {0, {"abc", "def"}, 0},
        {1, {"bc", "def"}, 1},
        {3, {"def"}, 0}, // a block boundary gives the next block whole
        {5, {"f"}, 2},
        {6, {}, 0},
    };
    for (const auto &c : cases) {
        vael_vbuf_iter it = {nullptr, 0};
        const unsigned char *data;
        uint32_t len;
        std::vector<std::string> pieces;
        uint32_t inner = 0;
        while (vael_vbuf_iterate(f.vbuf, &it, c.offset, &data, &len)) {
            if (pieces.empty())
                inner = it.offset;
            pieces.emplace_back(reinterpret_cast<const char *>(data), len);
        }
        EXPECT_EQ(pieces, c.pieces) << c.offset;
        EXPECT_EQ(inner, c.first_inner_offset) << c.offset;
    }
}

TEST(Vbuf, DefragBounds) {
    Fixture f;
    f.add("abc");
    f.add("def");
    char out[8] = {};
    EXPECT_EQ(vael_vbuf_defrag(f.vbuf, 1, 4, out, sizeof out), 4u);
    EXPECT_EQ(std::string(out, 4), "bcde");
    EXPECT_EQ(vael_vbuf_defrag(f.vbuf, 0, 6, out, 2), 2u); // dest_size wins
    EXPECT_EQ(std::string(out, 2), "ab");
    EXPECT_EQ(vael_vbuf_defrag(f.vbuf, 6, 1, out, 1), 0u);
    EXPECT_EQ(vael_vbuf_defrag(f.vbuf, 2, 100, out, sizeof out), 4u);
}

TEST(Vbuf, SequentialReads) {
    Fixture f;
    f.add("abc");
    f.add("defg");
    vael_vbuf_iter it = {nullptr, 0};
    char out[8] = {};
    int err = -1;
    vael_vbuf_iter *cur = vael_vbuf_get_next_data2(f.vbuf, &it, out, 2, &err);
    ASSERT_EQ(cur, &it);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(std::string(out, 2), "ab");
    cur = vael_vbuf_get_next_data2(f.vbuf, cur, out, 3, &err); // spans two blocks
    ASSERT_NE(cur, nullptr);
    EXPECT_EQ(std::string(out, 3), "cde");
    // Exactly the rest: null with error 0, the data all there.
    cur = vael_vbuf_get_next_data2(f.vbuf, cur, out, 2, &err);
    EXPECT_EQ(cur, nullptr);
    EXPECT_EQ(err, 0);
    EXPECT_EQ(std::string(out, 2), "fg");
    // A held null reads nothing more.
    EXPECT_EQ(vael_vbuf_get_next_data2(f.vbuf, cur, out, 1, &err), nullptr);
    EXPECT_EQ(err, 0);

    vael_vbuf_iter again = {nullptr, 0};
    EXPECT_EQ(vael_vbuf_get_next_data2(f.vbuf, &again, out, 8, &err), nullptr);
    EXPECT_EQ(err, 2); // too short

    Fixture empty;
    vael_vbuf_iter none = {nullptr, 0};
    EXPECT_EQ(vael_vbuf_get_next_data2(empty.vbuf, &none, out, 1, &err), nullptr);
    EXPECT_EQ(err, 1);
}

std::string captured;
void capture(const char *text, void *) { captured += text; }

TEST(Vbuf, DumpPrintsEscapedBytes) {
    Fixture f;
    f.add(std::string("a\x01", 2));
    f.add("b\x7f");
    captured.clear();
    tdSetSink(capture, nullptr);
    vael_vbuf_dump_ex(f.vbuf, 0, 0);
    vael_vbuf_dump_ex(f.vbuf, 1, 2);
    tdSetSink(nullptr, nullptr);
    EXPECT_EQ(captured, "a\\x1b\\x7f\n\\x1b\n");
}

TEST(Vbuf, CopyinChunkSizeBounds) {
    uint32_t saved = vael_vbuf_copyin_chunk_size;
    struct {
        uint32_t set, after;
    } cases[] = {{0, 0}, {32768, 32768}, {0x400000, 0x400000}, {32767, 0x20000}, {0x400001, 0x20000}};
    for (auto c : cases) {
        vael_vbuf_copyin_chunk_size = c.set;
        vael_vbuf_copyin_chunk_size_cb();
        EXPECT_EQ(vael_vbuf_copyin_chunk_size, c.after) << c.set;
    }
    vael_vbuf_copyin_chunk_size = saved;
    EXPECT_EQ(vael_vbuf_kernel_copyin_chunks(), 0);
}

TEST(Vbuf, AccountReturnsToStart) {
    intptr_t start = qx_kmem_get_alloc_total();
    {
        Fixture f(8);
        for (int i = 0; i < 10; i++)
            f.add("abcd");
    }
    EXPECT_EQ(qx_kmem_get_alloc_total(), start);
}

}  // namespace
