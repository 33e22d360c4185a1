// corpus.cpp - generation of the synthetic traffic corpus and the literal
// sets (see corpus.h).
//
// The corpus is a stream of HTTP/1.1 exchanges built from small vocabularies
// and pseudo-words, so that an automaton walks realistic partial matches
// (header names, URL pieces) rather than pure noise. The literals are a mix of
// random tokens, protocol-looking strings that share prefixes with the
// traffic, pseudo-words and binary strings. Planting overwrites corpus bytes
// at random positions after the traffic is generated.
#include "corpus.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unordered_set>

namespace vael_bench {
namespace {

constexpr uint64_t kLiteralSeed = 0x7661656c6c697431ull;
constexpr uint64_t kTrafficSeed = 0x7661656c74726166ull;
constexpr uint64_t kPlantSeed = 0x7661656c706c6e74ull;
constexpr uint64_t kLexiconSeed = 0x7661656c6c657869ull;
constexpr int kMaxLiterals = 10000;
constexpr int kPlantEvery = 25;  // 4 % of every set

template <size_t N>
std::string_view pick(Prng &rng, const std::array<std::string_view, N> &items) {
    return items[rng.below(N)];
}

// A pronounceable lowercase word of roughly `length` bytes.
std::string pseudo_word(Prng &rng, size_t length) {
    static constexpr std::string_view kConsonants = "bcdfghklmnprstvz";
    static constexpr std::string_view kVowels = "aeiou";
    std::string word;
    while (word.size() < length) {
        word += kConsonants[rng.below(kConsonants.size())];
        word += kVowels[rng.below(kVowels.size())];
        if (rng.chance(20))
            word += kConsonants[rng.below(kConsonants.size())];
    }
    word.resize(length);
    return word;
}

std::string alnum_token(Prng &rng, size_t length) {
    static constexpr std::string_view kAlnum = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    static constexpr std::string_view kPunct = "_-.";
    std::string token;
    for (size_t i = 0; i < length; ++i)
        token += rng.chance(5) ? kPunct[rng.below(kPunct.size())] : kAlnum[rng.below(kAlnum.size())];
    return token;
}

std::string hex_string(Prng &rng, size_t length) {
    static constexpr std::string_view kHex = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < length; ++i)
        s += kHex[rng.below(16)];
    return s;
}

std::string base64ish(Prng &rng, size_t length) {
    static constexpr std::string_view kB64 = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string s;
    for (size_t i = 0; i < length; ++i)
        s += kB64[rng.below(64)];
    if (rng.chance(50))
        s += rng.chance(50) ? "=" : "==";
    return s;
}

// Lengths lean short, as most signature contents do: 4..32, mean about 13.
size_t literal_length(Prng &rng) {
    size_t length = 4 + rng.below(9);
    length += rng.below(9);
    if (rng.below(4) == 0)
        length += rng.below(12);
    return length > 32 ? 32 : length;
}

std::string make_literal(Prng &rng) {
    static constexpr std::array<std::string_view, 24> kProtocolPrefixes = {
        "/cgi-bin/",    "/admin/",      "/wp-content/plugins/",
        ".php?",        "cmd=",         "?id=",
        "User-Agent: ", "Cookie: ",     "X-",
        "Host: ",       "GET /",        "POST /",
        "/api/v1/",     "session=",     "Content-Type: application/",
        "../",          "%2e%2e%2f",    "select+",
        "union+",       "/images/",     "Set-Cookie: ",
        "<script>",     "\"token\":\"", "/static/js/"};
    const uint32_t kind = rng.below(100);
    if (kind < 40)
        return alnum_token(rng, literal_length(rng));
    if (kind < 70) {
        // Shares a prefix with the traffic, so scanning walks into it often.
        std::string literal(pick(rng, kProtocolPrefixes));
        literal += alnum_token(rng, 3 + rng.below(10));
        if (literal.size() > 32)
            literal.resize(32);
        return literal;
    }
    if (kind < 85)
        return pseudo_word(rng, 6 + rng.below(15));
    std::string binary(4 + rng.below(13), '\0');
    for (char &c : binary)
        c = static_cast<char>(rng.below(256));
    return binary;
}

std::vector<Literal> make_all_literals() {
    Prng rng(kLiteralSeed);
    std::unordered_set<std::string> seen;
    std::vector<Literal> literals;
    literals.reserve(kMaxLiterals);
    while (literals.size() < static_cast<size_t>(kMaxLiterals)) {
        std::string bytes = make_literal(rng);
        if (!seen.insert(bytes).second)
            continue;
        literals.push_back({std::move(bytes), static_cast<int32_t>(literals.size() + 1)});
    }
    return literals;
}

const std::vector<Literal> &all_literals() {
    static const std::vector<Literal> literals = make_all_literals();
    return literals;
}

// Writes the synthetic HTTP traffic. No expression makes two draws from the
// generator: C++ leaves the order of evaluating operands and arguments to the
// compiler, and another compiler could then produce other bytes.
class TrafficWriter {
public:
    explicit TrafficWriter(std::vector<unsigned char> &out) : rng_(kTrafficSeed), out_(out) {
        Prng lexicon_rng(kLexiconSeed);
        for (int i = 0; i < 1500; ++i)
            lexicon_.push_back(pseudo_word(lexicon_rng, 2 + lexicon_rng.below(9)));
    }

    void exchange() {
        request();
        response();
    }

private:
    void put(std::string_view s) { out_.insert(out_.end(), s.begin(), s.end()); }
    void header(std::string_view name, std::string_view value) {
        put(name);
        put(": ");
        put(value);
        put("\r\n");
    }

    std::string word() {
        static constexpr std::array<std::string_view, 16> kCommon = {
            "the", "and", "of", "to", "in", "for", "with", "on", "is", "this", "that", "by", "from", "at", "or", "as"};
        if (rng_.chance(35))
            return std::string(pick(rng_, kCommon));
        return lexicon_[rng_.below(lexicon_.size())];
    }

    std::string sentence(size_t words) {
        std::string s = word();
        s[0] = static_cast<char>(s[0] - 'a' + 'A');
        for (size_t i = 1; i < words; ++i) {
            s += ' ';
            s += word();
        }
        return s + ". ";
    }

    std::string host() {
        static constexpr std::array<std::string_view, 8> kSub = {"www", "api",   "cdn", "static",
                                                                 "img", "login", "m",   "shop"};
        static constexpr std::array<std::string_view, 6> kTld = {".com", ".net", ".org", ".io", ".de", ".co.uk"};
        std::string h(pick(rng_, kSub));
        h += '.';
        h += lexicon_[rng_.below(200)];
        h += pick(rng_, kTld);
        return h;
    }

    std::string url_path() {
        static constexpr std::array<std::string_view, 24> kSegments = {
            "api",    "v1",         "v2",      "login",  "admin",   "images",   "static",   "js",
            "css",    "index",      "search",  "user",   "account", "cart",     "checkout", "download",
            "upload", "wp-content", "cgi-bin", "assets", "media",   "products", "news",     "blog"};
        static constexpr std::array<std::string_view, 9> kExtensions = {".html", ".php",  ".js",   ".css", ".png",
                                                                        ".jpg",  ".json", ".aspx", ""};
        static constexpr std::array<std::string_view, 10> kParams = {"id",    "q",    "page", "sort",       "session",
                                                                     "token", "lang", "ref",  "utm_source", "callback"};
        std::string path;
        const uint32_t depth = 1 + rng_.below(4);
        for (uint32_t i = 0; i < depth; ++i) {
            path += '/';
            path += rng_.chance(70) ? std::string(pick(rng_, kSegments)) : word();
        }
        path += pick(rng_, kExtensions);
        if (rng_.chance(45)) {
            const uint32_t params = 1 + rng_.below(4);
            for (uint32_t i = 0; i < params; ++i) {
                path += i ? '&' : '?';
                path += pick(rng_, kParams);
                path += '=';
                path += rng_.chance(50) ? std::to_string(rng_.below(100000)) : alnum_token(rng_, 4 + rng_.below(20));
            }
        }
        return path;
    }

    std::string cookie() {
        static constexpr std::array<std::string_view, 6> kNames = {"sid",       "PHPSESSID", "_ga",
                                                                   "csrftoken", "prefs",     "auth"};
        std::string c;
        const uint32_t count = 1 + rng_.below(4);
        for (uint32_t i = 0; i < count; ++i) {
            if (i)
                c += "; ";
            c += pick(rng_, kNames);
            c += '=';
            c += rng_.chance(50) ? base64ish(rng_, 16 + rng_.below(48)) : hex_string(rng_, 32);
        }
        return c;
    }

    std::string date() {
        static constexpr std::array<std::string_view, 7> kDays = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
        static constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
        const std::string_view day = pick(rng_, kDays);
        const uint32_t mday = 1 + rng_.below(28);
        const std::string_view month = pick(rng_, kMonths);
        const uint32_t year = 2019 + rng_.below(6);
        const uint32_t hour = rng_.below(24);
        const uint32_t minute = rng_.below(60);
        const uint32_t second = rng_.below(60);
        char buf[64];
        std::snprintf(buf, sizeof buf, "%s, %02u %s %u %02u:%02u:%02u GMT", day.data(), mday, month.data(), year, hour,
                      minute, second);
        return buf;
    }

    void request() {
        static constexpr std::array<std::string_view, 4> kAgents = {
            "Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/118.0 "
            "Safari/537.36",
            "Mozilla/5.0 (X11; Linux x86_64; rv:109.0) Gecko/20100101 Firefox/119.0", "curl/7.88.1", "okhttp/4.10.0"};
        const bool post = rng_.chance(25);
        const std::string h = host();
        put(post ? "POST " : "GET ");
        put(url_path());
        put(" HTTP/1.1\r\n");
        header("Host", h);
        header("User-Agent", pick(rng_, kAgents));
        header("Accept", rng_.chance(50) ? "text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8"
                                         : "application/json, text/plain, */*");
        header("Accept-Language", "en-US,en;q=0.9");
        header("Accept-Encoding", "gzip, deflate, br");
        if (rng_.chance(60))
            header("Referer", "https://" + h + url_path());
        if (rng_.chance(70))
            header("Cookie", cookie());
        header("Connection", "keep-alive");
        if (post) {
            std::string body;
            const uint32_t fields = 1 + rng_.below(8);
            for (uint32_t i = 0; i < fields; ++i) {
                if (i)
                    body += '&';
                body += word();
                body += '=';
                body += rng_.chance(30) ? base64ish(rng_, 8 + rng_.below(120)) : word();
            }
            header("Content-Type", "application/x-www-form-urlencoded");
            header("Content-Length", std::to_string(body.size()));
            put("\r\n");
            put(body);
        } else {
            put("\r\n");
        }
    }

    std::string html_body(size_t size) {
        std::string b = "<!DOCTYPE html><html><head><title>";
        b += sentence(3);
        b += "</title><link rel=\"stylesheet\" href=\"";
        b += url_path();
        b += "\"></head><body>\n";
        while (b.size() < size) {
            switch (rng_.below(4)) {
                case 0:
                    b += "<a href=\"";
                    b += url_path();
                    b += "\">";
                    b += word();
                    b += "</a>\n";
                    break;
                case 1:
                    b += "<div class=\"";
                    b += word();
                    b += "\">";
                    b += sentence(4 + rng_.below(12));
                    b += "</div>\n";
                    break;
                default:
                    b += "<p>";
                    b += sentence(6 + rng_.below(20));
                    b += sentence(6 + rng_.below(20));
                    b += "</p>\n";
                    break;
            }
        }
        return b + "</body></html>\n";
    }

    std::string json_body(size_t size) {
        std::string b = "{\"status\":\"ok\",\"items\":[";
        bool first = true;
        while (b.size() < size) {
            if (!first)
                b += ',';
            first = false;
            b += "{\"id\":";
            b += std::to_string(rng_.below(1000000));
            b += ",\"name\":\"";
            b += word();
            b += ' ';
            b += word();
            b += "\",\"token\":\"";
            b += alnum_token(rng_, 24);
            b += "\",\"url\":\"";
            b += url_path();
            b += "\"}";
        }
        return b + "]}";
    }

    std::string base64_body(size_t size) {
        std::string b;
        while (b.size() < size) {
            b += base64ish(rng_, 76);
            b += "\r\n";
        }
        return b;
    }

    std::string binary_body(size_t size) {
        std::string b(size, '\0');
        for (char &c : b)
            c = static_cast<char>(rng_.below(256));
        return b;
    }

    void response() {
        static constexpr std::array<std::string_view, 4> kStatus = {"200 OK", "304 Not Modified", "404 Not Found",
                                                                    "302 Found"};
        static constexpr std::array<std::string_view, 4> kServers = {"nginx/1.22.1", "Apache/2.4.57 (Debian)",
                                                                     "cloudflare", "Microsoft-IIS/10.0"};
        std::string body;
        std::string type;
        const uint32_t kind = rng_.below(100);
        if (kind < 40) {
            type = "text/html; charset=utf-8";
            body = html_body(500 + rng_.below(12000));
        } else if (kind < 70) {
            type = "application/json";
            body = json_body(100 + rng_.below(4000));
        } else if (kind < 85) {
            type = "text/plain";
            body = base64_body(1000 + rng_.below(7000));
        } else {
            type = rng_.chance(50) ? "image/png" : "application/octet-stream";
            body = binary_body(1000 + rng_.below(15000));
        }
        put("HTTP/1.1 ");
        put(rng_.chance(85) ? kStatus[0] : pick(rng_, kStatus));
        put("\r\n");
        header("Date", date());
        header("Server", pick(rng_, kServers));
        header("Content-Type", type);
        header("Content-Length", std::to_string(body.size()));
        if (rng_.chance(40))
            header("Set-Cookie", cookie() + "; Path=/; HttpOnly");
        if (rng_.chance(50))
            header("ETag", "\"" + hex_string(rng_, 16) + "\"");
        header("Cache-Control", rng_.chance(50) ? "max-age=3600" : "no-cache, no-store");
        put("\r\n");
        put(body);
    }

    Prng rng_;
    std::vector<unsigned char> &out_;
    std::vector<std::string> lexicon_;
};

std::vector<unsigned char> make_corpus() {
    std::vector<unsigned char> data;
    data.reserve(kCorpusSize + 64 * 1024);
    TrafficWriter writer(data);
    while (data.size() < kCorpusSize)
        writer.exchange();
    data.resize(kCorpusSize);

    // Planting: a modest number of copies of every 25th literal.
    Prng rng(kPlantSeed);
    for (const Literal &literal : all_literals()) {
        if (!literal_is_planted(literal.id))
            continue;
        const uint32_t copies = 8 + rng.below(120);
        for (uint32_t i = 0; i < copies; ++i) {
            const size_t at = rng.below(static_cast<uint32_t>(kCorpusSize - literal.bytes.size()));
            std::memcpy(data.data() + at, literal.bytes.data(), literal.bytes.size());
        }
    }
    return data;
}

}  // namespace

bool literal_is_planted(int32_t id) {
    return (id - 1) % kPlantEvery == 7;
}

uint64_t input_fingerprint() {
    uint64_t hash = 0xcbf29ce484222325ull;
    auto mix = [&hash](const unsigned char *bytes, size_t len) {
        for (size_t i = 0; i < len; ++i)
            hash = (hash ^ bytes[i]) * 0x100000001b3ull;
    };
    mix(corpus().data(), corpus().size());
    for (const Literal &literal : all_literals())
        mix(reinterpret_cast<const unsigned char *>(literal.bytes.data()), literal.bytes.size());
    return hash;
}

const std::vector<unsigned char> &corpus() {
    static const std::vector<unsigned char> data = make_corpus();
    return data;
}

namespace {

// Per set size, a text of kFirstBytesSize bytes made by appending
// piece(literal) of randomly drawn literals.
template <typename Piece>
const std::vector<unsigned char> &literal_text(std::array<std::vector<unsigned char>, std::size(kSetSizes)> &texts,
                                               int count, uint64_t seed, Piece &&piece) {
    for (size_t i = 0; i < texts.size(); ++i) {
        if (kSetSizes[i] != count)
            continue;
        if (texts[i].empty()) {
            const std::vector<Literal> &literals = literal_set(count);
            Prng rng(seed + static_cast<uint64_t>(count));
            while (texts[i].size() < kFirstBytesSize) {
                const std::string_view bytes = piece(literals[rng.below(static_cast<uint32_t>(literals.size()))]);
                texts[i].insert(texts[i].end(), bytes.begin(), bytes.end());
            }
            texts[i].resize(kFirstBytesSize);
        }
        return texts[i];
    }
    std::fprintf(stderr, "vael-bench: no literal set of size %d\n", count);
    std::abort();
}

}  // namespace

const std::vector<unsigned char> &first_bytes_corpus(int count) {
    static std::array<std::vector<unsigned char>, std::size(kSetSizes)> texts;
    return literal_text(texts, count, 0xf1257b7e5ull,
                        [](const Literal &literal) { return std::string_view(literal.bytes).substr(0, 1); });
}

const std::vector<unsigned char> &prefixes_corpus(int count) {
    static std::array<std::vector<unsigned char>, std::size(kSetSizes)> texts;
    return literal_text(texts, count, 0x9ef1c35ull,
                        [](const Literal &literal) { return std::string_view(literal.bytes).substr(0, 4); });
}


const std::vector<Literal> &literal_set(int count) {
    static std::array<std::vector<Literal>, 3> sets;
    for (size_t i = 0; i < sets.size(); ++i) {
        if (kSetSizes[i] != count)
            continue;
        if (sets[i].empty())
            sets[i].assign(all_literals().begin(), all_literals().begin() + count);
        return sets[i];
    }
    std::fprintf(stderr, "vael-bench: no literal set of size %d\n", count);
    std::abort();
}

}  // namespace vael_bench
