// The event listener against a real JVM: native threads are attached for
// each call and detached afterwards, also when several call at once and when
// the listener is destroyed on one; a thread that attached itself stays
// attached; an exception in the Java handler is cleared and logged.

#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "NativeEventPostListener.h"
#include "support/JvmHarness.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

class NativeEventPostListenerTest : public ::testing::Test {
protected:
    void SetUp() override {
        env = jniEnv();
        ASSERT_NE(env, nullptr);
        cls = env->FindClass("kavra/test/EventRecorder");
        ASSERT_FALSE(javaExceptionPending(env));
        jmethodID method = env->GetStaticMethodID(cls, "postEventFromNative", "(Ljava/lang/Object;III)V");
        ASSERT_FALSE(javaExceptionPending(env));
        // The owner stands in for its own weak self-reference.
        owner = env->AllocObject(cls);
        ASSERT_FALSE(javaExceptionPending(env));
        listener = std::make_unique<NativeEventPostListener>(env, owner, owner, method);
        resetRecorder(0);
    }
    void TearDown() override {
        listener.reset();
        env->DeleteLocalRef(owner);
        env->DeleteLocalRef(cls);
    }

    // With parties above 0, calls into Java wait there for each other.
    void resetRecorder(int parties) {
        env->CallStaticVoidMethod(cls, env->GetStaticMethodID(cls, "reset", "(I)V"), parties);
        ASSERT_FALSE(javaExceptionPending(env));
    }
    // count, whatSum or met of the recorder.
    int read(const char* name) { return env->GetStaticIntField(cls, env->GetStaticFieldID(cls, name, "I")); }

    JNIEnv* env = nullptr;
    jclass cls = nullptr;
    jobject owner = nullptr;
    std::unique_ptr<NativeEventPostListener> listener;
};

// Both threads are inside the Java method at the same moment, so their
// attach and detach overlap; each must still be detached when its call
// returns. The last owner may then drop the listener on a native thread.
TEST_F(NativeEventPostListenerTest, NativeThreadsAreAttachedForEachCallAndDetachedAfterwards) {
    resetRecorder(2);
    bool attachedAfter[3] = {true, true, true};
    auto call = [&](int i) {
        listener->notify(100 + i, i, 0);
        attachedAfter[i] = attachedToJvm();
    };
    std::thread first(call, 0);
    std::thread second(call, 1);
    first.join();
    second.join();
    EXPECT_EQ(read("count"), 2);
    EXPECT_EQ(read("met"), 2);
    EXPECT_EQ(read("whatSum"), 201);
    std::thread last([&] {
        listener.reset();
        attachedAfter[2] = attachedToJvm();
    });
    last.join();
    EXPECT_FALSE(attachedAfter[0]);
    EXPECT_FALSE(attachedAfter[1]);
    EXPECT_FALSE(attachedAfter[2]) << "destroyed on a native thread";
}

// A thread that attached itself (as a Java thread is) is left attached, and
// nothing thrown by the handler stays pending on it.
TEST_F(NativeEventPostListenerTest, AnAttachedThreadStaysAttachedAndTheHandlersExceptionIsClearedAndLogged) {
    LogCapture log;
    bool pending = true;
    bool attachedAfter = false;
    std::thread t([&] {
        JNIEnv* own = nullptr;
        ASSERT_EQ(javaVM()->AttachCurrentThread(reinterpret_cast<void**>(&own), nullptr), JNI_OK);
        listener->notify(-1, 0, 0);  // EventRecorder.THROW
        pending = own->ExceptionCheck();
        listener->notify(3, 0, 0);
        attachedAfter = attachedToJvm();
        javaVM()->DetachCurrentThread();
    });
    t.join();
    EXPECT_FALSE(pending);
    EXPECT_TRUE(attachedAfter);
    EXPECT_TRUE(log.contains("NativeEventPostListener", "An exception occurred while notifying an event."));
    EXPECT_EQ(read("count"), 2) << "the listener keeps working after the exception";
}

}  // namespace
}  // namespace kavra::test
