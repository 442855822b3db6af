// Thumbnail strips delivered to a Java callback in the in-process JVM:
// onThumbnail(int) runs on the calling Java thread while the thumbnail's
// pixels stand in the destination; Java exceptions end the strip and are
// cleared.

#include <gtest/gtest.h>

#include "EditorTestSupport.h"
#include "editor/JniThumbnailSink.h"
#include "editor/VideoItem.h"
#include "support/JvmHarness.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

constexpr int kWidth = 160;
constexpr int kHeight = 120;

class JniThumbnailSinkTest : public ::testing::Test {
protected:
    void SetUp() override {
        env = jniEnv();
        ASSERT_NE(env, nullptr);
        recorderClass = env->FindClass("kavra/test/ThumbnailRecorder");
        ASSERT_NE(recorderClass, nullptr);
        pixels.assign(kWidth * kHeight, 0);
    }
    void TearDown() override {
        if (env != nullptr && recorderClass != nullptr) {
            env->DeleteLocalRef(recorderClass);
        }
    }

    // A recorder that copies the pixels of `pixels` during each call and
    // throws from the call for thumbnail `throwAt`.
    jobject makeRecorder(int throwAt) {
        jobject buffer = env->NewDirectByteBuffer(pixels.data(), static_cast<jlong>(pixels.size() * 4));
        jmethodID ctor = env->GetMethodID(recorderClass, "<init>", "(Ljava/nio/ByteBuffer;I)V");
        jobject recorder = env->NewObject(recorderClass, ctor, buffer, throwAt);
        env->DeleteLocalRef(buffer);
        return recorder;
    }
    int callInt(jobject recorder, const char* name, int arg) {
        jmethodID m = env->GetMethodID(recorderClass, name, "(I)I");
        return env->CallIntMethod(recorder, m, arg);
    }
    int count(jobject recorder) {
        jmethodID m = env->GetMethodID(recorderClass, "count", "()I");
        return env->CallIntMethod(recorder, m);
    }
    long long thread(jobject recorder, int call) {
        jmethodID m = env->GetMethodID(recorderClass, "thread", "(I)J");
        return env->CallLongMethod(recorder, m, call);
    }
    long long currentThread() {
        jmethodID m = env->GetStaticMethodID(recorderClass, "currentThreadId", "()J");
        return env->CallStaticLongMethod(recorderClass, m);
    }
    // Frame index of the pixels Java copied during call `call`.
    int copiedFrame(jobject recorder, int call) {
        jmethodID m = env->GetMethodID(recorderClass, "pixels", "(I)[I");
        auto array = static_cast<jintArray>(env->CallObjectMethod(recorder, m, call));
        std::vector<int> copy(static_cast<size_t>(env->GetArrayLength(array)));
        env->GetIntArrayRegion(array, 0, static_cast<jsize>(copy.size()), copy.data());
        env->DeleteLocalRef(array);
        return frameIndexFromRgba(reinterpret_cast<uint8_t*>(copy.data()), kWidth * 4, kWidth, kHeight);
    }

    JNIEnv* env = nullptr;
    jclass recorderClass = nullptr;
    std::vector<int> pixels;
};

TEST_F(JniThumbnailSinkTest, EachThumbnailReachesJavaOnTheCallingThreadWithItsPixelsInPlace) {
    auto item = openItem("h264_aac.mp4");
    item->setItemParameters(0, 9000, 4, kWidth, kHeight, true);
    jobject recorder = makeRecorder(-1);
    ASSERT_EQ(item->get_thumbnaillist(env, pixels.data(), static_cast<int>(pixels.size() * 4), recorder), 0);
    ASSERT_FALSE(javaExceptionPending(env));
    ASSERT_EQ(count(recorder), 4);
    const long long caller = currentThread();
    for (int i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(callInt(recorder, "index", i), i);
        EXPECT_EQ(thread(recorder, i), caller);
        EXPECT_EQ(copiedFrame(recorder, i), i * 90);
    }
    env->DeleteLocalRef(recorder);
}

// A Java exception ends the strip and is logged and cleared where it
// arises: no JNI call runs with it pending (the checked JNI would complain).
TEST_F(JniThumbnailSinkTest, AnExceptionInTheCallbackEndsTheStripAndIsLoggedAndCleared) {
    auto item = openItem("h264_aac.mp4");
    item->setItemParameters(0, 9000, 10, kWidth, kHeight, true);
    jobject recorder = makeRecorder(1);
    const int complaints = jniComplaintCount();
    LogCapture log;
    EXPECT_EQ(item->get_thumbnaillist(env, pixels.data(), static_cast<int>(pixels.size() * 4), recorder), 0);
    EXPECT_FALSE(env->ExceptionCheck()) << "the callback's exception was left pending";
    env->ExceptionClear();
    EXPECT_EQ(count(recorder), 2) << "no call after the one that threw";
    EXPECT_EQ(log.count("JNI_VideoItem", "onThumbnail threw an exception."), 1);
    EXPECT_EQ(jniComplaintCount(), complaints);
    env->DeleteLocalRef(recorder);
}

TEST_F(JniThumbnailSinkTest, ACallbackWithoutOnThumbnailGetsNoCallAndTheErrorIsCleared) {
    auto item = openItem("h264_aac.mp4");
    item->setItemParameters(0, 9000, 4, kWidth, kHeight, true);
    jclass objectClass = env->FindClass("java/lang/Object");
    jobject plain = env->AllocObject(objectClass);
    LogCapture log;
    EXPECT_EQ(item->get_thumbnaillist(env, pixels.data(), static_cast<int>(pixels.size() * 4), plain), 0);
    EXPECT_FALSE(env->ExceptionCheck()) << "NoSuchMethodError was left pending";
    env->ExceptionClear();
    EXPECT_EQ(log.count("JNI_VideoItem", "GetMethodID onThumbnail threw an exception."), 1);
    env->DeleteLocalRef(plain);
    env->DeleteLocalRef(objectClass);
}

}  // namespace
}  // namespace kavra::test
