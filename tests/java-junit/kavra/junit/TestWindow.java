package kavra.junit;

import android.view.Surface;

/** An in-memory native window behind a Surface, keeping every buffer queued to it for read-back. */
final class TestWindow implements AutoCloseable {
    static {
        System.loadLibrary("kavra_junit_native");
    }

    /** One queued buffer, YV12: luma rows {@code stride} bytes apart, then V, then U, each half as wide. */
    static final class Buffer {
        final int width;
        final int height;
        final int stride;
        final byte[] bytes;

        Buffer(int[] geometry, byte[] bytes) {
            width = geometry[0];
            height = geometry[1];
            stride = geometry[2];
            this.bytes = bytes;
        }

        int luma(int x, int y) {
            return bytes[y * stride + x] & 0xff;
        }

        int frameIndex() {
            return Media.frameIndex(width, height, this::luma);
        }
    }

    private long handle = create();
    final Surface surface = new Surface(surfaceAddress(handle));

    int queuedCount() {
        return queuedCount(handle);
    }

    /** The last buffer queued, or null. */
    Buffer last() {
        int[] geometry = new int[3];
        byte[] bytes = lastQueued(handle, geometry);
        return bytes == null ? null : new Buffer(geometry, bytes);
    }

    /** The window's consumer goes away: the surface can no longer be drawn into. */
    void abandon() {
        abandon(handle);
    }

    @Override
    public void close() {
        surface.release();
        destroy(handle);
    }

    private static native long create();

    private static native void destroy(long handle);

    private static native long surfaceAddress(long handle);

    private static native void abandon(long handle);

    private static native int queuedCount(long handle);

    private static native byte[] lastQueued(long handle, int[] geometry);
}
