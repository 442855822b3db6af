package kavra.junit;

import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.File;
import java.util.function.BooleanSupplier;

/** The generated test media, and reading the frame index drawn into their frames. */
final class Media {
    private Media() {}

    static String fixture(String name) {
        File file = new File(System.getProperty("kavra.fixtures"), name);
        assertTrue(file.isFile(), "missing fixture " + file);
        return file.getPath();
    }

    /**
     * The frame index drawn into a fixture frame: a band over the top 2/15
     * of the picture split into 10 blocks, block b light when bit b is set.
     * Reads the centre of each block from RGBA pixels ({@code int}s with R
     * in the low byte); -1 when a block is neither clearly dark nor light.
     */
    static int frameIndex(int[] rgba, int width, int height) {
        int band = height * 2 / 15;
        int index = 0;
        for (int b = 0; b < 10; b++) {
            int x = (b * width / 10 + (b + 1) * width / 10) / 2;
            int p = rgba[(band / 2) * width + x];
            int luma = ((p & 0xff) + ((p >> 8) & 0xff) + ((p >> 16) & 0xff)) / 3;
            if (luma > 170) {
                index |= 1 << b;
            } else if (luma > 85) {
                return -1;
            }
        }
        return index;
    }

    /** Waits at most timeoutMs for the condition; true when it held. */
    static boolean await(BooleanSupplier condition, long timeoutMs) throws InterruptedException {
        long deadline = System.nanoTime() + timeoutMs * 1_000_000L;
        while (!condition.getAsBoolean()) {
            if (System.nanoTime() > deadline) {
                return false;
            }
            Thread.sleep(10);
        }
        return true;
    }
}
