package kavra.junit;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import cn.kavra.video.editor.KavraTrimer;
import cn.kavra.video.editor.VideoItem;
import cn.kavra.video.player.common.KavraPlayer;
import cn.kavra.video.player.common.VideoRender;

import java.nio.file.Path;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/**
 * Many calls and many create/use/release cycles across the boundary leave
 * the JVM's global references and the resident memory where they were.
 * The reference bound leaves room for the JVM's own few; the memory bound
 * is generous: it catches native objects left behind (each holds decoders
 * and buffers of a megabyte or more), not allocator noise.
 */
class LeakTest {
    private static final int CALLS = 10_000;
    private static final int CYCLES = 200;
    private static final long RSS_BOUND_KIB = 48 * 1024;

    /** Runs {@code work} once to warm up, then measures it. */
    private static void assertFlat(String what, ThrowingRunnable work) throws Exception {
        work.run();
        System.gc();
        int refs = JvmProbe.globalRefCount();
        long rss = JvmProbe.residentKiB();
        work.run();
        System.gc();
        int refsAfter = JvmProbe.globalRefCount();
        long rssAfter = JvmProbe.residentKiB();
        System.out.printf("%s: global refs %d -> %d, RSS %d -> %d KiB%n", what, refs, refsAfter, rss, rssAfter);
        assertTrue(refs >= 0);
        // The JVM itself may take a reference or two meanwhile (its compiler
        // threads); one leaked per call or per cycle would be thousands.
        assertTrue(refsAfter - refs <= 3, what + ": global references " + refs + " -> " + refsAfter);
        assertTrue(rssAfter - rss < RSS_BOUND_KIB, what + ": RSS grew by " + (rssAfter - rss) + " KiB");
    }

    interface ThrowingRunnable {
        void run() throws Exception;
    }

    @Test
    void playerGettersAndCycles() throws Exception {
        String clip = Media.fixture("h264_aac.mp4");
        try (KavraPlayer player = new KavraPlayer()) {
            player.setDataSource(clip);
            assertFlat("KavraPlayer getters", () -> {
                for (int i = 0; i < CALLS; i++) {
                    player.getDuration();
                    player.getCurrentPosition();
                    player.getVideoWidth();
                    player.getVideoHeight();
                    player.getRotation();
                    player.getFrameRate();
                    player.getSampleRate();
                    player.getChannels();
                    player.getAudioTrackCount();
                    player.getAudioTrackIndex();
                    player.isPlaying();
                }
            });
        }
        KavraPlayer.NativeGetAudioBufferCallback pcm = data -> {};
        assertFlat("KavraPlayer cycles", () -> {
            for (int i = 0; i < CYCLES; i++) {
                try (TestWindow window = new TestWindow(); KavraPlayer player = new KavraPlayer()) {
                    player.setOnPreparedListener(p -> {});
                    player.setDataSource(clip);
                    player.setSurface(window.surface);
                    player.setAudioCallback(pcm);
                    player.prepare();
                    player.stop();
                }
            }
        });
    }

    @Test
    void editorItemGettersAndCycles() throws Exception {
        String clip = Media.fixture("h264_aac.mp4");
        try (VideoItem item = new VideoItem()) {
            assertEquals(0, item.setDataSource(clip, false));
            assertFlat("VideoItem getters", () -> {
                for (int i = 0; i < CALLS; i++) {
                    item.getDuration();
                    item.getRotation();
                    item.getFrameRate();
                    item.getWidth();
                    item.getHeight();
                    item.getVideoMimeId();
                }
            });
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
    void trimmerCycles(@TempDir Path dir) throws Exception {
        String clip = Media.fixture("mpeg4.mp4");
        String out = dir.resolve("out.mp4").toString();
        assertFlat("KavraTrimer cycles", () -> {
            for (int i = 0; i < CYCLES; i++) {
                try (KavraTrimer trimer = new KavraTrimer(clip, out)) {
                    trimer.setOnProgressListener((t, percent) -> {});
                    trimer.setTrimRange(0, 100_000);
                    assertEquals(0, trimer.prepare());
                }
            }
        });
    }

    @Test
    void rendererCycles() throws Exception {
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
