// kavra play FILE [--headless [--json]] [--speed X] [--loop N]
//                 [--audio-track K] [--script "W cmd [arg]; ..."]
// Plays a file through the engine's player: in a desktop window with sound,
// or with --headless into a window that only counts pictures and a virtual
// sound device that plays at the stream's real rate.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Command.h"
#include "CountingNativeWindow.h"
#include "NativeEventPostListener.h"
#include "PlayScript.h"
#include "PlaybackLog.h"
#include "Player/KavraMediaPlayer.h"
#include "Source/FFmpegMediaExtractor.h"
#include "ToolSupport.h"
#include "VirtualAudioDevice.h"

#ifdef KAVRA_HAVE_SDL2
#include <SDL.h>

#include "SdlNativeWindow.h"
#include "SdlAudioSink.h"
#endif

namespace {

using Clock = std::chrono::steady_clock;

// Neither a picture nor a sound for this long while playing: the player is
// stuck, and the command gives up rather than hang.
constexpr auto kStallLimit = std::chrono::seconds(10);
// How often the control loop looks at the script, the player and the keys.
constexpr auto kTick = std::chrono::milliseconds(2);
constexpr double kMinSpeed = 0.5;
constexpr double kMaxSpeed = 4.0;

// The player's events go to the log.
class LogListener : public NativeEventPostListener {
public:
    explicit LogListener(PlaybackLog* log) : mLog(log) {}
    void notify(int what, int arg1, int arg2) override { mLog->onEvent(what, arg1, arg2); }

private:
    PlaybackLog* mLog;
};

// The player owns the sink it is given; the command keeps the device so it
// can read and stop it, and outlives the player's use of it.
class ForwardingSink : public PcmSink {
public:
    explicit ForwardingSink(PcmSink* target) : mTarget(target) {}
    int deliver(const uint8_t* pcm, int size) override { return mTarget->deliver(pcm, size); }
    void willDeliver(int ptsMs, int sampleRate, int channels) override {
        mTarget->willDeliver(ptsMs, sampleRate, channels);
    }

private:
    PcmSink* mTarget;
};

struct Options {
    std::string path;
    bool headless = false;
    bool json = false;
    double speed = 1.0;
    int loop = 0;
    int audioTrack = -1;
    // The audio track the player picks by itself (0-based), -1 for none.
    int defaultTrack = -1;
    PlayScript script;
};

#ifdef KAVRA_HAVE_SDL2
// The window's title: state and position.
const char* stateName(int status) {
    switch (status) {
    case KavraMediaPlayer::MEDIA_PLAYER_STARTED: return "playing";
    case KavraMediaPlayer::MEDIA_PLAYER_PAUSED: return "paused";
    case KavraMediaPlayer::MEDIA_PLAYER_PLAYBACK_COMPLETE: return "completed";
    case KavraMediaPlayer::MEDIA_PLAYER_STOPPED: return "stopped";
    case KavraMediaPlayer::MEDIA_PLAYER_STATE_ERROR: return "error";
    case KavraMediaPlayer::MEDIA_PLAYER_PREPARED: return "ready";
    default: return "opening";
    }
}

std::string clockText(int ms) {
    ms = std::max(ms, 0);
    char text[32];
    snprintf(text, sizeof(text), "%d:%02d.%d", ms / 60000, ms / 1000 % 60, ms / 100 % 10);
    return text;
}
#endif

bool parseOptions(const std::vector<std::string>& args, Options* o) {
    tool::Arguments a;
    std::string error;
    if (!tool::parseArguments(args, {"--speed", "--loop", "--audio-track", "--script"}, {"--headless", "--json"}, &a,
                              &error)) {
        tool::fail("play", error);
        return false;
    }
    if (a.positional.size() != 1) {
        tool::fail("play", "expected exactly one FILE");
        return false;
    }
    o->path = a.positional[0];
    o->headless = a.has("--headless");
    o->json = a.has("--json");
    if (o->json && !o->headless) {
        tool::fail("play", "--json needs --headless");
        return false;
    }
    char* end = nullptr;
    if (a.has("--speed")) {
        std::string s = a.get("--speed");
        o->speed = strtod(s.c_str(), &end);
        if (s.empty() || *end != '\0' || !(o->speed >= kMinSpeed && o->speed <= kMaxSpeed)) {
            tool::fail("play", "--speed must be a number from 0.5 to 4");
            return false;
        }
    }
    if (a.has("--loop")) {
        std::string s = a.get("--loop");
        long n = strtol(s.c_str(), &end, 10);
        if (s.empty() || *end != '\0' || n < -1 || n > 1000000) {
            tool::fail("play", "--loop must be a count of further passes (-1: for ever)");
            return false;
        }
        o->loop = static_cast<int>(n);
    }
    if (a.has("--audio-track")) {
        std::string s = a.get("--audio-track");
        long k = strtol(s.c_str(), &end, 10);
        if (s.empty() || *end != '\0' || k < 0 || k > 1000) {
            tool::fail("play", "--audio-track must be an audio track number from 0");
            return false;
        }
        o->audioTrack = static_cast<int>(k);
    }
    if (a.has("--script") && !o->script.parse(a.get("--script"), &error)) {
        tool::fail("play", error);
        return false;
    }
    return true;
}

// One playback: the player, what it plays into, and the log of it.
class Session {
public:
    // `setSoundSpeed` tells the sound device the playback speed.
    Session(const Options& options, PcmSink* sound, std::function<void(double)> setSoundSpeed)
        : mOptions(options),
          mSound(sound),
          mSetSoundSpeed(std::move(setSoundSpeed)),
          mLog(Clock::now()),
          mTrack(options.defaultTrack) {}

    // Opens and prepares; on failure prints the one-line error.
    bool open(const std::shared_ptr<NativeWindow>& window, int audioTracks) {
        mAudioTracks = audioTracks;
        mPlayer.setListener(std::unique_ptr<NativeEventPostListener>(new LogListener(&mLog)));
        mLog.setSeekPending([this] { return mPlayer.isSeekPending(); });
        mLog.setSeekResult([this] { return mPlayer.getSeekRequests(); }, [this] { return mPlayer.getSeekResult(); });
        mLog.setPlaying([this] { return mPlayer.isPlaying(); });
        if (mPlayer.setDataSource(mOptions.path.c_str()) != 0) {
            tool::fail(mOptions.path, "the player cannot open it");
            return false;
        }
        mHasVideo = mPlayer.getVideoStreamIndex() >= 0;
        mHasAudio = mPlayer.getAudioStreamIndex() >= 0;
        if (mHasVideo && window) {
            mPlayer.setVideoPlay(window);
        }
        if (mHasAudio && mSound != nullptr) {
            mPlayer.setAudioPlay(std::unique_ptr<PcmSink>(new ForwardingSink(mSound)));
        }
        mPlayer.setLooping(mOptions.loop);
        setSpeed(mOptions.speed);
        if (mPlayer.prepare() != 0 || mLog.failed()) {
            tool::fail(mOptions.path, "the player cannot prepare it");
            return false;
        }
        if (mOptions.audioTrack >= 0) {
            if (mOptions.audioTrack >= audioTracks) {
                tool::fail(mOptions.path, "no audio track " + std::to_string(mOptions.audioTrack) + " (it has " +
                                              std::to_string(audioTracks) + ")");
                return false;
            }
            mPlayer.setAudioTrack(mOptions.audioTrack);
            mTrack = mOptions.audioTrack;
        }
        return true;
    }

    void start() {
        mStartTime = Clock::now();
        mLog.markStart();
        mPlayer.start();
    }

    // Runs the script's steps that are due; false once a step stopped it.
    bool runScript() {
        const auto& steps = mOptions.script.steps();
        const double elapsed = std::chrono::duration<double, std::milli>(Clock::now() - mStartTime).count();
        while (mNextStep < steps.size() && steps[mNextStep].atMs <= elapsed) {
            const PlayScript::Step& s = steps[mNextStep++];
            switch (s.action) {
            case PlayScript::Action::Seek: seek(static_cast<int>(s.timeMs)); break;
            case PlayScript::Action::Pause: mPlayer.pause(); break;
            case PlayScript::Action::Resume: mPlayer.resume(); break;
            case PlayScript::Action::Speed: setSpeed(s.number); break;
            case PlayScript::Action::Track: setTrack(static_cast<int>(s.number)); break;
            case PlayScript::Action::Stop: return false;
            }
        }
        return true;
    }
    bool scriptDone() const { return mNextStep >= mOptions.script.steps().size(); }

    void seek(int ms) {
        mLog.onSeek(ms);
        mPlayer.seekTo(ms, true);
    }
    void setSpeed(double speed) {
        mSpeed = speed;
        mSetSoundSpeed(speed);
        mPlayer.setPlaySpeed(static_cast<float>(speed));
    }
    void setTrack(int track) {
        if (track >= mAudioTracks) {
            fprintf(stderr, "kavra: %s: no audio track %d\n", mOptions.path.c_str(), track);
            return;
        }
        if (mPlayer.setAudioTrack(track) >= 0) {
            mTrack = track;
        }
    }
    void nextTrack() {
        if (mAudioTracks > 1) {
            setTrack((std::max(mTrack, 0) + 1) % mAudioTracks);
        }
    }

    // True when the player has made no progress for too long while playing.
    bool stalled(double soundMs) {
        uint64_t frames = mLog.framesPresented();
        Clock::time_point now = Clock::now();
        if (frames != mStallFrames || soundMs != mStallSound ||
            mPlayer.getStatus() != KavraMediaPlayer::MEDIA_PLAYER_STARTED) {
            mStallFrames = frames;
            mStallSound = soundMs;
            mStallSince = now;
            return false;
        }
        return now - mStallSince > kStallLimit;
    }

    // Stops and frees the player; the sound device must be stopped first.
    int finish() {
        mLog.markEnd();
        mStartMs = mPlayer.getStartTime();
        mDurationMs = mPlayer.getDuration();
        mPlayer.stop();
        VideoRender* video = mPlayer.getRenderManager().getVideoRender();
        int dropped = video != nullptr ? video->getDroppedFrames() : 0;
        mPlayer.release();
        return dropped;
    }

    KavraMediaPlayer& player() { return mPlayer; }
    PlaybackLog& log() { return mLog; }
    double speed() const { return mSpeed; }
    int startMs() const { return mStartMs; }
    int durationMs() const { return mDurationMs; }
    bool hasVideo() const { return mHasVideo; }

private:
    const Options& mOptions;
    PcmSink* mSound;
    std::function<void(double)> mSetSoundSpeed;
    PlaybackLog mLog;
    KavraMediaPlayer mPlayer;
    Clock::time_point mStartTime;
    size_t mNextStep = 0;
    int mAudioTracks = 0;
    int mTrack;
    double mSpeed = 1.0;
    bool mHasVideo = false;
    bool mHasAudio = false;
    int mStartMs = 0;
    int mDurationMs = 0;
    uint64_t mStallFrames = 0;
    double mStallSound = -1;
    Clock::time_point mStallSince;
};

int playHeadless(const Options& o, int audioTracks) {
    VirtualAudioDevice sound;
    Session session(o, &sound, [&sound](double speed) { sound.setSpeed(speed); });
    PlaybackLog* log = &session.log();
    log->setAudioPosition([&sound](double* ms) { return sound.playingPtsMs(ms); });
    auto window = std::make_shared<CountingNativeWindow>([log](int ptsMs) { log->onFramePresented(ptsMs); });
    if (!session.open(window, audioTracks)) {
        sound.stop();
        session.finish();
        return 1;
    }
    session.start();
    bool stalled = false;
    bool stoppedPaused = false;
    while (session.runScript() && !log->completed() && !log->failed()) {
        if (session.scriptDone() && session.player().getStatus() == KavraMediaPlayer::MEDIA_PLAYER_PAUSED) {
            // Nothing is left that would resume it.
            stoppedPaused = true;
            break;
        }
        if (session.stalled(sound.deliveredMs())) {
            stalled = true;
            break;
        }
        std::this_thread::sleep_for(kTick);
    }
    sound.stop();
    int dropped = session.finish();
    if (o.json) {
        printf("%s\n", log->json(dropped, session.startMs(), session.durationMs()).c_str());
    } else {
        printf("%s: %llu frames presented, %s\n", o.path.c_str(),
               static_cast<unsigned long long>(log->framesPresented()),
               log->completed() ? "played to the end" : stoppedPaused ? "left paused" : "stopped");
    }
    if (log->failed()) {
        return tool::fail(o.path, "playback failed");
    }
    if (stalled) {
        return tool::fail(o.path, "playback stalled");
    }
    return 0;
}

#ifdef KAVRA_HAVE_SDL2
int playInWindow(const Options& o, int audioTracks, int width, int height) {
    if (getenv("DISPLAY") == nullptr && getenv("WAYLAND_DISPLAY") == nullptr && getenv("SDL_VIDEODRIVER") == nullptr) {
        return tool::fail("play", "no display (neither DISPLAY nor WAYLAND_DISPLAY is set); use --headless");
    }
    // A window that fits the screen of a laptop, in display orientation.
    double scale = std::min(1.0, std::min(1280.0 / std::max(width, 1), 720.0 / std::max(height, 1)));
    int w = width > 0 ? static_cast<int>(width * scale) : 640;
    int h = height > 0 ? static_cast<int>(height * scale) : 360;
    auto window = std::make_shared<SdlNativeWindow>("kavra play", w, h);
    if (!window->isOpen()) {
        return tool::fail("play", std::string("cannot open a window: ") + SDL_GetError());
    }
    SdlAudioSink sound;
    Session session(o, &sound, [&sound](double speed) { sound.setSpeed(speed); });
    if (!session.open(window, audioTracks)) {
        sound.stop();
        session.finish();
        return 1;
    }
    KavraMediaPlayer& player = session.player();
    session.start();
    const double speeds[] = {0.5, 0.75, 1.0, 1.25, 1.5, 2.0, 3.0, 4.0};
    uint32_t windowId = 0;
    bool quit = false;
    Clock::time_point nextTitle = Clock::now();
    while (!quit && session.runScript() && !session.log().failed()) {
        SDL_Event event;
        while (SDL_PollEvent(&event) != 0) {
            if (event.type == SDL_QUIT ||
                (event.type == SDL_WINDOWEVENT && event.window.event == SDL_WINDOWEVENT_CLOSE)) {
                quit = true;
            }
            if (event.type == SDL_WINDOWEVENT) {
                windowId = event.window.windowID;
            }
            if (event.type != SDL_KEYDOWN) {
                continue;
            }
            windowId = event.key.windowID;
            const int position = player.getCurrentPosition();
            switch (event.key.keysym.sym) {
            case SDLK_SPACE:
                if (player.isPlaying()) {
                    player.pause();
                    sound.clear();
                } else {
                    player.start();
                }
                break;
            case SDLK_LEFT:
            case SDLK_RIGHT: {
                int step = event.key.keysym.sym == SDLK_LEFT ? -5000 : 5000;
                sound.clear();
                session.seek(std::max(0, std::min(player.getDuration(), position + step)));
                break;
            }
            case SDLK_UP:
            case SDLK_DOWN: {
                int i = 0;
                while (i < 7 && speeds[i] < session.speed() - 1e-6) {
                    ++i;
                }
                i += event.key.keysym.sym == SDLK_UP ? 1 : -1;
                session.setSpeed(speeds[std::max(0, std::min(7, i))]);
                break;
            }
            case SDLK_a: session.nextTrack(); break;
            case SDLK_q:
            case SDLK_ESCAPE: quit = true; break;
            default: break;
            }
        }
        if (!window->present()) {
            quit = true;
        }
        if (Clock::now() >= nextTitle && windowId != 0) {
            SDL_Window* sdlWindow = SDL_GetWindowFromID(windowId);
            if (sdlWindow != nullptr) {
                char title[160];
                snprintf(title, sizeof(title), "%s / %s  %.2gx  %s", clockText(player.getCurrentPosition()).c_str(),
                         clockText(player.getDuration()).c_str(), session.speed(), stateName(player.getStatus()));
                SDL_SetWindowTitle(sdlWindow, title);
            }
            nextTitle = Clock::now() + std::chrono::milliseconds(200);
        }
        SDL_Delay(5);
    }
    sound.stop();
    session.finish();
    if (session.log().failed()) {
        return tool::fail(o.path, "playback failed");
    }
    return 0;
}
#endif

int runPlay(const std::vector<std::string>& args) {
    Options o;
    if (!parseOptions(args, &o)) {
        return 1;
    }
#ifndef KAVRA_HAVE_SDL2
    if (!o.headless) {
        return tool::fail("play", "this build has no display support (SDL2 was not found); use --headless");
    }
#endif
    int audioTracks = 0;
    // The window's size (a build without display support has no window).
    [[maybe_unused]] int width = 0;
    [[maybe_unused]] int height = 0;
    {
        // The tool's own checks first, so that a bad file gets the same
        // message as in every other command.
        FFmpegMediaExtractor extractor;
        if (!tool::openMedia(o.path, &extractor)) {
            return 1;
        }
        const MediaInfo& info = extractor.mMediaInfo;
        if (info.bestVideoStreamIndex < 0 && info.bestAudioStreamIndex < 0) {
            return tool::fail(o.path, "no video or audio stream");
        }
        audioTracks = info.audioStreamNum;
        for (int i = 0, k = 0; i < info.streamNum; ++i) {
            if (info.streamInfos[i].mediaType == 1) {
                o.defaultTrack = i == info.bestAudioStreamIndex ? k : o.defaultTrack;
                k += 1;
            }
        }
        if (info.bestVideoStreamIndex >= 0) {
            const StreamInfo& v = info.streamInfos[info.bestVideoStreamIndex];
            bool quarter = v.rotation == 90 || v.rotation == 270;
            width = quarter ? v.height : v.width;
            height = quarter ? v.width : v.height;
        }
    }
    if (o.headless) {
        return playHeadless(o, audioTracks);
    }
#ifdef KAVRA_HAVE_SDL2
    return playInWindow(o, audioTracks, width, height);
#else
    return 1;
#endif
}

}  // namespace

KAVRA_COMMAND("play",
              "FILE [--headless [--json]] [--speed X] [--loop N] [--audio-track K] [--script \"W cmd [arg]; ...\"]",
              "play a file in a window with sound (keys: space pause, left/right seek 5 s, up/down speed, a next "
              "audio track, q quit), or with --headless into a counting window and a virtual sound device; "
              "--script runs seek T, pause, resume, speed X, track K, stop at W ms after the start; --json "
              "reports events, frames, seeks and the picture-to-sound offset",
              runPlay);
