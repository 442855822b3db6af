// The event listener against a real JVM: calls from the Java thread, from
// native threads, from several native threads at once, and the attach and
// detach bookkeeping around each call.

#include <gtest/gtest.h>
#include <android/log.h>

#include <memory>
#include <thread>
#include <vector>

#include "NativeEventPostListener.h"
#include "support/JvmHarness.h"
#include "support/LogCapture.h"
#include "trimmer/VideoTrimer.h"

namespace kavra::test {
namespace {

const char* kRecorder = "kavra/test/EventRecorder";

struct Recorded {
    jobject ref;  // local reference
    int what;
    int arg1;
    int arg2;
};

class NativeEventPostListenerTest : public ::testing::Test {
protected:
    void SetUp() override {
        env = jniEnv();
        ASSERT_NE(env, nullptr);
        cls = env->FindClass(kRecorder);
        ASSERT_NE(cls, nullptr);
        method = env->GetStaticMethodID(cls, "postEventFromNative", "(Ljava/lang/Object;III)V");
        ASSERT_NE(method, nullptr);
        jmethodID ctor = env->GetMethodID(cls, "<init>", "()V");
        thiz = env->NewObject(cls, ctor);
        ASSERT_NE(thiz, nullptr);
        jclass weakClass = env->FindClass("java/lang/ref/WeakReference");
        jmethodID weakCtor = env->GetMethodID(weakClass, "<init>", "(Ljava/lang/Object;)V");
        weakThis = env->NewObject(weakClass, weakCtor, thiz);
        env->DeleteLocalRef(weakClass);
        ASSERT_NE(weakThis, nullptr);
        reset(0);
    }

    void TearDown() override {
        if (env != nullptr) {
            env->DeleteLocalRef(weakThis);
            env->DeleteLocalRef(thiz);
            env->DeleteLocalRef(cls);
        }
    }

    void reset(int parties) {
        jmethodID m = env->GetStaticMethodID(cls, "reset", "(I)V");
        env->CallStaticVoidMethod(cls, m, parties);
    }

    int count() { return env->CallStaticIntMethod(cls, env->GetStaticMethodID(cls, "count", "()I")); }
    int met() { return env->CallStaticIntMethod(cls, env->GetStaticMethodID(cls, "met", "()I")); }

    Recorded event(int index) {
        jmethodID m = env->GetStaticMethodID(cls, "event", "(I)Lkavra/test/EventRecorder$Event;");
        jobject e = env->CallStaticObjectMethod(cls, m, index);
        jclass ec = env->GetObjectClass(e);
        Recorded r;
        r.ref = env->GetObjectField(e, env->GetFieldID(ec, "ref", "Ljava/lang/Object;"));
        r.what = env->GetIntField(e, env->GetFieldID(ec, "what", "I"));
        r.arg1 = env->GetIntField(e, env->GetFieldID(ec, "arg1", "I"));
        r.arg2 = env->GetIntField(e, env->GetFieldID(ec, "arg2", "I"));
        env->DeleteLocalRef(ec);
        env->DeleteLocalRef(e);
        return r;
    }

    std::unique_ptr<NativeEventPostListener> makeListener() {
        return std::make_unique<NativeEventPostListener>(env, thiz, weakThis, method);
    }

    JNIEnv* env = nullptr;
    jclass cls = nullptr;
    jmethodID method = nullptr;
    jobject thiz = nullptr;
    jobject weakThis = nullptr;
};

// Whether the calling thread is attached to the virtual machine.
bool attached() {
    JNIEnv* e = nullptr;
    return javaVM()->GetEnv(reinterpret_cast<void**>(&e), JNI_VERSION_1_6) == JNI_OK;
}

TEST_F(NativeEventPostListenerTest, CallFromJavaThreadReachesStaticMethodAndLeavesThreadAttached) {
    auto listener = makeListener();
    listener->notify(5, 320, 240);
    ASSERT_FALSE(javaExceptionPending(env));
    ASSERT_EQ(count(), 1);
    Recorded r = event(0);
    EXPECT_EQ(r.what, 5);
    EXPECT_EQ(r.arg1, 320);
    EXPECT_EQ(r.arg2, 240);
    EXPECT_TRUE(env->IsSameObject(r.ref, weakThis));
    env->DeleteLocalRef(r.ref);
    EXPECT_TRUE(attached());
}

TEST_F(NativeEventPostListenerTest, NativeThreadIsAttachedForTheCallAndDetachedAfterwards) {
    auto listener = makeListener();
    bool wasAttached = true;
    bool attachedAfter = true;
    std::thread t([&] {
        wasAttached = attached();
        listener->notify(1, 0, 0);
        attachedAfter = attached();
    });
    t.join();
    EXPECT_FALSE(wasAttached);
    EXPECT_FALSE(attachedAfter);
    ASSERT_EQ(count(), 1);
    EXPECT_EQ(event(0).what, 1);
}

TEST_F(NativeEventPostListenerTest, NativeThreadThatAttachedItselfStaysAttached) {
    auto listener = makeListener();
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
    ASSERT_EQ(count(), 1);
    EXPECT_EQ(event(0).arg1, 7);
}

// Both threads are inside the Java method at the same moment (the Java side
// holds each call until both have arrived), so their attach and detach
// overlap; each must still be detached when its call returns.
TEST_F(NativeEventPostListenerTest, TwoNativeThreadsCallingAtOnceBothGetThroughAndDetach) {
    auto listener = makeListener();
    reset(2);
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
    EXPECT_EQ(count(), 2);
    EXPECT_EQ(met(), 2);
    EXPECT_FALSE(attachedAfter[0]);
    EXPECT_FALSE(attachedAfter[1]);
    int whatSum = event(0).what + event(1).what;
    EXPECT_EQ(whatSum, 201);
}

TEST_F(NativeEventPostListenerTest, ExceptionInHandlerIsClearedAndLogged) {
    LogCapture log;
    auto listener = makeListener();
    listener->notify(-1, 0, 0);
    EXPECT_FALSE(env->ExceptionCheck());
    EXPECT_TRUE(log.contains("NativeEventPostListener", "An exception occurred while notifying an event."));
    // The listener keeps working.
    listener->notify(3, 0, 0);
    EXPECT_EQ(count(), 2);
}

TEST_F(NativeEventPostListenerTest, OwnerWithoutObjectSendsNothing) {
    NativeEventPostListener listener(env, nullptr, weakThis, method);
    listener.notify(1, 2, 3);
    EXPECT_EQ(count(), 0);
}

TEST_F(NativeEventPostListenerTest, DestroyedOnNativeThreadLeavesItDetached) {
    auto listener = makeListener();
    bool attachedAfter = true;
    std::thread t([&] {
        listener.reset();
        attachedAfter = attached();
    });
    t.join();
    EXPECT_FALSE(attachedAfter);
}

TEST_F(NativeEventPostListenerTest, TrimmerForwardsEventsToItsListenerAndReplacesIt) {
    VideoTrimer trimer("/nonexistent/in.mp4", "/nonexistent/out.mp4");
    trimer.notifyEvent(9, 9, 9);  // no listener yet: nothing happens
    trimer.setJNIListener(env, thiz, weakThis, method);
    trimer.setJNIListener(env, thiz, weakThis, method);
    trimer.notifyEvent(4, 5, 6);
    ASSERT_EQ(count(), 1);
    Recorded r = event(0);
    EXPECT_EQ(r.what, 4);
    EXPECT_EQ(r.arg2, 6);
    EXPECT_TRUE(env->IsSameObject(r.ref, weakThis));
    env->DeleteLocalRef(r.ref);
    trimer.release();
    trimer.notifyEvent(7, 0, 0);
    EXPECT_EQ(count(), 1);
}

}  // namespace
}  // namespace kavra::test
