// `kavra decode`: frame counts against ffprobe's, through the player's
// pipeline.

#include <gtest/gtest.h>

#include "ToolJson.h"
#include "support/Ffprobe.h"
#include "support/Fixtures.h"
#include "support/Process.h"

namespace kavra::test {
namespace {

// Frames of the first stream of a kind ("v", "a") that ffprobe decodes.
int probeFrameCount(const std::string& path, const std::string& kind) {
    Ffprobe probe(path, "-count_frames -select_streams " + kind + ":0");
    return static_cast<int>(probe.streamNumber(0, "nb_read_frames", 0));
}

struct DecodeCase {
    const char* name;
    const char* file;
    const char* decoder;  // chosen with --video-decoder, or "" for the default
    const char* expectedDecoder;
};

class DecodeCommand : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(DecodeCommand, CountsWhatFfprobeCounts) {
    const DecodeCase& c = GetParam();
    const std::string path = fixture(c.file);
    std::string command = shellQuote(kavraTool()) + " decode " + shellQuote(path) + " --json";
    if (c.decoder[0] != '\0') {
        command += std::string(" --video-decoder ") + c.decoder;
    }
    CommandResult r = runCommand(command);
    ASSERT_EQ(r.status, 0) << r.output;
    const int video = probeFrameCount(path, "v");
    EXPECT_EQ(jsonNumber(r.output, "video_frames"), video) << r.output;
    EXPECT_EQ(jsonNumber(r.output, "audio_frames"), probeFrameCount(path, "a")) << r.output;
    const double seconds = jsonNumber(r.output, "seconds");
    EXPECT_GT(seconds, 0.0);
    EXPECT_NEAR(jsonNumber(r.output, "video_fps"), video / seconds, video / seconds * 0.01 + 0.01);
    EXPECT_NE(r.output.find(std::string("\"video_decoder\": \"") + c.expectedDecoder + "\""), std::string::npos)
        << r.output;
}

INSTANTIATE_TEST_SUITE_P(Fixtures, DecodeCommand,
                         ::testing::Values(DecodeCase{"h264_aac_codec", "h264_aac.mp4", "", "codec"},
                                           DecodeCase{"h264_aac_ffmpeg_chosen", "h264_aac.mp4", "ffmpeg", "ffmpeg"},
                                           DecodeCase{"h264_aac_codec_chosen", "h264_aac.mp4", "codec", "codec"},
                                           DecodeCase{"late_start_ts", "late_start.ts", "", "codec"},
                                           DecodeCase{"mpeg4_bframes", "mpeg4_bframes.mp4", "", "ffmpeg"},
                                           DecodeCase{"vp9_webm", "vp9.webm", "", "ffmpeg"},
                                           DecodeCase{"audio_only", "audio_only.m4a", "", "none"},
                                           DecodeCase{"video_only", "video_only.mp4", "", "codec"},
                                           DecodeCase{"truncated", "truncated.mp4", "", "codec"}),
                         FixtureName());

// The frames come through the player's pipeline (its demux thread and end
// of input), not through a loop of the command's own.
TEST(DecodeCommandPipeline, DecodesThroughTheDemuxThread) {
    CommandResult r = runCommand("timeout 120 " + shellQuote(kavraTool()) + " -v decode " +
                                 shellQuote(fixture("mpeg4.mp4")) + " 2>&1 >/dev/null");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("KavraMediaDecoder: onMuxPacket thread begin"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("KavraMediaDecoder: Mux end."), std::string::npos) << r.output;
}

}  // namespace
}  // namespace kavra::test
