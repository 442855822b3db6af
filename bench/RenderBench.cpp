// Steady-state cost of the playback path: packets from the demux thread
// through the video decoder, the render manager and the video renderer into
// an in-memory window, against a plain decode-only loop on the same clip.
//
// Reported per frame: process CPU time (all threads), and heap allocations
// counted by a hook in this program, attributed to the engine function on
// the allocating stack and the library that allocated.

#include <android/log.h>
#include <benchmark/benchmark.h>
#include <cxxabi.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

// ---- Allocation hook -------------------------------------------------------

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* p, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* p);
}

namespace {

// Libraries an allocation is attributed to.
enum Library { kLibOther, kLibEngine, kLibAvcodec, kLibAvformat, kLibAvutil, kLibSws, kLibBench, kLibCount };
const char* const kLibraryNames[kLibCount] = {"other", "engine", "libavcodec", "libavformat",
                                              "libavutil", "libsw*", "bench"};

std::atomic<bool> gCounting{false};
std::atomic<uint64_t> gAllocations{0};
thread_local bool tInHook = false;

// Which library a code address belongs to; cached per address.
constexpr size_t kPcSlots = 16384;
std::atomic<uintptr_t> gPcKeys[kPcSlots];
std::atomic<int> gPcLibrary[kPcSlots];

Library classifyPath(const char* path) {
    if (path == nullptr) {
        return kLibOther;
    }
    if (strstr(path, "libkavra_gallery_player") != nullptr) return kLibEngine;
    if (strstr(path, "libavcodec") != nullptr) return kLibAvcodec;
    if (strstr(path, "libavformat") != nullptr) return kLibAvformat;
    if (strstr(path, "libavutil") != nullptr) return kLibAvutil;
    if (strstr(path, "libswscale") != nullptr || strstr(path, "libswresample") != nullptr) return kLibSws;
    if (strstr(path, "renderbench") != nullptr) return kLibBench;
    return kLibOther;  // libc, libstdc++, ...
}

Library libraryOf(uintptr_t pc) {
    size_t slot = (pc >> 4) % kPcSlots;
    for (size_t probe = 0; probe < kPcSlots; ++probe, slot = (slot + 1) % kPcSlots) {
        uintptr_t key = gPcKeys[slot].load();
        if (key == pc) {
            return static_cast<Library>(gPcLibrary[slot].load());
        }
        if (key == 0) {
            Dl_info info;
            Library lib = dladdr(reinterpret_cast<void*>(pc), &info) != 0 ? classifyPath(info.dli_fname) : kLibOther;
            uintptr_t expected = 0;
            if (gPcKeys[slot].compare_exchange_strong(expected, pc) || expected == pc) {
                gPcLibrary[slot].store(lib);
            }
            return lib;
        }
    }
    return kLibOther;
}

// One row of the attribution: the innermost engine function on the stack
// (0: none) and the innermost FFmpeg library below it (or the engine).
struct Site {
    std::atomic<uintptr_t> key{0};
    std::atomic<uint64_t> count{0};
};
constexpr size_t kSiteSlots = 1024;
Site gSites[kSiteSlots];

void recordSite(uintptr_t engineFunction, Library allocator) {
    uintptr_t key = (engineFunction << 3) | static_cast<uintptr_t>(allocator);
    if (key == 0) {
        key = kLibOther;
    }
    size_t slot = (key >> 3) % kSiteSlots;
    for (size_t probe = 0; probe < kSiteSlots; ++probe, slot = (slot + 1) % kSiteSlots) {
        uintptr_t current = gSites[slot].key.load();
        if (current == 0) {
            uintptr_t expected = 0;
            if (!gSites[slot].key.compare_exchange_strong(expected, key) && expected != key) {
                continue;
            }
            current = key;
        }
        if (current == key) {
            gSites[slot].count += 1;
            return;
        }
    }
}

void countAllocation() {
    if (!gCounting.load(std::memory_order_relaxed) || tInHook) {
        return;
    }
    tInHook = true;
    gAllocations += 1;
    void* frames[48];
    int depth = backtrace(frames, 48);
    Library allocator = kLibOther;
    uintptr_t engineFunction = 0;
    // Frame 0 is this hook's caller in this program.
    for (int i = 1; i < depth; ++i) {
        uintptr_t pc = reinterpret_cast<uintptr_t>(frames[i]);
        Library lib = libraryOf(pc);
        if (allocator == kLibOther && lib != kLibOther && lib != kLibAvutil && lib != kLibBench) {
            allocator = lib;
        }
        if (lib == kLibEngine) {
            Dl_info info;
            if (dladdr(frames[i], &info) != 0 && info.dli_saddr != nullptr) {
                engineFunction = reinterpret_cast<uintptr_t>(info.dli_saddr);
                // A standard-library template instantiated in the engine
                // (a container growing): the engine function that called it
                // is the one to name.
                if (info.dli_sname != nullptr &&
                    (strncmp(info.dli_sname, "_ZNSt", 5) == 0 || strncmp(info.dli_sname, "_ZSt", 4) == 0)) {
                    continue;
                }
            }
            break;
        }
    }
    recordSite(engineFunction, allocator);
    tInHook = false;
}

// Per-frame totals by who asked for the memory.
enum Owner { kOwnerRender, kOwnerPacketQueue, kOwnerDecoder, kOwnerDemux, kOwnerOther, kOwnerNone, kOwnerCount };
const char* const kOwnerCounters[kOwnerCount] = {
    "allocs_queues_and_renderers", "allocs_packet_queue_nodes", "allocs_decoder", "allocs_demux",
    "allocs_other_engine",         "allocs_ffmpeg_own_threads"};

Owner ownerOf(const std::string& function) {
    if (function.empty()) {
        return kOwnerNone;
    }
    for (const char* prefix : {"VideoRender", "AudioRender", "RenderManager", "Timer", "FrameBufferQueue",
                               "MemoryNativeWindow", "JniPcmSink"}) {
        if (function.rfind(prefix, 0) == 0) {
            return kOwnerRender;
        }
    }
    if (function.rfind("PacketQueue", 0) == 0) {
        return kOwnerPacketQueue;
    }
    for (const char* prefix : {"FFmpegMediaCodec", "MediaCodec", "FFmpegDecoder", "Decoder", "MediaFormat"}) {
        if (function.rfind(prefix, 0) == 0) {
            return kOwnerDecoder;
        }
    }
    if (function.rfind("FFmpegMediaExtractor", 0) == 0 || function.rfind("KavraMediaDecoder", 0) == 0) {
        return kOwnerDemux;
    }
    return kOwnerOther;
}

struct Counts {
    uint64_t total = 0;
    uint64_t byOwner[kOwnerCount] = {};
    std::vector<std::pair<uint64_t, std::string>> sites;
};

void resetCounts() {
    gAllocations = 0;
    for (Site& site : gSites) {
        site.key = 0;
        site.count = 0;
    }
}

Counts takeCounts() {
    Counts counts;
    counts.total = gAllocations.load();
    for (Site& site : gSites) {
        uintptr_t key = site.key.load();
        if (key == 0 || site.count.load() == 0) {
            continue;
        }
        uintptr_t function = key >> 3;
        int lib = static_cast<int>(key & 7);
        std::string name;
        Dl_info info;
        if (function != 0 && dladdr(reinterpret_cast<void*>(function), &info) != 0 && info.dli_sname != nullptr) {
            int status = 0;
            char* demangled = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
            name = status == 0 && demangled != nullptr ? demangled : info.dli_sname;
            free(demangled);
        }
        counts.byOwner[ownerOf(name)] += site.count.load();
        if (name.empty()) {
            name = "(no engine frame: FFmpeg's own threads, or this program)";
        }
        counts.sites.emplace_back(site.count.load(), name + " -> " + kLibraryNames[lib]);
    }
    std::sort(counts.sites.rbegin(), counts.sites.rend());
    return counts;
}

}  // namespace

extern "C" {
void* malloc(size_t size) {
    countAllocation();
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    countAllocation();
    return __libc_calloc(count, size);
}
void* realloc(void* p, size_t size) {
    countAllocation();
    return __libc_realloc(p, size);
}
void free(void* p) { __libc_free(p); }
int posix_memalign(void** out, size_t alignment, size_t size) {
    countAllocation();
    void* p = __libc_memalign(alignment, size);
    if (p == nullptr) {
        return ENOMEM;
    }
    *out = p;
    return 0;
}
void* aligned_alloc(size_t alignment, size_t size) {
    countAllocation();
    return __libc_memalign(alignment, size);
}
void* memalign(size_t alignment, size_t size) {
    countAllocation();
    return __libc_memalign(alignment, size);
}
}

// ---- The two runs ----------------------------------------------------------

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
                    resetCounts();
                    gCounting = true;
                    start = processCpuSeconds();
                }
            }
        }
        av_packet_unref(packet.get());
    }
    gCounting = false;
    result.cpuSeconds = processCpuSeconds() - start;
    result.frames = decoded - kWarmupFrames;
    result.counts = takeCounts();
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
            resetCounts();
            queuedAtStart = window->queuedCount();
            gCounting = true;
            start = processCpuSeconds();
        }
    }
    gCounting = false;
    result.cpuSeconds = processCpuSeconds() - start;
    result.frames = static_cast<int>(window->queuedCount() - queuedAtStart);
    result.counts = takeCounts();
    decoder.stop();
    decoder.release();
    result.ok = handed == kWarmupFrames + kMeasuredFrames;
    if (!result.ok) {
        result.error = "the pipeline ended early";
    }
    return result;
}

void printSites(const char* title, const Counts& counts, int frames) {
    fprintf(stderr, "%s: %.2f allocations per frame\n", title, static_cast<double>(counts.total) / frames);
    for (const auto& site : counts.sites) {
        fprintf(stderr, "  %8.3f /frame  %s\n", static_cast<double>(site.first) / frames, site.second.c_str());
    }
}

void dropLogLine(const struct __android_logger_data* /*data*/, const char* /*message*/) {}

void BM_PlaybackPathAgainstDecodeOnly(benchmark::State& state) {
    __android_log_set_logger(dropLogLine);
    // backtrace() loads its unwinder on first use; not while counting.
    void* warm[4];
    backtrace(warm, 4);
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
        printSites("decode-only loop", reference.counts, reference.frames);
        printSites("pipeline", engine.counts, kMeasuredFrames);
    }
}

BENCHMARK(BM_PlaybackPathAgainstDecodeOnly)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
