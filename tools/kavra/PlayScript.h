#pragma once

#include <string>
#include <vector>

// The commands of `kavra play --script`: "W cmd [arg]; ..." where each
// command runs W ms of wall time after playback starts. Commands: seek T
// (T as the player's seekTo takes it), pause, resume, speed X, track K,
// stop. Steps are kept in order of their time, ties in written order.
class PlayScript {
public:
    enum class Action { Seek, Pause, Resume, Speed, Track, Stop };
    struct Step {
        long long atMs;
        Action action;
        long long timeMs;  // seek
        double number;     // speed, track
    };

    // False, with the reason in `error`, for anything it cannot read.
    bool parse(const std::string& text, std::string* error);
    const std::vector<Step>& steps() const { return mSteps; }

private:
    std::vector<Step> mSteps;
};
