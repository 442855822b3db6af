#pragma once

#include "trimmer/TrimProgressListener.h"
#include "trimmer/VideoTrimer.h"

// The trimmer behind the Java trimmer class. It tells its Java owner, as
// events through its listener (setJNIListener), how far a trim has got and
// when preparing or trimming failed, so that an app can show a progress bar
// and an error. Events are sent on the thread running the trim.
class JniVideoTrimer : public VideoTrimer, private TrimProgressListener {
public:
    // arg1: percent of the input read (0 to 100, rising; 100 ends a
    // finished trim); arg2: 0.
    static constexpr int kEventProgress = 1;
    // arg1: the negative result of prepare() or startTrim(); arg2: 0 for
    // prepare, 1 for the trim.
    static constexpr int kEventError = 100;

    JniVideoTrimer(const char* inputPath, const char* outputPath);

    // prepare() and startTrim() that report a failure as an event.
    int prepareAndReport();
    int startTrimAndReport(int mode);

private:
    void onTrimProgress(int percent) override;
};
