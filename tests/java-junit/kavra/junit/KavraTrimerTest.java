package kavra.junit;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import cn.kavra.video.editor.KavraTrimer;

import java.io.File;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** Trimming as the editor does it, with the result checked by ffprobe. */
class KavraTrimerTest {
    @Test
    void trimReportsProgressAndWritesTheRange(@TempDir Path dir) throws Exception {
        File out = dir.resolve("trimmed.mp4").toFile();
        List<Integer> progress = new ArrayList<>();
        try (KavraTrimer trimer = new KavraTrimer(Media.fixture("h264_aac.mp4"), out.getPath())) {
            trimer.setOnProgressListener((t, percent) -> {
                assertTrue(t == trimer);
                progress.add(percent);
            });
            trimer.setTrimRange(2_000_000, 4_000_000);
            assertEquals(0, trimer.prepare());
            assertEquals(0, trimer.startTrim(KavraTrimer.MODE_KEEP));
        }
        assertTrue(progress.size() >= 2, "progress " + progress);
        assertEquals(progress.stream().sorted().toList(), progress, "progress goes back");
        assertEquals(100, progress.get(progress.size() - 1));
        // Frames 60 to 120 of the input, re-encoded as MPEG-4; the audio copied.
        String streams = Media.run(List.of("ffprobe", "-v", "error", "-count_frames", "-show_entries",
                "stream=codec_type,codec_name,nb_read_frames", "-of", "csv=p=0", out.getPath()));
        assertTrue(streams.matches("mpeg4,video,61\naac,audio,\\d+\nexit 0"), streams);
    }

    @Test
    void failureIsReportedAndReleasedTrimmerDoesNothing(@TempDir Path dir) {
        File out = dir.resolve("never.mp4").toFile();
        KavraTrimer trimer = new KavraTrimer(dir.resolve("missing.mp4").toString(), out.getPath());
        trimer.setTrimRange(0, 1_000_000);
        assertTrue(trimer.prepare() < 0);
        trimer.release();
        trimer.release();
        assertEquals(-1, trimer.prepare());
        assertEquals(-1, trimer.startTrim(KavraTrimer.MODE_KEEP));
        assertTrue(!out.exists());
    }
}
