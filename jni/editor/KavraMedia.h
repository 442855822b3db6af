#pragma once

#include "Common/FFmpegPtr.h"
#include "Common/NativeMutex.h"
#include "Source/ReadProgressGuard.h"

// A small synchronous reader and decoder over one media file. No threads,
// no queues: each call does one FFmpeg operation under the object's mutex
// and returns FFmpeg's result (0 or more success, negative failure). The
// editor item builds its thumbnail, key-frame and snapshot work on top.
//
// Calling order: setSource, openVideoDecoder (and openAudioDecoder if
// wanted), prepare, then any number of seeks, reads, decodes and getters.
// One object serves one file. setSource and the destructor take no lock:
// nothing else may run beside them.
class KavraMedia {
public:
    KavraMedia();
    virtual ~KavraMedia();
    KavraMedia(const KavraMedia&) = delete;
    KavraMedia& operator=(const KavraMedia&) = delete;

    // Opens the file and picks the best video and audio streams.
    int setSource(const char* path);
    // Opens the video decoder; singleThread forces one decoding thread.
    // Fills width, height (display orientation), frame rate, rotation and
    // the MIME id.
    int openVideoDecoder(bool singleThread);
    // Opens the decoder of the best audio stream related to wantedStream.
    int openAudioDecoder(int wantedStream);
    // Allocates the two output frames; 0 or -1.
    int prepare();

    // av_seek_frame at timeMs x 1000 in the index's time base (the global
    // microsecond base for index -1).
    int seekFrame(int timeMs, int streamIndex, int flags);
    // av_read_frame's result, except that a run of read errors without
    // progress (a damaged file that fails the same way on every call) is
    // answered with AVERROR_EOF, and the input is marked as damaged.
    int readFrame(AVPacket* packet);
    // A read met damage that ended the input before its end.
    bool isInputDamaged();
    // One decode step: the packet is sent and one picture is taken if the
    // decoder has one ready. *gotPicture is 1 when pVideoFrame now holds a
    // new picture and 0 otherwise (pVideoFrame then keeps the last picture).
    // A packet with no data and size 0 drains: the decoder is told once
    // that input has ended and hands out its delayed pictures one per call;
    // the next real packet starts it afresh. Returns 0 or a negative error.
    int decodeVideo(int* gotPicture, AVPacket* packet);
    // The same for audio into pAudioFrame.
    int decodeAudio(int* gotFrame, AVPacket* packet);
    // Drops every picture inside the video decoder (a seek follows).
    void flushVideoDecoder();

    // Container duration in ms, truncated; 0 when unknown.
    int getDuration();
    // Container start time in ms, truncated; 0 when unknown.
    int getStartTime();
    int getAudioTrackCount();
    int getWidth();
    int getHeight();
    int getFrameRate();
    int HasBFrame();
    int getRotation();
    int getSamplerate();
    int getChannels();
    // The codec as the Java side numbers it (see the table in the source).
    int getVideoMimeID();

    // The Java side's number for a decoder, -1 for codecs it does not know.
    static int mimeIdFor(AVCodecID codecId);

    // The picture of the last decode that gave one (see decodeVideo).
    AVFrame* getVideoFrame() { return pVideoFrame.get(); }
    // The chosen video stream's index, negative when there is none.
    int getVideoStreamIndex() const { return mVideoStreamIndex; }
    // The chosen video stream, or null. Valid after setSource.
    AVStream* videoStream();

protected:
    // True once av_read_frame hit the end of the file's byte stream.
    bool isEndOfInput();
    // Coded picture geometry of the opened video decoder.
    int codedWidth() const { return mVideoCodecContext ? mVideoCodecContext->width : 0; }
    int codedHeight() const { return mVideoCodecContext ? mVideoCodecContext->height : 0; }
    AVPixelFormat codedPixelFormat() const {
        return mVideoCodecContext ? mVideoCodecContext->pix_fmt : AV_PIX_FMT_NONE;
    }

    int mVideoStreamIndex;
    // The last decoded picture; valid until the next decodeVideo.
    kavra::ScopedAVFrame pVideoFrame;

private:
    int decode(AVCodecContext* context, AVFrame* out, AVFrame* scratch, bool* draining, int* got,
               AVPacket* packet);

    kavra::ScopedAVInputContext mFormatContext;
    kavra::ScopedAVCodecContext mVideoCodecContext;
    kavra::ScopedAVCodecContext mAudioCodecContext;
    const AVCodec* mCodec;
    kavra::ScopedAVFrame pAudioFrame;
    // Decoded pictures land here first, so a failed receive never clears
    // the last picture held in the output frame.
    kavra::ScopedAVFrame mVideoScratch;
    kavra::ScopedAVFrame mAudioScratch;
    // Set after the end-of-input signal, until the decoder is flushed.
    bool mVideoDraining;
    bool mAudioDraining;
    int mAudioStreamIndex;
    int mAudioTrackCount;
    int mLastResult;
    int mWidth;
    int mHeight;
    int mFrameRate;
    int mHasBFrames;
    int mRotation;
    int mVideoMimeId;
    int mSampleRate;
    int mChannels;
    // Guarded by mMutex.
    ReadProgressGuard mReadGuard;
    NativeMutex mMutex;
};
