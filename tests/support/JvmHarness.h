#pragma once

#include <jni.h>

namespace kavra::test {

// One Java virtual machine per test process, created on first use with the
// test classes (tests/java/, compiled into the build tree) on its class
// path. The calling thread is attached; other threads attach themselves.
JavaVM* javaVM();
// The environment of the calling thread, attaching it if needed. Tests that
// attach a thread of their own detach it before the thread ends.
JNIEnv* jniEnv();

// Whether the calling thread is attached to the virtual machine.
bool attachedToJvm();

// Fails the current test (and returns true) when a Java exception is
// pending, after describing and clearing it.
bool javaExceptionPending(JNIEnv* env);

}  // namespace kavra::test
