#pragma once

// Receives the progress of a running trim on the trimming thread. Called
// with a rising percentage (0 to 100) of the input that the trim has to read;
// the last call of a finished trim is 100. Must not call back into the
// trimmer.
class TrimProgressListener {
public:
    virtual ~TrimProgressListener() = default;
    virtual void onTrimProgress(int percent) = 0;
};
