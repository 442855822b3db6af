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
import java.util.function.IntSupplier;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * 10,000 calls of each getter and 200 create/use/release cycles of each
 * class leave the JVM's global references and the resident memory where
 * they were (measured after one warm-up round). The JVM may take a few
 * references of its own meanwhile; the memory bound catches native objects
 * left behind (each holds decoders or buffers of a megabyte or more).
 */
class LeakTest {
    static {
        System.loadLibrary("kavra_junit_native");
    }

    private static final int CYCLES = 200;

    /** Strong JNI global references held in the JVM. */
    private static native int globalRefCount();

    interface Work {
        void run() throws Exception;
    }

    private static long residentKiB() throws Exception {
        return Files.readAllLines(Paths.get("/proc/self/status")).stream().filter(l -> l.startsWith("VmRSS:"))
                .mapToLong(l -> Long.parseLong(l.replaceAll("[^0-9]", ""))).findFirst().orElseThrow();
    }

    private static void assertFlat(String what, Work work) throws Exception {
        work.run();
        System.gc();
        int refs = globalRefCount();
        long rss = residentKiB();
        work.run();
        System.gc();
        int refsAfter = globalRefCount();
        long rssAfter = residentKiB();
        System.out.printf("%s: global refs %d -> %d, RSS %d -> %d KiB%n", what, refs, refsAfter, rss, rssAfter);
        assertTrue(refs >= 0 && refsAfter - refs <= 3, what + ": global references " + refs + " -> " + refsAfter);
        assertTrue(rssAfter - rss < 48 * 1024, what + ": RSS grew by " + (rssAfter - rss) + " KiB");
    }

    private static void assertGettersFlat(String what, IntSupplier... getters) throws Exception {
        assertFlat(what, () -> {
            for (IntSupplier getter : getters) {
                for (int i = 0; i < 10_000; i++) {
                    getter.getAsInt();
                }
            }
        });
    }

    @Test
    void player() throws Exception {
        String clip = Media.fixture("h264_aac.mp4");
        try (KavraPlayer p = new KavraPlayer()) {
            p.setDataSource(clip);
            assertGettersFlat("KavraPlayer getters", p::getDuration, p::getCurrentPosition, p::getVideoWidth,
                    p::getVideoHeight, p::getRotation, p::getFrameRate, p::getSampleRate, p::getChannels,
                    p::getAudioTrackCount, p::getAudioTrackIndex, () -> p.isPlaying() ? 1 : 0);
        }
        assertFlat("KavraPlayer cycles", () -> {
            for (int i = 0; i < CYCLES; i++) {
                try (TestWindow window = new TestWindow(); KavraPlayer player = new KavraPlayer()) {
                    player.setOnPreparedListener(p -> {});
                    player.setDataSource(clip);
                    player.setSurface(window.surface);
                    player.setAudioCallback(data -> {});
                    player.prepare();
                    player.stop();
                }
            }
        });
    }

    @Test
    void editorItem() throws Exception {
        String clip = Media.fixture("h264_aac.mp4");
        try (VideoItem item = new VideoItem()) {
            assertEquals(0, item.setDataSource(clip, false));
            assertGettersFlat("VideoItem getters", item::getDuration, item::getRotation, item::getFrameRate,
                    item::getWidth, item::getHeight, item::getVideoMimeId);
        }
        int[] pixels = new int[80 * 60];
        assertFlat("VideoItem cycles", () -> {
            for (int i = 0; i < CYCLES; i++) {
                try (VideoItem item = new VideoItem()) {
                    item.setDataSource(clip, true);
                    assertEquals(0, item.getThumbnailList(pixels, 80, 60, 0, 1000, 2, index -> {}));
                }
            }
        });
    }

    @Test
    void trimmerAndRenderer(@TempDir Path dir) throws Exception {
        String out = dir.resolve("out.mp4").toString();
        assertFlat("KavraTrimer cycles", () -> {
            for (int i = 0; i < CYCLES; i++) {
                try (KavraTrimer trimer = new KavraTrimer(Media.fixture("mpeg4.mp4"), out)) {
                    trimer.setOnProgressListener((t, percent) -> {});
                    trimer.setTrimRange(0, 100_000);
                    assertEquals(0, trimer.prepare());
                }
            }
        });
        byte[] frame = new byte[64 * 48 * 3 / 2];
        try (TestWindow window = new TestWindow()) {
            assertFlat("VideoRender cycles", () -> {
                for (int i = 0; i < CYCLES; i++) {
                    try (VideoRender render = new VideoRender()) {
                        render.setSurface(window.surface, 0);
                        render.renderFrame(frame, VideoRender.COLOR_FormatYUV420Planar, 64, 48, 1);
                    }
                }
            });
        }
    }
}
