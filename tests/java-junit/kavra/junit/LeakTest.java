package kavra.junit;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import cn.kavra.video.editor.KavraTrimer;
import cn.kavra.video.editor.VideoItem;
import cn.kavra.video.player.common.KavraPlayer;
import cn.kavra.video.player.common.VideoRender;

import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * Cycles that create, use and release one object of each class leave the JVM's global references and the
 * memory the process holds where they were: both are read after a warm-up round of CYCLES and again after a second
 * round. What an object left behind costs, per cycle: a player or a renderer stays connected to the window, so
 * the next cycle cannot connect to it; a trimmer keeps its listener's 2 global references (CYCLES of them against
 * the 3 the JVM may take meanwhile); an editor item keeps about 2 MiB of demuxer, decoder and queue (CYCLES of
 * them against the 24 MiB allowed for the heap's and the allocator's own drift).
 */
class LeakTest {
    static {
        System.loadLibrary("kavra_junit_native");
    }

    private static final int CYCLES = 40;

    /** Strong JNI global references held in the JVM. */
    private static native int globalRefCount();

    /** KiB of the C heap in use. */
    private static native long heapInUseKiB();

    /**
     * The memory the process holds: its resident set; under an emulator, whose translated code is resident too
     * and grows as the JVM compiles, the C heap in use instead.
     */
    private static long memoryKiB() throws Exception {
        if (System.getenv("KAVRA_EMULATED") != null) {
            return heapInUseKiB();
        }
        return Files.readAllLines(Paths.get("/proc/self/status")).stream().filter(l -> l.startsWith("VmRSS:"))
                .mapToLong(l -> Long.parseLong(l.replaceAll("[^0-9]", ""))).findFirst().orElseThrow();
    }

    @Test
    void everyClassReleasesWhatItTook(@TempDir Path dir) throws Exception {
        String clip = Media.fixture("h264_aac.mp4");
        String trimmed = dir.resolve("out.mp4").toString();
        int[] pixels = new int[80 * 60];
        byte[] frame = new byte[64 * 48 * 3 / 2];
        int[] refs = new int[2];
        long[] memory = new long[2];
        try (TestWindow window = new TestWindow()) {
            for (int round = 0; round < 2; round++) {
                for (int i = 0; i < CYCLES; i++) {
                    try (KavraPlayer player = new KavraPlayer()) {
                        player.setDataSource(clip);
                        player.setSurface(window.surface);
                        player.setAudioCallback(data -> {});
                        player.prepare();
                        player.stop();
                    }
                    try (VideoItem item = new VideoItem()) {
                        item.setDataSource(clip, true);
                        assertEquals(0, item.getThumbnailList(pixels, 80, 60, 0, 1000, 2, index -> {}));
                    }
                    try (KavraTrimer trimer = new KavraTrimer(Media.fixture("mpeg4.mp4"), trimmed)) {
                        trimer.setTrimRange(0, 100_000);
                        assertEquals(0, trimer.prepare());
                    }
                    try (VideoRender render = new VideoRender()) {
                        render.setSurface(window.surface, 0);
                        render.renderFrame(frame, VideoRender.COLOR_FormatYUV420Planar, 64, 48, 1);
                    }
                }
                System.gc();
                refs[round] = globalRefCount();
                memory[round] = memoryKiB();
            }
        }
        System.out.printf("global refs %d -> %d, memory %d -> %d KiB%n", refs[0], refs[1], memory[0], memory[1]);
        assertTrue(refs[0] >= 0 && refs[1] - refs[0] <= 3, "global references " + refs[0] + " -> " + refs[1]);
        assertTrue(memory[1] - memory[0] < 24 * 1024, "memory grew by " + (memory[1] - memory[0]) + " KiB");
    }
}
