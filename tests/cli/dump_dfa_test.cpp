// vael-scan --dump-dfa as a user runs it: a pattern file, an id and a format
// in; the machine's dump, or a message and status 2, out.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "scan_runner.h"

namespace {

TEST(DumpDfa, AUserDumpsTheMachineOfOneReLine) {
    auto times = [](int n, const std::string &piece) { std::string s; while (n-- > 0) s += piece; return s; };
    const struct {
        std::string args;
        int status;
        std::string out;  // the standard output's start
        std::string err;  // a part of the standard error
    } rows[] = {
        {"--rem --dump-dfa 1 csv", 0,
         "The dfa has 3 states.\nstate_id,level,is_final,a,b,c,d,e,f,g,h,i,j,k,l,m,n,o,p,q,r,s,t,u,v,w,x,y,z\n1,0,0,2" +
             times(25, ",1") + "\n2,1,0,2,0" + times(24, ",1") + "\n0,2,1" + times(26, ",0") + "\n", ""},
        {"--dump-dfa=1 jflap", 0, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!--Created with JFLAP 6.0.--> <structure>", ""},
        {"--dump-dfa 2 csv", 2, "", "--dump-dfa: no re line with id 2"},
        {"--dump-dfa 4 csv", 2, "", "p.txt:4: the REM machine refuses pattern 4: Illegal sequence beginning with '{'"},
        {"--dump-dfa 1", 2, "", "option '--dump-dfa' takes an id and then a format: text, csv or jflap"},
        {"--dump-dfa 1x csv", 2, "", "bad pattern id '1x' for --dump-dfa"},
    };
    const vael_cli_test::Scratch dir("dump_dfa");
    dir.write("p.txt", "1\tre\tab\n2\tstr\tfoo\n3\tre\t{caseless}:x[a-c]y\n4\tre\ta{x\n");
    for (const auto &r : rows) {
        std::vector<std::string> args{"-p", "p.txt"};
        std::istringstream words(r.args);
        for (std::string word; words >> word;) args.push_back(word);
        const auto [status, out, err] = dir.run(args);
        EXPECT_EQ(status, r.status) << r.args;
        EXPECT_EQ(out.substr(0, r.out.size()), r.out) << r.args;
        EXPECT_EQ(out.empty(), r.out.empty()) << r.args;
        EXPECT_NE(err.find(r.err), std::string::npos) << r.args << ": " << err;
    }
}

}  // namespace
