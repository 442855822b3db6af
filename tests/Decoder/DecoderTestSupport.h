#pragma once

// Helpers shared by the decoding tests: reference decoding with plain
// FFmpeg calls, packet lists, ffprobe counts and picture hashes.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
}

#include "Common/FFmpegPtr.h"
#include "support/Fixtures.h"
#include "support/Process.h"

namespace kavra::test {

// Frames of the chosen stream kind decoded with plain FFmpeg calls, at most
// `maxFrames` of them (all when negative).
inline std::vector<ScopedAVFrame> referenceFrames(const std::string& path, AVMediaType type, int maxFrames) {
    std::vector<ScopedAVFrame> frames;
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) < 0) {
        ADD_FAILURE() << "cannot open " << path;
        return frames;
    }
    ScopedAVInputContext input(raw);
    EXPECT_GE(avformat_find_stream_info(input.get(), nullptr), 0);
    int index = av_find_best_stream(input.get(), type, -1, -1, nullptr, 0);
    if (index < 0) {
        ADD_FAILURE() << "no stream of type " << type << " in " << path;
        return frames;
    }
    AVStream* stream = input->streams[index];
    const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
    ScopedAVCodecContext ctx(avcodec_alloc_context3(codec));
    avcodec_parameters_to_context(ctx.get(), stream->codecpar);
    ctx->pkt_timebase = stream->time_base;
    EXPECT_EQ(avcodec_open2(ctx.get(), codec, nullptr), 0);
    ScopedAVPacket pkt = makeScopedAVPacket();
    auto receive = [&]() {
        for (;;) {
            ScopedAVFrame frame = makeScopedAVFrame();
            if (avcodec_receive_frame(ctx.get(), frame.get()) < 0) {
                return;
            }
            if (maxFrames < 0 || static_cast<int>(frames.size()) < maxFrames) {
                frames.push_back(std::move(frame));
            }
        }
    };
    while (av_read_frame(input.get(), pkt.get()) >= 0 &&
           (maxFrames < 0 || static_cast<int>(frames.size()) < maxFrames)) {
        if (pkt->stream_index == index) {
            avcodec_send_packet(ctx.get(), pkt.get());
            receive();
        }
        av_packet_unref(pkt.get());
    }
    avcodec_send_packet(ctx.get(), nullptr);
    receive();
    return frames;
}

// What ffprobe counts when it decodes the first stream of a kind ("v" or
// "a"); -1 when it reports nothing.
inline int probeFrameCount(const std::string& path, const char* kind) {
    CommandResult r = runCommand(std::string("ffprobe -v error -count_frames -select_streams ") + kind +
                                 ":0 -show_entries stream=nb_read_frames -of csv=p=0 " + shellQuote(path));
    if (r.status != 0 || r.output.empty()) {
        return -1;
    }
    return std::stoi(r.output);
}

// FNV-1a over the visible bytes of a YUV 4:2:0 picture, plane by plane.
inline uint64_t hashPicture(const uint8_t* const data[], const int linesize[], int width, int height) {
    uint64_t h = 1469598103934665603ull;
    for (int plane = 0; plane < 3; ++plane) {
        int w = plane == 0 ? width : (width + 1) / 2;
        int rows = plane == 0 ? height : (height + 1) / 2;
        for (int y = 0; y < rows; ++y) {
            const uint8_t* row = data[plane] + static_cast<ptrdiff_t>(y) * linesize[plane];
            for (int x = 0; x < w; ++x) {
                h = (h ^ row[x]) * 1099511628211ull;
            }
        }
    }
    return h;
}

}  // namespace kavra::test
