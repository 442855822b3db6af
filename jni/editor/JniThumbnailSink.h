#pragma once

#include <jni.h>

#include "editor/ThumbnailSink.h"

// Hands each thumbnail to a Java object's "onThumbnail" "(I)V" method on
// the calling Java thread. The method is looked up once; a missing method
// or an exception thrown by the callback ends the strip. Such an exception
// is logged and cleared at once, so no later JNI call of the strip or of
// its binding runs with it pending.
class JniThumbnailSink : public ThumbnailSink {
public:
    JniThumbnailSink(JNIEnv* env, jobject callback);
    JniThumbnailSink(const JniThumbnailSink&) = delete;
    JniThumbnailSink& operator=(const JniThumbnailSink&) = delete;

    bool onThumbnail(int index, int ptsMs) override;

private:
    JNIEnv* mEnv;
    jobject mCallback;
    jmethodID mOnThumbnail;
};
