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
 * Create/use/release cycles of each class, every getter called in each, leave the JVM's global references and
 * the resident memory where they were: both are read after a warm-up round of CYCLES and again after a second
 * round. What a native object left behind costs, per cycle: a player or a trimmer keeps its listener's 2 or 3
 * global references (CYCLES of them against the 3 the JVM may take meanwhile); an editor item keeps about
 * 2 MiB of demuxer, decoder and queue (CYCLES of them against the 24 MiB allowed for the heap's and the
 * allocator's own drift); a renderer stays connected to the window, so the next cycle cannot connect to it.
 */
class LeakTest {
    static {
        System.loadLibrary("kavra_junit_native");
    }

    private static final int CYCLES = 40;

    /** Strong JNI global references held in the JVM. */
    private static native int globalRefCount();

    interface Work {
        void run() throws Exception;
    }

    private static long residentKiB() throws Exception {
        return Files.readAllLines(Paths.get("/proc/self/status")).stream().filter(l -> l.startsWith("VmRSS:"))
                .mapToLong(l -> Long.parseLong(l.replaceAll("[^0-9]", ""))).findFirst().orElseThrow();
    }

    private static void assertFlat(String what, Work cycle) throws Exception {
        int[] refs = new int[2];
        long[] rss = new long[2];
        for (int round = 0; round < 2; round++) {
            for (int i = 0; i < CYCLES; i++) {
                cycle.run();
            }
            System.gc();
            refs[round] = globalRefCount();
            rss[round] = residentKiB();
        }
        System.out.printf("%s: global refs %d -> %d, RSS %d -> %d KiB%n", what, refs[0], refs[1], rss[0], rss[1]);
        assertTrue(refs[0] >= 0 && refs[1] - refs[0] <= 3, what + ": global references " + refs[0] + " -> " + refs[1]);
        assertTrue(rss[1] - rss[0] < 24 * 1024, what + ": RSS grew by " + (rss[1] - rss[0]) + " KiB");
    }

    @Test
    void player() throws Exception {
        String clip = Media.fixture("h264_aac.mp4");
        assertFlat("KavraPlayer", () -> {
            try (TestWindow window = new TestWindow(); KavraPlayer p = new KavraPlayer()) {
                p.setOnPreparedListener(player -> {});
                p.setDataSource(clip);
                p.setSurface(window.surface);
                p.setAudioCallback(data -> {});
                p.prepare();
                int sum = p.getDuration() + p.getCurrentPosition() + p.getVideoWidth() + p.getVideoHeight()
                        + p.getRotation() + p.getFrameRate() + p.getSampleRate() + p.getChannels()
                        + p.getAudioTrackCount() + p.getAudioTrackIndex() + (p.isPlaying() ? 1 : 0);
                assertTrue(sum > 0);
                p.stop();
            }
        });
    }

    @Test
    void editorItem() throws Exception {
        String clip = Media.fixture("h264_aac.mp4");
        int[] pixels = new int[80 * 60];
        assertFlat("VideoItem", () -> {
            try (VideoItem item = new VideoItem()) {
                item.setDataSource(clip, true);
                int sum = item.getDuration() + item.getRotation() + item.getFrameRate() + item.getWidth()
                        + item.getHeight() + item.getVideoMimeId();
                assertTrue(sum > 0);
                assertEquals(0, item.getThumbnailList(pixels, 80, 60, 0, 1000, 2, index -> {}));
            }
        });
    }

    @Test
    void trimmerAndRenderer(@TempDir Path dir) throws Exception {
        String out = dir.resolve("out.mp4").toString();
        assertFlat("KavraTrimer", () -> {
            try (KavraTrimer trimer = new KavraTrimer(Media.fixture("mpeg4.mp4"), out)) {
                trimer.setOnProgressListener((t, percent) -> {});
                trimer.setTrimRange(0, 100_000);
                assertEquals(0, trimer.prepare());
            }
        });
        byte[] frame = new byte[64 * 48 * 3 / 2];
        try (TestWindow window = new TestWindow()) {
            assertFlat("VideoRender", () -> {
                try (VideoRender render = new VideoRender()) {
                    render.setSurface(window.surface, 0);
                    render.renderFrame(frame, VideoRender.COLOR_FormatYUV420Planar, 64, 48, 1);
                }
            });
        }
    }
}
