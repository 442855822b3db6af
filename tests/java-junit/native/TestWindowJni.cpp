// Native half of kavra.junit.TestWindow: an in-memory native window behind
// a Java Surface, and read-back of the buffers queued to it. Built into the
// tests' own library; the shipped library knows nothing of it.

#include <jni.h>

#include <cstdint>
#include <memory>

#include "MemoryNativeWindow.h"
#include "JunitNatives.h"
#include "Surface.h"

namespace {

struct TestWindow {
    std::shared_ptr<MemoryNativeWindow> window = std::make_shared<MemoryNativeWindow>();
    Surface surface{window};
};

TestWindow* fromHandle(jlong handle) { return reinterpret_cast<TestWindow*>(static_cast<intptr_t>(handle)); }

jlong create(JNIEnv*, jclass) { return static_cast<jlong>(reinterpret_cast<intptr_t>(new TestWindow())); }

void destroy(JNIEnv*, jclass, jlong handle) { delete fromHandle(handle); }

jlong surfaceAddress(JNIEnv*, jclass, jlong handle) { return fromHandle(handle)->surface.handle(); }

void abandon(JNIEnv*, jclass, jlong handle) { fromHandle(handle)->surface.abandon(); }

jboolean waitForQueued(JNIEnv*, jclass, jlong handle, jint count, jint timeoutMs) {
    return fromHandle(handle)->window->waitForQueued(static_cast<uint64_t>(count), timeoutMs) ? JNI_TRUE : JNI_FALSE;
}

jint queuedCount(JNIEnv*, jclass, jlong handle) { return static_cast<jint>(fromHandle(handle)->window->queuedCount()); }

// The last queued buffer: {width, height, stride, format} into `geometry`
// and its bytes as the result; null when none was queued.
jbyteArray lastQueued(JNIEnv* env, jclass, jlong handle, jintArray geometry) {
    MemoryNativeWindow& window = *fromHandle(handle)->window;
    size_t kept = window.keptCount();
    if (kept == 0) {
        return nullptr;
    }
    MemoryNativeWindow::QueuedBuffer buffer = window.kept(kept - 1);
    const jint values[4] = {buffer.width, buffer.height, buffer.stride, buffer.format};
    env->SetIntArrayRegion(geometry, 0, 4, values);
    jbyteArray bytes = env->NewByteArray(static_cast<jsize>(buffer.bytes.size()));
    if (bytes != nullptr) {
        env->SetByteArrayRegion(bytes, 0, static_cast<jsize>(buffer.bytes.size()),
                                reinterpret_cast<const jbyte*>(buffer.bytes.data()));
    }
    return bytes;
}

#define NATIVE(name, signature, function) \
    { const_cast<char*>(name), const_cast<char*>(signature), reinterpret_cast<void*>(function) }

const JNINativeMethod kMethods[] = {
    NATIVE("create", "()J", create),
    NATIVE("destroy", "(J)V", destroy),
    NATIVE("surfaceAddress", "(J)J", surfaceAddress),
    NATIVE("abandon", "(J)V", abandon),
    NATIVE("waitForQueued", "(JII)Z", waitForQueued),
    NATIVE("queuedCount", "(J)I", queuedCount),
    NATIVE("lastQueued", "(J[I)[B", lastQueued),
};

}  // namespace

bool registerTestWindow(JNIEnv* env) {
    return registerNatives(env, "kavra/junit/TestWindow", kMethods, sizeof(kMethods) / sizeof(kMethods[0]));
}
