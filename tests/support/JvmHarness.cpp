#include "support/JvmHarness.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>

namespace kavra::test {
namespace {
JavaVM* gVm = nullptr;
std::once_flag gOnce;

void createVm() {
    std::string classPath = std::string("-Djava.class.path=") + KAVRA_TEST_CLASSPATH;
    // -Xrs: the JVM must not install handlers for signals the sanitizers use.
    // -Xcheck:jni: misuse such as a JNI call with an exception pending is
    // reported.
    JavaVMOption options[] = {{const_cast<char*>(classPath.c_str()), nullptr}, {const_cast<char*>("-Xrs"), nullptr},
                              {const_cast<char*>("-Xmx256m"), nullptr}, {const_cast<char*>("-Xcheck:jni"), nullptr}};
    JavaVMInitArgs args{JNI_VERSION_1_6, 4, options, JNI_FALSE};
    JNIEnv* env = nullptr;
    if (JNI_CreateJavaVM(&gVm, reinterpret_cast<void**>(&env), &args) != JNI_OK) {
        gVm = nullptr;
    }
}
}  // namespace

JavaVM* javaVM() {
    std::call_once(gOnce, createVm);
    return gVm;
}

JNIEnv* jniEnv() {
    JavaVM* vm = javaVM();
    if (vm == nullptr) {
        return nullptr;
    }
    JNIEnv* env = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) == JNI_OK) {
        return env;
    }
    if (vm->AttachCurrentThread(reinterpret_cast<void**>(&env), nullptr) != JNI_OK) {
        return nullptr;
    }
    return env;
}

bool attachedToJvm() {
    JNIEnv* env = nullptr;
    return javaVM()->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) == JNI_OK;
}

bool javaExceptionPending(JNIEnv* env) {
    if (env->ExceptionCheck()) {
        env->ExceptionDescribe();
        env->ExceptionClear();
        ADD_FAILURE() << "a Java exception is pending";
        return true;
    }
    return false;
}

}  // namespace kavra::test
