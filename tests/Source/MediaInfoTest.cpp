// Probe results of every generated fixture checked against ffprobe, and the
// log block the record writes.

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "Source/FFmpegMediaExtractor.h"
#include "support/Ffprobe.h"
#include "support/Fixtures.h"
#include "support/LogCapture.h"

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
        if (type == "video") {
            ++videos;
            EXPECT_EQ(s.mediaType, 0);
            EXPECT_EQ(s.streamIndex, i);
            EXPECT_EQ(std::string(s.coderName), probe.stream(i, "codec_name"));
            EXPECT_EQ(s.width, probe.streamNumber(i, "width"));
            EXPECT_EQ(s.height, probe.streamNumber(i, "height"));
            int num = 0, den = 0;
            ASSERT_EQ(sscanf(probe.stream(i, "avg_frame_rate").c_str(), "%d/%d", &num, &den), 2);
            EXPECT_EQ(s.frameRate, den != 0 ? num / den : 0);
            EXPECT_EQ(s.frameNum, static_cast<int>(probe.streamNumber(i, "nb_frames", 0)));
            EXPECT_EQ(s.rotation, expectedRotation(probe, i));
            EXPECT_EQ(s.has_b_frame, probe.streamNumber(i, "has_b_frames"));
        } else if (type == "audio") {
            ++audios;
            EXPECT_EQ(s.mediaType, 1);
            EXPECT_EQ(s.streamIndex, i);
            EXPECT_EQ(std::string(s.coderName), probe.stream(i, "codec_name"));
            EXPECT_EQ(s.samplerate, probe.streamNumber(i, "sample_rate"));
            EXPECT_EQ(s.channels, probe.streamNumber(i, "channels"));
        } else {
            EXPECT_NE(s.mediaType, 0);
            EXPECT_NE(s.mediaType, 1);
            EXPECT_EQ(s.streamIndex, -1) << "entries of other kinds stay as initialised";
            continue;
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
    if (videos > 0) {
        ASSERT_GE(info.bestVideoStreamIndex, 0);
        EXPECT_EQ(info.streamInfos[info.bestVideoStreamIndex].mediaType, 0);
    } else {
        EXPECT_EQ(info.bestVideoStreamIndex, -1);
    }
    if (audios > 0) {
        ASSERT_GE(info.bestAudioStreamIndex, 0);
        EXPECT_EQ(info.streamInfos[info.bestAudioStreamIndex].mediaType, 1);
    } else {
        EXPECT_EQ(info.bestAudioStreamIndex, -1);
    }
}

INSTANTIATE_TEST_SUITE_P(Fixtures, MediaInfoMatchesFfprobe,
                         ::testing::Values("h264_aac.mp4", "h264_aac_rot90.mp4", "audio_only.m4a", "video_only.mp4",
                                           "with_subtitle.mp4", "two_audio.mp4", "mpeg4.mp4", "mpeg4_bframes.mp4",
                                           "hevc.mp4", "vp9.webm", "odd_size.mp4", "late_start.ts",
                                           "bad_rotate.mkv"),
                         [](const ::testing::TestParamInfo<const char*>& p) {
                             std::string name = p.param;
                             for (char& c : name) {
                                 if (!isalnum(static_cast<unsigned char>(c))) {
                                     c = '_';
                                 }
                             }
                             return name;
                         });

TEST(MediaInfoRotation, PhoneClipReadsNinetyAndANonNumericTagReadsZero) {
    FFmpegMediaExtractor rotated;
    ASSERT_EQ(rotated.setSource(fixture("h264_aac_rot90.mp4").c_str()), 0);
    ASSERT_EQ(rotated.findStreamInfo(), 0);
    EXPECT_EQ(rotated.mMediaInfo.streamInfos[rotated.mMediaInfo.bestVideoStreamIndex].rotation, 90);

    FFmpegMediaExtractor badTag;
    ASSERT_EQ(badTag.setSource(fixture("bad_rotate.mkv").c_str()), 0);
    ASSERT_EQ(badTag.findStreamInfo(), 0);
    EXPECT_EQ(badTag.mMediaInfo.streamInfos[badTag.mMediaInfo.bestVideoStreamIndex].rotation, 0);
}

TEST(MediaInfoRotation, LateStartIsReportedPerStream) {
    FFmpegMediaExtractor extractor;
    ASSERT_EQ(extractor.setSource(fixture("late_start.ts").c_str()), 0);
    ASSERT_EQ(extractor.findStreamInfo(), 0);
    const MediaInfo& info = extractor.mMediaInfo;
    EXPECT_GE(info.streamInfos[info.bestVideoStreamIndex].startTime, 1300);
    EXPECT_LE(info.streamInfos[info.bestVideoStreamIndex].startTime, 1600);
}

TEST(MediaInfoLog, ProbeWritesTheExactBlockAndSkipsOtherStreams) {
    const std::string path = fixture("with_subtitle.mp4");
    Ffprobe probe(path);
    LogCapture log;
    FFmpegMediaExtractor extractor;
    ASSERT_EQ(extractor.setSource(path.c_str()), 0);
    ASSERT_EQ(extractor.findStreamInfo(), 0);
    const MediaInfo& info = extractor.mMediaInfo;
    ASSERT_EQ(info.streamNum, 3);
    const StreamInfo& v = info.streamInfos[0];
    const StreamInfo& a = info.streamInfos[1];

    auto n = [](int value) { return std::to_string(value); };
    std::vector<std::string> expected = {
        "======General Info======",
        "streamNum:3",
        "videoStreamNum:1",
        "audioStreamNum:1",
        "duration:" + n(info.duration),
        "format:QuickTime / MOV",
        "filename:" + path,
        "bestAudioStreamIndex:1",
        "bestVideoStreamIndex:0",
        "======Video Stream Info======",
        "streamIndex:0",
        "frameNum:300",
        "coderName:h264",
        "startTime:0",
        "width:320",
        "height:240",
        "frameRate:30",
        "rotation:0",
        "has_b_frame:" + n(static_cast<int>(probe.streamNumber(0, "has_b_frames"))),
        "pixFormat:0",
        "duration:" + n(v.duration),
        "======Audio Stream Info======",
        "streamIndex:1",
        "coderName:aac",
        "startTime:0",
        "channels:2",
        "samplerate:44100",
        "sampleFormat:8",
        "duration:" + n(a.duration),
    };
    std::vector<std::string> infoLines;
    for (const LogCapture::Line& l : log.lines()) {
        if (l.tag == "MediaInfo" && l.priority == 4) {
            infoLines.push_back(l.message);
        }
    }
    EXPECT_EQ(infoLines, expected);
    EXPECT_NEAR(v.duration, 10000, 40);
    EXPECT_EQ(info.streamInfos[2].streamIndex, -1) << "the subtitle entry stays as initialised";
}

TEST(MediaInfoRecord, InitialValuesAndLifecycleLines) {
    LogCapture log;
    {
        MediaInfo info;
        EXPECT_EQ(info.bestVideoStreamIndex, -1);
        EXPECT_EQ(info.bestAudioStreamIndex, -1);
        EXPECT_EQ(info.streamInfos, nullptr);
        StreamInfo s;
        s.mediaType = 7;
        MediaInfo::initStreamInfo(&s);
        EXPECT_EQ(s.mediaType, 7) << "the kind is not reset";
        EXPECT_EQ(s.streamIndex, -1);
        EXPECT_EQ(s.pixFormat, -1);
        EXPECT_EQ(s.samplerate, -1);
        EXPECT_EQ(s.channels, -1);
        EXPECT_EQ(s.sampleFormat, -1);
        EXPECT_EQ(s.coderName, nullptr);
        MediaInfo::initStreamInfo(nullptr);
        MediaInfo::printStreamInfo(&s);  // neither video nor audio: nothing
        MediaInfo::printStreamInfo(nullptr);
    }
    EXPECT_EQ(log.messages("MediaInfo"), (std::vector<std::string>{"MediaInfo", "~MediaInfo"}));
}

}  // namespace
}  // namespace kavra::test
