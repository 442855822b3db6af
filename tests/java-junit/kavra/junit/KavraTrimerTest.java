package kavra.junit;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import cn.kavra.video.editor.KavraTrimer;

import java.io.File;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.TimeUnit;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;

/** Trimming as the editor does it, with the result checked by ffprobe. */
class KavraTrimerTest {
    /** ffprobe's lines for the file's streams: "codec,type,frames read". */
    private static String probe(File file) throws Exception {
        Process process = new ProcessBuilder("ffprobe", "-v", "error", "-count_frames",
                "-show_entries", "stream=codec_type,codec_name,nb_read_frames", "-of", "csv=p=0", file.getPath())
                .redirectErrorStream(true).start();
        assertTrue(process.waitFor(60, TimeUnit.SECONDS), "ffprobe hangs");
        return new String(process.getInputStream().readAllBytes(), StandardCharsets.UTF_8).trim();
    }

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
        for (int i = 1; i < progress.size(); i++) {
            assertTrue(progress.get(i) >= progress.get(i - 1), "progress " + progress);
        }
        assertEquals(100, progress.get(progress.size() - 1));
        // Frames 60 to 120 of the input, re-encoded as MPEG-4; the audio copied.
        String[] streams = probe(out).split("\n");
        assertEquals(2, streams.length, String.join("|", streams));
        assertEquals("mpeg4,video,61", streams[0]);
        assertTrue(streams[1].startsWith("aac,audio,"), streams[1]);
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
