// vael-scan --dump-dfa as a user runs it: a pattern file, an id and a format
// in, the machine's dump or a message and the exit status out.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

namespace fs = std::filesystem;

struct Result {
    int status;
    std::string out, err;
};

std::string slurp(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

Result run(const std::string &args) {
    const fs::path dir = fs::temp_directory_path() / ("vael_dump_dfa_" + std::to_string(::getpid()));
    fs::create_directories(dir);
    std::ofstream(dir / "p.txt", std::ios::binary) << "1\tre\tab\n2\tstr\tfoo\n3\tre\t{caseless}:x[a-c]y\n4\tre\ta{x\n";
    const std::string command = "cd " + dir.string() + " && " VAEL_SCAN_PATH " -p p.txt " + args + " >out 2>err";
    const int raw = std::system(command.c_str());
    Result r{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, slurp(dir / "out"), slurp(dir / "err")};
    fs::remove_all(dir);
    return r;
}

TEST(DumpDfa, AUserDumpsTheMachineOfOneReLine) {
    auto ones = [](int n, const char *v) {
        std::string s;
        for (int i = 0; i < n; i++) s += v;
        return s;
    };
    const struct {
        std::string args;
        int status;
        std::string out;  // the whole standard output, or its start when ending in "..."
        std::string err;  // a part of the standard error
    } rows[] = {
        {"--rem --dump-dfa 1 csv", 0,
         "The dfa has 3 states.\nstate_id,level,is_final,a,b,c,d,e,f,g,h,i,j,k,l,m,n,o,p,q,r,s,t,u,v,w,x,y,z\n"
         "1,0,0,2" + ones(25, ",1") + "\n2,1,0,2,0" + ones(24, ",1") + "\n0,2,1" + ones(26, ",0") + "\n",
         ""},
        {"--dump-dfa 3 text", 0, "------- DUMPING DFA ...", ""},
        {"--dump-dfa=1 jflap", 0, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!--Created with JFLAP 6.0.--> <structure>...",
         ""},
        {"--dump-dfa 2 csv", 2, "", "--dump-dfa: no re line with id 2"},
        {"--dump-dfa 9 csv", 2, "", "--dump-dfa: no re line with id 9"},
        {"--dump-dfa 4 csv", 2, "", "p.txt:4: the REM machine refuses pattern 4: Illegal sequence beginning with '{'"},
        {"--dump-dfa 1", 2, "", "option '--dump-dfa' takes an id and then a format: text, csv or jflap"},
        {"--dump-dfa 1 xml", 2, "", "option '--dump-dfa' takes an id and then a format"},
        {"--dump-dfa 1x csv", 2, "", "bad pattern id '1x' for --dump-dfa"},
    };
    for (const auto &r : rows) {
        const Result got = run(r.args);
        EXPECT_EQ(got.status, r.status) << r.args << "\n" << got.err;
        if (r.out.size() > 3 && r.out.ends_with("...")) {
            EXPECT_EQ(got.out.substr(0, r.out.size() - 3), r.out.substr(0, r.out.size() - 3)) << r.args;
        } else {
            EXPECT_EQ(got.out, r.out) << r.args;
        }
        EXPECT_NE(got.err.find(r.err), std::string::npos) << r.args << ": " << got.err;
    }
}

}  // namespace
