package kavra.junit;

import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertTrue;

import cn.kavra.video.player.common.KavraPlayer;

import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.util.ArrayList;
import java.util.List;

import org.junit.jupiter.api.Test;

/** Playback driven from Java, with the picture read back from the window and the sound from the PCM. */
class KavraPlayerTest {
    /** Keeps the PCM handed to the app and the events, in arrival order. */
    private static final class Recorder implements KavraPlayer.NativeGetAudioBufferCallback {
        final List<String> events = new ArrayList<>();
        private final List<byte[]> pcm = new ArrayList<>();

        Recorder(KavraPlayer player) {
            player.setOnVideoSizeChangedListener((p, w, h) -> add("size " + w + "x" + h));
            player.setOnPreparedListener(p -> add("prepared"));
            player.setOnCompletionListener(p -> add("complete"));
            player.setOnErrorListener((p, what, extra) -> add("error"));
        }

        private synchronized void add(String event) {
            events.add(event);
        }

        synchronized boolean has(String event) {
            return events.contains(event);
        }

        @Override
        public synchronized void onAudioBuffer(byte[] data) {
            pcm.add(data.clone());
        }

        synchronized int pcmBuffers() {
            return pcm.size();
        }

        /**
         * Frequency of a stereo 16-bit tone from the zero crossings of the
         * left channel over the buffers from {@code first} on.
         */
        synchronized double toneHz(int first, int sampleRate) {
            int crossings = 0;
            long frames = 0;
            short previous = 0;
            for (byte[] buffer : pcm.subList(first, pcm.size())) {
                ByteBuffer samples = ByteBuffer.wrap(buffer).order(ByteOrder.nativeOrder());
                for (int i = 0; i + 3 < buffer.length; i += 4, frames++) {
                    short left = samples.getShort(i);
                    if ((previous < 0) != (left < 0)) {
                        crossings++;
                    }
                    previous = left;
                }
            }
            return crossings / 2.0 / ((double) frames / sampleRate);
        }
    }

    @Test
    void playsToCompletionWithEventsInOrder() throws Exception {
        try (TestWindow window = new TestWindow(); KavraPlayer player = new KavraPlayer()) {
            Recorder recorder = new Recorder(player);
            // A 2 s clip, 320x240, with sound.
            assertEquals(0, player.setDataSource(Media.fixture("bad_rotate.mkv")));
            assertEquals(0, player.setSurface(window.surface));
            player.setAudioCallback(recorder);
            assertEquals(0, player.prepare());
            assertTrue(Media.await(() -> recorder.has("prepared"), 10_000));
            assertEquals(0, player.start());
            assertTrue(Media.await(() -> recorder.has("complete"), 30_000), "events " + recorder.events);
            assertEquals(List.of("size 320x240", "prepared", "complete"), recorder.events);
            assertTrue(recorder.pcmBuffers() > 0);
            assertEquals(59, window.last().frameIndex());
        }
    }

    @Test
    void seekWhilePausedShowsTheFrameAtTheTarget() throws Exception {
        try (TestWindow window = new TestWindow(); KavraPlayer player = new KavraPlayer()) {
            Recorder recorder = new Recorder(player);
            assertEquals(0, player.setDataSource(Media.fixture("h264_aac.mp4")));
            assertEquals(0, player.setSurface(window.surface));
            player.setAudioCallback(recorder);
            player.prepare();
            assertTrue(Media.await(() -> recorder.has("prepared"), 10_000));
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
        try (KavraPlayer player = new KavraPlayer()) {
            Recorder recorder = new Recorder(player);
            // Track 0 is a 440 Hz tone, track 1 an 880 Hz one.
            assertEquals(0, player.setDataSource(Media.fixture("two_audio.mp4")));
            player.setAudioCallback(recorder);
            player.prepare();
            assertTrue(Media.await(() -> recorder.has("prepared"), 10_000));
            assertEquals(2, player.getAudioTrackCount());
            // Streams: video 0, audio 1 and 2.
            assertEquals(1, player.getAudioTrackIndex());
            player.start();
            assertTrue(Media.await(() -> recorder.pcmBuffers() >= 20, 10_000));
            assertEquals(440, recorder.toneHz(2, player.getSampleRate()), 20);

            player.setAudioTrack(1);
            assertEquals(2, player.getAudioTrackIndex());
            // Frames decoded before the switch may still be on their way.
            int switched = recorder.pcmBuffers() + 15;
            assertTrue(Media.await(() -> recorder.pcmBuffers() >= switched + 20, 10_000));
            assertEquals(880, recorder.toneHz(switched, player.getSampleRate()), 20);
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
            assertEquals(-1, player.setSurface(window.surface));
            assertEquals(-1, player.prepare());
            assertFalse(player.isPlaying());
            assertEquals(-1, player.getDuration());
            assertEquals(-1, player.getCurrentPosition());
            player.seekTo(1000);
            player.close();
        }
    }
}
