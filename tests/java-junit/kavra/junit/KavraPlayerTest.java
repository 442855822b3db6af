package kavra.junit;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import cn.kavra.video.player.common.KavraPlayer;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;

import org.junit.jupiter.api.Test;

/** Playback driven from Java, with the picture read back from the window and the sound from the PCM. */
class KavraPlayerTest {
    private final List<String> events = Collections.synchronizedList(new ArrayList<>());
    private final List<byte[]> pcm = Collections.synchronizedList(new ArrayList<>());

    /** A player reporting its events and PCM here, opened on a fixture and prepared. */
    private KavraPlayer prepared(String fixture, TestWindow window) throws Exception {
        KavraPlayer player = new KavraPlayer();
        player.setOnVideoSizeChangedListener((p, w, h) -> events.add("size " + w + "x" + h));
        player.setOnPreparedListener(p -> events.add("prepared"));
        player.setOnCompletionListener(p -> events.add("complete"));
        player.setOnErrorListener((p, what, extra) -> events.add("error"));
        assertEquals(0, player.setDataSource(Media.fixture(fixture)));
        if (window != null) {
            assertEquals(0, player.setSurface(window.surface));
        }
        player.setAudioCallback(data -> pcm.add(data.clone()));
        assertEquals(0, player.prepare());
        assertTrue(Media.await(() -> events.contains("prepared"), 10_000));
        return player;
    }

    /** Frequency of the stereo 16-bit tone in the PCM buffers from {@code first} on, from its zero crossings. */
    private double toneHz(int first, int sampleRate) {
        int crossings = 0;
        long frames = 0;
        short previous = 0;
        List<byte[]> buffers;
        synchronized (pcm) {
            buffers = new ArrayList<>(pcm.subList(first, pcm.size()));
        }
        for (byte[] buffer : buffers) {
            ByteBuffer samples = ByteBuffer.wrap(buffer).order(ByteOrder.nativeOrder());
            for (int i = 0; i + 3 < buffer.length; i += 4, frames++) {
                crossings += (previous < 0) != (samples.getShort(i) < 0) ? 1 : 0;
                previous = samples.getShort(i);
            }
        }
        return crossings / 2.0 * sampleRate / frames;
    }

    @Test
    void playsToCompletionWithEventsInOrder() throws Exception {
        // 2 s, 60 frames of 320x240, with sound.
        try (TestWindow window = new TestWindow(); KavraPlayer player = prepared("short_h264_aac.mp4", window)) {
            assertEquals(0, player.start());
            assertTrue(Media.await(() -> events.contains("complete"), 30_000), "events " + events);
            assertEquals(List.of("size 320x240", "prepared", "complete"), events);
            assertFalse(pcm.isEmpty());
            // The clip's last frames reach the window. A busy machine may drop a
            // late picture, the last one included; every frame once is checked
            // where the test can hold the clock (the native player tests).
            assertTrue(Media.await(() -> window.last().frameIndex() >= 55, 10_000), "last " + window.last().frameIndex());
        }
    }

    @Test
    void seekWhilePausedShowsTheFrameAtTheTarget() throws Exception {
        try (TestWindow window = new TestWindow(); KavraPlayer player = prepared("h264_aac.mp4", window)) {
            player.start();
            assertTrue(window.waitForQueued(1));
            player.pause();
            assertFalse(player.isPlaying());
            player.seekTo(5000);
            // Frame 150 starts at 5000 ms.
            assertTrue(Media.await(() -> window.last().frameIndex() == 150, 10_000));
            int position = player.getCurrentPosition();
            assertTrue(position >= 5000 && position < 5034, "position " + position);
        }
    }

    @Test
    void audioTrackSwitchChangesWhatIsHeard() throws Exception {
        // Streams: video 0, then audio 1 (a 440 Hz tone) and 2 (880 Hz).
        try (KavraPlayer player = prepared("two_audio.mp4", null)) {
            assertEquals(2, player.getAudioTrackCount());
            assertEquals(1, player.getAudioTrackIndex());
            player.start();
            assertTrue(Media.await(() -> pcm.size() >= 20, 10_000));
            assertEquals(440, toneHz(2, player.getSampleRate()), 20);

            player.setAudioTrack(1);
            assertEquals(2, player.getAudioTrackIndex());
            // Frames decoded before the switch may still be on their way.
            int switched = pcm.size() + 15;
            assertTrue(Media.await(() -> pcm.size() >= switched + 20, 10_000));
            assertEquals(880, toneHz(switched, player.getSampleRate()), 20);
        }
    }

    @Test
    void badSurfacesAndReleasedPlayerAreRefused() {
        try (TestWindow window = new TestWindow()) {
            KavraPlayer player = new KavraPlayer();
            assertEquals(0, player.setDataSource(Media.fixture("h264_aac.mp4")));
            assertEquals(-1, player.setSurface(null));
            window.abandon();
            assertEquals(-1, player.setSurface(window.surface));
            player.release();
            player.release();
            assertEquals(-1, player.setDataSource(Media.fixture("h264_aac.mp4")));
            assertEquals(-1, player.prepare());
            assertFalse(player.isPlaying());
            assertEquals(-1, player.getDuration());
            assertEquals(-1, player.getCurrentPosition());
            player.seekTo(1000);
            player.close();
        }
    }
}
