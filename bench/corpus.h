/*
 * corpus.h - the benchmark's input: a synthetic traffic corpus and the literal
 * sets scanned over it.
 *
 * Everything is generated from fixed seeds, so every run on every machine
 * sees the same bytes and no data file is ever needed. The corpus is 16 MiB of
 * HTTP-like requests and responses (headers, URLs, cookies, base64-ish blobs,
 * text, JSON and some random binary). The literal sets hold 100, 1,000 and
 * 10,000 distinct strings of 4 to 32 bytes; each smaller set is the head of
 * the larger one. Every 25th literal is planted into the corpus a modest
 * number of times; the rest occur only by chance, which most never do.
 */
#ifndef VAEL_BENCH_CORPUS_H
#define VAEL_BENCH_CORPUS_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace vael_bench {

// Small, fast and portable: the standard distributions are not bit-identical
// across library implementations, so the generators use only this.
class Prng {
public:
    explicit Prng(uint64_t seed) : state_(seed) {}

    uint64_t next() {
        // splitmix64
        uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
        return z ^ (z >> 31);
    }
    // Uniform in [0, n); the modulo bias is irrelevant at these ranges.
    uint32_t below(uint32_t n) { return n ? static_cast<uint32_t>(next() % n) : 0; }
    bool chance(uint32_t percent) { return below(100) < percent; }

private:
    uint64_t state_;
};

// Every engine scans the corpus in chunks of this size, one exec call per
// chunk, as a network engine sees one reassembled buffer at a time. A match
// that straddles two chunks is lost by every engine alike.
constexpr size_t kChunkSize = 64 * 1024;
// The stream benchmark hands each chunk over as blocks of this size, the
// payload of one Ethernet frame.
constexpr size_t kPacketSize = 1500;
constexpr size_t kCorpusSize = 16 * 1024 * 1024;

// The set sizes that are benchmarked.
constexpr int kSetSizes[] = {100, 1000, 10000};

// One literal: its bytes and the id every engine reports for it. Ids start
// at 1 and are the literal's position in the set plus one.
struct Literal {
    std::string bytes;
    int32_t id;
};

// The corpus, generated on first use.
const std::vector<unsigned char> &corpus();

// The corpus as the chunks that every engine is handed one at a time.
inline size_t chunk_count() { return (corpus().size() + kChunkSize - 1) / kChunkSize; }
inline size_t chunk_len(size_t i) { return std::min(kChunkSize, corpus().size() - i * kChunkSize); }
inline const unsigned char *chunk(size_t i) { return corpus().data() + i * kChunkSize; }

// The worst case for a scan that skips bytes where no literal can start: a
// text of only the first bytes of the set's literals, each drawn as often as
// literals open with it, so that every byte may start a match. 4 MiB, made on
// first use.
constexpr size_t kFirstBytesSize = 4 * 1024 * 1024;
const std::vector<unsigned char> &first_bytes_corpus(int count);
// Harsher still: the first four bytes of randomly drawn literals back to
// back, so a candidate starts at least every fourth byte. Same size.
const std::vector<unsigned char> &prefixes_corpus(int count);

// The first `count` literals (count at most 10,000), generated on first use.
const std::vector<Literal> &literal_set(int count);

// FNV-1a over the corpus and the largest literal set: equal on two machines
// when both generated the same input.
uint64_t input_fingerprint();

// Whether a literal (by id) was planted into the corpus.
bool literal_is_planted(int32_t id);

}  // namespace vael_bench

#endif  // VAEL_BENCH_CORPUS_H
