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
struct TrimerIds {
    jfieldID context;
    jmethodID postEvent;
};
TrimerIds gTrimer = {nullptr, nullptr};

JniVideoTrimer* getTrimer(JNIEnv* env, jobject thiz) {
    return nativeContext<JniVideoTrimer>(env, thiz, gTrimer.context);
}

void native_init(JNIEnv* env, jclass) {
    jclass cls = env->FindClass(kKavraTrimerClass);
    if (cls == nullptr) {
        return;
    }
    gTrimer.context = env->GetFieldID(cls, "mNativeContext", "J");
    if (gTrimer.context != nullptr) {
        gTrimer.postEvent = env->GetStaticMethodID(cls, "postEventFromNative", "(Ljava/lang/Object;III)V");
    }
    // A failed look-up leaves its error pending for the class's
    // initialisation to fail with.
    env->DeleteLocalRef(cls);
}

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

#define NATIVE(name, signature, function) \
    { const_cast<char*>(name), const_cast<char*>(signature), reinterpret_cast<void*>(function) }

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
    jclass cls = env->FindClass(kKavraTrimerClass);
    if (cls == nullptr) {
        env->ExceptionClear();
        return -1;
    }
    int result = env->RegisterNatives(cls, kMethods, static_cast<jint>(sizeof(kMethods) / sizeof(kMethods[0])));
    if (result < 0) {
        env->ExceptionClear();
    }
    env->DeleteLocalRef(cls);
    return result < 0 ? -1 : 0;
}
