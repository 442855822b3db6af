// `kavra trim`: what it writes and what it reports, with times in the file's
// own timeline. Its failures are rows of the tool's error table.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "../tools/kavra/ContactSheet.h"
#include "Tools/ToolJson.h"
#include "TrimMedia.h"
#include "support/Ffprobe.h"
#include "support/Fixtures.h"

namespace kavra::test {
namespace {

std::string q(const std::string& s) { return shellQuote(s); }

// One run end to end: the JSON report is all the tool prints and agrees with
// the file it wrote, and no temporary file is left beside it.
TEST(TrimCommand, ReportsWhatItWroteAsJson) {
    ScratchDir dir;
    const std::string out = dir.file("clip.mp4");
    CommandResult r = kavra("trim " + q(fixture("h264_aac.mp4")) + " " + q(out) +
                            " --from 1100 --to 3500ms --cut --keep-codec --json 2>&1");
    ASSERT_EQ(r.status, 0) << r.output;
    MediaReport m = inspectMedia(out);
    EXPECT_EQ(m.frames, concat(run(0, 32), run(105, 299)));
    EXPECT_EQ(dir.entries(), std::vector<std::string>{"clip.mp4"}) << "no temporary file is left";

    // The output's length is the video's within a frame; the audio may end a little later.
    const long long ms = std::stoll(r.output.substr(r.output.find("\"output_ms\": ") + 13));
    EXPECT_NEAR(ms, m.videoSeconds * 1000, 34);
    EXPECT_EQ(r.output, "{\"output\": \"" + out + "\", \"mode\": \"cut\", \"output_ms\": " + std::to_string(ms) +
                            ", \"video_frames_copied\": 211, \"video_frames_encoded\": 17, \"audio_packets\": " +
                            std::to_string(m.audioPackets) +
                            ", \"video_codec\": \"h264\", \"parts\": [{\"frames_copied\": 31, \"frames_encoded\": 2}, "
                            "{\"frames_copied\": 180, \"frames_encoded\": 15}]}\n");
}

// The transport stream's video starts near 1.47 s; two seconds later lies
// its key frame 60: the first thumbnail at that time, and the first frame
// kept by a trim from it. Without --json the tool reports in words.
TEST(TrimCommand, ReadsTimesInTheFilesOwnTimelineAsThumbsDoes) {
    const std::string in = fixture("late_start.ts");
    const double startS = Ffprobe(in, "-select_streams v:0").streamNumber(0, "start_time");
    char from[32];
    char to[32];
    snprintf(from, sizeof(from), "%.6fs", startS + 2.0);
    snprintf(to, sizeof(to), "%.6fs", startS + 3.0);
    ScratchDir dir;
    ASSERT_EQ(kavra("thumbs " + q(in) + " --count 1 --from " + from + " --to " + from + " --size 160x120 -o " +
                    q(dir.file("sheet.png")))
                  .status,
              0);
    RgbaImage sheet = decodeImage(dir.file("sheet.png"));
    const auto layout = tool::ContactSheetLayout::make(1, 160, 120);
    EXPECT_EQ(frameIndexFromRgba(sheet.at(layout.x(0), layout.y(0)), sheet.width * 4, 160, 120), 60);

    const std::string out = dir.file("clip.mp4");
    CommandResult r = kavra("trim " + q(in) + " " + q(out) + " --from " + from + " --to " + to + " 2>&1");
    ASSERT_EQ(r.status, 0) << r.output;
    MediaReport m = inspectMedia(out);
    ASSERT_FALSE(m.frames.empty());
    EXPECT_EQ(m.frames.front(), 60);
    EXPECT_EQ(r.output, out + ": " + std::to_string(std::llround(m.videoSeconds * 1000)) + " ms\n  video: 0 frames copied, " + std::to_string(m.frames.size()) +
                            " re-encoded (input cannot be copied: every frame re-encoded)\n  audio: " +
                            std::to_string(m.audioPackets) + " packets copied\n");
}

}  // namespace
}  // namespace kavra::test
