package cn.kavra.video.player.common;

import android.view.Surface;

import java.util.concurrent.locks.ReentrantReadWriteLock;

/**
 * Shows raw frames handed in as byte arrays in a {@link Surface}: planar
 * YUV 4:2:0 ({@link #COLOR_FormatYUV420Planar}: Y, then U, then V) or
 * semi-planar NV12 (any other colour format: Y, then U and V interleaved),
 * unpadded.
 *
 * <p>{@link #flush} may be called from another thread while a frame waits;
 * {@link #setSurface} and {@link #release} wait until no call is running.
 */
public class VideoRender implements AutoCloseable {
    public static final int COLOR_FormatYUV420Planar = 19;
    public static final int COLOR_FormatYUV420SemiPlanar = 21;

    static {
        System.loadLibrary("kavra_gallery_player");
    }

    private long mNativeContext;
    // Shared by the calls that use the renderer, exclusive for the ones that
    // replace or free it.
    private final ReentrantReadWriteLock mLock = new ReentrantReadWriteLock();

    public VideoRender() {}

    /** Starts showing frames in {@code surface}, turned clockwise by {@code rotation} degrees. */
    public void setSurface(Surface surface, int rotation) {
        mLock.writeLock().lock();
        try {
            native_setSurface(surface, rotation);
        } finally {
            mLock.writeLock().unlock();
        }
    }

    /**
     * Shows one frame, then waits up to {@code delayMs} (cut short by
     * {@link #flush}); a frame handed in without a delay while the previous
     * one is still being drawn is dropped. {@code data} must hold the whole
     * picture.
     */
    public void renderFrame(byte[] data, int colorFormat, int width, int height, int delayMs) {
        mLock.readLock().lock();
        try {
            native_renderFrame(data, colorFormat, width, height, delayMs);
        } finally {
            mLock.readLock().unlock();
        }
    }

    /** Cuts short the wait of a running {@link #renderFrame}. */
    public void flush() {
        mLock.readLock().lock();
        try {
            native_flush();
        } finally {
            mLock.readLock().unlock();
        }
    }

    /** Frees the renderer; harmless to call again. */
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

    private native void native_setSurface(Surface surface, int rotation);

    private native void native_renderFrame(byte[] data, int colorFormat, int width, int height, int delayMs);

    private native void native_flush();

    private native void native_release();
}
