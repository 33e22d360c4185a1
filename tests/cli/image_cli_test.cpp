// vael-scan --save, --load and --dump-bnfa, run as a user runs them: an image
// saved from a pattern file scans every input as the pattern file does, with
// the same output; a bad image or a bad combination of options is an error
// with its message and status 2.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "scan_runner.h"

namespace {

using vael_cli_test::Result;
using vael_cli_test::slurp;

class ImageCli : public testing::Test {
protected:
    std::string path(const std::string &name) const { return dir_.path(name); }
    std::string write(const std::string &name, const std::string &bytes) { return dir_.write(name, bytes); }
    Result run(std::vector<std::string> args) { return dir_.run(std::move(args)); }
    vael_cli_test::Scratch dir_{"image_cli"};
};

// Every kind of pattern line; an input that hits each, split over the
// program's runs by a small block size.
const char kPatterns[] =
    "1\tGET /\n"
    "2\tstr\t{caseless}:host:\n"
    "3\tre\tabc[0-9]+de\n"
    "4\tword\tfree money\n"
    "5\tkw\t{LSS(k=)}:data: \"k=\"; test: 1, =, 0x39, 0, relative;\n"
    "6\tre\t{LSS(user)}:user=[a-z]{2,5};\n";

TEST_F(ImageCli, LoadedImageScansLikeThePatternFile) {
    const std::string patterns = write("p.txt", kPatterns);
    std::string input;
    for (int i = 0; i < 8; i++)
        input += "GET / HOST: x abc12de k=9 free money user=abc; k=1 ";
    const std::string in = write("in.txt", input);
    const std::string image = path("p.img");
    ASSERT_EQ(run({"-p", patterns, "--save", image}).status, 0);
    const std::vector<std::string> rows[] = {{}, {"--all"}, {"-c", "--all"}, {"--all", "--block-size", "7"}, {"--start"}};
    for (const auto &opts : rows) {
        std::vector<std::string> compiled{"-p", patterns}, loaded{"--load", image};
        for (auto *args : {&compiled, &loaded}) {
            args->insert(args->end(), opts.begin(), opts.end());
            args->push_back(in);
        }
        const Result want = run(compiled);
        const Result got = run(loaded);
        EXPECT_EQ(got.status, want.status) << got.err;
        EXPECT_EQ(got.out, want.out);
        EXPECT_FALSE(got.out.empty());
    }
}

TEST_F(ImageCli, ErrorsAndDumps) {
    const std::string patterns = write("p.txt", "1\the\n2\tshe\n3\this\n4\thers\n");
    const std::string image = path("p.img");
    ASSERT_EQ(run({"-p", patterns, "--save", image}).status, 0);
    const std::string bytes = slurp(image);
    const std::string cut = write("cut.img", bytes.substr(0, bytes.size() - 1));
    const std::string junk = write("junk.img", "not an image at all");
    const std::string in = write("in.txt", "ushers");
    const struct {
        std::vector<std::string> args;
        int status;
        std::string out_has, err_has;  // texts expected in standard output and error
    } rows[] = {
        {{"--load", image, in}, 0, "3:2\n3:1\n5:4\n", ""}, {{"--load", cut, in}, 2, "", "damaged"},
        {{"--load", junk, in}, 2, "", "not an image"}, {{"--load", path("none.img"), in}, 2, "", "No such file"},
        {{"--load", image, "-p", patterns, in}, 2, "", "not both"},
        {{"-p", patterns, "--save", path("no/dir/x.img")}, 2, "", "No such file"},
        {{"-p", patterns, "--dump-bnfa", "xml"}, 2, "", "accepted: csv, jflap"},
        {{"--load", image, "--dump-bnfa", "jflap"}, 0, "<structure>", ""},
        {{"--load", image, "--dump-bnfa", "csv"}, 0, ",", ""},
        {{"-p", write("w.txt", "1\tword\tmoney\n"), "--dump-bnfa", "csv"}, 2, "", "no Thin NFA"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.args));
        const Result r = run(row.args);
        EXPECT_EQ(r.status, row.status) << r.err;
        EXPECT_NE(r.out.find(row.out_has), std::string::npos) << r.out;
        EXPECT_NE(r.err.find(row.err_has), std::string::npos) << r.err;
    }
    // The dump of the loaded automaton is the dump of the compiled one.
    EXPECT_EQ(run({"--load", image, "--dump-bnfa", "csv"}).out, run({"-p", patterns, "--dump-bnfa", "csv"}).out);
}

}  // namespace
