// The audio renderer: 16-bit PCM handed to a real Java callback in the
// in-process virtual machine, from native and from Java threads.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <thread>
#include <vector>

#include "Render/AudioRender.h"
#include "Render/RenderTestSupport.h"
#include "support/JvmHarness.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

using Clock = std::chrono::steady_clock;

// One kavra.test.PcmRecorder, held by a global reference.
class Recorder {
public:
    explicit Recorder(JNIEnv* env) : mEnv(env) {
        jclass cls = env->FindClass("kavra/test/PcmRecorder");
        EXPECT_NE(cls, nullptr);
        jmethodID init = env->GetMethodID(cls, "<init>", "()V");
        jobject local = env->NewObject(cls, init);
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

// Whether the calling thread is attached to the virtual machine.
bool attached() {
    JNIEnv* env = nullptr;
    return javaVM()->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) == JNI_OK;
}

// Signed 16-bit interleaved samples of a planar float frame, as a
// conversion must give them.
std::vector<int16_t> expectedPcm(const AVFrame* frame) {
    int channels = frame->ch_layout.nb_channels;
    std::vector<int16_t> out;
    for (int i = 0; i < frame->nb_samples; ++i) {
        for (int c = 0; c < channels; ++c) {
            float v = reinterpret_cast<const float*>(frame->extended_data[c])[i];
            long s = lrintf(v * 32768.0f);
            out.push_back(static_cast<int16_t>(std::min(32767L, std::max(-32768L, s))));
        }
    }
    return out;
}

class AudioRenderTest : public ::testing::Test {
protected:
    void SetUp() override {
        env = jniEnv();
        ASSERT_NE(env, nullptr);
        frames = referenceFrames(fixture("h264_aac.mp4"), AVMEDIA_TYPE_AUDIO, 48);
        ASSERT_EQ(frames.size(), 48u);
        ASSERT_EQ(frames[0]->format, AV_SAMPLE_FMT_FLTP);
        ASSERT_EQ(frames[0]->nb_samples, 1024);
        ASSERT_EQ(frames[0]->ch_layout.nb_channels, 2);
    }
    void TearDown() override { javaExceptionPending(env); }

    // A frame with sound in it (a burst lies at each whole second).
    AVFrame* loudFrame() const {
        for (const ScopedAVFrame& f : frames) {
            const float* left = reinterpret_cast<const float*>(f->extended_data[0]);
            for (int i = 0; i < f->nb_samples; ++i) {
                if (std::fabs(left[i]) > 0.2f) {
                    return f.get();
                }
            }
        }
        return frames[0].get();
    }

    JNIEnv* env = nullptr;
    std::vector<ScopedAVFrame> frames;
};

TEST_F(AudioRenderTest, HandsStereoFramesToJavaAsInterleaved16BitPcm) {
    Recorder recorder(env);
    AudioRender render;
    ASSERT_EQ(render.setAudioPlay(env, recorder.object()), 0);
    AVFrame* frame = loudFrame();
    FrameBuffer record = audioRecord(frame, 0);

    // From a native thread: attached for the call, detached again.
    std::atomic<bool> before{true};
    std::atomic<bool> after{true};
    std::thread native([&] {
        before = attached();
        render.renderFrame(&record, 0);
        after = attached();
    });
    native.join();
    EXPECT_FALSE(before);
    EXPECT_FALSE(after) << "the native thread was left attached";
    ASSERT_EQ(recorder.count(), 1);
    std::vector<uint8_t> bytes = recorder.bufferAt(0);
    std::vector<int16_t> expected = expectedPcm(frame);
    ASSERT_EQ(bytes.size(), expected.size() * 2);
    int mismatches = 0;
    for (size_t i = 0; i < expected.size(); ++i) {
        int16_t got = static_cast<int16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
        if (std::abs(got - expected[i]) > 1 && ++mismatches < 5) {
            ADD_FAILURE() << "sample " << i << ": " << got << " vs " << expected[i];
        }
    }
    EXPECT_EQ(mismatches, 0);

    // From a Java thread: neither attached nor detached.
    ASSERT_TRUE(attached());
    render.renderFrame(&record, 0);
    EXPECT_TRUE(attached()) << "a Java thread must stay attached";
    EXPECT_EQ(recorder.count(), 2);
}

TEST_F(AudioRenderTest, EveryFrameFromManyNativeThreadsArrives) {
    Recorder recorder(env);
    AudioRender render;
    render.setAudioPlay(env, recorder.object());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 10; ++i) {
                FrameBuffer record = audioRecord(frames[static_cast<size_t>(t * 10 + i)].get(), 0);
                render.renderFrame(&record, 0);
            }
            EXPECT_FALSE(attached());
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(recorder.count(), 40);
}

TEST_F(AudioRenderTest, ANewCallbackReleasesTheOldOne) {
    jclass system = env->FindClass("java/lang/System");
    jmethodID gc = env->GetStaticMethodID(system, "gc", "()V");
    auto collected = [&](jweak weak, int attempts) {
        for (int i = 0; i < attempts; ++i) {
            env->CallStaticVoidMethod(system, gc);
            if (env->IsSameObject(weak, nullptr)) {
                return true;
            }
        }
        return false;
    };

    AudioRender render;
    jweak first = nullptr;
    {
        Recorder recorder(env);
        render.setAudioPlay(env, recorder.object());
        first = env->NewWeakGlobalRef(recorder.object());
    }
    EXPECT_FALSE(collected(first, 3)) << "the renderer holds its callback";

    Recorder second(env);
    render.setAudioPlay(env, second.object());
    EXPECT_TRUE(collected(first, 20)) << "the first callback's reference was not released";
    FrameBuffer record = audioRecord(frames[0].get(), 0);
    render.renderFrame(&record, 0);
    EXPECT_EQ(second.count(), 1);
    env->DeleteWeakGlobalRef(first);
    env->DeleteLocalRef(system);
}

TEST_F(AudioRenderTest, FlushCutsTheWaitBeforeAFrameShort) {
    Recorder recorder(env);
    AudioRender render;
    render.setAudioPlay(env, recorder.object());
    FrameBuffer record = audioRecord(frames[0].get(), 0);

    Clock::time_point start = Clock::now();
    render.renderFrame(&record, 60);
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count(), 55);

    // One flush ends the wait, whether it comes during the wait or just
    // before it begins.
    start = Clock::now();
    std::thread producer([&] { render.renderFrame(&record, 5000); });
    render.flush();
    producer.join();
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count(), 4000);
    render.flush();
    start = Clock::now();
    render.renderFrame(&record, 5000);
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count(), 4000)
        << "a flush before the frame was lost";
    EXPECT_EQ(recorder.count(), 3) << "a flushed wait still delivers its frame";
}

// A sink of the program's own takes the Java callback's place.
class CountingSink : public PcmSink {
public:
    explicit CountingSink(std::vector<int>* sizes) : mSizes(sizes) {}
    int deliver(const uint8_t* /*pcm*/, int size) override {
        mSizes->push_back(size);
        return 0;
    }

private:
    std::vector<int>* mSizes;
};

TEST_F(AudioRenderTest, ANativeSinkReplacesTheJavaCallback) {
    Recorder recorder(env);
    AudioRender render;
    FrameBuffer first = audioRecord(frames[0].get(), 0);
    EXPECT_EQ(render.renderFrame(&first, 0), 0) << "dropped without a callback";
    render.setAudioPlay(env, recorder.object());
    std::vector<int> sizes;
    render.setPcmSink(std::unique_ptr<PcmSink>(new CountingSink(&sizes)));
    FrameBuffer record = audioRecord(frames[1].get(), 0);
    render.renderFrame(&record, 0);
    EXPECT_EQ(sizes, std::vector<int>{4096});
    EXPECT_EQ(recorder.count(), 0);
}

}  // namespace
}  // namespace kavra::test
