#include "NativeMutex.h"

#include <android/log.h>
#include <cerrno>
#include <cstring>

namespace {
const char* const kTag = "NativeMutex";
}

NativeMutex::NativeMutex() {
    memset(&mMutex, 0, sizeof(mMutex));
    int err = pthread_mutex_init(&mMutex, nullptr);
    if (err != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "NativeMutex::NativeMutex: fail init; error=0x%X", err);
    }
}

NativeMutex::~NativeMutex() {
    int err = pthread_mutex_destroy(&mMutex);
    if (err != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "NativeMutex::~NativeMutex: fail destroy; error=0x%X", err);
    }
}

void NativeMutex::lock() {
    int err = pthread_mutex_lock(&mMutex);
    if (err != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "NativeMutex::lock: fail lock; error=0x%X", err);
    }
}

void NativeMutex::unlock() {
    int err = pthread_mutex_unlock(&mMutex);
    if (err != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "NativeMutex::unlock: fail unlock; error=0x%X", err);
    }
}

bool NativeMutex::tryLock() {
    int err = pthread_mutex_trylock(&mMutex);
    if (err != 0 && err != EBUSY) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "NativeMutex::tryLock: error=0x%X", err);
    }
    return err == 0;
}
