#pragma once

#include <pthread.h>

// A plain, non-recursive POSIX mutex. Failures of the underlying calls are
// logged (tag "NativeMutex") and otherwise ignored: nothing here throws or
// aborts.
class NativeMutex {
public:
    NativeMutex();
    ~NativeMutex();
    NativeMutex(const NativeMutex&) = delete;
    NativeMutex& operator=(const NativeMutex&) = delete;

    void lock();
    void unlock();
    // True when the lock was taken; a busy mutex is not an error.
    bool tryLock();
    pthread_mutex_t* nativeHandle() { return &mMutex; }

private:
    pthread_mutex_t mMutex;
};

// Holds a NativeMutex for the length of a scope.
class NativeMutexLock {
public:
    explicit NativeMutexLock(NativeMutex& mutex) : mMutex(mutex) { mMutex.lock(); }
    ~NativeMutexLock() { mMutex.unlock(); }
    NativeMutexLock(const NativeMutexLock&) = delete;
    NativeMutexLock& operator=(const NativeMutexLock&) = delete;

private:
    NativeMutex& mMutex;
};
