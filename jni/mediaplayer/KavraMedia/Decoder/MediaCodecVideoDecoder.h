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
    // After the end of the input, how long the codec may go without giving
    // any output before the stream is ended without its end-of-stream
    // buffer. A codec that has all its input returns its last pictures
    // within a few frame intervals; one that stays silent this long never
    // will.
    static constexpr int kEndOfStreamWaitMs = 2000;

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
    // 0 otherwise. Every output buffer taken counts in mOutputCount.
    int onDecodeInner();
    int resetOutPutFormatIfChanged(MediaFormat* format);
    void deliverPicture(uint8_t* data, size_t capacity, const MediaCodecBufferInfo& info);
    // The picture's time in stream ticks from the codec's; see the
    // definition for pictures of packets that had none.
    int64_t pictureTicks(int64_t codecTicks);
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
    // Output buffers taken from the codec (decoding thread only).
    uint64_t mOutputCount;
    // Packets without any time went into the codec at time 0 and their
    // pictures come out at time 0; this many of them have not come out yet.
    int mUntimedInputs;
    // Where the next picture without a time goes: the last picture's time
    // plus its duration, in stream ticks; AV_NOPTS_VALUE at the start and
    // after a flush.
    int64_t mNextPts;
};
