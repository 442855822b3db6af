#pragma once

#include <jni.h>

// The test library's native classes register themselves at load.
bool registerNatives(JNIEnv* env, const char* className, const JNINativeMethod* methods, int count);
bool registerTestWindow(JNIEnv* env);
bool registerJvmProbe(JNIEnv* env);
