#include "Render/JniPcmSink.h"

#include <android/log.h>

namespace {
const char* const kTag = "AudioRender";

// Logs, describes and clears a Java exception left by the last JNI call, so
// that no further JNI call (nor a detach) runs with one pending. True when
// there was one.
bool clearException(JNIEnv* env, const char* what) {
    if (!env->ExceptionCheck()) {
        return false;
    }
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s threw an exception.", what);
    env->ExceptionDescribe();
    env->ExceptionClear();
    return true;
}
}  // namespace

JniPcmSink::JniPcmSink(JNIEnv* env, jobject callback) : mCallback(nullptr), mJavaVM(nullptr), mOnAudioBuffer(nullptr) {
    if (env == nullptr || callback == nullptr) {
        return;
    }
    if (env->GetJavaVM(&mJavaVM) != JNI_OK) {
        mJavaVM = nullptr;
        return;
    }
    jclass cls = env->GetObjectClass(callback);
    mOnAudioBuffer = cls != nullptr ? env->GetMethodID(cls, "onAudioBuffer", "([B)V") : nullptr;
    // A callback without the method leaves NoSuchMethodError pending; the
    // sink then delivers nothing.
    clearException(env, "GetMethodID onAudioBuffer");
    if (cls != nullptr) {
        env->DeleteLocalRef(cls);
    }
    if (mOnAudioBuffer == nullptr) {
        return;
    }
    mCallback = env->NewGlobalRef(callback);
    clearException(env, "NewGlobalRef");
}

JniPcmSink::~JniPcmSink() {
    if (mJavaVM == nullptr) {
        return;
    }
    bool attached = false;
    JNIEnv* env = getJNIEnv(&attached);
    if (env != nullptr) {
        if (mCallback != nullptr) {
            env->DeleteGlobalRef(mCallback);
        }
        if (attached) {
            mJavaVM->DetachCurrentThread();
        }
    }
    mCallback = nullptr;
    mJavaVM = nullptr;
}

JNIEnv* JniPcmSink::getJNIEnv(bool* attached) const {
    *attached = false;
    if (mJavaVM == nullptr) {
        return nullptr;
    }
    JNIEnv* env = nullptr;
    if (mJavaVM->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) == JNI_OK) {
        return env;
    }
    if (mJavaVM->AttachCurrentThread(reinterpret_cast<void**>(&env), nullptr) != JNI_OK) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "AttachCurrentThread failed.");
        return nullptr;
    }
    *attached = true;
    return env;
}

int JniPcmSink::deliver(const uint8_t* pcm, int size) {
    if (mCallback == nullptr || mOnAudioBuffer == nullptr || size < 0) {
        return -1;
    }
    // Whether this call attached the thread is the call's own business, so
    // concurrent calls from several threads cannot confuse it.
    bool attached = false;
    JNIEnv* env = getJNIEnv(&attached);
    if (env == nullptr) {
        return -1;
    }
    int result = -1;
    jbyteArray array = env->NewByteArray(size);
    if (array != nullptr) {
        env->SetByteArrayRegion(array, 0, size, reinterpret_cast<const jbyte*>(pcm));
        if (!clearException(env, "SetByteArrayRegion")) {
            env->CallVoidMethod(mCallback, mOnAudioBuffer, array);
            result = clearException(env, "onAudioBuffer") ? -1 : 0;
        }
        env->DeleteLocalRef(array);
    } else {
        clearException(env, "NewByteArray");
    }
    if (attached) {
        mJavaVM->DetachCurrentThread();
    }
    return result;
}
