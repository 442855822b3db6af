package kavra.test;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.IntBuffer;
import java.util.ArrayList;
import java.util.List;

/**
 * The callback a thumbnail strip calls for each thumbnail. It records the
 * index, the calling thread and, when given the pixel buffer the strip
 * writes into, a copy of the pixels standing there during the call, as the
 * editor does with each thumbnail.
 */
public final class ThumbnailRecorder {
    private final IntBuffer pixels;
    private final int throwAt;
    private final List<Integer> indices = new ArrayList<>();
    private final List<Long> threads = new ArrayList<>();
    private final List<int[]> copies = new ArrayList<>();

    public ThumbnailRecorder(ByteBuffer pixels, int throwAt) {
        this.pixels = pixels == null ? null : pixels.order(ByteOrder.nativeOrder()).asIntBuffer();
        this.throwAt = throwAt;
    }

    public void onThumbnail(int index) {
        indices.add(index);
        threads.add(Thread.currentThread().getId());
        if (pixels != null) {
            int[] copy = new int[pixels.capacity()];
            pixels.get(0, copy);
            copies.add(copy);
        }
        if (index == throwAt) {
            throw new IllegalStateException("callback refused thumbnail " + index);
        }
    }

    public int count() {
        return indices.size();
    }

    public int index(int call) {
        return indices.get(call);
    }

    public long thread(int call) {
        return threads.get(call);
    }

    public int[] pixels(int call) {
        return copies.get(call);
    }

    public static long currentThreadId() {
        return Thread.currentThread().getId();
    }
}
