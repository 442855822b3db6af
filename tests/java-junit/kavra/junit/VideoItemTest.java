package kavra.junit;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import cn.kavra.video.editor.VideoItem;

import java.io.File;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** The editor item as the gallery's editor uses it, on a 320x240 30 fps clip with a key frame every second. */
class VideoItemTest {
    private static final int W = 160;
    private static final int H = 120;

    /**
     * A second strip's callback throws: the exception ends that strip and is cleared in native code (the checked
     * JNI would report a JNI call after it).
     */
    @Test
    void thumbnailStripShowsTheKeyFrameBeforeEachTimeOncePerCallbackAndAThrowEndsIt() {
        try (VideoItem item = new VideoItem()) {
            assertEquals(0, item.setDataSource(Media.fixture("h264_aac.mp4"), false));
            int[] pixels = new int[W * H];
            List<Integer> calls = new ArrayList<>();
            List<Integer> shown = new ArrayList<>();
            // Times 500, 1500, 2500 ms: the key frames before them are frames 0, 30, 60.
            assertEquals(0, item.getThumbnailList(pixels, W, H, 500, 2500, 3, index -> {
                calls.add(index);
                shown.add(Media.frameIndex(pixels, W, H));
            }));
            assertEquals(List.of(0, 1, 2), calls);
            assertEquals(List.of(0, 30, 60), shown);

            calls.clear();
            assertEquals(0, item.getThumbnailList(pixels, W, H, 0, 9000, 4, index -> {
                calls.add(index);
                throw new IllegalStateException("refused thumbnail " + index);
            }));
            assertEquals(List.of(0), calls);
        }
    }

    /** After release (twice over) every call answers as for a missing item. */
    @Test
    void keyFrameNeedsAnExactArraySnapshotIsJpegAndAReleasedItemAnswersAsMissing(@TempDir Path dir) throws Exception {
        File jpeg = dir.resolve("snap.jpg").toFile();
        VideoItem item = new VideoItem();
        assertEquals(0, item.setDataSource(Media.fixture("h264_aac.mp4"), true));
        // Unrotated, 30 fps, H.264 (28).
        assertEquals("320x240 0 30 28", item.getWidth() + "x" + item.getHeight() + " " + item.getRotation() + " "
                + item.getFrameRate() + " " + item.getVideoMimeId());

        int[] short1 = new int[W * H - 1];
        assertTrue(item.getKeyFrameAt(short1, W, H, 2500) < 0);
        assertArrayEquals(new int[W * H - 1], short1);
        int[] pixels = new int[W * H];
        assertEquals(0, item.getKeyFrameAt(pixels, W, H, 2500));
        assertEquals(60, Media.frameIndex(pixels, W, H));

        assertEquals(0, item.snapShot(jpeg.getPath(), 1000));
        byte[] bytes = Files.readAllBytes(jpeg.toPath());
        assertTrue(bytes.length > 100);
        assertEquals(0xff, bytes[0] & 0xff);
        assertEquals(0xd8, bytes[1] & 0xff);

        item.release();
        item.release();
        assertEquals(-1, item.getWidth());
        assertEquals(-1, item.getDuration());
        assertEquals(-1, item.getKeyFrameAt(pixels, W, H, 0));
        assertEquals(-1, item.snapShot(jpeg.getPath(), 0));
        // A strip without an item answers 0, not -1.
        assertEquals(0, item.getThumbnailList(pixels, W, H, 0, 1000, 2, index -> {}));
    }
}
