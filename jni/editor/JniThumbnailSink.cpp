#include "editor/JniThumbnailSink.h"

JniThumbnailSink::JniThumbnailSink(JNIEnv* env, jobject callback)
    : mEnv(env), mCallback(callback), mOnThumbnail(nullptr) {
    if (env == nullptr || callback == nullptr) {
        return;
    }
    jclass cls = env->GetObjectClass(callback);
    if (cls == nullptr) {
        return;
    }
    // Null with NoSuchMethodError pending when the object has no such method.
    mOnThumbnail = env->GetMethodID(cls, "onThumbnail", "(I)V");
    env->DeleteLocalRef(cls);
}

bool JniThumbnailSink::onThumbnail(int index, int /*ptsMs*/) {
    if (mOnThumbnail == nullptr || mEnv->ExceptionCheck()) {
        return false;
    }
    mEnv->CallVoidMethod(mCallback, mOnThumbnail, static_cast<jint>(index));
    return !mEnv->ExceptionCheck();
}
