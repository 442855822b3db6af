#include "support/JvmHarness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>

namespace kavra::test {
namespace {
JavaVM* gVm = nullptr;
std::once_flag gOnce;
std::mutex gOutputMutex;
// The virtual machine's output since the last complete line, and the
// complaints counted so far.
std::string gPartialLine;
int gComplaints = 0;

// Every line the virtual machine prints passes here: it is printed as
// before and looked at for the checked JNI's complaints.
jint JNICALL vmPrint(FILE* stream, const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    char text[4096];
    int length = vsnprintf(text, sizeof(text), format, copy);
    va_end(copy);
    std::lock_guard<std::mutex> lock(gOutputMutex);
    int written = vfprintf(stream != nullptr ? stream : stderr, format, args);
    if (length > 0) {
        gPartialLine.append(text, std::min<size_t>(static_cast<size_t>(length), sizeof(text) - 1));
        size_t end;
        while ((end = gPartialLine.find('\n')) != std::string::npos) {
            if (gPartialLine.substr(0, end).find("in native method") != std::string::npos) {
                ++gComplaints;
            }
            gPartialLine.erase(0, end + 1);
        }
    }
    return written;
}

void createVm() {
    std::string classPath = std::string("-Djava.class.path=") + KAVRA_TEST_CLASSPATH;
    JavaVMOption options[5];
    options[0].optionString = const_cast<char*>(classPath.c_str());
    // The JVM must not install handlers for signals the sanitizers use.
    options[1].optionString = const_cast<char*>("-Xrs");
    options[2].optionString = const_cast<char*>("-Xmx256m");
    // Checked JNI: misuse such as a JNI call with an exception pending is
    // reported (counted by vmPrint).
    options[3].optionString = const_cast<char*>("-Xcheck:jni");
    options[4].optionString = const_cast<char*>("vfprintf");
    options[4].extraInfo = reinterpret_cast<void*>(&vmPrint);
    JavaVMInitArgs args;
    args.version = JNI_VERSION_1_6;
    args.nOptions = 5;
    args.options = options;
    args.ignoreUnrecognized = JNI_FALSE;
    JNIEnv* env = nullptr;
    if (JNI_CreateJavaVM(&gVm, reinterpret_cast<void**>(&env), &args) != JNI_OK) {
        gVm = nullptr;
    }
}
}  // namespace

JavaVM* javaVM() {
    std::call_once(gOnce, createVm);
    return gVm;
}

JNIEnv* jniEnv() {
    JavaVM* vm = javaVM();
    if (vm == nullptr) {
        return nullptr;
    }
    JNIEnv* env = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) == JNI_OK) {
        return env;
    }
    if (vm->AttachCurrentThread(reinterpret_cast<void**>(&env), nullptr) != JNI_OK) {
        return nullptr;
    }
    return env;
}

int jniComplaintCount() {
    std::lock_guard<std::mutex> lock(gOutputMutex);
    return gComplaints;
}

bool javaExceptionPending(JNIEnv* env) {
    if (env->ExceptionCheck()) {
        env->ExceptionDescribe();
        env->ExceptionClear();
        ADD_FAILURE() << "a Java exception is pending";
        return true;
    }
    return false;
}

}  // namespace kavra::test
