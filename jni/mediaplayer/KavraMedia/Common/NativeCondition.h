#pragma once

#include <pthread.h>

#include "NativeMutex.h"

// A condition variable on the monotonic clock with a relative time-out in
// milliseconds. Failures are logged (with no tag) and otherwise ignored.
class NativeCondition {
public:
    NativeCondition();
    ~NativeCondition();
    NativeCondition(const NativeCondition&) = delete;
    NativeCondition& operator=(const NativeCondition&) = delete;

    void wait(NativeMutex& mutex);
    // timeoutMs -1 waits without limit. Returns true when woken by a signal,
    // false when the time ran out or the wait failed. Every call computes its
    // deadline afresh from now.
    bool wait(NativeMutex& mutex, long timeoutMs);
    void notifyOne();
    void notifyAll();

    // The absolute deadline `timeoutMs` after `now`, nanoseconds normalised
    // into [0, 1e9). Exposed so the normalisation can be checked directly.
    static struct timespec deadlineAfter(struct timespec now, long timeoutMs);

private:
    pthread_cond_t mCond;
};
