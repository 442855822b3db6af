// The JUnit tests' own natives, found by their Java names: an in-memory
// native window behind a Java Surface with read-back of the buffers queued
// to it (kavra.junit.TestWindow), and the JVM's count of JNI global
// references (kavra.junit.LeakTest). The shipped library knows nothing of
// them.

#include <jni.h>
#include <jvmti.h>

#include <malloc.h>

#include <cstdint>
#include <memory>

#include "MemoryNativeWindow.h"
#include "Platform/Surface.h"

namespace {

struct TestWindow {
    std::shared_ptr<MemoryNativeWindow> window = std::make_shared<MemoryNativeWindow>();
    Surface surface{window};
};

TestWindow* fromHandle(jlong handle) { return reinterpret_cast<TestWindow*>(static_cast<intptr_t>(handle)); }

jint JNICALL countGlobalRoot(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo*, jlong, jlong, jlong,
                             jlong*, jlong*, jint, void* count) {
    if (kind == JVMTI_HEAP_REFERENCE_JNI_GLOBAL) {
        ++*static_cast<jint*>(count);
    }
    return 0;  // roots only: follow nothing further
}

}  // namespace

extern "C" {

// This library's own entry point, so that the loader never runs the one of
// the library it depends on.
JNIEXPORT jint JNI_OnLoad(JavaVM*, void*) { return JNI_VERSION_1_6; }

JNIEXPORT jlong JNICALL Java_kavra_junit_TestWindow_create(JNIEnv*, jclass) {
    return static_cast<jlong>(reinterpret_cast<intptr_t>(new TestWindow()));
}

JNIEXPORT void JNICALL Java_kavra_junit_TestWindow_destroy(JNIEnv*, jclass, jlong handle) {
    delete fromHandle(handle);
}

JNIEXPORT jlong JNICALL Java_kavra_junit_TestWindow_surfaceAddress(JNIEnv*, jclass, jlong handle) {
    return fromHandle(handle)->surface.handle();
}

JNIEXPORT void JNICALL Java_kavra_junit_TestWindow_abandon(JNIEnv*, jclass, jlong handle) {
    fromHandle(handle)->surface.abandon();
}

JNIEXPORT jint JNICALL Java_kavra_junit_TestWindow_queuedCount(JNIEnv*, jclass, jlong handle) {
    return static_cast<jint>(fromHandle(handle)->window->queuedCount());
}

// The last queued buffer: {width, height, stride} into `geometry`
// and its bytes as the result; null when none was queued.
JNIEXPORT jbyteArray JNICALL Java_kavra_junit_TestWindow_lastQueued(JNIEnv* env, jclass, jlong handle,
                                                                    jintArray geometry) {
    MemoryNativeWindow& window = *fromHandle(handle)->window;
    if (window.keptCount() == 0) {
        return nullptr;
    }
    MemoryNativeWindow::QueuedBuffer buffer = window.kept(window.keptCount() - 1);
    const jint values[3] = {buffer.width, buffer.height, buffer.stride};
    env->SetIntArrayRegion(geometry, 0, 3, values);
    jbyteArray bytes = env->NewByteArray(static_cast<jsize>(buffer.bytes.size()));
    if (bytes != nullptr) {
        env->SetByteArrayRegion(bytes, 0, static_cast<jsize>(buffer.bytes.size()),
                                reinterpret_cast<const jbyte*>(buffer.bytes.data()));
    }
    return bytes;
}

// Strong JNI global references in the whole process, read through the tool
// interface; -1 when it cannot tell.
JNIEXPORT jint JNICALL Java_kavra_junit_LeakTest_globalRefCount(JNIEnv* env, jclass) {
    JavaVM* vm = nullptr;
    jvmtiEnv* jvmti = nullptr;
    if (env->GetJavaVM(&vm) != JNI_OK || vm->GetEnv(reinterpret_cast<void**>(&jvmti), JVMTI_VERSION_1_2) != JNI_OK) {
        return -1;
    }
    jint count = -1;
    jvmtiCapabilities capabilities = {};
    capabilities.can_tag_objects = 1;
    if (jvmti->AddCapabilities(&capabilities) == JVMTI_ERROR_NONE) {
        jvmtiHeapCallbacks callbacks = {};
        callbacks.heap_reference_callback = countGlobalRoot;
        count = 0;
        if (jvmti->FollowReferences(0, nullptr, nullptr, &callbacks, &count) != JVMTI_ERROR_NONE) {
            count = -1;
        }
    }
    jvmti->DisposeEnvironment();
    return count;
}

// KiB of the C heap in use (small blocks and mapped large ones).
JNIEXPORT jlong JNICALL Java_kavra_junit_LeakTest_heapInUseKiB(JNIEnv*, jclass) {
    struct mallinfo2 heap = mallinfo2();
    return static_cast<jlong>((heap.uordblks + heap.hblkhd) / 1024);
}

}  // extern "C"
