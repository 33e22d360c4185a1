// vael-scan --engine, --save, --load and --dump-bnfa, run as a user runs them: every option prints the same under
// either engine and from an image as from the pattern file; an image loads only under the engine that saved it; a bad
// image or a bad combination of options is an error with its message and status 2.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "scan_runner.h"

namespace {

using vael_cli_test::Args;
using vael_cli_test::slurp;

class ImageCli : public testing::Test {
protected:
    vael_cli_test::Scratch dir_{"image_cli"};
};

// Every kind of pattern line, and an input that hits each, split over the
// program's reads by a small block size in one row.
TEST_F(ImageCli, SameOutputCompiledOrLoadedUnderEitherEngine) {
    const std::string patterns = dir_.write(
        "p.txt", "1\tGET /\n2\tstr\t{caseless}:host:\n3\tre\tabc[0-9]+de\n4\tword\tfree money\n"
                 "5\tkw\t{LSS(k=)}:data: \"k=\"; test: 1, =, 0x39, 0, relative;\n6\tabcd\n7\tcd\n8\tX7\n"
                 "9\tre\t{LSS(user)}:user=[a-z]{2,5};\n");
    std::string input;
    for (int i = 0; i < 3; i++)
        input += "GET / HOST: x abc12de k=9 free money user=abc; k=1 abcd x7 X3 ";
    const std::string in = dir_.write("in.txt", input);
    const std::string images[2] = {dir_.path("thin.img"), dir_.path("sm.img")}, engines[2] = {"thin", "sm"};
    for (int e = 0; e < 2; e++)
        ASSERT_EQ(dir_.run({"--engine", engines[e], "-p", patterns, "--save", images[e]}).status, 0);
    // Compile flags have no meaning for a loaded image: those rows are not loadable.
    const struct { Args options; bool loadable; } rows[] = {
        {{}, true}, {{"--start", "--all", "--block-size", "7"}, true},
        {{"-c", "-i", "--all"}, false}, {{"--start", "--all", "--digitless"}, false}, {{"--rem", "-l"}, false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(testing::PrintToString(row.options));
        std::string want;
        for (int e = 0; e < 2; e++)
            for (int load = 0; load < (row.loadable ? 2 : 1); load++) {
                Args args{"--engine", engines[e]};
                args.insert(args.end(), {load ? "--load" : "-p", load ? images[e] : patterns});
                args.insert(args.end(), row.options.begin(), row.options.end());
                args.push_back(in);
                const auto r = dir_.run(args);
                EXPECT_EQ(r.status, 0) << r.err;
                if (want.empty())
                    want = r.out;
                EXPECT_EQ(r.out, want) << engines[e] << (load ? " loaded" : " compiled");
            }
        EXPECT_FALSE(want.empty());
    }
}

TEST_F(ImageCli, ErrorsAndDumps) {
    const std::string patterns = dir_.write("p.txt", "1\the\n2\tshe\n3\this\n4\thers\n");
    const std::string image = dir_.path("p.img"), sm_image = dir_.path("sm.img");
    ASSERT_EQ(dir_.run({"-p", patterns, "--save", image}).status, 0);
    ASSERT_EQ(dir_.run({"--engine", "sm", "-p", patterns, "--save", sm_image}).status, 0);
    const std::string bytes = slurp(image);
    const std::string cut = dir_.write("cut.img", bytes.substr(0, bytes.size() - 1));
    const std::string junk = dir_.write("junk.img", "not an image at all");
    const std::string in = dir_.write("in.txt", "ushers");
    vael_cli_test::check_rows(dir_, {
        {{"--load", image, in}, 0, "3:2\n3:1\n5:4\n", ""}, {{"--load", cut, in}, 2, "", "damaged"},
        {{"--load", junk, in}, 2, "", "not an image"}, {{"--load", dir_.path("none.img"), in}, 2, "", "No such file"},
        {{"--load", image, "-p", patterns, in}, 2, "", "not both"},
        {{"-p", patterns, "--save", dir_.path("no/dir/x.img")}, 2, "", "No such file"},
        {{"-p", patterns, "--dump-bnfa", "xml"}, 2, "", "accepted: csv, jflap"},
        {{"--load", image, "--dump-bnfa", "jflap"}, 0, "<structure>", ""},
        {{"-p", dir_.write("w.txt", "1\tword\tmoney\n"), "--dump-bnfa", "csv"}, 2, "", "no Thin NFA"},
        {{"--engine", "sm", "--load", image, in}, 2, "", "other --engine"},
        {{"--load", sm_image, in}, 2, "", "other --engine"},
        {{"--engine", "dfa", "-p", patterns, in}, 2, "", "bad engine 'dfa' (accepted: thin, sm)"},
        {{"--engine", "sm", "--load", sm_image, "--dump-bnfa", "jflap"}, 0, "<structure>", ""},
        {{"--engine", "sm", "-p", patterns, "--stats", "--memory", in}, 0, "5:4\n", "SM"},
    }, false);
    // The dump of the loaded automaton is the dump of the compiled one.
    const auto dumped = dir_.run({"--load", image, "--dump-bnfa", "csv"}).out;
    EXPECT_NE(dumped.find(','), std::string::npos);
    EXPECT_EQ(dumped, dir_.run({"-p", patterns, "--dump-bnfa", "csv"}).out);
}

}  // namespace
