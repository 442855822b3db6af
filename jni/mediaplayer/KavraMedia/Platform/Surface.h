#pragma once

#include <jni.h>

#include <atomic>
#include <memory>

#include "Platform/NativeWindow.h"

// The native side of a Java `android.view.Surface` on Linux: a native window
// and whether its buffer producer still exists. The Java object's `long`
// field `mNativeObject` holds the address of one `Surface`, or 0 when it has
// none. Whoever creates a `Surface` (an embedding program, a test) owns it,
// keeps it alive while any Java object refers to it, and deletes it.
//
// A surface is abandoned when its consumer goes away (a window closed): from
// then on it has no buffer producer and cannot be drawn into, though objects
// already holding its window keep a valid one. Thread-safe.
class Surface {
public:
    explicit Surface(std::shared_ptr<NativeWindow> window);
    Surface(const Surface&) = delete;
    Surface& operator=(const Surface&) = delete;

    // The window that buffers are queued to, or null once abandoned.
    std::shared_ptr<NativeWindow> getIGraphicBufferProducer() const;
    // A strong reference to the surface's window.
    std::shared_ptr<NativeWindow> getNativeWindow() const;
    // Drops the buffer producer.
    void abandon();

    // The address to store in a Java Surface's `mNativeObject`.
    jlong handle() { return static_cast<jlong>(reinterpret_cast<intptr_t>(this)); }

private:
    const std::shared_ptr<NativeWindow> mWindow;
    std::atomic<bool> mAbandoned;
};

// The surface behind a Java `android.view.Surface`, or null when the object
// is null, holds none, or has no `long mNativeObject` field.
Surface* android_view_Surface_getSurface(JNIEnv* env, jobject surface);
