// Java exceptions around the PCM sink's calls into Java, in the test VM
// with checked JNI: a callback without the method and a callback that
// throws leave nothing pending, are logged, and no JNI call is made with an
// exception pending (the checked JNI would complain).

#include <gtest/gtest.h>

#include <thread>

#include "Render/JniPcmSink.h"
#include "support/JvmHarness.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

TEST(JniPcmSink, JavaExceptionsAreLoggedAndClearedBeforeTheNextJniCall) {
    JNIEnv* env = jniEnv();
    ASSERT_NE(env, nullptr);
    ASSERT_FALSE(javaExceptionPending(env));
    const int complaints = jniComplaintCount();
    LogCapture log;
    const uint8_t pcm[16] = {};
    {
        // No onAudioBuffer: the method lookup raises NoSuchMethodError.
        jclass objectClass = env->FindClass("java/lang/Object");
        jobject plain = env->AllocObject(objectClass);
        JniPcmSink sink(env, plain);
        EXPECT_FALSE(env->ExceptionCheck());
        EXPECT_EQ(sink.deliver(pcm, sizeof(pcm)), -1);
        env->DeleteLocalRef(plain);
        env->DeleteLocalRef(objectClass);
    }
    jclass cls = env->FindClass("kavra/test/FailingPcmCallback");
    ASSERT_NE(cls, nullptr);
    jobject callback = env->NewObject(cls, env->GetMethodID(cls, "<init>", "()V"));
    ASSERT_NE(callback, nullptr);
    {
        JniPcmSink sink(env, callback);
        // Twice on this Java thread, then on a native thread that the sink
        // attaches and detaches.
        EXPECT_EQ(sink.deliver(pcm, sizeof(pcm)), -1);
        EXPECT_FALSE(env->ExceptionCheck()) << "the callback's exception was left pending";
        EXPECT_EQ(sink.deliver(pcm, sizeof(pcm)), -1);
        std::thread native([&] { EXPECT_EQ(sink.deliver(pcm, sizeof(pcm)), -1); });
        native.join();
    }
    ASSERT_FALSE(javaExceptionPending(env));
    jint calls = env->CallIntMethod(callback, env->GetMethodID(cls, "calls", "()I"));
    ASSERT_FALSE(javaExceptionPending(env));
    EXPECT_EQ(calls, 3);
    EXPECT_EQ(log.count("AudioRender", "onAudioBuffer threw an exception."), 3);
    EXPECT_EQ(jniComplaintCount(), complaints) << "a JNI call was made with an exception pending";
    env->DeleteLocalRef(callback);
    env->DeleteLocalRef(cls);
}

}  // namespace
}  // namespace kavra::test
