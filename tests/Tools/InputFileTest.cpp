// Every kavra subcommand refuses an input that is not a regular file at
// once, with one line and exit status 1: a FIFO would otherwise block the
// open for ever (no writer) or be consumed by a first open (a writer).

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>

#include "support/Process.h"
#include "support/ScratchDir.h"

namespace kavra::test {
namespace {

struct Call {
    const char* name;
    const char* args;  // {IN} and {OUT} are replaced
};

class FifoInput : public ::testing::TestWithParam<Call> {};

TEST_P(FifoInput, IsRefusedAtOnceWithOneLine) {
    ScratchDir dir;
    const std::string in = dir.file("in.mp4");
    ASSERT_EQ(mkfifo(in.c_str(), 0600), 0);
    std::string args = GetParam().args;
    args.replace(args.find("{IN}"), 4, shellQuote(in));
    size_t out = args.find("{OUT}");
    if (out != std::string::npos) {
        args.replace(out, 5, shellQuote(dir.file("out")));
    }
    // Nobody writes to the FIFO: a tool that opened it would wait until the
    // time-out ends it (status 124).
    CommandResult r = runCommand("timeout 30 " + shellQuote(kavraTool()) + " " + args + " 2>&1");
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_EQ(std::count(r.output.begin(), r.output.end(), '\n'), 1) << r.output;
    EXPECT_NE(r.output.find(in + ": not a regular file"), std::string::npos) << r.output;
}

INSTANTIATE_TEST_SUITE_P(Subcommands, FifoInput,
                         ::testing::Values(Call{"probe", "probe {IN}"}, Call{"decode", "decode {IN}"},
                                           Call{"thumbs", "thumbs {IN} --count 2 -o {OUT}.png"},
                                           Call{"keyframe", "keyframe {IN} --at 1s -o {OUT}.png"},
                                           Call{"snapshot", "snapshot {IN} --at 1s -o {OUT}.jpg"},
                                           Call{"trim", "trim {IN} {OUT}.mp4 --from 1s --to 2s"}),
                         [](const ::testing::TestParamInfo<Call>& p) { return std::string(p.param.name); });

}  // namespace
}  // namespace kavra::test
