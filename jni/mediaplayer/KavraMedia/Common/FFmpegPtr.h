#pragma once

// Owning smart pointers for FFmpeg objects. Each deleter matches the one
// allocation function that makes the object, so no error path can forget a
// free or use the wrong one.

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libavutil/mem.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace kavra {

// Made by av_packet_alloc, freed by av_packet_free.
struct AVPacketDeleter {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
using ScopedAVPacket = std::unique_ptr<AVPacket, AVPacketDeleter>;
inline ScopedAVPacket makeScopedAVPacket() { return ScopedAVPacket(av_packet_alloc()); }

// Made by av_frame_alloc, freed by av_frame_free.
struct AVFrameDeleter {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};
using ScopedAVFrame = std::unique_ptr<AVFrame, AVFrameDeleter>;
inline ScopedAVFrame makeScopedAVFrame() { return ScopedAVFrame(av_frame_alloc()); }

// Made by avcodec_alloc_context3, freed by avcodec_free_context.
struct AVCodecContextDeleter {
    void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
using ScopedAVCodecContext = std::unique_ptr<AVCodecContext, AVCodecContextDeleter>;

// An input opened by avformat_open_input, closed by avformat_close_input.
struct AVInputFormatContextDeleter {
    void operator()(AVFormatContext* c) const { avformat_close_input(&c); }
};
using ScopedAVInputContext = std::unique_ptr<AVFormatContext, AVInputFormatContextDeleter>;

// An output made by avformat_alloc_output_context2: its I/O (if opened with
// avio_open) is closed, then the context freed.
struct AVOutputFormatContextDeleter {
    void operator()(AVFormatContext* c) const {
        if (c == nullptr) {
            return;
        }
        if (c->oformat != nullptr && !(c->oformat->flags & AVFMT_NOFILE)) {
            avio_closep(&c->pb);
        }
        avformat_free_context(c);
    }
};
using ScopedAVOutputContext = std::unique_ptr<AVFormatContext, AVOutputFormatContextDeleter>;

// Made by av_bsf_alloc, freed by av_bsf_free.
struct AVBSFContextDeleter {
    void operator()(AVBSFContext* b) const { av_bsf_free(&b); }
};
using ScopedAVBSFContext = std::unique_ptr<AVBSFContext, AVBSFContextDeleter>;

// Made by sws_getContext / sws_getCachedContext, freed by sws_freeContext.
struct SwsContextDeleter {
    void operator()(SwsContext* s) const { sws_freeContext(s); }
};
using ScopedSwsContext = std::unique_ptr<SwsContext, SwsContextDeleter>;

// Made by swr_alloc / swr_alloc_set_opts2, freed by swr_free.
struct SwrContextDeleter {
    void operator()(SwrContext* s) const { swr_free(&s); }
};
using ScopedSwrContext = std::unique_ptr<SwrContext, SwrContextDeleter>;

// Made by av_buffer_pool_init, freed by av_buffer_pool_uninit (the pool
// itself goes once the last of its buffers is back).
struct AVBufferPoolDeleter {
    void operator()(AVBufferPool* p) const { av_buffer_pool_uninit(&p); }
};
using ScopedAVBufferPool = std::unique_ptr<AVBufferPool, AVBufferPoolDeleter>;

// Memory from av_malloc, freed by av_free.
struct AVMemDeleter {
    void operator()(void* p) const { av_free(p); }
};
template <typename T>
using ScopedAVMem = std::unique_ptr<T, AVMemDeleter>;

}  // namespace kavra
