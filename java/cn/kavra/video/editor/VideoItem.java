package cn.kavra.video.editor;

import java.util.concurrent.locks.ReentrantReadWriteLock;

/**
 * One video file opened for the gallery's editor: its facts, a strip of
 * thumbnails at evenly spaced times, the key frame at a time, and a snapshot
 * written as a JPEG file.
 *
 * <p>Pixels are {@code int}s with the bytes R, G, B, A in memory order (read
 * as an {@code int}: {@code 0xAABBGGRR} on a little-endian machine), rows top
 * to bottom, in display orientation. Times are milliseconds.
 *
 * <p>An item serves one thumbnail strip or one snapshot; open the file again
 * (a new {@link #setDataSource}) for the next one. Key frames may be fetched
 * any number of times. Getters answer -1 when no file was set or the item is
 * released.
 *
 * <p>{@link #cancel} may be called from another thread during a strip;
 * {@link #setDataSource} and {@link #release} wait until no call is running.
 */
public class VideoItem implements AutoCloseable {
    /** Called on the strip's thread after each thumbnail, while its pixels stand in the array. */
    public interface NativeGetThumbnailListCallback {
        void onThumbnail(int index);
    }

    static {
        System.loadLibrary("kavra_gallery_player");
    }

    private long mNativeContext;
    // Shared by the calls that use the item, exclusive for the ones that
    // replace or free it.
    private final ReentrantReadWriteLock mLock = new ReentrantReadWriteLock();

    public VideoItem() {}

    /** Opens {@code path}; decoding runs on one thread when {@code singleThread}. 0 or -1. */
    public int setDataSource(String path, boolean singleThread) {
        mLock.writeLock().lock();
        try {
            return native_setDataSource(path, singleThread);
        } finally {
            mLock.writeLock().unlock();
        }
    }

    public int getDuration() {
        mLock.readLock().lock();
        try {
            return native_getDuration();
        } finally {
            mLock.readLock().unlock();
        }
    }

    /** Clockwise display rotation in degrees. */
    public int getRotation() {
        mLock.readLock().lock();
        try {
            return native_getRotation();
        } finally {
            mLock.readLock().unlock();
        }
    }

    public int getFrameRate() {
        mLock.readLock().lock();
        try {
            return native_getFrameRate();
        } finally {
            mLock.readLock().unlock();
        }
    }

    public int getWidth() {
        mLock.readLock().lock();
        try {
            return native_getWidth();
        } finally {
            mLock.readLock().unlock();
        }
    }

    public int getHeight() {
        mLock.readLock().lock();
        try {
            return native_getHeight();
        } finally {
            mLock.readLock().unlock();
        }
    }

    /** The video codec as a number (H.264 28, MPEG-4 13, HEVC 0x48323635, ...); -1 if unknown. */
    public int getVideoMimeId() {
        mLock.readLock().lock();
        try {
            return native_getVideoMimeId();
        } finally {
            mLock.readLock().unlock();
        }
    }

    /**
     * Writes {@code count} thumbnails of {@code width} x {@code height}, one
     * after another, into {@code pixels}, calling {@code callback} after each:
     * the key frame at or before each of the times evenly spaced from
     * {@code startMs} to {@code endMs}. Blocks until the strip is done or
     * {@link #cancel}led. 0 when the strip ran, -1 on bad arguments.
     */
    public int getThumbnailList(int[] pixels, int width, int height, long startMs, long endMs, int count,
            NativeGetThumbnailListCallback callback) {
        mLock.readLock().lock();
        try {
            return native_getThumbnailList(pixels, width, height, startMs, endMs, count, callback);
        } finally {
            mLock.readLock().unlock();
        }
    }

    /**
     * The key frame at or before {@code timeMs}, scaled to {@code width} x
     * {@code height}; {@code pixels} must hold exactly that many. 0 or negative.
     */
    public int getKeyFrameAt(int[] pixels, int width, int height, long timeMs) {
        mLock.readLock().lock();
        try {
            return native_getKeyFrameAt(pixels, width, height, timeMs);
        } finally {
            mLock.readLock().unlock();
        }
    }

    /** Writes the frame at {@code timeMs} to {@code path} as a JPEG image. 0 or -1. */
    public int snapShot(String path, long timeMs) {
        mLock.readLock().lock();
        try {
            return native_snapShot(path, timeMs);
        } finally {
            mLock.readLock().unlock();
        }
    }

    /** Ends a running strip early; may be called from any thread. */
    public void cancel() {
        mLock.readLock().lock();
        try {
            native_cancel();
        } finally {
            mLock.readLock().unlock();
        }
    }

    /** Frees the item; harmless to call again. */
    public void release() {
        mLock.writeLock().lock();
        try {
            native_release();
        } finally {
            mLock.writeLock().unlock();
        }
    }

    @Override
    public void close() {
        release();
    }

    private native int native_setDataSource(String path, boolean singleThread);

    private native int native_getDuration();

    private native int native_getRotation();

    private native int native_getThumbnailList(int[] pixels, int width, int height, long startMs, long endMs,
            int count, NativeGetThumbnailListCallback callback);

    private native int native_snapShot(String path, long timeMs);

    private native void native_cancel();

    private native void native_release();

    private native int native_getFrameRate();

    private native int native_getWidth();

    private native int native_getHeight();

    private native int native_getVideoMimeId();

    private native int native_getKeyFrameAt(int[] pixels, int width, int height, long timeMs);
}
