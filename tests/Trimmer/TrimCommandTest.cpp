// `kavra trim`: its report, and its error exits, which must leave no file
// (finished or half-written) under the output name or beside it.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "../tools/kavra/ContactSheet.h"
#include "TrimMedia.h"
#include "support/Ffprobe.h"
#include "support/Fixtures.h"

namespace kavra::test {
namespace {

struct ToolRun {
    int status;
    std::string out;
    std::string err;
};

// Runs the tool; its standard error goes to a file outside the directory
// under test.
ToolRun kavra(const std::string& args) {
    ScratchDir errDir;
    std::string errFile = errDir.file("stderr");
    CommandResult r = runCommand(shellQuote(kavraTool()) + " " + args + " 2>" + shellQuote(errFile));
    std::ifstream f(errFile);
    std::string err((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    return ToolRun{r.status, r.output, err};
}

std::string q(const std::string& s) { return shellQuote(s); }

long long jsonNumber(const std::string& json, const std::string& key) {
    std::string pattern = "\"" + key + "\": ";
    size_t at = json.find(pattern);
    if (at == std::string::npos) {
        ADD_FAILURE() << "no " << key << " in " << json;
        return -1;
    }
    return std::stoll(json.substr(at + pattern.size()));
}

TEST(TrimCommand, KeepsTheRangeAndReportsWhatItDidAsJson) {
    ScratchDir dir;
    std::string out = dir.file("clip.mp4");
    ToolRun r = kavra("trim " + q(fixture("mpeg4.mp4")) + " " + q(out) + " --from 1.1s --to 00:03.500 --json");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(jsonNumber(r.out, "video_frames_copied"), 46);
    EXPECT_EQ(jsonNumber(r.out, "video_frames_encoded"), 27);
    long long ms = jsonNumber(r.out, "output_ms");
    EXPECT_NEAR(ms, 2433, 34);
    MediaReport m = inspectMedia(out);
    EXPECT_EQ(m.frames, run(33, 105));
    EXPECT_EQ(jsonNumber(r.out, "audio_packets"), static_cast<long long>(m.audioSeconds / m.longestAudioPacket + 0.5));
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"clip.mp4"}) << "no temporary file is left";

    r = kavra("trim " + q(fixture("h264_aac.mp4")) + " " + q(out) + " --from 1100 --to 3500 --cut --keep-codec --json");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("\"video_codec\": \"h264\", \"parts\": [{\"frames_copied\": 31, \"frames_encoded\": 2}, "
                         "{\"frames_copied\": 180, \"frames_encoded\": 15}]"),
              std::string::npos)
        << r.out;
    EXPECT_EQ(inspectMedia(out).frames, concat(run(0, 32), run(105, 299)));
}

TEST(TrimCommand, CutModePrintsDurationAndHowFramesWereMade) {
    ScratchDir dir;
    std::string out = dir.file("cut.mp4");
    ToolRun r = kavra("trim " + q(fixture("h264_aac.mp4")) + " " + q(out) + " --from 1100 --to 3500ms --cut");
    ASSERT_EQ(r.status, 0) << r.err;
    // "OUT: <duration> ms" first: 10 s less the 2.4 s cut, within a frame.
    size_t at = r.out.find(": ");
    ASSERT_NE(at, std::string::npos) << r.out;
    EXPECT_NEAR(std::stoll(r.out.substr(at + 2)), 7600, 34) << r.out;
    EXPECT_NE(r.out.find("0 frames copied, 228 re-encoded"), std::string::npos) << r.out;
    EXPECT_EQ(inspectMedia(out).frames, concat(run(0, 32), run(105, 299)));
}

// A time means the same instant to every command: the file's own timeline.
// The transport stream's video starts near 1.47 s; two seconds later lies
// its key frame 60, the first thumbnail at that time and the first frame
// kept by a trim from it.
TEST(TrimCommand, ReadsTimesInTheFilesOwnTimelineAsThumbsDoes) {
    const std::string in = fixture("late_start.ts");
    Ffprobe probe(in, "-select_streams v:0");
    char from[32];
    char to[32];
    snprintf(from, sizeof(from), "%.6fs", probe.streamNumber(0, "start_time") + 2.0);
    snprintf(to, sizeof(to), "%.6fs", probe.streamNumber(0, "start_time") + 3.0);
    ScratchDir dir;
    ToolRun thumbs = kavra("thumbs " + q(in) + " --count 1 --from " + from + " --to " + from + " --size 160x120 -o " +
                           q(dir.file("sheet.png")));
    ASSERT_EQ(thumbs.status, 0) << thumbs.err;
    CommandResult sheet = runCommand("ffmpeg -v error -nostdin -i " + q(dir.file("sheet.png")) +
                                     " -f rawvideo -pix_fmt rgba -");
    const auto layout = tool::ContactSheetLayout::make(1, 160, 120);
    ASSERT_EQ(sheet.output.size(), static_cast<size_t>(layout.width) * layout.height * 4);
    const uint8_t* cell = reinterpret_cast<const uint8_t*>(sheet.output.data()) +
                          (static_cast<size_t>(layout.y(0)) * layout.width + layout.x(0)) * 4;
    EXPECT_EQ(frameIndexFromRgba(cell, layout.width * 4, 160, 120), 60);

    ToolRun trim = kavra("trim " + q(in) + " " + q(dir.file("clip.mp4")) + " --from " + from + " --to " + to);
    ASSERT_EQ(trim.status, 0) << trim.err;
    MediaReport m = inspectMedia(dir.file("clip.mp4"));
    ASSERT_FALSE(m.frames.empty());
    EXPECT_EQ(m.frames.front(), 60);
}

// Each failure: one line on stderr, exit status 1, and the directory holding
// the output exactly as it was (an output file that existed is unchanged).
struct BadCall {
    const char* name;
    const char* args;  // {IN} and {OUT} are replaced
    const char* input;
    bool outputInMissingDir;
    bool outputIsDirectory;
};

class TrimCommandError : public ::testing::TestWithParam<BadCall> {};

TEST_P(TrimCommandError, FailsWithOneLineAndLeavesNoFileBehind) {
    const BadCall& c = GetParam();
    ScratchDir dir;
    std::string in = c.input[0] == '/' ? c.input : fixture(c.input);
    if (std::string(c.input) == "pcm.mkv") {
        in = dir.file("pcm.mkv");
        ASSERT_TRUE(runTool("ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=s=160x120:d=2 -f lavfi -i sine=d=2 "
                            "-c:v libx264 -c:a pcm_s16le " +
                            q(in)));
    }
    std::string out = dir.file("out.mp4");
    if (c.outputInMissingDir) {
        out = dir.file("missing/out.mp4");
    } else if (c.outputIsDirectory) {
        out = dir.file("folder.mp4");
        ASSERT_TRUE(runTool("mkdir " + q(out)));
    } else {
        std::ofstream(out) << "previous content";
    }
    std::vector<std::string> before = dir.entries();

    std::string args = c.args;
    args.replace(args.find("{IN}"), 4, q(in));
    args.replace(args.find("{OUT}"), 5, q(out));
    ToolRun r = kavra(args);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err.rfind("kavra: ", 0), 0u) << r.err;
    EXPECT_EQ(r.err.find('\n'), r.err.size() - 1) << "exactly one line: " << r.err;

    std::vector<std::string> after = dir.entries();
    std::sort(before.begin(), before.end());
    std::sort(after.begin(), after.end());
    EXPECT_EQ(after, before);
    if (!c.outputInMissingDir && !c.outputIsDirectory) {
        std::ifstream f(out);
        std::string content((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
        EXPECT_EQ(content, "previous content");
    }
}

INSTANTIATE_TEST_SUITE_P(
    Calls, TrimCommandError,
    ::testing::Values(
        BadCall{"range_past_the_end", "trim {IN} {OUT} --from 9s --to 12s", "mpeg4.mp4", false, false},
        BadCall{"end_before_start", "trim {IN} {OUT} --from 3s --to 2s", "mpeg4.mp4", false, false},
        BadCall{"bad_time", "trim {IN} {OUT} --from soon --to 2s", "mpeg4.mp4", false, false},
        BadCall{"missing_end", "trim {IN} {OUT} --from 1s", "mpeg4.mp4", false, false},
        BadCall{"input_missing", "trim {IN} {OUT} --from 1s --to 2s", "/nonexistent/clip.mp4", false, false},
        BadCall{"input_without_video", "trim {IN} {OUT} --from 1s --to 2s", "audio_only.m4a", false, false},
        BadCall{"input_damaged_in_range", "trim {IN} {OUT} --from 3s --to 6s", "damaged_sample_table.mp4", false, false},
        BadCall{"output_dir_missing", "trim {IN} {OUT} --from 1s --to 2s", "mpeg4.mp4", true, false},
        BadCall{"output_is_directory", "trim {IN} {OUT} --from 1s --to 2s", "mpeg4.mp4", false, true},
        // Fails after the output was opened and its header written.
        BadCall{"output_cannot_hold_audio", "trim {IN} {OUT} --from 0.5s --to 1s", "pcm.mkv", false, false}),
    [](const ::testing::TestParamInfo<BadCall>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kavra::test
