// vael-scan --engine, run as a user runs it: every option gives the same
// output with the string matcher as with the Thin NFA, an image loads only
// under the engine that saved it, and a bad engine name is a usage error.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "scan_runner.h"

namespace {

using vael_cli_test::Result;

class EngineCli : public testing::Test {
protected:
    std::string path(const std::string &name) const { return dir_.path(name); }
    std::string write(const std::string &name, const std::string &bytes) { return dir_.write(name, bytes); }
    Result run(std::vector<std::string> args) { return dir_.run(std::move(args)); }

    vael_cli_test::Scratch dir_{"engine_cli"};
};

const char kPatterns[] =
    "1\tGET /\n"
    "2\tstr\t{caseless}:host:\n"
    "3\tre\tabc[0-9]+de\n"
    "4\tword\tfree money\n"
    "5\tkw\t{LSS(k=)}:data: \"k=\"; test: 1, =, 0x39, 0, relative;\n"
    "6\tstr\tabcd\n"
    "7\tstr\tcd\n"
    "8\tstr\tX7\n";

TEST_F(EngineCli, EveryOptionGivesTheSameOutputWithEitherEngine) {
    const std::string patterns = write("p.txt", kPatterns);
    std::string input;
    for (int i = 0; i < 6; i++)
        input += "GET / HOST: x abc12de k=9 free money abcd x7 X3 ";
    const std::string in = write("in.txt", input);
    const std::vector<std::vector<std::string>> option_sets = {
        {},           {"--all"},    {"-c"},        {"--all", "--block-size", "7"}, {"--start", "--all"},
        {"-i", "--all"}, {"--digitless", "--all"}, {"-l"}, {"--rem", "--all"},
    };
    for (const auto &opts : option_sets) {
        std::vector<std::string> thin{"--engine", "thin", "-p", patterns}, sm{"--engine", "sm", "-p", patterns};
        std::string line;
        for (auto *args : {&thin, &sm}) {
            args->insert(args->end(), opts.begin(), opts.end());
            args->push_back(in);
        }
        for (const auto &a : opts) line += a + " ";
        SCOPED_TRACE(line);
        const Result want = run(thin);
        const Result got = run(sm);
        EXPECT_EQ(want.status, 0) << want.err;
        EXPECT_EQ(got.status, want.status) << got.err;
        EXPECT_EQ(got.out, want.out);
        EXPECT_FALSE(got.out.empty());
    }
}

TEST_F(EngineCli, ImagesDumpsAndErrors) {
    const std::string patterns = write("p.txt", "1\the\n2\tshe\n3\this\n4\thers\n");
    const std::string in = write("in.txt", "ushers");
    const std::string thin_image = path("thin.img");
    const std::string sm_image = path("sm.img");
    ASSERT_EQ(run({"-p", patterns, "--save", thin_image}).status, 0);
    ASSERT_EQ(run({"--engine", "sm", "-p", patterns, "--save", sm_image}).status, 0);
    struct Row {
        std::vector<std::string> args;
        int status;
        std::string out_has;
        std::string err_has;
    };
    const Row rows[] = {
        {{"--engine", "sm", "--load", sm_image, in}, 0, "3:2\n3:1\n5:4\n", ""},
        {{"--engine", "sm", "--load", thin_image, in}, 2, "", "other --engine"},
        {{"--load", sm_image, in}, 2, "", "other --engine"},
        {{"--engine", "dfa", "-p", patterns, in}, 2, "", "bad engine 'dfa' (accepted: thin, sm)"},
        {{"--engine", "sm", "-p", patterns, "--dump-bnfa", "csv"}, 0, ",", ""},
        {{"--engine", "sm", "--load", sm_image, "--dump-bnfa", "jflap"}, 0, "<structure>", ""},
        {{"--engine", "sm", "-p", patterns, "--memory", in}, 0, "5:4\n", "bytes"},
        {{"--engine", "sm", "-p", patterns, "--stats", in}, 0, "5:4\n", "SM"},
        {{"--help"}, 0, "--engine=NAME", ""},
    };
    for (const Row &row : rows) {
        std::string line;
        for (const auto &a : row.args) line += a + " ";
        SCOPED_TRACE(line);
        const Result r = run(row.args);
        EXPECT_EQ(r.status, row.status) << r.err;
        EXPECT_NE(r.out.find(row.out_has), std::string::npos) << r.out;
        EXPECT_NE(r.err.find(row.err_has), std::string::npos) << r.err;
    }
}

}  // namespace
