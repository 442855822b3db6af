#pragma once

#include <cctype>
#include <string>

namespace kavra::test {

// Generated test media (tests/fixtures/make_fixtures.sh), by file name:
//   h264_aac.mp4        H.264 (B-frames) + AAC, 320x240, 30 fps, 300 frames,
//                       key frame every 30, audio burst at each whole second
//   h264_aac_rot90.mp4  the same with a 90 degree display rotation
//   audio_only.m4a, video_only.mp4, with_subtitle.mp4 (mov_text as #2),
//   two_audio.mp4 (440 Hz #1, 880 Hz #2), mpeg4.mp4 (no B-frames),
//   mpeg4_bframes.mp4, hevc.mp4, vp9.webm, odd_size.mp4 (MPEG-4, 321x241),
//   late_start.ts (starts near 1.4 s), bad_rotate.mkv (tag ROTATE=abc),
//   truncated.mp4, truncated_nomoov.mp4, random.bin,
//   h264_422.mp4 (H.264 4:2:2, no audio, 60 frames),
//   h264_8192x8192.mp4 (one flat H.264 picture of 8192x8192, no index band),
//   short_h264_aac.mp4 (the h264_aac.mp4 recipe, 2 s, 60 frames),
//   short_video_only.mp4 (its video), short_damaged.mp4 (16 KiB of noise
//   over its middle)
// Every video frame shows its index in binary (see FrameIndex.h).
inline std::string fixtureDir() { return KAVRA_FIXTURE_DIR; }
inline std::string fixture(const std::string& name) { return fixtureDir() + "/" + name; }

// A test name for a fixture ("h264_aac.mp4" gives "h264_aac_mp4"), for
// INSTANTIATE_TEST_SUITE_P over fixture names or over structs whose first
// member is the name.
inline std::string testName(std::string name) {
    for (char& c : name) {
        if (!isalnum(static_cast<unsigned char>(c))) {
            c = '_';
        }
    }
    return name;
}
struct FixtureName {
    template <typename Info>
    std::string operator()(const Info& info) const {
        return testName(nameOf(info.param));
    }
    static std::string nameOf(const char* name) { return name; }
    template <typename Param>
    static std::string nameOf(const Param& param) {
        return param.name;
    }
};

}  // namespace kavra::test
