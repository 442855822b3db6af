#pragma once

#include <atomic>

#include "Common/FFmpegPtr.h"
#include "Decoder/Decoder.h"

// The software decoder, for audio and for any video the hardware decoder
// does not take. Its thread takes packets from the input queue, decodes them
// with FFmpeg and moves each decoded frame by reference into the next of
// five output slots, blocking while they are all full. At the end-of-stream
// marker it drains the codec and queues the end-of-stream record.
//
// Log tag "FFmpegDecoder".
class FFmpegDecoder : public Decoder {
public:
    FFmpegDecoder();
    ~FFmpegDecoder() override;

    int create(AVStream* pInStream) override;
    // Opens a codec context made from the stream's parameters. Unless
    // `withOutputQueue` is below 1 the output queue is created with five
    // frame slots; without it, callers drive decoding through decodeInner().
    // `extra` is not used.
    int create(AVStream* pInStream, int withOutputQueue, int extra) override;
    int configure(void* surface, void* extra) override;
    int start() override;
    int stop() override;
    int release() override;

    // Counters and status back to their initial values; the codec and the
    // queues stay as they are.
    void reset();
    // Decodes one packet on the caller's thread, handing every frame to the
    // output queue (and dropping it when that queue cannot take it). Returns
    // the packet's size, or FFmpeg's negative error.
    int decodeInner(AVPacket* pkt);

    // Frames decoded since creation or reset.
    int getFrameCount() const { return mFrameCount; }
    // 0 video, 1 audio (FFmpeg's numbering for other kinds), -1 before create.
    int getMediaType() const { return mMediaType; }

protected:
    void flushCodec() override;

private:
    void onDecoder();
    // Sends the packet (null drains) and queues every frame that comes out.
    int decodePacket(AVPacket* pkt);
    int videoDecoder(AVPacket* pkt) { return decodePacket(pkt); }
    int audioDecoder(AVPacket* pkt) { return decodePacket(pkt); }
    // At the end-of-stream marker: every frame still in the codec, then the
    // end-of-stream record.
    void drain();
    void queueFrame();
    void resetCounters();
    // The frame's time in stream ticks; see queueFrame() for frames that
    // carry none.
    int64_t frameTicks(const AVFrame* frame);

    std::atomic<int> mFrameCount;
    kavra::ScopedAVFrame mFrame;
    kavra::ScopedAVCodecContext mCodecContext;
    std::atomic<int> mMediaType;
    // Where the next frame without a time goes: the last frame's time plus
    // its duration, in stream ticks. AV_NOPTS_VALUE at the start of the
    // stream and after a flush. Decoding thread only.
    int64_t mNextPts;
};
