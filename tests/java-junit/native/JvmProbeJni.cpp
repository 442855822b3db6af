// Native half of kavra.junit.JvmProbe: what the virtual machine holds on
// behalf of native code, read through the tool interface.

#include <jni.h>
#include <jvmti.h>

#include "JunitNatives.h"

namespace {

jint JNICALL countGlobalRoot(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo*, jlong, jlong, jlong,
                             jlong*, jlong*, jint, void* count) {
    if (kind == JVMTI_HEAP_REFERENCE_JNI_GLOBAL) {
        ++*static_cast<jint*>(count);
    }
    return 0;  // roots only: follow nothing further
}

// Strong JNI global references in the whole process; -1 when the tool
// interface cannot tell.
jint globalRefCount(JNIEnv* env, jclass) {
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

const JNINativeMethod kMethods[] = {
    {const_cast<char*>("globalRefCount"), const_cast<char*>("()I"), reinterpret_cast<void*>(globalRefCount)},
};

}  // namespace

bool registerJvmProbe(JNIEnv* env) {
    return registerNatives(env, "kavra/junit/JvmProbe", kMethods, sizeof(kMethods) / sizeof(kMethods[0]));
}
