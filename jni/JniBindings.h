#pragma once

#include <jni.h>

#include <cstdint>

// Registration of the native methods of the app's Java classes, called when
// the library is loaded. Each register function returns 0, or -1 when its
// class cannot be found or its methods cannot be registered (any exception
// that raised is cleared).

// Log tag of the bindings.
#define KAVRA_BINDING_TAG "com_android_video_player"

extern const char* const kKavraPlayerClass;  // "cn/kavra/video/player/common/KavraPlayer"
extern const char* const kVideoItemClass;    // "cn/kavra/video/editor/VideoItem"
extern const char* const kKavraTrimerClass;  // "cn/kavra/video/editor/KavraTrimer"
extern const char* const kVideoRenderClass;  // "cn/kavra/video/player/common/VideoRender"

int register_kavra_media_player(JNIEnv* env);
int register_cn_kavra_video_editor(JNIEnv* env);
int register_cn_kavra_trimer(JNIEnv* env);
int register_cn_kavra_video_render(JNIEnv* env);

// The native object whose address a Java object keeps in its `long` field,
// or null; the field id may be null (nothing looked up yet).
template <typename T>
T* nativeContext(JNIEnv* env, jobject thiz, jfieldID field) {
    if (field == nullptr || thiz == nullptr) {
        return nullptr;
    }
    return reinterpret_cast<T*>(static_cast<intptr_t>(env->GetLongField(thiz, field)));
}

template <typename T>
void setNativeContext(JNIEnv* env, jobject thiz, jfieldID field, T* object) {
    env->SetLongField(thiz, field, static_cast<jlong>(reinterpret_cast<intptr_t>(object)));
}

// One entry of a class's native method table.
#define KAVRA_NATIVE(name, signature, function) \
    { const_cast<char*>(name), const_cast<char*>(signature), reinterpret_cast<void*>(function) }

// Registers `count` methods on the class named `className`. Returns 0, -1
// when the class cannot be found, -2 when registration fails; any exception
// raised is cleared.
int registerNativeMethods(JNIEnv* env, const char* className, const JNINativeMethod* methods, int count);

// The `long mNativeContext` field of the class named `className`, or null
// (any exception raised is cleared).
jfieldID lookUpContextField(JNIEnv* env, const char* className);

// The field and callback of a class whose native object posts events.
struct NativeClassIds {
    jfieldID context = nullptr;
    jmethodID postEvent = nullptr;
};

// Looks up `mNativeContext` and the static "postEventFromNative" of the
// class named `className`. A failed look-up leaves its NoSuchFieldError or
// NoSuchMethodError pending, so that the class's initialisation fails with it.
void lookUpEventClassIds(JNIEnv* env, const char* className, NativeClassIds& ids);
