package kavra.junit;

import static cn.kavra.video.player.common.VideoRender.COLOR_FormatYUV420Planar;
import static cn.kavra.video.player.common.VideoRender.COLOR_FormatYUV420SemiPlanar;
import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertTrue;

import cn.kavra.video.player.common.VideoRender;

import java.util.Arrays;
import java.util.Random;

import org.junit.jupiter.api.Test;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.ValueSource;

/** Raw frames handed in as bytes and read back from the window they were shown in. */
class VideoRenderTest {
    private static final int W = 64;
    private static final int H = 48;

    @ParameterizedTest
    @ValueSource(ints = {COLOR_FormatYUV420Planar, COLOR_FormatYUV420SemiPlanar})
    void frameBytesArriveInTheWindow(int colorFormat) throws Exception {
        // Planar input is Y, U, V; semi-planar (NV12) is Y, then U and V interleaved. The window holds YV12:
        // Y, V, U, and at this width without padding between rows or planes.
        byte[] planar = new byte[W * H * 3 / 2];
        new Random(1).nextBytes(planar);
        byte[] input = planar.clone();
        byte[] expected = planar.clone();
        int u = W * H;
        int v = u + W * H / 4;
        for (int i = 0; i < W * H / 4; i++) {
            if (colorFormat == COLOR_FormatYUV420SemiPlanar) {
                input[u + 2 * i] = planar[u + i];
                input[u + 2 * i + 1] = planar[v + i];
            }
            expected[u + i] = planar[v + i];
            expected[v + i] = planar[u + i];
        }
        try (TestWindow window = new TestWindow(); VideoRender render = new VideoRender()) {
            render.setSurface(window.surface, 0);
            render.renderFrame(input, colorFormat, W, H, 1);
            assertTrue(Media.await(() -> window.queuedCount() > 0, 5000));
            render.release();
            TestWindow.Buffer shown = window.last();
            assertEquals(W + "x" + H + " stride " + W, shown.width() + "x" + shown.height() + " stride " + shown.stride());
            assertArrayEquals(expected, Arrays.copyOf(shown.bytes(), expected.length));
        }
    }

    @Test
    void badInputAndReleasedRendererShowNothing() {
        try (TestWindow window = new TestWindow(); VideoRender render = new VideoRender()) {
            render.setSurface(window.surface, 0);
            // Bytes that cannot hold the picture are refused.
            render.renderFrame(new byte[W * H], COLOR_FormatYUV420Planar, W, H, 1);
            render.renderFrame(null, COLOR_FormatYUV420Planar, W, H, 1);
            // A surface whose consumer went away cannot be shown in.
            window.abandon();
            render.setSurface(window.surface, 0);
            render.renderFrame(new byte[W * H * 3 / 2], COLOR_FormatYUV420Planar, W, H, 1);
            render.setSurface(null, 0);
            render.renderFrame(new byte[W * H * 3 / 2], COLOR_FormatYUV420Planar, W, H, 1);
            render.release();
            render.release();
            render.renderFrame(new byte[W * H * 3 / 2], COLOR_FormatYUV420Planar, W, H, 1);
            render.flush();
            assertEquals(0, window.queuedCount());
        }
    }
}
