#pragma once

#include <cstdint>

#include "Common/FFmpegPtr.h"

// Where a re-encoder puts the packets its encoder gives out. Returns 0 or a
// negative error.
class EncodedPacketSink {
public:
    virtual ~EncodedPacketSink() = default;
    virtual int writeEncodedPacket(AVPacket* packet) = 0;
};

// Decodes input video packets and encodes the pictures that fall inside a
// window of presentation times, handing every encoded packet to a sink.
// The decoder lives as long as the re-encoder; the encoder is given from
// outside and may be replaced between runs of frames.
class VideoReencoder {
public:
    VideoReencoder();
    VideoReencoder(const VideoReencoder&) = delete;
    VideoReencoder& operator=(const VideoReencoder&) = delete;

    // Opens the decoder for the stream: 0, -3 (no decoder for its codec) or
    // -4 (the decoder cannot be opened).
    int openDecoder(const AVStream* stream);
    AVCodecContext* decoder() const { return mDecoder.get(); }

    // An opened encoder for the next run of frames; frames are numbered
    // from 0 in its time base.
    void setEncoder(kavra::ScopedAVCodecContext encoder);
    AVCodecContext* encoder() const { return mEncoder.get(); }
    void setSink(EncodedPacketSink* sink) { mSink = sink; }

    // Pictures shown in [low, high] (input video ticks) are encoded; the
    // others are decoded only.
    void setKeepWindow(int64_t low, int64_t high);

    // Sends a packet to the decoder and encodes what comes out.
    int reencodePacket(AVPacket* packet);
    // Drains the decoder into the encoder, then readies the decoder for the
    // packets after a seek.
    void drainDecoder();
    // Drains the encoder into the sink; the encoder accepts no frames
    // afterwards.
    void drainEncoder();

    bool decoderPrimed() const { return mDecoderPrimed; }
    // Frames went into the encoder that it may still hold.
    bool encoderPending() const { return mEncoderUsed && !mEncoderDrained; }
    bool encoderUsed() const { return mEncoderUsed; }
    int64_t framesEncoded() const { return mFramesEncoded; }

    void release();

private:
    int encodeFrame(AVFrame* frame);
    AVFrame* convertForEncoder(AVFrame* frame);
    int receivePackets();

    kavra::ScopedAVCodecContext mDecoder;
    kavra::ScopedAVCodecContext mEncoder;
    EncodedPacketSink* mSink;
    kavra::ScopedAVFrame mFrame;  // decoded picture
    // Pictures converted for the encoder, used in turn: the encoder may keep
    // a reference to the last one it was given.
    kavra::ScopedAVFrame mScaledFrames[3];
    kavra::ScopedSwsContext mScaler;
    kavra::ScopedAVPacket mEncodedPacket;
    int64_t mKeepLow;
    int64_t mKeepHigh;
    bool mDecoderPrimed;  // packets were sent since the last drain
    bool mEncoderUsed;
    bool mEncoderDrained;
    int64_t mEncoderFramePts;
    int64_t mFramesEncoded;
};
