// Native methods of the Java editor item class: each reads the item's
// address from the object's `mNativeContext`, forwards to the VideoItem
// there and answers a fixed value when the object has none.

#include <jni.h>

#include <memory>

#include "JniBindings.h"
#include "editor/JniThumbnailSink.h"
#include "editor/VideoItem.h"

const char* const kVideoItemClass = "cn/kavra/video/editor/VideoItem";

namespace {

// Looked up again by every native_setDataSource.
jfieldID gItemContext = nullptr;

VideoItem* getItem(JNIEnv* env, jobject thiz) { return nativeContext<VideoItem>(env, thiz, gItemContext); }

// The elements of a Java int array, released when the holder goes. A
// virtual machine may hand out a copy: commit() writes the copy back into
// the array, and the release writes it back a last time.
class IntArrayElements {
public:
    IntArrayElements(JNIEnv* env, jintArray array)
        : mEnv(env), mArray(array), mElements(nullptr), mLength(0) {
        if (array != nullptr) {
            mLength = env->GetArrayLength(array);
            mElements = env->GetIntArrayElements(array, nullptr);
        }
    }
    ~IntArrayElements() {
        if (mElements != nullptr) {
            mEnv->ReleaseIntArrayElements(mArray, mElements, 0);
        }
    }
    IntArrayElements(const IntArrayElements&) = delete;
    IntArrayElements& operator=(const IntArrayElements&) = delete;

    int* data() const { return reinterpret_cast<int*>(mElements); }
    // Size in bytes; 0 without elements.
    int bytes() const { return mElements != nullptr ? mLength * 4 : 0; }
    void commit() const {
        if (mElements != nullptr) {
            mEnv->ReleaseIntArrayElements(mArray, mElements, JNI_COMMIT);
        }
    }

private:
    JNIEnv* mEnv;
    jintArray mArray;
    jint* mElements;
    jsize mLength;
};

// Hands each thumbnail to the Java callback once its pixels stand in the
// Java array itself, not only in a copy of it.
class CommittingThumbnailSink : public ThumbnailSink {
public:
    CommittingThumbnailSink(JNIEnv* env, jobject callback, const IntArrayElements& pixels)
        : mCallback(env, callback), mPixels(pixels) {}

    bool onThumbnail(int index, int ptsMs) override {
        mPixels.commit();
        return mCallback.onThumbnail(index, ptsMs);
    }

private:
    JniThumbnailSink mCallback;
    const IntArrayElements& mPixels;
};

class StringChars {
public:
    StringChars(JNIEnv* env, jstring string)
        : mEnv(env), mString(string), mChars(string != nullptr ? env->GetStringUTFChars(string, nullptr) : nullptr) {}
    ~StringChars() {
        if (mChars != nullptr) {
            mEnv->ReleaseStringUTFChars(mString, mChars);
        }
    }
    StringChars(const StringChars&) = delete;
    StringChars& operator=(const StringChars&) = delete;

    const char* get() const { return mChars; }

private:
    JNIEnv* mEnv;
    jstring mString;
    const char* mChars;
};

jint setDataSource(JNIEnv* env, jobject thiz, jstring path, jboolean singleThread) {
    gItemContext = lookUpContextField(env, kVideoItemClass);
    if (path == nullptr || gItemContext == nullptr) {
        return -1;
    }
    std::unique_ptr<VideoItem> item(new VideoItem());
    VideoItem* old = getItem(env, thiz);
    if (old != nullptr) {
        // Replaced without release.
        setNativeContext<VideoItem>(env, thiz, gItemContext, nullptr);
        delete old;
    }
    setNativeContext(env, thiz, gItemContext, item.release());
    StringChars chars(env, path);
    if (chars.get() == nullptr) {
        return -1;  // OutOfMemoryError pending
    }
    // A failed source leaves the new item in place.
    return getItem(env, thiz)->setSource(chars.get(), singleThread != 0) >= 0 ? 0 : -1;
}

template <int (KavraMedia::*getter)()>
jint query(JNIEnv* env, jobject thiz) {
    VideoItem* item = getItem(env, thiz);
    return item != nullptr ? (item->*getter)() : -1;
}

jint getThumbnailList(JNIEnv* env, jobject thiz, jintArray out, jint width, jint height, jlong startMs,
                      jlong endMs, jint count, jobject callback) {
    IntArrayElements pixels(env, out);
    VideoItem* item = getItem(env, thiz);
    if (item == nullptr) {
        return 0;
    }
    item->setItemParameters(static_cast<int>(startMs), static_cast<int>(endMs), count, width, height, true);
    CommittingThumbnailSink sink(env, callback, pixels);
    return item->getThumbnailList(pixels.data(), pixels.bytes(), sink);
}

jint snapShot(JNIEnv* env, jobject thiz, jstring path, jlong timeMs) {
    StringChars chars(env, path);
    VideoItem* item = getItem(env, thiz);
    if (item == nullptr || chars.get() == nullptr) {
        return -1;
    }
    return item->snapShot(chars.get(), static_cast<long>(timeMs));
}

void cancel(JNIEnv* env, jobject thiz) {
    VideoItem* item = getItem(env, thiz);
    if (item != nullptr) {
        item->cancel();
    }
}

void release(JNIEnv* env, jobject thiz) {
    VideoItem* item = getItem(env, thiz);
    if (item == nullptr || !item->release()) {
        // An item that cannot be released now stays attached.
        return;
    }
    item = getItem(env, thiz);
    if (item != nullptr) {
        setNativeContext<VideoItem>(env, thiz, gItemContext, nullptr);
        delete item;
    }
    setNativeContext<VideoItem>(env, thiz, gItemContext, nullptr);
}

jint getKeyFrameAt(JNIEnv* env, jobject thiz, jintArray out, jint width, jint height, jlong timeMs) {
    VideoItem* item = getItem(env, thiz);
    if (item == nullptr) {
        return -1;
    }
    IntArrayElements pixels(env, out);
    return item->getKeyFrameAt(pixels.data(), pixels.bytes(), width, height, static_cast<int>(timeMs));
}

#define NATIVE KAVRA_NATIVE

const JNINativeMethod kMethods[] = {
    NATIVE("native_setDataSource", "(Ljava/lang/String;Z)I", setDataSource),
    NATIVE("native_getDuration", "()I", query<&KavraMedia::getDuration>),
    NATIVE("native_getRotation", "()I", query<&KavraMedia::getRotation>),
    NATIVE("native_getThumbnailList", "([IIIJJILcn/kavra/video/editor/VideoItem$NativeGetThumbnailListCallback;)I",
           getThumbnailList),
    NATIVE("native_snapShot", "(Ljava/lang/String;J)I", snapShot),
    NATIVE("native_cancel", "()V", cancel),
    NATIVE("native_release", "()V", release),
    NATIVE("native_getFrameRate", "()I", query<&KavraMedia::getFrameRate>),
    NATIVE("native_getWidth", "()I", query<&KavraMedia::getWidth>),
    NATIVE("native_getHeight", "()I", query<&KavraMedia::getHeight>),
    NATIVE("native_getVideoMimeId", "()I", query<&KavraMedia::getVideoMimeID>),
    NATIVE("native_getKeyFrameAt", "([IIIJ)I", getKeyFrameAt),
};

#undef NATIVE

}  // namespace

int register_cn_kavra_video_editor(JNIEnv* env) {
    const int count = static_cast<int>(sizeof(kMethods) / sizeof(kMethods[0]));
    return registerNativeMethods(env, kVideoItemClass, kMethods, count) < 0 ? -1 : 0;
}
