// Steady-state cost of the playback path: packets from the demux thread
// through the video decoder, the render manager and the video renderer into
// an in-memory window, against a plain decode-only loop on the same clip.
//
// Reported per frame: process CPU time (all threads), and heap allocations
// counted by AllocationCounter, attributed to the engine function on
// the allocating stack and the library that allocated.

#include <android/log.h>
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "Common/FFmpegPtr.h"
#include "MemoryNativeWindow.h"
#include "Player/KavraMediaDecoder.h"
#include "Render/RenderManager.h"

#include "AllocationCounter.h"

using benchalloc::Counts;
using benchalloc::kOwnerCount;
using benchalloc::kOwnerCounters;

namespace {

constexpr int kWarmupFrames = 30;
constexpr int kMeasuredFrames = 300;

std::string clipPath() { return std::string(KAVRA_FIXTURE_DIR) + "/bench_1080p.mp4"; }

double processCpuSeconds() {
    struct timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

struct RunResult {
    bool ok = false;
    std::string error;
    double cpuSeconds = 0.0;
    int frames = 0;
    Counts counts;
};

// Reads and decodes the video stream with plain FFmpeg calls.
RunResult decodeOnly() {
    RunResult result;
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, clipPath().c_str(), nullptr, nullptr) < 0) {
        result.error = "cannot open " + clipPath();
        return result;
    }
    kavra::ScopedAVInputContext input(raw);
    avformat_find_stream_info(input.get(), nullptr);
    int index = av_find_best_stream(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (index < 0) {
        result.error = "no video stream";
        return result;
    }
    const AVCodec* codec = avcodec_find_decoder(input->streams[index]->codecpar->codec_id);
    kavra::ScopedAVCodecContext ctx(avcodec_alloc_context3(codec));
    avcodec_parameters_to_context(ctx.get(), input->streams[index]->codecpar);
    if (avcodec_open2(ctx.get(), codec, nullptr) < 0) {
        result.error = "cannot open the decoder";
        return result;
    }
    kavra::ScopedAVPacket packet = kavra::makeScopedAVPacket();
    kavra::ScopedAVFrame frame = kavra::makeScopedAVFrame();
    int decoded = 0;
    double start = 0.0;
    while (decoded < kWarmupFrames + kMeasuredFrames && av_read_frame(input.get(), packet.get()) >= 0) {
        if (packet->stream_index == index && avcodec_send_packet(ctx.get(), packet.get()) >= 0) {
            while (avcodec_receive_frame(ctx.get(), frame.get()) >= 0) {
                av_frame_unref(frame.get());
                if (++decoded == kWarmupFrames) {
                    benchalloc::start();
                    start = processCpuSeconds();
                }
            }
        }
        av_packet_unref(packet.get());
    }
    benchalloc::stop();
    result.cpuSeconds = processCpuSeconds() - start;
    result.frames = decoded - kWarmupFrames;
    result.counts = benchalloc::take();
    result.ok = result.frames == kMeasuredFrames;
    if (!result.ok) {
        result.error = "the clip is too short";
    }
    return result;
}

// The engine's path: demux thread, decoder thread, a render loop on this
// thread handing each frame to the render manager, the presentation thread.
RunResult pipeline() {
    RunResult result;
    KavraMediaDecoder decoder;
    if (decoder.setDataSource(clipPath().c_str()) != 0 || decoder.prepare() != 0 ||
        decoder.selectVideoStream(0) != 0) {
        result.error = "cannot open the clip";
        return result;
    }
    auto window = std::make_shared<MemoryNativeWindow>();
    // Keep only the newest buffers: the window recycles the rest.
    window->setKeepLimit(2);
    RenderManager manager;
    manager.setVideoPlay(window, 0);
    decoder.start();
    FrameBufferQueue* queue = decoder.getVideoOutputQueue();
    VideoRender* render = manager.getVideoRender();

    int handed = 0;
    double start = 0.0;
    uint64_t queuedAtStart = 0;
    while (handed < kWarmupFrames + kMeasuredFrames) {
        int index = queue->dequeueOutputBufferIndex(30);
        if (index == -2 || index == -3) {
            // Not made yet (the codec has not reported its format) or busy.
            continue;
        }
        FrameBuffer* frame = queue->getBuffer(index);
        if (frame->size == 0) {
            queue->releaseOutputBuffer();
            break;
        }
        // As a render thread does outside clock-paced playback; a frame
        // the presentation thread was too busy for is handed again.
        for (int attempt = 0; attempt < 1000; ++attempt) {
            int dropped = render->getDroppedFrames();
            manager.renderFrame(frame, RenderManager::kStreamVideo);
            if (render->getDroppedFrames() == dropped) {
                break;
            }
        }
        queue->releaseOutputBuffer();
        ++handed;
        // Each frame is presented before the next is handed over.
        window->waitForQueued(static_cast<uint64_t>(handed), 5000);
        if (handed == kWarmupFrames) {
            benchalloc::start();
            queuedAtStart = window->queuedCount();
            start = processCpuSeconds();
        }
    }
    benchalloc::stop();
    result.cpuSeconds = processCpuSeconds() - start;
    result.frames = static_cast<int>(window->queuedCount() - queuedAtStart);
    result.counts = benchalloc::take();
    decoder.stop();
    decoder.release();
    result.ok = handed == kWarmupFrames + kMeasuredFrames;
    if (!result.ok) {
        result.error = "the pipeline ended early";
    }
    return result;
}

void dropLogLine(const struct __android_logger_data* /*data*/, const char* /*message*/) {}

void BM_PlaybackPathAgainstDecodeOnly(benchmark::State& state) {
    __android_log_set_logger(dropLogLine);
    benchalloc::prime();
    for (auto _ : state) {
        RunResult reference = decodeOnly();
        if (!reference.ok) {
            state.SkipWithError(reference.error.c_str());
            return;
        }
        RunResult engine = pipeline();
        if (!engine.ok || engine.frames < 1) {
            state.SkipWithError(engine.error.c_str());
            return;
        }
        double refMs = reference.cpuSeconds * 1000.0 / reference.frames;
        double engineMs = engine.cpuSeconds * 1000.0 / engine.frames;
        state.counters["decode_only_cpu_ms_per_frame"] = refMs;
        state.counters["pipeline_cpu_ms_per_presented_frame"] = engineMs;
        state.counters["cpu_ratio_pipeline_to_decode_only"] = engineMs / refMs;
        state.counters["presented_frames"] = engine.frames;
        state.counters["decode_only_allocs_per_frame"] =
            static_cast<double>(reference.counts.total) / reference.frames;
        state.counters["pipeline_allocs_per_frame"] = static_cast<double>(engine.counts.total) / kMeasuredFrames;
        for (int owner = 0; owner < kOwnerCount; ++owner) {
            state.counters[kOwnerCounters[owner]] = static_cast<double>(engine.counts.byOwner[owner]) / kMeasuredFrames;
        }
        benchalloc::printSites("decode-only loop", reference.counts, reference.frames);
        benchalloc::printSites("pipeline", engine.counts, kMeasuredFrames);
    }
}

BENCHMARK(BM_PlaybackPathAgainstDecodeOnly)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
