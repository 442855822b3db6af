#include "Decoder/FFmpegAudioConverter.h"

#include <android/log.h>
#include <cstdlib>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

namespace {
const char* const kTag = "FFmpegAudioConverter";
}

FFmpegAudioConverter::FFmpegAudioConverter()
    : mFrameBytes(0), mSwrContext(nullptr), mOutBuffer(static_cast<unsigned char*>(malloc(kOutBufferBytes))),
      mInitialized(false), mInSampleRate(-1), mInChannels(-1), mInSampleFormat(-1) {}

FFmpegAudioConverter::~FFmpegAudioConverter() {
    // The context may exist without having been initialised (a failed
    // swr_init); it is ours either way.
    swr_free(&mSwrContext);
    free(mOutBuffer);
}

int FFmpegAudioConverter::convert(unsigned char*& out, int outSampleRate, int outChannels, int outSampleFormat,
                                  const unsigned char** in, int inSampleRate, int inChannels, int inSampleFormat,
                                  int inSamples) {
    if (mOutBuffer == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "no output buffer.");
        return -1;
    }
    if (inSampleRate != mInSampleRate || inChannels != mInChannels || inSampleFormat != mInSampleFormat) {
        if (mInitialized) {
            swr_free(&mSwrContext);
            mInitialized = false;
        }
        mInSampleRate = inSampleRate;
        mInChannels = inChannels;
        mInSampleFormat = inSampleFormat;
    }
    // Options are set only on a context that is not yet running: a running
    // context keeps converting with the parameters it was initialised with,
    // so setting them again on every call would change nothing but cost
    // time. After a failed initialisation the next call sets them and tries
    // again.
    if (!mInitialized) {
        AVChannelLayout outLayout;
        AVChannelLayout inLayout;
        av_channel_layout_default(&outLayout, outChannels);
        av_channel_layout_default(&inLayout, mInChannels);
        int ret = swr_alloc_set_opts2(&mSwrContext, &outLayout, static_cast<AVSampleFormat>(outSampleFormat),
                                      outSampleRate, &inLayout, static_cast<AVSampleFormat>(mInSampleFormat),
                                      mInSampleRate, 0, nullptr);
        av_channel_layout_uninit(&outLayout);
        av_channel_layout_uninit(&inLayout);
        if (ret < 0 || mSwrContext == nullptr) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "SwrContext set opts error.");
            return -1;
        }
        if (swr_is_initialized(mSwrContext) == 0) {
            if (swr_init(mSwrContext) < 0) {
                __android_log_print(ANDROID_LOG_ERROR, kTag, "SwrContext init error.");
                return -1;
            }
            mFrameBytes = av_get_bytes_per_sample(static_cast<AVSampleFormat>(outSampleFormat)) * outChannels;
            mInitialized = true;
        }
    }
    int capacity = mFrameBytes > 0 ? kOutBufferBytes / mFrameBytes : 0;
    int n = swr_convert(mSwrContext, &mOutBuffer, capacity, in, inSamples);
    if (n < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "swr_convert error.");
        return n;
    }
    out = mOutBuffer;
    return n * mFrameBytes;
}
