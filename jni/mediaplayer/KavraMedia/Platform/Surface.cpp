#include "Platform/Surface.h"

#include <cstdint>
#include <utility>

Surface::Surface(std::shared_ptr<NativeWindow> window) : mWindow(std::move(window)), mAbandoned(false) {}

std::shared_ptr<NativeWindow> Surface::getIGraphicBufferProducer() const {
    if (mAbandoned) {
        return nullptr;
    }
    return getNativeWindow();
}

std::shared_ptr<NativeWindow> Surface::getNativeWindow() const { return mWindow; }

void Surface::abandon() { mAbandoned = true; }

Surface* android_view_Surface_getSurface(JNIEnv* env, jobject surface) {
    if (env == nullptr || surface == nullptr) {
        return nullptr;
    }
    jclass cls = env->GetObjectClass(surface);
    if (cls == nullptr) {
        return nullptr;
    }
    jfieldID field = env->GetFieldID(cls, "mNativeObject", "J");
    env->DeleteLocalRef(cls);
    if (field == nullptr) {
        // NoSuchFieldError: not a surface this library knows.
        env->ExceptionClear();
        return nullptr;
    }
    jlong address = env->GetLongField(surface, field);
    return reinterpret_cast<Surface*>(static_cast<intptr_t>(address));
}
