#include "editor/JniThumbnailSink.h"

#include <android/log.h>

namespace {
const char* const kTag = "JNI_VideoItem";

// Logs, describes and clears a pending Java exception; true when there was
// one.
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

JniThumbnailSink::JniThumbnailSink(JNIEnv* env, jobject callback)
    : mEnv(env), mCallback(callback), mOnThumbnail(nullptr) {
    if (env == nullptr || callback == nullptr) {
        return;
    }
    jclass cls = env->GetObjectClass(callback);
    if (cls == nullptr) {
        clearException(env, "GetObjectClass");
        return;
    }
    // Null with NoSuchMethodError pending when the object has no such method.
    mOnThumbnail = env->GetMethodID(cls, "onThumbnail", "(I)V");
    clearException(env, "GetMethodID onThumbnail");
    env->DeleteLocalRef(cls);
}

bool JniThumbnailSink::onThumbnail(int index, int /*ptsMs*/) {
    // An exception the caller left pending is the caller's to handle; no
    // call into Java is made under it.
    if (mOnThumbnail == nullptr || mEnv->ExceptionCheck()) {
        return false;
    }
    mEnv->CallVoidMethod(mCallback, mOnThumbnail, static_cast<jint>(index));
    return !clearException(mEnv, "onThumbnail");
}
