// The audio renderer: 16-bit PCM handed to a real Java callback in the
// in-process virtual machine, from native and from Java threads.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "Render/AudioRender.h"
#include "Render/RenderTestSupport.h"
#include "support/JvmHarness.h"

namespace kavra::test {
namespace {

// One kavra.test.PcmRecorder, held by a global reference.
class Recorder {
public:
    explicit Recorder(JNIEnv* env) : mEnv(env) {
        jclass cls = env->FindClass("kavra/test/PcmRecorder");
        EXPECT_NE(cls, nullptr);
        jobject local = env->NewObject(cls, env->GetMethodID(cls, "<init>", "()V"));
        mObject = env->NewGlobalRef(local);
        mCount = env->GetMethodID(cls, "count", "()I");
        mBufferAt = env->GetMethodID(cls, "bufferAt", "(I)[B");
        env->DeleteLocalRef(local);
        env->DeleteLocalRef(cls);
    }
    ~Recorder() { mEnv->DeleteGlobalRef(mObject); }

    jobject object() const { return mObject; }
    int count() const { return mEnv->CallIntMethod(mObject, mCount); }
    std::vector<uint8_t> bufferAt(int i) const {
        auto array = static_cast<jbyteArray>(mEnv->CallObjectMethod(mObject, mBufferAt, i));
        std::vector<uint8_t> bytes(static_cast<size_t>(mEnv->GetArrayLength(array)));
        mEnv->GetByteArrayRegion(array, 0, static_cast<jsize>(bytes.size()), reinterpret_cast<jbyte*>(bytes.data()));
        mEnv->DeleteLocalRef(array);
        return bytes;
    }

private:
    JNIEnv* mEnv;
    jobject mObject;
    jmethodID mCount;
    jmethodID mBufferAt;
};

class AudioRenderTest : public ::testing::Test {
protected:
    void SetUp() override {
        env = jniEnv();
        ASSERT_NE(env, nullptr);
        // The first frame holds the start of a 1 kHz burst.
        frames = referenceFrames(fixture("h264_aac.mp4"), AVMEDIA_TYPE_AUDIO, 1);
        ASSERT_EQ(frames.size(), 1u);
        ASSERT_EQ(frames[0]->format, AV_SAMPLE_FMT_FLTP);
        ASSERT_EQ(frames[0]->ch_layout.nb_channels, 2);
    }
    void TearDown() override { javaExceptionPending(env); }

    JNIEnv* env = nullptr;
    std::vector<ScopedAVFrame> frames;
};

TEST_F(AudioRenderTest, HandsStereoFramesToJavaAsInterleaved16BitPcm) {
    Recorder recorder(env);
    AudioRender render;
    ASSERT_EQ(render.setAudioPlay(env, recorder.object()), 0);
    const AVFrame* frame = frames[0].get();
    FrameBuffer record = audioRecord(frames[0].get(), 0);

    // From a native thread: attached for the call, detached again.
    std::atomic<bool> before{true};
    std::atomic<bool> after{true};
    std::thread native([&] {
        before = attachedToJvm();
        render.renderFrame(&record, 0);
        after = attachedToJvm();
    });
    native.join();
    EXPECT_FALSE(before);
    EXPECT_FALSE(after) << "the native thread was left attached";
    ASSERT_EQ(recorder.count(), 1);
    std::vector<uint8_t> bytes = recorder.bufferAt(0);
    ASSERT_EQ(bytes.size(), static_cast<size_t>(frame->nb_samples) * 2 * 2);
    int mismatches = 0;
    bool audible = false;
    for (size_t i = 0; i < bytes.size() / 2; ++i) {
        // Each float sample scaled to 16 bits, interleaved.
        float v = reinterpret_cast<const float*>(frame->extended_data[i % 2])[i / 2];
        long expected = std::min(32767L, std::max(-32768L, lrintf(v * 32768.0f)));
        int16_t got = static_cast<int16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
        audible = audible || got > 8000;
        if (std::abs(got - expected) > 1 && ++mismatches < 5) {
            ADD_FAILURE() << "sample " << i << ": " << got << " vs " << expected;
        }
    }
    EXPECT_EQ(mismatches, 0);
    EXPECT_TRUE(audible) << "the burst must come through";

    // From a Java thread: neither attached nor detached.
    ASSERT_TRUE(attachedToJvm());
    render.renderFrame(&record, 0);
    EXPECT_TRUE(attachedToJvm()) << "a Java thread must stay attached";
    EXPECT_EQ(recorder.count(), 2);

    expectOneFlushEndsTheWait(render, &record);
    EXPECT_EQ(recorder.count(), 4) << "a flushed wait still delivers its frame";
}

}  // namespace
}  // namespace kavra::test
