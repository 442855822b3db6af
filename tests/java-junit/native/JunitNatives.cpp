// Entry point of the JUnit tests' own native library.

#include "JunitNatives.h"

bool registerNatives(JNIEnv* env, const char* className, const JNINativeMethod* methods, int count) {
    jclass cls = env->FindClass(className);
    if (cls == nullptr) {
        return false;
    }
    jint result = env->RegisterNatives(cls, methods, count);
    env->DeleteLocalRef(cls);
    return result == 0;
}

// This library's own entry point, so that the loader never runs the one of
// the library it depends on.
extern "C" JNIEXPORT jint JNI_OnLoad(JavaVM* vm, void*) {
    JNIEnv* env = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) != JNI_OK) {
        return -1;
    }
    return registerTestWindow(env) && registerJvmProbe(env) ? JNI_VERSION_1_6 : -1;
}
