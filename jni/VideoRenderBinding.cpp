// Native methods of the Java frame renderer class, which shows raw frames
// handed in as byte arrays in a surface: each reads the renderer's address
// from the object's `mNativeContext`, forwards to the VideoRender there and
// does nothing when the object has none.

#include <android/log.h>
#include <jni.h>

#include <memory>

#include "Common/FrameBuffer.h"
#include "JniBindings.h"
#include "Render/VideoRender.h"
#include "Platform/Surface.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixfmt.h>
}

const char* const kVideoRenderClass = "cn/kavra/video/player/common/VideoRender";

namespace {

// The platform media codec's planar YUV 4:2:0 colour format; every other
// value means semi-planar NV12.
constexpr int kColorFormatYUV420Planar = 19;

// Looked up again by every native_setSurface.
jfieldID gRenderContext = nullptr;

VideoRender* getRender(JNIEnv* env, jobject thiz) { return nativeContext<VideoRender>(env, thiz, gRenderContext); }

void setSurface(JNIEnv* env, jobject thiz, jobject jsurface, jint rotation) {
    gRenderContext = lookUpContextField(env, kVideoRenderClass);
    if (gRenderContext == nullptr) {
        return;
    }
    // Every call replaces the renderer, even for the same surface.
    std::unique_ptr<VideoRender> render(new VideoRender());
    VideoRender* old = getRender(env, thiz);
    if (old != nullptr) {
        setNativeContext<VideoRender>(env, thiz, gRenderContext, nullptr);
        delete old;
    }
    setNativeContext(env, thiz, gRenderContext, render.release());
    VideoRender* current = getRender(env, thiz);
    if (jsurface == nullptr || current == nullptr) {
        __android_log_print(ANDROID_LOG_WARN, nullptr, "jsurface is null");
        return;
    }
    Surface* surface = android_view_Surface_getSurface(env, jsurface);
    if (surface == nullptr || surface->getIGraphicBufferProducer() == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, nullptr, "surface is invalid ");
        return;
    }
    std::shared_ptr<NativeWindow> window = surface->getNativeWindow();
    current->setVideoPlayer(window, rotation);
}

void renderFrame(JNIEnv* env, jobject thiz, jbyteArray data, jint colorFormat, jint width, jint height,
                 jint delayMs) {
    VideoRender* render = getRender(env, thiz);
    if (render == nullptr || data == nullptr) {
        return;
    }
    const AVPixelFormat format = colorFormat == kColorFormatYUV420Planar ? AV_PIX_FMT_YUV420P : AV_PIX_FMT_NV12;
    // The picture is read straight from the bytes, which must hold all of it.
    const int needed = width > 0 && height > 0 ? av_image_get_buffer_size(format, width, height, 1) : -1;
    if (needed <= 0 || env->GetArrayLength(data) < needed) {
        __android_log_print(ANDROID_LOG_ERROR, KAVRA_BINDING_TAG,
                            "renderFrame: %d bytes cannot hold a %dx%d picture of colour format %d",
                            static_cast<int>(env->GetArrayLength(data)), width, height, colorFormat);
        return;
    }
    jbyte* bytes = env->GetByteArrayElements(data, nullptr);
    if (bytes == nullptr) {
        return;  // OutOfMemoryError pending
    }
    Picture picture = {};
    av_image_fill_arrays(picture.data, picture.linesize, reinterpret_cast<const uint8_t*>(bytes), format, width,
                         height, 1);
    FrameBuffer frame = {};
    frame.data = &picture;
    frame.format = format;
    frame.width = width;
    frame.height = height;
    // A size of 0 would mark the end of a stream.
    frame.size = needed;
    render->renderFrame(&frame, delayMs);
    // The renderer has taken its own copy; nothing was written.
    env->ReleaseByteArrayElements(data, bytes, JNI_ABORT);
}

void flush(JNIEnv* env, jobject thiz) {
    VideoRender* render = getRender(env, thiz);
    if (render != nullptr) {
        render->flush();
    }
}

void release(JNIEnv* env, jobject thiz) {
    VideoRender* render = getRender(env, thiz);
    if (render != nullptr) {
        delete render;
        setNativeContext<VideoRender>(env, thiz, gRenderContext, nullptr);
    }
}

#define NATIVE KAVRA_NATIVE

const JNINativeMethod kMethods[] = {
    NATIVE("native_setSurface", "(Landroid/view/Surface;I)V", setSurface),
    NATIVE("native_renderFrame", "([BIIII)V", renderFrame),
    NATIVE("native_flush", "()V", flush),
    NATIVE("native_release", "()V", release),
};

#undef NATIVE

}  // namespace

int register_cn_kavra_video_render(JNIEnv* env) {
    const int count = static_cast<int>(sizeof(kMethods) / sizeof(kMethods[0]));
    return registerNativeMethods(env, kVideoRenderClass, kMethods, count) < 0 ? -1 : 0;
}
