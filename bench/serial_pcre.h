// serial_pcre.h - the peer that every set benchmark is measured against: PCRE
// running a set's expressions one after the other over the same buffer, as an
// application without a multi-pattern matcher would.
#ifndef VAEL_BENCH_SERIAL_PCRE_H
#define VAEL_BENCH_SERIAL_PCRE_H

#include <pcre.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vael_bench {

class SerialPcre {
  public:
    // Expression i reports id i + 1; one that PCRE refuses never matches.
    SerialPcre(const std::vector<std::string> &expressions, int options) {
        for (const auto &e : expressions) {
            const char *msg;
            int at;
            pcre *p = pcre_compile(e.c_str(), options | PCRE_NO_AUTO_CAPTURE, &msg, &at, nullptr);
            res_.push_back(p);
            extras_.push_back(p ? pcre_study(p, 0, &msg) : nullptr);
        }
    }
    template <class OnMatch>
    void scan(const unsigned char *buf, size_t len, OnMatch &&on_match) const {
        for (size_t i = 0; i < res_.size(); i++) {
            int ov[3];
            if (res_[i] && pcre_exec(res_[i], extras_[i], (const char *)buf, (int)len, 0, 0, ov, 3) >= 0)
                on_match((int32_t)i + 1);
        }
    }

  private:
    std::vector<pcre *> res_;
    std::vector<pcre_extra *> extras_;
};

}  // namespace vael_bench

#endif  // VAEL_BENCH_SERIAL_PCRE_H
