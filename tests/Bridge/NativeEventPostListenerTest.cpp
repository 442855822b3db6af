// The event listener against a real JVM: the attach and detach bookkeeping
// around calls from native threads, alone, several at once, and from a
// thread that attached itself; an exception in the Java handler.

#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

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
        method = env->GetStaticMethodID(cls, "postEventFromNative", "(Ljava/lang/Object;III)V");
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

    void resetRecorder(int parties) {
        env->CallStaticVoidMethod(cls, env->GetStaticMethodID(cls, "reset", "(I)V"), parties);
        EXPECT_FALSE(javaExceptionPending(env));
    }
    // count, whatSum or met of the recorder.
    int read(const char* name) {
        int value = env->CallStaticIntMethod(cls, env->GetStaticMethodID(cls, name, "()I"));
        EXPECT_FALSE(javaExceptionPending(env)) << name;
        return value;
    }

    JNIEnv* env = nullptr;
    jclass cls = nullptr;
    jmethodID method = nullptr;
    jobject owner = nullptr;
    std::unique_ptr<NativeEventPostListener> listener;
};

// Whether the calling thread is attached to the virtual machine.
bool attached() {
    JNIEnv* e = nullptr;
    return javaVM()->GetEnv(reinterpret_cast<void**>(&e), JNI_VERSION_1_6) == JNI_OK;
}

TEST_F(NativeEventPostListenerTest, NativeThreadIsAttachedForTheCallAndDetachedAfterwards) {
    bool attachedBefore = true;
    bool attachedAfter = true;
    std::thread t([&] {
        attachedBefore = attached();
        listener->notify(1, 0, 0);
        attachedAfter = attached();
    });
    t.join();
    EXPECT_FALSE(attachedBefore);
    EXPECT_FALSE(attachedAfter);
    EXPECT_EQ(read("count"), 1);
    EXPECT_EQ(read("whatSum"), 1);
}

TEST_F(NativeEventPostListenerTest, NativeThreadThatAttachedItselfStaysAttached) {
    bool attachedAfter = false;
    std::thread t([&] {
        JNIEnv* own = nullptr;
        ASSERT_EQ(javaVM()->AttachCurrentThread(reinterpret_cast<void**>(&own), nullptr), JNI_OK);
        listener->notify(2, 7, 8);
        attachedAfter = attached();
        javaVM()->DetachCurrentThread();
    });
    t.join();
    EXPECT_TRUE(attachedAfter);
    EXPECT_EQ(read("count"), 1);
}

// Both threads are inside the Java method at the same moment (the Java side
// holds each call until both have arrived), so their attach and detach
// overlap; each must still be detached when its call returns.
TEST_F(NativeEventPostListenerTest, TwoNativeThreadsCallingAtOnceBothGetThroughAndDetach) {
    resetRecorder(2);
    bool attachedAfter[2] = {true, true};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&, i] {
            listener->notify(100 + i, i, 0);
            attachedAfter[i] = attached();
        });
    }
    for (auto& t : threads) {
        t.join();
    }
    EXPECT_EQ(read("count"), 2);
    EXPECT_EQ(read("met"), 2);
    EXPECT_FALSE(attachedAfter[0]);
    EXPECT_FALSE(attachedAfter[1]);
    EXPECT_EQ(read("whatSum"), 201);
}

TEST_F(NativeEventPostListenerTest, ExceptionInHandlerIsClearedAndLogged) {
    LogCapture log;
    listener->notify(-1, 0, 0);
    EXPECT_FALSE(env->ExceptionCheck());
    EXPECT_TRUE(log.contains("NativeEventPostListener", "An exception occurred while notifying an event."));
    // The listener keeps working.
    listener->notify(3, 0, 0);
    EXPECT_EQ(read("count"), 2);
}

TEST_F(NativeEventPostListenerTest, DestroyedOnNativeThreadLeavesItDetached) {
    bool attachedAfter = true;
    std::thread t([&] {
        listener.reset();
        attachedAfter = attached();
    });
    t.join();
    EXPECT_FALSE(attachedAfter);
}

}  // namespace
}  // namespace kavra::test
