#include "PngWriter.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "Common/FFmpegPtr.h"
#include "ToolSupport.h"

namespace tool {

bool writePng(const std::string& path, const uint8_t* rgba, int width, int height, int strideBytes,
              std::string* error) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
    if (codec == nullptr) {
        *error = "this FFmpeg has no PNG encoder";
        return false;
    }
    kavra::ScopedAVCodecContext context(avcodec_alloc_context3(codec));
    kavra::ScopedAVFrame frame = kavra::makeScopedAVFrame();
    kavra::ScopedAVPacket packet = kavra::makeScopedAVPacket();
    if (!context || !frame || !packet) {
        *error = "out of memory";
        return false;
    }
    // The pictures are opaque: RGB keeps the file small.
    context->width = width;
    context->height = height;
    context->pix_fmt = AV_PIX_FMT_RGB24;
    context->time_base = AVRational{1, 1};
    int ret = avcodec_open2(context.get(), codec, nullptr);
    if (ret < 0) {
        *error = "PNG encoder: " + ffmpegError(ret);
        return false;
    }
    frame->format = AV_PIX_FMT_RGB24;
    frame->width = width;
    frame->height = height;
    ret = av_frame_get_buffer(frame.get(), 0);
    if (ret < 0) {
        *error = "PNG encoder: " + ffmpegError(ret);
        return false;
    }
    for (int y = 0; y < height; ++y) {
        const uint8_t* in = rgba + static_cast<size_t>(y) * strideBytes;
        uint8_t* out = frame->data[0] + static_cast<size_t>(y) * frame->linesize[0];
        for (int x = 0; x < width; ++x) {
            out[3 * x] = in[4 * x];
            out[3 * x + 1] = in[4 * x + 1];
            out[3 * x + 2] = in[4 * x + 2];
        }
    }
    frame->pts = 0;
    ret = avcodec_send_frame(context.get(), frame.get());
    if (ret >= 0) {
        ret = avcodec_send_frame(context.get(), nullptr);
    }
    if (ret >= 0) {
        ret = avcodec_receive_packet(context.get(), packet.get());
    }
    if (ret < 0) {
        *error = "PNG encoder: " + ffmpegError(ret);
        return false;
    }
    std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path.c_str(), "wb"), fclose);
    if (!file) {
        *error = strerror(errno);
        return false;
    }
    if (fwrite(packet->data, 1, static_cast<size_t>(packet->size), file.get()) != static_cast<size_t>(packet->size) ||
        fflush(file.get()) != 0) {
        *error = strerror(errno);
        return false;
    }
    return true;
}

}  // namespace tool
