#include "JniVideoTrimer.h"

JniVideoTrimer::JniVideoTrimer(const char* inputPath, const char* outputPath) : VideoTrimer(inputPath, outputPath) {
    setProgressListener(this);
}

int JniVideoTrimer::prepareAndReport() {
    int result = prepare();
    if (result < 0) {
        notifyEvent(kEventError, result, 0);
    }
    return result;
}

int JniVideoTrimer::startTrimAndReport(int mode) {
    int result = startTrim(mode);
    if (result < 0) {
        notifyEvent(kEventError, result, 1);
    }
    return result;
}

void JniVideoTrimer::onTrimProgress(int percent) { notifyEvent(kEventProgress, percent, 0); }
