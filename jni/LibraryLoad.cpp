// Work done when the library is loaded: by the app's Java side through
// JNI_OnLoad, which registers the native methods of the four Java classes,
// or by a native program (the command-line tool) that links it directly.

#include <android/log.h>
#include <jni.h>

#include <cstdarg>

#include "JniBindings.h"

extern "C" {
#include <libavutil/log.h>
}

#define ALOGE(...) __android_log_print(ANDROID_LOG_ERROR, KAVRA_BINDING_TAG, __VA_ARGS__)

namespace {

// FFmpeg's own log output is discarded entirely: the engine reports what
// matters through the platform log, and a gallery app has no console.
void discardFFmpegLog(void*, int, const char*, va_list) {}

void silenceFFmpegLog() {
    av_log_set_level(AV_LOG_QUIET);
    av_log_set_callback(discardFFmpegLog);
}

// Native programs never reach JNI_OnLoad; they are silenced at load too.
__attribute__((constructor)) void silenceFFmpegLogAtLoad() { silenceFFmpegLog(); }

}  // namespace

extern "C" JNIEXPORT jint JNI_OnLoad(JavaVM* vm, void* /*reserved*/) {
    JNIEnv* env = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_4) != JNI_OK) {
        ALOGE("ERROR: JNI_OnLoad GetEnv failed %d", -1);
        return -1;
    }

    if (register_kavra_media_player(env) != 0) {
        ALOGE("ERROR: register_kavra_media_player registration failed");
        return -1;
    }

    // A trimmer failure is reported with the editor's message.
    if (register_cn_kavra_video_editor(env) != 0 || register_cn_kavra_trimer(env) != 0) {
        ALOGE("ERROR: register_cn_kavra_video_editor registration failed");
        return -1;
    }
    if (register_cn_kavra_video_render(env) != 0) {
        ALOGE("ERROR: register_cn_kavra_video_render registration failed");
        return -1;
    }

    silenceFFmpegLog();
    // FFmpeg 5 registers its formats and codecs itself; the network layer
    // is not used.
    return JNI_VERSION_1_4;
}
