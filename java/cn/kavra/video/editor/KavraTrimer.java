package cn.kavra.video.editor;

import java.lang.ref.WeakReference;

/**
 * Cuts a time range of a video into a new MP4 file: {@link #MODE_KEEP}
 * keeps the range, {@link #MODE_CUT} removes it. Times are microseconds
 * from the start of the video.
 *
 * <p>Use: construct, {@link #setTrimRange}, {@link #prepare},
 * {@link #startTrim} (on a worker thread: it blocks until the file is
 * written), {@link #release}. Progress arrives at the
 * {@link OnProgressListener} on the thread running the trim.
 */
public class KavraTrimer implements AutoCloseable {
    public interface OnProgressListener {
        /** How much of the input the trim has read, in percent; 100 when the file is done. */
        void onProgress(KavraTrimer trimer, int percent);
    }

    public static final int MODE_KEEP = 0;
    public static final int MODE_CUT = 1;

    /** Event codes sent by the engine. */
    static final int EVENT_PROGRESS = 1;
    static final int EVENT_ERROR = 100;

    static {
        System.loadLibrary("kavra_gallery_player");
    }

    // The native look-ups run once, when the first object is made. Not in
    // this class's own initialisation: loading the library may initialise
    // this class (another class loading it first) before the library has
    // registered the natives.
    private static final class NativeInit {
        static {
            native_init();
        }

        static void run() {}
    }

    private long mNativeContext;
    private volatile OnProgressListener mOnProgress;
    // The failure reported during the running call (same thread).
    private int mError;

    public KavraTrimer(String sourcePath, String targetPath) {
        NativeInit.run();
        native_setup(new WeakReference<KavraTrimer>(this), sourcePath, targetPath);
    }

    public void setOnProgressListener(OnProgressListener listener) {
        mOnProgress = listener;
    }

    /**
     * Keeps an H.264 or HEVC video's own codec: packets are copied from the first IDR
     * picture at or after each cut and only the frames next to the cuts are
     * re-encoded. Other videos are re-encoded to MPEG-4 as without it. Off by
     * default; takes effect at the next prepare().
     */
    public synchronized void setKeepCodec(boolean keep) {
        native_setKeepCodec(keep);
    }

    public synchronized void setTrimRange(long startUs, long endUs) {
        native_setTrimParam(startUs, endUs);
    }

    /** Opens the input and creates the output file. 0, or a negative code; -1 once released. */
    public synchronized int prepare() {
        mError = 0;
        native_prepare();
        return mNativeContext == 0 ? -1 : mError;
    }

    /** Writes the file. 0, or a negative code; -1 once released. */
    public synchronized int startTrim(int mode) {
        mError = 0;
        native_startTrim(mode);
        return mNativeContext == 0 ? -1 : mError;
    }

    /** Frees the trimmer; harmless to call again. */
    public synchronized void release() {
        native_release();
    }

    @Override
    public void close() {
        release();
    }

    // Called by the engine on the thread running prepare or the trim.
    @SuppressWarnings("unchecked")
    private static void postEventFromNative(Object weakThiz, int what, int arg1, int arg2) {
        if (!(weakThiz instanceof WeakReference)) {
            return;
        }
        KavraTrimer trimer = ((WeakReference<KavraTrimer>) weakThiz).get();
        if (trimer == null) {
            return;
        }
        if (what == EVENT_PROGRESS) {
            OnProgressListener listener = trimer.mOnProgress;
            if (listener != null) {
                listener.onProgress(trimer, arg1);
            }
        } else if (what == EVENT_ERROR) {
            trimer.mError = arg1;
        }
    }

    private static native void native_init();

    private native void native_setup(Object weakThiz, String sourcePath, String targetPath);

    private native void native_setTrimParam(long startUs, long endUs);

    private native void native_prepare();

    private native void native_startTrim(int mode);

    private native void native_release();

    private native void native_setKeepCodec(boolean keep);
}
