// vael-scan --dump-dfa as a user runs it: a pattern file, an id and a format
// in; the machine's dump, or a message and status 2, out.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

std::string slurp(const std::filesystem::path &path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

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
        {"--dump-dfa 3 text", 0, "------- DUMPING DFA ", ""},
        {"--dump-dfa=1 jflap", 0, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!--Created with JFLAP 6.0.--> <structure>", ""},
        {"--dump-dfa 2 csv", 2, "", "--dump-dfa: no re line with id 2"},
        {"--dump-dfa 4 csv", 2, "", "p.txt:4: the REM machine refuses pattern 4: Illegal sequence beginning with '{'"},
        {"--dump-dfa 1", 2, "", "option '--dump-dfa' takes an id and then a format: text, csv or jflap"},
        {"--dump-dfa 1 xml", 2, "", "option '--dump-dfa' takes an id and then a format"},
        {"--dump-dfa 1x csv", 2, "", "bad pattern id '1x' for --dump-dfa"},
    };
    const auto dir = std::filesystem::temp_directory_path() / ("vael_dump_dfa_" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    std::ofstream(dir / "p.txt") << "1\tre\tab\n2\tstr\tfoo\n3\tre\t{caseless}:x[a-c]y\n4\tre\ta{x\n";
    for (const auto &r : rows) {
        const std::string command = "cd " + dir.string() + " && " VAEL_SCAN_PATH " -p p.txt " + r.args + " >out 2>err";
        const int raw = std::system(command.c_str());
        EXPECT_EQ(WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, r.status) << r.args;
        const std::string out = slurp(dir / "out"), err = slurp(dir / "err");
        EXPECT_EQ(out.substr(0, r.out.size()), r.out) << r.args;
        EXPECT_TRUE(r.out.empty() ? out.empty() : out.size() > 0) << r.args;
        EXPECT_NE(err.find(r.err), std::string::npos) << r.args << ": " << err;
    }
    std::filesystem::remove_all(dir);
}

}  // namespace
