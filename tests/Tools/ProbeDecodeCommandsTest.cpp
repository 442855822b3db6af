// kavra probe and kavra decode against ffprobe: the streams probe reports
// (as JSON and as text), and the frames decode counts through the player's
// pipeline.

#include <gtest/gtest.h>

#include "ToolJson.h"
#include "support/Ffprobe.h"
#include "support/Fixtures.h"

namespace kavra::test {
namespace {

CommandResult probe(const std::string& args) { return kavra("probe " + args + " 2>&1"); }

// The value of "key" in stream n's object, for keys only streams have.
std::string streamField(const std::string& json, int n, const std::string& key) {
    std::vector<std::string> values = jsonValues(json, key);
    return n < static_cast<int>(values.size()) ? values[n] : "";
}

class ProbeJson : public ::testing::TestWithParam<const char*> {};

TEST_P(ProbeJson, AgreesWithFfprobe) {
    const std::string path = fixture(GetParam());
    Ffprobe expected(path);
    CommandResult r = probe("--json " + shellQuote(path));
    ASSERT_EQ(r.status, 0) << r.output;
    const std::string& json = r.output;
    EXPECT_EQ(jsonValues(json, "format").at(0), expected.get("format.format_long_name"));
    EXPECT_NEAR(jsonNumber(json, "duration_ms"), expected.number("format.duration") * 1000, 1.0);
    for (int i = 0; i < expected.streamCount(); ++i) {
        SCOPED_TRACE(i);
        std::string type = expected.stream(i, "codec_type");
        EXPECT_EQ(streamField(json, i, "index"), std::to_string(i));
        EXPECT_EQ(streamField(json, i, "type"), type == "video" || type == "audio" ? type : "other");
        EXPECT_EQ(streamField(json, i, "codec"), expected.stream(i, "codec_name"));
        if (type == "video") {
            EXPECT_EQ(streamField(json, i, "width"), expected.stream(i, "width"));
            EXPECT_EQ(streamField(json, i, "height"), expected.stream(i, "height"));
            int num = 0, den = 1;
            sscanf(expected.stream(i, "avg_frame_rate").c_str(), "%d/%d", &num, &den);
            EXPECT_NEAR(std::stod(streamField(json, i, "fps")), den ? static_cast<double>(num) / den : 0, 0.01);
        } else if (type == "audio") {
            EXPECT_EQ(streamField(json, i, "sample_rate"), expected.stream(i, "sample_rate"));
            EXPECT_EQ(streamField(json, i, "channels"), expected.stream(i, "channels"));
            EXPECT_EQ(streamField(json, i, "width"), "null");
        }
        if (expected.has("streams.stream." + std::to_string(i) + ".start_time")) {
            EXPECT_NEAR(std::stoi(streamField(json, i, "start_ms")), expected.streamNumber(i, "start_time") * 1000, 1.0);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Fixtures, ProbeJson,
                         ::testing::Values("h264_aac.mp4", "with_subtitle.mp4", "audio_only.m4a", "late_start.ts",
                                           "vp9.webm"),
                         FixtureName());

TEST(ProbeText, NamesTheRotationAndTheChosenStreams) {
    CommandResult r = probe(shellQuote(fixture("h264_aac_rot90.mp4")));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("rotation 90"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("best video: #0"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("best audio: #1"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("300 frames"), std::string::npos) << r.output;
}

struct DecodeCase {
    const char* name;
    const char* file;
    const char* options;  // e.g. a decoder chosen with --video-decoder
    const char* expectedDecoder;
};

class DecodeCommand : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(DecodeCommand, CountsWhatFfprobeCounts) {
    const DecodeCase& c = GetParam();
    const std::string path = fixture(c.file);
    CommandResult r = kavra("decode " + shellQuote(path) + " --json" + c.options);
    ASSERT_EQ(r.status, 0) << r.output;
    const int video = probeFrameCount(path, "v:0");
    EXPECT_EQ(jsonNumber(r.output, "video_frames"), video) << r.output;
    EXPECT_EQ(jsonNumber(r.output, "audio_frames"), probeFrameCount(path, "a:0")) << r.output;
    const double seconds = jsonNumber(r.output, "seconds");
    EXPECT_GT(seconds, 0.0);
    EXPECT_NEAR(jsonNumber(r.output, "video_fps"), video / seconds, video / seconds * 0.01 + 0.01);
    EXPECT_NE(r.output.find(std::string("\"video_decoder\": \"") + c.expectedDecoder + "\""), std::string::npos)
        << r.output;
}

INSTANTIATE_TEST_SUITE_P(Fixtures, DecodeCommand,
                         ::testing::Values(DecodeCase{"h264_aac_codec", "h264_aac.mp4", "", "codec"},
                                           DecodeCase{"h264_aac_ffmpeg_chosen", "h264_aac.mp4", " --video-decoder ffmpeg", "ffmpeg"},
                                           DecodeCase{"late_start_ts", "late_start.ts", "", "codec"},
                                           DecodeCase{"mpeg4_bframes", "mpeg4_bframes.mp4", "", "ffmpeg"},
                                           DecodeCase{"vp9_webm", "vp9.webm", "", "ffmpeg"},
                                           DecodeCase{"audio_only", "audio_only.m4a", "", "none"},
                                           DecodeCase{"video_only", "video_only.mp4", "", "codec"},
                                           // Subtitle packets are dropped and freed.
                                           DecodeCase{"with_subtitle", "with_subtitle.mp4", "", "codec"},
                                           DecodeCase{"truncated", "truncated.mp4", "", "codec"}),
                         FixtureName());

// The frames come through the player's pipeline (its demux thread and end
// of input), not through a loop of the command's own.
TEST(DecodeCommandPipeline, DecodesThroughTheDemuxThread) {
    CommandResult r = kavra("-v decode " + shellQuote(fixture("mpeg4.mp4")) + " 2>&1 >/dev/null");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("KavraMediaDecoder: onMuxPacket thread begin"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("KavraMediaDecoder: Mux end."), std::string::npos) << r.output;
}

}  // namespace
}  // namespace kavra::test
