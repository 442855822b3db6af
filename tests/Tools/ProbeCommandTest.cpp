// kavra probe: its JSON against ffprobe, and its text.

#include <gtest/gtest.h>

#include "ToolJson.h"
#include "support/Ffprobe.h"
#include "support/Fixtures.h"
#include "support/Process.h"

namespace kavra::test {
namespace {

CommandResult probe(const std::string& args) { return runCommand(shellQuote(kavraTool()) + " probe " + args + " 2>&1"); }

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

}  // namespace
}  // namespace kavra::test
