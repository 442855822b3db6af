package kavra.junit;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import cn.kavra.video.player.common.KavraPlayer;

import java.util.ArrayList;
import java.util.Collections;
import java.util.List;
import java.util.concurrent.atomic.AtomicInteger;

import org.junit.jupiter.api.Test;

/** Playback driven from Java, with the picture read back from the window and the PCM buffers counted. */
class KavraPlayerTest {
    private final List<String> events = Collections.synchronizedList(new ArrayList<>());
    private final AtomicInteger pcmBuffers = new AtomicInteger();

    /** A player reporting its events and PCM buffers here, opened on a fixture and prepared. */
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
        player.setAudioCallback(data -> pcmBuffers.incrementAndGet());
        assertEquals(0, player.prepare());
        assertTrue(Media.await(() -> events.contains("prepared"), 10_000));
        return player;
    }

    @Test
    void seekWhilePausedShowsTheTargetFrameThenPlaysToCompletionWithEventsInOrder() throws Exception {
        // 2 s, 60 frames of 320x240, with sound.
        try (TestWindow window = new TestWindow(); KavraPlayer player = prepared("short_h264_aac.mp4", window)) {
            // Unrotated, 30 fps; stereo at 44.1 kHz.
            assertEquals("320x240 0 30 44100 2", player.getVideoWidth() + "x" + player.getVideoHeight() + " "
                    + player.getRotation() + " " + player.getFrameRate() + " " + player.getSampleRate() + " "
                    + player.getChannels());
            assertEquals(0, player.start());
            assertTrue(Media.await(() -> window.queuedCount() > 0, 10_000));
            assertEquals(0, player.pause());
            assertFalse(player.isPlaying());
            player.seekTo(1000);
            // Frame 30 starts at 1000 ms.
            assertTrue(Media.await(() -> window.last().frameIndex() == 30, 10_000), "last " + window.last().frameIndex());
            int position = player.getCurrentPosition();
            assertTrue(position >= 1000 && position < 1034, "position " + position);

            assertEquals(0, player.resume());
            assertTrue(Media.await(() -> events.contains("complete"), 30_000), "events " + events);
            assertEquals(List.of("size 320x240", "prepared", "complete"), events);
            assertTrue(pcmBuffers.get() > 0);
            // The clip's last frames reach the window. A busy machine may drop a
            // late picture, the last one included; every frame once is checked
            // where the test can hold the clock (the native player tests).
            assertTrue(Media.await(() -> window.last().frameIndex() >= 55, 10_000), "last " + window.last().frameIndex());
        }
    }

    /** Which track is heard after the switch is checked by the native player tests, from the PCM. */
    @Test
    void audioTrackSwitchRefusedSurfacesAndAReleasedPlayer() throws Exception {
        // Streams: video 0, then audio 1 and 2.
        KavraPlayer player = prepared("two_audio.mp4", null);
        assertEquals(2, player.getAudioTrackCount());
        assertEquals(1, player.getAudioTrackIndex());
        assertEquals(0, player.start());
        assertTrue(Media.await(() -> pcmBuffers.get() >= 5, 10_000));
        player.setAudioTrack(1);
        assertEquals(2, player.getAudioTrackIndex());
        int switched = pcmBuffers.get();
        assertTrue(Media.await(() -> pcmBuffers.get() >= switched + 5, 10_000), "the sound stopped after the switch");

        assertEquals(-1, player.setSurface(null));
        try (TestWindow window = new TestWindow()) {
            window.abandon();
            assertEquals(-1, player.setSurface(window.surface));
        }
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
