package kavra.junit;

import android.view.Surface;

/**
 * An in-memory native window to hand to the engine as a Surface, keeping
 * every buffer queued to it (YV12 layout) for the test to read back.
 */
final class TestWindow implements AutoCloseable {
    static {
        System.loadLibrary("kavra_junit_native");
    }

    /** One queued buffer: YV12, luma rows {@code stride} bytes apart. */
    static final class Buffer {
        final int width;
        final int height;
        final int stride;
        final byte[] bytes;

        Buffer(int[] geometry, byte[] bytes) {
            this.width = geometry[0];
            this.height = geometry[1];
            this.stride = geometry[2];
            this.bytes = bytes;
        }

        int luma(int x, int y) {
            return bytes[y * stride + x] & 0xff;
        }

        /** The fixture frame index drawn in the picture's luma (see Media.frameIndex). */
        int frameIndex() {
            int band = height * 2 / 15;
            int index = 0;
            for (int b = 0; b < 10; b++) {
                int luma = luma((b * width / 10 + (b + 1) * width / 10) / 2, band / 2);
                if (luma > 170) {
                    index |= 1 << b;
                } else if (luma > 85) {
                    return -1;
                }
            }
            return index;
        }

        private int chromaStride() {
            return ((stride / 2) + 15) / 16 * 16;
        }

        /** V comes first in YV12, then U. */
        int v(int x, int y) {
            return bytes[stride * height + y * chromaStride() + x] & 0xff;
        }

        int u(int x, int y) {
            int cs = chromaStride();
            return bytes[stride * height + cs * ((height + 1) / 2) + y * cs + x] & 0xff;
        }
    }

    private long handle = create();
    final Surface surface = new Surface(surfaceAddress(handle));

    boolean waitForQueued(int count) {
        return waitForQueued(handle, count, 5000);
    }

    int queuedCount() {
        return queuedCount(handle);
    }

    Buffer last() {
        int[] geometry = new int[4];
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
        if (handle != 0) {
            destroy(handle);
            handle = 0;
        }
    }

    private static native long create();

    private static native void destroy(long handle);

    private static native long surfaceAddress(long handle);

    private static native void abandon(long handle);

    private static native boolean waitForQueued(long handle, int count, int timeoutMs);

    private static native int queuedCount(long handle);

    private static native byte[] lastQueued(long handle, int[] geometry);
}
