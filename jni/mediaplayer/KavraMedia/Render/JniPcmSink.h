#pragma once

#include <jni.h>

#include "Platform/PcmSink.h"

// Hands PCM to a Java object's "onAudioBuffer" "([B)V" as a new byte array.
// A thread that the virtual machine does not know is attached for the one
// call and detached again; a Java thread is used as it is. A Java exception
// left by any call (a missing method, a callback that throws) is logged,
// described and cleared before the next JNI call, so nothing runs with one
// pending. Log tag "AudioRender".
class JniPcmSink : public PcmSink {
public:
    // Takes a global reference to `callback`; the method is looked up on the
    // object's own class.
    JniPcmSink(JNIEnv* env, jobject callback);
    // Releases the global reference (attaching for that if needed).
    ~JniPcmSink() override;
    JniPcmSink(const JniPcmSink&) = delete;
    JniPcmSink& operator=(const JniPcmSink&) = delete;

    int deliver(const uint8_t* pcm, int size) override;

    // The calling thread's environment, attaching the thread when it is not
    // attached yet (then `*attached` is set and the caller detaches it).
    // Null when there is no virtual machine or attaching failed.
    JNIEnv* getJNIEnv(bool* attached) const;

private:
    jobject mCallback;
    JavaVM* mJavaVM;
    jmethodID mOnAudioBuffer;
};
