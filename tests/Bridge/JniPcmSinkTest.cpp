// Java exceptions around the PCM sink's calls into Java: a callback that
// throws, called on a Java thread (where nothing else would clear the
// exception) and on a native thread the sink attaches, leaves nothing
// pending and is logged once per call.

#include <gtest/gtest.h>

#include <thread>

#include "Render/JniPcmSink.h"
#include "support/JvmHarness.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

TEST(JniPcmSink, JavaExceptionsAreLoggedAndCleared) {
    JNIEnv* env = jniEnv();
    ASSERT_NE(env, nullptr);
    jclass cls = env->FindClass("kavra/test/FailingPcmCallback");
    ASSERT_FALSE(javaExceptionPending(env));
    jobject callback = env->NewObject(cls, env->GetMethodID(cls, "<init>", "()V"));
    ASSERT_FALSE(javaExceptionPending(env));
    LogCapture log;
    const uint8_t pcm[16] = {};
    {
        JniPcmSink sink(env, callback);
        EXPECT_EQ(sink.deliver(pcm, sizeof(pcm)), -1);
        EXPECT_FALSE(javaExceptionPending(env)) << "the callback's exception was left pending";
        std::thread native([&] { EXPECT_EQ(sink.deliver(pcm, sizeof(pcm)), -1); });
        native.join();
    }
    EXPECT_EQ(env->GetIntField(callback, env->GetFieldID(cls, "calls", "I")), 2);
    EXPECT_EQ(log.count("AudioRender", "onAudioBuffer threw an exception."), 2);
    env->DeleteLocalRef(callback);
    env->DeleteLocalRef(cls);
}

}  // namespace
}  // namespace kavra::test
