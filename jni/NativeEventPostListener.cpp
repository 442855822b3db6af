#include "NativeEventPostListener.h"

#include <android/log.h>

#define LOG_TAG "NativeEventPostListener"
#define ALOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

NativeEventPostListener::NativeEventPostListener(JNIEnv* env, jobject thiz, jobject weakThis, jmethodID method)
    : mVm(nullptr), mClass(nullptr), mObject(nullptr), mMethod(method) {
    if (env == nullptr) {
        return;
    }
    env->GetJavaVM(&mVm);
    jclass cls = thiz != nullptr ? env->GetObjectClass(thiz) : nullptr;
    if (cls == nullptr) {
        // Without the owner's class there is nothing to call; no references
        // are taken and every event is dropped.
        return;
    }
    mClass = static_cast<jclass>(env->NewGlobalRef(cls));
    mObject = weakThis != nullptr && mClass != nullptr ? env->NewGlobalRef(weakThis) : nullptr;
    if (env->ExceptionCheck()) {
        // Out of memory for the references: no further JNI call may run with
        // the error pending.
        ALOGE("An exception occurred while keeping the owner's references.");
        env->ExceptionDescribe();
        env->ExceptionClear();
    }
    env->DeleteLocalRef(cls);
}

NativeEventPostListener::~NativeEventPostListener() {
    if (mClass == nullptr && mObject == nullptr) {
        return;
    }
    bool attached = false;
    JNIEnv* env = getJNIEnv(&attached);
    if (env != nullptr) {
        if (mObject != nullptr) {
            env->DeleteGlobalRef(mObject);
        }
        if (mClass != nullptr) {
            env->DeleteGlobalRef(mClass);
        }
    }
    detachIfAttached(attached);
}

JNIEnv* NativeEventPostListener::getJNIEnv(bool* attached) {
    *attached = false;
    if (mVm == nullptr) {
        return nullptr;
    }
    JNIEnv* env = nullptr;
    if (mVm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) == JNI_OK) {
        return env;
    }
    if (mVm->AttachCurrentThread(reinterpret_cast<void**>(&env), nullptr) != JNI_OK) {
        ALOGE("AttachCurrentThread failed.");
        return nullptr;
    }
    *attached = true;
    return env;
}

void NativeEventPostListener::detachIfAttached(bool attached) {
    if (attached) {
        mVm->DetachCurrentThread();
    }
}

void NativeEventPostListener::notify(int msg, int ext1, int ext2) {
    if (mClass == nullptr || mMethod == nullptr) {
        return;
    }
    bool attached = false;
    JNIEnv* env = getJNIEnv(&attached);
    if (env != nullptr) {
        env->CallStaticVoidMethod(mClass, mMethod, mObject, msg, ext1, ext2);
        if (env->ExceptionCheck()) {
            // An exception thrown by the Java handler must not stay pending
            // on a Java caller's thread nor be lost silently on ours.
            ALOGE("An exception occurred while notifying an event.");
            env->ExceptionDescribe();
            env->ExceptionClear();
        }
    }
    detachIfAttached(attached);
}
