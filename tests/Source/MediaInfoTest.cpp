// Probe results of every generated fixture checked against ffprobe.

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "Source/FFmpegMediaExtractor.h"
#include "support/Ffprobe.h"
#include "support/Fixtures.h"

namespace kavra::test {
namespace {

// Milliseconds as the engine computes them from ffprobe's seconds: the
// decimal text ffprobe prints is itself rounded, so allow 1 ms.
void expectMs(int actual, double seconds, const std::string& what) {
    EXPECT_NEAR(actual, std::trunc(seconds * 1000.0), 1.0) << what;
}

// The clockwise display rotation ffprobe reports, the way the engine reads
// it: a "rotate" tag wins (plain decimal parse), else the display matrix.
int expectedRotation(const Ffprobe& probe, int i) {
    std::string prefix = "streams.stream." + std::to_string(i) + ".";
    for (const char* tag : {"tags.rotate", "tags.ROTATE"}) {
        if (probe.has(prefix + tag)) {
            return atoi(probe.get(prefix + tag).c_str());
        }
    }
    for (int s = 0; s < 4; ++s) {
        std::string key = prefix + "side_data_list.side_data." + std::to_string(s) + ".rotation";
        if (probe.has(key)) {
            int ccw = static_cast<int>(std::lround(probe.number(key)));
            return ((-ccw) % 360 + 360) % 360;
        }
    }
    return 0;
}

class MediaInfoMatchesFfprobe : public ::testing::TestWithParam<const char*> {};

TEST_P(MediaInfoMatchesFfprobe, EveryStreamAndTheContainer) {
    const std::string path = fixture(GetParam());
    Ffprobe probe(path);
    ASSERT_TRUE(probe.ok()) << path;
    FFmpegMediaExtractor extractor;
    ASSERT_EQ(extractor.setSource(path.c_str()), 0);
    ASSERT_EQ(extractor.findStreamInfo(), 0);
    const MediaInfo& info = extractor.mMediaInfo;

    ASSERT_EQ(info.streamNum, probe.streamCount());
    expectMs(info.duration, probe.number("format.duration"), "container duration");
    EXPECT_EQ(info.filename, path);
    ASSERT_NE(info.format, nullptr);
    EXPECT_EQ(std::string(info.format), probe.get("format.format_long_name"));

    int videos = 0;
    int audios = 0;
    for (int i = 0; i < info.streamNum; ++i) {
        const StreamInfo& s = info.streamInfos[i];
        const std::string type = probe.stream(i, "codec_type");
        SCOPED_TRACE("stream " + std::to_string(i) + " (" + type + ")");
        if (type != "video" && type != "audio") {
            EXPECT_NE(s.mediaType, 0);
            EXPECT_NE(s.mediaType, 1);
            EXPECT_EQ(s.streamIndex, -1) << "entries of other kinds stay as initialised";
            continue;
        }
        const bool video = type == "video";
        (video ? videos : audios) += 1;
        EXPECT_EQ(s.mediaType, video ? 0 : 1);
        EXPECT_EQ(s.streamIndex, i);
        EXPECT_EQ(std::string(s.coderName), probe.stream(i, "codec_name"));
        if (video) {
            EXPECT_EQ(s.width, probe.streamNumber(i, "width"));
            EXPECT_EQ(s.height, probe.streamNumber(i, "height"));
            int num = 0, den = 0;
            ASSERT_EQ(sscanf(probe.stream(i, "avg_frame_rate").c_str(), "%d/%d", &num, &den), 2);
            EXPECT_EQ(s.frameRate, den != 0 ? num / den : 0);
            EXPECT_EQ(s.frameNum, static_cast<int>(probe.streamNumber(i, "nb_frames", 0)));
            EXPECT_EQ(s.rotation, expectedRotation(probe, i));
            if (std::string(GetParam()) == "h264_aac_rot90.mp4") {
                EXPECT_EQ(s.rotation, 90) << "the phone clip is turned a quarter clockwise";
            }
            EXPECT_EQ(s.has_b_frame, probe.streamNumber(i, "has_b_frames"));
        } else {
            EXPECT_EQ(s.samplerate, probe.streamNumber(i, "sample_rate"));
            EXPECT_EQ(s.channels, probe.streamNumber(i, "channels"));
        }
        expectMs(s.startTime, probe.streamNumber(i, "start_time"), "start time");
        if (probe.has("streams.stream." + std::to_string(i) + ".duration")) {
            expectMs(s.duration, probe.streamNumber(i, "duration"), "stream duration");
        } else {
            EXPECT_EQ(s.duration, 0);
        }
    }
    EXPECT_EQ(info.videoStreamNum, videos);
    EXPECT_EQ(info.audioStreamNum, audios);
    // The best stream of a kind is one of that kind, or -1 when there is none.
    for (int kind : {0, 1}) {
        int best = kind == 0 ? info.bestVideoStreamIndex : info.bestAudioStreamIndex;
        ASSERT_EQ(best >= 0, (kind == 0 ? videos : audios) > 0) << "kind " << kind;
        EXPECT_TRUE(best == -1 || info.streamInfos[best].mediaType == kind) << "kind " << kind;
    }
}

INSTANTIATE_TEST_SUITE_P(Fixtures, MediaInfoMatchesFfprobe,
                         ::testing::Values("h264_aac.mp4", "h264_aac_rot90.mp4", "audio_only.m4a", "video_only.mp4",
                                           "with_subtitle.mp4", "two_audio.mp4", "mpeg4.mp4", "mpeg4_bframes.mp4",
                                           "hevc.mp4", "vp9.webm", "odd_size.mp4", "late_start.ts",
                                           "bad_rotate.mkv"),
                         FixtureName());

}  // namespace
}  // namespace kavra::test
