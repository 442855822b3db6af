// Every kavra subcommand answers what it cannot do with one line on stderr,
// "kavra: ..." and exit status 1, and leaves no output file behind. Inputs
// that are not regular files (a directory, a FIFO nobody writes to) are
// refused before anything opens them: a FIFO would block the open for ever.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/Fixtures.h"
#include "support/Process.h"
#include "support/ScratchDir.h"

namespace kavra::test {
namespace {

struct BadCall {
    const char* label;
    std::string args;      // {OUT}: a path in the test's directory; {FIFO}: a FIFO there
    std::string mentions;  // what the line must name, if anything
};

std::string clip(const char* name) { return shellQuote(fixture(name)); }

void replace(std::string& text, const std::string& token, const std::string& by) {
    for (size_t at = text.find(token); at != std::string::npos; at = text.find(token, at + by.size())) {
        text.replace(at, token.size(), by);
    }
}

class CommandErrors : public ::testing::TestWithParam<BadCall> {};

TEST_P(CommandErrors, OneLineOnStderrExitStatusOneAndNoOutput) {
    ScratchDir dir;
    const std::string out = dir.file("out.img");
    const std::string fifo = dir.file("in.mp4");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::string args = GetParam().args;
    std::string mentions = GetParam().mentions;
    replace(args, "{OUT}", shellQuote(out));
    replace(args, "{FIFO}", shellQuote(fifo));
    replace(mentions, "{FIFO}", fifo);
    // Standard error only; bounded, so that a hang fails with status 124.
    CommandResult r = runCommand("timeout 120 " + shellQuote(kavraTool()) + " " + args + " 2>&1 >/dev/null");
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_EQ(r.output.rfind("kavra: ", 0), 0u) << r.output;
    EXPECT_EQ(r.output.find('\n'), r.output.size() - 1) << "one line: " << r.output;
    EXPECT_NE(r.output.find(mentions), std::string::npos) << r.output;
    EXPECT_NE(access(out.c_str(), F_OK), 0) << "no output is left behind";
}

const std::string kClip = clip("h264_aac.mp4");
const std::string kDamaged = clip("damaged_sample_table.mp4");

INSTANTIATE_TEST_SUITE_P(
    Cases, CommandErrors,
    ::testing::Values(
        BadCall{"ProbeMissingFile", "probe " + clip("does_not_exist.mp4"), fixture("does_not_exist.mp4")},
        BadCall{"ProbeNotMedia", "probe " + clip("random.bin"), fixture("random.bin")},
        BadCall{"ProbeNoMoov", "probe " + clip("truncated_nomoov.mp4"), fixture("truncated_nomoov.mp4")},
        BadCall{"ProbeDirectory", "probe " + shellQuote(fixtureDir()), fixtureDir()},
        BadCall{"ProbeNoArguments", "probe", ""},
        BadCall{"DecodeNotMedia", "decode " + clip("random.bin"), ""},
        BadCall{"DecodeNoMoov", "decode " + clip("truncated_nomoov.mp4"), ""},
        BadCall{"DecodeCodecForMpeg4", "decode " + clip("mpeg4.mp4") + " --video-decoder codec", ""},
        BadCall{"DecodeUnknownDecoder", "decode " + kClip + " --video-decoder magic", ""},
        BadCall{"DecodeNoArguments", "decode", ""},
        // Reads fail for ever from about 4 s on: not a success on half the file.
        BadCall{"DecodeDamaged", "decode " + kDamaged, ""},
        BadCall{"DecodeDamagedWithFFmpeg", "decode " + kDamaged + " --video-decoder ffmpeg", ""},
        BadCall{"PlayMissingFile", "play --headless --json " + clip("does_not_exist.mp4"), ""},
        BadCall{"PlayNotMedia", "play --headless --json " + clip("random.bin"), ""},
        BadCall{"PlayNoMoov", "play --headless --json " + clip("truncated_nomoov.mp4"), ""},
        BadCall{"PlayBadScript", "play --headless --json " + kClip + " --script '100 jump 5'", ""},
        BadCall{"PlayNoSuchTrack", "play --headless --json " + clip("two_audio.mp4") + " --audio-track 7", ""},
        BadCall{"ThumbsAudioOnly", "thumbs " + clip("audio_only.m4a") + " --count 3 -o {OUT}", ""},
        BadCall{"ThumbsNotMedia", "thumbs " + clip("random.bin") + " --count 3 -o {OUT}", ""},
        BadCall{"ThumbsCountZero", "thumbs " + kClip + " --count 0 -o {OUT}", ""},
        BadCall{"ThumbsCountMissing", "thumbs " + kClip + " -o {OUT}", ""},
        BadCall{"ThumbsBadSize", "thumbs " + kClip + " --count 2 --size 160 -o {OUT}", ""},
        BadCall{"ThumbsUnwritable", "thumbs " + kClip + " --count 2 -o /no/such/dir/sheet.png", ""},
        BadCall{"ThumbsOutputIsADirectory", "thumbs " + kClip + " --count 2 -o /tmp", ""},
        BadCall{"ThumbsDamaged", "thumbs " + kDamaged + " --count 10 -o {OUT}", ""},
        BadCall{"KeyframePastTheEnd", "keyframe " + kClip + " --at 10.5s -o {OUT}", ""},
        BadCall{"KeyframeBadTime", "keyframe " + kClip + " --at soon -o {OUT}", ""},
        BadCall{"SnapshotNoMoov", "snapshot " + clip("truncated_nomoov.mp4") + " --at 1s -o {OUT}", ""},
        BadCall{"SnapshotUnwritable", "snapshot " + kClip + " --at 1s -o /no/such/dir/s.jpg", ""},
        BadCall{"SnapshotNoTime", "snapshot " + kClip + " -o {OUT}", ""},
        BadCall{"SnapshotDamaged", "snapshot " + kDamaged + " --at 4.5s -o {OUT}", ""},
        BadCall{"ProbeFifo", "probe {FIFO}", "{FIFO}: not a regular file"},
        BadCall{"DecodeFifo", "decode {FIFO}", "{FIFO}: not a regular file"},
        BadCall{"PlayFifo", "play --headless --json {FIFO}", "{FIFO}: not a regular file"},
        BadCall{"ThumbsFifo", "thumbs {FIFO} --count 2 -o {OUT}", "{FIFO}: not a regular file"},
        BadCall{"KeyframeFifo", "keyframe {FIFO} --at 1s -o {OUT}", "{FIFO}: not a regular file"},
        BadCall{"SnapshotFifo", "snapshot {FIFO} --at 1s -o {OUT}", "{FIFO}: not a regular file"},
        BadCall{"TrimFifo", "trim {FIFO} {OUT} --from 1s --to 2s", "{FIFO}: not a regular file"}),
    [](const auto& info) { return std::string(info.param.label); });

}  // namespace
}  // namespace kavra::test
