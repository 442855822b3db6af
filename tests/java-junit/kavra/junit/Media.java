package kavra.junit;

import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.File;
import java.nio.charset.StandardCharsets;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.function.BooleanSupplier;
import java.util.function.IntBinaryOperator;

/** The generated test media, reading the frame index drawn into their frames, and running commands on them. */
final class Media {
    private Media() {}

    static String fixture(String name) {
        File file = new File(System.getProperty("kavra.fixtures"), name);
        assertTrue(file.isFile(), "missing fixture " + file);
        return file.getPath();
    }

    /**
     * The index drawn into a fixture frame: a band over the top 2/15 split
     * into 10 blocks, block b light when bit b is set. {@code brightness}
     * gives 0-255 at (x, y); -1 when a block is neither dark nor light.
     */
    static int frameIndex(int width, int height, IntBinaryOperator brightness) {
        int index = 0;
        for (int b = 0; b < 10; b++) {
            int level = brightness.applyAsInt((b * width / 10 + (b + 1) * width / 10) / 2, height / 15);
            if (level > 170) {
                index |= 1 << b;
            } else if (level > 85) {
                return -1;
            }
        }
        return index;
    }

    /** From RGBA pixels: R in the low byte of each int. */
    static int frameIndex(int[] rgba, int width, int height) {
        return frameIndex(width, height, (x, y) -> rgba[y * width + x] & 0xff);
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

    /** The command's output (stdout and stderr together), trimmed, then "exit STATUS" on a line of its own. */
    static String run(List<String> command) throws Exception {
        Process process = new ProcessBuilder(command).redirectErrorStream(true).start();
        String output = new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertTrue(process.waitFor(60, TimeUnit.SECONDS), "hangs: " + command);
        return output.trim() + "\nexit " + process.exitValue();
    }
}
