// kavra decode FILE [--video-decoder auto|ffmpeg|codec] [--json]: decodes the
// best video and audio streams to the end through the engine's decoders,
// their threads and queues, and reports frames and speed.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <thread>

#include "Command.h"
#include "Common/FFmpegPtr.h"
#include "Decoder/FFmpegDecoder.h"
#include "Decoder/MediaCodecVideoDecoder.h"
#include "Source/FFmpegMediaExtractor.h"
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

private:
    void run() {
        while (!mStop) {
            int index = mQueue->dequeueOutputBufferIndex(100);
            if (index == -3) {
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
                continue;
            }
            if (index < 0) {
                continue;
            }
            bool end = mQueue->getBuffer(index)->size == 0;
            mQueue->releaseOutputBuffer();
            if (end) {
                mEnded = true;
                return;
            }
            mFrames += 1;
        }
    }

    FrameBufferQueue* mQueue;
    std::thread mThread;
    std::atomic<bool> mStop{false};
    std::atomic<bool> mEnded{false};
    std::atomic<long> mFrames{0};
};

// One decoded stream: its decoder, consumer and what was fed.
struct Lane {
    int index = -1;
    std::unique_ptr<Decoder> decoder;
    std::unique_ptr<Consumer> consumer;
    long packets = 0;
    bool refused = false;
};

// Hands a packet (null: the end of the stream) over, retrying while the
// decoder's input queue is full.
bool feed(Lane& lane, AVPacket* pkt) {
    for (;;) {
        int ret = lane.decoder->queueInputBuffer(pkt, 5);
        if (ret == 0) {
            return true;
        }
        if (ret != -2) {
            if (pkt != nullptr) {
                av_packet_unref(pkt);
            }
            return false;
        }
    }
}

std::string streamText(const char* kind, int index, const AVStream* st) {
    return std::string(kind) + " stream #" + std::to_string(index) + " (" + avcodec_get_name(st->codecpar->codec_id) +
           ")";
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
    FFmpegMediaExtractor extractor;
    if (!tool::openMedia(path, &extractor)) {
        return 1;
    }

    Lane video;
    Lane audio;
    video.index = extractor.mMediaInfo.bestVideoStreamIndex;
    audio.index = extractor.mMediaInfo.bestAudioStreamIndex;
    if (video.index < 0 && audio.index < 0) {
        return tool::fail(path, "no video or audio stream");
    }
    std::string videoDecoderName = "none";
    if (video.index >= 0) {
        AVStream* vs = extractor.getStream(video.index);
        bool h264 = vs->codecpar->codec_id == AV_CODEC_ID_H264;
        if (choice == "codec" && !h264) {
            return tool::fail(path, "the codec decoder takes only h264 video, not " +
                                        std::string(avcodec_get_name(vs->codecpar->codec_id)));
        }
        // As the player does: H.264 goes to the media codec.
        bool useCodec = choice == "codec" || (choice == "auto" && h264);
        videoDecoderName = useCodec ? "codec" : "ffmpeg";
        video.decoder.reset(useCodec ? static_cast<Decoder*>(new MediaCodecVideoDecoder())
                                     : static_cast<Decoder*>(new FFmpegDecoder()));
        if (video.decoder->create(vs) != 0) {
            return tool::fail(path, "cannot decode " + streamText("video", video.index, vs));
        }
    }
    if (audio.index >= 0) {
        AVStream* as = extractor.getStream(audio.index);
        audio.decoder.reset(new FFmpegDecoder());
        if (audio.decoder->create(as) != 0) {
            return tool::fail(path, "cannot decode " + streamText("audio", audio.index, as));
        }
    }

    Lane* lanes[2] = {&video, &audio};
    auto startTime = Clock::now();
    for (Lane* lane : lanes) {
        if (lane->decoder == nullptr) {
            continue;
        }
        lane->consumer.reset(new Consumer(lane->decoder->getOutputQueue()));
        lane->consumer->start();
        if (lane->decoder->start() != 0) {
            return tool::fail(path, "cannot start the decoder of stream #" + std::to_string(lane->index));
        }
    }

    struct stat st;
    long long fileSize = stat(path.c_str(), &st) == 0 ? st.st_size : 0;
    tool::Progress progress("decode");
    kavra::ScopedAVPacket pkt = kavra::makeScopedAVPacket();
    // A read that keeps failing without reaching the end is given up.
    int emptyReads = 0;
    while (extractor.readFrame(pkt.get()) == 0) {
        if (pkt->size == 0) {
            av_packet_unref(pkt.get());
            if (++emptyReads > 1000) {
                break;
            }
            continue;
        }
        emptyReads = 0;
        if (fileSize > 0 && pkt->pos >= 0) {
            progress.update(static_cast<int>(pkt->pos * 100 / fileSize));
        }
        Lane* lane = pkt->stream_index == video.index ? &video : pkt->stream_index == audio.index ? &audio : nullptr;
        if (lane == nullptr || lane->decoder == nullptr || lane->refused) {
            av_packet_unref(pkt.get());
            continue;
        }
        lane->packets += 1;
        if (!feed(*lane, pkt.get())) {
            lane->refused = true;
        }
    }
    for (Lane* lane : lanes) {
        if (lane->decoder != nullptr && !lane->refused) {
            feed(*lane, nullptr);
        }
    }

    // Wait for every end-of-stream record, giving up on a decoder that
    // stops making progress.
    bool stalled = false;
    long lastTotal = -1;
    auto lastProgress = Clock::now();
    for (;;) {
        bool allEnded = true;
        long total = 0;
        for (Lane* lane : lanes) {
            if (lane->consumer != nullptr) {
                allEnded = allEnded && lane->consumer->ended();
                total += lane->consumer->frames();
            }
        }
        if (allEnded) {
            break;
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
    for (Lane* lane : lanes) {
        if (lane->decoder != nullptr) {
            lane->decoder->stop();
            lane->consumer->finish();
            lane->decoder->release();
        }
    }
    if (stalled) {
        return tool::fail(path, "decoding stalled");
    }
    for (Lane* lane : lanes) {
        if (lane->decoder != nullptr && lane->packets > 0 && lane->consumer->frames() == 0) {
            const char* kind = lane == &video ? "video" : "audio";
            return tool::fail(path, "no frame decoded from " + streamText(kind, lane->index, extractor.getStream(lane->index)));
        }
    }

    long videoFrames = video.consumer != nullptr ? video.consumer->frames() : 0;
    long audioFrames = audio.consumer != nullptr ? audio.consumer->frames() : 0;
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
        if (video.decoder != nullptr) {
            printf("  video #%d: %ld frames (%s decoder), %.1f frames/s\n", video.index, videoFrames,
                   videoDecoderName.c_str(), fps);
        }
        if (audio.decoder != nullptr) {
            printf("  audio #%d: %ld frames\n", audio.index, audioFrames);
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
