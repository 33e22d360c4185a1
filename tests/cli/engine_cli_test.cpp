// vael-scan --engine, run as a user runs it: every option prints the same
// with SM as with the Thin NFA, an image loads only under the engine that
// saved it, and a bad engine name is a usage error.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "scan_runner.h"

namespace {

TEST(EngineCli, SameOutputWithEitherEngineAndImagesStayWithTheirEngine) {
    vael_cli_test::Scratch dir{"engine_cli"};
    const std::string patterns = dir.write(
        "p.txt", "1\tGET /\n2\tstr\t{caseless}:host:\n3\tre\tabc[0-9]+de\n4\tword\tfree money\n"
                 "5\tkw\t{LSS(k=)}:data: \"k=\"; test: 1, =, 0x39, 0, relative;\n6\tabcd\n7\tcd\n8\tX7\n");
    std::string input;
    for (int i = 0; i < 6; i++)
        input += "GET / HOST: x abc12de k=9 free money abcd x7 X3 ";
    const std::string in = dir.write("in.txt", input);
    const std::string sm_image = dir.path("sm.img"), thin_image = dir.path("thin.img");
    ASSERT_EQ(dir.run({"--engine", "sm", "-p", patterns, "--save", sm_image}).status, 0);
    ASSERT_EQ(dir.run({"-p", patterns, "--save", thin_image}).status, 0);
    const std::vector<std::vector<std::string>> same = {
        {"-p", patterns},       {"-p", patterns, "--all"}, {"-p", patterns, "-c"}, {"-p", patterns, "-i", "--all"},
        {"-p", patterns, "--all", "--block-size", "7"},   {"-p", patterns, "--start", "--all", "--digitless"},
        {"-p", patterns, "--rem", "-l"},                   {"--load", "IMAGE", "--all"},
    };
    for (auto args : same) {
        SCOPED_TRACE(args[1] + " " + args.back());
        auto thin = args, sm = args;
        thin.insert(thin.begin(), {"--engine", "thin"});
        sm.insert(sm.begin(), {"--engine", "sm"});
        thin.push_back(in);
        sm.push_back(in);
        if (args[0] == "--load")
            thin[3] = thin_image, sm[3] = sm_image;
        const auto want = dir.run(thin), got = dir.run(sm);
        EXPECT_EQ(want.status, 0) << want.err;
        EXPECT_EQ(got.status, 0) << got.err;
        EXPECT_EQ(got.out, want.out);
    }
    const struct {
        std::vector<std::string> args;
        int status;
        std::string out_has, err_has;
    } rows[] = {
        {{"--engine", "sm", "--load", thin_image, in}, 2, "", "other --engine"},
        {{"--load", sm_image, in}, 2, "", "other --engine"},
        {{"--engine", "dfa", "-p", patterns, in}, 2, "", "bad engine 'dfa' (accepted: thin, sm)"},
        {{"--engine", "sm", "--load", sm_image, "--dump-bnfa", "jflap"}, 0, "<structure>", ""},
        {{"--engine", "sm", "-p", patterns, "--stats", "--memory", in}, 0, ":6\n", "SM"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.args[1]);
        const auto r = dir.run(row.args);
        EXPECT_EQ(r.status, row.status) << r.err;
        EXPECT_NE(r.out.find(row.out_has), std::string::npos) << r.out;
        EXPECT_NE(r.err.find(row.err_has), std::string::npos) << r.err;
    }
}

}  // namespace
