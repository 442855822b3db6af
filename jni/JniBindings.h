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

// The player's table, which the load registers itself.
const JNINativeMethod* kavraPlayerMethods();
int kavraPlayerMethodCount();

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
