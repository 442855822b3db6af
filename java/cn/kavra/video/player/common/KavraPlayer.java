package cn.kavra.video.player.common;

import android.view.Surface;

import java.lang.ref.WeakReference;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;

/**
 * Plays a local video or audio file: video into a {@link Surface}, decoded
 * audio handed to a {@link NativeGetAudioBufferCallback} as 16-bit PCM.
 *
 * <p>Use: {@link #setDataSource}, {@link #setSurface} and/or
 * {@link #setAudioCallback}, {@link #prepare}, {@link #start}; then
 * {@link #pause}, {@link #resume}, {@link #seekTo}, {@link #stop}; finally
 * {@link #release} (or try-with-resources). Methods answer 0 on success and
 * -1 on failure; getters answer -1 once the player is released.
 *
 * <p>Events (video size, prepared, completion, error) are delivered to the
 * listeners on one event thread shared by all players, never on the
 * engine's own threads; listeners may call the player. PCM callbacks run on
 * the engine's audio thread and pace it: keep them short, and do not call
 * the player from them ({@link #release} waits for that thread).
 *
 * <p>The methods of one player are serialised; {@link #release} never runs
 * alongside another call.
 */
public class KavraPlayer implements AutoCloseable {
    /** Receives decoded audio: interleaved signed 16-bit PCM, native byte order. */
    public interface NativeGetAudioBufferCallback {
        void onAudioBuffer(byte[] pcm);
    }

    public interface OnPreparedListener {
        void onPrepared(KavraPlayer player);
    }

    public interface OnCompletionListener {
        void onCompletion(KavraPlayer player);
    }

    public interface OnErrorListener {
        void onError(KavraPlayer player, int what, int extra);
    }

    public interface OnVideoSizeChangedListener {
        /** Display size: width and height are swapped for a quarter-turned video. */
        void onVideoSizeChanged(KavraPlayer player, int width, int height);
    }

    /** Event codes sent by the engine. */
    public static final int MEDIA_PREPARED = 1;
    public static final int MEDIA_PLAYBACK_COMPLETE = 2;
    public static final int MEDIA_SET_VIDEO_SIZE = 5;
    public static final int MEDIA_ERROR = 100;

    private static final ExecutorService EVENTS = Executors.newSingleThreadExecutor(runnable -> {
        Thread thread = new Thread(runnable, "KavraPlayer events");
        thread.setDaemon(true);
        return thread;
    });

    static {
        System.loadLibrary("kavra_gallery_player");
    }

    // The native look-ups run once, when the first object is made. Not in
    // this class's own initialisation: loading the library may initialise
    // this class (another class loading it first) before the library has
    // registered the natives.
    private static final class NativeInit {
        static {
            _native_init();
        }

        static void run() {}
    }

    private long mNativeContext;
    private volatile boolean mReleased;
    private volatile OnPreparedListener mOnPrepared;
    private volatile OnCompletionListener mOnCompletion;
    private volatile OnErrorListener mOnError;
    private volatile OnVideoSizeChangedListener mOnVideoSize;

    public KavraPlayer() {
        NativeInit.run();
        _native_setup(new WeakReference<KavraPlayer>(this));
    }

    public void setOnPreparedListener(OnPreparedListener listener) {
        mOnPrepared = listener;
    }

    public void setOnCompletionListener(OnCompletionListener listener) {
        mOnCompletion = listener;
    }

    public void setOnErrorListener(OnErrorListener listener) {
        mOnError = listener;
    }

    public void setOnVideoSizeChangedListener(OnVideoSizeChangedListener listener) {
        mOnVideoSize = listener;
    }

    /** Opens and probes the file; the outcome arrives as events (video size, or error). */
    public synchronized int setDataSource(String path) {
        if (path == null) {
            return -1;
        }
        return _setDataSource(path);
    }

    /** Shows the video in {@code surface}. */
    public synchronized int setSurface(Surface surface) {
        return _setVideoplay(surface);
    }

    /** Hands decoded audio to {@code callback}; call after setDataSource. */
    public synchronized void setAudioCallback(NativeGetAudioBufferCallback callback) {
        _setAudioplay(callback);
    }

    public synchronized int prepare() {
        return _prepare();
    }

    public synchronized int start() {
        return _start();
    }

    public synchronized int pause() {
        return _pause();
    }

    public synchronized int resume() {
        return _resume();
    }

    public synchronized int stop() {
        return _stop();
    }

    public synchronized int reset() {
        return _reset();
    }

    /** Stops presenting the audio and/or the video stream. */
    public synchronized int unselectTrack(boolean audio, boolean video) {
        return _unSelectTrack(audio, video);
    }

    public synchronized boolean isPlaying() {
        return _isPlaying();
    }

    public synchronized void seekTo(int positionMs) {
        _seekTo(positionMs);
    }

    public synchronized int getCurrentPosition() {
        return _getCurrentPosition();
    }

    public synchronized int getDuration() {
        return _getDuration();
    }

    public synchronized int getVideoWidth() {
        return _getVideoWidth();
    }

    public synchronized int getVideoHeight() {
        return _getVideoHeight();
    }

    /** Clockwise display rotation in degrees. */
    public synchronized int getRotation() {
        return _getRotation();
    }

    public synchronized int getFrameRate() {
        return _getFrameRate();
    }

    public synchronized int getSampleRate() {
        return _getSampleRate();
    }

    public synchronized int getChannels() {
        return _getChannels();
    }

    public synchronized int getAudioTrackCount() {
        return _getAudioTrackCount();
    }

    /** The stream index, among all of the file's streams, of the audio track playing; -1 without audio. */
    public synchronized int getAudioTrackIndex() {
        return _getAudioTrackIndex(0);
    }

    /** Switches to audio track {@code index} (0-based among the audio tracks) at the current position. */
    public synchronized void setAudioTrack(int index) {
        _setAudioTrack(index);
    }

    public synchronized void setPlaySpeed(float speed) {
        _setPlaySpeed(speed);
    }

    public synchronized void setPlaySpeedMode(int mode, int value) {
        _setPlaySpeedMode(mode, value);
    }

    /** Stops playback and frees the engine; harmless to call again. */
    public synchronized void release() {
        mReleased = true;
        _release();
    }

    @Override
    public void close() {
        release();
    }

    // Called by the engine on any thread; hands the event to the event thread.
    @SuppressWarnings("unchecked")
    private static void postEventFromNative(Object weakThiz, int what, int arg1, int arg2) {
        if (!(weakThiz instanceof WeakReference)) {
            return;
        }
        KavraPlayer player = ((WeakReference<KavraPlayer>) weakThiz).get();
        if (player == null) {
            return;
        }
        EVENTS.execute(() -> player.dispatch(what, arg1, arg2));
    }

    private void dispatch(int what, int arg1, int arg2) {
        if (mReleased) {
            return;
        }
        switch (what) {
            case MEDIA_PREPARED: {
                OnPreparedListener listener = mOnPrepared;
                if (listener != null) {
                    listener.onPrepared(this);
                }
                break;
            }
            case MEDIA_PLAYBACK_COMPLETE: {
                OnCompletionListener listener = mOnCompletion;
                if (listener != null) {
                    listener.onCompletion(this);
                }
                break;
            }
            case MEDIA_SET_VIDEO_SIZE: {
                OnVideoSizeChangedListener listener = mOnVideoSize;
                if (listener != null) {
                    listener.onVideoSizeChanged(this, arg1, arg2);
                }
                break;
            }
            case MEDIA_ERROR: {
                OnErrorListener listener = mOnError;
                if (listener != null) {
                    listener.onError(this, arg1, arg2);
                }
                break;
            }
            default:
                break;
        }
    }

    private static native void _native_init();

    private native void _native_setup(Object weakThiz);

    private native int _setDataSource(String path);

    private native int _setVideoplay(Surface surface);

    private native int _unSelectTrack(boolean audio, boolean video);

    private native int _prepare();

    private native int _start();

    private native int _reset();

    private native int _stop();

    private native int _pause();

    private native int _resume();

    private native boolean _isPlaying();

    private native int _getVideoWidth();

    private native int _getVideoHeight();

    private native void _seekTo(int positionMs);

    private native int _getAudioTrackIndex(int ignored);

    private native int _getCurrentPosition();

    private native int _getDuration();

    private native int _getRotation();

    private native int _getFrameRate();

    private native void _release();

    private native void _setAudioTrack(int index);

    private native int _getAudioTrackCount();

    private native int _getSampleRate();

    private native int _getChannels();

    private native void _setAudioplay(NativeGetAudioBufferCallback callback);

    private native void _setPlaySpeed(float speed);

    private native void _setPlaySpeedMode(int mode, int value);
}
