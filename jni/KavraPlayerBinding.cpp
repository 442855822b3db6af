// Native methods of the Java player class: each reads the player's address
// from the object's `mNativeContext`, forwards to the KavraMediaPlayer there
// and answers a fixed value when the object has none.

#include <android/log.h>
#include <jni.h>

#include <memory>

#include "JniBindings.h"
#include "Player/KavraMediaPlayer.h"
#include "Platform/Surface.h"

#define ALOGW(...) __android_log_print(ANDROID_LOG_WARN, KAVRA_BINDING_TAG, __VA_ARGS__)
#define ALOGE(...) __android_log_print(ANDROID_LOG_ERROR, KAVRA_BINDING_TAG, __VA_ARGS__)

const char* const kKavraPlayerClass = "cn/kavra/video/player/common/KavraPlayer";

namespace {

// Set once by _native_init and never cleared.
NativeClassIds gPlayer;

KavraMediaPlayer* getPlayer(JNIEnv* env, jobject thiz) {
    return nativeContext<KavraMediaPlayer>(env, thiz, gPlayer.context);
}

void native_init(JNIEnv* env, jclass) { lookUpEventClassIds(env, kKavraPlayerClass, gPlayer); }

void native_setup(JNIEnv* env, jobject thiz, jobject weakThiz) {
    if (gPlayer.context == nullptr) {
        return;
    }
    std::unique_ptr<KavraMediaPlayer> player(new KavraMediaPlayer());
    KavraMediaPlayer* old = getPlayer(env, thiz);
    if (old != nullptr) {
        // Replaced without release, as a second setup does.
        setNativeContext<KavraMediaPlayer>(env, thiz, gPlayer.context, nullptr);
        delete old;
    }
    setNativeContext(env, thiz, gPlayer.context, player.release());
    getPlayer(env, thiz)->setListener(env, thiz, weakThiz, gPlayer.postEvent);
}

jint setDataSource(JNIEnv* env, jobject thiz, jstring path) {
    KavraMediaPlayer* player = getPlayer(env, thiz);
    if (player == nullptr || path == nullptr) {
        return -1;
    }
    const char* chars = env->GetStringUTFChars(path, nullptr);
    if (chars == nullptr) {
        return -1;  // OutOfMemoryError pending
    }
    player->setDataSource(chars);
    env->ReleaseStringUTFChars(path, chars);
    return 0;
}

jint setVideoplay(JNIEnv* env, jobject thiz, jobject jsurface) {
    KavraMediaPlayer* player = getPlayer(env, thiz);
    if (jsurface == nullptr || player == nullptr) {
        ALOGW("jsurface is null");
        return -1;
    }
    Surface* surface = android_view_Surface_getSurface(env, jsurface);
    if (surface != nullptr && surface->getIGraphicBufferProducer() != nullptr) {
        std::shared_ptr<NativeWindow> window = surface->getNativeWindow();
        player->setVideoPlay(window);
        return 0;
    }
    ALOGE("surface is invalid ");
    return -1;
}

jint unSelectTrack(JNIEnv* env, jobject thiz, jboolean audio, jboolean video) {
    KavraMediaPlayer* player = getPlayer(env, thiz);
    if (player == nullptr) {
        return -1;
    }
    player->unSelectTrack(audio != 0, video != 0);
    return 0;
}

// The control operations answer 0 whatever the player says, -1 without a
// player.
template <typename Operation>
jint control(JNIEnv* env, jobject thiz, Operation operation) {
    KavraMediaPlayer* player = getPlayer(env, thiz);
    if (player == nullptr) {
        return -1;
    }
    operation(*player);
    return 0;
}

jint prepare(JNIEnv* env, jobject thiz) {
    return control(env, thiz, [](KavraMediaPlayer& player) { player.prepare(); });
}
jint start(JNIEnv* env, jobject thiz) {
    return control(env, thiz, [](KavraMediaPlayer& player) { player.start(); });
}
jint reset(JNIEnv* env, jobject thiz) {
    return control(env, thiz, [](KavraMediaPlayer& player) { player.reset(); });
}
jint stop(JNIEnv* env, jobject thiz) {
    return control(env, thiz, [](KavraMediaPlayer& player) { player.stop(); });
}
jint pause(JNIEnv* env, jobject thiz) {
    return control(env, thiz, [](KavraMediaPlayer& player) { player.pause(); });
}
jint resume(JNIEnv* env, jobject thiz) {
    return control(env, thiz, [](KavraMediaPlayer& player) { player.resume(); });
}

// The getters answer -1 without a player.
template <typename Getter>
jint query(JNIEnv* env, jobject thiz, Getter getter) {
    KavraMediaPlayer* player = getPlayer(env, thiz);
    return player != nullptr ? getter(*player) : -1;
}

jint getVideoWidth(JNIEnv* env, jobject thiz) {
    return query(env, thiz, [](KavraMediaPlayer& player) { return player.getVideoWidth(); });
}
jint getVideoHeight(JNIEnv* env, jobject thiz) {
    return query(env, thiz, [](KavraMediaPlayer& player) { return player.getVideoHeight(); });
}
jint getCurrentPosition(JNIEnv* env, jobject thiz) {
    return query(env, thiz, [](KavraMediaPlayer& player) { return player.getCurrentPosition(); });
}
jint getDuration(JNIEnv* env, jobject thiz) {
    return query(env, thiz, [](KavraMediaPlayer& player) { return player.getDuration(); });
}
jint getRotation(JNIEnv* env, jobject thiz) {
    return query(env, thiz, [](KavraMediaPlayer& player) { return player.getRotation(); });
}
jint getFrameRate(JNIEnv* env, jobject thiz) {
    return query(env, thiz, [](KavraMediaPlayer& player) { return player.getFrameRate(); });
}
jint getAudioTrackCount(JNIEnv* env, jobject thiz) {
    return query(env, thiz, [](KavraMediaPlayer& player) { return player.getAudioTrackCount(); });
}
jint getSampleRate(JNIEnv* env, jobject thiz) {
    return query(env, thiz, [](KavraMediaPlayer& player) { return player.getSampleRate(); });
}
jint getChannels(JNIEnv* env, jobject thiz) {
    return query(env, thiz, [](KavraMediaPlayer& player) { return player.getChannels(); });
}
// The argument is ignored.
jint getAudioTrackIndex(JNIEnv* env, jobject thiz, jint /*ignored*/) {
    return query(env, thiz, [](KavraMediaPlayer& player) { return player.getAudioTrackIndex(); });
}

jboolean isPlaying(JNIEnv* env, jobject thiz) {
    KavraMediaPlayer* player = getPlayer(env, thiz);
    return player != nullptr && player->isPlaying() ? JNI_TRUE : JNI_FALSE;
}

void seekTo(JNIEnv* env, jobject thiz, jint ms) {
    KavraMediaPlayer* player = getPlayer(env, thiz);
    if (player != nullptr) {
        player->seekTo(ms, false);
    }
}

void release(JNIEnv* env, jobject thiz) {
    KavraMediaPlayer* player = getPlayer(env, thiz);
    if (player != nullptr) {
        player->release();
    }
    player = getPlayer(env, thiz);
    if (player != nullptr) {
        setNativeContext<KavraMediaPlayer>(env, thiz, gPlayer.context, nullptr);
        delete player;
    }
    if (gPlayer.context != nullptr) {
        setNativeContext<KavraMediaPlayer>(env, thiz, gPlayer.context, nullptr);
    }
}

void setAudioTrack(JNIEnv* env, jobject thiz, jint index) {
    KavraMediaPlayer* player = getPlayer(env, thiz);
    if (player != nullptr) {
        player->setAudioTrack(index);
    }
}

void setAudioplay(JNIEnv* env, jobject thiz, jobject callback) {
    KavraMediaPlayer* player = getPlayer(env, thiz);
    if (player != nullptr) {
        player->setAudioPlay(env, callback);
    }
}

void setPlaySpeed(JNIEnv* env, jobject thiz, jfloat speed) {
    KavraMediaPlayer* player = getPlayer(env, thiz);
    if (player != nullptr) {
        player->setPlaySpeed(speed);
    }
}

void setPlaySpeedMode(JNIEnv* env, jobject thiz, jint mode, jint value) {
    KavraMediaPlayer* player = getPlayer(env, thiz);
    if (player != nullptr) {
        player->setPlaySpeedMode(mode, value);
    }
}

#define NATIVE KAVRA_NATIVE

const JNINativeMethod kMethods[] = {
    NATIVE("_native_init", "()V", native_init),
    NATIVE("_native_setup", "(Ljava/lang/Object;)V", native_setup),
    NATIVE("_setDataSource", "(Ljava/lang/String;)I", setDataSource),
    NATIVE("_setVideoplay", "(Landroid/view/Surface;)I", setVideoplay),
    NATIVE("_unSelectTrack", "(ZZ)I", unSelectTrack),
    NATIVE("_prepare", "()I", prepare),
    NATIVE("_start", "()I", start),
    NATIVE("_reset", "()I", reset),
    NATIVE("_stop", "()I", stop),
    NATIVE("_pause", "()I", pause),
    NATIVE("_resume", "()I", resume),
    NATIVE("_isPlaying", "()Z", isPlaying),
    NATIVE("_getVideoWidth", "()I", getVideoWidth),
    NATIVE("_getVideoHeight", "()I", getVideoHeight),
    NATIVE("_seekTo", "(I)V", seekTo),
    NATIVE("_getAudioTrackIndex", "(I)I", getAudioTrackIndex),
    NATIVE("_getCurrentPosition", "()I", getCurrentPosition),
    NATIVE("_getDuration", "()I", getDuration),
    NATIVE("_getRotation", "()I", getRotation),
    NATIVE("_getFrameRate", "()I", getFrameRate),
    NATIVE("_release", "()V", release),
    NATIVE("_setAudioTrack", "(I)V", setAudioTrack),
    NATIVE("_getAudioTrackCount", "()I", getAudioTrackCount),
    NATIVE("_getSampleRate", "()I", getSampleRate),
    NATIVE("_getChannels", "()I", getChannels),
    NATIVE("_setAudioplay", "(Lcn/kavra/video/player/common/KavraPlayer$NativeGetAudioBufferCallback;)V",
           setAudioplay),
    NATIVE("_setPlaySpeed", "(F)V", setPlaySpeed),
    NATIVE("_setPlaySpeedMode", "(II)V", setPlaySpeedMode),
};

#undef NATIVE

}  // namespace

int register_kavra_media_player(JNIEnv* env) {
    const int result = registerNativeMethods(env, kKavraPlayerClass, kMethods,
                                                 static_cast<int>(sizeof(kMethods) / sizeof(kMethods[0])));
    if (result == -1) {
        ALOGE("ERROR: RegisterNatives unable to find class '%s'\n", kKavraPlayerClass);
    } else if (result < 0) {
        ALOGE("ERROR: RegisterNatives failed for '%s'\n", kKavraPlayerClass);
    }
    return result < 0 ? -1 : 0;
}
