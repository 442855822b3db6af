#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "Common/FFmpegPtr.h"
#include "Decoder/Decoder.h"
#include "Platform/MediaCodec.h"

// The H.264 decoder on the platform's media codec. Packets are turned from
// the container's length-prefixed form into Annex B with the
// "h264_mp4toannexb" filter and passed to the codec in byte-buffer mode; each
// decoded picture is copied from the codec's output buffer into one of five
// YUV 4:2:0 picture slots of the output queue, which is created when the
// codec announces its output format. The codec carries stream ticks (not
// microseconds) as presentation times; they are turned into milliseconds on
// the way out.
//
// Log tag "MediaCodecVideoDecoder".
class MediaCodecVideoDecoder : public Decoder {
public:
    // Makes the codec for a MIME type; null when there is none.
    using CodecFactory = std::function<std::unique_ptr<MediaCodec>(const char* mimeType)>;
    // How long one wait for a codec buffer may take.
    static constexpr int64_t kCodecTimeoutUs = 8000;

    // Uses the platform's codec.
    MediaCodecVideoDecoder();
    explicit MediaCodecVideoDecoder(CodecFactory factory);
    ~MediaCodecVideoDecoder() override;

    int create(AVStream* pInStream) override;
    // Configures the codec for the stream (both ints are ignored).
    int create(AVStream* pInStream, int withOutputQueue, int extra) override;
    int configure(void* surface, void* extra) override;
    int start() override;
    int stop() override;
    int release() override;

    // The sequence and picture parameter sets of an H.264 configuration
    // record, each behind a four-byte start code. False (and nothing
    // written) when the record is shorter than its own lengths say.
    static bool parseCodecSpecificData(const uint8_t* extradata, int size, std::vector<uint8_t>* csd0,
                                       std::vector<uint8_t>* csd1);

protected:
    void flushCodec() override;

private:
    void onDecoder();
    void drainAtEndOfStream();
    // 0 when the packet (or, for an empty packet, the end of the stream) went
    // into a codec input buffer; -1 when no input buffer was free in time.
    int queueIntoDecoder(AVPacket* pkt);
    // One poll of the codec's output: 4 when the end of the stream came out,
    // 0 otherwise.
    int onDecodeInner();
    int resetOutPutFormatIfChanged(MediaFormat* format);
    void deliverPicture(uint8_t* data, size_t capacity, const MediaCodecBufferInfo& info);
    // Makes the output slots match the announced picture size. Slots in use
    // are never freed under the consumer: a size change waits until the
    // consumer has given every slot back. False when stop or flush
    // intervened.
    bool ensureOutputQueue(int width, int height);
    bool interrupted();

    CodecFactory mFactory;
    std::unique_ptr<MediaCodec> mCodec;
    // Plane pointers over the current output buffer.
    kavra::ScopedAVFrame mFrame;
    int mDataSize;
    kavra::ScopedAVBSFContext mBsfContext;
    kavra::ScopedAVPacket mFilteredPacket;
    int mOutWidth;
    int mOutHeight;
    int mOutStride;
    int mOutSliceHeight;
    int mOutColor;
    // Duration of the packet being decoded; at the end of the stream, of the
    // last packet.
    int64_t mPacketDuration;
};
