#pragma once

extern "C" {
#include <libswresample/swresample.h>
}

// Converts decoded audio between sample formats, rates and channel counts
// into one output buffer of fixed size that it owns. The resampling context
// is kept between calls and rebuilt only when the input parameters change;
// the output parameters are taken to be fixed for the object's life. One
// renderer thread uses an instance; there is no locking.
class FFmpegAudioConverter {
public:
    // Size of the output buffer: the most one call can return.
    static constexpr int kOutBufferBytes = 192000;

    FFmpegAudioConverter();
    ~FFmpegAudioConverter();
    FFmpegAudioConverter(const FFmpegAudioConverter&) = delete;
    FFmpegAudioConverter& operator=(const FFmpegAudioConverter&) = delete;

    // Converts `inSamples` sample frames (planes as FFmpeg lays them out for
    // `inSampleFormat`) and points `out` at the converted bytes, which stay
    // valid until the next call. Sample formats are AVSampleFormat values;
    // channel layouts are the default ones for the channel counts. Returns
    // the number of output bytes (at most kOutBufferBytes), -1 when the
    // context cannot be set up, or swr_convert's negative error.
    int convert(unsigned char*& out, int outSampleRate, int outChannels, int outSampleFormat,
                const unsigned char** in, int inSampleRate, int inChannels, int inSampleFormat, int inSamples);

    // The resampling context (null before the first convert).
    const SwrContext* context() const { return mSwrContext; }

private:
    // Bytes of one output sample frame, set when the context is initialised.
    int mFrameBytes;
    SwrContext* mSwrContext;
    unsigned char* mOutBuffer;
    bool mInitialized;
    // The input parameters the context was built for; -1 before any.
    int mInSampleRate;
    int mInChannels;
    int mInSampleFormat;
};
