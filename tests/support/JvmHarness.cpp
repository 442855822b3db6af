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
    JavaVMOption options[4];
    options[0].optionString = const_cast<char*>(classPath.c_str());
    // The JVM must not install handlers for signals the sanitizers use.
    options[1].optionString = const_cast<char*>("-Xrs");
    options[2].optionString = const_cast<char*>("-Xmx256m");
    // Checked JNI: misuse such as a JNI call with an exception pending is
    // reported.
    options[3].optionString = const_cast<char*>("-Xcheck:jni");
    JavaVMInitArgs args;
    args.version = JNI_VERSION_1_6;
    args.nOptions = 4;
    args.options = options;
    args.ignoreUnrecognized = JNI_FALSE;
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
