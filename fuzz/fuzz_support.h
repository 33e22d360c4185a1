// fuzz_support.h - what every fuzz target shares: the library started once,
// a reader of the input's bytes, and the check that ends a run with a report.
//
// A target is one file that defines LLVMFuzzerTestOneInput; it is built twice
// (fuzz/CMakeLists.txt): under libFuzzer with clang, and with any compiler
// against replay_main.cpp, which feeds it the files of its checked-in corpus.
// A target reports a fault by FUZZ_CHECK, which prints and aborts, so that
// both builds stop on it.
#ifndef VAEL_FUZZ_SUPPORT_H
#define VAEL_FUZZ_SUPPORT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "pm/vael_pm_internal.h"
#include "vael/vael_apps.h"
#include "vael/vael_us_adaptor.h"

namespace vael_fuzz {

// Starts the library at the first input and keeps it started; debug output
// stays off, so that a run prints only what a fault has to say.
inline void start_library_once() {
    static const bool started = [] {
        if (vael_apps_init(nullptr) != 0) {
            std::fprintf(stderr, "fuzz: vael_apps_init failed\n");
            std::abort();
        }
        // Refusals of bad input are the expected road here; their notes
        // would bury a fault's report.
        vael_us_adaptor_set_debug_flags("error warning", "NONE", "K_");
        return true;
    }();
    (void)started;
}

// Takes the input apart from the front: small numbers, then byte strings.
class Reader {
  public:
    Reader(const uint8_t *data, size_t size) : p_(data), end_(data + size) {}
    bool empty() const { return p_ == end_; }
    size_t left() const { return (size_t)(end_ - p_); }
    uint8_t byte() { return p_ < end_ ? *p_++ : 0; }
    // Consumes the next byte when it is `b`.
    bool take(uint8_t b) {
        if (p_ == end_ || *p_ != b)
            return false;
        p_++;
        return true;
    }
    // Bytes up to the next `sep` (dropped) or the end.
    std::string until(uint8_t sep) {
        const uint8_t *start = p_;
        while (p_ < end_ && *p_ != sep)
            p_++;
        std::string s(reinterpret_cast<const char *>(start), (size_t)(p_ - start));
        if (p_ < end_)
            p_++;
        return s;
    }
    std::string rest() {
        std::string s(reinterpret_cast<const char *>(p_), left());
        p_ = end_;
        return s;
    }

  private:
    const uint8_t *p_;
    const uint8_t *end_;
};

}  // namespace vael_fuzz

#define FUZZ_CHECK(cond, ...)                                                           \
    do {                                                                                \
        if (!(cond)) {                                                                  \
            std::fprintf(stderr, "fuzz check failed at %s:%d: %s: ", __FILE__, __LINE__, #cond); \
            std::fprintf(stderr, __VA_ARGS__);                                          \
            std::fprintf(stderr, "\n");                                                 \
            std::abort();                                                               \
        }                                                                               \
    } while (0)

namespace vael_fuzz {

// The input after its first byte, in a block of exactly its size, so that a
// read past it is ASan's to catch.
struct Tail {
    Tail(const uint8_t *data, size_t size) : n((uint32_t)(size - 1)), bytes(new unsigned char[n ? n : 1]) {
        std::memcpy(bytes.get(), data + 1, n);
    }
    uint32_t n;
    std::unique_ptr<unsigned char[]> bytes;
};

// Both byte accounts when made; check() aborts unless they are back there.
// Match queues keep their cells for the next run, whichever run first needed
// them: those go back before the count.
struct Accounts {
    intptr_t kmem = qx_kmem_get_alloc_total(), pm = vael_pmglob_memory_get_alloc_total();
    void check() const {
        lst_pool_drain(&vael_pmglob_match_data_lst_elems_pool);
        FUZZ_CHECK(qx_kmem_get_alloc_total() == kmem, "general account off by %ld",
                   (long)(qx_kmem_get_alloc_total() - kmem));
        FUZZ_CHECK(vael_pmglob_memory_get_alloc_total() == pm, "PM account off by %ld",
                   (long)(vael_pmglob_memory_get_alloc_total() - pm));
    }
};

// An image target's input is one mode byte and the image. An odd mode hands
// the image over as a stream would: a vbuf of blocks of 1 + mode / 2 bytes.
inline vael_vbuf *image_in_blocks(uint8_t mode, unsigned char *image, uint32_t n) {
    vael_vbuf *vbuf = vael_vbuf_create(UINT32_MAX, 0);
    const uint32_t block = 1 + (mode >> 1);
    for (uint32_t at = 0; at < n; at += block)
        vael_vbuf_add_buffer_ex(vbuf, image + at, std::min(block, n - at), nullptr, nullptr);
    return vbuf;
}

// Loads an engine's image, flat or in blocks as the mode byte asks, and checks
// that the loader kept inside it.
template <class Handle>
Handle *load_engine_image(uint8_t mode, unsigned char *image, uint32_t n,
                          Handle *(*load)(const unsigned char **, uint32_t *, vael_vbuf *, vael_vbuf_iter *)) {
    uint32_t space = n;
    Handle *h = nullptr;
    if (mode & 1) {
        vael_vbuf *vbuf = image_in_blocks(mode, image, n);
        vael_vbuf_iter iter{};
        h = n ? load(nullptr, &space, vbuf, &iter) : nullptr;
        vael_vbuf_destroy(vbuf);
    } else {
        const unsigned char *p = image;
        h = load(&p, &space, nullptr, nullptr);
        FUZZ_CHECK(p <= image + n, "read past the image");
    }
    FUZZ_CHECK(space <= n, "space grew");
    return h;
}

// Writes a handle's image and loads it again: the loaded handle's image must
// be the first, byte for byte, and on_loaded may check the loaded handle
// further. Gives the image.
template <class Handle, class Size, class Write, class Load, class Destroy, class OnLoaded>
std::vector<unsigned char> check_round_trip(Handle *h, Size size_of, Write write, Load load, Destroy destroy,
                                            OnLoaded on_loaded) {
    auto image_of = [&](Handle *x) {
        std::vector<unsigned char> image(size_of(x));
        unsigned char *p = image.data();
        uint32_t space = (uint32_t)image.size();
        FUZZ_CHECK(!image.empty() && write(x, &p, &space) == 0 && space == 0, "the image does not fill its size");
        return image;
    };
    std::vector<unsigned char> image = image_of(h);
    const unsigned char *p = image.data();
    uint32_t left = (uint32_t)image.size();
    Handle *back = load(&p, &left, nullptr, nullptr);
    FUZZ_CHECK(back != nullptr && left == 0, "the image does not load");
    FUZZ_CHECK(image_of(back) == image, "a round trip changed the image");
    on_loaded(back);
    destroy(back);
    return image;
}

template <class Handle, class Size, class Write, class Load, class Destroy>
void check_round_trip(Handle *h, Size size_of, Write write, Load load, Destroy destroy) {
    check_round_trip(h, size_of, write, load, destroy, [](Handle *) {});
}

}  // namespace vael_fuzz

#endif  // VAEL_FUZZ_SUPPORT_H
