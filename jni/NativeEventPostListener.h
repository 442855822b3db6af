#pragma once

#include <jni.h>

// Carries events from native code on any thread to the Java object that owns
// a native object: calls the static `postEventFromNative(Object, int, int,
// int)` of the owner's class with the owner's weak self-reference.
//
// A thread that is not attached to the virtual machine is attached for the
// length of one call and detached again; a thread that was attached already
// (a Java thread, or a native thread that attached itself) is left as it
// was. Whether a call attached its thread is kept per call, so any number of
// threads may call `notify` at the same time.
class NativeEventPostListener {
public:
    NativeEventPostListener(JNIEnv* env, jobject thiz, jobject weakThis, jmethodID method);
    virtual ~NativeEventPostListener();

    NativeEventPostListener(const NativeEventPostListener&) = delete;
    NativeEventPostListener& operator=(const NativeEventPostListener&) = delete;

    // The calling thread's environment, attaching the thread when it has
    // none; `*attached` tells whether this call attached it (and so the
    // caller must detach it). Null when the thread cannot be attached.
    JNIEnv* getJNIEnv(bool* attached);

    // Virtual so that native owners (tools, tests) can receive the events
    // without a virtual machine.
    virtual void notify(int msg, int ext1, int ext2);

protected:
    // A listener bound to no virtual machine: the base notify() drops every
    // event.
    NativeEventPostListener() : NativeEventPostListener(nullptr, nullptr, nullptr, nullptr) {}

private:
    void detachIfAttached(bool attached);

    JavaVM* mVm;
    jclass mClass;    // global reference, null when the owner had no class
    jobject mObject;  // global reference to the owner's weak self-reference
    jmethodID mMethod;
};
