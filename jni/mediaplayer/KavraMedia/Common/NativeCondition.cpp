#include "NativeCondition.h"

#include <android/log.h>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace {
// Condition failures are written without a tag.
const char* const kTag = nullptr;
constexpr long kNanosPerSecond = 1000000000L;
}

NativeCondition::NativeCondition() {
    memset(&mCond, 0, sizeof(mCond));
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    int err = pthread_cond_init(&mCond, &attr);
    if (err != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "NativeCondition::NativeCondition: fail init; error=0x%X", err);
    }
    pthread_condattr_destroy(&attr);
}

NativeCondition::~NativeCondition() {
    int err = pthread_cond_destroy(&mCond);
    if (err != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "NativeCondition::~NativeCondition: fail destroy; error=0x%X", err);
    }
}

void NativeCondition::wait(NativeMutex& mutex) {
    int err = pthread_cond_wait(&mCond, mutex.nativeHandle());
    if (err != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "NativeCondition::wait: fail wait; error=0x%X", err);
    }
}

struct timespec NativeCondition::deadlineAfter(struct timespec now, long timeoutMs) {
    // A negative time-out other than -1 means "do not wait": a deadline of
    // now, never a negative nanosecond field.
    if (timeoutMs < 0) {
        timeoutMs = 0;
    }
    struct timespec deadline = now;
    deadline.tv_sec += timeoutMs / 1000;
    deadline.tv_nsec += (timeoutMs - (timeoutMs / 1000) * 1000) * 1000000L;
    // A nanosecond field of exactly one second is out of range for
    // pthread_cond_timedwait too, so carry from 1e9 on.
    if (deadline.tv_nsec >= kNanosPerSecond) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= kNanosPerSecond;
    }
    return deadline;
}

bool NativeCondition::wait(NativeMutex& mutex, long timeoutMs) {
    if (timeoutMs == -1) {
        int err = pthread_cond_wait(&mCond, mutex.nativeHandle());
        if (err != 0) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "NativeCondition::wait: fail wait; error=0x%X", err);
            return false;
        }
        return true;
    }
    struct timespec now;
    memset(&now, 0, sizeof(now));
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "NativeCondition::wait: fail get time; errno=0x%X", errno);
    }
    struct timespec deadline = deadlineAfter(now, timeoutMs);
    int err = pthread_cond_timedwait(&mCond, mutex.nativeHandle(), &deadline);
    if (err != 0 && err != ETIMEDOUT) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "NativeCondition::wait: fail timed wait; error=0x%X", err);
    }
    return err == 0;
}

void NativeCondition::notifyOne() {
    int err = pthread_cond_signal(&mCond);
    if (err != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "NativeCondition::notifyOne: fail signal; error=0x%X", err);
    }
}

void NativeCondition::notifyAll() {
    int err = pthread_cond_broadcast(&mCond);
    if (err != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "NativeCondition::notifyAll: fail signal; error=0x%X", err);
    }
}
