#pragma once

// The trimmer's log lines, all under one tag whichever class writes them.

#include <android/log.h>

#define TRIM_LOG_TAG "meeeeNativeVideoTrimer"
#define ALOGV(...) __android_log_print(ANDROID_LOG_VERBOSE, TRIM_LOG_TAG, __VA_ARGS__)
#define ALOGW(...) __android_log_print(ANDROID_LOG_WARN, TRIM_LOG_TAG, __VA_ARGS__)
#define ALOGE(...) __android_log_print(ANDROID_LOG_ERROR, TRIM_LOG_TAG, __VA_ARGS__)
