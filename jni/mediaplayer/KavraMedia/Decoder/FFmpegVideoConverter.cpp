#include "Decoder/FFmpegVideoConverter.h"

#include <android/log.h>

namespace {
const char* const kTag = "FFmpegVideoConverter";
}

FFmpegVideoConverter::FFmpegVideoConverter() : mSwsContext(nullptr) {
    __android_log_print(ANDROID_LOG_VERBOSE, kTag, "FFmpegVideoConverter");
}

FFmpegVideoConverter::~FFmpegVideoConverter() {
    if (mSwsContext != nullptr) {
        sws_freeContext(mSwsContext);
        mSwsContext = nullptr;
    }
    __android_log_print(ANDROID_LOG_VERBOSE, kTag, "~FFmpegVideoConverter");
}

int FFmpegVideoConverter::convert(unsigned char** dstData, int dstWidth, int dstHeight, int dstFormat,
                                  int* dstLinesize, const unsigned char** srcData, int srcWidth, int srcHeight,
                                  const int* srcLinesize, int srcFormat, int /*extra*/) {
    __android_log_print(ANDROID_LOG_VERBOSE, kTag, "convert");
    // Returns the same context while the six values are unchanged; frees it
    // and builds a new one when any of them changes.
    mSwsContext = sws_getCachedContext(mSwsContext, srcWidth, srcHeight, static_cast<AVPixelFormat>(srcFormat),
                                       dstWidth, dstHeight, static_cast<AVPixelFormat>(dstFormat), SWS_BICUBIC,
                                       nullptr, nullptr, nullptr);
    if (mSwsContext == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "sws_getCachedContext error.");
        return -1;
    }
    return sws_scale(mSwsContext, srcData, srcLinesize, 0, srcHeight, dstData, dstLinesize);
}
