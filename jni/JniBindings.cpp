#include "JniBindings.h"

int registerNativeMethods(JNIEnv* env, const char* className, const JNINativeMethod* methods, int count) {
    jclass cls = env->FindClass(className);
    if (cls == nullptr) {
        env->ExceptionClear();
        return -1;
    }
    const bool registered = env->RegisterNatives(cls, methods, count) >= 0;
    if (!registered) {
        env->ExceptionClear();
    }
    env->DeleteLocalRef(cls);
    return registered ? 0 : -2;
}

jfieldID lookUpContextField(JNIEnv* env, const char* className) {
    jclass cls = env->FindClass(className);
    if (cls == nullptr) {
        env->ExceptionClear();
        return nullptr;
    }
    jfieldID field = env->GetFieldID(cls, "mNativeContext", "J");
    env->DeleteLocalRef(cls);
    if (field == nullptr) {
        env->ExceptionClear();
    }
    return field;
}

void lookUpEventClassIds(JNIEnv* env, const char* className, NativeClassIds& ids) {
    jclass cls = env->FindClass(className);
    if (cls == nullptr) {
        return;
    }
    ids.context = env->GetFieldID(cls, "mNativeContext", "J");
    if (ids.context != nullptr) {
        ids.postEvent = env->GetStaticMethodID(cls, "postEventFromNative", "(Ljava/lang/Object;III)V");
    }
    env->DeleteLocalRef(cls);
}
