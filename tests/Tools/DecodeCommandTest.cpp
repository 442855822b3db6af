// `kavra decode`: frame counts against ffprobe's, errors as one line.

#include <gtest/gtest.h>

#include <cstdlib>

#include "Decoder/DecoderTestSupport.h"

namespace kavra::test {
namespace {

// A number field of the command's one-line JSON answer; -1 when absent.
double jsonNumber(const std::string& json, const std::string& key) {
    std::string quoted = "\"" + key + "\":";
    size_t at = json.find(quoted);
    if (at == std::string::npos) {
        return -1;
    }
    const char* start = json.c_str() + at + quoted.size();
    char* end = nullptr;
    double value = strtod(start, &end);
    return end == start ? -1 : value;
}

struct DecodeCase {
    const char* file;
    const char* decoder;
    const char* expectedDecoder;
};

class DecodeCommand : public ::testing::TestWithParam<DecodeCase> {};

TEST_P(DecodeCommand, CountsWhatFfprobeCounts) {
    const DecodeCase& c = GetParam();
    std::string path = fixture(c.file);
    std::string command = shellQuote(kavraTool()) + " decode " + shellQuote(path) + " --json";
    if (c.decoder[0] != '\0') {
        command += std::string(" --video-decoder ") + c.decoder;
    }
    CommandResult r = runCommand(command);
    ASSERT_EQ(r.status, 0) << r.output;
    int video = probeFrameCount(path, "v");
    int audio = probeFrameCount(path, "a");
    EXPECT_EQ(jsonNumber(r.output, "video_frames"), video < 0 ? 0 : video) << r.output;
    EXPECT_EQ(jsonNumber(r.output, "audio_frames"), audio < 0 ? 0 : audio) << r.output;
    double seconds = jsonNumber(r.output, "seconds");
    EXPECT_GT(seconds, 0.0);
    if (video > 0) {
        EXPECT_NEAR(jsonNumber(r.output, "video_fps"), video / seconds, video / seconds * 0.01 + 0.01);
    } else {
        EXPECT_EQ(jsonNumber(r.output, "video_fps"), 0.0);
    }
    EXPECT_NE(r.output.find(std::string("\"video_decoder\": \"") + c.expectedDecoder + "\""), std::string::npos)
        << r.output;
}

INSTANTIATE_TEST_SUITE_P(Fixtures, DecodeCommand,
                         ::testing::Values(DecodeCase{"h264_aac.mp4", "", "codec"},
                                           DecodeCase{"h264_aac.mp4", "ffmpeg", "ffmpeg"},
                                           DecodeCase{"h264_aac.mp4", "codec", "codec"},
                                           DecodeCase{"late_start.ts", "", "codec"},
                                           DecodeCase{"mpeg4_bframes.mp4", "", "ffmpeg"},
                                           DecodeCase{"vp9.webm", "", "ffmpeg"},
                                           DecodeCase{"audio_only.m4a", "", "none"},
                                           DecodeCase{"video_only.mp4", "", "codec"},
                                           DecodeCase{"truncated.mp4", "", "codec"}),
                         [](const ::testing::TestParamInfo<DecodeCase>& info) {
                             std::string name = std::string(info.param.file) + "_" + info.param.expectedDecoder +
                                                (info.param.decoder[0] != '\0' ? "_chosen" : "");
                             for (char& ch : name) {
                                 if (!isalnum(static_cast<unsigned char>(ch))) {
                                     ch = '_';
                                 }
                             }
                             return name;
                         });

// The frames come through the player's pipeline (its demux thread and end
// of input), not through a loop of the command's own.
TEST(DecodeCommandPipeline, DecodesThroughTheDemuxThread) {
    CommandResult r = runCommand("timeout 120 " + shellQuote(kavraTool()) + " -v decode " +
                                 shellQuote(fixture("mpeg4.mp4")) + " 2>&1 >/dev/null");
    EXPECT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("KavraMediaDecoder: onMuxPacket thread begin"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("KavraMediaDecoder: Mux end."), std::string::npos) << r.output;
}

TEST(DecodeCommandErrors, WhatCannotBeDecodedIsOneLineAndExitStatusOne) {
    const std::vector<std::string> bad = {
        shellQuote(fixture("random.bin")),
        shellQuote(fixture("truncated_nomoov.mp4")),
        shellQuote(fixture("does_not_exist.mp4")),
        shellQuote(fixtureDir()),
        shellQuote(fixture("mpeg4.mp4")) + " --video-decoder codec",
        shellQuote(fixture("h264_aac.mp4")) + " --video-decoder magic",
        "",
        // Reads fail for ever halfway: not a success on half the file.
        shellQuote(fixture("damaged_sample_table.mp4")),
        shellQuote(fixture("damaged_sample_table.mp4")) + " --video-decoder ffmpeg",
    };
    for (const std::string& args : bad) {
        // Standard error only, standard output thrown away; bounded, so
        // that a hang fails with timeout's status 124.
        CommandResult r =
            runCommand("timeout 120 " + shellQuote(kavraTool()) + " decode " + args + " 2>&1 >/dev/null");
        EXPECT_EQ(r.status, 1) << args;
        ASSERT_FALSE(r.output.empty()) << args;
        EXPECT_EQ(r.output.find('\n'), r.output.size() - 1) << "one line for " << args << ": " << r.output;
        EXPECT_EQ(r.output.rfind("kavra: ", 0), 0u) << r.output;
    }
}

}  // namespace
}  // namespace kavra::test
