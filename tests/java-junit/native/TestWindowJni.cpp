// Native half of kavra.junit.TestWindow: an in-memory native window behind
// a Java Surface, and read-back of the buffers queued to it. Built into a
// test-only library of its own; the shipped library knows nothing of it.

#include <jni.h>

#include <cstdint>
#include <memory>

#include "Platform/MemoryNativeWindow.h"
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

// This library's own entry point, so that the loader never runs the one of
// a library it depends on.
extern "C" JNIEXPORT jint JNI_OnLoad(JavaVM* vm, void*) {
    JNIEnv* env = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) != JNI_OK) {
        return -1;
    }
    jclass cls = env->FindClass("kavra/junit/TestWindow");
    if (cls == nullptr) {
        return -1;
    }
    jint result = env->RegisterNatives(cls, kMethods, static_cast<jint>(sizeof(kMethods) / sizeof(kMethods[0])));
    env->DeleteLocalRef(cls);
    return result < 0 ? -1 : JNI_VERSION_1_6;
}
