// kavra decode FILE [--video-decoder auto|ffmpeg|codec] [--json]: decodes the
// best video and audio streams to the end through the player's pipeline
// (demux thread, decoder threads and queues) and reports frames and speed.

#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>

#include "Command.h"
#include "Decoder/FFmpegDecoder.h"
#include "Player/KavraMediaDecoder.h"
#include "ToolSupport.h"

namespace {

using Clock = std::chrono::steady_clock;
// With everything fed, a decoder that gives nothing for this long is stuck.
constexpr auto kStallLimit = std::chrono::seconds(15);

// Drains one decoder's output queue on its own thread, as a renderer does,
// counting frames until the end-of-stream record.
class Consumer {
public:
    explicit Consumer(FrameBufferQueue* queue) : mQueue(queue) {}
    ~Consumer() { finish(); }
    void start() { mThread = std::thread([this] { run(); }); }
    void finish() {
        mStop = true;
        if (mThread.joinable()) {
            mThread.join();
        }
    }
    long frames() const { return mFrames; }
    bool ended() const { return mEnded; }
    int lastPtsMs() const { return mLastPtsMs; }

private:
    void run() {
        while (!mStop) {
            int index = mQueue->dequeueOutputBufferIndex(100);
            if (index == -3) {
                // Not made yet (the codec decoder makes its slots on its own
                // thread), or stopped.
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                continue;
            }
            if (index < 0) {
                continue;
            }
            const FrameBuffer* buffer = mQueue->getBuffer(index);
            bool end = buffer->size == 0;
            int ptsMs = buffer->ptsMs;
            mQueue->releaseOutputBuffer();
            if (end) {
                mEnded = true;
                return;
            }
            mLastPtsMs = ptsMs;
            mFrames += 1;
        }
    }

    FrameBufferQueue* mQueue;
    std::thread mThread;
    std::atomic<bool> mStop{false};
    std::atomic<bool> mEnded{false};
    std::atomic<long> mFrames{0};
    std::atomic<int> mLastPtsMs{0};
};

// The player's pipeline with the video decoder the user chose: "ffmpeg"
// forces the software decoder, otherwise H.264 goes to the codec decoder as
// in the player.
class ChosenMediaDecoder : public KavraMediaDecoder {
public:
    explicit ChosenMediaDecoder(bool software) : mSoftware(software) {}

protected:
    std::unique_ptr<Decoder> newVideoDecoder(const char* codecName) override {
        if (mSoftware) {
            return std::unique_ptr<Decoder>(new FFmpegDecoder());
        }
        return KavraMediaDecoder::newVideoDecoder(codecName);
    }

private:
    bool mSoftware;
};

std::string streamText(const char* kind, int index, const std::string& codecName) {
    return std::string(kind) + " stream #" + std::to_string(index) + " (" + codecName + ")";
}

int runDecode(const std::vector<std::string>& args) {
    tool::Arguments a;
    std::string error;
    if (!tool::parseArguments(args, {"--video-decoder"}, {"--json"}, &a, &error)) {
        return tool::fail("decode", error);
    }
    if (a.positional.size() != 1) {
        return tool::fail("decode", "expected exactly one FILE");
    }
    std::string choice = a.get("--video-decoder", "auto");
    if (choice != "auto" && choice != "ffmpeg" && choice != "codec") {
        return tool::fail("decode", "--video-decoder must be auto, ffmpeg or codec");
    }
    const std::string& path = a.positional[0];
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        return tool::fail(path, "is a directory");
    }

    // The whole pipeline, as the player runs it: the demux thread feeding
    // the decoders' threads through their queues, back-pressure and end of
    // stream included; this command only stands in for the renderers.
    ChosenMediaDecoder pipeline(choice == "ffmpeg");
    int ret = pipeline.setDataSource(path.c_str());
    if (ret < 0) {
        return tool::fail(path, tool::ffmpegError(ret));
    }
    ret = pipeline.prepare();
    if (ret < 0) {
        return tool::fail(path, "no stream information: " + tool::ffmpegError(ret));
    }
    const MediaInfo info = pipeline.getMediaInfo();
    const int videoIndex = pipeline.getCurrentVideoStreamIndex();
    const int audioIndex = pipeline.getCurrentAudioStreamIndex();
    if (videoIndex < 0 && audioIndex < 0) {
        return tool::fail(path, "no video or audio stream");
    }
    // Copied: the stream records go with the pipeline's release.
    auto codecOf = [&](int index) -> std::string {
        const char* name = index >= 0 && index < info.streamNum && info.streamInfos != nullptr
                               ? info.streamInfos[index].coderName
                               : nullptr;
        return name != nullptr ? name : "?";
    };
    const std::string videoCodec = codecOf(videoIndex);
    const std::string audioCodec = codecOf(audioIndex);
    std::string videoDecoderName = "none";
    if (videoIndex >= 0) {
        // The pipeline's own rule: the codec decoder for "h264" only.
        bool h264 = videoCodec == "h264";
        if (choice == "codec" && !h264) {
            return tool::fail(path, "the codec decoder takes only h264 video, not " + videoCodec);
        }
        videoDecoderName = h264 && choice != "ffmpeg" ? "codec" : "ffmpeg";
        if (pipeline.selectVideoStream(videoIndex) != 0) {
            return tool::fail(path, "cannot decode " + streamText("video", videoIndex, videoCodec));
        }
    }
    if (audioIndex >= 0 && pipeline.selectAudioStream(audioIndex) != 0) {
        return tool::fail(path, "cannot decode " + streamText("audio", audioIndex, audioCodec));
    }

    std::unique_ptr<Consumer> video;
    std::unique_ptr<Consumer> audio;
    if (videoIndex >= 0) {
        video.reset(new Consumer(pipeline.getVideoOutputQueue()));
        video->start();
    }
    if (audioIndex >= 0) {
        audio.reset(new Consumer(pipeline.getAudioOutputQueue()));
        audio->start();
    }
    auto startTime = Clock::now();
    pipeline.start();

    // Wait for every end-of-stream record, giving up on a pipeline that
    // stops making progress.
    tool::Progress progress("decode");
    Consumer* paced = video ? video.get() : audio.get();
    bool stalled = false;
    long lastTotal = -1;
    auto lastProgress = Clock::now();
    for (;;) {
        bool allEnded = true;
        long total = 0;
        for (Consumer* consumer : {video.get(), audio.get()}) {
            if (consumer != nullptr) {
                allEnded = allEnded && consumer->ended();
                total += consumer->frames();
            }
        }
        if (allEnded) {
            break;
        }
        if (info.duration > 0) {
            long long percent = static_cast<long long>(paced->lastPtsMs()) * 100 / info.duration;
            progress.update(static_cast<int>(std::max(0LL, std::min(100LL, percent))));
        }
        if (total != lastTotal) {
            lastTotal = total;
            lastProgress = Clock::now();
        } else if (Clock::now() - lastProgress > kStallLimit) {
            stalled = true;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    double seconds = std::chrono::duration<double>(Clock::now() - startTime).count();
    progress.finish();
    pipeline.stop();
    for (Consumer* consumer : {video.get(), audio.get()}) {
        if (consumer != nullptr) {
            consumer->finish();
        }
    }
    const bool damaged = pipeline.isInputDamaged();
    pipeline.release();
    if (stalled) {
        return tool::fail(path, "decoding stalled");
    }
    if (damaged) {
        return tool::failDamaged(path);
    }
    if (video && video->frames() == 0) {
        return tool::fail(path, "no frame decoded from " + streamText("video", videoIndex, videoCodec));
    }
    if (audio && audio->frames() == 0) {
        return tool::fail(path, "no frame decoded from " + streamText("audio", audioIndex, audioCodec));
    }

    long videoFrames = video ? video->frames() : 0;
    long audioFrames = audio ? audio->frames() : 0;
    double fps = seconds > 0 ? videoFrames / seconds : 0.0;
    if (a.has("--json")) {
        tool::Json j;
        j.beginObject();
        j.field("video_frames", static_cast<long long>(videoFrames));
        j.field("audio_frames", static_cast<long long>(audioFrames));
        j.field("seconds", seconds);
        j.field("video_fps", fps);
        j.field("video_decoder", videoDecoderName);
        j.endObject();
        printf("%s\n", j.str().c_str());
    } else {
        printf("%s\n", path.c_str());
        if (video) {
            printf("  video #%d: %ld frames (%s decoder), %.1f frames/s\n", videoIndex, videoFrames,
                   videoDecoderName.c_str(), fps);
        }
        if (audio) {
            printf("  audio #%d: %ld frames\n", audioIndex, audioFrames);
        }
        printf("  time: %.3f s\n", seconds);
    }
    return 0;
}

}  // namespace

KAVRA_COMMAND("decode", "FILE [--video-decoder auto|ffmpeg|codec] [--json]",
              "decode the best video and audio streams to the end and report frames and speed "
              "(auto, the default, uses the codec decoder for h264 as the player does)",
              runDecode);
