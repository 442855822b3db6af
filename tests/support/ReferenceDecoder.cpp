#include "support/ReferenceDecoder.h"

#include <gtest/gtest.h>

namespace kavra::test {

std::vector<ScopedAVFrame> referenceFrames(const std::string& path, AVMediaType type, int maxFrames) {
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

}  // namespace kavra::test
