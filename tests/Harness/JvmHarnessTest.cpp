// The in-process JVM that the bridge tests rely on: usable from the test
// thread and from native threads that attach and detach themselves.

#include <gtest/gtest.h>

#include <thread>

#include "support/JvmHarness.h"

namespace kavra::test {
namespace {

int counterValue(JNIEnv* env) {
    jclass cls = env->FindClass("kavra/test/Counter");
    jmethodID get = env->GetStaticMethodID(cls, "get", "()I");
    int value = env->CallStaticIntMethod(cls, get);
    env->DeleteLocalRef(cls);
    return value;
}

void increment(JNIEnv* env) {
    jclass cls = env->FindClass("kavra/test/Counter");
    ASSERT_NE(cls, nullptr);
    jmethodID inc = env->GetStaticMethodID(cls, "increment", "()V");
    env->CallStaticVoidMethod(cls, inc);
    env->DeleteLocalRef(cls);
}

TEST(JvmHarness, CallsJavaFromTheTestThreadAndFromNativeThreads) {
    JNIEnv* env = jniEnv();
    ASSERT_NE(env, nullptr);
    int before = counterValue(env);
    increment(env);

    std::thread native([] {
        JavaVM* vm = javaVM();
        JNIEnv* threadEnv = nullptr;
        ASSERT_EQ(vm->AttachCurrentThread(reinterpret_cast<void**>(&threadEnv), nullptr), JNI_OK);
        increment(threadEnv);
        vm->DetachCurrentThread();
    });
    native.join();
    EXPECT_EQ(counterValue(env), before + 2);
    EXPECT_FALSE(javaExceptionPending(env));
}

}  // namespace
}  // namespace kavra::test
