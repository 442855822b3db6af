// Native methods of the Java trimmer class: each reads the trimmer's
// address from the object's `mNativeContext`, forwards to the trimmer there
// and does nothing when the object has none.

#include <jni.h>

#include <memory>
#include <string>

#include "JniBindings.h"
#include "JniVideoTrimer.h"

const char* const kKavraTrimerClass = "cn/kavra/video/editor/KavraTrimer";

namespace {

// Set by native_init.
NativeClassIds gTrimer;

JniVideoTrimer* getTrimer(JNIEnv* env, jobject thiz) {
    return nativeContext<JniVideoTrimer>(env, thiz, gTrimer.context);
}

void native_init(JNIEnv* env, jclass) { lookUpEventClassIds(env, kKavraTrimerClass, gTrimer); }

// Copies a Java string's characters; empty for null. The trimmer keeps its
// own copies of the paths.
std::string toString(JNIEnv* env, jstring string) {
    if (string == nullptr) {
        return std::string();
    }
    const char* chars = env->GetStringUTFChars(string, nullptr);
    if (chars == nullptr) {
        return std::string();
    }
    std::string copy(chars);
    env->ReleaseStringUTFChars(string, chars);
    return copy;
}

void native_setup(JNIEnv* env, jobject thiz, jobject weakThiz, jstring source, jstring target) {
    if (gTrimer.context == nullptr) {
        return;
    }
    const std::string sourcePath = toString(env, source);
    const std::string targetPath = toString(env, target);
    std::unique_ptr<JniVideoTrimer> trimer(new JniVideoTrimer(sourcePath.c_str(), targetPath.c_str()));
    JniVideoTrimer* old = getTrimer(env, thiz);
    if (old != nullptr) {
        setNativeContext<JniVideoTrimer>(env, thiz, gTrimer.context, nullptr);
        delete old;
    }
    setNativeContext(env, thiz, gTrimer.context, trimer.get());
    trimer.release()->setJNIListener(env, thiz, weakThiz, gTrimer.postEvent);
}

void setTrimParam(JNIEnv* env, jobject thiz, jlong startUs, jlong endUs) {
    JniVideoTrimer* trimer = getTrimer(env, thiz);
    if (trimer != nullptr) {
        trimer->setTrimParam(startUs, endUs);
    }
}

void setKeepCodec(JNIEnv* env, jobject thiz, jboolean keep) {
    JniVideoTrimer* trimer = getTrimer(env, thiz);
    if (trimer != nullptr) {
        trimer->setKeepVideoCodec(keep == JNI_TRUE);
    }
}

void prepare(JNIEnv* env, jobject thiz) {
    JniVideoTrimer* trimer = getTrimer(env, thiz);
    if (trimer != nullptr) {
        trimer->prepareAndReport();
    }
}

void startTrim(JNIEnv* env, jobject thiz, jint mode) {
    JniVideoTrimer* trimer = getTrimer(env, thiz);
    if (trimer != nullptr) {
        trimer->startTrimAndReport(mode);
    }
}

void release(JNIEnv* env, jobject thiz) {
    JniVideoTrimer* trimer = getTrimer(env, thiz);
    if (trimer != nullptr) {
        trimer->release();
        delete trimer;
    }
    if (gTrimer.context != nullptr) {
        setNativeContext<JniVideoTrimer>(env, thiz, gTrimer.context, nullptr);
    }
}

#define NATIVE KAVRA_NATIVE

const JNINativeMethod kMethods[] = {
    NATIVE("native_init", "()V", native_init),
    NATIVE("native_setup", "(Ljava/lang/Object;Ljava/lang/String;Ljava/lang/String;)V", native_setup),
    NATIVE("native_setTrimParam", "(JJ)V", setTrimParam),
    NATIVE("native_prepare", "()V", prepare),
    NATIVE("native_startTrim", "(I)V", startTrim),
    NATIVE("native_release", "()V", release),
    NATIVE("native_setKeepCodec", "(Z)V", setKeepCodec),
};

#undef NATIVE

}  // namespace

int register_cn_kavra_trimer(JNIEnv* env) {
    const int count = static_cast<int>(sizeof(kMethods) / sizeof(kMethods[0]));
    return registerNativeMethods(env, kKavraTrimerClass, kMethods, count) < 0 ? -1 : 0;
}
