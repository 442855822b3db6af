#include "Render/JniPcmSink.h"

#include <android/log.h>

namespace {
const char* const kTag = "AudioRender";
}

JniPcmSink::JniPcmSink(JNIEnv* env, jobject callback) : mCallback(nullptr), mJavaVM(nullptr), mOnAudioBuffer(nullptr) {
    if (env == nullptr || callback == nullptr) {
        return;
    }
    if (env->GetJavaVM(&mJavaVM) != JNI_OK) {
        mJavaVM = nullptr;
        return;
    }
    jclass cls = env->GetObjectClass(callback);
    mOnAudioBuffer = env->GetMethodID(cls, "onAudioBuffer", "([B)V");
    env->DeleteLocalRef(cls);
    mCallback = env->NewGlobalRef(callback);
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
        env->CallVoidMethod(mCallback, mOnAudioBuffer, array);
        env->DeleteLocalRef(array);
        result = 0;
    }
    if (attached) {
        mJavaVM->DetachCurrentThread();
    }
    return result;
}
