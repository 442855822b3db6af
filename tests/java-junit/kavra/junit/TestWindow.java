package kavra.junit;

import android.view.Surface;

/** An in-memory native window behind a Surface, keeping every buffer queued to it for read-back. */
final class TestWindow implements AutoCloseable {
    static {
        System.loadLibrary("kavra_junit_native");
    }

    /** One queued buffer, YV12: luma rows {@code stride} bytes apart, then V, then U. */
    record Buffer(int width, int height, int stride, byte[] bytes) {
        int frameIndex() {
            return Media.frameIndex(width, height, (x, y) -> bytes[y * stride + x] & 0xff);
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
        return bytes == null ? null : new Buffer(geometry[0], geometry[1], geometry[2], bytes);
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
