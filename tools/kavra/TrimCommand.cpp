// kavra trim IN OUT --from TIME --to TIME [--cut] [--keep-codec] [--json]:
// keeps the range (or, with --cut, removes it and joins the rest) into a new
// MP4 file. --keep-codec keeps an H.264 or HEVC video's codec, re-encoding only the
// frames next to the cuts.
// TIMEs are in the file's own timeline, as for every command; the trimmer
// counts from the first video timestamp, so they are converted here.
//
// The file is written under a temporary name next to OUT and renamed when it
// is complete, so OUT never names a half-written file; on any failure the
// temporary file is removed.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

extern "C" {
#include <libavformat/avformat.h>
}

#include "Command.h"
#include "ToolSupport.h"
#include "trimmer/TrimProgressListener.h"
#include "trimmer/VideoTrimer.h"

namespace {

// The temporary file, for removal when the tool is interrupted.
char gTempPath[4096];
volatile sig_atomic_t gTempActive = 0;

void removeTempAndExit(int sig) {
    if (gTempActive) {
        unlink(gTempPath);
    }
    signal(sig, SIG_DFL);
    raise(sig);
}

class TempFile {
public:
    ~TempFile() { remove(); }
    bool create(const std::string& finalPath, std::string* error) {
        size_t slash = finalPath.rfind('/');
        std::string dir = slash == std::string::npos ? "." : finalPath.substr(0, slash == 0 ? 1 : slash);
        std::string base = slash == std::string::npos ? finalPath : finalPath.substr(slash + 1);
        std::string pattern = dir + (dir == "/" ? "" : "/") + "." + base + ".kavra-XXXXXX";
        if (pattern.size() >= sizeof(gTempPath)) {
            *error = "path too long";
            return false;
        }
        memcpy(gTempPath, pattern.c_str(), pattern.size() + 1);
        int fd = mkstemp(gTempPath);
        if (fd < 0) {
            *error = strerror(errno);
            return false;
        }
        gTempActive = 1;
        // The finished file gets the permissions a newly created file would.
        mode_t mask = umask(0);
        umask(mask);
        fchmod(fd, 0666 & ~mask);
        close(fd);
        mPath = gTempPath;
        return true;
    }
    const std::string& path() const { return mPath; }
    bool commit(const std::string& finalPath, std::string* error) {
        if (rename(mPath.c_str(), finalPath.c_str()) != 0) {
            *error = strerror(errno);
            return false;
        }
        gTempActive = 0;
        mPath.clear();
        return true;
    }
    void remove() {
        if (!mPath.empty()) {
            unlink(mPath.c_str());
            gTempActive = 0;
            mPath.clear();
        }
    }

private:
    std::string mPath;
};

class ProgressLine : public TrimProgressListener {
public:
    explicit ProgressLine(tool::Progress* progress) : mProgress(progress) {}
    void onTrimProgress(int percent) override { mProgress->update(percent); }

private:
    tool::Progress* mProgress;
};

// Microseconds as milliseconds, for messages: whole when they are whole.
std::string msText(long long us) {
    char text[32];
    if (us % 1000 == 0) {
        snprintf(text, sizeof(text), "%lld", us / 1000);
    } else {
        snprintf(text, sizeof(text), "%.3f", static_cast<double>(us) / 1000.0);
    }
    return text;
}

std::string prepareError(int code) {
    switch (code) {
    case -1: return "cannot open the input";
    case -2: return "no stream information in the input";
    case -3: return "no decodable video stream in the input";
    case -4: return "cannot open the video decoder";
    case -5: return "cannot create the output";
    case -6: return "no MPEG-4 encoder";
    case -7: return "cannot open the MPEG-4 encoder";
    case -8: return "cannot copy the audio stream";
    case -9: return "the output cannot hold these streams";
    default: return "error " + std::to_string(code);
    }
}

int runTrim(const std::vector<std::string>& args) {
    tool::Arguments a;
    std::string error;
    if (!tool::parseArguments(args, {"--from", "--to"}, {"--cut", "--keep-codec", "--json"}, &a, &error)) {
        return tool::fail("trim", error);
    }
    if (a.positional.size() != 2) {
        return tool::fail("trim", "expected IN and OUT");
    }
    if (!a.has("--from") || !a.has("--to")) {
        return tool::fail("trim", "--from and --to are required");
    }
    const std::string& input = a.positional[0];
    const std::string& output = a.positional[1];
    // Times are read in the file's own timeline, to the microsecond.
    long long fromUs = 0;
    long long toUs = 0;
    if (!tool::parseTimeUs(a.get("--from"), &fromUs)) {
        return tool::fail("trim", "bad time '" + a.get("--from") + "'");
    }
    if (!tool::parseTimeUs(a.get("--to"), &toUs)) {
        return tool::fail("trim", "bad time '" + a.get("--to") + "'");
    }
    if (toUs <= fromUs) {
        return tool::fail("trim", "the end (" + msText(toUs) + " ms) is not after the start (" + msText(fromUs) +
                                      " ms)");
    }
    if (!tool::checkInput(input, &error)) {
        return tool::fail(input, error);
    }
    struct stat st;
    if (stat(output.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        return tool::fail(output, "is a directory");
    }

    TempFile temp;
    if (!temp.create(output, &error)) {
        return tool::fail(output, error);
    }
    signal(SIGINT, removeTempAndExit);
    signal(SIGTERM, removeTempAndExit);

    bool cut = a.has("--cut");
    int64_t copied = 0;
    int64_t encoded = 0;
    int64_t audio = 0;
    bool copies = false;
    long long outMs = 0;
    std::string codec;
    std::vector<VideoTrimer::PartCounts> parts;
    {
        // The input is opened once, by the trimmer; the range is checked
        // against what it found.
        VideoTrimer trimer(input.c_str(), temp.path().c_str());
        trimer.setKeepVideoCodec(a.has("--keep-codec"));
        int ret = trimer.prepare();
        if (ret != 0) {
            return tool::fail(ret == -5 ? output : input, prepareError(ret));
        }
        const int64_t durationUs = trimer.inputDurationUs();
        if (durationUs != AV_NOPTS_VALUE) {
            const int64_t startUs = trimer.inputStartUs() != AV_NOPTS_VALUE ? trimer.inputStartUs() : 0;
            const int64_t endUs = startUs + durationUs;
            if (fromUs >= endUs || toUs > endUs) {
                return tool::fail("trim", "the range " + msText(fromUs) + "-" + msText(toUs) +
                                              " ms is outside the file (" + msText(startUs) + "-" + msText(endUs) +
                                              " ms)");
            }
        }
        // The trimmer counts from the first video timestamp.
        const int64_t originUs = trimer.videoOriginUs();
        trimer.setTrimParam(fromUs - originUs, toUs - originUs);
        tool::Progress progress(cut ? "cutting" : "trimming");
        ProgressLine listener(&progress);
        trimer.setProgressListener(&listener);
        copies = trimer.copiesVideo();
        ret = trimer.startTrim(cut ? 1 : 0);
        progress.finish();
        if (ret < 0) {
            return tool::fail(output, "writing failed: " + tool::ffmpegError(ret));
        }
        if (trimer.isInputDamaged()) {
            // Reading stopped at damage inside the range: the result would
            // be short, so it is not kept.
            return tool::failDamaged(input);
        }
        copied = trimer.videoFramesCopied();
        encoded = trimer.videoFramesEncoded();
        audio = trimer.audioPacketsWritten();
        outMs = trimer.outputDurationUs() / 1000;
        codec = trimer.videoCodecName();
        parts = trimer.partCounts();
        trimer.release();
    }
    if (copied + encoded == 0) {
        return tool::fail("trim", "no video frame in the result");
    }
    if (!temp.commit(output, &error)) {
        return tool::fail(output, error);
    }

    if (a.has("--json")) {
        tool::Json j;
        j.beginObject();
        j.field("output", output);
        j.field("mode", std::string(cut ? "cut" : "keep"));
        j.field("output_ms", outMs);
        j.field("video_frames_copied", static_cast<long long>(copied));
        j.field("video_frames_encoded", static_cast<long long>(encoded));
        j.field("audio_packets", static_cast<long long>(audio));
        if (a.has("--keep-codec")) {
            j.field("video_codec", codec);
            j.beginArray("parts");
            for (const VideoTrimer::PartCounts& part : parts) {
                j.beginObject();
                j.field("frames_copied", static_cast<long long>(part.copied));
                j.field("frames_encoded", static_cast<long long>(part.encoded));
                j.endObject();
            }
            j.endArray();
        }
        j.endObject();
        printf("%s\n", j.str().c_str());
    } else {
        printf("%s: %lld ms\n", output.c_str(), outMs);
        printf("  video: %lld frames copied, %lld re-encoded%s\n", static_cast<long long>(copied),
               static_cast<long long>(encoded), copies ? "" : " (input cannot be copied: every frame re-encoded)");
        printf("  audio: %lld packets copied\n", static_cast<long long>(audio));
    }
    return 0;
}

}  // namespace

KAVRA_COMMAND("trim", "IN OUT --from TIME --to TIME [--cut] [--keep-codec] [--json]",
              "keep the range FROM-TO of a video (or with --cut remove it) into a new MP4 file", runTrim);
